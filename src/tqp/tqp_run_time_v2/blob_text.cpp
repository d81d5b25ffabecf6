// The rewritten blob: tokens with norm ids and absolute times, and the messages that quote a place in the text.
//   In      method tokens as the classic parser read them, rows of the call stack
//   Out     text behind the segment's seq_blob; norm ids; lines in the trace log
//   Thread  the instance's
//   Failure an id that nobody has told stands as 0 in the text and stays so
// Samples:  17:0_0::0_120   17:99:1:abc_0:5:1_120   17:99_1_155_4:0:0:0:0   17_2

#include "classic_form.h"
#include "local_maps.h"
#include "metadata_request.h"
#include "record_errors.h"

#include <algorithm>

static constexpr char token_label[] = "Segement SQB realloc";

// More than the longest token of the classic form: eleven numbers and a task id.
static constexpr size_t longest_token = 384;

// A text of this many bytes counts as truncated.
static constexpr size_t max_blob_text = size_t{512} << 20U;

// --- tokens ---------------------------------------------------------------------------------------------------

void tqp_put_token_separator(segment_fp_t *segment) {
  wllb_putter(segment->seq_blob, 1, token_label).put('_').done(segment->seq_blob);
}

void tqp_join_blob(segment_fp_t *segment) {
  const wllb_text &blob = segment->seq_blob;
  if (blob.len != 0 && blob.data[blob.len - 1] != '_')
    tqp_put_token_separator(segment);
}

// ":seq_num:flag", or "::flag" without a number.
static void put_entry_number(wllb_putter &out, const classic_method &m) {
  out.put(':');
  if (m.seq_num != 0)
    out.num(m.seq_num);
  out.put(':').num(m.dynamic_logging_flag);
}

void tqp_put_entry_token(segment_fp_t *segment, const classic_method &m, int32_t rel_time) {
  wllb_putter out(segment->seq_blob, longest_token, token_label);
  out.num(m.norm_method_id);
  if (m.thread_id < 0) {
    out.put('_').num(m.event_id);
    if (m.seq_num != 0)
      out.put(':').num(m.seq_num);
  } else {
    out.put(':').num(m.thread_id);
    if (m.async_call)
      out.put(":1").put({m.task_id, m.task_id_len});
    out.put('_').num(m.event_id);
    put_entry_number(out, m);
  }
  out.put('_').num(rel_time).done(segment->seq_blob);
}

void tqp_put_exit_token(segment_fp_t *segment, const classic_method &m, int64_t end_time) {
  wllb_putter out(segment->seq_blob, longest_token, token_label);
  out.num(m.norm_method_id).put(':').num(m.thread_id).put('_').num(m.event_id);
  if (m.seq_num != 0)
    out.put(':').num(m.seq_num);
  out.put('_').num(end_time).put('_').num(m.times.cpu).put(':').num(m.times.wait).put(':').num(m.times.sync);
  out.put(':').num(m.times.io).put(':').num(m.times.suspension).done(segment->seq_blob);
}

void tqp_put_uninstrumented_token(segment_fp_t *segment, int32_t norm_method_id) {
  wllb_putter(segment->seq_blob, longest_token, token_label).num(norm_method_id).put("_2").done(segment->seq_blob);
}

void tqp_put_forced_exit_token(segment_fp_t *segment, const method_call_stack_t &row, int64_t end_time) {
  wllb_putter out(segment->seq_blob, longest_token, "Segment Sequence Blob");
  out.num(row.method_id).put(':').num(row.thread_id).put("_1_").num(end_time).put("_0").done(segment->seq_blob);
}

// --- norm ids ---------------------------------------------------------------------------------------------------

// Asks the agent what a local id means, and looks again.
[[gnu::noinline]] static int32_t ask_and_look(tqp_instance_t *inst, int kind, const wllb_zarray<int> &map,
                                              int64_t local_id, const segment_fp_t *segment) {
  get_meta_data_for_events_from_bci(inst, kind, local_id, segment ? static_cast<int64_t>(segment->begin_ts) : 0);
  return map.at_or_zero(local_id);
}

int32_t tqp_norm_method_id(tqp_instance_t *inst, int64_t local_id, const segment_fp_t *segment) {
  const int32_t norm_id = inst->method_map.at_or_zero(local_id);
  if (norm_id != 0 && local_id != 0) [[likely]]
    return norm_id;
  return ask_and_look(inst, TQ_EV_METHOD_DISCOVERY, inst->method_map, local_id, segment);
}

int32_t tqp_norm_page_id(tqp_instance_t *inst, int64_t local_id, const segment_fp_t *segment) {
  const int32_t norm_id = inst->bci_arg_id_map.at_or_zero(local_id);
  if (norm_id != 0) [[likely]]
    return norm_id;
  return ask_and_look(inst, TQ_EV_BCI_ARG_META_DATA_EVENT, inst->bci_arg_id_map, local_id, segment);
}

int32_t tqp_norm_sql_id(tqp_instance_t *inst, int32_t local_id, int64_t /*timestamp*/) {
  const sql_query_map_t *const map = inst->sql_query_map.data;
  return map ? std::max(0, sql_query_map_read_loc2norm(map, local_id, inst->sql_query_map_size, nullptr)) : 0;
}

int32_t tqp_norm_resource_id(tqp_instance_t *inst, int64_t local_id, const segment_fp_t *segment) {
  const int32_t norm_id = inst->resource_map.at_or_zero(local_id);
  if (norm_id != 0 && local_id != 0) [[likely]]
    return norm_id;
  const int32_t told = ask_and_look(inst, TQ_EV_RESOURCE_DISCOVERY, inst->resource_map, local_id, segment);
  return local_id == 0 ? 0 : told;
}

// --- messages and the limit --------------------------------------------------------------------------------------

blob_quote tqp_blob_quote(const blob_reader *r, const char *token) {
  constexpr int width = 16;
  const auto left = std::clamp<ptrdiff_t>(r->end - token, 0, width);
  return {static_cast<int>(token - r->start) + 1, width, static_cast<int>(left), token};
}

void tqp_blob_error(const blob_reader *r, const char *token, const char *what, const char *words) {
  const blob_quote q = tqp_blob_quote(r, token);
  tqp_rawdata_error(r->inst, "Found invalid %s at character number %d in sequence blob. (%*.*s ...) %s", what,
                    q.character_number, q.width, q.len, q.text, words);
}

bool tqp_blob_truncated(blob_reader *r) {
  const segment_fp_t *const segment = r->segment;
  if (max_entry_exit_records_in_an_fp != 0 && segment->entry_exit_methods_count <= max_entry_exit_records_in_an_fp &&
      segment->seq_blob.len < max_blob_text)
    return false;
  wllb_trace(
      3, "Warning",
      "Truncating flowpath (FPI = %lld) because entry/exit methods count exceeded limit %d, App Instance: %s, Raw data file line # %lld",
      static_cast<long long>(segment->self_fpi), max_entry_exit_records_in_an_fp, r->inst->tier_server_app_name,
      static_cast<long long>(r->inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]));
  r->pos = r->end + 1;
  return true;
}
