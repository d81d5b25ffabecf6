// An instance between two partitions, with the files of both at hand: what a late row needs.
//   In      output_files; the previous partition begins at 1000 s, the current one at 2000 s
//   Out     texts of the instance's files, of the previous partition's, and of its done file
//   Thread  one
#pragma once

#include "output_files_fixture.h"

#include "flowpath_files.h"
#include "tqp_recovery.h"

class late_files : public output_files {
protected:
  static constexpr int64_t prev_begin = 1000, begin = 2000;

  late_files() {
    inst->jvmid = 9;
    inst->tierID = 3;
    inst->serverID = 4;
    inst->appID = 5;
    inst->partition_begintime = begin;
    inst->prev_partition_begintime = prev_begin;
  }

  ~late_files() override {
    for (wllb_text *text : {&inst->sql_record_data_buf, &inst->excp_data_buf, &inst->http_header_data_buf,
                            &inst->bciarg_data_buf, &inst->jms_data_buf})
      wllb_text_free(*text, "test");
    tqp_close_stream(&inst->raw_data_file_offset_fp);
    tqp_free_local_maps(inst);
  }

  // The previous partition is done, and its file of this slot is still open.
  void open_previous(int slot) {
    inst->prev_csv_file_pointers[slot] = fopen(previous_path(slot).c_str(), "w");
    inst->prev_tqpdone_fileptr_v2 = {fopen((root + "/done").c_str(), "w"), fclose};
  }

  std::string previous_path(int slot) const { return wllb_format("%s/previous_%d", root.c_str(), slot); }

  std::string previous(int slot) const { return file_text(previous_path(slot)); }

  std::string done() const { return file_text(root + "/done"); }

  std::string current(const std::string &name) const { return file_text(data(name)); }
};
