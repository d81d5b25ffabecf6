// Adds up what a question finds; see the header.
//   In      rows; for backends the callout texts of each flowpath
//   Out     sums by id
//   Thread  one
//   Failure bad rows are reported and passed over
#include "tqread_sums.h"

#include "tqread_text.h"

#include <algorithm>
#include <bit>

namespace tqread {

// --- shares ---------------------------------------------------------------------------------------------------------

constexpr unsigned step_bits = 7; // steps of a doubling: 128, each below 1 %

size_t duration_shares::bucket_of(uint64_t ms) {
  if (ms < 1U << (step_bits + 1))
    return ms;
  const auto shift = static_cast<unsigned>(std::bit_width(ms)) - step_bits - 1;
  return (static_cast<size_t>(shift) << step_bits) + (ms >> shift);
}

uint64_t duration_shares::end_of_bucket(size_t bucket) {
  if (bucket < 1U << (step_bits + 1))
    return bucket;
  const size_t shift = (bucket >> step_bits) - 1;
  return ((bucket - (shift << step_bits)) << shift) + (uint64_t{1} << shift) - 1;
}

void duration_shares::add(int64_t ms) {
  constexpr size_t most_exact = 1000;
  ms = std::max<int64_t>(0, ms);
  ++count_;
  if (buckets_.empty() && exact_.size() < most_exact)
    return exact_.push_back(ms);
  const auto put = [this](int64_t value) {
    const size_t bucket = bucket_of(static_cast<uint64_t>(value));
    if (bucket >= buckets_.size())
      buckets_.resize(bucket + 1);
    ++buckets_[bucket];
  };
  std::for_each(exact_.begin(), exact_.end(), put);
  exact_.clear();
  put(ms);
}

int64_t duration_shares::at(double share) const {
  if (count_ == 0)
    return 0;
  const auto rank =
      std::clamp<int64_t>(static_cast<int64_t>(share * static_cast<double>(count_) + 0.999999), 1, count_);
  if (buckets_.empty()) {
    std::vector<int64_t> sorted = exact_;
    std::nth_element(sorted.begin(), sorted.begin() + (rank - 1), sorted.end());
    return sorted[static_cast<size_t>(rank - 1)];
  }
  int64_t seen = 0;
  for (size_t i = 0; i < buckets_.size(); ++i)
    if ((seen += buckets_[i]) >= rank)
      return static_cast<int64_t>(end_of_bucket(i));
  return 0;
}

// --- flowpaths ------------------------------------------------------------------------------------------------------

std::unordered_map<int64_t, transaction_sums> sum_transactions(flowpath_reader *reader, filter *which,
                                                               const fault_function &fault) {
  std::unordered_map<int64_t, transaction_sums> sums;
  each_flowpath(reader, which, fault, [&](const found_flowpath &found) {
    transaction_sums &of = sums[found.row.url_id];
    ++of.count;
    of.errors += found.row.errors > 0 || found.row.status >= 400 ? 1 : 0;
    of.total_ms += found.row.duration_ms;
    of.cpu_ms += found.row.cpu_ms;
    of.callouts += found.row.callouts;
    of.durations.add(found.row.duration_ms);
    if (found.row.duration_ms >= of.slowest_ms) {
      of.slowest_ms = found.row.duration_ms;
      of.slowest_fpi = found.row.fpi;
    }
    return true;
  });
  return sums;
}

// The numbers of the flowpaths that a filter takes; nothing when it takes every one of the places it takes.
struct chosen_flowpaths {
  bool all = true;
  std::unordered_set<int64_t> numbers;

  bool has(int64_t fpi) const { return all || numbers.contains(fpi); }
};

static chosen_flowpaths choose(flowpath_reader *reader, filter *which, const fault_function &fault) {
  chosen_flowpaths chosen;
  chosen.all = !which->asks_of_rows();
  if (!chosen.all)
    each_flowpath(reader, which, fault, [&](const found_flowpath &found) {
      chosen.numbers.insert(found.row.fpi);
      return true;
    });
  return chosen;
}

// Calls use(record) for each good row of one table in the places that the filter takes.
template <class Record, class Use>
static void each_record(const test_run &run, const filter &which, table_id id, const fault_function &fault, Use use) {
  each_place(run, which.asked().partition, "", [&](const flowpath_place &place) {
    if (!which.takes_place(place))
      return true;
    const auto read = [&](const std::string &path) {
      for (row_file rows(run, path, table_of(id)); rows.next();)
        if (!rows.reason())
          use(rows.record.template as<Record>());
        else if (fault)
          fault(rows.fault());
    };
    read(row_path(place.partition, place.instance, table_of(id).file));
    if (id == table_id::method_timing)
      read(timing_path(place.partition, place.instance));
    return true;
  });
}

// --- rows of other files ------------------------------------------------------------------------------------------

std::unordered_map<int64_t, method_sums> sum_methods(flowpath_reader *reader, filter *which,
                                                     const fault_function &fault) {
  constexpr int64_t most_by_id = 1 << 20; // ids count up: an array is faster, the map takes what is beyond it
  const chosen_flowpaths chosen = choose(reader, which, fault);
  std::unordered_map<int64_t, method_sums> sums;
  std::vector<method_sums> by_id;
  each_record<method_timing_record>(
      reader->store().run(), *which, table_id::method_timing, fault, [&](const method_timing_record &row) {
        if (!chosen.has(row.fpi))
          return;
        const bool small = row.method_id >= 0 && row.method_id < most_by_id;
        if (small && static_cast<size_t>(row.method_id) >= by_id.size())
          by_id.resize(static_cast<size_t>(row.method_id) + 1);
        method_sums &of = small ? by_id[static_cast<size_t>(row.method_id)] : sums[row.method_id];
        const auto add = [](int64_t *sum, int64_t value) {
          *sum = static_cast<int64_t>(static_cast<uint64_t>(*sum) + static_cast<uint64_t>(value));
        };
        add(&of.calls, row.calls);
        add(&of.self_ms, row.self_ms);
        add(&of.wall_ms, row.wall_ms);
        add(&of.cpu_ms, row.cpu_ms);
        add(&of.self_cpu_ms, row.self_cpu_ms);
        add(&of.wait_ms, row.wait_ms);
        add(&of.sync_ms, row.sync_ms);
        add(&of.io_ms, row.io_ms);
        add(&of.suspension_ms, row.suspension_ms);
        of.longest_self_ms = std::max(of.longest_self_ms, row.longest_self_ms);
      });
  for (size_t id = 0; id < by_id.size(); ++id)
    if (by_id[id].calls != 0)
      sums[static_cast<int64_t>(id)] = by_id[id];
  return sums;
}

std::unordered_map<int64_t, query_sums> sum_queries(flowpath_reader *reader, filter *which,
                                                    const fault_function &fault) {
  const chosen_flowpaths chosen = choose(reader, which, fault);
  std::unordered_map<int64_t, query_sums> sums;
  each_record<sql_timing_record>(
      reader->store().run(), *which, table_id::sql_timing, fault, [&](const sql_timing_record &row) {
        if (!chosen.has(row.fpi))
          return;
        query_sums &of = sums[row.query_id];
        of.shortest_ms = of.executions == 0 ? row.shortest_ms : std::min(of.shortest_ms, row.shortest_ms);
        of.executions += row.executions;
        of.failed += row.failed;
        of.total_ms += row.total_ms;
        of.longest_ms = std::max(of.longest_ms, row.longest_ms);
      });
  return sums;
}

std::unordered_map<exception_key, exception_sums, exception_key_hash>
sum_exceptions(flowpath_reader *reader, filter *which, const fault_function &fault) {
  const chosen_flowpaths chosen = choose(reader, which, fault);
  std::unordered_map<exception_key, exception_sums, exception_key_hash> sums;
  each_record<exception_record>(
      reader->store().run(), *which, table_id::exception, fault, [&](const exception_record &row) {
        if (!chosen.has(row.fpi))
          return;
        exception_sums &of = sums[{row.class_id, row.throwing_class_id, row.throwing_method_id}];
        ++of.count;
        of.first_utc_ms = std::min(of.first_utc_ms, row.utc_ms);
        if (row.utc_ms < of.last_utc_ms)
          return;
        of.last_utc_ms = row.utc_ms;
        of.message_id = row.message_id;
        of.stack_id = row.stack_id;
        of.fpi = row.fpi;
      });
  return sums;
}

// --- backends -------------------------------------------------------------------------------------------------------

static void add_callout(const callout_record &row, backend_sums *of) {
  group_numbers group;
  if (read_group(row, &group)) {
    of->calls += group.count;
    of->errors += group.errors;
    of->total_ms += group.total_ms;
    of->longest_ms = std::max(of->longest_ms, group.longest_ms);
  } else {
    of->calls += row.kind != "A" ? 1 : 0; // the answer to an asynchronous call that has been counted
    of->errors += row.errors;
    of->total_ms += row.duration_ms;
    of->longest_ms = std::max(of->longest_ms, row.duration_ms);
    group.type = number_or(row.backend_type, 0);
  }
  if (of->type == 0)
    of->type = group.type;
}

std::unordered_map<int64_t, backend_sums> sum_backends(flowpath_reader *reader, filter *which,
                                                       const fault_function &fault) {
  std::unordered_map<int64_t, backend_sums> sums;
  std::unordered_set<int64_t> of_flowpath;
  segment_list list;
  segment_texts texts;
  blob_store &store = reader->store();
  each_flowpath(reader, which, fault, [&](const found_flowpath &found) {
    const std::string path = row_path(found.place.partition, found.place.instance, "TQFlowPath.csv");
    const auto report = [&](const std::string &words) {
      if (fault)
        fault({path, place_unit::whole_file, 0, "flowpath " + std::to_string(found.row.fpi) + ": " + words});
    };
    of_flowpath.clear();
    if (const char *words = read_segment_list(&store, found.row, &list))
      report(std::string("the list of its segments ") + words);
    for (const segment_record &segment : list.segments) {
      if (segment.callout_bytes == 0)
        continue;
      if (const std::string words = read_segment_texts(&store, found.place, found.row, segment, &texts, TEXT_CALLOUTS);
          !words.empty()) {
        report(words);
        continue;
      }
      callout_rows rows(texts.callouts, store.run().epoch_diff_s);
      for (callout_record row; !rows.left_over().empty() && rows.next(&row);)
        if (row.backend_id >= 0) { // not a mark
          add_callout(row, &sums[row.backend_id]);
          of_flowpath.insert(row.backend_id);
        }
    }
    for (const int64_t backend : of_flowpath)
      ++sums[backend].flowpaths;
    return true;
  });
  return sums;
}

} // namespace tqread
