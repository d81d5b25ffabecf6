// The end of a process that cannot go on: one line on standard error that says why.
//   In      words for whoever started the process; they name the path or option at fault
//   Out     "PROGRAM: words" on standard error; what standard output holds goes out before
//   Thread  any
//   Failure none: the process ends
#pragma once

#include "wllb_util.h"

// Ends the process with `status` at once.
[[noreturn]] void wllb_fail(int status, const char *fmt, ...) WLLB_PRINTF(2, 3);
