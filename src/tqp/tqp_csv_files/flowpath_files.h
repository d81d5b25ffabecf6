// Rows of flowpaths, callouts and side records, and the sequence blob file they point into.
//   In      finished segments and single events
//   Out     "TQFlowPath.csv" and its neighbours, "tq/sqb/<appID>"; late rows go to the previous partition's files
//   Thread  the instance's
//   Failure each writer has its own words for a file that is closed; the row is lost
#pragma once

#include "tqp_main.h"

// --- late data (partition_rule.cpp) -----------------------------------------------------------------------------

// Which partition's file a time (s, test's epoch) belongs to.
enum data_age { AGE_CURRENT, AGE_PREVIOUS, AGE_OLDER };

data_age tqp_age_of(const tqp_instance_t *inst, int64_t time_sec);

// The instance's current file of a slot: made and opened when it is closed. Null when it cannot be.
FILE *tqp_current_data_file(tqp_instance_t *inst, int slot);

// The instance's previous file of a slot; null when it is closed. A restarted instance does not know what was open before:
// its files of the partition it went on in, and of the one before that, are opened again when they are asked for.
FILE *tqp_previous_data_file(tqp_instance_t *inst, int slot);

// --- flowpath rows (flowpath_rows.cpp, callout_rows.cpp) ---------------------------------------------------------

// Stores a finished segment's line; when nothing is awaited any more the flowpath's row. With no segment it only
// flushes.
void csv_dump_flowpath(tqp_instance_t *inst, int slot, segment_fp_t *segment);

// One callout row of a segment.
struct callout_row {
  std::string_view get_val; // kind character, then the id text
  int32_t backend_id;       // norm id; -1: none
  std::string_view backend_type;
  int32_t backend_sub_type;
  const char *start_time; // ms since begin_ts, null: none
  std::string_view duration = "0";
  std::string_view status_code = "0";
  int64_t resource_id = 0;
  std::string_view net_delay;
  int32_t callout_seqnum = 0;
  int64_t flowpath = 0; // 0: the segment's parent
  std::string_view min_dur = "0", max_dur = "0", total_dur = "0", tot_count = "0", err_count = "0";
  int32_t async_flag = 0;
};

void csv_dump_callout(tqp_instance_t *inst, segment_fp_t *segment, const callout_row &row);

// --- sequence blob file (sqb_file.cpp) --------------------------------------------------------------------------

// Opens the current partition's file, and the previous one's when that is closed; sets the offsets to their sizes.
void open_sqb_file(tqp_instance_t *inst);

// Buffers data for the current file, or writes it to the previous one's. force_flush: write out all that is buffered.
void sqb_fwrite(tqp_instance_t *inst, const char *data, size_t length, bool force_flush, bool to_prev);

// Where a segment's texts went.
struct sqb_lengths {
  int64_t callout_comp, sqb_comp, req_detail_comp; // compressed lengths; 0 unless version B
};

sqb_lengths save_sqb_to_file_and_update_offset(tqp_instance_t *inst, const segment_fp_t *segment, bool to_prev);

// Moves the file to the previous generation at a partition switch.
void tqp_rotate_sqb_file(tqp_instance_t *inst);

// Compresses a text into flowpath_sqb_buffer as one gzip member. Its length; 0 on failure.
size_t tqp_compress_for_sqb(tqp_instance_t *inst, std::string_view text);

// --- side records (side_rows.cpp, ...) -------------------------------------------------------------------------

// Captured argument of one method call.
struct bci_arg_row {
  int64_t flowpath_id;
  int32_t tier, seq_num;      // the sequence text "tier.seq_num"
  int32_t page_id, method_id; // norm ids
  int64_t wall;               // net, ms
  int64_t cpu = 0, wait = 0, sync = 0, io = 0, suspension = 0;
  int64_t timestamp; // s
};

void csv_dump_bci_arg_data(tqp_instance_t *inst, const bci_arg_row *row, int force);

// One execution of a query; written only with tqp_enable_sql_record.
struct sql_record_row {
  int64_t flowpath_id;
  int64_t begin_ts; // ms
  double wall;      // ms
  int32_t norm_sql_id;
  char status; // 0: none
};

void csv_dump_sql_record(tqp_instance_t *inst, const segment_fp_t *segment, const sql_record_row &row);

// One exception. Ids are local, but for method and backend subtype.
struct excp_row {
  int64_t flowpath_id;
  const char *timestamp;
  int32_t excp_cls, thr_cls, thr_mtd, line, msg, cause;
  const char *stack_trace;
  int32_t method_norm_id, method_line, backend_type, backend_sub_type;
};

void csv_dump_excp_data(tqp_instance_t *inst, const excp_row *row, int force);

// The rows of one JMS message; timestamp in ms.
void csv_dump_jms_data(tqp_instance_t *inst, int64_t flowpath_id, int64_t timestamp, const char *payload, size_t len,
                       int force);

// One custom value or header.
struct custom_data_row {
  const char *fpi_text;
  int32_t header_id; // norm id
  const char *text;
  int32_t kind;
  int64_t value64;
  const char *value;
};

void csv_dump_http_header_req_rsp_info(tqp_instance_t *inst, const custom_data_row *row, int force);
