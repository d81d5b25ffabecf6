// The index of called flowpaths; see the header.
//   In      TQFlowPath.csv of all instances
//   Out     places, sorted by parent
//   Thread  one
//   Failure a row that is gone gives nothing
#include "tqread_tiers.h"

#include "tqread_text.h"

#include <algorithm>

namespace tqread {

std::string called_seq(std::string_view begin_seq, std::string_view number) {
  const size_t dot = begin_seq.rfind('.');
  std::string seq(dot == begin_seq.npos ? std::string_view() : begin_seq.substr(0, dot + 1));
  return seq.append(number.substr(number.rfind('.') + 1)).append(".1");
}

tier_index::tier_index(const test_run &run) : run_(run) {
  each_place(run, "", "", [&](const flowpath_place &place) {
    row_file rows(run, row_path(place.partition, place.instance, "TQFlowPath.csv"), table_of(table_id::flowpath));
    while (rows.next())
      if (const int64_t parent = rows.reason() ? 0 : rows.record.as<flowpath_record>().parent_fpi; parent != 0)
        places_.push_back({parent, static_cast<uint32_t>(files_.size()), static_cast<uint32_t>(rows.bytes().size()),
                           rows.lines.at_byte()});
    files_.push_back({std::string(place.partition), std::string(place.instance)});
    return true;
  });
  std::sort(places_.begin(), places_.end(), [](const called_place &a, const called_place &b) {
    return a.parent != b.parent ? a.parent < b.parent : a.file != b.file ? a.file < b.file : a.at < b.at;
  });
}

bool tier_index::read_place(const called_place &place, std::string *row_bytes) const {
  const row_location &file = files_[place.file];
  line_file lines(full_path(run_, row_path(file.partition, file.instance, "TQFlowPath.csv")), place.at,
                  place.at + place.length + 1);
  std::string_view line;
  if (!lines.next(&line))
    return false;
  *row_bytes = line;
  return true;
}

bool row_has_seq(const test_run &run, std::string_view row_bytes, std::string_view seq) {
  any_record record;
  return !read_row(table_of(table_id::flowpath), row_bytes, run.epoch_diff_s, &record) &&
         record.as<flowpath_record>().begin_seq == seq;
}

} // namespace tqread
