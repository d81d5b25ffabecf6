// Prints the call tree of a segment.
#pragma once

#include "show_files.h"

// The kinds of names that a tree needs.
constexpr uint32_t show_tree_kinds = 1U << KIND_METHOD | 1U << KIND_SQL | 1U << KIND_RESOURCE;

// Prints a rewritten blob's text as a tree on standard output, a line each for methods and callouts; the first 250000 of them.
void show_print_tree(const show_names &names, std::string_view text);
