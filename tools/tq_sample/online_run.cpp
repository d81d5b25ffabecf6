// What happens in a live run, and at which tick: switches, an instance that comes, one that goes; who may say what on the
// ports.
//   In      see the header
//   Out     see the header
//   Thread  one
//   Failure see the header
// Samples: tq_control_msg:action=test_run_switch;PARTITION_NAME=20260302090007
//          tq_control_msg:action=enableInstance Storefront web02 shop
#include "online_run.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>

#include <unistd.h>

#include "online_monitor.h"
#include "sample_records.h"
#include "wllb_util.h"

// --- messages to the control connections ----------------------------------------------------------------------

static std::string add_message(online_add_message form, const sample_instance_t &inst) {
  const char *const tier = inst.tier.c_str(), *const server = inst.server.c_str(), *const app = inst.app.c_str();
  switch (form) {
  case ONLINE_ADD_ACTIVE:
    return wllb_format("tq_control_msg:action=active_instance_msg;Tier=%s;Server=%s;Instance=%s;\n", tier, server, app);
  case ONLINE_ADD_ENABLE:
    return wllb_format("tq_control_msg:action=enableInstance %s %s %s\n", tier, server, app);
  case ONLINE_ADD_DISCOVERY:
    return wllb_format("tqc_node_discovery_ctrl_msg:tierName=%s;serverHost=%s;instance=%s;\n", tier, server, app);
  }
  return {};
}

static std::string remove_message(online_remove_message form, const sample_instance_t &inst) {
  const char *const tier = inst.tier.c_str(), *const server = inst.server.c_str(), *const app = inst.app.c_str();
  if (form == ONLINE_REMOVE_INACTIVE)
    return wllb_format("tqc_instance_inactive:tierName=%s;serverHost=%s;instance=%s;\n", tier, server, app);
  const char *const action = form == ONLINE_REMOVE_DISABLE ? "disableInstance" : "removeInstance";
  return wllb_format("tq_control_msg:action=%s %s %s %s\n", action, tier, server, app);
}

// --- partitions and instances ---------------------------------------------------------------------------------

// Whole lines that were made but not written yet go out, so that the file ends at a record.
static int close_file(sample_raw_file &file) {
  const int result = sample_write_out(file, file.stream->out.size());
  close(file.fd);
  file.fd = -1;
  return result;
}

// A stream that only moves on tells who it is, but nothing of a connection: a reader takes that for a new one, whose
// agent knows nothing of the flowpaths in flight.
static int open_file(const online_run &run, sample_raw_file &file, bool agent_starts) {
  const std::string name = sample_instance_file_name(*file.stream->inst);
  file.fd = sample_open_raw_file(*run.layout, run.layout->names.size() - 1, name);
  if (file.fd < 0)
    return -1;
  if (agent_starts)
    sample_begin_file(*file.stream, true);
  else
    sample_put_identity(file.stream->out, *file.stream->inst);
  return sample_write_out(file, file.stream->out.size());
}

// The agents' clock names the partition: its whole second.
static int switch_partition(online_run &run) {
  if (sample_add_partition(run.layout, sample_epoch + run.files->front().stream->now_ms / 1000) != 0)
    return -1;
  for (sample_raw_file &file : *run.files)
    if (close_file(file) != 0 || open_file(run, file, false) != 0)
      return -1;
  const std::string &name = run.layout->names.back();
  online_send_to_all(run.server, ONLINE_CONTROL,
                     wllb_format("tq_control_msg:action=test_run_switch;PARTITION_NAME=%s\n", name.c_str()));
  printf("partition %s begins\n", name.c_str());
  return 0;
}

static int add_instance(online_run &run) {
  sample_raw_file file = {-1, run.to_add};
  sample_stream_t &stream = *run.to_add;
  run.to_add = nullptr;
  stream.now_ms = run.files->front().stream->now_ms;
  stream.begin_limit = INT64_MAX;
  if (open_file(run, file, true) != 0)
    return -1;
  run.files->push_back(file);
  online_send_to_all(run.server, ONLINE_CONTROL, add_message(run.options->add_with, *stream.inst));
  printf("instance %s comes\n", sample_instance_file_name(*stream.inst).c_str());
  return 0;
}

// The first instance goes; the last one that is there stays. Nobody calls the one that is gone.
static int remove_instance(online_run &run) {
  if (run.files->size() < 2)
    return 0;
  sample_stream_t &stream = *run.files->front().stream;
  stream.begin_limit = 0;
  const int result = close_file(run.files->front());
  run.files->erase(run.files->begin());
  online_send_to_all(run.server, ONLINE_CONTROL, remove_message(run.options->remove_with, *stream.inst));
  printf("instance %s goes\n", sample_instance_file_name(*stream.inst).c_str());
  return result;
}

// Ticks alone decide, so that the same options give the same bytes however fast the machine is.
static int before_tick(online_run &run, int64_t tick) {
  const online_options &options = *run.options;
  const auto due = [tick](int64_t seconds) { return seconds > 0 && tick == seconds * sample_ticks_per_second; };
  if (options.switch_every > 0 && tick > 0 && tick % (options.switch_every * sample_ticks_per_second) == 0)
    if (switch_partition(run) != 0)
      return -1;
  if (due(options.add_after) && run.to_add && add_instance(run) != 0)
    return -1;
  return due(options.remove_after) ? remove_instance(run) : 0;
}

// --- the ports ------------------------------------------------------------------------------------------------

// One line of text with a newline; words from outside are made fit for a terminal.
static void tell(const online_run &run, std::string text) {
  if (run.options->quiet || text.empty())
    return;
  std::replace_if(
      text.begin(), text.end() - 1, [](char c) { return c < ' ' || c > '~'; }, '?');
  fputs(text.c_str(), stdout);
}

static int64_t number_behind(std::string_view line, std::string_view key) {
  int64_t value = -1;
  if (const size_t at = line.find(key); at != std::string_view::npos)
    std::from_chars(line.data() + at + key.size(), line.data() + line.size(), value);
  return value;
}

static void take_announcement(online_run &run, online_connection &connection, std::string_view line) {
  const auto testrun = static_cast<long long>(number_behind(line, ";TEST_RUN="));
  const auto pid = static_cast<long long>(number_behind(line, ";TQP_PID="));
  if (testrun == run.testrun && pid > 0)
    return tell(run, wllb_format("tqp with pid %lld has announced itself\n", pid));
  tell(run, wllb_format("somebody has announced test run %lld, pid %lld: refused\n", testrun, pid));
  online_send(connection, "tq_control_rep:action=fp_stats;result=Error;no such test run\n");
  connection.closing = true;
}

static void take_old_request(online_run &run, online_connection &connection, std::string_view line) {
  tell(run, online_answer_old(run.agents, connection, line) + "\n");
}

static void take_new_request(online_run &run, online_connection &connection, std::string_view line) {
  tell(run, online_answer_new(run.agents, connection, line) + "\n");
}

// What a line may begin with; the first one makes the connection what it is.
struct request_row {
  std::string_view front;
  online_role role;
  void (*take)(online_run &, online_connection &, std::string_view line);
};

static constexpr request_row request_rows[] = {{"tq_control_req:", ONLINE_CONTROL, take_announcement},
                                               {"tq_meta_data_req:", ONLINE_METADATA, take_old_request},
                                               {"TraceQuarryMessage 2.0", ONLINE_METADATA, take_new_request}};

static ssize_t take_from_collector_port(online_run &run, online_connection &connection, std::string_view rest) {
  const size_t end = rest.find('\n');
  if (connection.role == ONLINE_CONTROL) // nothing more is expected from there
    return static_cast<ssize_t>(rest.size());
  if (end == std::string_view::npos)
    return 0;
  for (const request_row &row : request_rows)
    if (rest.substr(0, row.front.size()) == row.front &&
        (connection.role == ONLINE_NEW || connection.role == row.role)) {
      connection.role = row.role;
      row.take(run, connection, rest.substr(0, end));
      return static_cast<ssize_t>(end + 1);
    }
  return -1;
}

// Samples as they came, for whoever looks on.
static void keep_sample(const online_run &run, std::string_view line) {
  const wllb_file file(fopen((run.layout->base + "/monitor_samples.txt").c_str(), "ae"));
  if (file)
    fwrite(line.data(), 1, line.size(), file.get());
}

static ssize_t take(online_run &run, online_connection &connection, std::string_view rest) {
  if (connection.role != ONLINE_MONITOR)
    return take_from_collector_port(run, connection, rest);
  std::string said;
  const bool registered = !connection.name.empty();
  const ssize_t count = online_take_monitor(connection, rest, &said);
  if (registered && count > 0)
    keep_sample(run, rest.substr(0, static_cast<size_t>(count)));
  tell(run, said);
  return count;
}

// --- the run --------------------------------------------------------------------------------------------------

int online_begin(online_run &run) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  sample_install_stop_handler();
  run.server.take = [&run](online_connection &connection, std::string_view rest) {
    return take(run, connection, rest);
  };
  if (online_listen(run.server, run.options->port) != 0)
    return -1;
  if (sample_replace_file(run.layout->base + "/WLDHPort", wllb_format("%d\n", run.server.monitor_port)) != 0)
    return -1;
  printf("collector port %d\nmonitor port %d\n", run.server.collector_port, run.server.monitor_port);
  return 0;
}

sample_beside online_beside(online_run &run) {
  return {[&run](int64_t tick) { return before_tick(run, tick); },
          [&run](int64_t until_ns) { online_serve(run.server, until_ns); }};
}

void online_end(online_run &run) {
  const int64_t until_ms = online_now_ms() + run.options->linger * 1000;
  while (online_now_ms() < until_ms && !sample_stop_asked())
    online_serve(run.server, (online_now_ms() + 10) * 1'000'000);
  online_close(run.server);
}
