// Where a test run's files are, and its clock; see the header.
//   In      directories whose names anybody may have made
//   Out     names, paths, times
//   Thread  any
//   Failure an error record, or nothing in the list
#include "tqread_run.h"

#include "tqread_text.h"

#include "wllb_partition.h"
#include "wllb_util.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

namespace fs = std::filesystem;

namespace tqread {

// --- the test run -----------------------------------------------------------------------------------------------

error open_run(const std::string &work_dir, int number, test_run *run) {
  run->work_dir = work_dir;
  run->number = number;
  run->base = wllb_format("%s/logs/TR%d", work_dir.c_str(), number);
  if (!wllb_is_directory(run->base.c_str()))
    return {run->base, place_unit::whole_file, 0, "there is no test run here"};
  run->epoch_diff_s = std::clamp<int64_t>(wllb_get_cur_epoch_diff(run->base.c_str()), 0, 100'000'000'000);
  return {};
}

static bool is_good_name(const std::string &name) {
  return !name.empty() && name[0] != '.' &&
         std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c == 0x7F || c == '/'; });
}

static std::vector<std::string> directories_in(const std::string &path) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (std::string name = entry->path().filename().string(); is_good_name(name) && entry->is_directory(ignored))
      names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> partitions(const test_run &run) {
  std::vector<std::string> names = directories_in(run.base);
  std::erase_if(names, [](const std::string &name) { return !is_partition(name.c_str()); });
  return names;
}

std::vector<std::string> instances(const test_run &run, std::string_view partition) {
  return directories_in(full_path(run, std::string(partition) + "/tq/csv"));
}

// --- paths --------------------------------------------------------------------------------------------------------

std::string common_path(std::string_view file) {
  return "tq/csv/" + std::string(file);
}

std::string row_path(std::string_view partition, std::string_view instance, std::string_view file) {
  return std::string(partition).append("/tq/csv/").append(instance).append("/").append(file);
}

std::string timing_path(std::string_view partition, std::string_view instance) {
  return std::string(partition).append("/tq/dat/").append(instance).append("_MethodTiming.dat");
}

std::string full_path(const test_run &run, std::string_view below) {
  return run.base + "/" + std::string(below);
}

// --- times --------------------------------------------------------------------------------------------------------

int64_t utc_ms_of_ms(int64_t epoch_diff_s, int64_t test_ms) {
  int64_t ms = 0;
  return __builtin_add_overflow(test_ms, epoch_diff_s * 1000, &ms) ? INT64_MAX : ms;
}

int64_t utc_ms_of_s(int64_t epoch_diff_s, int64_t test_s) {
  int64_t ms = 0;
  if (__builtin_mul_overflow(test_s, int64_t{1000}, &ms))
    return test_s < 0 ? INT64_MIN : INT64_MAX;
  return utc_ms_of_ms(epoch_diff_s, ms);
}

std::string utc_text(int64_t utc_ms, bool with_ms) {
  constexpr int64_t first = -62167219200000, last = 253402300799999; // years 0 to 9999
  if (utc_ms < first || utc_ms > last)
    return std::to_string(utc_ms);
  const int64_t ms = (utc_ms % 1000 + 1000) % 1000;
  const time_t s = (utc_ms - ms) / 1000;
  tm parts = {};
  gmtime_r(&s, &parts);
  char text[64];
  std::string shown(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
  return with_ms ? shown + wllb_format(".%03d", static_cast<int>(ms)) : shown;
}

// Takes `digits` decimal digits off the front.
static bool take_digits(std::string_view *text, size_t digits, int *value) {
  if (text->size() < digits || !wllb_is_numeric(text->substr(0, digits)))
    return false;
  *value = static_cast<int>(number_or(text->substr(0, digits), 0));
  text->remove_prefix(digits);
  return true;
}

// Takes one of these characters off the front.
static bool take_one_of(std::string_view *text, std::string_view characters) {
  if (text->empty() || characters.find(text->front()) == characters.npos)
    return false;
  text->remove_prefix(1);
  return true;
}

// A date that is in the calendar: what the C library makes of it comes back the same.
static bool is_in_calendar(tm given, int64_t *s) {
  tm same = given;
  *s = timegm(&same);
  return same.tm_mday == given.tm_mday && same.tm_mon == given.tm_mon && same.tm_hour == given.tm_hour &&
         same.tm_min == given.tm_min && same.tm_sec == given.tm_sec;
}

bool read_utc_text(std::string_view text, int64_t *utc_ms) {
  tm parts = {};
  int year = 0, month = 0, ms = 0;
  int64_t s = 0;
  if (text.starts_with('@')) {
    if (!read_number(text.substr(1), &s) || __builtin_mul_overflow(s, int64_t{1000}, utc_ms))
      return false;
    return true;
  }
  if (text.size() == 14 && wllb_is_numeric(text)) {
    take_digits(&text, 4, &year), take_digits(&text, 2, &month), take_digits(&text, 2, &parts.tm_mday);
    take_digits(&text, 2, &parts.tm_hour), take_digits(&text, 2, &parts.tm_min), take_digits(&text, 2, &parts.tm_sec);
  } else {
    if (!take_digits(&text, 4, &year) || !take_one_of(&text, "-") || !take_digits(&text, 2, &month) ||
        !take_one_of(&text, "-") || !take_digits(&text, 2, &parts.tm_mday))
      return false;
    if (take_one_of(&text, " T") &&
        (!take_digits(&text, 2, &parts.tm_hour) || !take_one_of(&text, ":") || !take_digits(&text, 2, &parts.tm_min)))
      return false;
    if (take_one_of(&text, ":") && !take_digits(&text, 2, &parts.tm_sec))
      return false;
    if (take_one_of(&text, ".") && !take_digits(&text, 3, &ms))
      return false;
    take_one_of(&text, "Z");
  }
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  if (!text.empty() || !is_in_calendar(parts, &s))
    return false;
  *utc_ms = s * 1000 + ms;
  return true;
}

} // namespace tqread
