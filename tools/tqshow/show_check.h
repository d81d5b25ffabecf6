// Checks every reference in a test run's output.
#pragma once

#include "show_flowpath.h"

// Checks the files of the choice and prints what is wrong, or one line of totals. 0 when nothing is wrong, else 1.
int show_check(const show_run &run, const show_choice &choice);
