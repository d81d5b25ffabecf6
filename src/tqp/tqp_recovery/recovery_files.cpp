// The local maps on disk: written beside each save of the offset, read back at a restart.
//   In      maps that have changed since they were written (loc2norm_unsaved_flags, loc2norm_pages)
//   Out     one file a map in the instance's recovery directory; the maps of an instance that comes back
//   Thread  the instance's
//   Failure a file that cannot be written or read is traced and leaves its map as it is
// Formats   int map: its entries as they lie in memory, holes for what was never touched
//           SQL:     records of 12 bytes; only read beside the marker ".SQLMapNewVer"
//           headers: a text line each, "%d,%s\n" of norm id and name; "0,\n" for an unknown one

#include "tqp_recovery.h"

#include "data_files.h"
#include "file_holes.h"
#include "metadata_request.h"
#include "wllb_fail.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <span>
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
    if (begin < end && !wllb_write_at(fd, bytes, (end - begin) * 4, begin * 4))
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

static bool write_header_map(const tqp_instance_t *inst, int fd) {
  std::string text;
  for (int64_t page = 0; page * loc2norm_page_entries < inst->http_header_map.size; ++page) {
    text.clear();
    append_header_lines(inst, page, &text);
    if (!wllb_write_all(fd, text))
      return false;
  }
  return true;
}

static bool write_sql_map(const tqp_instance_t *inst, int fd) {
  const auto count = static_cast<size_t>(inst->sql_query_map_size);
  return wllb_write_all(fd,
                        {reinterpret_cast<const char *>(inst->sql_query_map.data), count * sizeof(sql_query_map_t)});
}

static bool write_map(tqp_instance_t *inst, const loc2norm_row &row, FILE *file, bool in_place) {
  if (row.map)
    return write_int_map(inst->*row.map, &inst->loc2norm_pages[row.bit], file, in_place);
  return row.bit == LOC2NORM_SQL ? write_sql_map(inst, fileno(file)) : write_header_map(inst, fileno(file));
}

// Made only where its directory stands.
static void make_sql_marker(const tqp_instance_t *inst) {
  const std::string path = make_loc2_norm_file_path(inst, sql_marker_name);
  if (wllb_is_directory(make_loc2_norm_file_path(inst, "").c_str()) && !wllb_path_exists(path.c_str()))
    tqp_make_data_file_as(path.c_str(), "a", false);
}

// What is written whole takes the old file's place only then: until the offset has moved on, a kill must not leave less
// than was there.
static void save_map(tqp_instance_t *inst, const loc2norm_row &row) {
  const std::string path = make_loc2_norm_file_path(inst, row.file_name);
  const bool in_place = row.map && file_is_ours(inst->loc2norm_pages[row.bit], path.c_str());
  FILE *file = in_place ? my_fopen(path.c_str(), "r+") : tqp_begin_replacing(path);
  if (!file) {
    wllb_trace(1, "Error", "Could not open file %s", path.c_str());
    return;
  }
  bool saved = write_map(inst, row, file, in_place);
  saved = in_place ? fclose(file) == 0 && saved : tqp_end_replacing(file, path, saved);
  if (saved) {
    if (row.bit == LOC2NORM_SQL) // the file is of the new layout now; without its marker it would not be read
      make_sql_marker(inst);
    wllb_trace(2, "Info", "Saved Local to Normalized Table: %s", path.c_str());
    return;
  }
  inst->loc2norm_pages[row.bit].file_bytes = 0; // the next save is a whole one
  wllb_trace(1, "Error", "Could not write to file %s", path.c_str());
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

// --- reading: entries -------------------------------------------------------------------------------------------

// Reads what a file holds into `bytes`, which are zero, and leaves its holes alone. Notes the pages of an int map.
static bool read_data(int fd, char *bytes, int64_t len, wllb_zarray<uint64_t> *touched) {
  constexpr int64_t page_bytes = loc2norm_page_entries * 4;
  return tqp_for_each_data(fd, len, [&](int64_t begin, int64_t end) {
    if (wllb_read_at(fd, bytes + begin, end - begin, begin) < end - begin)
      return false;
    for (int64_t page = begin / page_bytes; touched && page * page_bytes < end; ++page)
      tqp_mark_loc2norm_page(touched, page);
    return true;
  });
}

static void trace_read_failed(const std::string &path) {
  wllb_trace(1, "Error", "Read failed from file %s, errno = %d (Error: %s)", path.c_str(), errno,
             wllb_strerror(errno).c_str());
}

// --- reading: which ids can be -----------------------------------------------------------------------------------

// Each id was given out by a table, whose rows were written before the map was. The tables are there first, so an id that
// is negative or above its table's highest has no text: it is damage, or the end came before its row. It would become
// some other text's, so unknown is what it is worth.
struct id_source {
  NormObjKey *table; // null: key_tags
  wllb_mutex *lock;
};

// clang-format off
static constexpr id_source id_sources[__NUM_LOC2NORM_BITS__] = { // by bit
  {&key_method_id,       &key_method_id_mutex},
  {&key_excp_cls_id,     &key_excp_cls_id_mutex},
  {&key_excp_thr_cls_id, &key_excp_thr_cls_id_mutex},
  {&key_excp_thr_mtd_id, &key_excp_thr_mtd_id_mutex},
  {&key_excp_msg_id,     &key_excp_msg_id_mutex},
  {&key_excp_st_id,      &key_excp_st_id_mutex},
  {&key_excp_cause_id,   &key_excp_cause_id_mutex},
  {&key_url_id,          &key_url_id_mutex},
  {&key_http_header_id,  &key_http_header_id_mutex},
  {&key_sql_query,       &key_sql_query_mutex},
  {&key_bci_arg,         &key_bci_arg_mutex},
  {&key_resource_id,     &key_resource_id_mutex},
  {nullptr,              nullptr},
};

static constexpr id_source nonprepared_source = {&key_sql_nonprep_query, &key_sql_query_mutex};

// clang-format on

struct id_range {
  int first, last;

  bool has(int id) const { return first <= id && id <= last; }
};

// The ids above 0 that a table has given out, with the flag in its maps or without. A table that was never set up, in a
// process that reads maps alone, says nothing.
static id_range ids_of(const id_source &source, int flag) {
  if (!source.table)
    return {1, key_tags ? static_cast<int>(std::min<uint32_t>(count_tags, INT_MAX)) : INT_MAX};
  wllb_hold hold(*source.lock);
  if (!source.table->nt)
    return {1, INT_MAX};
  const int highest = std::max(source.table->prev_id, 0) & ~flag;
  return {std::max(flag, 1), highest | flag};
}

// What one file held, for the trace.
struct read_count {
  int64_t good;  // ids above 0
  int64_t bad;   // ids that cannot be, lines that are none
  int64_t bytes; // behind the last whole entry
};

// An id passed over today is some text's tomorrow: it has to leave the file before that.
static void judge_damage(tqp_instance_t *inst, int bit, const std::string &path, const read_count &count) {
  wllb_trace(1, "Info", "Loaded Local to Normalized Table: %s, %lld ids", path.c_str(),
             static_cast<long long>(count.good));
  if (count.bad == 0 && count.bytes == 0) {
    if (count.good == 0)
      wllb_trace(1, "Warning", "Recovery file %s holds no ids", path.c_str());
    return;
  }
  wllb_trace(1, "Warning",
             "Recovery file %s is damaged: %lld ids taken, %lld entries passed over, %lld bytes are no whole entry",
             path.c_str(), static_cast<long long>(count.good), static_cast<long long>(count.bad),
             static_cast<long long>(count.bytes));
  if (count.bad == 0)
    return;
  inst->loc2norm_pages[bit].file_bytes = 0;
  inst->loc2norm_unsaved_flags |= 1 << bit;
  if (!tqp_is_offline())
    write_loc2norm_rec_file(inst, 1 << bit);
}

// --- reading: int maps ------------------------------------------------------------------------------------------

static void forget_bad_ids(const wllb_zarray<int> &map, const wllb_zarray<uint64_t> &touched, const id_range &ids,
                           read_count *count) {
  for (int64_t page = 0; page * loc2norm_page_entries < map.size; ++page) {
    if (!tqp_loc2norm_page_marked(touched, page))
      continue;
    const int64_t end = std::min(map.size, (page + 1) * loc2norm_page_entries);
    for (int64_t i = page * loc2norm_page_entries; i < end; ++i) {
      const bool good = ids.has(map.data[i]);
      count->good += good;
      count->bad += !good && map.data[i] != 0;
      if (!good)
        map.data[i] = 0;
    }
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
  read_count read_ids = {.good = 0, .bad = 0, .bytes = file_bytes - count * 4};
  forget_bad_ids(map, read.touched, ids_of(id_sources[row.bit], row.bit == LOC2NORM_URL ? norm_id_flag : 0), &read_ids);
  read.file_bytes = file_bytes;
  tqp_free_loc2norm_pages(&inst->loc2norm_pages[row.bit]);
  inst->loc2norm_pages[row.bit] = read;
  judge_damage(inst, row.bit, path, read_ids);
}

// --- reading: queries -------------------------------------------------------------------------------------------

// A non-prepared query older than those that were read back has lost its text.
static bool is_too_old(const sql_query_map_t &query) {
  return query.norm_id >= norm_id_flag && query.norm_id < g_min_init_nonprep_sql_id;
}

// No query has local id 0 and no norm id: that is a stretch of zeros.
static bool is_zero(const sql_query_map_t &query) {
  return query.loc_id == 0 && query.norm_id == 0;
}

static bool is_before(const sql_query_map_t &a, const sql_query_map_t &b) {
  return a.loc_id < b.loc_id;
}

static void take_queries(tqp_instance_t *inst, sql_query_map_t *queries, int64_t num, read_count *count) {
  const id_range prepared = ids_of(id_sources[LOC2NORM_SQL], 0), nonprepared = ids_of(nonprepared_source, norm_id_flag);
  // Ours is sorted; any other order would make each insertion move what follows.
  if (!std::is_sorted(queries, queries + num, is_before))
    std::stable_sort(queries, queries + num, is_before);
  for (const sql_query_map_t &query : std::span(queries, static_cast<size_t>(num))) {
    // Ids of prepared queries may begin at the flag and above, too.
    const bool known = query.norm_id == 0 || prepared.has(query.norm_id) ||
                       (query.norm_id >= norm_id_flag && nonprepared.has(query.norm_id));
    if (!known || is_zero(query)) {
      ++count->bad;
      continue;
    }
    ++count->good;
    if (!is_too_old(query))
      inst->sql_query_map_size = sql_query_map_insert_loc_id(&inst->sql_query_map, query.loc_id,
                                                             inst->sql_query_map_size, query.query_type, query.norm_id);
  }
}

static void load_sql_map(tqp_instance_t *inst, FILE *file, int64_t file_bytes, const std::string &path) {
  const int64_t num = std::min(file_bytes / 12, most_entries);
  char *bytes = read_entries(file, num, 12, path, nullptr);
  if (!bytes)
    return;
  inst->sql_query_map_size = 0;
  if (wllb_path_exists(make_loc2_norm_file_path(inst, sql_marker_name).c_str())) {
    read_count count = {.good = 0, .bad = 0, .bytes = file_bytes - num * 12};
    take_queries(inst, reinterpret_cast<sql_query_map_t *>(bytes), num, &count);
    judge_damage(inst, LOC2NORM_SQL, path, count);
  } else { // a file of the old layout says nothing
    tqp_request_all_metadata(inst, TQ_EV_SQL_DISCOVERY);
    make_sql_marker(inst);
  }
  wllb_free_block(bytes, static_cast<size_t>(num * 12), "loc2norm_buf");
}

// --- reading: headers -------------------------------------------------------------------------------------------

// The newlines of the file, and one more for each read.
static int64_t count_header_lines(FILE *file) {
  std::vector<char> block(size_t{128} << 10U);
  int64_t lines = 0;
  for (size_t got; (got = fread(block.data(), 1, block.size(), file)) > 0;)
    lines += std::count(block.data(), block.data() + got, '\n') + 1;
  rewind(file);
  return lines;
}

// False for a line that is none: cut short, or without its comma. What is left of it may be another id, and where the
// lines behind it stand is not known any more.
static bool take_header_line(tqp_instance_t *inst, int64_t local_id, char *line, size_t len, const id_range &ids,
                             read_count *count) {
  char *comma;
  const int norm_id = static_cast<int>(strtol(line, &comma, 10));
  if (*comma != ',' || line[len - 1] != '\n' || strlen(line) != len)
    return false;
  line[len - 1] = 0;
  if (norm_id == 0 && comma[1] == 0)
    return true;
  const bool good = norm_id == 0 || ids.has(norm_id);
  count->good += good;
  count->bad += !good;
  if (!good)
    return true;
  tqp_mark_loc2norm_page(&inst->loc2norm_pages[LOC2NORM_HTTP_HEADER].touched, local_id / loc2norm_page_entries);
  http_header_map_t *entry = &inst->http_header_map.data[local_id];
  entry->norm_http_header_id = norm_id;
  if (comma[1]) {
    const size_t size = strlen(comma + 1) + 1;
    entry->http_header_name = static_cast<char *>(wllb_new_block(size, "loc2norm_buf string"));
    memcpy(entry->http_header_name, comma + 1, size);
  }
  return true;
}

static void load_header_map(tqp_instance_t *inst, FILE *file, const std::string &path) {
  const int64_t num = std::min(count_header_lines(file), most_entries);
  if (num == 0)
    return judge_damage(inst, LOC2NORM_HTTP_HEADER, path, {});
  tqp_free_http_header_map(inst);
  const auto size = static_cast<size_t>(num) * sizeof(http_header_map_t);
  inst->http_header_map.data = static_cast<http_header_map_t *>(wllb_new_block(size, "loc2norm_buf"));
  inst->http_header_map.size = num;
  const id_range ids = ids_of(id_sources[LOC2NORM_HTTP_HEADER], 0);
  read_count count = {};
  int64_t local_id = 0;
  wllb_for_each_line(file, [&](char *line, size_t len) {
    if (take_header_line(inst, local_id, line, len, ids, &count))
      return ++local_id < num;
    count.bytes = static_cast<int64_t>(len);
    return false;
  });
  judge_damage(inst, LOC2NORM_HTTP_HEADER, path, count);
}

// --- reading: all -----------------------------------------------------------------------------------------------

static void load_map(tqp_instance_t *inst, const loc2norm_row &row) {
  const std::string path = make_loc2_norm_file_path(inst, row.file_name);
  const wllb_file file = tqp_open_plain_file(path, "r");
  if (!file) {
    wllb_trace(1, "Error", "Could not open file %s for reading", path.c_str());
    return;
  }
  inst->recovery_file_found = 1;
  if (row.bit == LOC2NORM_SQL)
    inst->sql_first_time = 0;
  struct stat st;
  if (fstat(fileno(file.get()), &st) != 0) {
    wllb_trace(1, "Error", "Could not stat file %s, errorno = %d (Error: %s)", path.c_str(), errno,
               wllb_strerror(errno).c_str());
    return;
  }
  if (row.map)
    load_int_map(inst, row, file.get(), st.st_size, path);
  else if (row.bit == LOC2NORM_SQL)
    load_sql_map(inst, file.get(), st.st_size, path);
  else
    load_header_map(inst, file.get(), path);
  if (row.bit == LOC2NORM_TAGS)
    read_and_process_raw_data_recovery(inst);
}

[[noreturn]] static void usage_tqp_offline_recovery_file(const tqp_instance_t *inst) {
  printf("TQP Partition based Processing Error: Recovery file not found in Partition %lld for Instance = %s.\n",
         static_cast<long long>(inst->partition_idx), inst->tier_server_app_name);
  wllb_fail(-1, "recovery file not found in partition %lld for instance %s of %s",
            static_cast<long long>(inst->partition_idx), inst->tier_server_app_name, base_dir.c_str());
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
  const wllb_file file = tqp_open_plain_file(path, "r");
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
