// Lists flowpaths and prints single ones.
#pragma once

#include "show_files.h"

// Which files are looked at, and which flowpath is wanted.
struct show_choice {
  std::string partition, instance; // empty: all of them
  int64_t flowpath = 0;
  bool first = false; // the first one that there is
  bool every = false; // all of them
};

// Calls `use` for each partition and instance of the choice, oldest partition first, until it returns false.
template <class Use> void show_each_instance(const show_run &run, const show_choice &choice, Use use) {
  for (const std::string &partition : show_partitions(run))
    if (choice.partition.empty() || choice.partition == partition)
      for (const std::string &instance : show_instances(run, partition))
        if ((choice.instance.empty() || choice.instance == instance) && !use(partition, instance))
          return;
}

// How wide the column of instances is in a list.
int show_instance_width(const show_run &run, const show_choice &choice);

// Prints what is wrong with the line that was read last, in its place in a list.
void show_tell_bad_row(const std::string &path, const show_lines &lines, const char *words);

// Prints one line for each flowpath. 0, or 1 when a row cannot be read.
int show_list(const show_run &run, const show_choice &choice);

// Prints the chosen flowpath with its call trees and exceptions; or every one, without exceptions. 0, or 1 when it is not there or not whole.
int show_one(const show_run &run, const show_choice &choice);
