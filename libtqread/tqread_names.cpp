// Keeps and loads names; see the header.
//   In      the common files, which grow, and one of which is renamed when it is full
//   Out     texts in blocks that never move
//   Thread  one
//   Failure a bad row is reported and passed over
// Ids of a kind count up from 0, or from nonprepared_flag: two arrays hold nearly all. Whatever would leave a large hole in
// them goes to a map, so that a hostile id costs no memory.
#include "tqread_names.h"

#include "tqread_rows.h"
#include "tqread_text.h"

#include "wllb_util.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>

namespace tqread {

// --- the table --------------------------------------------------------------------------------------------------

static constexpr char no_text[] = ""; // what an empty name points at: it is there all the same

std::string_view name_table::keep(std::string_view text) {
  constexpr size_t block = size_t{64} * 1024;
  if (text.empty())
    return std::string_view(no_text);
  if (block_left_ < text.size()) {
    block_left_ = std::max(block, text.size());
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(block_left_));
  }
  char *const at = blocks_.back().get() + (std::max(block, text.size()) - block_left_);
  memcpy(at, text.data(), text.size());
  block_left_ -= text.size();
  return {at, text.size()};
}

// Where an array has room for an id, or may get it; null: the id is one for the map.
static std::string_view *slot_for(std::vector<std::string_view> *by_id, int64_t index) {
  const auto i = static_cast<size_t>(index);
  if (index < 0 || i >= 4 * by_id->size() + 4096)
    return nullptr;
  if (i >= by_id->size())
    by_id->resize(i + 1);
  return &(*by_id)[i];
}

bool name_table::add(name_kind kind, int64_t id, std::string_view text) {
  if (find(kind, id).data())
    return false;
  kind_names &names = names_[static_cast<size_t>(kind)];
  const bool flagged = id >= nonprepared_flag;
  std::string_view *const slot = flagged ? slot_for(&names.flagged, id - nonprepared_flag) : slot_for(&names.plain, id);
  (slot ? *slot : names.others[id]) = keep(text);
  return true;
}

std::string_view name_table::find(name_kind kind, int64_t id) const {
  const kind_names &names = names_[static_cast<size_t>(kind)];
  const bool flagged = id >= nonprepared_flag;
  const std::vector<std::string_view> &by_id = flagged ? names.flagged : names.plain;
  const auto index = static_cast<uint64_t>(flagged ? id - nonprepared_flag : id);
  if (index < by_id.size() && by_id[index].data())
    return by_id[index];
  if (names.others.empty())
    return {};
  const auto found = names.others.find(id);
  return found == names.others.end() ? std::string_view() : found->second;
}

std::string name_table::show(name_kind kind, int64_t id) const {
  const std::string_view text = find(kind, id);
  return text.data() ? std::string(text) : "#" + std::to_string(id);
}

bool name_table::is_known(name_kind kind, int64_t id) const {
  return find(kind, id).data() ||
         (kind == name_kind::query && rolled_over_ && id >= nonprepared_flag && id < oldest_nonprepared_);
}

// --- rows -------------------------------------------------------------------------------------------------------

static bool read_metadata(const metadata_record &record, name_row *row) {
  constexpr int64_t types = 19;
  static constexpr name_kind kinds[] = {name_kind::method,  name_kind::method_class, name_kind::package,
                                        name_kind::other,   name_kind::other,        name_kind::other,
                                        name_kind::argument};
  if (record.type < 0 || record.type >= types)
    return false;
  *row = {record.type < static_cast<int64_t>(std::size(kinds)) ? kinds[record.type] : name_kind::other, record.id,
          record.text};
  if (row->kind == name_kind::other)
    row->id += record.type << 40U;
  return true;
}

bool name_of_record(const table &of, const any_record &record, name_row *row) {
  switch (of.id) {
  case table_id::metadata:
    return read_metadata(record.as<metadata_record>(), row);
  case table_id::url:
    *row = {of.names, record.as<url_record>().id, record.as<url_record>().text};
    return true;
  case table_id::query_prepared:
  case table_id::query_nonprepared:
  case table_id::query_nonprepared_before:
    *row = {of.names, record.as<query_record>().id, record.as<query_record>().text};
    return true;
  default:
    *row = {of.names, record.as<name_record>().id, record.as<name_record>().text};
    return of.names != name_kind::none;
  }
}

// --- loading ------------------------------------------------------------------------------------------------------

constexpr uint32_t metadata_kinds =
    kinds_of({name_kind::method, name_kind::method_class, name_kind::package, name_kind::argument, name_kind::other});

void name_loader::keep_row(const table &of, const name_row &row, name_table *names, const char **reason) {
  ++rows_;
  text_.clear();
  if (form_ == texts::utf8)
    append_utf8(row.text.substr(0, kept_text), &text_);
  else if (form_ == texts::printable)
    append_printable(row.text, kept_text, &text_);
  if (!names->add(row.kind, row.id, text_))
    *reason = "the id has a row already";
  if (row.kind != name_kind::query || row.id < nonprepared_flag)
    return;
  names->oldest_nonprepared_ = std::min(names->oldest_nonprepared_, row.id);
  names->rolled_over_ = names->rolled_over_ || of.id == table_id::query_nonprepared_before;
}

void name_loader::load_file(const table &of, name_table *names, const std::function<void(const error &)> &fault) {
  position &from = positions_[static_cast<size_t>(of.id)];
  const std::string below = common_path(of.file);
  struct stat facts = {};
  if (stat(full_path(run_, below).c_str(), &facts) != 0)
    return;
  if (facts.st_ino != from.inode || facts.st_size < from.bytes) { // renamed, or begun anew
    const position &next = positions_[static_cast<size_t>(table_id::query_nonprepared)];
    from =
        of.id == table_id::query_nonprepared_before && next.inode == facts.st_ino ? next : position{facts.st_ino, 0, 0};
  }
  row_file rows(run_, below, of, from.bytes);
  while (rows.next()) {
    const char *reason = rows.reason();
    name_row row;
    if (!reason && !name_of_record(of, rows.record, &row))
      reason = "there is no such type of names";
    if (!reason && (kinds_ >> static_cast<unsigned>(row.kind) & 1U))
      keep_row(of, row, names, &reason);
    if (reason && fault)
      fault({below, place_unit::row, from.rows + rows.lines.number(), reason});
  }
  from.bytes = rows.lines.end();
  from.rows += rows.lines.number();
}

// The former file of queries comes before the present one in the list of tables, as its ids are older.
void name_loader::load(name_table *names, const std::function<void(const error &)> &fault) {
  for (const table &of : all_tables())
    if (of.common && of.names != name_kind::none &&
        (kinds_ & (of.id == table_id::metadata ? metadata_kinds : 1U << static_cast<unsigned>(of.names))))
      load_file(of, names, fault);
}

} // namespace tqread
