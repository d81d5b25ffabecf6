// Pieces of the discovery records that others use.
#pragma once

#include <cstddef>
#include <cstdint>

// Lengths of the class and package text, both of which begin the method's name. 0: none.
struct method_name_parts {
  size_t class_len;
  size_t package_len;
};

// The text before the last dot is the class, the text before the dot before it the package. Only the first 2047 bytes
// of the name are looked at.
method_name_parts extract_classname_packagename(const char *method_name, size_t len);

// Reads a local id; false for one that no map takes.
bool tq_local_id(const char *text, int64_t *local_id);
