// Checks the rows of all files but the flowpath's.
#pragma once

#include "show_files.h"

// Checks the files of one instance in one partition: columns, and ids that must have a name. Returns the number of rows.
int64_t show_check_side_files(const show_run &run, const std::string &partition, const std::string &instance,
                              const show_names &names, show_faults *faults);

// The common files that name nothing.
int64_t show_check_common_files(const show_run &run, show_faults *faults);
