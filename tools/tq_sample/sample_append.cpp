// Appending at a rate, a hundred times a second, in cuts of any size.
//   In      streams, rate, duration
//   Out     the files grow; records may stand there half written for a while
//   Thread  one; the signal handler stores one flag
//   Failure -1
#include "sample_append.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>

#include "sample_layout.h"

static std::atomic<bool> stop_asked = false;

static void ask_for_stop(int) {
  stop_asked.store(true, std::memory_order_relaxed);
}

void sample_install_stop_handler() {
  struct sigaction action = {};
  action.sa_handler = ask_for_stop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

bool sample_stop_asked() {
  return stop_asked.load(std::memory_order_relaxed);
}

int sample_write_out(const sample_raw_file &file, size_t length) {
  std::string &out = file.stream->out;
  length = std::min(length, out.size());
  if (sample_write(file.fd, {out.data(), length}) != 0)
    return -1;
  file.stream->written += static_cast<int64_t>(length);
  out.erase(0, length);
  return 0;
}

static void sleep_until(int64_t ns) {
  const timespec when = {ns / 1'000'000'000, ns % 1'000'000'000};
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
}

// Spends one tick's bytes on files and cuts drawn by chance.
static int append_bytes(std::vector<sample_raw_file> &files, sample_random &random, int64_t bytes) {
  const int64_t longest = std::max<int64_t>(64, bytes / static_cast<int64_t>(files.size()));
  while (bytes > 0) {
    const sample_raw_file &file = random.one_of(files);
    const int64_t limit = std::min({bytes, longest, int64_t{1} << 20});
    const int64_t cut = 1 + random.below(static_cast<uint32_t>(limit));
    while (static_cast<int64_t>(file.stream->out.size()) < cut)
      if (!sample_next_record(*file.stream))
        return -1;
    if (sample_write_out(file, static_cast<size_t>(cut)) != 0)
      return -1;
    bytes -= cut;
  }
  return 0;
}

// All whole lines that were made go out, and with `wind_up` the rest of what is in flight.
static int finish_lines(std::vector<sample_raw_file> &files, bool wind_up) {
  for (const sample_raw_file &file : files)
    file.stream->begin_limit = 0;
  bool more = wind_up;
  while (more) {
    more = false;
    for (const sample_raw_file &file : files)
      more = sample_next_record(*file.stream) || more;
  }
  for (const sample_raw_file &file : files)
    if (sample_write_out(file, file.stream->out.size()) != 0)
      return -1;
  return 0;
}

int sample_append(std::vector<sample_raw_file> &files, uint64_t seed, int64_t rate, int64_t seconds, bool wind_up,
                  const sample_beside *beside) {
  constexpr int64_t tick_ns = 1'000'000'000 / sample_ticks_per_second;
  sample_random random = {seed ^ 0x5eed5eedU};
  const int64_t begin_ns = sample_now_ns();
  sample_install_stop_handler();
  for (int64_t tick = 0; tick < seconds * sample_ticks_per_second && !sample_stop_asked(); ++tick) {
    if (beside && beside->before_tick(tick) != 0)
      return -1;
    for (const sample_raw_file &file : files)
      file.stream->now_ms += 1000 / sample_ticks_per_second;
    // The tick's share is the difference of two running totals, so that no rounding adds up.
    const int64_t bytes = rate * (tick + 1) / sample_ticks_per_second - rate * tick / sample_ticks_per_second;
    if (append_bytes(files, random, bytes) != 0)
      return -1;
    const int64_t until_ns = begin_ns + (tick + 1) * tick_ns;
    if (beside)
      beside->wait(until_ns);
    else
      sleep_until(until_ns);
  }
  return finish_lines(files, wind_up);
}
