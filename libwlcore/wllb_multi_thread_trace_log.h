// The one trace file of the process: lines of all threads, moved along with the partitions, rolled over once.
//   In      wllb_trace(level, severity, format, ...) from every thread
//   Out     "<base_dir>/<partition>/<log_file>", and "<...>.prev" for the file before
//   Thread  any; trace_mutex covers only open, partition move and rollover. One write(2) per line keeps lines whole
//   Failure a line that cannot be written is lost, the first one in a row to standard error; so are some other failures
// Sample:  11/22/26 21:30:00|tier_server_app|line_cutter.cpp|88|tq_process_data|Error|...
#pragma once

#include "wllb_thread.h"
#include "wllb_util.h"

#include <cstdint>
#include <sys/types.h>

// One byte of the mask per level; level 1 holds errors and milestones, level 4 is the most verbose.
constexpr uint32_t wllb_trace_level_bit(int level) {
  return 0xFFU << (8 * (level - 1));
}

// The mask for a keyword level: 0, 2, 3 and 4 as told, everything else as level 1.
constexpr uint32_t wllb_trace_mask(int keyword_level) {
  return keyword_level == 0   ? 0
         : keyword_level == 2 ? 0xFFFFU
         : keyword_level == 3 ? 0xFFFFFFU
         : keyword_level == 4 ? 0xFFFFFFFFU
                              : 0xFFU;
}

struct MTTraceLogKey {
  char wl_wdir[256];                                    // working directory
  int testidx;                                          // test run number; 0 with a ready base_dir
  wllb_relaxed<uint32_t> log_level;                     // mask, see wllb_trace_mask
  wllb_relaxed<int> max_log_file_size;                  // bytes
  std::atomic<int> file_fd{-1};                         // below 1: not open, the next line opens
  char log_file[1024];                                  // path below the partition directory
  char partition_name[16] WLLB_GUARDED_BY(trace_mutex); // "" before any
  std::atomic<int64_t> partition_idx;                   // newest partition a line was written for
  int64_t cur_partition_idx;                            // kept, unused
  std::atomic<bool> print_header;                       // the next open writes the header line
  std::atomic<bool> losing_lines{false};                // the last line could not be written
  wllb_mutex trace_mutex;                               // open, close, rename
  uid_t ownerid;                                        // owner and group given to the file
  gid_t grpid;
  char base_dir[512]; // "%s/logs/TR%d"

  // The number that every file of this handle is opened on, -1 before the first. Given back only with the handle, so
  // a thread that is about to write never meets a closed or foreign descriptor.
  int kept_fd WLLB_GUARDED_BY(trace_mutex) = -1;
};

// The process's handle; null until main has opened it, and then no line is written.
extern MTTraceLogKey *trkey;

// What a thread's lines are written for. An instance thread points name and level at its record.
struct wllb_trace_context {
  const char *thread_name = nullptr;                   // null: "Main Thread"
  const wllb_relaxed<uint32_t> *debug_level = nullptr; // null: the handle's mask alone decides
};

extern thread_local wllb_trace_context wllb_trace_self;

// The newest partition the process knows; lines are written below it. 0 before any.
extern std::atomic<int64_t> wllb_trace_partition;

// Makes a handle. A null wdir takes WL_WDIR; size_mb 0 is 1 MB. Null when log_file is null and testidx is below
// 1000, or without a directory. The file is made by the first line. Given back with wllb_clean_mt_trace_log.
MTTraceLogKey *wllb_init_mt_trace_log(const char *wdir, int testidx, int64_t partition_idx, const char *log_file,
                                      int level, int size_mb);

// The same with a ready directory; testidx is 0 and the group is the primary group of the directory's owner.
MTTraceLogKey *wllb_init_mt_trace_log_ex(const char *base_dir, int64_t partition_idx, const char *log_file, int level,
                                         int size_mb);

// Sets the mask for a keyword level, and the rollover size when size_mb is above 0.
void wllb_change_atb_mt_trace_log_core(MTTraceLogKey *key, int level, int size_mb);

// Path of the file that wllb_change_atb_mt_trace_log reads; tests point it elsewhere.
extern const char *wllb_trace_level_conf_path; // "/tmp/trace_level.conf"

// Applies the first line of that file whose first word is `keyword`: level, optional size in MB.
void wllb_change_atb_mt_trace_log(MTTraceLogKey *key, const char *keyword);

// Moves the file to a partition, also to an older one; for an index of at least 1.
void wllb_tl_reset_partition_idx(MTTraceLogKey *key, int64_t partition_idx);

// Writes one line, whatever the level. A message longer than the room of 16384 bytes is cut.
void wllb_mt_trace_log(MTTraceLogKey *key, int64_t partition_idx, const char *thread_name, const char *severity,
                       const char *src_file, int line, const char *function, const char *format, ...) WLLB_PRINTF(8, 9);

// Closes the file and frees the handle.
void wllb_clean_mt_trace_log(MTTraceLogKey *key);

// True when a line of this level would be written by this thread. Ask before building anything for a message.
inline bool wllb_trace_on(int level) {
  const uint32_t bits = wllb_trace_level_bit(level);
  return trkey && (trkey->log_level & bits) != 0 &&
         (!wllb_trace_self.debug_level || (*wllb_trace_self.debug_level & bits) != 0);
}

// wllb_trace(1, "Error", "format", ...): arguments are evaluated only when the level is open.
#define wllb_trace(level, severity, ...)                                                                               \
  do {                                                                                                                 \
    if (wllb_trace_on(level))                                                                                          \
      wllb_mt_trace_log(trkey, wllb_trace_partition.load(std::memory_order_relaxed), wllb_trace_self.thread_name,      \
                        severity, __FILE__, __LINE__, __func__, __VA_ARGS__);                                          \
  } while (0)
