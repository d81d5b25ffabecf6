// Late data: a record belongs to the partition of its own time, whatever partition is being read.
//   In      times of records; where the instance stands
//   Out     which generation of files a row goes to, and the stream of the current one
//   Thread  the instance's
//   Failure a file that cannot be opened gives null and is tried again with the next row
// Begin times:  ... older | prev_partition_begintime: previous | partition_begintime: current ...

#include "flowpath_files.h"
#include "tqp_csv_files.h"

data_age tqp_age_of(const tqp_instance_t *inst, int64_t time_sec) {
  if (time_sec >= inst->partition_begintime)
    return AGE_CURRENT;
  return time_sec >= inst->prev_partition_begintime ? AGE_PREVIOUS : AGE_OLDER;
}

FILE *tqp_current_data_file(tqp_instance_t *inst, int slot) {
  FILE *&stream = inst->csv_file_pointers[slot];
  const char *name = tqp_data_file_name(slot);
  if (stream || !name)
    return stream;
  if (slot == METHOD_TIMING_CSV_FP && tqp_binary_format_for_method_timing)
    create_method_timing_dat_filename_and_file(inst, &stream, nullptr);
  else
    stream = tqp_make_data_file_as(wllb_format("%s/%s", inst->csvfilepath, name).c_str(), "a", true);
  return stream;
}
