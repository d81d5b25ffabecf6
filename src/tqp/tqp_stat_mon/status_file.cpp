// The status file: what each instance is reading and how far it is.
//   In      a signal's flag; the instances' positions
//   Out     "%s/logs/TR%d/tq/logs/tqp_current_processing_status", written anew
//   Thread  main; positions of instances may be a moment apart
//   Failure a file that cannot be made is traced; an instance without a raw file has no line
// Sample:   Tier_Server_App|20261122100000|73400320|52428800|1

#include "tqp_stat_mon.h"

#include "data_files.h"
#include "tqp_init.h"

#include <sys/stat.h>

static std::string status_line(const tqp_instance_t *inst) {
  const auto partition = static_cast<long long>(inst->partition_idx);
  const std::string raw_file = wllb_format("%s/webapps/logs/TR%d/%lld/tq/raw_data/%s.txt", wl_wdir, testidx, partition,
                                           inst->tier_server_app_name);
  struct stat info = {};
  if (stat(raw_file.c_str(), &info) != 0)
    return {};
  return wllb_format("%s|%lld|%ld|%ld|%d\n", inst->tier_server_app_name, partition, static_cast<long>(info.st_size),
                     static_cast<long>(inst->raw_data_file_offset), static_cast<int>(inst->test_run_swtch_flag));
}

void process_sig_tqp_dump_current_processing_status() {
  sig_dump_cur_proccesing_status = 0;
  wllb_trace(1, "Info", "Received TQP_DUMP_CURR_PROCESSING_STATUS Signal");
  std::string text = "#Instance_name|Current_processing_partiton|File_size|Processed_size|No_of_remaining_partitions\n";
  tqp_for_each_instance([&](const tqp_instance_t *inst) { text += status_line(inst); });
  const std::string path = wllb_format("%s/logs/TR%d/tq/logs/tqp_current_processing_status", wl_wdir, testidx);
  if (!tqp_write_data_file(path.c_str(), text))
    wllb_trace(1, "Error", "Could not open file %s", path.c_str());
}
