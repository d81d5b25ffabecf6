// Cuts a block into lines and runs each one by its event id.
//   In      a block that ends at a newline; the reader loop hands over nothing else
//   Out     records to tq_process_data_line; raw_data_file_offset, the line counter, captured bodies' bytes to their file
//   Thread  the instance's
//   Failure a bad line is traced and skipped; only a failed identity record gives up the block
// Samples:  5,com.acme.Pay.charge,17\n (event 5)    junk\n (no event id: counted as invalid)    abc,1\n (skipped)

#include "data_files.h"
#include "record_dispatch.h"
#include "record_errors.h"
#include "tqp_process_data.h"

#include <cerrno>
#include <cstring>

struct block_t {
  tqp_instance_t *inst;
  char *cur;
  char *end; // behind the last byte
  int is_test_running;
};

// Null for a body that is only counted, and for one whose file cannot be opened.
static wllb_file open_body_file(const tqp_instance_t *inst) {
  const char *path = inst->httpbody_file_path_name;
  if (!*path)
    return nullptr;
  wllb_file body(tqp_make_data_file_as(path, "a", true));
  if (!body)
    wllb_trace(1, "Error", "Could not open file '%s' for writing", path);
  return body;
}

static void write_body(FILE *body, std::string_view bytes) {
  if (!wllb_write_all(fileno(body), bytes))
    wllb_trace(1, "Error", "Could not write a captured body, Error = %s", wllb_strerror(errno).c_str());
}

// Bytes of a captured body stand where lines would: they go to the body's file. True when the block is used up.
static bool take_body_bytes(block_t &b) {
  tqp_instance_t *inst = b.inst;
  const auto rest = b.end - b.cur;
  const wllb_file body = open_body_file(inst);
  const bool writes = body && inst->httpbody_remaining_bytes > 1;
  if (inst->httpbody_remaining_bytes > rest) {
    if (writes) {
      wllb_trace(2, "Info", "Dumping %d bytes in file '%s'", static_cast<int>(rest), inst->httpbody_file_path_name);
      write_body(body.get(), {b.cur, static_cast<size_t>(rest)});
    }
    inst->httpbody_remaining_bytes -= static_cast<int>(rest);
    return true;
  }
  // The body's last byte is its record's newline. The cursor stays: what was written is read again as lines.
  if (writes)
    write_body(body.get(), {b.cur, static_cast<size_t>(inst->httpbody_remaining_bytes) - 1});
  inst->httpbody_file_path_name[0] = 0;
  inst->httpbody_remaining_bytes = 0;
  return false;
}

static int64_t count_lines_of(const char *path) {
  wllb_file file(wllb_is_regular_file(path) ? my_fopen(path, "r") : nullptr);
  if (!file)
    return 0;
  int64_t lines = 0;
  char buf[65536];
  for (size_t got; (got = fread(buf, 1, sizeof buf, file.get())) > 0;)
    for (const char *p = buf; (p = static_cast<const char *>(memchr(p, '\n', static_cast<size_t>(buf + got - p)))); ++p)
      ++lines;
  return lines;
}

static void report_progress(tqp_instance_t *inst, int is_test_running) {
  const time_t now = wllb_monotonic_s();
  if (inst->commentry_time == 0)
    inst->commentry_time = now;
  if (now - inst->commentry_time < 10)
    return;
  inst->commentry_time = now;
  const auto lines = static_cast<long long>(inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]);
  std::string report =
      wllb_format("PROGRESS REPORT: 'Raw data processed so far: %lld %s ", lines, lines == 1 ? "line" : "lines");
  if (!is_test_running) {
    if (inst->raw_data_lines_total_count == 0)
      inst->raw_data_lines_total_count = count_lines_of(tqp_raw_file_path(inst).c_str());
    const auto total = static_cast<long long>(inst->raw_data_lines_total_count);
    report += wllb_format("of %lld (%lld%%)'", total, total == 0 ? 0 : lines * 100 / total);
  }
  wllb_trace(2, "Info", "%s", report.c_str());
}

static void tell_line_without_event_id(const block_t &b, char *newline) {
  *newline = 0;
  if (wllb_trace_on(4)) {
    char message[512];
    snprintf(
        message, sizeof message,
        "event id not found in TQ data record from jvmid = %d, skipping the record, seems bad raw data at line number %lld: %s",
        b.inst->jvmid, static_cast<long long>(b.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]), b.cur);
    wllb_trace(4, "Error", "%s", message);
  }
  tqp_count_invalid_record(b.inst);
}

static void tell_line_with_bad_event_id(const block_t &b, char *newline) {
  *newline = 0;
  wllb_trace(4, "Error", "non numeric event id found in record from jvmid = %d, seems bad raw data: %s", b.inst->jvmid,
             b.cur);
}

// One to three digits; -1 for anything else.
static int event_id_of(const char *text, const char *comma) {
  const auto len = comma - text;
  if (len < 1 || len > 3)
    return -1;
  int id = 0;
  for (const char *p = text; p < comma; ++p) {
    if (*p < '0' || *p > '9')
      return -1;
    id = id * 10 + (*p - '0');
  }
  return id;
}

static void tell_end_of_block(const block_t &b) {
  if (memchr(b.cur, ',', static_cast<size_t>(b.end - b.cur)))
    wllb_trace(
        1, "Error",
        "Error in Raw Data, App Instance: %s.txt Raw data file line # %lld;, Not getting newline while reading data from the buffer",
        b.inst->tier_server_app_name, static_cast<long long>(b.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]));
  else
    wllb_trace(4, "Info", "End of records!!!!!!");
}

// Runs the line at the cursor and moves behind it. False: the block ends here.
static bool take_line(block_t &b) {
  tqp_instance_t *inst = b.inst;
  auto *newline = static_cast<char *>(memchr(b.cur, '\n', static_cast<size_t>(b.end - b.cur)));
  if (!newline) {
    tell_end_of_block(b);
    return false;
  }
  inst->raw_data_file_offset.store(inst->raw_data_file_offset.load(std::memory_order_relaxed) + (newline + 1 - b.cur),
                                   std::memory_order_relaxed);
  inst->flag_to_update_offset = 1;
  ++inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES];
  if (wllb_trace_on(2))
    report_progress(inst, b.is_test_running);

  const auto *comma = static_cast<const char *>(memchr(b.cur, ',', static_cast<size_t>(newline - b.cur)));
  const int event_id = comma ? event_id_of(b.cur, comma) : -1;
  if (!comma) {
    tell_line_without_event_id(b, newline);
  } else if (event_id < 0) {
    tell_line_with_bad_event_id(b, newline);
  } else {
    char *cursor = b.cur + (comma + 1 - b.cur);
    tq_process_data_line(inst, event_id, &cursor, newline, 0);
    if (inst->get_tsa_id) {
      wllb_trace(1, "Error", "0th event parsing is failed");
      return false;
    }
  }
  b.cur = newline + 1;
  return true;
}

int tq_process_data(tqp_instance_t *inst, char *buf, size_t len, int is_test_running) {
  if (!buf || len == 0)
    return 0;
  block_t b = {inst, buf, buf + len, is_test_running};
  inst->flag_to_update_offset = 1;
  do {
    inst->bytes_processed_in_current_chunk = static_cast<uint32_t>(b.cur - buf);
    if (inst->httpbody_remaining_bytes != 0 && take_body_bytes(b))
      break;
  } while (take_line(b));
  {
    wllb_hold hold(inst->fp_stats_mutex);
    inst->bytes_processed_in_current_chunk = 0;
    inst->bytes_processed_in_prev_chunks += len;
  }
  return inst->get_tsa_id ? -1 : 0;
}
