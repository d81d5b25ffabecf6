// Blob records: the next or last piece of a segment's call tree, the last one with the segment's results.
//   In      3,tuple,blob    4,tuple,status[,category],times,response,url,gc,-,trace,tag,type,corr id,blob
//           83/84 with two leading fields; 43/44 in the exit form, 44 with a shorter tail
//   Out     the piece to its parser; the finished segment to completion
//   Thread  the instance's
//   Failure a record without header, too short, or with a comma in its blob is told and dropped

#include "flowpath_release.h"
#include "metadata_request.h"
#include "record_errors.h"
#include "tqp_async_handling.h"
#include "tqp_run_time_v2.h"
#include "tqp_sql_timing.h"

#include <cstring>

struct blob_record_t {
  tqp_instance_t *inst;
  tqp_fields *f;
  int event_id;
  fpi_tuple tuple;
  int slot;
  segment_fp_t *segment;

  concurrent_flowpath_t &fp() const { return inst->con_fp_buf.data[slot]; }

  bool closes() const {
    return event_id == TQ_EV_SEQ_BLOB_COMPLETE || event_id == TQ_EV_SEQ_BLOB_COMPLETE_EXIT ||
           event_id == TQ_EV_SEGMENT_SEQ_BLOB_COMPLETE;
  }

  bool is_exit_form() const {
    return event_id == TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT || event_id == TQ_EV_SEQ_BLOB_COMPLETE_EXIT;
  }
};

int tq_count_delimiter(const char *cursor, const char *end, char c) {
  if (!cursor || cursor >= end || *cursor == 0 || *cursor == '\n')
    return -1;
  int count = 0;
  for (const char *p = cursor; p < end && *p != 0 && *p != '\n'; ++p)
    count += *p == c;
  return count;
}

// --- whose piece it is ---------------------------------------------------------------------------------------------

static bool incomplete(const blob_record_t &b) {
  tqp_incomplete_record(b.inst);
  return false;
}

// The instance's first closing record tells whether its agent sends a category.
static bool learn_category_flag(const blob_record_t &b) {
  if (!b.closes() || b.inst->bt_category_flag != 0)
    return true;
  const int commas = tq_count_delimiter(b.f->pos, b.f->end, ',');
  if (commas < 2) {
    tqp_rawdata_error(b.inst, "Number of fields in 4 events are %d.", commas);
    tqp_count_invalid_record(b.inst);
    return false;
  }
  b.inst->bt_category_flag = commas == 2 ? 1 : 2;
  return true;
}

static bool read_names(blob_record_t &b) {
  if (b.event_id == TQ_EV_SEGMENT_SEQ_BLOB_INCOMPLETE || b.event_id == TQ_EV_SEGMENT_SEQ_BLOB_COMPLETE)
    for (int lead = 0; lead < 2; ++lead) {
      b.f->next();
      if (b.f->ended)
        return incomplete(b);
    }
  if (!learn_category_flag(b))
    return false;
  char *text = b.f->next();
  if (b.f->ended || !tqp_read_fpi_tuple(text, &b.tuple))
    return incomplete(b);
  return true;
}

static bool tell_missing_header(const blob_record_t &b, const char *header) {
  tqp_rawdata_error(b.inst, "main_fpi = %lld; self_fpi = %lld;Found %d record, and %s record not found.",
                    static_cast<long long>(b.tuple.main_fpi), static_cast<long long>(b.tuple.self_fpi), b.event_id,
                    header);
  ++b.inst->sum_rep_counters[SUM_REP_CNT_BAD_HEADER_NOT_RECEIVED_FPG2];
  return false;
}

static bool find_segment(blob_record_t &b) {
  if (!b.inst->con_fp_buf.data) {
    const bool plain = b.event_id == TQ_EV_SEQ_BLOB_INCOMPLETE || b.event_id == TQ_EV_SEQ_BLOB_COMPLETE;
    tqp_rawdata_error(b.inst, "main_fpi=%lld; self_fpi=%lldFound %d record, and 2%s record not found.",
                      static_cast<long long>(b.tuple.main_fpi), static_cast<long long>(b.tuple.self_fpi), b.event_id,
                      plain ? "" : " or 82");
    return false;
  }
  b.slot = tqp_find_flowpath(b.inst, b.tuple.main_fpi);
  if (b.slot < 0)
    return tell_missing_header(b, "2");
  b.segment = search_segment_array_using_fpi(b.inst, &b.fp(), b.tuple.self_fpi, nullptr);
  if (!b.segment || b.segment->begin_seq_num.len == 0)
    return tell_missing_header(b, "82");
  return true;
}

// --- head and tail of a closing record -----------------------------------------------------------------------------

static bool cut_short(const blob_record_t &b) {
  tqp_rawdata_error(b.inst, "main_fpi=%lld; self_fpi=%lldFound incomplete record, skipping.",
                    static_cast<long long>(b.tuple.main_fpi), static_cast<long long>(b.tuple.self_fpi));
  tqp_count_invalid_record(b.inst);
  return false;
}

// A number that ends the line is none of a whole record's, and is not kept.
static bool read_head_number(const blob_record_t &b, int16_t *target) {
  const auto number = static_cast<int16_t>(b.f->next_number());
  if (b.f->ended)
    return cut_short(b);
  *target = number;
  return true;
}

static bool read_head(const blob_record_t &b) {
  return read_head_number(b, &b.segment->status_code) &&
         (b.inst->bt_category_flag != 2 || read_head_number(b, &b.segment->bt_category));
}

// Tells which part of the times is missing, by the number of those that came.
static void tell_missing_time(const blob_record_t &b, int came) {
  const auto main_fpi = static_cast<long long>(b.tuple.main_fpi);
  const auto self_fpi = static_cast<long long>(b.tuple.self_fpi);
  if (came == 2)
    tqp_rawdata_error(b.inst, "main_fpi=%lld; self_fpi=%lldFound incomplete record, Synctime is missing. So skipping.",
                      main_fpi, self_fpi);
  else if (came == 3)
    tqp_rawdata_error(b.inst, "main_fpi=%lld; self_fp=%lldFound incomplete record, IOTime is missing. So skipping.",
                      main_fpi, self_fpi);
  else
    tqp_rawdata_error(b.inst,
                      "main_fpi=%lld; self_fpi=%lldFound incomplete record, Suspension time is missing. So skipping.",
                      main_fpi, self_fpi);
  tqp_count_invalid_record(b.inst);
}

// "cpu:wait:sync:io:suspension", or the first alone.
static bool take_times(const blob_record_t &b, const char *text) {
  segment_fp_t *s = b.segment;
  uint64_t *const times[] = {&s->fp_cputime, &s->fp_waittime, &s->fp_synctime, &s->fp_iotime, &s->fp_suspensiontime};
  const char *part = text;
  for (int came = 0; came < 5; ++came) {
    *times[came] = static_cast<uint64_t>(tqp_read_number(part));
    const char *colon = strchr(part, ':');
    if (!colon && (came == 0 || came == 4))
      return true;
    if (!colon) {
      tell_missing_time(b, came + 1);
      return false;
    }
    part = colon + 1;
  }
  return true;
}

static bool take_response_time(const blob_record_t &b, const char *text) {
  b.segment->resp_time_from_bci = static_cast<uint64_t>(tqp_read_number(text));
  return true;
}

static bool take_url_id(const blob_record_t &b, const char *text) {
  b.segment->bci_urlid = tqp_read_number(text);
  return true;
}

static bool take_gc_flag(const blob_record_t &b, const char *text) {
  b.segment->gcOver = static_cast<int8_t>(tqp_read_number(text));
  return true;
}

static bool take_trace_request(const blob_record_t &b, const char *text) {
  b.fp().trace_request = atoi(text);
  return true;
}

// -1 stands for the instance's own texts: both together, else its tags, else its attributes.
static bool take_tag_id(const blob_record_t &b, const char *text) {
  const auto &map = b.inst->tags_map;
  const int64_t id = tqp_read_number(text);
  b.segment->tags_norm_id = 0;
  if (id != -1) {
    if (map.at_or_zero(id) == 0 || id == 0)
      get_meta_data_for_events_from_bci(b.inst, TQ_EV_TAGS, id, wllb_now() - g_vex_epoc_diff);
    b.segment->tags_norm_id = map.at_or_zero(id);
    return true;
  }
  for (int own = 3; own >= 1 && b.segment->tags_norm_id == 0; --own)
    b.segment->tags_norm_id = map.at_or_zero(own);
  return true;
}

static bool take_type(const blob_record_t &b, const char *text) {
  tqp_set_flowpath_type(b.segment, tqp_read_number(text));
  return true;
}

static bool take_correlation_id(const blob_record_t &b, const char *text) {
  char *stored = b.segment->correlationid;
  const size_t room = sizeof b.segment->correlationid;
  if (*stored && strncmp(stored, text, room - 1) != 0)
    wllb_trace(
        1, "Error",
        "Correlation id received with %d record (%s) is not same as one received with %d record (%s); main_fpi = %lld; self_fpi = %lld; Saving the one received with %d record in flowpath table.",
        b.event_id, text, b.event_id == TQ_EV_SEGMENT_SEQ_BLOB_COMPLETE ? 82 : 2, stored,
        static_cast<long long>(b.tuple.main_fpi), static_cast<long long>(b.tuple.self_fpi), b.event_id);
  wllb_copy_text(stored, room, text);
  return true;
}

static bool drop_field(const blob_record_t &, const char *) {
  return true;
}

constexpr int IN_4 = 1, IN_44 = 2, IN_84 = 4;

struct tail_field {
  int events; // the closing records that have it
  bool (*take)(const blob_record_t &b, const char *text);
};

static constexpr tail_field tail_fields[] = {
    {IN_4 | IN_44 | IN_84, take_times},
    {IN_4 | IN_44 | IN_84, take_response_time},
    {IN_4 | IN_44 | IN_84, take_url_id},
    {IN_4 | IN_84, take_gc_flag},
    {IN_4 | IN_84, drop_field},
    {IN_4, take_trace_request},
    {IN_4, take_tag_id},
    {IN_4 | IN_44 | IN_84, take_type},
    {IN_4 | IN_44 | IN_84, take_correlation_id},
};

// Fields are read as long as a comma lies ahead; the rest of the line is the blob.
static bool read_tail(const blob_record_t &b) {
  const int event = b.event_id == TQ_EV_SEQ_BLOB_COMPLETE        ? IN_4
                    : b.event_id == TQ_EV_SEQ_BLOB_COMPLETE_EXIT ? IN_44
                                                                 : IN_84;
  for (const tail_field &field : tail_fields) {
    if (!(field.events & event))
      continue;
    if (!memchr(b.f->pos, ',', static_cast<size_t>(b.f->end - b.f->pos)))
      return true;
    char *text = b.f->next();
    const bool keeps_old = *text == 0 || strcmp(text, "-") == 0;
    if (!keeps_old && !field.take(b, text))
      return false;
  }
  return true;
}

static void raise_clocks(const blob_record_t &b) {
  if (b.segment->resp_time_from_bci == 0)
    return;
  const auto end = static_cast<time_t>(b.segment->resp_time_from_bci / 1000 + b.segment->begin_ts);
  for (time_t *clock : {&b.inst->last_timestamp, &b.fp().last_fp_timestamp, &b.inst->fp_last_updated_ts_in_sec})
    if (*clock < end)
      *clock = end;
}

// --- the blob ------------------------------------------------------------------------------------------------------

// The blob's last byte is not looked at. Behind an empty field the text is over before it has begun.
static bool has_comma(const blob_record_t &b) {
  const auto len = b.f->end - b.f->pos;
  if (len < 2 || *b.f->pos == 0 || !memchr(b.f->pos, ',', static_cast<size_t>(len) - 1))
    return false;
  wllb_trace(
      1, "Critical",
      "Critical Error in Raw Data, App Instance: %s, Raw data file line # %lld; Found extra comma which is not expected: %.*s, skipping.",
      b.inst->tier_server_app_name, static_cast<long long>(b.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
      static_cast<int>(len - 1), b.f->pos);
  tqp_count_invalid_record(b.inst);
  return true;
}

static int run_parser(const blob_record_t &b) {
  blob_reader r = {b.inst, b.segment, b.slot, b.f->pos, b.f->pos, b.f->end, b.event_id};
  return b.is_exit_form() ? process_seq_blob_from_bci_ex(&r) : process_seq_blob_from_bci(&r);
}

static void count_large_flowpath(const blob_record_t &b) {
  if (b.segment->entry_exit_methods_count <= tqp_mon_large_flowpath_method_count)
    return;
  tqp_instance_mon_stat_info_t &stats = b.inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.large_flowpaths_count;
}

static void work_between_pieces(const blob_record_t &b) {
  if (b.event_id == TQ_EV_SEQ_BLOB_COMPLETE_EXIT)
    create_sqb_and_append_fp_signature(b.inst, b.segment);
  else if (!b.closes())
    clean_segment_sql_timing_array(b.inst, &b.fp(), b.segment);
}

// --- the end of a segment ------------------------------------------------------------------------------------------

// The agent's response time stands only when it is far from the last record's time; a record time before it counts as
// far, since the difference wraps.
static void settle_response_time(const blob_record_t &b) {
  segment_fp_t *s = b.segment;
  if (s->resp_time_from_bci == 0)
    return;
  const uint64_t difference = static_cast<uint64_t>(s->last_record_timestamp) - s->resp_time_from_bci;
  if (difference < static_cast<uint64_t>(tqp_threshold_diff_bet_fp_and_entry_mtd_resptime)) {
    s->response_time = static_cast<uint64_t>(s->last_record_timestamp);
    return;
  }
  wllb_trace(
      1, "Warning",
      "Warning in Raw Data, App Instance: %s, Raw data file line # %lld; main_fpi=%lld; self_fpi=%lld; Difference between last record Timestamp (%d) and flowpath response time (%d) coming from agent is greater then threshold value (%d) (TQP_THRESHOLD_DIFF_BET_FP_AND_ENTRY_MTD_RESPTIME_SEC)",
      b.inst->tier_server_app_name, static_cast<long long>(b.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
      static_cast<long long>(b.tuple.main_fpi), static_cast<long long>(b.tuple.self_fpi),
      static_cast<int>(s->last_record_timestamp), static_cast<int>(s->resp_time_from_bci),
      tqp_threshold_diff_bet_fp_and_entry_mtd_resptime);
  s->response_time = s->resp_time_from_bci;
}

static int end_segment(const blob_record_t &b, int result) {
  settle_response_time(b);
  if (b.segment->entry_methods_count < 1) {
    tqp_rawdata_error(b.inst, "FPI = %lldFing flowpath complete record with 0 methods.",
                      static_cast<long long>(b.tuple.self_fpi));
    result = -2;
  } else {
    bcig_dump_flowpath(b.inst, b.slot, b.segment);
  }
  ++b.inst->sum_rep_counters[SUM_REP_CNT_COMPLETE_FLOWPATHS];
  return result;
}

static bool read_record(blob_record_t &b) {
  if (!read_names(b) || !find_segment(b))
    return false;
  if (b.closes()) {
    if (!read_head(b) || !read_tail(b))
      return false;
    raise_clocks(b);
  }
  b.segment->self_fpi = b.tuple.self_fpi;
  b.fp().last_processed_ts = wllb_monotonic_s();
  return !has_comma(b);
}

void process_record_bci_seqblob(tqp_instance_t *inst, tqp_fields *f, int event_id) {
  blob_record_t b = {inst, f, event_id, {}, -1, nullptr};
  if (!read_record(b))
    return;
  int result = run_parser(b);
  count_large_flowpath(b);
  work_between_pieces(b);
  if (b.closes() || result == 1)
    result = end_segment(b, result);
  // The flowpath may be over by now, and its slot free.
  if (result == -2 && b.fp().main_fpi == b.tuple.main_fpi)
    tqp_clean_flowpath(inst, b.slot);
}
