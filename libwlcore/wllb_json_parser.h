// Reads a JSON file as a tree of named values with children and siblings to walk.
//   In      a file that may hold anything
//   Out     the tree, or the reason why there is none
//   Thread  any; a file's tree belongs to whoever read it
//   Failure null and a text; what is not strict JSON (UTF-8, no NULs, one value and nothing behind it) is refused whole
#pragma once

#include <cstdint>
#include <memory>
#include <string>

enum wllb_json_type : uint8_t { WLLB_JSON_OBJECT, WLLB_JSON_ARRAY, WLLB_JSON_TEXT, WLLB_JSON_OTHER };

// One value. Texts and neighbours live as long as the file they were read from.
struct wllb_jsont {
  wllb_json_type type;
  const char *name;        // of an object's member; "" for the elements of an array and for the root
  const char *text;        // of a text; "" for all else
  const wllb_jsont *child; // first member or element, in the file's order; null: none
  const wllb_jsont *next;  // next member or element of the same parent
};

// Values nested deeper make no tree.
constexpr int wllb_json_most_depth = 64;

// A file of more bytes is refused.
constexpr size_t wllb_json_most_bytes = size_t{64} << 20U;

struct wllb_json;

// Reads and parses the file. Owned by the caller, given back with wllb_json_free. Null on failure, the reason in *error.
wllb_json *wllb_json_init(const char *path, std::string *error);

// The root of the file's tree. Null on failure, the reason in *error.
const wllb_jsont *wllb_json_to_jsont(wllb_json *json, std::string *error);

// Gives back the file and its tree; a null one does nothing.
void wllb_json_free(wllb_json *json);

// The member of that name; null when there is none, or `object` is null or no object.
const wllb_jsont *wllb_jsont_member(const wllb_jsont *object, const char *name);

struct wllb_close_json {
  void operator()(wllb_json *json) const { wllb_json_free(json); }
};

using wllb_json_file = std::unique_ptr<wllb_json, wllb_close_json>;
