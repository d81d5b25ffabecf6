// The loader; see the header.
#include "tqdb_load.h"

#include "wllb_util.h"

#include <algorithm>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqdb {

// Rows go to the driver in portions of about so many bytes, so that the loader stays small.
static constexpr size_t most_rows_weight = 2 << 20;
static constexpr size_t most_unit_weight = 24 << 20; // with the sums, which wait for the unit's end

loader::loader(const tqread::test_run &run, const load_options &options, load_driver *driver,
               std::function<bool()> told_to_stop)
    : run_(run), options_(options), driver_(driver), told_to_stop_(std::move(told_to_stop)) {}

// --- opening ----------------------------------------------------------------------------------------------------

open_result loader::open() {
  load_state state;
  const open_result opened = driver_->open(options_.scope, &state);
  if (opened != TQDB_READY)
    return opened;
  mapper_ = std::make_unique<row_mapper>(run_, options_.with_blobs);
  changed_.clear();
  spans_.clear();
  unit_ = {};
  scope_rows_put_ = false;
  failure_ = TQDB_TAKEN;
  unit_limit_ = driver_->unit_bytes(options_.bulk);
  positions_ = std::move(state.positions);
  files_ = 0;
  for (const auto &[path, p] : positions_)
    files_ = std::max(files_, p.file);
  if (!settle(driver_->begin_loading(options_.bulk)) || !redo(state.unfinished))
    return failure_ == TQDB_AWAY ? TQDB_NOT_THERE : TQDB_REFUSED;
  tqread::file_positions reached;
  for (const auto &[path, p] : positions_)
    reached[path] = {p.taken, p.inode};
  follower_ = std::make_unique<tqread::follower>(run_.base, this, std::move(reached), told_to_stop_);
  return TQDB_READY;
}

bool loader::settle(take_result result) {
  if (result != TQDB_TAKEN && failure_ != TQDB_BROKEN)
    failure_ = result;
  return result == TQDB_TAKEN;
}

// --- units ------------------------------------------------------------------------------------------------------

// Gives the driver the rows so far.
bool loader::hand_over() {
  for (row_batch &rows : mapper_->batches) {
    if (rows.rows() > 0 && !settle(driver_->add(rows)))
      return false;
    rows.clear();
  }
  return true;
}

bool loader::end_unit() {
  if (changed_.empty())
    return true;
  const auto first = std::find_if(changed_.begin(), changed_.end(), [](const auto &c) { return c.second.taken >= 0; });
  if (first != changed_.end())
    mapper_->move_sums(first->second.file, first->second.taken);
  if ((driver_->announces() && !settle(driver_->announce(spans_))) || !hand_over() ||
      !settle(driver_->commit(changed_)))
    return false;
  changed_.clear();
  spans_.clear();
  for (const auto number : {&load_totals::rows, &load_totals::rejected, &load_totals::mended, &load_totals::bytes})
    totals_.*number += unit_.*number;
  unit_ = {};
  if (on_commit)
    on_commit();
  return true;
}

load_position *loader::position_of(const std::string &path) {
  load_position &p = positions_[path];
  if (p.file == 0)
    p.file = ++files_;
  return &p;
}

bool loader::put_scope_rows() {
  if (scope_rows_put_)
    return true;
  const std::vector<std::string> partitions = tqread::partitions(run_);
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  mapper_->put_node(host, run_.base);
  mapper_->put_testrun(partitions.empty() ? 0 : strtoll(partitions.front().c_str(), nullptr, 10));
  scope_rows_put_ = true;
  return true;
}

// A file got another's name: its position goes along.
static void move_position(load_positions *positions, load_positions *changed, const std::string &to, uint64_t inode) {
  const auto from = std::find_if(positions->begin(), positions->end(),
                                 [&](const auto &entry) { return entry.second.inode == inode && entry.first != to; });
  if (from == positions->end())
    return;
  const load_position moved = from->second;
  (*changed)[from->first] = moved;
  (*changed)[from->first].taken = -1;
  positions->erase(from);
  (*positions)[to] = moved;
  (*changed)[to] = moved;
}

bool loader::take(const tqread::file_piece &piece, std::string_view rows) {
  put_scope_rows();
  if (piece.from == piece.to) {
    move_position(&positions_, &changed_, piece.path, piece.inode);
    return end_unit();
  }
  load_position *p = position_of(piece.path);
  const mapped_counts counts = mapper_->take(
      {piece.path, tqread::instance_of_path(piece.path), piece.partition, p->file, piece.from, p->rows}, rows);
  p->inode = piece.inode;
  p->taken = piece.to;
  p->rows += counts.rows;
  p->rejected += counts.rejected;
  p->mended += counts.mended;
  changed_[piece.path] = *p;
  if (!spans_.empty() && spans_.back().path == piece.path && spans_.back().to == piece.from)
    spans_.back().to = piece.to;
  else
    spans_.push_back({piece.path, piece.from, piece.to});
  unit_.bytes += piece.to - piece.from;
  unit_.rows += counts.rows;
  unit_.rejected += counts.rejected;
  unit_.mended += counts.mended;
  const size_t weight = mapper_->weight();
  if (unit_.bytes >= unit_limit_ || weight >= most_unit_weight)
    return end_unit();
  return weight < most_rows_weight || driver_->announces() || hand_over();
}

// --- units that were not brought in to their end --------------------------------------------------------------------

bool loader::take_span(const load_span &span) {
  struct stat facts = {};
  const wllb_fd file(wllb_open_plain(tqread::full_path(run_, span.path).c_str(), O_RDONLY | O_NOFOLLOW, &facts));
  std::string rows(static_cast<size_t>(std::max<int64_t>(span.to - span.from, 0)), '\0');
  const int64_t length = static_cast<int64_t>(rows.size());
  if (file.fd < 0 || wllb_read_at(file.fd, rows.data(), length, span.from) != length)
    return true; // the file is gone, and what was noted of it with it
  const int64_t partition = span.path.starts_with("tq/") ? 0 : strtoll(span.path.c_str(), nullptr, 10);
  return take({partition, span.path, facts.st_ino, span.from, span.to, 0}, rows);
}

bool loader::redo(const std::vector<load_span> &spans) {
  const int64_t limit = unit_limit_;
  unit_limit_ = INT64_MAX; // one unit, whatever its size
  for (const load_span &span : spans)
    if (span.from < span.to && !take_span(span))
      return false;
  unit_limit_ = limit;
  return end_unit();
}

// --- passes -----------------------------------------------------------------------------------------------------

// The topology file is replaced as a whole: another inode or size is another file.
bool loader::take_topology() {
  static const std::string path = "topology/tqIntegrationPoint.conf";
  struct stat facts = {};
  const std::string full = tqread::full_path(run_, path);
  const wllb_fd file(wllb_open_plain(full.c_str(), O_RDONLY, &facts));
  const auto known = positions_.find(path);
  if (file.fd < 0 ||
      (known != positions_.end() && known->second.inode == facts.st_ino && known->second.taken == facts.st_size))
    return true;
  put_scope_rows();
  load_position *p = position_of(path);
  const mapped_counts counts = mapper_->take_topology({path, "", 0, p->file, 0, 0}, full);
  p->inode = facts.st_ino;
  p->taken = facts.st_size;
  p->rows = counts.rows;
  p->rejected = counts.rejected;
  changed_[path] = *p;
  return true;
}

load_result loader::pass() {
  const int64_t before = totals_.bytes;
  const bool good = take_topology() && follower_->pass() != tqread::pass_result::sink_failed && end_unit() &&
                    settle(driver_->settle());
  if (!good)
    return failure_ == TQDB_BROKEN ? load_result::broken : load_result::away;
  return totals_.bytes == before ? load_result::nothing_new : load_result::took_some;
}

load_result loader::finish() {
  const bool ended = end_unit() && settle(driver_->settle());
  mapper_ = std::make_unique<row_mapper>(run_, options_.with_blobs);
  malloc_trim(0); // making indexes wants the memory that the rows had
  if (ended && settle(driver_->finish()))
    return load_result::nothing_new;
  return failure_ == TQDB_BROKEN ? load_result::broken : load_result::away;
}

} // namespace tqdb
