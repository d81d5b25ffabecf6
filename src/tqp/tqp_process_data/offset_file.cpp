// The offset file of an instance's raw file: how many bytes of complete lines have been consumed.
//   In      raw_data_file_offset of the instance
//   Out     "%s/webapps/logs/TR%d/%s/tq/raw_data/.%s.txt.offset": one decimal number, no newline
//   Thread  the instance's
//   Failure a file that cannot be opened is traced and tried again at the next save
// In a run that resumes, the file is never emptied by being opened: the number saved last stands until a new one is
// written over it. In one that begins anew, an old number means nothing.

#include "data_files.h"
#include "state_save.h"
#include "tqp_process_data.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

static std::string offset_file_path(const tqp_instance_t *inst) {
  return wllb_format("%s/webapps/logs/TR%d/%s/tq/raw_data/.%s.txt.offset", wl_wdir, testidx, inst->partition_name,
                     inst->tier_server_app_name);
}

void tqp_make_offset_file(tqp_instance_t *inst) {
  tqp_close_stream(&inst->raw_data_file_offset_fp);
  const std::string path = offset_file_path(inst);
  inst->raw_data_file_offset_fp = my_fopen(path.c_str(), "w");
  inst->saved_offset_len = 0;
}

static void open_offset_file(tqp_instance_t *inst, const std::string &path) {
  inst->raw_data_file_offset_fp = my_fopen(path.c_str(), resume_flag ? "r+" : "w+");
  if (inst->raw_data_file_offset_fp)
    inst->saved_offset_len = lseek(fileno(inst->raw_data_file_offset_fp), 0, SEEK_END);
}

// A number that is missing or none at all reads as 0.
static void read_offset(tqp_instance_t *inst) {
  char text[64];
  const ssize_t len = pread(fileno(inst->raw_data_file_offset_fp), text, sizeof text - 1, 0);
  text[len > 0 ? len : 0] = 0;
  if (!wllb_is_numeric({text, static_cast<size_t>(std::max<ssize_t>(len, 0))}))
    wllb_trace(1, "Warning", "Offset file of %s.txt is empty or damaged", inst->tier_server_app_name);
  const long offset = atol(text);
  inst->raw_data_file_offset = offset > 0 ? offset : 0;
}

// Part of a line could be taken for another record, so a damaged number goes back to where its line begins. One behind the
// end of the file goes back to the end of the last line there: what the file has was read, and is not read twice.
static void keep_to_lines(tqp_instance_t *inst, FILE *raw_fp) {
  const int fd = fileno(raw_fp);
  const int64_t saved = inst->raw_data_file_offset;
  struct stat facts;
  const int64_t size = fstat(fd, &facts) == 0 ? facts.st_size : 0;
  const int64_t begin = std::max<int64_t>(0, wllb_line_begin(fd, std::min(saved, size)));
  if (begin == saved)
    return;
  wllb_trace(1, "Warning", "Saved offset %lld of %s.txt is no beginning of a line, going on from %lld",
             static_cast<long long>(saved), inst->tier_server_app_name, static_cast<long long>(begin));
  inst->raw_data_file_offset = begin;
}

void check_offset_file_and_seek_raw_file(tqp_instance_t *inst, FILE *raw_fp) {
  bool existed = true;
  if (!inst->raw_data_file_offset_fp) {
    const std::string path = offset_file_path(inst);
    existed = wllb_path_exists(path.c_str());
    open_offset_file(inst, path);
  }
  if (existed && inst->raw_data_file_offset_fp)
    read_offset(inst);
  if (raw_fp) {
    keep_to_lines(inst, raw_fp);
    const long offset = inst->raw_data_file_offset;
    wllb_trace(1, "Info", "Seeking the raw file to %ld offset", offset);
    fseek(raw_fp, offset, SEEK_SET);
  } else {
    wllb_trace(1, "Info", "Raw data file pointer is closed hence closing the offset_file of %s.txt",
               inst->tier_server_app_name);
    tqp_close_stream(&inst->raw_data_file_offset_fp);
  }
}

// One write in place. Only a shorter number than the one that stands there needs the file cut first.
static void write_offset(tqp_instance_t *inst) {
  char text[24];
  const int64_t offset = std::max<int64_t>(0, inst->raw_data_file_offset); // below 0: only a carried fragment so far
  const auto end = std::to_chars(text, text + sizeof text, offset).ptr;
  const int fd = fileno(inst->raw_data_file_offset_fp);
  const auto len = end - text;
  if (inst->saved_offset_len > len && ftruncate(fd, 0) != 0)
    return;
  inst->saved_offset_len = len;
  if (wllb_write_at(fd, text, len, 0))
    inst->flag_to_update_offset = 0;
  else
    wllb_trace(1, "Error", "Could not write the offset of %s.txt, Error = %s", inst->tier_server_app_name,
               wllb_strerror(errno).c_str());
}

void tqp_save_offset(tqp_instance_t *inst) {
  // Once a stop has begun the number saved last stands, however much output is still written.
  if (!inst->flag_to_update_offset || wl_status == WL_STOP_NOW)
    return;
  if (inst->raw_data_file_offset_fp)
    return write_offset(inst);
  const std::string path = offset_file_path(inst);
  open_offset_file(inst, path);
  if (!inst->raw_data_file_offset_fp)
    wllb_trace(1, "Error", "Could not open file in w+ mode: '%s'", path.c_str());
}
