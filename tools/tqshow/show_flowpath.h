// Prints flowpaths whole.
#pragma once

#include "show_options.h"
#include "show_out.h"

// Prints every flowpath that the question finds, or the first one. The exit status: 0, or 1 when there is none or when a part
// of one cannot be read.
int show_flowpaths(const tqread::test_run &run, const show_options &options, show_out *out);
