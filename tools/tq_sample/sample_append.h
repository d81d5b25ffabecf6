// Plays the collector: appends what the agents send, at a rate, in cuts that know nothing of lines.
//   In      streams with their open raw data files
//   Out     bytes in the files, by write(2)
//   Thread  one; SIGTERM and SIGINT end it early, at whole lines
//   Failure -1 with a line on standard error
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "sample_stream.h"

struct sample_raw_file {
  int fd;
  sample_stream_t *stream;
};

// Writes at most `length` bytes of stream.out and takes them out of it. 0 or -1.
int sample_write_out(const sample_raw_file &file, size_t length);

constexpr int64_t sample_ticks_per_second = 100;

// What else happens in a live run.
struct sample_beside {
  std::function<int(int64_t tick)> before_tick; // may change the list of files; 0 or -1
  std::function<void(int64_t until_ns)> wait;   // until the monotonic clock shows until_ns, or a signal comes
};

// Appends to all files together `rate` bytes a second for `seconds`. When `wind_up`, every flowpath in flight is then
// brought to its end at once. The files end with whole lines. Without `beside` it sleeps between ticks. 0 or -1.
int sample_append(std::vector<sample_raw_file> &files, uint64_t seed, int64_t rate, int64_t seconds, bool wind_up,
                  const sample_beside *beside = nullptr);

// From now on SIGTERM and SIGINT end the appending; sample_append does this by itself.
void sample_install_stop_handler();
bool sample_stop_asked();
