// One copy of an instance's recovery files in each partition it enters, for a later run over that partition.
//   In      "%s/logs/TR%d/tq/recovery/<instance>/tqp/.*"
//   Out     "%s/logs/TR%d/<partition>/tq/csv/<instance>/recovery/": the same names
//   Thread  the instance's, in the middle of a partition switch
//   Failure a copy that fails is traced and ".TQMetaData.recovery" made empty; the switch goes on

#include "data_files.h"
#include "file_holes.h"
#include "tqp_recovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

// A map with one huge id is mostly a hole, and so is its copy.
static bool copy_data(int from, int to, int64_t len) {
  std::vector<char> block(size_t{64} << 10U);
  const bool copied = tqp_for_each_data(from, len, [&](int64_t begin, int64_t end) {
    for (int64_t at = begin; at < end;) {
      const int64_t piece = std::min(end - at, static_cast<int64_t>(block.size()));
      if (wllb_read_at(from, block.data(), piece, at) < piece || !wllb_write_at(to, block.data(), piece, at))
        return false;
      at += piece;
    }
    return true;
  });
  return copied && ftruncate(to, len) == 0;
}

static bool copy_file(const std::string &from, const std::string &to) {
  struct stat found;
  const wllb_fd source(wllb_open_plain(from.c_str(), O_RDONLY | O_NOFOLLOW, &found));
  if (source.fd < 0)
    return errno == ELOOP || errno == EINVAL; // a link or anything but a plain file is nobody's recovery file
  const wllb_file target(my_fopen(to.c_str(), "w"));
  return target && copy_data(source.fd, fileno(target.get()), found.st_size);
}

// A dot and at least one more byte that is no dot: never the directory itself or its parent.
static bool is_dot_file(const char *name) {
  return name[0] == '.' && name[1] != 0 && name[1] != '.';
}

// False when a file could not be copied, or there was none.
static bool copy_dot_files(const std::string &from, const std::string &to) {
  DIR *dir = opendir(from.c_str());
  if (!dir)
    return false;
  int seen = 0;
  bool copied = true;
  while (const dirent *entry = readdir(dir)) { // NOLINT(concurrency-mt-unsafe): the stream is this call's own
    if (!is_dot_file(entry->d_name))
      continue;
    ++seen;
    copied = copy_file(from + entry->d_name, to + entry->d_name) && copied;
  }
  closedir(dir);
  return copied && seen > 0;
}

void tqp_copy_local2norm_at_partition_switch(tqp_instance_t *inst) {
  const char *name = inst->tier_server_app_name;
  const std::string from = wllb_format("%s/logs/TR%d/tq/recovery/%s/tqp/", wl_wdir, testidx, name);
  const std::string to = wllb_format("%s/logs/TR%d/%lld/tq/csv/%s/recovery/", wl_wdir, testidx,
                                     static_cast<long long>(inst->partition_idx), name);
  mkdir_ex(to.c_str());
  tqp_own_directory(to.c_str());
  if (copy_dot_files(from, to))
    return;
  wllb_trace(1, "Error", "Unable to copy local2norm file at path %s", to.c_str());
  // So that the directory is not empty.
  tqp_make_data_file_as((to + loc2norm_rows[LOC2NORM_METHOD].file_name).c_str(), "w+", false);
}
