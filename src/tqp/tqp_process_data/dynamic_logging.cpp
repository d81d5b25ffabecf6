// Values logged while a method ran (20), and bodies told in a record of their own: of the request (45), the response (46).
//   In      20,81:81:0:81,3,4711,17,12,1,0,2,1,0|5,open||6,7    45,81:81:0:81,1,0,25,1,text/plain,hello
//   Out     a gzip member in the sequence blob file: "20,3,4711,9,12,1,0,2,1,0|2,open||3,7", "45,1,0,25,1,text/plain,hello";
//           its place behind the others of the segment: "partition:offset:length@partition:offset:length"
//   Thread  the instance's
//   Failure a record that is short is told and counted; one of no segment is told; both are dropped

#include "detail_segment.h"
#include "detail_text.h"
#include "event_table.h"
#include "flowpath_files.h"
#include "record_errors.h"

#include <cstring>

constexpr size_t number_size = 21; // with its separator

// --- into the file -------------------------------------------------------------------------------------------------

// The instance's work buffer as an empty text, for as long as one record is put together.
struct record_text {
  tqp_instance_t *inst;
  wllb_text text;

  explicit record_text(tqp_instance_t *owner)
      : inst(owner), text{owner->data_buf.data, 0, static_cast<size_t>(owner->data_buf.size)} {}

  ~record_text() {
    inst->data_buf.data = text.data;
    inst->data_buf.size = static_cast<int64_t>(text.size);
  }

  record_text(const record_text &) = delete;
  record_text &operator=(const record_text &) = delete;
};

static void put_reference(const tqp_instance_t *inst, int64_t offset, size_t length, wllb_text &references,
                          const char *label) {
  const std::string_view partition = inst->partition_name;
  wllb_putter put(references, partition.size() + 1 + 2 * number_size, label);
  if (references.len > 0)
    put.put('@');
  put.put(partition).put(':').num(offset).put(':').unum(length).done(references);
}

static void store_text(tqp_instance_t *inst, std::string_view text, wllb_text &references, const char *label) {
  if (!inst->sqb_fp)
    open_sqb_file(inst); // the offset is known only then
  if (!inst->sqb_fp)
    return; // a place noted now would be another text's in the file that opens later
  const int64_t offset = inst->sqbfile_offset;
  const size_t length = tqp_compress_for_sqb(inst, text);
  if (length == 0)
    return;
  sqb_fwrite(inst, inst->flowpath_sqb_buffer.data, length, false, false);
  inst->sqbfile_offset += static_cast<int64_t>(length);
  put_reference(inst, offset, length, references, label);
}

// --- logged values -------------------------------------------------------------------------------------------------

struct logged_head {
  int32_t first;
  int64_t second;
  int32_t method_id; // local
  int32_t more[6];   // carried through
};

static int64_t number_or_none(tqp_fields &f) {
  const char *text = f.next();
  return *text ? strtoll(text, nullptr, 10) : -1;
}

// False: one of the numbers that must be there is not.
static bool read_head(tqp_fields &f, logged_head *head) {
  head->first = static_cast<int32_t>(number_or_none(f));
  head->second = number_or_none(f);
  head->method_id = static_cast<int32_t>(number_or_none(f));
  for (int32_t &number : head->more)
    number = static_cast<int32_t>(number_or_none(f));
  return head->first != -1 && head->second != -1 && head->method_id != -1;
}

static void put_head(const tqp_instance_t *inst, const logged_head &head, wllb_text &text) {
  wllb_putter put(text, 10 * number_size, "Data Buffer");
  put.num(TQ_EV_DYNAMIC_LOGGING).put(',').num(head.first).put(',').num(head.second).put(',');
  put.num(inst->method_map.at_or_zero(head.method_id));
  for (const int32_t number : head.more)
    put.put(',').num(number);
  put.done(text);
}

// "5,open" with the header's norm id; an empty one is kept, one without a comma is not.
static void put_value(const tqp_instance_t *inst, const char *token, wllb_text &text) {
  const char *comma = strchr(token, ',');
  if (!comma && *token)
    return;
  const std::string_view value = comma ? comma + 1 : "";
  wllb_putter put(text, value.size() + 2 + number_size, "Data Buffer");
  put.put('|');
  if (comma)
    put.num(inst->http_header_map.at_or_zero(atoi(token)).norm_http_header_id).put(',').put(value);
  put.done(text);
}

void tq_run_dynamic_logging(tq_event &ev) {
  constexpr int most_tokens = 1024;
  char *tokens[most_tokens];
  *ev.f.end = 0;
  const int count = get_tokens_with_multi_delimiter(ev.f.pos, tokens, "|", most_tokens);
  tqp_fields f = {tokens[0], tokens[0] + strlen(tokens[0])};
  detail_place place;
  if (!tqp_place_detail(ev.inst, f.next(), &place))
    return;
  logged_head head;
  if (!read_head(f, &head))
    return tqp_incomplete_record(ev.inst);
  tqp_ask_for_method(ev.inst, head.method_id);
  for (int i = 1; i < count; ++i)
    if (strchr(tokens[i], ','))
      tqp_ask_for_header(ev.inst, atoi(tokens[i]));
  const segment_place found = tqp_segment_of_detail(ev.inst, place);
  if (!found.segment)
    return;
  ev.inst->con_fp_buf.data[found.slot].dynamic_logging_enabled = 1;
  record_text record(ev.inst);
  put_head(ev.inst, head, record.text);
  for (int i = 1; i < count; ++i)
    put_value(ev.inst, tokens[i], record.text);
  if (count == 1)
    put_value(ev.inst, "", record.text);
  store_text(ev.inst, wllb_text_view(record.text), found.segment->dynamic_data_buf, "Dynamic Logging Data Buffer");
}

// --- bodies --------------------------------------------------------------------------------------------------------

static void tell_incomplete_body(tqp_instance_t *inst) {
  wllb_trace(1, "Critical",
             "Error in Raw Data, App Instance: %s, Raw data file line # %lld; Found incomplete record, skipping.",
             inst->tier_server_app_name, static_cast<long long>(inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]));
  tqp_count_invalid_record(inst);
}

void tq_run_body_response(tq_event &ev) {
  char *tuple = ev.f.next();
  int32_t numbers[4];
  for (int32_t &number : numbers)
    number = static_cast<int32_t>(ev.f.next_number());
  const std::string_view kind = ev.f.next(), body = ev.f.next();
  if (ev.f.missing)
    return tell_incomplete_body(ev.inst);
  detail_place place;
  if (!tqp_place_detail(ev.inst, tuple, &place))
    return;
  record_text record(ev.inst);
  wllb_putter put(record.text, 5 * number_size + kind.size() + body.size() + 2, "Data Buffer");
  put.num(ev.id).put(',');
  for (const int32_t number : numbers)
    put.num(number).put(',');
  put.put(kind).put(',').put(body).done(record.text);
  segment_fp_t *segment = tqp_segment_of_detail(ev.inst, place).segment;
  if (ev.id == TQ_EV_BODY_OF_REQUEST)
    store_text(ev.inst, wllb_text_view(record.text), segment->request_body_buf, "Request Body Buffer");
  else
    store_text(ev.inst, wllb_text_view(record.text), segment->response_body_buf, "Response Body Buffer");
}
