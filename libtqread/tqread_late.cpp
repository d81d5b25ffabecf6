// Matches late segments with the texts that no row points to; see the header.
//   In      lists of segments, gaps of a sequence blob file
//   Out     places
//   Thread  one
//   Failure not found
#include "tqread_late.h"

#include "tqread_text.h"

#include <algorithm>
#include <sys/stat.h>
#include <zlib.h>

namespace tqread {

constexpr size_t front_bytes = 256;                  // of a loose text, to see whose it is
constexpr int64_t longest_gap = int64_t{256} << 20U; // bytes; what is behind that in a gap is not looked at

// --- what rows point to ---------------------------------------------------------------------------------------------

static int64_t file_size(const std::string &path) {
  struct stat facts = {};
  return stat(path.c_str(), &facts) == 0 ? facts.st_size : 0;
}

static int64_t bytes_of(const segment_record &line) {
  const auto plain = [](int64_t length) { return length > 0 ? length + 1 : 0; };
  uint64_t sum = 0;
  if (line.blob_packed != 0)
    for (const int64_t part : {line.callout_packed, line.blob_packed, line.detail_packed})
      sum += static_cast<uint64_t>(part);
  else
    for (const int64_t part : {line.callout_bytes, line.blob_bytes, line.detail_bytes})
      sum += static_cast<uint64_t>(plain(part));
  return static_cast<int64_t>(sum);
}

// A segment whose offset may count in another file has its texts there when they are what its line says.
void late_index::add_segment(blob_store *store, const segment_record &line, bool is_sure) {
  if (left_no_blob(line))
    return;
  int64_t end = 0;
  if (__builtin_add_overflow(line.offset, bytes_of(line), &end))
    return;
  if (is_sure || read_segment_texts_at(store, partition, app, line.offset, line, &texts_).empty())
    ranges_.push_back({line.offset, end});
  else
    late_.push_back({line, std::string(line.begin_seq)});
}

// True when the list has anything of this partition's file.
bool late_index::add_list(blob_store *store, const flowpath_place &place, const flowpath_record &row) {
  bool any = false;
  text_reference at;
  if (!read_reference(row.reference, &at) || row.app != app)
    return false;
  const bool list_is_here = at.partition == partition;
  if (list_is_here && at.offset >= 0 && at.length >= 0 && at.length < INT64_MAX - at.offset)
    ranges_.push_back({at.offset, at.offset + at.length});
  read_segment_list(store, row, &list_); // as far as it can be read
  for (const segment_record &line : list_.segments) {
    for (std::string_view texts : {line.dynamic_texts, line.request_bodies, line.response_bodies})
      for (text_reference captured; take_reference(&texts, &captured);)
        if (captured.partition == partition && captured.offset >= 0 && captured.length > 0 &&
            captured.length < INT64_MAX - captured.offset)
          ranges_.push_back({captured.offset, captured.offset + captured.length});
    if (line.partition != partition)
      continue;
    add_segment(store, line, list_is_here && place.partition == partition);
    any = true;
  }
  return any || list_is_here;
}

// Reads the rows of the partition and of those after it, until one has nothing of its file. Bytes of row files.
int64_t late_index::read_rows(blob_store *store, std::string_view from_partition) {
  const test_run &run = store->run();
  const std::vector<std::string> all = partitions(run);
  int64_t size = 0;
  size_t after = 0; // partitions after the one that it is about
  for (auto one = std::lower_bound(all.begin(), all.end(), from_partition); one != all.end(); ++one, ++after) {
    bool any = false;
    const flowpath_place place = {*one, instance};
    const std::string path = row_path(*one, instance, table_of(table_id::flowpath).file);
    row_files_.push_back(full_path(run, path));
    size += file_size(row_files_.back());
    for (row_file rows(run, path, table_of(table_id::flowpath)); rows.next();)
      if (!rows.reason())
        any = add_list(store, place, rows.record.as<flowpath_record>()) || any;
    if (!any && after > 1)
      break;
  }
  return size;
}

// --- what they do not point to --------------------------------------------------------------------------------------

// Bytes of the gzip member at the front; 0: there is none. *front gets the beginning of its text.
static int64_t member_length(std::string_view bytes, int64_t *inflated, std::string *front) {
  z_stream z = {};
  if (!bytes.starts_with("\x1f\x8b\x08") || inflateInit2(&z, 31) != Z_OK)
    return 0;
  char block[16384];
  z.next_in = const_cast<Bytef *>(reinterpret_cast<const Bytef *>(bytes.data())); // NOLINT: read only
  z.avail_in = static_cast<uInt>(bytes.size());
  int result = Z_OK;
  front->clear();
  while (result == Z_OK && z.total_out < longest_text) {
    z.next_out = reinterpret_cast<Bytef *>(block);
    z.avail_out = sizeof block;
    result = inflate(&z, Z_NO_FLUSH);
    const size_t room = front_bytes - std::min(front->size(), front_bytes);
    front->append(block, std::min(room, sizeof block - z.avail_out));
  }
  *inflated = static_cast<int64_t>(z.total_out);
  const auto length = static_cast<int64_t>(z.total_in);
  inflateEnd(&z);
  return result == Z_STREAM_END ? length : 0;
}

// What begins no member is a line, or the rest of something that was cut.
void late_index::read_gap(blob_store *store, int64_t from, int64_t to) {
  std::string bytes;
  if (store->read_bytes(partition, app, from, std::min(to - from, longest_gap), &bytes))
    return;
  for (size_t at = 0; at < bytes.size();) {
    const std::string_view rest = std::string_view(bytes).substr(at);
    loose_text text = {from + static_cast<int64_t>(at), 0, 0, "", false};
    text.length = member_length(rest, &text.inflated, &text.front);
    if (text.length == 0) {
      const size_t newline = rest.find('\n');
      text.length = static_cast<int64_t>(newline == rest.npos ? rest.size() : newline + 1);
      text.inflated = -1;
      text.front = rest.substr(0, std::min(static_cast<size_t>(text.length), front_bytes));
    }
    at += static_cast<size_t>(text.length);
    loose_.push_back(std::move(text));
  }
}

void late_index::find_gaps(blob_store *store) {
  std::sort(ranges_.begin(), ranges_.end(), [](const auto &a, const auto &b) { return a.from < b.from; });
  int64_t at = 0;
  for (const byte_range &range : ranges_) {
    if (range.from > at && range.from <= blob_size_)
      read_gap(store, at, range.from);
    at = std::max(at, range.to);
  }
  if (at < blob_size_)
    read_gap(store, at, blob_size_);
}

// --- matching -------------------------------------------------------------------------------------------------------

// The lengths of a segment's texts, as they are in the file, and inflated (-1: a line).
struct text_lengths {
  int64_t in_file[3], inflated[3];
  size_t count;
};

static text_lengths lengths_of(const segment_record &line) {
  text_lengths lengths = {};
  const int64_t plain[] = {line.callout_bytes, line.blob_bytes, line.detail_bytes};
  const int64_t packed[] = {line.callout_packed, line.blob_packed, line.detail_packed};
  for (int i = 0; i < 3; ++i) {
    const bool is_packed = line.blob_packed != 0;
    if (is_packed ? packed[i] == 0 : plain[i] == 0)
      continue;
    lengths.in_file[lengths.count] = is_packed ? packed[i] : plain[i] + 1;
    lengths.inflated[lengths.count++] = is_packed ? plain[i] : -1;
  }
  return lengths;
}

// Whether a callout text may be this segment's: its rows carry the number of its parent, unless they are responses, and the
// front of its begin sequence number.
static bool is_callout_text_of(std::string_view front, std::string_view begin_seq, int64_t parent) {
  const size_t dot = begin_seq.rfind('.');
  const std::string_view seq = begin_seq.substr(0, dot);
  const std::string_view fpi = take_piece(&front, ','), kind = take_piece(&front, ',');
  const std::string_view number = take_piece(&front, ',');
  if (kind != "A" && number_or(fpi, parent) != parent)
    return false;
  if (kind == "G" || kind == "C" || number.find('.') == number.npos || dot == begin_seq.npos)
    return true;
  return number.substr(0, number.rfind('.')) == seq;
}

bool late_index::fits(const late_segment &segment, size_t first) const {
  const text_lengths lengths = lengths_of(segment.line);
  if (first + lengths.count > loose_.size())
    return false;
  for (size_t i = 0; i < lengths.count; ++i) {
    const loose_text &text = loose_[first + i];
    const bool follows = i == 0 || text.at == loose_[first + i - 1].at + loose_[first + i - 1].length;
    if (text.used || !follows || text.length != lengths.in_file[i] || text.inflated != lengths.inflated[i])
      return false;
  }
  return segment.line.callout_bytes == 0 ||
         is_callout_text_of(loose_[first].front, segment.begin_seq, segment.line.parent_fpi);
}

// Each segment takes the first texts that fit after those of the one before it; failing that, the first that fit at all.
void late_index::match() {
  std::stable_sort(late_.begin(), late_.end());
  std::map<std::pair<int64_t, int64_t>, std::vector<size_t>> by_length; // of the first text
  for (size_t i = 0; i < loose_.size(); ++i)
    by_length[{loose_[i].length, loose_[i].inflated}].push_back(i);
  size_t next = 0;
  for (const late_segment &segment : late_) {
    const text_lengths lengths = lengths_of(segment.line);
    const auto candidates = by_length.find({lengths.in_file[0], lengths.inflated[0]});
    if (lengths.count == 0 || candidates == by_length.end())
      continue;
    std::vector<size_t> &places = candidates->second;
    const auto fitting = [&](size_t place) { return fits(segment, place); };
    auto found = std::find_if(std::lower_bound(places.begin(), places.end(), next), places.end(), fitting);
    if (found == places.end())
      found = std::find_if(places.begin(), places.end(), fitting);
    if (found == places.end())
      continue;
    found_[{segment.line.fpi, segment.line.offset, segment.begin_seq}] = loose_[*found].at;
    for (size_t i = 0; i < lengths.count; ++i)
      loose_[*found + i].used = true;
    next = *found + lengths.count;
    places.erase(found);
  }
}

// --- the index ------------------------------------------------------------------------------------------------------

late_index::late_index(blob_store *store, std::string_view of_partition, std::string_view of_instance, int64_t of_app)
    : partition(of_partition), instance(of_instance), app(of_app) {
  blob_size_ = std::max<int64_t>(0, store->size_of(partition, app));
  rows_size_ = read_rows(store, partition);
  if (!late_.empty()) {
    find_gaps(store);
    match();
  }
  ranges_ = {};
  loose_ = {};
  late_ = {};
}

int64_t late_index::find(const segment_record &segment) const {
  const auto found = found_.find({segment.fpi, segment.offset, std::string(segment.begin_seq)});
  return found == found_.end() ? -1 : found->second;
}

bool late_index::is_outdated(blob_store *store) const {
  int64_t size = 0;
  for (const std::string &path : row_files_)
    size += file_size(path);
  return size != rows_size_ || store->size_of(partition, app) != blob_size_;
}

} // namespace tqread
