// gzip and zlib members over a deflate stream that each thread keeps for each wrapper.
//   In      texts of one process; members from files that may be damaged
//   Out     members with the bytes that a fresh stream would give; texts
//   Thread  any; streams are the calling thread's and end with it
//   Failure -1 or a zlib error code, and a line on standard error
// A stream costs some 260 KiB and most of a short text's time to set up, hence it is kept and reset.

#include "wllb_compression.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <zlib.h>

static constexpr int gzip_window_bits = 31;
static constexpr int zlib_window_bits = 15;
static constexpr int any_wrapper_window_bits = 47;

struct kept_stream {
  int window_bits;
  bool ready = false;
  z_stream z = {};

  explicit kept_stream(int bits) : window_bits(bits) {}

  ~kept_stream() {
    if (ready)
      deflateEnd(&z);
  }

  kept_stream(const kept_stream &) = delete;
  kept_stream &operator=(const kept_stream &) = delete;
};

// A stream that is as good as new. Z_OK or a zlib error code.
static int begin(kept_stream &stream) {
  constexpr int memory_level = 8;
  if (stream.ready)
    return deflateReset(&stream.z);
  const int result =
      deflateInit2(&stream.z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, stream.window_bits, memory_level, Z_DEFAULT_STRATEGY);
  stream.ready = result == Z_OK;
  return result;
}

// The whole text in one step: the room is what deflate needs at most.
static int deflate_all(z_stream &z, std::string_view data, wllb_text *out) {
  wllb_text_room(*out, deflateBound(&z, data.size()), "compression buf");
  z.next_in = const_cast<Bytef *>(reinterpret_cast<const Bytef *>(data.data())); // NOLINT: read only
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef *>(out->data);
  z.avail_out = static_cast<uInt>(std::min<size_t>(out->size - 1, UINT_MAX));
  const int result = deflate(&z, Z_FINISH);
  if (result == Z_STREAM_ERROR || result == Z_BUF_ERROR) {
    fprintf(stderr, "compression error ret=%d\n", result == Z_BUF_ERROR ? Z_DATA_ERROR : result);
    return -1;
  }
  if (result != Z_STREAM_END || z.avail_in != 0) {
    fprintf(stderr, "decompression error ret=%d\n", result); // the word is what operators know
    return -1;
  }
  out->len = z.total_out;
  out->data[out->len] = 0;
  return 0;
}

int wllb_comp_do(std::string_view data, int mode, wllb_text *out) {
  thread_local kept_stream gzip(gzip_window_bits), zlib(zlib_window_bits);
  wllb_text_clear(*out);
  kept_stream &stream = mode == 1 ? gzip : zlib;
  const int result = data.size() > UINT_MAX ? Z_MEM_ERROR : begin(stream);
  if (result == Z_OK)
    return deflate_all(stream.z, data, out);
  fprintf(stderr, "compression error ret=%d\n", result);
  return result;
}

// Inflates until the stream ends, fails, or gives a byte too many. The text has one byte of room behind the limit, so
// that a member of exactly `limit` bytes comes to its end.
static bool inflate_all(z_stream &z, size_t limit, std::string *out) {
  constexpr size_t first_room = 4096, most_at_once = size_t{1} << 30U;
  size_t done = 0;
  int result = Z_OK;
  while (result == Z_OK && done <= limit) {
    if (done == out->size())
      out->resize(std::min(limit + 1, std::max(first_room, done * 2)));
    const auto room = static_cast<uInt>(std::min(out->size() - done, most_at_once));
    z.next_out = reinterpret_cast<Bytef *>(out->data() + done);
    z.avail_out = room;
    result = inflate(&z, Z_NO_FLUSH);
    done += room - z.avail_out;
  }
  out->resize(std::min(done, limit));
  return result == Z_STREAM_END && z.avail_in == 0 && done <= limit;
}

// The calling thread's stream for inflating, kept as the ones above: setting one up costs more than a short member.
struct kept_inflate {
  bool ready = false;
  z_stream z = {};

  kept_inflate() = default;

  ~kept_inflate() {
    if (ready)
      inflateEnd(&z);
  }

  kept_inflate(const kept_inflate &) = delete;
  kept_inflate &operator=(const kept_inflate &) = delete;
};

int wllb_decomp_do(const char *data, size_t length, size_t limit, std::string *out) {
  thread_local kept_inflate kept;
  out->clear();
  if (length > UINT_MAX)
    return -1;
  if (kept.ready ? inflateReset(&kept.z) != Z_OK : inflateInit2(&kept.z, any_wrapper_window_bits) != Z_OK)
    return -1;
  kept.ready = true;
  kept.z.next_in = const_cast<Bytef *>(reinterpret_cast<const Bytef *>(data)); // NOLINT: read only
  kept.z.avail_in = static_cast<uInt>(length);
  return inflate_all(kept.z, std::min(limit, out->max_size() - 1), out) ? 0 : -1;
}
