// Exports what a question finds, to a file or to an endpoint.
#pragma once

#include "show_options.h"

#include "export.h"

#include <string>
#include <vector>

struct show_export_options {
  int format = -1;    // place in the words of --export, as tqread::export_format; -1: no export
  int weight = 0;     // the same of --weight
  std::string output; // path; "" or "-": standard output
  std::string push_url;
  std::vector<std::string> push_headers;

  bool wanted() const { return format >= 0 || !push_url.empty(); }
};

// "" or why the options do not go together.
std::string show_check_export(const show_options &options, const show_export_options &wanted);

// Exports each flowpath that the question finds. The exit status: 0, or 1 when something could not be read, written or sent, or
// nothing was found.
int show_export(const tqread::test_run &run, const show_options &options, const show_export_options &wanted);
