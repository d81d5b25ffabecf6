// Prints the call tree of a segment.
#pragma once

#include "show_out.h"

#include "tqread_flowpath.h"
#include "tqread_tiers.h"

#include <functional>

// The kinds of names that a tree needs.
constexpr uint32_t show_tree_kinds =
    tqread::kinds_of({tqread::name_kind::method, tqread::name_kind::query, tqread::name_kind::resource});

struct show_tree_options {
  int64_t fold_ms = 0; // methods shorter than this are folded, with all in them, unless there is an error in them
  int levels = 0;      // under which the tree stands: of a called tier
  // Called after the line of each callout, with the level below it; prints the trees that it called. May be empty.
  std::function<void(const tqread::tree_callout &callout, int levels)> after_callout;
};

// One line for each node; the heading is the caller's.
void show_print_tree(const tqread::name_table &names, const tqread::call_tree &tree, const show_tree_options &options,
                     show_out *out);

void show_tree_heading(show_out *out);
