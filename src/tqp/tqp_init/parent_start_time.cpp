// When the parent started, for a run that was not told.
//   In      the third field of the test run's "summary.top", cut at "|": a date as people write it
//   Out     g_wl_time_stamp_ms
//   Thread  main, at start
//   Failure a line on standard output, the value stays
// Sample:  1234|https_test|11/22/26 21:30:00|00:10:00|...

#include "parent_start_time.h"

#include "tqp_main.h"

#include <cstdlib>

// Field 3 of a line; a line without a separator counts whole, a missing field is empty.
static std::string_view third_field(std::string_view line) {
  const std::vector<std::string_view> fields = wllb_split(line, '|');
  return fields.size() == 1 ? line : fields.size() == 2 ? std::string_view() : fields[2];
}

// The third fields of all lines, one a line, without the newlines at the end.
static std::string date_text(std::string_view file) {
  std::string text;
  while (!file.empty())
    text.append(third_field(wllb_take_piece(&file, '\n'))).push_back('\n');
  while (text.ends_with('\n'))
    text.pop_back();
  return text;
}

void get_wl_time_stamp_in_ms() {
  const std::string path = wllb_format("%s/logs/TR%d/summary.top", wl_wdir, testidx);
  const std::string text = date_text(wllb_read_small_file(path.c_str()));
  const wllb_run_result date = wllb_run_program({"date", "-d", text.c_str(), "+%s000"});
  char *end;
  const long long value = strtoll(date.last_line.c_str(), &end, 10);
  if (date.exit_status != 0 || end == date.last_line.c_str()) {
    printf("Fail: Error in run Command, cmd = '%s'\n",
           wllb_format("date -d \"`cut -d '|' -f 3 %s/logs/TR%d/summary.top`\" +%%s000", wl_wdir, testidx).c_str());
    return;
  }
  g_wl_time_stamp_ms = value;
}
