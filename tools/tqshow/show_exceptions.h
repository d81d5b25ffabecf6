// Exceptions: who threw what where. show_list.h has the list of all.
#pragma once

#include "show_out.h"

#include "tqread_flowpath.h"

// The kinds of names that exceptions need.
constexpr uint32_t show_exception_kinds =
    tqread::kinds_of({tqread::name_kind::exception_class, tqread::name_kind::throwing_class,
                      tqread::name_kind::throwing_method, tqread::name_kind::message, tqread::name_kind::cause,
                      tqread::name_kind::stack_trace, tqread::name_kind::method, tqread::name_kind::query});

// Prints the exceptions of one flowpath with a heading, an empty line before it; nothing when it has none.
void show_exceptions_of(const tqread::name_table &names, const tqread::flowpath &whole, show_out *out);
