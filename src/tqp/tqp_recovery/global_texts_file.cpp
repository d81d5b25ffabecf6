// An instance's global attributes and tags on disk.
//   In      the texts that the agent told; at a restart the file
//   Out     "%s/webapps/logs/TR%d/tq/recovery/%s.txt.recovery": a line for each text that there is
//   Thread  the instance's
//   Failure a file that cannot be opened or written is traced; a line that is not whole is told and passed over
// Sample:  110,{"zone":"b"}    111,{"team":"shop"}

#include "data_files.h"
#include "tqp_recovery.h"
#include "tqp_tags.h"

#include <cstring>

// Longer lines are no texts.
static constexpr size_t longest_line = 65536;

static std::string texts_path(const tqp_instance_t *inst) {
  return wllb_format("%s/webapps/logs/TR%d/tq/recovery/%s.txt.recovery", wl_wdir, testidx, inst->tier_server_app_name);
}

static void trace_not_opened(const std::string &path) {
  wllb_trace(1, "Error", "Error in opening file %s, err = %s, errno = %d\n", path.c_str(), wllb_strerror(errno).c_str(),
             errno);
}

// --- writing ------------------------------------------------------------------------------------------------------

static std::string line_of(int event, const char *text) {
  return text && *text ? wllb_format("%d,%s\n", event, text) : std::string();
}

void tqp_write_recovery_raw_data(tqp_instance_t *inst) {
  const std::string path = texts_path(inst);
  const std::string text =
      line_of(TQ_EV_GLOBAL_ATTRIBUTES, inst->global_attributes) + line_of(TQ_EV_GLOBAL_TAGS, inst->global_tags);
  FILE *file = tqp_begin_replacing(path);
  if (!file)
    return trace_not_opened(path);
  const bool whole = wllb_write_all(fileno(file), text);
  if (!tqp_end_replacing(file, path, whole))
    wllb_trace(1, "Error", "Could not write to file %s", path.c_str());
}

// --- reading ------------------------------------------------------------------------------------------------------

// `line` is whole, without its newline.
static void take_text(tqp_instance_t *inst, char *line, size_t len) {
  char *comma = strchr(line, ',');
  if (!comma)
    return;
  char *text = comma + 1;
  char *last_byte = line + len - 1;
  const int event = atoi(line);
  if (event == TQ_EV_GLOBAL_ATTRIBUTES)
    tqp_set_global_tags_and_attributes(inst, &text, last_byte, 0, TAG_KIND_ATTRIBUTES);
  else if (event == TQ_EV_GLOBAL_TAGS)
    tqp_set_global_tags_and_attributes(inst, &text, last_byte, 0, TAG_KIND_TAGS);
}

void read_and_process_raw_data_recovery(tqp_instance_t *inst) {
  const std::string path = texts_path(inst);
  errno = 0;
  const wllb_file file = tqp_open_plain_file(path, "r");
  if (!file)
    return trace_not_opened(path);
  wllb_for_each_line(file.get(), [&](char *line, size_t length) {
    const size_t len = length - 1;
    const bool whole = line[len] == '\n' && len < longest_line && strlen(line) > len;
    line[len] = 0;
    if (whole)
      take_text(inst, line, len);
    else
      wllb_trace(1, "Warning", "Recovery file %s is damaged: a line of %zu bytes is not whole", path.c_str(), length);
    return true;
  });
}
