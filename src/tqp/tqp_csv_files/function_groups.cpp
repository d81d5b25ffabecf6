// Takes over the function groups that somebody may have left for this process: "name,package" lines in a file.
//   In      outside_paths.function_group_file; anybody may write there, so it is opened only if it is a plain file
//   Out     "%s/logs/TR%d/tq/csv/TQFunctionalGroup.csv": one line a package, in descending byte order; the file is gone
//   Thread  main, once at start
//   Failure told in the trace; the start goes on
// Sample:  Payment,com.acme.pay

#include "tqp_csv_files.h"

#include "wllb_output_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

constexpr const char *fgp_csv_filename = "TQFunctionalGroup.csv";
constexpr size_t max_group_file_bytes = 64U << 20U;
constexpr size_t max_group_line = 1023; // bytes; what is longer goes on as a line of its own
constexpr int group_buckets = 2048;

// One function group while duplicates are removed.
struct fngrp_t {
  std::string fgname;
  std::string fgpkg; // with its line end
};

// Takes the next line off `rest`: up to a newline, or as much as a line may hold, and no further than a NUL.
static std::string_view next_line(std::string_view &rest) {
  const size_t newline = rest.find('\n');
  const size_t taken = std::min({newline == rest.npos ? rest.size() : newline + 1, max_group_line});
  const std::string_view line = rest.substr(0, taken);
  rest.remove_prefix(taken);
  return line.substr(0, line.find('\0'));
}

static void keep_group(NormObjKey &packages, std::vector<fngrp_t> &groups, std::string_view line) {
  const size_t comma = line.find(',');
  if (comma == line.npos)
    return;
  const std::string package(line.substr(comma + 1));
  int is_new = 0;
  const int id = wllb_get_or_gen_norm_id(&packages, package.c_str(), static_cast<int>(package.size()), &is_new);
  if (id < 0)
    return;
  if (is_new)
    groups.push_back({.fgname = "", .fgpkg = package}); // ids count up from 0, so the entry stands at its id
  groups[static_cast<size_t>(id)].fgname = line.substr(0, comma);
}

std::string remove_duplicate_fn_grps(const char *path) {
  const std::string text = wllb_read_small_file(path, max_group_file_bytes);
  NormObjKey packages = {};
  wllb_init_norm_id_table(&packages, group_buckets);
  std::vector<fngrp_t> groups;
  for (std::string_view rest = text; !rest.empty();)
    keep_group(packages, groups, next_line(rest));
  wllb_obj_hash_destroy(&packages);
  std::string kept;
  for (const fngrp_t &group : groups)
    kept.append(group.fgname).append(",").append(group.fgpkg);
  return kept;
}

static bool overwrite_plain_file(const char *path, std::string_view text) {
  const wllb_fd file(wllb_open_output(path, O_WRONLY | O_TRUNC));
  return file.fd >= 0 && wllb_write_all(file.fd, text);
}

// The distinct lines of `text` that are not empty, largest first, each with a newline.
static std::string sorted_lines(std::string_view text) {
  std::set<std::string_view, std::greater<>> lines;
  while (!text.empty()) {
    const std::string_view line = wllb_take_piece(&text, '\n');
    if (!line.empty())
      lines.insert(line);
  }
  std::string sorted;
  for (const std::string_view line : lines)
    sorted.append(line).append("\n");
  return sorted;
}

void create_fn_grp_table() {
  const std::string csv = wllb_format("%s/logs/TR%d/tq/csv/%s", wl_wdir, testidx, fgp_csv_filename);
  tqp_make_data_file_as(csv.c_str(), "w", false);
  const char *given = outside_paths.function_group_file.c_str();
  struct stat found = {};
  if (lstat(given, &found) != 0)
    return;
  const std::string groups = S_ISREG(found.st_mode) ? remove_duplicate_fn_grps(given) : "";
  if (groups.empty() || !overwrite_plain_file(given, groups + "\n"))
    wllb_trace(1, "Error", "Could not remove duplicate function groups of file '%s'", given);
  if (!tqp_write_data_file(csv.c_str(), sorted_lines(groups)))
    wllb_trace(1, "Error", "ERROR executing command: %s",
               wllb_format("cat %s |sort -ur |sed '/^$/d' > %s; ", given, csv.c_str()).c_str());
  if (unlink(given) != 0 && errno != ENOENT)
    wllb_trace(1, "Error", "ERROR executing command: %s", wllb_format("rm -f %s", given).c_str());
}
