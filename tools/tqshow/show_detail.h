// What agents captured of a request beside its calls: request detail, logged values, bodies.
#pragma once

#include "show_files.h"

// The kinds of names that logged values need.
constexpr uint32_t show_detail_kinds = 1U << KIND_METHOD | 1U << KIND_HEADER;

// Prints a segment's request detail, logged values and bodies, as far as there are any. False when a text cannot be read.
bool show_print_detail(const show_run &run, const show_names &names, int64_t app, const show_segment_line &line,
                       std::string_view detail);

// What is wrong with the logged values and bodies of a segment; empty: nothing.
std::vector<std::string> show_check_detail(const show_run &run, const show_names &names, int64_t app,
                                           const show_segment_line &line);
