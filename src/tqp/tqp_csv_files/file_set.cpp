// Which files an instance has in a partition, where they lie, and how they move on with the partitions.
//   In      the instance's name and partition; keywords that switch some files on
//   Out     directories, empty files with their owner, open streams in the instance's slots
//   Thread  the instance's, or discovery before that thread begins; locks only where instances share a directory
//   Failure a file that cannot be made leaves its slot empty; its writer tries again
// Sample:  <wl_wdir>/logs/TR1001/20261122213000/tq/csv/tier_server_app/TQFlowPath.csv

#include "flowpath_files.h"
#include "tqp_csv_files.h"

#include "wllb_output_file.h"
#include "wllb_partition.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

struct instance_file {
  const char *name;
  int slot;
  int guard;          // made only while this slot is empty
  bool kept;          // its stream is kept; else its writer opens it at first use
  const int *enabled; // null: always made
};

// clang-format off
constexpr instance_file instance_files[] = {
  {"TQCustomData.csv",   HTTP_CAPTURE_HEADER_CSV_FP, HTTP_CAPTURE_HEADER_CSV_FP, true,  nullptr},
  {"TQExceptions.csv",   EXCP_DATA_CSV_FP,           EXCP_DATA_CSV_FP,           true,  nullptr},
  {"TQBCIArg.csv",       BCIARG_CSV_FP,              BCIARG_CSV_FP,              true,  nullptr},
  {"TQFlowPath.csv",     FLOWPATH_CSV_FP,            FLOWPATH_CSV_FP,            true,  nullptr},
  {"TQMethodTiming.csv", METHOD_TIMING_CSV_FP,       METHOD_TIMING_CSV_FP,       true,  nullptr},
  {"TQSQLTiming.csv",    SQL_TIMING_CSV_FP,          SQL_RECORD_TABLE_FP,        false, nullptr}, // guarded by its neighbour
  {"TQSQLRecord.csv",    SQL_RECORD_TABLE_FP,        SQL_RECORD_TABLE_FP,        true,  &tqp_enable_sql_record},
  {"TQJMS.csv",          JMS_CSV_FP,                 JMS_CSV_FP,                 true,  nullptr},
  {"TQURLRecord.csv",    TQ_URLRECORD_FP,            TQ_URLRECORD_FP,            true,  &tqp_dump_urc},
};

// clang-format on

const char *tqp_data_file_name(int slot) {
  for (const instance_file &file : instance_files)
    if (file.slot == slot)
      return file.name;
  return nullptr;
}

// Makes a directory with all its parents and gives it alone to the owner; `dir` ends with '/'.
static void make_owned_dir(const std::string &dir) {
  mkdir_ex(dir.c_str());
  tqp_own_directory(dir.c_str());
}

void create_tq_dir_and_subdir(tqp_instance_t *inst, const char *partition) {
  if (*partition)
    make_owned_dir(wllb_format("%s/logs/TR%d/%s/tq/csv/%s/", wl_wdir, testidx, partition, inst->tier_server_app_name));
  else
    make_owned_dir(wllb_format("%s/logs/TR%d/tq/csv/", wl_wdir, testidx));
  const std::string tq = wllb_format("%s/logs/TR%d/%s/tq", wl_wdir, testidx, partition);
  mkdir_ex((tq + "/logs/").c_str());
  for (const char *level : {"", "/csv", "/logs"})
    tqp_own_directory((tq + level).c_str());
}

// Takes over a path in place. The room of 5 bytes more than the first one needs is enough for all partitions' names.
static void store_path(char **held, const std::string &path) {
  if (!*held || path.size() > strlen(*held)) {
    char *room = static_cast<char *>(realloc(*held, path.size() + 5));
    if (!room)
      wllb_out_of_memory(path.size() + 5, "csvfilepath");
    *held = room;
  }
  memcpy(*held, path.c_str(), path.size() + 1);
}

void set_csvfilepath_in_tqp_instance(tqp_instance_t *inst, const char *partition) {
  store_path(&inst->csvfilepath,
             wllb_format("%s/logs/TR%d/%s/tq/csv/%s/", wl_wdir, testidx, partition, inst->tier_server_app_name));
  store_path(&inst->commoncsvfilepath, wllb_format("%s/logs/TR%d/tq/csv/", wl_wdir, testidx));
}

// In binary mode the timing file is made in both forms, and the slot belongs to the binary one.
static void make_instance_file(tqp_instance_t *inst, const instance_file &file, bool open) {
  const bool as_dat = file.slot == METHOD_TIMING_CSV_FP && tqp_binary_format_for_method_timing;
  const bool keep_open = open && file.kept && !as_dat;
  const std::string path = wllb_format("%s%s", inst->csvfilepath, file.name);
  if (resume_flag)
    tqp_cut_torn_row(path.c_str(), 0);
  FILE *stream = tqp_make_data_file(path.c_str(), keep_open);
  if (keep_open)
    inst->csv_file_pointers[file.slot] = stream;
  if (as_dat)
    create_method_timing_dat_filename_and_file(inst, open ? &inst->csv_file_pointers[file.slot] : nullptr, nullptr);
}

void create_csv_files(tqp_instance_t *inst, int open_flag) {
  if (!inst->active_flag) {
    wllb_trace(1, "Info", "%s instance is inactive, so TQP is not opeining the file for this instance",
               inst->tier_server_app_name);
    return;
  }
  for (const instance_file &file : instance_files)
    if (!inst->csv_file_pointers[file.guard] && (!file.enabled || *file.enabled))
      make_instance_file(inst, file, open_flag != 0);
}

void create_csv_files_ex(tqp_instance_t *inst, int open_flag) {
  create_csv_files(inst, open_flag);
}

void close_all_instance_files_open_debug_files(tqp_instance_t *inst) {
  for (int slot = 0; slot < __NUM_CSV_FILE_POINTERS_WITH_TIME_CONSTRAINT__; ++slot) {
    tqp_close_stream(&inst->prev_csv_file_pointers[slot]);
    std::swap(inst->prev_csv_file_pointers[slot], inst->csv_file_pointers[slot]);
  }
  tqp_close_stream(&inst->csv_file_pointers[TQ_URLRECORD_FP]);
  tqp_close_stream(&inst->csv_file_pointers[APPLOG_CSV_FP]);
  inst->num_raw_metadata = 0;
}

// The directory lies on the other disk and shows in the test run through a link, which the owner gets, too.
static void make_linked_dir(const std::string &target, const std::string &link) {
  if (!wllb_path_exists(target.c_str())) {
    mkdir_ex((target + "/tmp").c_str());
    tqp_own_directory(target.c_str());
  }
  mkdir_ex(link.c_str());
  if (!wllb_path_exists(link.c_str()))
    wllb_make_link(target.c_str(), link.c_str(), {static_cast<uid_t>(ownerid), static_cast<gid_t>(grpid)});
}

std::string tqp_make_binary_dir(const char *partition, const char *kind, const std::string &in_place,
                                wllb_mutex &lock) {
  wllb_hold hold(lock); // all instances of a partition come here at the same time
  if (disk_processed_path.empty()) {
    mkdir_ex((in_place + "/tmp").c_str());
    tqp_own_directory(in_place.c_str());
    return in_place;
  }
  std::string target = wllb_format("%s/TR%d/%s/tq/%s", disk_processed_path.c_str(), testidx, partition, kind);
  make_linked_dir(target, wllb_format("%s/logs/TR%d/%s/tq/%s", wl_wdir, testidx, partition, kind));
  make_linked_dir(target, in_place); // the same place, unless the two trees of the test run are apart
  return target;
}

static std::string make_dat_path(const tqp_instance_t *inst, const char *partition) {
  const std::string in_place = wllb_format("%s/logs/TR%d/%s/tq/dat", wl_wdir, testidx, partition);
  const std::string dir = tqp_make_binary_dir(partition, "dat", in_place, mt_dat_dir_lock);
  return wllb_format("%s/%s_MethodTiming.dat", dir.c_str(), inst->tier_server_app_name);
}

void create_method_timing_dat_filename_and_file(tqp_instance_t *inst, FILE **stream_out, std::string *path_out) {
  const std::string path = make_dat_path(inst, inst->partition_name);
  if (resume_flag)
    tqp_cut_torn_row(path.c_str(), tqp_timing_record_size);
  FILE *stream = tqp_make_data_file(path.c_str(), stream_out != nullptr);
  if (stream_out)
    *stream_out = stream;
  if (path_out)
    *path_out = path;
}

// --- the previous partition's files after a restart -------------------------------------------------------------

// A done file that was made before the restart takes the notices of late rows, as one made now does.
static void open_prev_done_file(tqp_instance_t *inst) {
  const std::string path =
      wllb_format("%s/logs/TR%d/%s/tq/csv/%s", wl_wdir, testidx, inst->prev_partition_name, wllb_done_file_name);
  wllb_hold hold(check_and_create_partition_done_file_mutex);
  if (!inst->prev_tqpdone_fileptr_v2 && wllb_is_regular_file(path.c_str()))
    if (FILE *const done = my_fopen(path.c_str(), "a"))
      inst->prev_tqpdone_fileptr_v2 = {done, fclose};
}

FILE *tqp_previous_data_file(tqp_instance_t *inst, int slot) {
  FILE *&stream = inst->prev_csv_file_pointers[slot];
  if (stream || inst->prev_partition_idx == 0 || inst->prev_partition_idx > inst->resumed_partition)
    return stream;
  const std::string dir = wllb_format("%s/logs/TR%d/%s/tq/csv/%s/", wl_wdir, testidx, inst->prev_partition_name,
                                      inst->tier_server_app_name);
  if (!wllb_is_directory(dir.c_str()))
    return nullptr; // the instance was not there
  const bool as_dat = slot == METHOD_TIMING_CSV_FP && tqp_binary_format_for_method_timing;
  const std::string path = as_dat ? make_dat_path(inst, inst->prev_partition_name) : dir + tqp_data_file_name(slot);
  tqp_cut_torn_row(path.c_str(), as_dat ? tqp_timing_record_size : 0);
  stream = tqp_make_data_file_as(path.c_str(), "a", true);
  open_prev_done_file(inst);
  return stream;
}

void write_prev_tqpdone(tqp_instance_t *inst, const char *file_name) {
  wllb_hold hold(check_and_create_partition_done_file_mutex);
  FILE *done = inst->prev_tqpdone_fileptr_v2.get();
  if (!done)
    return; // the partition is not done, so its reader has not run yet
  tqp_append_rows(done, wllb_format("%d,%d,%s/%s\n", inst->jvmid, inst->appID, inst->tier_server_app_name, file_name));
}

// --- flushing ---------------------------------------------------------------------------------------------------

static void flush_blobs(tqp_instance_t *inst) {
  sqb_fwrite(inst, nullptr, 0, true, false);
}

static void flush_flowpath_rows(tqp_instance_t *inst) {
  csv_dump_flowpath(inst, 0, nullptr);
}

static void flush_exceptions(tqp_instance_t *inst) {
  csv_dump_excp_data(inst, nullptr, 1);
}

static void flush_custom_data(tqp_instance_t *inst) {
  csv_dump_http_header_req_rsp_info(inst, nullptr, 1);
}

static void flush_arguments(tqp_instance_t *inst) {
  csv_dump_bci_arg_data(inst, nullptr, 1);
}

static void flush_messages(tqp_instance_t *inst) {
  csv_dump_jms_data(inst, 0, 0, nullptr, 0, 1);
}

// What holds rows back, in the order in which it is written out: first the bytes that rows point to. Metadata rows are
// flushed one by one.
constexpr void (*flush_steps[])(tqp_instance_t *) = {flush_blobs,       flush_flowpath_rows, flush_exceptions,
                                                     flush_custom_data, flush_arguments,     flush_messages};

void csv_dump_all_files(tqp_instance_t *inst) {
  for (const auto &flush : flush_steps)
    flush(inst);
}
