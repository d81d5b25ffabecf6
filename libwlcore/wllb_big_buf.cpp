// A growing arena of texts, one after another, each with its NUL; callers keep offsets.
//   In      texts
//   Out     their offsets; bytes behind the last text are always zero
//   Thread  none of its own: whoever owns the arena guards it
//   Failure memory that cannot be had ends the process
#include "wllb_big_buf.h"

#include "wllb_alloc.h"

#include <climits>
#include <cstring>

static constexpr long bigbuf_first_size = 1048576;
static constexpr long bigbuf_step = 10240;
static const char *const bigbuf_label = "bigbuf";

int wllb_bigbuf_init(bigbuf_t *bb) {
  return wllb_bigbuf_init_ex(bb, bigbuf_first_size);
}

int wllb_bigbuf_init_ex(bigbuf_t *bb, long size) {
  if (!bb || size <= 0)
    return -1;
  bb->buffer = static_cast<char *>(wllb_new_block(static_cast<size_t>(size), bigbuf_label));
  bb->offset = 0;
  bb->bufsize = size;
  return 0;
}

static void grow_by_steps(bigbuf_t *bb, long steps) {
  const long grown = bb->bufsize + steps * bigbuf_step;
  bb->buffer = static_cast<char *>(
      wllb_grow_block(bb->buffer, static_cast<size_t>(bb->bufsize), static_cast<size_t>(grown), bigbuf_label));
  bb->bufsize = grown;
}

void wllb_bigbuf_realloc(bigbuf_t *bb) {
  grow_by_steps(bb, 1);
}

int wllb_bigbuf_chk_avail_space(const bigbuf_t *bb, long len) {
  return len < bb->bufsize - bb->offset ? 1 : 0;
}

long wllb_bigbuf_copy_into_bigbuf(bigbuf_t *bb, const char *text, long len) {
  if (!bb || !text || len < 0)
    return -1;
  const size_t told = static_cast<size_t>(len);
  const size_t text_len = len == 0 ? strlen(text) : strnlen(text, told);
  const long room = len == 0 ? static_cast<long>(text_len) : len;
  if (room > LONG_MAX / 2 - bb->bufsize)
    wllb_out_of_memory(told, bigbuf_label);
  // As many steps as growing one by one would take until room plus its NUL is available.
  if (!wllb_bigbuf_chk_avail_space(bb, room + 1))
    grow_by_steps(bb, (bb->offset + room + 1 - bb->bufsize) / bigbuf_step + 1);
  memcpy(bb->buffer + bb->offset, text, text_len);
  const long offset = bb->offset;
  bb->buffer[offset + room] = '\0';
  bb->offset += room + 1;
  return offset;
}

char *wllb_bigbuf_get_value(const bigbuf_t *bb, long offset) {
  if (!bb || offset < 0 || offset >= bb->bufsize)
    return nullptr;
  return bb->buffer + offset;
}

void wllb_bigbuf_free(bigbuf_t *bb) {
  if (!bb)
    return;
  wllb_free_block(bb->buffer, static_cast<size_t>(bb->bufsize), bigbuf_label);
  *bb = {};
}
