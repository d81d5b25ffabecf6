// Dumps on demand: what an instance's maps hold, and which flowpaths it has in flight.
//   In      a signal's flag; "/tmp/tqp_dump_loc2norm_maps.txt", if it is there and this process's user's or root's: a line
//           for each instance, "name,5,21"; its maps
//   Out     "%s/logs/TR%d/tq/logs/tqp_loc2norm_map_dump_%s_%s_%d_%d.log", one for each line
//   Thread  main asks; each instance's own thread writes, when it next looks, so that nothing is seen half changed
//   Failure a request for a name that nobody has is passed over; a file that cannot be made is traced
// Sample:   METHOD MAP  ---------------------------  BCI_Local_ID | Normalized_ID  17|42

#include "tqp_stat_mon.h"

#include "data_files.h"
#include "output_wait.h"
#include "process_wake.h"
#include "tqp_init.h"
#include "tqp_recovery.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// --- asking ------------------------------------------------------------------------------------------------------

constexpr int all_maps = 65535;

struct event_bit {
  int event, mask;
};

// 36 and 37 are crossed on purpose: who asks for causes gets stack traces, and the other way round.
static constexpr event_bit event_bits[] = {{5, 0x1},   {6, 0x100},  {7, 0x80},    {21, 0x200}, {26, 0x800},
                                           {32, 0x2},  {33, 0x4},   {34, 0x8},    {35, 0x10},  {36, 0x20},
                                           {37, 0x40}, {41, 0x400}, {112, 0x1000}};

struct dump_request {
  const tqp_instance_t *inst;
  int mask;
  int number; // of the dump, in the file's name
};

static wllb_mutex dump_mutex; // innermost
static std::vector<dump_request> dump_requests WLLB_GUARDED_BY(dump_mutex);
static int dump_count WLLB_GUARDED_BY(dump_mutex); // running number
static wllb_relaxed<int> dumps_wanted(0);          // size of dump_requests, for a look without the lock

static void ask_for_dump(const tqp_instance_t *inst, int mask) {
  wllb_hold hold(dump_mutex);
  for (dump_request &request : dump_requests)
    if (request.inst == inst) { // one dump shows what all of them ask for
      request.mask |= mask;
      return;
    }
  dump_requests.push_back({inst, mask, ++dump_count});
  dumps_wanted = static_cast<int>(dump_requests.size());
}

static void ask_all() {
  tqp_for_each_instance([](const tqp_instance_t *inst) { ask_for_dump(inst, all_maps); });
}

static int mask_of(const std::vector<std::string_view> &fields) {
  int mask = 0;
  for (size_t i = 1; i < fields.size(); ++i)
    for (const event_bit &row : event_bits)
      if (atoi(std::string(fields[i]).c_str()) == row.event) // blanks before the number do no harm
        mask |= row.mask;
  return fields.size() < 2 ? all_maps : mask;
}

static std::vector<std::string_view> fields_of(std::string_view line) {
  std::vector<std::string_view> fields = wllb_split(line, ',');
  while (fields.size() > 1 && fields.back().find_first_not_of(" \t\r") == std::string_view::npos)
    fields.pop_back(); // "name," asks for nothing in particular
  return fields;
}

static void ask_as_told(std::string_view line) {
  const size_t begin = line.find_first_not_of(" \t");
  if (begin == line.npos || line[begin] == '#')
    return;
  const std::vector<std::string_view> fields = fields_of(line.substr(begin));
  const int mask = mask_of(fields);
  tqp_for_each_instance([&](const tqp_instance_t *inst) {
    if (!inst->tier_server_app_name || fields[0] != inst->tier_server_app_name)
      return;
    wllb_trace(1, "Info", "Map Mask '0x%x'", static_cast<unsigned>(mask));
    ask_for_dump(inst, mask);
  });
}

// The request file's text; false without one that this process's user or root has made.
static bool read_request_file(std::string *text) {
  constexpr off_t most_bytes = 1 << 20;
  const std::string &path = outside_paths.dump_request_file;
  struct stat found = {};
  const wllb_fd file(wllb_open_plain(path.c_str(), O_RDONLY | O_NOFOLLOW, &found));
  if (file.fd < 0)
    return false;
  if (found.st_uid != geteuid() && found.st_uid != 0) {
    wllb_trace(1, "Warning", "%s belongs to user %d and is not looked at", path.c_str(),
               static_cast<int>(found.st_uid));
    return false;
  }
  text->resize(static_cast<size_t>(std::min(found.st_size, most_bytes)));
  text->resize(static_cast<size_t>(
      std::max<int64_t>(wllb_read_at(file.fd, text->data(), static_cast<int64_t>(text->size()), 0), 0)));
  return true;
}

void process_sig_tqp_dump_loc2norm_maps() {
  wllb_trace(1, "Info", "Received TQP_DUMP_LOC2NORM_MAPS Signal");
  sig_dump_loc2norm_maps = 0;
  std::string text;
  if (!read_request_file(&text))
    ask_all();
  for (std::string_view rest = text; !rest.empty();)
    ask_as_told(wllb_take_piece(&rest, '\n'));
  tqp_wake_all();
}

// --- writing -----------------------------------------------------------------------------------------------------

static constexpr const char *map_names[__NUM_LOC2NORM_BITS__] = {
    "METHOD MAP",
    "Exception Class MAP",
    "Exception Throwing Class MAP",
    "Exception Throwing Method MAP",
    "Exception Message MAP",
    "Exception St MAP",
    "Exception Cause MAP",
    "URL MAP",
    "HTTP Header MAP",
    "SQL MAP",
    "Service Page ID MAP",
    "RESOURCE MAP",
    "TAGS MAP",
};

// Calls visit(id) for each id of a map that may hold something: pages that were never written are passed over.
template <class F> static void for_each_id(const loc2norm_pages_t &pages, int64_t size, F visit) {
  for (int64_t page = 0; page * loc2norm_page_entries < size; ++page) {
    if (page > 0 && !tqp_loc2norm_page_marked(pages.touched, page))
      continue;
    const int64_t end = std::min(size, (page + 1) * loc2norm_page_entries);
    for (int64_t id = page * loc2norm_page_entries; id < end; ++id)
      visit(static_cast<int>(id));
  }
}

static void put_int_map(FILE *file, const wllb_zarray<int> &map, const loc2norm_pages_t &pages) {
  fputs("BCI_Local_ID | Normalized_ID\n", file);
  for_each_id(pages, map.size, [&](int id) {
    if (map.data[id] != 0)
      fprintf(file, "%d|%d\n", id, map.data[id]);
  });
}

static void put_header_map(FILE *file, const tqp_instance_t *inst) {
  fputs("BCI_Local_ID | Normalized_ID | Header_Name\n", file);
  for_each_id(inst->loc2norm_pages[LOC2NORM_HTTP_HEADER], inst->http_header_map.size, [&](int id) {
    const http_header_map_t &entry = inst->http_header_map.data[id];
    if (entry.http_header_name)
      fprintf(file, "%d|%d|%s\n", id, entry.norm_http_header_id, entry.http_header_name);
  });
}

static void put_sql_map(FILE *file, const tqp_instance_t *inst) {
  fputs("BCI_Local_ID | Normalized_ID | Query_Type\n", file);
  for (int i = 0; i < inst->sql_query_map_size; ++i) {
    const sql_query_map_t &entry = inst->sql_query_map.data[i];
    fprintf(file, "%d|%d|%d\n", entry.loc_id, entry.norm_id, entry.query_type);
  }
}

static void put_map(FILE *file, const tqp_instance_t *inst, const loc2norm_row &row) {
  fprintf(file, "%s\n---------------------------\n", map_names[row.bit]);
  if (row.map)
    put_int_map(file, inst->*row.map, inst->loc2norm_pages[row.bit]);
  else if (row.bit == LOC2NORM_HTTP_HEADER)
    put_header_map(file, inst);
  else
    put_sql_map(file, inst);
}

static void put_segment(FILE *file, int slot_index, int index, const concurrent_flowpath_t &slot,
                        const segment_fp_t &segment) {
  fprintf(file, "%d.%d,%ld:%ld:%ld:%ld,%d,%d,%d,%d,%d,%d,%d,%d\n", slot_index, index, segment.self_fpi, slot.root_fpi,
          segment.parent_fpi, slot.main_fpi, static_cast<int>(segment.sqb_malloced_len),
          static_cast<int>(segment.signstr_malloced_len), static_cast<int>(segment.seq_blob.len),
          static_cast<int>(segment.signstr.len), segment.method_call_stack.used, segment.method_call_stack.room,
          segment.entry_methods_count, segment.entry_exit_methods_count);
}

static void put_flowpaths(FILE *file, const tqp_instance_t *inst) {
  fprintf(file, "Con FP Buf\n---------------------------\nlast_occupied_fp_idx=%d\ncur_max_concurrent_flowpaths=%d\n",
          inst->last_occupied_fp_idx, inst->cur_max_concurrent_flowpaths);
  fputs(
      "#con_fp_idx.seg_idx,self_fpi:root_fpi:parent_fpi:main_fpi,sqb_malloced_len,signstr_malloced_len,sqb_len,signstr_len,method_call_stack_size,method_call_stack_malloced_size,entry_methods_count,entry_exit_methods_count\n",
      file);
  for (int i = 0; i <= inst->last_occupied_fp_idx; ++i) {
    const concurrent_flowpath_t &slot = inst->con_fp_buf.data[i];
    for (int s = 0; s < slot.seg_arr.used; ++s)
      put_segment(file, i, s, slot, *slot.seg_arr.data[s]);
  }
}

static void dump_loc2norm_map(const tqp_instance_t *inst, int mask, int number) {
  const std::string path =
      wllb_format("%s/logs/TR%d/tq/logs/tqp_loc2norm_map_dump_%s_%s_%d_%d.log", wl_wdir, testidx,
                  inst->tier_server_app_name, inst->partition_name, static_cast<int>(wllb_now()), number);
  const tqp_waits_for_output spared(nullptr);
  const wllb_file file(tqp_make_data_file_as(path.c_str(), "w", true));
  if (!file) {
    wllb_trace(1, "Error", "Could not open file %s", path.c_str());
    return;
  }
  for (const loc2norm_row &row : loc2norm_rows)
    if (mask & 1 << row.bit)
      put_map(file.get(), inst, row);
  put_flowpaths(file.get(), inst);
}

static std::vector<dump_request> take_requests(const tqp_instance_t *inst) {
  std::vector<dump_request> taken;
  wllb_hold hold(dump_mutex);
  std::erase_if(dump_requests, [&](const dump_request &request) {
    if (request.inst != inst)
      return false;
    taken.push_back(request);
    return true;
  });
  dumps_wanted = static_cast<int>(dump_requests.size());
  return taken;
}

void tqp_dump_maps_if_asked(const tqp_instance_t *inst) {
  if (dumps_wanted == 0)
    return;
  for (const dump_request &request : take_requests(inst))
    dump_loc2norm_map(inst, request.mask, request.number);
}

void tqp_dump_maps_now(const tqp_instance_t *inst) {
  int number;
  {
    wllb_hold hold(dump_mutex);
    number = ++dump_count;
  }
  dump_loc2norm_map(inst, all_maps, number);
}

void tqp_forget_dump_requests(const tqp_instance_t *inst) {
  if (dumps_wanted != 0)
    take_requests(inst);
}
