// The list of segments behind a flowpath's row, and their texts in sequence blob files.
//   In      references and lines of segments; sequence blob files that may be damaged, cut or still growing
//   Out     typed segments, inflated texts
//   Thread  each blob_store is one thread's
//   Failure constant texts or an error record; lengths are held against the file before memory is taken
#pragma once

#include "tqread_error.h"
#include "tqread_rows.h"
#include "tqread_run.h"

#include "wllb_util.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tqread {

constexpr size_t longest_text = size_t{1} << 30U; // bytes; what inflates to more counts as damaged

// "C:1:20261122100000:300:120"
struct text_reference {
  std::string_view partition;
  int64_t offset = 0, length = 0; // bytes, of a gzip member
};

// The reference in a flowpath's row. False: it is not one.
bool read_reference(std::string_view text, text_reference *reference);

// The next of "partition:offset:length@partition:offset:length", as segments name logged values and bodies. False at the end;
// a piece that is no reference comes with a length of -1.
bool take_reference(std::string_view *texts, text_reference *reference);

// A segment without a blob: nothing of it is in the file, whatever lengths its line has.
inline bool left_no_blob(const segment_record &segment) {
  return segment.blob_bytes == 0 && segment.blob_packed == 0;
}

struct segment_texts {
  std::string callouts, blob, detail;
};

enum text_choice : uint32_t { TEXT_CALLOUTS = 1, TEXT_BLOB = 2, TEXT_DETAIL = 4, ALL_TEXTS = 7 };

// Where a flowpath's row was found.
struct flowpath_place {
  std::string_view partition, instance;
};

struct late_index;

// Open sequence blob files of a test run, a few at a time, and buffers for reading them.
struct blob_store {
  // Reads and inflates the gzip member at a place of an instance's file in a partition. Null, or what is wrong.
  // At most `limit` bytes; a longer text counts as damaged.
  const char *read_member(std::string_view partition, int64_t app, int64_t offset, int64_t length, std::string *text,
                          size_t limit = longest_text);

  // Bytes as they are. Null, or what is wrong.
  const char *read_bytes(std::string_view partition, int64_t app, int64_t offset, int64_t length, std::string *bytes);

  // Size of the file by its last look. -1: there is none.
  int64_t size_of(std::string_view partition, int64_t app);

  const test_run &run() const { return run_; }

  // Where the texts of a late segment are, in the file of the partition that its line names. -1: they were not found.
  int64_t find_late(const flowpath_place &place, int64_t app, const segment_record &segment);

  // --- life: the indexes of late segments are of a type that stands further up ---
  explicit blob_store(const test_run &of);
  ~blob_store();

private:
  struct open_file {
    std::string partition;
    int64_t app = 0, size = 0;
    uint64_t used = 0; // when, in calls
    wllb_fd file;
  };

  open_file *open(std::string_view partition, int64_t app, int64_t reach);
  const test_run &run_; // the caller's, outlives this
  std::vector<std::unique_ptr<open_file>> files_;
  uint64_t calls_ = 0;
  std::string packed_;
  std::vector<std::unique_ptr<late_index>> late_; // the ones made last
};

// A flowpath's list of segments as text; segments are views into it.
struct segment_list {
  std::string text;
  std::vector<segment_record> segments;
  int64_t count = 0; // as the list says it; the same as segments.size() in a good one
};

// Reads the list behind a row. Null, or what is wrong: the segments before the fault are there.
const char *read_segment_list(blob_store *store, const flowpath_record &row, segment_list *list);

// The texts of a segment from a place of an instance's file. "", or what is wrong.
std::string read_segment_texts_at(blob_store *store, std::string_view partition, int64_t app, int64_t offset,
                                  const segment_record &segment, segment_texts *texts, uint32_t which = ALL_TEXTS);

// The texts of a segment: from where its line says, or, for a late one, from where they went. "", or what is wrong. Nothing
// is read when it left no blob. Texts that were not chosen stay empty. `row` is the row whose list has the segment.
std::string read_segment_texts(blob_store *store, const flowpath_place &place, const flowpath_record &row,
                               const segment_record &segment, segment_texts *texts, uint32_t which = ALL_TEXTS);

} // namespace tqread
