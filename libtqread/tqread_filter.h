// Which flowpaths a question is about. tqshow, the exports and the page ask by the same filter.
//   In      what was asked, as words; the test run and its names
//   Out     yes or no for places, rows and whole flowpaths; a walk over all that are found
//   Thread  one
//   Failure words that say which part of the question names something that is not there
#pragma once

#include "tqread_flowpath.h"
#include "tqread_names.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace tqread {

// What was asked; an empty member asks nothing. Texts with '*' and '?' in them are patterns (see matches_wildcards()).
struct question {
  std::string url;         // pattern of the transaction's URL
  int64_t min_ms = 0;      // flowpaths of this duration or longer
  std::string status;      // "500", "5xx", or several joined by commas
  bool errors = false;     // only with errors in them, or with a status of 400 and above
  std::string partition;   // 14 digits
  std::string instance;    // pattern of the name of its directory
  std::string tier;        // pattern of the first part of the instance's name, or the tier's number
  std::string tag;         // "name=value" of a tag, or one name or value; patterns
  std::string correlation; // pattern of the correlation id, with or without what the daemon puts after it
  std::string from, to;    // begin of the flowpath, from <= begin < to; see read_utc_text()
  std::string text;        // part of the text of a query, or of a text of an exception; letters of either case
  int64_t flowpath = 0;    // this flowpath number; asked_flowpath says whether
  bool asked_flowpath = false;
};

// Calls use(name, value) for each member of a tag set's JSON object; values without quotes. What is no flat object is cut
// as far as it goes.
template <class Use> void each_tag(std::string_view json, Use use);

// The kinds of names that make_filter() needs for a question.
uint32_t kinds_for(const question &asked);

struct filter {
  // "" when the question can be answered, else why not: "no URL matches '/shop/*'". Only partitions, instances, tiers,
  // URLs, tags and texts are looked up now; whether a correlation id or a status occurs is known after the walk.
  std::string make(const test_run &run, const name_table &names, const question &asked);

  // Before make(): names that are not there are no mistake, they may come. learn() looks the question's names up again.
  void allow_unknown() { allow_unknown_ = true; }

  void learn(const name_table &names);

  bool takes_place(const flowpath_place &place) const;
  bool takes_row(const flowpath_place &place, const flowpath_record &row) const;

  // After takes_row(): whether one of its queries or exceptions has the text. Reads side rows only when that was asked.
  bool takes_whole(flowpath_reader *reader, const flowpath_place &place, std::string_view row_bytes);

  // Whether it depends on more of a flowpath than the place of its row.
  bool asks_of_rows() const;

  const question &asked() const { return asked_; }

private:
  bool takes_status(int64_t status) const;

  struct status_range {
    int64_t from, to;
  };

  std::string missing_name() const;

  question asked_;
  bool allow_unknown_ = false;
  int64_t from_ms_ = INT64_MIN, to_ms_ = INT64_MAX, tier_number_ = -1;
  std::vector<status_range> statuses_;
  std::unordered_set<int64_t> urls_, tag_sets_, queries_;
  std::unordered_set<int64_t> exception_texts_[static_cast<size_t>(name_kind::kinds)];
  flowpath whole_; // for takes_whole()
};

// A flowpath that was found. All of it lives until the function that was called with it returns.
struct found_flowpath {
  flowpath_place place;
  const flowpath_record &row;
  std::string_view row_bytes;
};

struct found_counts {
  int64_t rows = 0;  // looked at
  int64_t found = 0; // taken by the filter
  int64_t bad = 0;   // rows that could not be read
};

// Calls use(found) for each flowpath that the filter takes, oldest partition first, until it gives false; `fault` for each
// row that cannot be read, and may be empty.
template <class Use>
found_counts each_flowpath(flowpath_reader *reader, filter *which, const std::function<void(const error &)> &fault,
                           Use use) {
  found_counts counts;
  const test_run &run = reader->store().run();
  each_place(run, which->asked().partition, "", [&](const flowpath_place &place) {
    if (!which->takes_place(place))
      return true;
    row_file rows(run, row_path(place.partition, place.instance, "TQFlowPath.csv"), table_of(table_id::flowpath));
    while (rows.next()) {
      ++counts.rows;
      if (rows.reason()) {
        ++counts.bad;
        if (fault)
          fault(rows.fault());
        continue;
      }
      const flowpath_record &row = rows.record.as<flowpath_record>();
      if (!which->takes_row(place, row) || !which->takes_whole(reader, place, rows.bytes()))
        continue;
      ++counts.found;
      if (!use(found_flowpath{place, row, rows.bytes()}))
        return false;
    }
    return true;
  });
  return counts;
}

// --- tags -----------------------------------------------------------------------------------------------------------

// Takes the next "name":value off a tag set's JSON. False at its end. Escapes stay as they are.
bool take_tag(std::string_view *json, std::string_view *name, std::string_view *value);

template <class Use> void each_tag(std::string_view json, Use use) {
  for (std::string_view name, value; take_tag(&json, &name, &value);)
    use(name, value);
}

} // namespace tqread
