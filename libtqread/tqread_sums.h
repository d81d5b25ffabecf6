// Sums over what a question finds: by transaction, method, query, backend and exception.
//   In      a test run and a filter
//   Out     one group for each name, in no order
//   Thread  one
//   Failure bad rows are reported and passed over
// Memory grows with the number of names, not with the number of rows; but methods, queries and exceptions of a question that
// asks something of flowpaths also take 8 bytes for each flowpath found.
#pragma once

#include "tqread_filter.h"

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

namespace tqread {

// Durations of which shares are asked for: exact up to 1000 of them, then within 1 %.
struct duration_shares {
  void add(int64_t ms);           // below 0 counts as 0
  int64_t at(double share) const; // 0.95: the least duration that 95 % do not exceed; 0 without any

private:
  static size_t bucket_of(uint64_t ms);
  static uint64_t end_of_bucket(size_t bucket);
  std::vector<int64_t> exact_;
  std::vector<uint32_t> buckets_;
  int64_t count_ = 0;
};

struct transaction_sums {
  int64_t count = 0, errors = 0; // flowpaths; those with an error in them, or with a status of 400 and above
  int64_t total_ms = 0, slowest_ms = 0, slowest_fpi = 0;
  int64_t cpu_ms = 0, callouts = 0;
  duration_shares durations;
};

struct method_sums {
  int64_t calls = 0, self_ms = 0, wall_ms = 0, cpu_ms = 0, self_cpu_ms = 0;
  int64_t longest_self_ms = 0;
  int64_t wait_ms = 0, sync_ms = 0, io_ms = 0, suspension_ms = 0;
};

struct query_sums {
  int64_t executions = 0, failed = 0;
  double total_ms = 0, shortest_ms = 0, longest_ms = 0;
};

struct backend_sums { // of all callouts, groups and cache calls included with their numbers
  int64_t type = 0;   // of the first callout that has one
  int64_t calls = 0, errors = 0;
  double total_ms = 0, longest_ms = 0;
  int64_t flowpaths = 0; // that called it
};

struct exception_key {
  int64_t class_id, throwing_class_id, throwing_method_id;
  bool operator==(const exception_key &) const = default;
};

struct exception_key_hash {
  size_t operator()(const exception_key &key) const {
    return static_cast<size_t>(key.class_id * 1000003 ^ key.throwing_class_id * 10007 ^ key.throwing_method_id);
  }
};

struct exception_sums {
  int64_t count = 0, first_utc_ms = INT64_MAX, last_utc_ms = INT64_MIN;
  int64_t message_id = 0, stack_id = 0, fpi = 0; // of the last one
};

using fault_function = std::function<void(const error &)>;

// Sums by norm id. Each reads what it needs and no more: methods read the binary rows where there are any.
std::unordered_map<int64_t, transaction_sums> sum_transactions(flowpath_reader *reader, filter *which,
                                                               const fault_function &fault);
std::unordered_map<int64_t, method_sums> sum_methods(flowpath_reader *reader, filter *which,
                                                     const fault_function &fault);
std::unordered_map<int64_t, query_sums> sum_queries(flowpath_reader *reader, filter *which,
                                                    const fault_function &fault);
std::unordered_map<int64_t, backend_sums> sum_backends(flowpath_reader *reader, filter *which,
                                                       const fault_function &fault);
std::unordered_map<exception_key, exception_sums, exception_key_hash>
sum_exceptions(flowpath_reader *reader, filter *which, const fault_function &fault);

} // namespace tqread
