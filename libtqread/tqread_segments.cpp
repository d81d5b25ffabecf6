// References, lists of segments, and what they point at; see the header.
//   In      the test run's sequence blob files
//   Out     segments, texts
//   Thread  one
//   Failure words that go after "its blob" and the like
#include "tqread_segments.h"

#include "tqread_late.h"
#include "tqread_text.h"

#include "wllb_compression.h"
#include "wllb_partition.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace tqread {

// --- references -----------------------------------------------------------------------------------------------------

bool read_reference(std::string_view text, text_reference *reference) {
  std::string_view parts[5];
  if (split(text, ':', parts, 5) != 5 || parts[0] != "C" || parts[1] != "1")
    return false;
  reference->partition = parts[2];
  return read_number(parts[3], &reference->offset) && read_number(parts[4], &reference->length);
}

bool take_reference(std::string_view *texts, text_reference *reference) {
  if (texts->empty())
    return false;
  const std::string_view one = take_piece(texts, '@');
  std::string_view parts[3];
  if (split(one, ':', parts, 3) != 3 || !read_number(parts[1], &reference->offset) ||
      !read_number(parts[2], &reference->length))
    *reference = {one, -1, -1};
  else
    reference->partition = parts[0];
  return true;
}

// --- sequence blob files ----------------------------------------------------------------------------------------------

static bool open_blob_file(const test_run &run, const std::string &partition, int64_t app, wllb_fd *file,
                           int64_t *size) {
  if (!is_partition(partition.c_str()))
    return false;
  for (const char *tree : {"webapps/logs", "logs"}) { // the same place, unless the two trees of the test run are apart
    const std::string path = wllb_format("%s/%s/TR%d/%s/tq/sqb/%lld", run.work_dir.c_str(), tree, run.number,
                                         partition.c_str(), static_cast<long long>(app));
    struct stat found = {};
    file->reset(wllb_open_plain(path.c_str(), O_RDONLY, &found));
    *size = found.st_size;
    if (file->fd >= 0)
      return true;
  }
  return false;
}

// Gives an open file, whose size is looked at again when it does not reach far enough: it may have grown.
blob_store::open_file *blob_store::open(std::string_view partition, int64_t app, int64_t reach) {
  constexpr size_t most_open = 64;
  const auto is_it = [&](const auto &file) { return file->app == app && file->partition == partition; };
  auto found = std::find_if(files_.begin(), files_.end(), is_it);
  if (found == files_.end()) {
    auto file = std::make_unique<open_file>();
    file->partition = partition;
    file->app = app;
    if (!open_blob_file(run_, file->partition, app, &file->file, &file->size))
      return nullptr;
    if (files_.size() >= most_open) {
      const auto older = [](const auto &a, const auto &b) { return a->used < b->used; };
      files_.erase(std::min_element(files_.begin(), files_.end(), older));
    }
    files_.push_back(std::move(file));
    found = files_.end() - 1;
  }
  open_file *const file = found->get();
  file->used = ++calls_;
  struct stat facts = {};
  if (reach > file->size && fstat(file->file.fd, &facts) == 0)
    file->size = facts.st_size;
  return file;
}

int64_t blob_store::size_of(std::string_view partition, int64_t app) {
  const open_file *const file = open(partition, app, INT64_MAX);
  return file ? file->size : -1;
}

const char *blob_store::read_bytes(std::string_view partition, int64_t app, int64_t offset, int64_t length,
                                   std::string *bytes) {
  int64_t end = 0;
  if (offset < 0 || length < 0 || __builtin_add_overflow(offset, length, &end))
    return "has a place that cannot be";
  const open_file *const file = open(partition, app, end);
  if (!file)
    return "is in a sequence blob file that is not there";
  if (end > file->size)
    return "reaches behind the end of the sequence blob file";
  bytes->resize(static_cast<size_t>(length));
  return wllb_read_at(file->file.fd, bytes->data(), length, offset) == length
             ? nullptr
             : "cannot be read from the sequence blob file";
}

const char *blob_store::read_member(std::string_view partition, int64_t app, int64_t offset, int64_t length,
                                    std::string *text, size_t limit) {
  if (const char *words = read_bytes(partition, app, offset, length, &packed_))
    return words;
  if (wllb_decomp_do(packed_.data(), packed_.size(), limit, text) == 0)
    return nullptr;
  return text->size() >= limit ? "inflates to more than it may" : "does not inflate, or has bytes behind its end";
}

// --- lists ----------------------------------------------------------------------------------------------------------

// Takes the number of segments off the front of a list. False: there is none.
static bool take_count(std::string_view *list, int64_t *count) {
  constexpr size_t count_places = 8;
  std::string_view front = list->substr(0, list->find('|'));
  list->remove_prefix(front.size());
  if (front.size() < count_places)
    return false;
  front = front.substr(0, front.find(' '));
  return read_number(front, count) && *count >= 0;
}

const char *read_segment_list(blob_store *store, const flowpath_record &row, segment_list *list) {
  list->segments.clear();
  text_reference reference;
  if (!read_reference(row.reference, &reference))
    return "the reference to its segments cannot be read";
  if (const char *words =
          store->read_member(reference.partition, row.app, reference.offset, reference.length, &list->text))
    return words;
  std::string_view rest = list->text;
  if (!take_count(&rest, &list->count))
    return "the list of its segments has no count";
  any_record record;
  while (rest.starts_with('|')) {
    rest.remove_prefix(1);
    if (const char *words = take_segment_row(&rest, store->run().epoch_diff_s, &record))
      return words;
    list->segments.push_back(record.as<segment_record>());
  }
  return nullptr;
}

// --- texts of segments ------------------------------------------------------------------------------------------------

// One of a segment's three texts.
struct text_columns {
  const char *name;
  text_choice choice;
  int64_t segment_record::*length, segment_record::*packed;
  std::string segment_texts::*text;
};

static constexpr text_columns three_texts[] = {
    {"callout text", TEXT_CALLOUTS, &segment_record::callout_bytes, &segment_record::callout_packed,
     &segment_texts::callouts},
    {"blob", TEXT_BLOB, &segment_record::blob_bytes, &segment_record::blob_packed, &segment_texts::blob},
    {"request detail", TEXT_DETAIL, &segment_record::detail_bytes, &segment_record::detail_packed,
     &segment_texts::detail},
};

// Where the three texts are read from.
struct text_source {
  blob_store *store;
  std::string_view partition;
  int64_t app, offset;
};

// A compressed text is one member; none for an empty one, but for the blob.
static const char *read_packed(text_source *from, int64_t length, int64_t packed, std::string *text) {
  if (packed == 0)
    return length == 0 ? nullptr : "has a length, but no compressed length";
  if (length < 0)
    return "has a negative length";
  const size_t limit = std::min(static_cast<size_t>(length), longest_text);
  if (const char *words = from->store->read_member(from->partition, from->app, from->offset, packed, text, limit))
    return text->size() == limit && limit < longest_text ? "has another length than its line says" : words;
  from->offset += packed;
  return static_cast<int64_t>(text->size()) == length ? nullptr : "has another length than its line says";
}

// A plain text has a newline after it; an empty one has none and is not there.
static const char *read_plain(text_source *from, int64_t length, std::string *text) {
  if (length == 0)
    return nullptr;
  if (length == INT64_MAX)
    return "has a place that cannot be";
  if (const char *words = from->store->read_bytes(from->partition, from->app, from->offset, length + 1, text))
    return words;
  from->offset += length + 1;
  if (text->back() != '\n')
    return "has no newline where its line says that it ends";
  text->pop_back();
  return nullptr;
}

static std::string read_texts_at(text_source from, const segment_record &segment, uint32_t which,
                                 segment_texts *texts) {
  const bool compressed = segment.blob_packed != 0;
  for (const text_columns &of : three_texts) {
    std::string *const text = &(texts->*of.text);
    text->clear();
    if (!(which & of.choice)) {
      const int64_t length = segment.*of.length;
      const int64_t bytes = compressed ? segment.*of.packed : length + (length > 0 && length < INT64_MAX ? 1 : 0);
      if (bytes < 0 || __builtin_add_overflow(from.offset, bytes, &from.offset))
        return std::string("its ") + of.name + " has a place that cannot be";
      continue;
    }
    const char *const words = compressed ? read_packed(&from, segment.*of.length, segment.*of.packed, text)
                                         : read_plain(&from, segment.*of.length, text);
    if (words)
      return std::string("its ") + of.name + " " + words;
  }
  return "";
}

std::string read_segment_texts_at(blob_store *store, std::string_view partition, int64_t app, int64_t offset,
                                  const segment_record &segment, segment_texts *texts, uint32_t which) {
  return read_texts_at({store, partition, app, offset}, segment, which, texts);
}

// --- late segments ----------------------------------------------------------------------------------------------------

blob_store::blob_store(const test_run &of) : run_(of) {}

blob_store::~blob_store() = default;

int64_t blob_store::find_late(const flowpath_place &place, int64_t app, const segment_record &segment) {
  constexpr size_t most_kept = 4;
  const auto is_it = [&](const std::unique_ptr<late_index> &index) {
    return index->app == app && index->partition == segment.partition && index->instance == place.instance;
  };
  const auto known = std::find_if(late_.begin(), late_.end(), is_it);
  if (known != late_.end()) {
    const int64_t found = (*known)->find(segment);
    if (found >= 0 || !(*known)->is_outdated(this))
      return found;
    late_.erase(known);
  } else if (late_.size() >= most_kept) {
    late_.erase(late_.begin());
  }
  late_.push_back(std::make_unique<late_index>(this, segment.partition, place.instance, app));
  return late_.back()->find(segment);
}

// Whether the offset of a segment is sure to be one of its partition's file: its flowpath ended in time.
static bool offset_is_sure(const flowpath_place &place, const flowpath_record &row, const segment_record &segment) {
  text_reference list;
  return segment.partition == place.partition && read_reference(row.reference, &list) &&
         list.partition == segment.partition;
}

// A gzip member has a checksum: what inflates where the line says is what it says, late or not. A plain text has none.
std::string read_segment_texts(blob_store *store, const flowpath_place &place, const flowpath_record &row,
                               const segment_record &segment, segment_texts *texts, uint32_t which) {
  texts->callouts.clear();
  texts->blob.clear();
  texts->detail.clear();
  if (left_no_blob(segment))
    return "";
  const bool sure = offset_is_sure(place, row, segment);
  const bool provable = segment.blob_packed != 0;
  std::string words;
  if (sure || provable)
    words = read_segment_texts_at(store, segment.partition, row.app, segment.offset, segment, texts, which);
  if (sure || (provable && words.empty()))
    return words;
  const int64_t at = store->find_late(place, row.app, segment);
  if (at >= 0)
    return read_segment_texts_at(store, segment.partition, row.app, at, segment, texts, which);
  if (!provable)
    words = read_segment_texts_at(store, segment.partition, row.app, segment.offset, segment, texts, which);
  return words.empty() ? "" : words + " (it came late, and its texts were not found where such texts are)";
}

} // namespace tqread
