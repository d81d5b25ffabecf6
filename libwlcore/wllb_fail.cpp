// The end of a process that cannot go on: one line on standard error that says why.

#include "wllb_fail.h"

#include "wllb_alloc.h"

#include <cerrno>

void wllb_fail(int status, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string words = wllb_vformat(fmt, args);
  va_end(args);
  while (words.ends_with('\n'))
    words.pop_back();
  fflush(stdout);
  fprintf(stderr, "%s: %s\n", program_invocation_short_name, words.c_str());
  wllb_exit(status);
}
