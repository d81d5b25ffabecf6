// The local maps on disk: written beside each save of the offset, read back at a restart.
//   In      maps that have changed since they were written (loc2norm_unsaved_flags, loc2norm_pages)
//   Out     one file a map in the instance's recovery directory; the maps of an instance that comes back
//   Thread  the instance's
//   Failure a file that cannot be written or read is traced and leaves its map as it is
// Formats   int map: its entries as they lie in memory, holes for what was never touched
//           SQL:     records of 12 bytes; only read beside the marker ".SQLMapNewVer"
//           headers: a text line each, "%d,%s\n" of norm id and name; "0,\n" for an unknown one

#include "tqp_recovery.h"

#include "tqp_csv_files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(sql_query_map_t) == 12, "the record of the SQL recovery file");

// Local ids end there, so no more entries of a file are looked at.
static constexpr int64_t most_entries = max_local_id + 1;

static constexpr const char *sql_marker_name = ".SQLMapNewVer";

std::string make_loc2_norm_file_path(const tqp_instance_t *inst, const char *file_name) {
  if (tqp_is_offline())
    return wllb_format("%s/logs/TR%d/%lld/tq/csv/%s/recovery/%s", wl_wdir, testidx,
                       static_cast<long long>(inst->partition_idx), inst->tier_server_app_name, file_name);
  return wllb_format("%s/logs/TR%d/tq/recovery/%s/tqp/%s", wl_wdir, testidx, inst->tier_server_app_name, file_name);
}

// --- writing ----------------------------------------------------------------------------------------------------

static bool write_at(int fd, const char *bytes, int64_t len, int64_t at) {
  while (len > 0) {
    const ssize_t done = pwrite(fd, bytes, static_cast<size_t>(len), at);
    if (done < 0 && errno == EINTR)
      continue;
    if (done <= 0)
      return false;
    bytes += done;
    len -= done;
    at += done;
  }
  return true;
}

// Writes the marked pages to their places, neighbours in one call.
static bool write_pages(int fd, const wllb_zarray<int> &map, const wllb_zarray<uint64_t> &marked) {
  const int64_t num_pages = (map.size + loc2norm_page_entries - 1) / loc2norm_page_entries;
  for (int64_t page = 0; page < num_pages; ++page) {
    const int64_t first = page;
    while (page < num_pages && tqp_loc2norm_page_marked(marked, page))
      ++page;
    const int64_t begin = first * loc2norm_page_entries;
    const int64_t end = std::min(map.size, page * loc2norm_page_entries);
    const auto *bytes = reinterpret_cast<const char *>(map.data + begin);
    if (begin < end && !write_at(fd, bytes, (end - begin) * 4, begin * 4))
      return false;
  }
  return true;
}

// True when the file on disk is the one this map was written to or read from last.
static bool file_is_ours(const loc2norm_pages_t &pages, const char *path) {
  struct stat st;
  return pages.file_bytes > 0 && stat(path, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == pages.file_bytes;
}

// Into an emptied file goes every page that was ever touched, into the map's own file only what has changed; the
// length makes the rest read as zeros.
static bool write_int_map(const wllb_zarray<int> &map, loc2norm_pages_t *pages, FILE *file, bool in_place) {
  const int fd = fileno(file);
  tqp_mark_loc2norm_page(&pages->touched, 0); // entry 0 may have been set when the map was made
  if (!write_pages(fd, map, in_place ? pages->unsaved : pages->touched) || ftruncate(fd, map.size * 4) != 0) {
    pages->file_bytes = 0;
    return false;
  }
  if (pages->unsaved.size > 0)
    memset(pages->unsaved.data, 0, static_cast<size_t>(pages->unsaved.size) * sizeof *pages->unsaved.data);
  pages->file_bytes = map.size * 4;
  return true;
}

static void append_header_lines(const tqp_instance_t *inst, int64_t page, std::string *text) {
  const int64_t end = std::min(inst->http_header_map.size, (page + 1) * loc2norm_page_entries);
  const bool touched = tqp_loc2norm_page_marked(inst->loc2norm_pages[LOC2NORM_HTTP_HEADER].touched, page);
  for (int64_t i = page * loc2norm_page_entries; i < end; ++i) {
    const http_header_map_t entry = touched ? inst->http_header_map.data[i] : http_header_map_t{};
    if (entry.norm_http_header_id != 0 || entry.http_header_name)
      *text += wllb_format("%d,%s\n", entry.norm_http_header_id, entry.http_header_name ? entry.http_header_name : "");
    else
      *text += "0,\n";
  }
}

static bool write_header_map(const tqp_instance_t *inst, FILE *file) {
  std::string text;
  for (int64_t page = 0; page * loc2norm_page_entries < inst->http_header_map.size; ++page) {
    text.clear();
    append_header_lines(inst, page, &text);
    fwrite(text.data(), 1, text.size(), file);
  }
  return fflush(file) == 0 && !ferror(file);
}

static bool write_sql_map(const tqp_instance_t *inst, FILE *file) {
  const auto count = static_cast<size_t>(inst->sql_query_map_size);
  return count == 0 ||
         (fwrite(inst->sql_query_map.data, sizeof(sql_query_map_t), count, file) == count && fflush(file) == 0);
}

static bool write_map(tqp_instance_t *inst, const loc2norm_row &row, FILE *file, bool in_place) {
  if (row.map)
    return write_int_map(inst->*row.map, &inst->loc2norm_pages[row.bit], file, in_place);
  return row.bit == LOC2NORM_SQL ? write_sql_map(inst, file) : write_header_map(inst, file);
}

static void save_map(tqp_instance_t *inst, const loc2norm_row &row) {
  const std::string path = make_loc2_norm_file_path(inst, row.file_name);
  const bool in_place = row.map && file_is_ours(inst->loc2norm_pages[row.bit], path.c_str());
  if (!wllb_path_exists(path.c_str()))
    tqp_make_data_file_as(path.c_str(), "w", false);
  const wllb_file file(my_fopen(path.c_str(), in_place ? "r+" : "w"));
  if (!file) {
    wllb_trace(1, "Error", "Could not open file %s", path.c_str());
    return;
  }
  if (!write_map(inst, row, file.get(), in_place))
    wllb_trace(1, "Error", "Could not write to file %s", path.c_str());
  else
    wllb_trace(2, "Info", "Saved Local to Normalized Table: %s", path.c_str());
}

void write_loc2norm_rec_file(tqp_instance_t *inst, int mask) {
  for (const loc2norm_row &row : loc2norm_rows) {
    const int bit = 1 << row.bit;
    if (!(inst->loc2norm_unsaved_flags & mask & bit))
      continue;
    inst->loc2norm_unsaved_flags &= ~bit; // first: a failed write is not repeated until the next change
    if (row.bit == LOC2NORM_SQL && !tqp_enable_sql_metadata_recovery)
      continue;
    save_map(inst, row);
  }
}

// --- reading: int maps ------------------------------------------------------------------------------------------

static bool read_at(int fd, char *bytes, int64_t len, int64_t at) {
  while (len > 0) {
    const ssize_t got = pread(fd, bytes, static_cast<size_t>(len), at);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      return false;
    bytes += got;
    len -= got;
    at += got;
  }
  return true;
}

// Reads what a file holds into `bytes`, which are zero, and leaves its holes alone. Notes the pages of an int map.
static bool read_data(int fd, char *bytes, int64_t len, wllb_zarray<uint64_t> *touched) {
  constexpr int64_t page_bytes = loc2norm_page_entries * 4;
  for (int64_t at = 0; at < len;) {
    const int64_t data = lseek(fd, at, SEEK_DATA);
    if (data < 0 && errno == ENXIO)
      return true; // nothing but a hole from here on
    const int64_t hole = data < 0 ? len : lseek(fd, data, SEEK_HOLE);
    const int64_t begin = std::max(at, data); // data is -1 where holes cannot be asked for
    const int64_t end = hole < begin ? len : std::min(len, hole);
    if (begin >= end)
      return begin >= len;
    if (!read_at(fd, bytes + begin, end - begin, begin))
      return false;
    for (int64_t page = begin / page_bytes; touched && page * page_bytes < end; ++page)
      tqp_mark_loc2norm_page(touched, page);
    at = end;
  }
  return true;
}

static void trace_read_failed(const std::string &path) {
  wllb_trace(1, "Error", "Read failed from file %s, errno = %d (Error: %s)", path.c_str(), errno,
             wllb_strerror(errno).c_str());
}

// No id is negative: such an entry is damage, and unknown is what it is worth.
static void forget_negative_ids(const wllb_zarray<int> &map, const wllb_zarray<uint64_t> &touched) {
  for (int64_t page = 0; page * loc2norm_page_entries < map.size; ++page) {
    if (!tqp_loc2norm_page_marked(touched, page))
      continue;
    const int64_t end = std::min(map.size, (page + 1) * loc2norm_page_entries);
    for (int64_t i = page * loc2norm_page_entries; i < end; ++i)
      map.data[i] = std::max(map.data[i], 0);
  }
}

// A block of the caller's with `count` entries of a file; null when there is nothing to read or it cannot be read.
static char *read_entries(FILE *file, int64_t count, int64_t entry_size, const std::string &path,
                          wllb_zarray<uint64_t> *touched) {
  errno = 0;
  const int64_t len = count * entry_size;
  char *bytes = count > 0 ? static_cast<char *>(wllb_new_block(static_cast<size_t>(len), "loc2norm_buf")) : nullptr;
  if (bytes && read_data(fileno(file), bytes, len, touched))
    return bytes;
  trace_read_failed(path);
  wllb_free_block(bytes, static_cast<size_t>(len), "loc2norm_buf");
  return nullptr;
}

static void load_int_map(tqp_instance_t *inst, const loc2norm_row &row, FILE *file, int64_t file_bytes,
                         const std::string &path) {
  loc2norm_pages_t read = {};
  const int64_t count = std::min(file_bytes / 4, most_entries);
  char *bytes = read_entries(file, count, 4, path, &read.touched);
  if (!bytes)
    return tqp_free_loc2norm_pages(&read);
  wllb_zarray<int> &map = inst->*row.map;
  wllb_zarray_free(map, *row.growth);
  map.data = reinterpret_cast<int *>(bytes);
  map.size = count;
  forget_negative_ids(map, read.touched);
  read.file_bytes = file_bytes;
  tqp_free_loc2norm_pages(&inst->loc2norm_pages[row.bit]);
  inst->loc2norm_pages[row.bit] = read;
}

// --- reading: queries -------------------------------------------------------------------------------------------

// Made only where its directory stands.
static void make_sql_marker(const tqp_instance_t *inst) {
  if (wllb_is_directory(make_loc2_norm_file_path(inst, "").c_str()))
    tqp_make_data_file_as(make_loc2_norm_file_path(inst, sql_marker_name).c_str(), "a", false);
}

// Negative ids are damage. A non-prepared query older than those that were read back has lost its text.
static bool is_wanted_query(const sql_query_map_t &query) {
  return query.norm_id >= 0 && !(query.norm_id >= norm_id_flag && query.norm_id < g_min_init_nonprep_sql_id);
}

static bool is_before(const sql_query_map_t &a, const sql_query_map_t &b) {
  return a.loc_id < b.loc_id;
}

static void take_queries(tqp_instance_t *inst, sql_query_map_t *queries, int64_t count) {
  // Ours is sorted; any other order would make each insertion move what follows.
  if (!std::is_sorted(queries, queries + count, is_before))
    std::stable_sort(queries, queries + count, is_before);
  for (int64_t i = 0; i < count; ++i)
    if (is_wanted_query(queries[i]))
      inst->sql_query_map_size = sql_query_map_insert_loc_id(
          &inst->sql_query_map, queries[i].loc_id, inst->sql_query_map_size, queries[i].query_type, queries[i].norm_id);
}

static void load_sql_map(tqp_instance_t *inst, FILE *file, int64_t file_bytes, const std::string &path) {
  const int64_t count = std::min(file_bytes / 12, most_entries);
  char *bytes = read_entries(file, count, 12, path, nullptr);
  if (!bytes)
    return;
  inst->sql_query_map_size = 0;
  if (wllb_path_exists(make_loc2_norm_file_path(inst, sql_marker_name).c_str()))
    take_queries(inst, reinterpret_cast<sql_query_map_t *>(bytes), count);
  else
    make_sql_marker(inst); // a file of the old layout says nothing; the agent would have to be asked for all queries
  wllb_free_block(bytes, static_cast<size_t>(count * 12), "loc2norm_buf");
}

// --- reading: headers -------------------------------------------------------------------------------------------

struct free_line {
  void operator()(char *line) const { free(line); }
};

// The newlines of the file, and one more for each read.
static int64_t count_header_lines(FILE *file) {
  std::vector<char> block(size_t{128} << 10U);
  int64_t lines = 0;
  for (size_t got; (got = fread(block.data(), 1, block.size(), file)) > 0;)
    lines += std::count(block.data(), block.data() + got, '\n') + 1;
  rewind(file);
  return lines;
}

// A line without a newline or comma was cut short, and what is left of it may be another id.
static void take_header_line(tqp_instance_t *inst, int64_t local_id, char *line, size_t len) {
  char *comma = strchr(line, ',');
  if (!comma || line[len - 1] != '\n')
    return;
  line[len - 1] = 0;
  const int norm_id = atoi(line);
  if (norm_id < 0 || (norm_id == 0 && comma[1] == 0))
    return;
  tqp_mark_loc2norm_page(&inst->loc2norm_pages[LOC2NORM_HTTP_HEADER].touched, local_id / loc2norm_page_entries);
  http_header_map_t *entry = &inst->http_header_map.data[local_id];
  entry->norm_http_header_id = norm_id;
  if (comma[1]) {
    const size_t size = strlen(comma + 1) + 1;
    entry->http_header_name = static_cast<char *>(wllb_new_block(size, "loc2norm_buf string"));
    memcpy(entry->http_header_name, comma + 1, size);
  }
}

static void load_header_map(tqp_instance_t *inst, FILE *file) {
  const int64_t count = std::min(count_header_lines(file), most_entries);
  if (count == 0)
    return;
  tqp_free_http_header_map(inst);
  const auto size = static_cast<size_t>(count) * sizeof(http_header_map_t);
  inst->http_header_map.data = static_cast<http_header_map_t *>(wllb_new_block(size, "loc2norm_buf"));
  inst->http_header_map.size = count;
  char *line = nullptr;
  size_t room = 0;
  for (int64_t i = 0; i < count; ++i) {
    const ssize_t len = getline(&line, &room, file);
    if (len <= 0)
      break;
    take_header_line(inst, i, line, static_cast<size_t>(len));
  }
  free(line);
}

// --- reading: all -----------------------------------------------------------------------------------------------

static void load_map(tqp_instance_t *inst, const loc2norm_row &row) {
  const std::string path = make_loc2_norm_file_path(inst, row.file_name);
  const wllb_file file(wllb_is_regular_file(path.c_str()) ? my_fopen(path.c_str(), "r") : nullptr);
  if (!file) {
    wllb_trace(1, "Error", "Could not open file %s for reading", path.c_str());
    if (row.bit == LOC2NORM_SQL)
      make_sql_marker(inst);
    return;
  }
  inst->recovery_file_found = 1;
  if (row.bit == LOC2NORM_SQL)
    inst->sql_first_time = 0;
  struct stat st;
  if (fstat(fileno(file.get()), &st) != 0) {
    wllb_trace(1, "Error", "Could not stat file %s, errorno = %d (Error: %s)", path.c_str(), errno,
               wllb_strerror(errno).c_str());
    if (row.bit == LOC2NORM_SQL)
      make_sql_marker(inst);
    return;
  }
  if (row.map)
    load_int_map(inst, row, file.get(), st.st_size, path);
  else if (row.bit == LOC2NORM_SQL)
    load_sql_map(inst, file.get(), st.st_size, path);
  else
    load_header_map(inst, file.get());
}

[[noreturn]] static void usage_tqp_offline_recovery_file(const tqp_instance_t *inst) {
  printf("TQP Partition based Processing Error: Recovery file not found in Partition %lld for Instance = %s.\n",
         static_cast<long long>(inst->partition_idx), inst->tier_server_app_name);
  wllb_exit(-1);
}

// The first event of a raw file that begins a flowpath (2, 80, 82) or the agent's resending (11); 0: none.
static int first_telling_event(FILE *file) {
  std::vector<char> block(tqp_raw_data_buf_size);
  char number[16];
  size_t digits = 0;
  for (size_t got; (got = fread(block.data(), 1, block.size(), file)) > 0;)
    for (size_t i = 0; i < got; ++i) {
      if (block[i] != '\n') {
        if (digits < sizeof number - 1)
          number[digits++] = block[i];
        continue;
      }
      number[digits] = 0;
      digits = 0;
      const int event = atoi(number);
      if (event == TQ_EV_SEQ_BLOB_HEADER || event == TQ_EV_SEGMENT_SEQ_BLOB_ASYNC_RESP ||
          event == TQ_EV_SEGMENT_SEQ_BLOB_HEADER || event == TQ_SENDING_META_DATA)
        return event;
    }
  return 0;
}

// An offline run without maps can only work on data that begins with the agent's resending.
static void check_eleven_record(tqp_instance_t *inst) {
  const std::string marker = make_loc2_norm_file_path(inst, sql_marker_name);
  if (wllb_path_exists(marker.c_str())) {
    wllb_trace(1, "Info", ".SQLMapNewVer file found at path , so processing data : '%s'", marker.c_str());
    return;
  }
  const std::string path = wllb_format("%s/webapps/logs/TR%d/%s/tq/raw_data/%s.txt", wl_wdir, testidx,
                                       inst->partition_name, inst->tier_server_app_name);
  const wllb_file file(wllb_is_regular_file(path.c_str()) ? my_fopen(path.c_str(), "r") : nullptr);
  if (!file)
    return;
  const int event = first_telling_event(file.get());
  if (event == TQ_SENDING_META_DATA)
    inst->recovery_file_found = 1;
  else if (event != 0)
    usage_tqp_offline_recovery_file(inst);
}

void read_loc2norm_rec_file(tqp_instance_t *inst, int mask) {
  for (const loc2norm_row &row : loc2norm_rows)
    if (mask & (1 << row.bit))
      load_map(inst, row);
  if (!inst->recovery_file_found && tqp_is_offline())
    check_eleven_record(inst);
}
