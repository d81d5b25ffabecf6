// Records that stand beside a call tree: captured headers, attributes, arguments, bodies, messages, exceptions.
//   In      a segment; names and values become local header ids, announced on first use
//   Out     lines
//   Thread  one
//   Failure none
// Sample: 12,71:71:0:71,3:21|4:<text/html>    31,71:71:0:71,1772442000123,1,2,1,120,3,1,2
#include "sample_flowpath.h"
#include "sample_records.h"

int32_t sample_any_header_id(sample_stream_t &stream, sample_header_use use) {
  return sample_any_id(stream, SAMPLE_HEADER, stream.tier->headers[use]);
}

void sample_put_side_front(std::string &out, int event, const sample_tuple &fpi) {
  sample_put(out, event, ',');
  sample_put_tuple(out, fpi);
  sample_put_one(out, ',');
}

int32_t sample_header_id(sample_stream_t &stream, sample_header_use use, uint32_t place) {
  const sample_range &among = stream.tier->headers[use];
  return sample_any_id(stream, SAMPLE_HEADER, {among.first + place, 1});
}

// --- headers --------------------------------------------------------------------------------------------------

// A name and what may stand behind it: one of the values that go by an id, or a literal made on the spot.
struct header_row {
  sample_header_name name;
  int8_t value;        // place among the values that go by an id; -1: a literal
  const char *literal; // its front; a number from below `most` follows when that is above 0
  uint32_t most;
};

static constexpr header_row request_headers[] = {
    {HEADER_USER_AGENT, 0, "", 0},
    {HEADER_ACCEPT, 2, "", 0},
    {HEADER_ACCEPT_LANGUAGE, 6, "", 0},
    {HEADER_ACCEPT_ENCODING, 5, "", 0},
    {HEADER_HOST, 10, "", 0},
    {HEADER_REFERER, 11, "", 0},
    {HEADER_COOKIE, -1, "SESSION=", 1U << 30U},
    {HEADER_CACHE_CONTROL, 8, "", 0},
    {HEADER_X_FORWARDED_FOR, -1, "10.1.4.", 250},
    {HEADER_X_REQUEST_ID, -1, "req-", 1U << 24U},
    {HEADER_USER_AGENT, 1, "", 0},
    {HEADER_ACCEPT, 3, "", 0},
    {HEADER_ACCEPT_LANGUAGE, 7, "", 0},
};

static constexpr header_row response_headers[] = {{HEADER_CONTENT_TYPE, 4, "", 0},
                                                  {HEADER_CONTENT_LENGTH, -1, "", 40000},
                                                  {HEADER_CACHE_CONTROL, 9, "", 0},
                                                  {HEADER_ETAG, -1, "v-", 100000},
                                                  {HEADER_SERVER, -1, "AcmeServer/", 9},
                                                  {HEADER_VARY, -1, "Accept-Encoding", 0},
                                                  {HEADER_SET_COOKIE, -1, "SESSION=", 1U << 30U}};

// name:value, the value a header id or a literal in angle brackets, which hold neither ">" nor "|" nor ",". Rows follow
// each other from a random one on.
template <size_t N>
static void put_header_items(std::string &out, sample_stream_t &stream, const header_row (&rows)[N], uint32_t count) {
  const uint32_t first = stream.random.below(static_cast<uint32_t>(N));
  for (uint32_t i = 0; i < count; ++i) {
    const header_row &row = rows[(first + i) % N];
    sample_put(out, i > 0 ? "|" : "", sample_header_id(stream, SAMPLE_HEADER_NAME, row.name), ':');
    if (row.value >= 0)
      sample_put_one(out, sample_header_id(stream, SAMPLE_HEADER_VALUE, static_cast<uint32_t>(row.value)));
    else if (row.most > 0)
      sample_put(out, '<', row.literal, stream.random.below(row.most), '>');
    else
      sample_put(out, '<', row.literal, '>');
  }
}

void sample_put_request_headers(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 12, fpi);
  put_header_items(out, stream, request_headers, stream.random.between(2, 6));
  sample_put_one(out, '\n');
}

static void put_response_headers(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 13, fpi);
  sample_put(out, stream.random.chance(95) ? 200 : 404, ',');
  put_header_items(out, stream, response_headers, stream.random.between(1, 4));
  sample_put_one(out, '\n');
}

// An item with the kind of its value: name:1:<4711>, name:2:<17.25>. The byte behind the kind is no comma, since
// commas part the record.
static void put_number_item(std::string &out, sample_stream_t &stream, bool whole) {
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), whole ? ":1:<" : ":2:<");
  sample_put(out, stream.random.below(100000));
  if (!whole)
    sample_put(out, '.', stream.random.between(10, 99));
  sample_put_one(out, '>');
}

static void put_custom_data(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 17, fpi);
  put_number_item(out, stream, true);
  sample_put_one(out, '|');
  put_number_item(out, stream, false);
  sample_put_one(out, '\n');
}

static void put_session_attributes(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 18, fpi);
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_SESSION, 0), ":<user-");
  sample_put(out, stream.random.below(5000), ">|");
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_SESSION, 1), ":<EUR>\n");
}

static void put_method_arguments(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 19, fpi);
  sample_put(out, "0:");
  put_number_item(out, stream, true);
  sample_put(out, "|1:", sample_any_id(stream, SAMPLE_METHOD, stream.tier->layers[SAMPLE_INNER]), ":arg0:");
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ":String:<A-");
  sample_put(out, stream.random.below(9999), ">\n");
}

static void put_message(std::string &out, sample_stream_t &stream, const sample_tuple &fpi, int64_t at_ms) {
  const uint64_t id = stream.random.next();
  sample_put(out, "16,", fpi.self, ',', at_ms, ",Header={JMSMessageID={ID:", id >> 32U,
             "}JMSPriority={4}}Properties={orderId={", id % 100000,
             "}source={checkout}}Text={body={order accepted}}\n");
}

static void put_logged_values(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 20, fpi);
  sample_put(out, "3,", stream.random.below(100000), ',');
  sample_put(out, sample_any_id(stream, SAMPLE_METHOD, stream.tier->layers[SAMPLE_INNER]), ",12,1,0,2,1,0|");
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ',');
  sample_put(out, stream.random.below(1000), '|', fpi.self % 2 == 0 ? "" : "|");
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ",open\n");
}

static void put_body(std::string &out, sample_stream_t &stream, const sample_tuple &fpi, int event) {
  sample_put_side_front(out, event, fpi);
  const uint32_t order = stream.random.below(100000);
  sample_put(out, "1,0,", 20 + order % 380, ",1,application/json,{\"order\":", order, "},\n");
}

void sample_put_side_records(sample_strand &strand, sample_stream_t &stream, const sample_segment &segment) {
  using side_record = void (*)(std::string &, sample_stream_t &, const sample_tuple &);

  static constexpr struct {
    uint32_t percent; // of the segments
    side_record put;
  } rows[] = {{60, put_response_headers},
              {20, put_custom_data},
              {15, put_session_attributes},
              {10, put_method_arguments},
              {4, put_logged_values}};

  sample_random &random = stream.random;
  for (const auto &row : rows)
    if (random.chance(row.percent)) {
      row.put(strand.bytes, stream, segment.fpi);
      sample_end_record(strand);
    }
  for (const int event : {45, 46})
    if (random.chance(5)) {
      put_body(strand.bytes, stream, segment.fpi, event);
      sample_end_record(strand);
    }
  if (random.chance(6)) {
    put_message(strand.bytes, stream, segment.fpi, segment.start_ms + 5);
    sample_end_record(strand);
  }
}

// Class, throwing class, throwing method, line, message, cause, stack trace: the tail that both records share.
static void put_thrown(std::string &out, sample_stream_t &stream) {
  const int32_t cls = sample_any_id(stream, SAMPLE_EXCP_CLS);
  const int32_t thr_cls = sample_any_id(stream, SAMPLE_EXCP_THR_CLS);
  const int32_t thr_mtd = sample_any_id(stream, SAMPLE_EXCP_THR_MTD);
  const int32_t message = sample_any_id(stream, SAMPLE_EXCP_MSG);
  const int32_t cause = stream.random.chance(50) ? sample_any_id(stream, SAMPLE_EXCP_CAUSE) : 0;
  sample_put(out, cls, ',', thr_cls, ',', thr_mtd, ',', stream.random.between(20, 900), ',', message, ',', cause, ',');
  if (stream.random.chance(80))
    sample_put_one(out, sample_any_id(stream, SAMPLE_EXCP_ST));
  else
    sample_put(out, "at com.acme.base.web.Dispatcher.handle(Dispatcher.java:", stream.random.between(20, 400), ')');
  sample_put_one(out, '\n');
}

void sample_put_exception(std::string &out, sample_stream_t &stream, const sample_tuple &fpi, int64_t at_ms,
                          int32_t method_id) {
  const bool extended = stream.random.chance(50);
  sample_put_side_front(out, extended ? 38 : 31, fpi);
  sample_put(out, at_ms / 1000, ','); // seconds since the test's epoch
  if (extended && stream.random.chance(50))
    sample_put(out, method_id, ",88,2,", sample_any_id(stream, SAMPLE_SQL), ',');
  else if (extended)
    sample_put(out, method_id, ",88,0,-1,");
  put_thrown(out, stream);
}
