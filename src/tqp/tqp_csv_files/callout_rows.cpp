// The callout text that a segment carries along: one row a callout, joined by '|'.
//   In      callouts, grouped queries and cache calls of the segment's blob
//   Out     text behind callout_buf; it goes to the sequence blob file with the segment
//   Thread  the instance's
//   Failure a callout past the limit of the text is traced and dropped
// Sample:  55,T,1.2.12,0,107,1,0,1000,3.5,,0,0,,,0,0,0,0,0|55,t,1.2.13,-1,-1,-1,-1,1000,,,0,0,,,0,0,0,0,0

#include "field_cursor.h"
#include "flowpath_files.h"

#include <algorithm>

// A longer row is cut.
static constexpr size_t longest_row = 2047;

static bool has_reached_limit(const segment_fp_t *segment) {
  const int64_t countable = INT32_MAX - static_cast<int64_t>(longest_row);
  if (segment->callout_len < std::min(int64_t{tqp_max_callout_len_allowed_in_kb} * 1024, countable))
    return false;
  wllb_trace(
      1, "Warning",
      "tqp_max_callout_len_allowed = '%d'KB and callout length of fp = '%d'. so skipping the data of flowpath = '%lld' from callouts",
      tqp_max_callout_len_allowed_in_kb, segment->callout_len, static_cast<long long>(segment->self_fpi));
  return true;
}

// The number of the thread that the callout belongs to: without its last part once a callout token has shown it.
static std::string_view row_number(const segment_fp_t *segment) {
  const std::string_view number = wllb_text_view(segment->begin_seq_num);
  return segment->f_skip_adding_seq_num_for_call_out ? number.substr(0, number.rfind('.')) : number;
}

static int32_t start_second(const segment_fp_t *segment, const char *start_time) {
  const auto ms = static_cast<int32_t>(start_time ? tqp_read_number(start_time) : 0);
  return static_cast<int32_t>(segment->begin_ts + static_cast<uint64_t>(int64_t{ms / 1000}));
}

static size_t room_for(const callout_row &row, std::string_view number) {
  constexpr size_t numbers_and_commas = 256;
  size_t room = number.size() + numbers_and_commas;
  for (const std::string_view text : {row.get_val, row.backend_type, row.duration, row.status_code, row.net_delay,
                                      row.min_dur, row.max_dur, row.total_dur, row.tot_count, row.err_count})
    room += text.size();
  return room;
}

// ":req:rsp" as two columns.
static void put_net_delay(wllb_putter *out, std::string_view delay) {
  if (delay.starts_with(':'))
    delay.remove_prefix(1);
  const size_t colon = std::min(delay.find(':'), delay.size());
  if (colon > 0)
    out->put(delay.substr(0, colon));
  out->put(',');
  if (colon < delay.size())
    out->put(delay.substr(colon + 1));
}

void csv_dump_callout(tqp_instance_t * /*inst*/, segment_fp_t *segment, const callout_row &row) {
  if (!segment || has_reached_limit(segment))
    return;
  wllb_text &buf = segment->callout_buf;
  const size_t begin = buf.len;
  const std::string_view number = row_number(segment);
  wllb_putter out(buf, room_for(row, number), "FP Callout Buffer");
  if (segment->callout_count != 0)
    out.put('|');
  out.num(row.flowpath != 0 ? row.flowpath : segment->parent_fpi).put(',').put(row.get_val[0]).put(',');
  out.put(number).put('.').put(row.get_val.substr(1)).put(',').num(row.callout_seqnum);
  out.put(',').num(row.backend_id).put(',').put(row.backend_type).put(',').num(row.backend_sub_type);
  out.put(',').num(start_second(segment, row.start_time)).put(',').put(row.duration).put(',').put(row.status_code);
  out.put(',').num(row.async_flag).put(',').num(row.resource_id).put(',');
  put_net_delay(&out, row.net_delay);
  for (const std::string_view text : {row.min_dur, row.max_dur, row.total_dur, row.tot_count, row.err_count})
    out.put(',').put(text);
  out.done(buf);
  wllb_text_cut(buf, begin + longest_row);
  segment->callout_len += static_cast<int32_t>(buf.len - begin);
  ++segment->callout_count;
}
