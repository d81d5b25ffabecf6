// A finished segment becomes a line that waits with the lines of the others; the last one makes the flowpath's row.
//   In      a slot and one of its segments, its times and sums complete
//   Out     the segment's texts in the sequence blob file, its line in its pending entry, the sums in the slot; the row in
//           "TQFlowPath.csv", or in the previous partition's for a flowpath that ended there
//   Thread  the instance's; the counters under tqp_instance_mon_str_lock
//   Failure a segment whose files are gone, or that nobody expects, is traced and dropped
// Sample line:  81,81,20261122213000,0,0,0,40,0,0,58,0,1,1,10,...    Sample row:  81,3,4,5,1,1,10,0,250,-1,C:1:...

#include "flowpath_files.h"
#include "state_save.h"
#include "tqp_async_handling.h"
#include "tqp_csv_files.h"

#include <concepts>
#include <utility>

// --- columns ------------------------------------------------------------------------------------------------------

static constexpr size_t number_size = 21; // with its comma

static void put_column(wllb_putter &row, std::string_view text) {
  row.put(text).put(',');
}

static void put_column(wllb_putter &row, std::integral auto number) {
  row.num(static_cast<int64_t>(number)).put(',');
}

template <class... T> static void put_columns(wllb_putter &row, const T &...columns) {
  (put_column(row, columns), ...);
}

// The text of a field of fixed size.
template <size_t N> static std::string_view view_of(const char (&text)[N]) {
  return {text, strnlen(text, N)};
}

static std::string_view begin_seq_num_of(const segment_fp_t *segment) {
  return segment->begin_seq_num.len > 0 ? wllb_text_view(segment->begin_seq_num) : "NA";
}

static int url_of(const tqp_instance_t *inst, const segment_fp_t *segment) {
  const int norm_id = inst->url_map.at_or_zero(segment->bci_urlid);
  return norm_id ? norm_id : norm_id_flag;
}

// --- a segment's line ---------------------------------------------------------------------------------------------

static size_t line_room(const segment_fp_t *segment) {
  constexpr size_t numbers = 39, commas = 8;
  return numbers * number_size + commas + sizeof(tqp_instance_t::partition_name) + begin_seq_num_of(segment).size() +
         sizeof segment->url_query_parm_str + sizeof segment->correlationid + sizeof segment->threadName +
         segment->dynamic_data_buf.len + segment->request_body_buf.len + segment->response_body_buf.len;
}

// The offset is the current file's, also for a late segment.
static std::string_view put_line(tqp_instance_t *inst, const segment_fp_t *s, bool late, int64_t offset,
                                 const sqb_lengths &lengths) {
  wllb_text &line = inst->segment_list_buf;
  wllb_text_clear(line);
  wllb_putter put(line, line_room(s), "Segment csv String");
  put_columns(put, s->self_fpi, s->parent_fpi, view_of(late ? inst->prev_partition_name : inst->partition_name),
              s->callout_count, offset, s->callout_buf.len, s->seq_blob.len, s->req_detail_buf.len,
              lengths.callout_comp, lengths.sqb_comp, lengths.req_detail_comp, s->flowpath_segment_tier,
              begin_seq_num_of(s), s->bt_category, s->response_time, s->begin_ts / 1000, s->end_ts / 1000,
              s->cumulative_cpu_time, view_of(s->url_query_parm_str), s->entry_methods_count, s->status_code,
              s->call_out_count, url_of(inst, s), view_of(s->correlationid), s->fp_cputime, s->totalError,
              s->entryPointId, s->dbCallCounts, s->httpCalloutCount, s->jmsCallCount, s->coherenceCount, s->tqSessionId,
              s->uvSessionId, s->uvPageId, view_of(s->threadName), s->flowpathType, s->fp_waittime, s->fp_synctime,
              s->fp_iotime, s->fp_suspensiontime, s->qTimeinMS, s->gcOver, wllb_text_view(s->dynamic_data_buf),
              wllb_text_view(s->request_body_buf), wllb_text_view(s->response_body_buf), s->begin_ts_in_ms,
              s->end_ts_in_ms);
  --put.at; // no comma behind the last
  put.done(line);
  return wllb_text_view(line);
}

// --- storing a segment ----------------------------------------------------------------------------------------------

// Agents' numbers may be anything: a sum that is too large wraps.
template <class A, class B> static void add_to(A &sum, B value) {
  static_cast<void>(__builtin_add_overflow(sum, value, &sum));
}

// A flowpath that is forced out may have no times yet: they are taken from the segment.
static void set_missing_times(concurrent_flowpath_t *fp, const segment_fp_t *segment) {
  if (!fp->force_complete_flag)
    return;
  if (fp->begin_ts == 0)
    fp->begin_ts = static_cast<int64_t>(segment->begin_ts * 1000);
  if (fp->end_ts == 0) {
    fp->end_ts = fp->begin_ts;
    add_to(fp->end_ts, segment->response_time);
  }
}

static void add_sums(concurrent_flowpath_t *fp, const segment_fp_t *segment) {
  add_to(fp->cumulative_cpu_time, segment->cumulative_cpu_time);
  add_to(fp->entry_methods_count, segment->entry_methods_count);
  add_to(fp->call_out_count, segment->call_out_count);
  add_to(fp->fp_cputime, segment->fp_cputime);
  add_to(fp->totalError, segment->totalError);
  add_to(fp->dbCallCounts, segment->dbCallCounts);
  add_to(fp->httpCalloutCount, segment->httpCalloutCount);
  add_to(fp->jmsCallCount, segment->jmsCallCount);
  add_to(fp->coherenceCount, segment->coherenceCount);
  add_to(fp->fp_waittime, segment->fp_waittime);
  add_to(fp->fp_synctime, segment->fp_synctime);
  add_to(fp->fp_iotime, segment->fp_iotime);
  add_to(fp->fp_suspensiontime, segment->fp_suspensiontime);
  add_to(fp->qTimeinMS, segment->qTimeinMS);
}

// A large segment gives its memory back at once: a flowpath may wait long for its other segments.
static void empty_blob(segment_fp_t *segment) {
  const bool large = segment->sqb_malloced_len > tqp_free_fp_min_sqb_size;
  wllb_text_clear(segment->seq_blob);
  if (!large)
    return;
  wllb_text_free(segment->seq_blob, "Segment Sequence Blob");
  wllb_text_free(segment->signstr, "Segment Signature");
  segment->sqb_malloced_len = segment->signstr_malloced_len = 0;
  method_call_stack_free(segment);
}

// Stores a segment that has arrived; one beside the main segment is gone afterwards. False without a blob file.
static bool store_segment(tqp_instance_t *inst, concurrent_flowpath_t *fp, segment_fp_t *segment,
                          pending_segment_fp_t *pending, bool late) {
  if (!inst->sqb_fp) {
    wllb_trace(1, "Info", "Seq blob file is not open. Trying to open.");
    open_sqb_file(inst);
    if (!inst->sqb_fp) {
      wllb_trace(1, "Error", "Could not open file. Returning.");
      return false;
    }
  }
  const int64_t offset = inst->sqbfile_offset;
  const sqb_lengths lengths = save_sqb_to_file_and_update_offset(inst, segment, late);
  wllb_text_clear(pending->segment_csv_str);
  wllb_text_put(pending->segment_csv_str, put_line(inst, segment, late, offset, lengths), "Segment csv String");
  pending->status = PENDING_ARRIVED;
  --fp->pending_segments_count;
  set_missing_times(fp, segment);
  add_sums(fp, segment);
  empty_blob(segment);
  if (segment->self_fpi != fp->main_fpi)
    remove_from_segment_array(inst, fp, -1, segment->self_fpi);
  return true;
}

// --- the flowpath's row ---------------------------------------------------------------------------------------------

// From the earliest begin to the latest end, that of an asynchronous response included.
static int64_t duration_of(const concurrent_flowpath_t *fp) {
  const int64_t start = fp->begin_ts_in_ms ? fp->begin_ts_in_ms : fp->begin_ts;
  const int64_t stop = fp->end_ts_in_ms ? fp->end_ts_in_ms : fp->end_ts;
  const bool async_is_last = fp->aync_call_end_time != 0 && fp->aync_call_end_time > stop;
  const int64_t end = async_is_last ? fp->aync_call_end_time : stop;
  return static_cast<int64_t>(static_cast<uint64_t>(end) - static_cast<uint64_t>(start));
}

static void put_correlation(wllb_putter &put, const concurrent_flowpath_t *fp, const segment_fp_t *segment) {
  put.put(view_of(segment->correlationid));
  if (tqp_append_parent_fpi_to_corrid == 1) {
    put.put(':');
    if (fp->parent_fpi)
      put.num(fp->parent_fpi);
  }
  put.put(',');
}

// {1,2,3} in double quotes.
static void put_list(wllb_putter &put, const record_array<ip_max_resp_time_t> &points,
                     int32_t ip_max_resp_time_t::*column) {
  put.put("\"{");
  for (int32_t i = 0; i < points.used; ++i) {
    if (i > 0)
      put.put(',');
    put.num(points.data[i].*column);
  }
  put.put("}\",");
}

static size_t row_room(const concurrent_flowpath_t *fp, const segment_fp_t *s, const std::string &reference) {
  constexpr size_t numbers = 42, signs = 16; // commas, braces and the like around texts and lists
  return (numbers + 2 * static_cast<size_t>(fp->ipmrt.used)) * number_size + signs + begin_seq_num_of(s).size() +
         reference.size() + sizeof s->url_query_parm_str + sizeof s->correlationid + sizeof s->threadName;
}

static void put_row(tqp_instance_t *inst, const concurrent_flowpath_t *fp, const segment_fp_t *s,
                    const std::string &reference) {
  wllb_text &row = inst->segment_list_buf; // the list has just been written
  wllb_text_clear(row);
  wllb_putter put(row, row_room(fp, s, reference), "flowpath row");
  put_columns(put, fp->main_fpi, inst->tierID, inst->serverID, inst->appID, s->flowpath_segment_tier,
              begin_seq_num_of(s), s->bt_category, s->flowpath_signature, duration_of(fp), s->init_params,
              std::string_view(reference), fp->begin_ts / 1000, fp->end_ts / 1000, fp->cumulative_cpu_time,
              view_of(s->url_query_parm_str), fp->entry_methods_count, s->status_code, fp->root_fpi, fp->call_out_count,
              url_of(inst, s));
  put_correlation(put, fp, s);
  put_columns(put, fp->fp_cputime, fp->totalError, -1, s->entryPointId, fp->dbCallCounts, fp->httpCalloutCount,
              fp->jmsCallCount, -1, fp->coherenceCount, s->tqSessionId, s->uvSessionId, s->uvPageId,
              view_of(s->threadName), s->flowpathType, fp->fp_waittime, fp->fp_synctime, fp->fp_iotime,
              fp->fp_suspensiontime, fp->qTimeinMS);
  put.unum(s->response_time).put(',');
  put_columns(put, fp->parent_fpi);
  put_list(put, fp->ipmrt, &ip_max_resp_time_t::id);
  put_list(put, fp->ipmrt, &ip_max_resp_time_t::max_resp_time);
  put_columns(put, s->gcOver, fp->dynamic_logging_enabled, fp->trace_request, s->tags_norm_id);
  put.at[-1] = '\n';
  put.done(row);
}

// Ends a flowpath whose segments have all arrived, or that is forced out.
static void write_flowpath(tqp_instance_t *inst, concurrent_flowpath_t *fp, segment_fp_t *segment, bool late) {
  const int64_t self_fpi = segment->self_fpi;
  std::string reference;
  dump_segments_info_in_sqb(inst, fp, &reference);
  FILE *stream = (late ? inst->prev_csv_file_pointers : inst->csv_file_pointers)[FLOWPATH_CSV_FP];
  if (!stream) {
    wllb_trace(1, "Error", "Could not write flowpath self_fpi = %lld; main_fpi = %lld to CSV file",
               static_cast<long long>(self_fpi), static_cast<long long>(fp->main_fpi));
    return;
  }
  sqb_fwrite(inst, nullptr, 0, true, false); // no row may reach its file ahead of its blobs
  put_row(inst, fp, segment, reference);
  inst->flowpath_row_file = stream; // the save writes it, after the offset
  remove_from_segment_array(inst, fp, -1, self_fpi);
  if (!chk_fp_is_wl_initiated_tx(self_fpi))
    ++inst->sum_rep_counters[SUM_REP_CNT_NON_WL_FLOWPATH];
  save_tqp_app_instance_thread_state(inst);
  fp->fp_over_flag = 1;
  if (late)
    write_prev_tqpdone(inst, tqp_data_file_name(FLOWPATH_CSV_FP));
}

// --- a segment's way ------------------------------------------------------------------------------------------------

// Level 1 flowpaths that were fast. The keyword's other test, at completion, differs.
static bool is_filtered(const tqp_instance_t *inst, const segment_fp_t *segment) {
  return inst->bt_category_flag == 1 && tqp_min_resptime_to_filter_l1_fp > 0 && segment->entry_methods_count == 1 &&
         segment->response_time < static_cast<uint64_t>(tqp_min_resptime_to_filter_l1_fp);
}

// Decides by the slot's end to which partition's files this call writes. False when the files are gone.
static bool choose_files(tqp_instance_t *inst, const concurrent_flowpath_t *fp, int64_t self_fpi, bool *late) {
  const data_age age = fp->end_ts == 0 ? AGE_CURRENT : tqp_age_of(inst, fp->end_ts / 1000);
  auto &counts = inst->tqp_instance_mon_stat_info;
  *late = age != AGE_CURRENT;
  if (!*late) {
    tqp_current_data_file(inst, FLOWPATH_CSV_FP);
    return true;
  }
  if (!tqp_previous_data_file(inst, FLOWPATH_CSV_FP)) {
    wllb_trace(
        1, "Error",
        "Raw data received for previous partition, whereas the flowpath csv file pointer is closedfpinstance = %lld",
        static_cast<long long>(self_fpi));
    wllb_hold hold(counts.tqp_instance_mon_str_lock);
    ++counts.prv_partition_flowpath_count;
    return false;
  }
  if (age == AGE_PREVIOUS)
    return true;
  wllb_trace(
      1, "Error",
      "Raw data received for previous to previous partition, whereas the flowpath csv file pointer is closedfpinstance = %lld",
      static_cast<long long>(self_fpi));
  wllb_hold hold(counts.tqp_instance_mon_str_lock);
  ++counts.older_partition_flowpath_count;
  return false;
}

static void count_segment(tqp_instance_t *inst) {
  auto &counts = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(counts.tqp_instance_mon_str_lock);
  ++counts.processed_flowpath_count; // completion has counted it already: monitors know it as two
}

static bool awaits_nothing(const concurrent_flowpath_t *fp) {
  return fp->pending_segments_count == 0 && fp->pending_callouts_count == 0;
}

// Stores a segment, and writes the row when it is the main one and time has come. True when the state is to be saved
// and a waiting main segment looked for.
static bool run_segment(tqp_instance_t *inst, concurrent_flowpath_t *fp, segment_fp_t *segment) {
  const int64_t self_fpi = segment->self_fpi;
  bool late = false;
  count_segment(inst);
  if (is_filtered(inst, segment) || !choose_files(inst, fp, self_fpi, &late))
    return false;
  if (segment->bci_urlid < 0)
    segment->bci_urlid = 0;
  segment->init_params = -1;
  if (!chk_fp_is_wl_initiated_tx(self_fpi) && omit_non_wl_flowpaths)
    return true;
  // A segment that never had a number is none of those that have one, not even of the empty one.
  pending_segment_fp_t *pending =
      search_pending_segment_array_using_begin_seq_number(inst, fp, segment->begin_seq_num.data);
  if (!pending) {
    wllb_trace(
        1, "Error",
        "Flowpath segment could not be searched in pending segment array using begin seq num ('%s') for main_fpi=%lld; self_fpi=%lld, confpptr = %p",
        wllb_text_str(segment->begin_seq_num), static_cast<long long>(fp->main_fpi), static_cast<long long>(self_fpi),
        static_cast<const void *>(fp));
    remove_from_segment_array(inst, fp, -1, self_fpi);
    return false;
  }
  if (pending->status != PENDING_ARRIVED && !store_segment(inst, fp, segment, pending, late))
    return false;
  if (self_fpi != fp->main_fpi || !(awaits_nothing(fp) || fp->force_complete_flag))
    return true;
  write_flowpath(inst, fp, segment, late);
  return false;
}

static void flush_rows(tqp_instance_t *inst) {
  wllb_trace(2, "Info", "FP is NULL, soo we are flushing the buffer");
  if (FILE *const stream = std::exchange(inst->flowpath_row_file, nullptr))
    tqp_append_rows(stream, wllb_text_view(inst->segment_list_buf));
}

void csv_dump_flowpath(tqp_instance_t *inst, int slot, segment_fp_t *segment) {
  if (!segment)
    return flush_rows(inst);
  concurrent_flowpath_t *fp = &inst->con_fp_buf.data[slot];
  if (!run_segment(inst, fp, segment))
    return;
  save_tqp_app_instance_thread_state(inst);
  if (!awaits_nothing(fp) || fp->seg_arr.used == 0 || fp->seg_arr.data[0]->self_fpi != fp->main_fpi)
    return;
  if (run_segment(inst, fp, fp->seg_arr.data[0])) // the main segment has waited for this one
    save_tqp_app_instance_thread_state(inst);
}
