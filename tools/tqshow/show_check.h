// Checks every reference in a test run's output.
#pragma once

#include "show_options.h"
#include "show_out.h"

// Checks the files that the question's place takes and prints what is wrong, or one line of totals. 0 when nothing is wrong,
// else 1.
int show_check(const tqread::test_run &run, const show_options &options, show_out *out);
