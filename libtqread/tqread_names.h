// The names behind norm ids, and following them while they grow.
//   In      the common files of the test run
//   Out     texts by kind and id, as the files have them, or safe to show
//   Thread  one loads; any may look up while nobody loads
//   Failure rows that are not like their file's others are counted, and reported through the caller's function
#pragma once

#include "tqread_run.h"
#include "tqread_tables.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tqread {

constexpr uint32_t kinds_of(std::initializer_list<name_kind> kinds) {
  uint32_t bits = 0;
  for (const name_kind kind : kinds)
    bits |= 1U << static_cast<unsigned>(kind);
  return bits;
}

constexpr uint32_t all_kinds = (1U << static_cast<unsigned>(name_kind::kinds)) - 1;

// What one row of a name table says.
struct name_row {
  name_kind kind = name_kind::none;
  int64_t id = 0; // for name_kind::other with the type above bit 40
  std::string_view text;
};

// Reads the name out of a record that a name table filled. False: its type is none that there is.
bool name_of_record(const table &of, const any_record &record, name_row *row);

struct name_table {
  // The text behind an id, or a view with a null data() when there is no such name. Views live as long as the table and
  // never move.
  std::string_view find(name_kind kind, int64_t id) const;

  // The text, or "#5".
  std::string show(name_kind kind, int64_t id) const;

  // Whether the id has a row. A query that was not prepared may be one that was thrown away with its file.
  bool is_known(name_kind kind, int64_t id) const;

  // Calls use(id, text) for each name of a kind, in no order.
  template <class Use> void each(name_kind kind, Use use) const;

  // Keeps a copy of the name as it is. False: the id has a name already, which stays.
  bool add(name_kind kind, int64_t id, std::string_view text);

private:
  struct kind_names {
    std::vector<std::string_view> plain, flagged;         // by id, and by id less nonprepared_flag; null data: none
    std::unordered_map<int64_t, std::string_view> others; // ids that would leave large holes
  };

  std::string_view keep(std::string_view text);
  kind_names names_[static_cast<size_t>(name_kind::kinds)];
  std::vector<std::unique_ptr<char[]>> blocks_;
  size_t block_left_ = 0;
  int64_t oldest_nonprepared_ = INT64_MAX; // the file before the last two may have had older ones
  bool rolled_over_ = false;
  friend struct name_loader;
};

// Loads names, and later what has come since: each file is followed by path, inode and bytes.
struct name_loader {
  static constexpr size_t kept_text = 4096; // bytes of each name; the rest is cut

  enum class texts : uint8_t {
    none,     // the table only knows which ids there are; each text is ""
    utf8,     // valid UTF-8
    printable // valid UTF-8 without control characters: fit for a terminal
  };

  // kinds: bits, see kinds_of().
  name_loader(const test_run &of, uint32_t which, texts form) : run_(of), kinds_(which), form_(form) {}

  // Reads what is new in the common files; whole rows only. `fault` gets each bad row, and may be empty.
  void load(name_table *names, const std::function<void(const error &)> &fault = {});

  int64_t rows() const { return rows_; } // read so far

private:
  struct position {
    uint64_t inode = 0;
    int64_t bytes = 0, rows = 0;
  };

  void load_file(const table &of, name_table *names, const std::function<void(const error &)> &fault);
  void keep_row(const table &of, const name_row &row, name_table *names, const char **reason);
  const test_run &run_; // the caller's, outlives this
  uint32_t kinds_;
  texts form_;
  int64_t rows_ = 0;
  std::string text_;
  position positions_[static_cast<size_t>(table_id::tables)];
};

template <class Use> void name_table::each(name_kind kind, Use use) const {
  const kind_names &names = names_[static_cast<size_t>(kind)];
  for (const auto *by_id : {&names.plain, &names.flagged})
    for (size_t i = 0; i < by_id->size(); ++i)
      if ((*by_id)[i].data())
        use(static_cast<int64_t>(i) + (by_id == &names.flagged ? nonprepared_flag : 0), (*by_id)[i]);
  for (const auto &[id, text] : names.others)
    use(id, text);
}

} // namespace tqread
