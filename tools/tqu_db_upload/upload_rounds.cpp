// Passes over a test run's files; see the header.
//   In      ".curPartition", ".partition_info.txt", the lists of upload_files, the positions reached before
//   Out     pieces for the driver, names before the rows that use them
//   Thread  one
//   Failure a driver that fails ends the pass; a file that is gone is passed over
// Rows are listed with their sizes first and the files of names after them: a name is written before its first row, so
// what was listed has all its names in the common files, and these are taken first.
#include "upload_rounds.h"

#include "wllb_partition.h"
#include "wllb_util.h"

#include <algorithm>
#include <sys/stat.h>

// --- partitions ---------------------------------------------------------------------------------------------

// Walks back from the newest partition to those that are known already.
static void add_new_partitions(upload_rounds *r) {
  const int64_t known = r->partitions.empty() ? 0 : r->partitions.back().number;
  const size_t count = r->partitions.size();
  int64_t number = wllb_get_cur_partition(r->options.run_dir.c_str());
  while (number > known) {
    r->partitions.push_back({number, false, 0, {}});
    if (wllb_get_prev_partition(r->options.run_dir.c_str(), std::to_string(number).c_str(), &number) != 0)
      break;
  }
  std::reverse(r->partitions.begin() + static_cast<ptrdiff_t>(count), r->partitions.end());
}

// Reads what is new in the partition's done file. False: it is not done.
static bool read_done_file(const upload_rounds &r, upload_partition *partition) {
  const upload_reader done(r.options.run_dir, upload_done_path(partition->number));
  if (done.inode == 0)
    return false;
  for (std::string text; !(text = done.rows(partition->done_read, done.size)).empty();) {
    partition->done_read += static_cast<int64_t>(text.size());
    for (std::string_view rest = text; !rest.empty();)
      upload_late_paths(partition->number, wllb_take_piece(&rest, '\n'), &partition->late);
  }
  return true;
}

// --- files --------------------------------------------------------------------------------------------------

static bool has_inode(const std::string &path, uint64_t inode) {
  struct stat facts = {};
  return stat(path.c_str(), &facts) == 0 && facts.st_ino == inode;
}

// The position of a file that got another's name goes along; the driver keeps it under the new name.
static bool move_position(upload_rounds *r, int64_t partition, const std::string &from, const std::string &to) {
  const upload_position moved = r->positions[from];
  r->positions[to] = moved;
  r->positions[from] = {};
  return r->driver->take({partition, to, moved.inode, moved.taken, moved.taken, 0}, {});
}

// Finds where to go on in an opened file. A full file of names is renamed to "<name>.prev", and begun anew.
static bool find_position(upload_rounds *r, const upload_file &file, const upload_reader &reader) {
  upload_position &position = r->positions[file.path];
  const bool is_prev = file.path.ends_with(".prev");
  if (position.inode != reader.inode && is_prev) {
    const std::string before = file.path.substr(0, file.path.size() - 5);
    position = {};
    if (r->positions[before].inode == reader.inode && !move_position(r, file.partition, before, file.path))
      return false;
  } else if (position.inode != reader.inode && position.inode != 0 &&
             has_inode(r->options.run_dir + "/" + file.path + ".prev", position.inode)) {
    if (!move_position(r, file.partition, file.path, file.path + ".prev"))
      return false;
  }
  if (position.taken > reader.size)
    position.taken = 0; // emptied and begun anew
  position.inode = reader.inode;
  return true;
}

static upload_passed take_file(upload_rounds *r, const upload_file &file) {
  const upload_reader reader(r->options.run_dir, file.path);
  if (reader.inode == 0)
    return UPLOAD_NOTHING_NEW;
  if (!find_position(r, file, reader))
    return UPLOAD_DRIVER_FAILED;
  upload_position &position = r->positions[file.path];
  upload_passed passed = UPLOAD_NOTHING_NEW;
  while (!r->told_to_stop()) {
    const std::string rows = reader.rows(position.taken, file.size);
    if (rows.empty())
      break;
    const int64_t to = position.taken + static_cast<int64_t>(rows.size());
    if (!r->driver->take({file.partition, file.path, reader.inode, position.taken, to, reader.count(rows)}, rows))
      return UPLOAD_DRIVER_FAILED;
    position.taken = to;
    passed = UPLOAD_TOOK_SOME;
  }
  return passed;
}

// --- a pass -------------------------------------------------------------------------------------------------

// Lists what a pass looks at. Partitions that were done before it began go to *done.
static std::vector<upload_file> list_files(upload_rounds *r, std::set<int64_t> *done) {
  std::vector<upload_file> rows, files;
  for (upload_partition &partition : r->partitions) {
    if (read_done_file(*r, &partition))
      done->insert(partition.number);
    if (partition.finished)
      upload_list_named(r->options.run_dir, partition.number, partition.late, &rows);
    else
      upload_list_partition(r->options.run_dir, partition.number, &rows);
  }
  upload_list_common(r->options.run_dir, &files);
  files.insert(files.end(), rows.begin(), rows.end());
  return files;
}

upload_passed upload_pass(upload_rounds *r) {
  add_new_partitions(r);
  std::set<int64_t> ended; // done, and nothing new in this pass
  upload_passed passed = UPLOAD_NOTHING_NEW;
  for (const upload_file &file : list_files(r, &ended)) {
    const upload_passed one = take_file(r, file);
    if (one == UPLOAD_DRIVER_FAILED)
      return one;
    if (one == UPLOAD_TOOK_SOME) {
      passed = one;
      ended.erase(file.partition);
    }
  }
  for (upload_partition &partition : r->partitions)
    partition.finished = partition.finished || (ended.contains(partition.number) && !r->told_to_stop());
  return passed;
}
