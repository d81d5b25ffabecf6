// Makes a test run's directories, its partition chain, the keyword file, scenario and summary files.
//   In      sample_layout_t
//   Out     files; what a parent process would have written before the first agent connects
//   Thread  one
//   Failure -1 with a line on standard error that names the file
#include "sample_layout.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

#include "wllb_util.h"

static int complain(const char *what, const std::string &path) {
  fprintf(stderr, "%s %s: %s\n", what, path.c_str(), wllb_strerror(errno).c_str());
  return -1;
}

int sample_write(int fd, std::string_view bytes) {
  return wllb_write_all(fd, bytes) ? 0 : complain("Could not write", "raw data");
}

static int make_directory(const std::string &path) {
  return mkdir_ex((path + "/").c_str()) == 0 ? 0 : complain("Could not make directory", path);
}

static int make_file(const std::string &path, std::string_view bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0)
    return complain("Could not make file", path);
  const int result = sample_write(fd, bytes);
  close(fd);
  return result;
}

int sample_replace_file(const std::string &path, std::string_view bytes) {
  const std::string fresh = path + ".new";
  if (make_file(fresh, bytes) != 0)
    return -1;
  return rename(fresh.c_str(), path.c_str()) == 0 ? 0 : complain("Could not replace file", path);
}

static void name_partition(sample_layout_t *layout, time_t begin) {
  tm parts = {};
  char name[15];
  gmtime_r(&begin, &parts);
  strftime(name, sizeof name, "%Y%m%d%H%M%S", &parts);
  layout->names.emplace_back(name);
  layout->begins.push_back(begin);
}

bool sample_plan_layout(sample_layout_t *layout, const std::string &work_dir, int testrun, int partitions,
                        const std::string &start) {
  tm parts = {};
  const char *end =
      start.size() == 14 && wllb_is_numeric(start) ? strptime(start.c_str(), "%Y%m%d%H%M%S", &parts) : nullptr;
  if (end == nullptr || *end != '\0')
    return false;
  const int64_t first = timegm(&parts);
  if (first < sample_epoch)
    return false;
  layout->base = wllb_format("%s/logs/TR%d", work_dir.c_str(), testrun);
  for (int p = 0; p < partitions; ++p)
    name_partition(layout, first + p * sample_partition_seconds);
  return true;
}

// Version 1: the partitions' names are UTC.
static std::string partition_info(const sample_layout_t &layout, size_t p) {
  const auto number = [&](size_t i) { return i < layout.names.size() ? atoll(layout.names[i].c_str()) : 0; };
  return wllb_format(
      "#Start Partition, Previous Partition, Next Partition, Current Partition, First Partition\nFirstPartition=%lld\nStartPartition=%lld\nCurrentPartition=%lld\nPreviousPartition=%lld\nNextPartition=%lld\nOriginalPartition=%lld\nAbsoluteTime=%ld\nVexEpocDiff=%ld\nTRInfoShmKey=%d\nWlParentPID=%d\nWlPort=%d\nReaderRunMode=%d\nNLMTraceLevel=%d\nNLWTraceLevel=%d\nNLRTraceLevel=%d\nWLDBUTraceLevel=%d\nVersion=%d\n",
      number(0), number(0), number(p), p > 0 ? number(p - 1) : 0, number(p + 1), number(p),
      static_cast<long>(layout.begins[p]), static_cast<long>(sample_epoch), 0, 0, 0, 0, 1, 1, 1, 1, 1);
}

static int make_partition(const sample_layout_t &layout, size_t p) {
  const std::string dir = layout.base + "/" + layout.names[p];
  if (make_directory(dir + "/tq/raw_data") != 0 || make_directory(dir + "/tq/logs") != 0)
    return -1;
  return make_file(dir + "/.partition_info.txt", partition_info(layout, p));
}

static std::string current_partition(const sample_layout_t &layout) {
  return "CurPartitionIdx=" + layout.names.back() + "\n";
}

int sample_add_partition(sample_layout_t *layout, int64_t begin) {
  const size_t before = layout->names.size() - 1;
  name_partition(layout, begin);
  if (make_partition(*layout, before + 1) != 0)
    return -1;
  const std::string info = layout->base + "/" + layout->names[before] + "/.partition_info.txt";
  if (sample_replace_file(info, partition_info(*layout, before)) != 0)
    return -1;
  return sample_replace_file(layout->base + "/.curPartition", current_partition(*layout));
}

// The third word behind the bars is the start time, which a reader hands to date.
static std::string summary(const sample_layout_t &layout, int testrun) {
  const time_t begin = layout.begins[0];
  tm parts = {};
  gmtime_r(&begin, &parts);
  char text[64];
  strftime(text, sizeof text, "%m/%d/%Y %H:%M:%S", &parts);
  return wllb_format("%d|shop_load|%s|Y|00:00:00|admin|shop under load\n", testrun, text);
}

static int make_links(const std::string &work_dir) {
  if (make_directory(work_dir + "/webapps") != 0)
    return -1;
  const std::string link = work_dir + "/webapps/logs";
  if (symlink("../logs", link.c_str()) != 0 && errno != EEXIST)
    return complain("Could not make link", link);
  return 0;
}

int sample_make_layout(const sample_layout_t &layout, const std::string &work_dir, int testrun,
                       const std::string &keywords, bool monitored) {
  const std::string &base = layout.base;
  const std::string profile = base + "/tq/conf/tqprof/default";
  if (wllb_path_exists(base.c_str())) {
    fprintf(stderr, "The test run %s exists already\n", base.c_str());
    return -1;
  }
  if (make_directory(profile) != 0 || make_directory(base + "/tq/logs") != 0 || make_links(work_dir) != 0)
    return -1;
  for (size_t p = 0; p < layout.names.size(); ++p)
    if (make_partition(layout, p) != 0)
      return -1;

  const struct {
    std::string path, bytes;
  } files[] = {{base + "/.curPartition", current_partition(layout)},
               {base + "/.vex_epoch.diff", wllb_format("%lld\n", static_cast<long long>(sample_epoch))},
               {base + "/sorted_scenario.conf",
                wllb_format("TNAME shop_load\nPROJECT acme\nENABLE_AUTO_MONITOR_REGISTRATION %d\n", monitored ? 1 : 0)},
               {base + "/summary.top", summary(layout, testrun)},
               {profile + "/TQKeywords.conf", keywords}};

  for (const auto &file : files)
    if (make_file(file.path, file.bytes) != 0)
      return -1;
  return 0;
}

int sample_open_raw_file(const sample_layout_t &layout, size_t partition, const std::string &instance_name) {
  const std::string path = layout.base + "/" + layout.names[partition] + "/tq/raw_data/" + instance_name + ".txt";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
  return fd >= 0 ? fd : complain("Could not make file", path);
}
