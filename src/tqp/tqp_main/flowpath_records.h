// A flowpath while it is in flight: its slot, its segments, the segments it waits for, the open methods, the sums.
//   Owned by one instance thread; no lock anywhere
//   All-zero bytes are a valid empty record of each kind. Slots live in con_fp_buf, which moves when it grows; segments
//   and pending entries live in the instance's pools and stay where they are
// Times on the raw data clock are seconds of the test's epoch; a method's times are milliseconds since its segment's
// begin_ts.
#pragma once

#include "id_index.h"

#include "wllb_mem_pool.h"
#include "wllb_text.h"

#include <cstdint>
#include <ctime>
#include <type_traits>

// Flag of flowpathType: methods were open when the segment was cut off.
constexpr uint16_t flowpath_type_methods_open = 0x200;

// Bit of a flowpath number: the load generator did not start the transaction.
constexpr int fpi_not_wl_initiated_bit = 62;

// 1 when bit 62 of the number is 0: the load generator started the transaction.
inline int chk_fp_is_wl_initiated_tx(int64_t fpi) {
  return (static_cast<uint64_t>(fpi) >> fpi_not_wl_initiated_bit & 1) == 0;
}

// A text that waits in its segment's side_texts: places of its first and last piece; 0: it is empty.
struct side_text_t {
  uint32_t first, last;
};

// One row of a segment's call stack. Classic form: an open method. Exit form: the entry or the exit row of a finished one.
struct method_call_stack_t {
  int64_t children_time;     // classic: sum of finished children, ms; exit row: the method's end
  int64_t cpu_children_time; // classic: children's sums; exit row: the method's own times
  int64_t wait_children_time;
  int64_t sync_children_time;
  int64_t io_children_time;
  int64_t suspension_children_time;
  int64_t time_stamp;       // entry time, ms since begin_ts
  int64_t thread_id;        // 0: none given; exit form: on the entry row only
  int32_t method_id;        // norm id
  int32_t page_id;          // norm id, 0: none
  int32_t seq_num;          // classic: the segment's at entry; exit form: start on the entry row, end on the exit row
  int8_t deleted;           // classic: 1 closed, but still under open rows
  int8_t async_call;        // exit form, entry row only
  int8_t entry_exit;        // exit form: 0 entry row, 1 exit row
  int8_t custom_data_flag;  // exit form, both rows
  side_text_t callout_info; // exit form: rewritten callouts behind this row, each with a leading '_'
  side_text_t uninstr_mtd;  // exit form: methods without instrumentation behind this row, the same way
};

static_assert(sizeof(method_call_stack_t) == 96); // there are two for each method of a large flowpath

// Exit form: sums over the finished children of the open method at one depth (index depth - 1).
struct children_time_t {
  int64_t time, cpu_time, wait_time, sync_time, io_time, susp_time;
};

// One method in one segment. What every call adds to stands first, in one cache line's worth of bytes.
struct mtarray_t {
  int32_t method_id; // norm id
  int32_t count;
  int64_t starttime, endtime; // ms, earliest and latest
  int64_t min, max;           // self time; 0: not set
  int64_t cum_wall_time, cum_self_time;
  int64_t cum_cpu_time, cum_cpu_self_time;
  int64_t cum_wait_time, cum_wait_self_time;
  int64_t cum_sync_time, cum_sync_self_time;
  int64_t cum_io_time, cum_io_self_time;
  int64_t cum_suspension_time, cum_suspension_self_time;
};

// One query in one segment.
struct sqlarray_t {
  int32_t sql_id; // local id
  int32_t count;
  double cumsqlexectime;
  double min, max;                 // min of a fresh entry: 4294967295.0
  uint64_t startsqlbegintimestamp; // ms; of a fresh entry: all ones
  uint64_t endsqlbegintimestamp;   // ms
  uint32_t failedquerycount;       // ended with "E"
  int32_t backend_id;              // last one given that is not 0
};

// Worst response time of one integration point in one flowpath.
struct ip_max_resp_time_t {
  int32_t id;            // norm id of the backend
  int32_t max_resp_time; // ms
};

// A growing array of records that keeps its memory: `used` of `room`.
template <class T> struct record_array {
  T *data;
  int32_t used;
  int32_t room;
};

// One thread of execution of a flowpath, identified by self_fpi.
struct segment_fp_t {
  wllb_mp_slot slot; // the pool's
  int64_t self_fpi, parent_fpi;

  // --- from the header record ---------------------------------------------------------------------------------
  int8_t flowpath_header_record_received; // 1: the header came; without it nothing is written
  int32_t flowpath_segment_tier;
  wllb_text begin_seq_num;     // "1.2.1"
  uint64_t begin_ts;           // s on the raw data clock; ms once the segment is complete
  uint64_t begin_ts_in_ms;     // as the agent gave it; 0: not given
  uint64_t aync_call_end_time; // ms, asynchronous response only
  int64_t bci_urlid;           // local URL id; -1: not set
  char url_query_parm_str[1024];
  char correlationid[256];
  int64_t tqSessionId, uvSessionId;
  int16_t uvPageId;
  char threadName[256];
  uint16_t flowpathType; // flag word
  int64_t qTimeinMS;

  // --- from the closing record ---------------------------------------------------------------------------------
  int16_t status_code; // -4: asynchronous response
  int16_t bt_category;
  uint64_t fp_cputime, fp_waittime, fp_synctime, fp_iotime, fp_suspensiontime;
  uint64_t resp_time_from_bci; // ms
  int8_t gcOver;
  int32_t tags_norm_id;

  // --- the blob: the parsers ---------------------------------------------------------------------------------
  int32_t seq_num;                                // running
  wllb_text seq_blob;                             // rewritten blob
  wllb_text signstr;                              // signature source, only with tqp_generate_fp_signatures
  int64_t sqb_malloced_len, signstr_malloced_len; // bytes that these two are said to have
  record_array<method_call_stack_t> method_call_stack;
  wllb_text side_texts;                  // exit form: of the rows
  int64_t side_pieces;                   // in there, that are still to be written
  record_array<children_time_t> ctarray; // `used` has no meaning: entries are reached by depth
  int64_t last_record_timestamp;         // ms since begin_ts, of the last method record
  uint64_t response_time;                // ms
  int64_t cumulative_cpu_time;
  int32_t entry_methods_count, entry_exit_methods_count, call_out_count;
  int32_t entryPointId; // local id in the classic form, norm id in the exit form
  int32_t totalError, dbCallCounts, httpCalloutCount, jmsCallCount, coherenceCount;
  int32_t async_flag; // a method field with ':' was seen
  int32_t first_method_time_stamp;
  int8_t f_set_first_method_time_stamp;
  int8_t f_skip_adding_seq_num_for_call_out; // the segment's first callout has been written
  int8_t seq_blob_start;                     // a method has been seen
  int8_t bad_fp_raw_data_marker_fpg2;

  // --- completion ------------------------------------------------------------------------------------------------
  uint64_t end_ts, end_ts_in_ms;
  int32_t flowpath_signature; // 0: signatures are off
  int32_t init_params;        // -1 in every row

  // --- sums ------------------------------------------------------------------------------------------------------
  record_array<mtarray_t> mtarray;
  id_index_t mta_index;
  record_array<sqlarray_t> sqlarray;
  id_index_t sqla_index;
  time_t last_sql_data_dumped_ts_sec;

  // --- texts that go along ----------------------------------------------------------------------------------------
  wllb_text callout_buf; // callout rows, joined by '|'
  int32_t callout_len;   // bytes of the rows
  int32_t callout_count;
  wllb_text req_detail_buf;
  wllb_text request_body_buf, response_body_buf, dynamic_data_buf;
};

// A segment that somebody has announced or that has finished.
struct pending_segment_fp_t {
  wllb_mp_slot slot;          // the pool's
  wllb_text begin_seq_number; // the key
  wllb_text segment_csv_str;  // the finished segment's line
  int8_t status;              // 0 expected, 2 arrived
};

constexpr int8_t PENDING_EXPECTED = 0;
constexpr int8_t PENDING_ARRIVED = 2;

// One in-flight flowpath. Free when and only when main_fpi is 0.
struct concurrent_flowpath_t {
  // Arrays that outlive the flowpath and are used again by the next one in this slot.
  record_array<segment_fp_t *> seg_arr;
  record_array<pending_segment_fp_t *> pending_seg_arr;
  record_array<ip_max_resp_time_t> ipmrt;
  // Everything below is zeroed when the slot is cleaned.
  int32_t method_stack_tail_index;
  int16_t stack_pointer;
  int64_t last_record_timestamp;
  int8_t seg_arr_sorted_flag;         // 1: known to be in self_fpi order
  int8_t pending_seg_arr_sorted_flag; // 1: in begin sequence order; 2: but for the last entry
  int32_t pending_segments_count;     // segments awaited
  int32_t pending_callouts_count;     // asynchronous callouts whose response is awaited
  int64_t root_fpi, main_fpi, parent_fpi;
  time_t last_processed_ts;   // s, monotonic clock, of the last header or blob record; 0: none yet
  time_t last_fp_timestamp;   // raw data clock of the last record
  int8_t fp_over_flag;        // the row is written: the slot is to be cleaned
  int8_t force_complete_flag; // the flowpath is being dumped as incomplete
  int64_t response_time, begin_ts, begin_ts_in_ms, aync_call_end_time, cumulative_cpu_time, end_ts, end_ts_in_ms;
  int32_t entry_methods_count, call_out_count;
  int64_t fp_cputime;
  int32_t totalError, dbCallCounts, httpCalloutCount, jmsCallCount, coherenceCount;
  int64_t fp_waittime, fp_synctime, fp_iotime, fp_suspensiontime, qTimeinMS;
  int8_t dynamic_logging_enabled;
  int32_t trace_request;
};

static_assert(std::is_trivially_copyable_v<segment_fp_t> && std::is_trivially_copyable_v<pending_segment_fp_t> &&
              std::is_trivially_copyable_v<concurrent_flowpath_t>);

// The record_array's memory step: grows by `step` zeroed entries when all are used.
template <class T> void record_array_room(record_array<T> &array, int32_t needed, int32_t step, const char *label) {
  if (needed <= array.room)
    return;
  int32_t room = array.room;
  while (room < needed)
    room += step;
  constexpr size_t entry = sizeof(T); // NOLINT(bugprone-sizeof-expression): pointers are entries, too
  array.data = static_cast<T *>(
      wllb_grow_block(array.data, static_cast<size_t>(array.room) * entry, static_cast<size_t>(room) * entry, label));
  array.room = room;
}

template <class T> void record_array_free(record_array<T> &array, const char *label) {
  constexpr size_t entry = sizeof(T); // NOLINT(bugprone-sizeof-expression): pointers are entries, too
  wllb_free_block(array.data, static_cast<size_t>(array.room) * entry, label);
  array = {};
}

// Frees a call stack with the texts of its rows.
inline void method_call_stack_free(segment_fp_t *segment) {
  wllb_text_free(segment->side_texts, "callout_info");
  segment->side_pieces = 0;
  record_array_free(segment->method_call_stack, "method_call_stack");
}
