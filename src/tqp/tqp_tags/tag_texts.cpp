// Labels of an instance: global attributes and tags, tag sets of flowpaths, and the ids of their merged texts.
//   In      JSON texts of agents, which are joined without being looked into
//   Out     ids in key_tags, entries of tags_map, rows of "TQTags.csv" and the recovery file for texts that are new
//   Thread  the instance's; the table of texts needs no lock
//   Failure a tag set without a text or a local id is an incomplete record; a row that cannot be written is told and lost
// Samples:  110,{"a":1}      row 1,'{"a":1}'                local id 1
//           111,{"b":2}      rows 2,'{"b":2}' and 3,'{"a":1,"b":2}', local ids 2 and 3
//           112,5,{"c":3}    row 4,'{"a":1,"b":2,"c":3}'    local id 5

#include "tqp_tags.h"

#include "field_cursor.h"
#include "local_maps.h"
#include "metadata_rows.h"
#include "record_errors.h"
#include "state_save.h"
#include "tag_ids.h"

// Local ids that no agent gives out.
constexpr int LOCAL_ID_ATTRIBUTES = 1, LOCAL_ID_TAGS = 2, LOCAL_ID_BOTH = 3;

static constexpr const char *attributes_label = "global_attributes";
static constexpr const char *tags_label = "global_tags";
static constexpr const char *both_label = "global_attr_tags";

// --- texts of the instance ----------------------------------------------------------------------------------------

static std::string_view view_of(const char *text) {
  return text ? text : "";
}

// Puts a copy in the place of what is kept. The size of the new block.
static size_t keep_text(char **kept, size_t kept_size, std::string_view text, const char *label) {
  const size_t size = text.size() + 1;
  auto *copy = static_cast<char *>(wllb_new_block(size, label));
  text.copy(copy, text.size());
  wllb_free_block(*kept, kept_size, label);
  *kept = copy;
  return size;
}

static void drop_text(char **kept, size_t kept_size, const char *label) {
  wllb_free_block(*kept, kept_size, label);
  *kept = nullptr;
}

void tqp_free_global_texts(tqp_instance_t *inst) {
  drop_text(&inst->global_attributes, inst->global_attributes_len, attributes_label);
  drop_text(&inst->global_tags, inst->global_tags_len, tags_label);
  drop_text(&inst->global_attr_tags, inst->global_attr_tags_len + 1, both_label);
  inst->global_attributes_len = inst->global_tags_len = inst->global_attr_tags_len = 0;
}

// Two objects as one: the first without its last byte, the second without its first, whatever these bytes are. The first
// is not empty.
static std::string join(std::string_view first, std::string_view second) {
  std::string joined;
  joined.reserve(first.size() + second.size() + 1);
  joined.append(first.substr(0, first.size() - 1)).append(",").append(second.substr(second.empty() ? 0 : 1));
  return joined;
}

// --- ids and rows ---------------------------------------------------------------------------------------------------

static void tqp_write_tags_csv_file(tqp_instance_t *inst, int norm_id, const char *text) {
  tqp_check_offline_metadata(inst, TQ_EV_TAGS, text);
  tqp_append_metadata_row(inst, TAGS_TABLE_CSV_IDX, wllb_format("%d,'%s'\n", norm_id, text));
}

static void tqp_add_entry_helper(tqp_instance_t *inst, const char *text, size_t length, int tag_id) {
  uint32_t id;
  const bool known = get_norm_id(&count_tags, text, static_cast<int>(length), &id, tag_id);
  const auto norm_id = static_cast<int>(id);
  tqp_store_loc2norm(inst, LOC2NORM_TAGS, tag_id, norm_id);
  if (known)
    return;
  tqp_write_tags_csv_file(inst, norm_id, text);
  if (tag_id == LOCAL_ID_ATTRIBUTES || tag_id == LOCAL_ID_TAGS)
    tqp_write_recovery_raw_data(inst);
}

// A global text has changed: its own id, and that of both together.
static void add_global_text(tqp_instance_t *inst, int write_back, int kind) {
  const std::string_view attributes = view_of(inst->global_attributes), tags = view_of(inst->global_tags);
  if (write_back && kind == TAG_KIND_ATTRIBUTES)
    tqp_add_entry_helper(inst, inst->global_attributes, inst->global_attributes_len, LOCAL_ID_ATTRIBUTES);
  else if (write_back)
    tqp_add_entry_helper(inst, inst->global_tags, inst->global_tags_len, LOCAL_ID_TAGS);
  if (attributes.empty() || tags.empty())
    return;
  // The attributes stand first, whichever came first.
  const std::string both = join(attributes, tags);
  keep_text(&inst->global_attr_tags, inst->global_attr_tags_len + 1, both, both_label);
  inst->global_attr_tags_len = both.size();
  if (write_back)
    tqp_add_entry_helper(inst, inst->global_attr_tags, inst->global_attr_tags_len, LOCAL_ID_BOTH);
}

// A tag set goes by the fullest global text there is. Texts have no longest length, so the join is made on the heap.
static void add_tag_set(tqp_instance_t *inst, std::string_view text, int tag_id) {
  const char *global = inst->global_attr_tags    ? inst->global_attr_tags
                       : inst->global_attributes ? inst->global_attributes
                                                 : inst->global_tags;
  const std::string merged = global ? join(global, text) : std::string(text);
  tqp_add_entry_helper(inst, merged.c_str(), merged.size(), tag_id);
}

// --- records --------------------------------------------------------------------------------------------------------

void tqp_set_global_tags_and_attributes(tqp_instance_t *inst, char **p_cursor, char *end_of_record, int write_back,
                                        int kind) {
  auto n = end_of_record - *p_cursor;
  if (n <= 0)
    return;
  if (write_back)
    *end_of_record = 0;
  else
    ++n; // the end is the last byte
  std::string_view text(*p_cursor, static_cast<size_t>(n));
  text = text.substr(0, text.find('\0'));
  if (text.empty())
    return;
  if (kind == TAG_KIND_ATTRIBUTES)
    inst->global_attributes_len =
        keep_text(&inst->global_attributes, inst->global_attributes_len, text, attributes_label);
  else
    inst->global_tags_len = keep_text(&inst->global_tags, inst->global_tags_len, text, tags_label);
  add_global_text(inst, write_back, kind);
}

void tqp_process_tags(tqp_instance_t *inst, char **p_cursor, char *end_of_record) {
  char *id_text;
  if (read_next_field(&id_text, p_cursor, end_of_record, ',') < 0)
    return tqp_incomplete_record(inst);
  const char *text = *p_cursor;
  if (*text == 0 && text < end_of_record) // the comma that was cut: another one follows it
    ++text;
  *end_of_record = 0;
  const int64_t id = strtoll(id_text, nullptr, 10);
  if (id < 0 || id > max_local_id)
    return tqp_incomplete_record(inst);
  add_tag_set(inst, text, static_cast<int>(id));
}
