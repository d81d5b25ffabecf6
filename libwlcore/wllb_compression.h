// gzip members: one kept deflate stream a thread, and the matching inflate for readers of the files.
//   In      a text   Out  the same bytes a fresh stream would give (default level, memory level 8, default strategy)
//   Thread  any; the kept stream belongs to the calling thread
//   Failure -1 or a zlib error code, and a line on standard error
#pragma once

#include "wllb_text.h"

#include <string>
#include <string_view>

// Compresses `data` into `out` from its beginning: mode 1 a gzip wrapper, anything else a plain zlib wrapper. 0 on success.
int wllb_comp_do(std::string_view data, int mode, wllb_text *out);

// Inflates exactly one gzip (or zlib) member of `length` bytes; *out gets the text, at most `limit` bytes. 0 on success, -1 when the
// bytes are damaged, cut, followed by others, or inflate to more than `limit`.
int wllb_decomp_do(const char *data, size_t length, size_t limit, std::string *out);
