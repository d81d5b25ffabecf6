// Header records: they open a segment, name it, and announce what the flowpath has to wait for.
//   In      2,self:root:parent:main,start,tier,begin seq,url id,query,corr id,session,browser session,page,thread,type,...
//           82,lead,...the same    80,lead,tuple,end ms,tier,begin seq,thread,blob
//   Out     a slot, a segment with its header flag, pending entries
//   Thread  the instance's
//   Failure a record that ends too early is told and counted; a bad start time or an endless number loses the flowpath
// From the URL id on the agent may stop its record: what is missing keeps the value it had.

#include "flowpath_release.h"
#include "record_errors.h"
#include "tqp_async_handling.h"
#include "tqp_run_time_v2.h"

#include <cstring>

bool tqp_read_fpi_tuple(char *text, fpi_tuple *tuple) {
  *tuple = {};
  parse_fpi_tuple(&text, &tuple->self_fpi, &tuple->root_fpi, &tuple->parent_fpi, &tuple->main_fpi);
  if (tuple->main_fpi == 0)
    tuple->main_fpi = tuple->self_fpi;
  return tuple->main_fpi != 0;
}

// A header on its way through the steps.
struct header_t {
  tqp_instance_t *inst;
  tqp_fields *f;
  int event_id;
  fpi_tuple tuple;
  int slot;
  segment_fp_t *segment;

  concurrent_flowpath_t &fp() const { return inst->con_fp_buf.data[slot]; }
};

static bool incomplete(const header_t &h) {
  tqp_incomplete_record(h.inst);
  return false;
}

// --- who it is ------------------------------------------------------------------------------------------------

static bool read_names(header_t &h) {
  if (h.event_id != TQ_EV_SEQ_BLOB_HEADER) {
    h.f->next();
    if (h.f->ended)
      return incomplete(h);
  }
  char *text = h.f->next();
  if (h.f->ended || !tqp_read_fpi_tuple(text, &h.tuple))
    return incomplete(h);
  return true;
}

static void find_or_make_slot(header_t &h) {
  h.slot = tqp_find_flowpath(h.inst, h.tuple.main_fpi);
  if (h.slot < 0)
    h.slot = get_concurrent_flowpath_free_idx(h.inst);
  tqp_occupy_flowpath(h.inst, h.slot, h.tuple.main_fpi);
  concurrent_flowpath_t &fp = h.fp();
  if (fp.root_fpi != h.tuple.root_fpi) {
    wllb_trace(3, "Info", "root_fpi = %ld, confpptr->root_fpi = %ld, setting confpptr->root_fpi as %ld",
               static_cast<long>(h.tuple.root_fpi), static_cast<long>(fp.root_fpi),
               static_cast<long>(h.tuple.root_fpi));
    fp.root_fpi = h.tuple.root_fpi;
  }
  if (h.event_id == TQ_EV_SEQ_BLOB_HEADER) // a flowpath's parent is the parent of its first segment
    fp.parent_fpi = h.tuple.parent_fpi;
}

// A segment that a side record has opened before is taken over; one that had its header is not touched.
static bool find_or_make_segment(header_t &h) {
  h.segment = search_segment_array_using_fpi(h.inst, &h.fp(), h.tuple.self_fpi, nullptr);
  if (h.segment && h.segment->flowpath_header_record_received) {
    wllb_trace(
        1, "Critical",
        "Critical Internal Error. %d record received for this flowpath but the segment fp entry already exists segment array, Raw data Line # %lld; main_fpi = %lld; self_fpi = %lld. ",
        h.event_id, static_cast<long long>(h.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
        static_cast<long long>(h.tuple.main_fpi), static_cast<long long>(h.tuple.self_fpi));
    return false;
  }
  if (!h.segment)
    h.segment = insert_in_segment_array(h.inst, &h.fp(), h.tuple.self_fpi);
  if (!h.segment)
    return false;
  h.segment->self_fpi = h.tuple.self_fpi;
  h.segment->parent_fpi = h.tuple.parent_fpi;
  h.segment->flowpath_header_record_received = 1;
  h.fp().last_processed_ts = wllb_monotonic_s();
  return true;
}

// --- when and where ----------------------------------------------------------------------------------------------

static bool lose_flowpath(const header_t &h) {
  tqp_clean_flowpath(h.inst, h.slot);
  return false;
}

// Only the first one of a partition is told and counted as a bad record.
static bool lose_for_negative_start(const header_t &h, char first) {
  if (h.inst->negative_timestamp_count++ == 0) {
    wllb_trace(
        1, "Critical",
        "Critical Error in Raw Data, App Instance: %s, Raw data file line # %lld; Found negative starttime: %c, skipping.",
        h.inst->tier_server_app_name, static_cast<long long>(h.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
        first);
    tqp_count_invalid_record(h.inst);
  }
  return lose_flowpath(h);
}

static bool read_start_time(header_t &h) {
  const char *text = h.f->next();
  if (*text < '0' || *text > '9')
    return lose_for_negative_start(h, *text);
  if (h.f->ended)
    return incomplete(h);
  const int64_t given = tqp_read_number(text);
  const bool is_end_in_ms = h.event_id == TQ_EV_SEGMENT_SEQ_BLOB_ASYNC_RESP;
  const int64_t begin = is_end_in_ms ? given / 1000 : given;
  if (is_end_in_ms)
    h.segment->aync_call_end_time = static_cast<uint64_t>(given);
  else
    h.segment->last_sql_data_dumped_ts_sec = begin;
  h.segment->begin_ts = static_cast<uint64_t>(begin);
  for (time_t *clock : {&h.inst->last_timestamp, &h.fp().last_fp_timestamp, &h.inst->fp_last_updated_ts_in_sec})
    if (*clock < begin)
      *clock = begin;
  return true;
}

// The number of the segment that spawned this one, in place: "1.2.1" gives "1.1", "2.1" gives "1".
static std::string_view spawning_branch(char *number, char *last_dot) {
  *last_dot = 0;
  char *dot = strrchr(number, '.');
  char *behind = dot ? dot + 1 : number;
  behind[0] = '1';
  behind[1] = 0;
  return number;
}

static bool read_begin_seq_num(header_t &h) {
  char *number = h.f->next();
  if (h.f->ended)
    return incomplete(h);
  const size_t len = strlen(number);
  if (len > static_cast<size_t>(tqp_max_begin_seq_len < 0 ? 0 : tqp_max_begin_seq_len)) {
    tqp_rawdata_error(h.inst, "begin_seq_len is exceeding the configurable value %d ", tqp_max_begin_seq_len);
    return lose_flowpath(h);
  }
  wllb_text &stored = h.segment->begin_seq_num;
  wllb_text_clear(stored);
  wllb_text_put(stored, {number, len}, "segfp->begin_seq_num");
  tqp_announce_segment(h.inst, &h.fp(), number);
  char *last_dot = strrchr(number, '.');
  const bool has_spawner = h.event_id != TQ_EV_SEQ_BLOB_HEADER && h.tuple.parent_fpi != 0 &&
                           h.tuple.parent_fpi != h.tuple.self_fpi && last_dot;
  if (has_spawner && last_dot > number)
    tqp_announce_segment(h.inst, &h.fp(), spawning_branch(number, last_dot).data());
  else if (has_spawner)
    tqp_announce_segment(h.inst, &h.fp(), "1");
  return true;
}

static bool read_place(header_t &h) {
  if (!read_start_time(h))
    return false;
  h.segment->flowpath_segment_tier = atoi(h.f->next());
  if (h.f->ended)
    return incomplete(h);
  return read_begin_seq_num(h);
}

// --- what the request was ------------------------------------------------------------------------------------------

static void keep_query(segment_fp_t *segment, const char *text) {
  wllb_copy_text(segment->url_query_parm_str, sizeof segment->url_query_parm_str, text);
  for (char *p = segment->url_query_parm_str; *p; ++p)
    if (static_cast<unsigned char>(*p) & 0x80)
      *p = '_';
}

// Each step reads one field; false: the record ends there.
static bool read_request(header_t &h) {
  segment_fp_t *segment = h.segment;
  const int64_t url_id = h.f->next_number();
  segment->bci_urlid = url_id == 0 ? -1 : url_id;
  if (h.f->ended) {
    tqp_rawdata_error(h.inst, "Found incomplete record,URL parameter is not present");
    return false;
  }
  keep_query(segment, h.f->next());
  if (h.f->ended)
    return false;
  wllb_copy_text(segment->correlationid, sizeof segment->correlationid, h.f->next());
  if (h.f->ended)
    return false;
  for (int64_t *session : {&segment->tqSessionId, &segment->uvSessionId}) {
    const int64_t id = h.f->next_number();
    if (h.f->ended)
      return incomplete(h);
    *session = id;
  }
  segment->uvPageId = static_cast<int16_t>(h.f->next_number());
  return !h.f->ended;
}

static bool read_type_and_times(header_t &h) {
  segment_fp_t *segment = h.segment;
  tqp_set_flowpath_type(segment, h.f->next_number());
  if (h.f->ended)
    return false;
  const int64_t queue_time = h.f->next_number();
  if (h.f->ended) // a queue time that ends the record is dropped
    return false;
  segment->qTimeinMS = queue_time;
  for (int reserved = 0; reserved < 3; ++reserved) {
    h.f->next();
    if (h.f->ended)
      return false;
  }
  segment->begin_ts_in_ms = static_cast<uint64_t>(h.f->next_number());
  return true;
}

void tqp_set_flowpath_type(segment_fp_t *segment, int64_t n) {
  const auto bit = static_cast<uint32_t>(1) << ((static_cast<uint64_t>(n) - 1) & 31);
  segment->flowpathType = static_cast<uint16_t>(segment->flowpathType | bit);
}

void process_record_bci_seqblob_header(tqp_instance_t *inst, tqp_fields *f, int event_id, segment_place *place) {
  header_t h = {inst, f, event_id, {}, -1, nullptr};
  if (!read_names(h))
    return;
  find_or_make_slot(h);
  if (!find_or_make_segment(h) || !read_place(h))
    return;
  const bool is_async_response = event_id == TQ_EV_SEGMENT_SEQ_BLOB_ASYNC_RESP;
  if (!is_async_response && !read_request(h))
    return;
  wllb_copy_text(h.segment->threadName, sizeof h.segment->threadName, f->next());
  if (f->ended || (!is_async_response && !read_type_and_times(h)))
    return;
  *place = {h.slot, h.segment};
}
