// The tree over an installed JSON library; see the header.

#include "wllb_json_parser.h"

#include "wllb_util.h"

#include <cstring>
#include <deque>

#include <jansson.h>

struct wllb_json {
  json_t *root;                 // owned; names and texts of the tree point into it
  std::deque<wllb_jsont> nodes; // do not move
};

wllb_json *wllb_json_init(const char *path, std::string *error) {
  if (!wllb_is_regular_file(path)) {
    *error = "it is no regular file";
    return nullptr;
  }
  const std::string text = wllb_read_small_file(path, wllb_json_most_bytes + 1);
  if (text.size() > wllb_json_most_bytes) {
    *error = "it is too long";
    return nullptr;
  }
  json_error_t why = {};
  json_t *root = json_loadb(text.data(), text.size(), 0, &why);
  if (root)
    return new wllb_json{root, {}};
  *error = wllb_format("line %d: %s", why.line, why.text);
  return nullptr;
}

void wllb_json_free(wllb_json *json) {
  if (!json)
    return;
  json_decref(json->root);
  delete json;
}

// --- the tree -------------------------------------------------------------------------------------------------------

static wllb_json_type type_of(const json_t *value) {
  return json_is_object(value)   ? WLLB_JSON_OBJECT
         : json_is_array(value)  ? WLLB_JSON_ARRAY
         : json_is_string(value) ? WLLB_JSON_TEXT
                                 : WLLB_JSON_OTHER;
}

// Puts a value and all below it into the tree. Null when the depth that is left is used up.
// NOLINTNEXTLINE(misc-no-recursion): as deep as `depth_left`
static wllb_jsont *add_value(wllb_json *json, json_t *value, const char *name, int depth_left) {
  if (depth_left == 0)
    return nullptr;
  const char *text = json_string_value(value);
  wllb_jsont *node = &json->nodes.emplace_back(wllb_jsont{type_of(value), name, text ? text : "", nullptr, nullptr});
  const wllb_jsont **link = &node->child;
  const auto add_child = [&](json_t *child, const char *child_name) {
    wllb_jsont *added = add_value(json, child, child_name, depth_left - 1);
    *link = added;
    if (added)
      link = &added->next;
    return added != nullptr;
  };
  for (size_t i = 0; i < json_array_size(value); ++i)
    if (!add_child(json_array_get(value, i), ""))
      return nullptr;
  for (void *at = json_object_iter(value); at; at = json_object_iter_next(value, at))
    if (!add_child(json_object_iter_value(at), json_object_iter_key(at)))
      return nullptr;
  return node;
}

const wllb_jsont *wllb_json_to_jsont(wllb_json *json, std::string *error) {
  if (!json->nodes.empty())
    return &json->nodes.front();
  const wllb_jsont *root = add_value(json, json->root, "", wllb_json_most_depth);
  if (root)
    return root;
  json->nodes.clear();
  *error = "it is nested too deeply";
  return nullptr;
}

const wllb_jsont *wllb_jsont_member(const wllb_jsont *object, const char *name) {
  if (!object || object->type != WLLB_JSON_OBJECT)
    return nullptr;
  const wllb_jsont *member = object->child;
  while (member && strcmp(member->name, name) != 0)
    member = member->next;
  return member;
}
