// A growing arena of texts. Callers keep offsets, since the memory may move.
//   Thread  none of its own: whoever owns the arena guards it
//   Failure memory that cannot be had ends the process
#pragma once

#include <cstddef>

struct bigbuf_t {
  char *buffer;
  long offset;  // next free byte
  long bufsize; // bytes
};

// Zeroed memory of 1048576 bytes, or of `size` (above 0). 0, or -1 for a null record.
int wllb_bigbuf_init(bigbuf_t *bb);
int wllb_bigbuf_init_ex(bigbuf_t *bb, long size);

// Stores `len` bytes (0: the text's own length) and a NUL. Their offset, or -1 for a null argument or a len below 0.
// A text that ends before `len` is filled up with zeros, so words with zero bytes in them do not survive.
long wllb_bigbuf_copy_into_bigbuf(bigbuf_t *bb, const char *text, long len);

// The text at an offset, valid until the next copy; null for a null record or an offset outside.
char *wllb_bigbuf_get_value(const bigbuf_t *bb, long offset);

// Non-zero when offset plus len is below the size.
int wllb_bigbuf_chk_avail_space(const bigbuf_t *bb, long len);

// Grows by 10240 bytes.
void wllb_bigbuf_realloc(bigbuf_t *bb);
void wllb_bigbuf_free(bigbuf_t *bb);
