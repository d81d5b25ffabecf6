// A test run in a directory of its own with one instance in it, for the tests of what is written there.
//   In      a partition number, keyword values that a test sets before it makes files
//   Out     the directory with its trace log; both are gone after the test
//   Thread  one
#pragma once

#include "test_files.h"
#include "tqp_csv_files.h"
#include "tqp_parse_keywords.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

class output_files : public testing::Test {
protected:
  const std::string partition = "20261122213000";
  std::string root;
  tqp_instance_t instance;
  tqp_instance_t *inst = &instance;

  output_files() {
    char made[] = "/tmp/tqp_output_XXXXXX";
    root = mkdtemp(made);
    tqp_process_state_init();
    tqp_keywords_init();
    wllb_copy_text(wl_wdir, sizeof wl_wdir, root);
    testidx = 1001;
    base_dir = run_dir();
    resume_flag = 0;
    outside_paths.function_group_file = root + "/fngrp";
    std::filesystem::create_directories(run_dir() + partition);
    trkey = wllb_init_mt_trace_log_ex(run_dir().c_str(), stoll(partition), "trace.log", 1, 1);
    wllb_trace_partition = stoll(partition);
    begin_instance(instance, "tier_server_app");
  }

  ~output_files() override {
    for (int idx = 0; idx < __NUM_METADATA_CSV_IDX__; ++idx)
      tqp_close_stream(&metadata_csv_fp[idx]);
    end_instance(instance);
    wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
    wllb_trace_partition = 0;
    tqp_process_state_init();
    tqp_keywords_init();
    std::filesystem::remove_all(root);
  }

  void begin_instance(tqp_instance_t &started, const char *name) const {
    started.tier_server_app_name = strdup(name);
    started.active_flag = 1;
    wllb_copy_text(started.partition_name, sizeof started.partition_name, partition);
    started.partition_idx = stoll(partition);
    set_csvfilepath_in_tqp_instance(&started, partition.c_str());
    create_tq_dir_and_subdir(&started, "");
    create_tq_dir_and_subdir(&started, partition.c_str());
  }

  static void end_instance(tqp_instance_t &ended) {
    for (FILE *&stream : ended.csv_file_pointers)
      tqp_close_stream(&stream);
    for (FILE *&stream : ended.prev_csv_file_pointers)
      tqp_close_stream(&stream);
    tqp_close_stream(&ended.sqb_fp);
    tqp_close_stream(&ended.prev_sqb_fp);
    tqp_free_metadata_buffers(&ended);
    for (wllb_text *text : {&ended.sqb_file_buf, &ended.flowpath_sqb_buffer, &ended.segment_list_buf})
      wllb_text_free(*text, "instance buffer");
    for (char **owned : {&ended.tier_server_app_name, &ended.csvfilepath, &ended.commoncsvfilepath}) {
      free(*owned);
      *owned = nullptr;
    }
  }

  std::string run_dir() const { return root + "/logs/TR1001/"; }

  std::string common(const std::string &name) const { return run_dir() + "tq/csv/" + name; }

  // A file of the instance in its partition.
  std::string data(const std::string &name) const { return inst->csvfilepath + name; }

  // Makes a path that no file can have until it is taken away again.
  static void block(const std::string &path) {
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
  }

  int traced(const std::string &words) const {
    const std::string log = file_text(run_dir() + partition + "/trace.log");
    int count = 0;
    for (size_t at = log.find(words); at != log.npos; at = log.find(words, at + 1))
      ++count;
    return count;
  }
};
