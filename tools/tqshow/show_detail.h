// What agents captured of a request beside its calls: request detail, logged values, bodies.
#pragma once

#include "show_out.h"

#include "tqread_flowpath.h"

// The kinds of names that logged values need.
constexpr uint32_t show_detail_kinds = tqread::kinds_of({tqread::name_kind::method, tqread::name_kind::header});

// Prints a segment's request detail, logged values and bodies, as far as there are any.
void show_print_detail(const tqread::name_table &names, const tqread::flowpath_segment &segment, show_out *out);
