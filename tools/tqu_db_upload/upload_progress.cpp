// Progress; see the header.
#include "upload_progress.h"

#include "wllb_util.h"

#include <algorithm>
#include <cinttypes>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

std::string upload_with_commas(int64_t number) {
  std::string text = std::to_string(number);
  for (ptrdiff_t at = static_cast<ptrdiff_t>(text.size()) - 3; at > (number < 0 ? 1 : 0); at -= 3)
    text.insert(static_cast<size_t>(at), ",");
  return text;
}

static int64_t bytes_in(const fs::path &dir) {
  int64_t bytes = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator at(dir, error), end; !error && at != end; at.increment(error)) {
    const std::string name = at->path().filename().string();
    std::error_code ignored;
    if ((name.ends_with(".csv") || name.ends_with(".csv.prev") || name.ends_with(".dat")) &&
        at->is_regular_file(ignored))
      bytes += static_cast<int64_t>(at->file_size(ignored));
  }
  return bytes;
}

int64_t upload_bytes_there(const std::string &base) {
  int64_t bytes = bytes_in(base + "/tq/csv");
  std::error_code error;
  for (fs::directory_iterator at(base, error), end; !error && at != end; at.increment(error))
    if (wllb_is_numeric(at->path().filename().string()))
      bytes += bytes_in(at->path() / "tq/csv") + bytes_in(at->path() / "tq/dat");
  return bytes;
}

upload_progress::upload_progress(int64_t bytes_there)
    : begun_(std::chrono::steady_clock::now()), shown_(begun_), bytes_there_(std::max<int64_t>(bytes_there, 1)),
      terminal_(isatty(STDERR_FILENO) == 1) {}

double upload_progress::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun_).count();
}

void upload_progress::show(const tqdb::load_totals &totals) {
  const auto now = std::chrono::steady_clock::now();
  if (now - shown_ < std::chrono::milliseconds(terminal_ ? 200 : 5000))
    return;
  shown_ = now;
  const double share = std::min(1.0, static_cast<double>(totals.bytes) / static_cast<double>(bytes_there_));
  const double passed = seconds();
  const auto left = static_cast<int64_t>(share > 0 ? passed / share - passed : 0);
  fprintf(stderr, "%s%3.0f %%  %s rows  %.1f MB/s  %" PRId64 ":%02" PRId64 " left%s", terminal_ ? "\r" : "",
          share * 100, upload_with_commas(totals.rows).c_str(), static_cast<double>(totals.bytes) / 1e6 / passed,
          left / 60, left % 60, terminal_ ? "\x1b[K" : "\n");
}

void upload_progress::clear() const {
  if (terminal_)
    fputs("\r\x1b[K", stderr);
}
