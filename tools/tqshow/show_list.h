// Lists: flowpaths and sums, as columns for people or as JSON lines.
#pragma once

#include "show_options.h"
#include "show_out.h"

// Lists what the question finds. The exit status: 0, or 1 when a row could not be read or an asked correlation id does not
// occur.
int show_list(const tqread::test_run &run, const show_options &options, show_out *out);

// Counts it: one number.
int show_count(const tqread::test_run &run, const show_options &options, show_out *out);

// Prints sums, the largest first.
int show_sums(const tqread::test_run &run, const show_options &options, show_out *out);

// Lists exceptions.
int show_exceptions(const tqread::test_run &run, const show_options &options, show_out *out);

// Lists flowpaths as they arrive, until a signal ends the program.
int show_follow(const tqread::test_run &run, const show_options &options, show_out *out);

// Whether a sort key belongs to the list that these options ask for. "" or why not.
std::string show_check_sort(const show_options &options);

// Loads names and makes the filter of a question; false: the reason is on standard error.
struct show_question {
  tqread::name_table names;
  tqread::filter which;

  bool make(const tqread::test_run &run, const tqread::question &asked, uint32_t more_kinds);
};

// Prints a fault of a file on standard error, in one line.
void show_fault(const tqread::error &fault);
