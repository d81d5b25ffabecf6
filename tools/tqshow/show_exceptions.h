// Lists exceptions: who threw what where.
#pragma once

#include "show_flowpath.h"

// Prints one line for each exception. 0, or 1 when a row cannot be read.
int show_exceptions(const show_run &run, const show_choice &choice);

// Prints the exceptions of one flowpath with a heading, an empty line before it; nothing when it has none.
void show_exceptions_of(const show_run &run, const show_choice &choice, int64_t flowpath);
