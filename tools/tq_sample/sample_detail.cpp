// More of a request's detail, for one flowpath in three: every form that its items may have, and captured bodies.
//   In      a segment's tuple; names and values become local header ids, announced on first use
//   Out     lines, some of them ahead of the segment's header
//   Thread  one
//   Failure none
// Sample: 14,71,33 and a line of 33 bytes    19,71:71:0:71,0:5:2:<17.25>|2:17:this:6:Cart:<A-17>
// A body is one line, and its first comma stands far behind: its reader, who meets it again as a line, passes over it.
#include "sample_flowpath.h"
#include "sample_records.h"

bool sample_is_detailed(sample_stream_t &stream, const sample_segment &segment) {
  return segment.header_event == 2 && stream.random.chance(33);
}

static int32_t any_method(sample_stream_t &stream) {
  return sample_any_id(stream, SAMPLE_METHOD, stream.tier->layers[SAMPLE_INNER]);
}

// An announcement and its body are one record: nothing may come between them. The flowpath names the body's file, so its
// number stands there alone: a whole tuple is mostly too long for a name.
static void put_captured_body(std::string &out, sample_stream_t &stream, const sample_tuple &fpi, int event) {
  std::string body = "{\"customer\":";
  sample_put(body, 1000 + stream.random.below(5000), ",\"items\":[");
  for (uint32_t left = stream.random.below(12); left > 0; --left)
    sample_put(body, "{\"sku\":\"A-", stream.random.below(9999), "\"},");
  sample_put(body, "{}],\"total\":", stream.random.below(100000), '}');
  sample_put(out, event, ',', fpi.self, ',', body.size(), '\n', body, '\n');
}

static void put_request_body(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  put_captured_body(out, stream, fpi, 14);
}

static void put_response_body(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  put_captured_body(out, stream, fpi, 15);
}

// Names and values in all their forms: a literal may be empty, and hold ':'.
static void put_headers(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 12, fpi);
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_NAME, HEADER_ORIGIN), ":<http://shop.acme.com:8080/>|");
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_NAME, HEADER_IF_NONE_MATCH), ":<>|");
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_NAME, HEADER_ACCEPT_LANGUAGE), ':');
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_VALUE, 6 + stream.random.below(2)), '\n');
}

static void put_session(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 18, fpi);
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_SESSION, 0), ":<guest>\n");
}

// A value that is a header's id instead of a number's text, and one below 0.
static void put_custom_values(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 17, fpi);
  constexpr uint32_t level = 4, value = 1, gold = 12; // loyaltyLevel, basketValue; the level
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_CUSTOM, level), ":1:");
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_VALUE, gold), '|');
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_CUSTOM, value), ":2:<-");
  sample_put(out, stream.random.below(1000), ".125>\n");
}

static void put_arguments(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 19, fpi);
  sample_put(out, "2:", any_method(stream), ":this:");
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ":Cart:<cart-");
  sample_put(out, stream.random.below(9999), ">|0:");
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ":2:<");
  sample_put(out, stream.random.below(1000), ".5>|1:");
  sample_put(out, any_method(stream), ":arg1:");
  sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ":String:");
  sample_put(out, sample_header_id(stream, SAMPLE_HEADER_VALUE, 6), '\n');
}

// A method that logged nothing but that it was there, or two values.
static void put_logged(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  sample_put_side_front(out, 20, fpi);
  sample_put(out, "7,", stream.random.below(100000), ',');
  sample_put(out, any_method(stream), ",-3,1,0,2,1,0");
  if (stream.random.chance(50)) {
    sample_put(out, '|', sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ",paid|");
    sample_put(out, sample_any_header_id(stream, SAMPLE_HEADER_CUSTOM), ',');
    sample_put_one(out, stream.random.below(1000));
  }
  sample_put_one(out, '\n');
}

static void put_told_body(std::string &out, sample_stream_t &stream, const sample_tuple &fpi, int event) {
  sample_put_side_front(out, event, fpi);
  sample_put(out, "0,1,", stream.random.below(400), ",0,text/plain,order accepted,\n");
}

static void put_told_request(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  put_told_body(out, stream, fpi, 45);
}

static void put_told_response(std::string &out, sample_stream_t &stream, const sample_tuple &fpi) {
  put_told_body(out, stream, fpi, 46);
}

using detail_record = void (*)(std::string &, sample_stream_t &, const sample_tuple &);

template <size_t N>
static void put_some(sample_strand &strand, sample_stream_t &stream, const sample_tuple &fpi,
                     const detail_record (&records)[N]) {
  for (const detail_record put : records)
    if (stream.random.chance(60)) {
      put(strand.bytes, stream, fpi);
      sample_end_record(strand);
    }
}

void sample_put_detail_ahead(sample_strand &strand, sample_stream_t &stream, const sample_tuple &fpi) {
  static constexpr detail_record records[] = {put_session, put_logged, put_told_response};
  put_some(strand, stream, fpi, records);
}

void sample_put_detail(sample_strand &strand, sample_stream_t &stream, const sample_tuple &fpi) {
  static constexpr detail_record records[] = {put_request_body, put_headers, put_custom_values, put_arguments,
                                              put_logged,       put_logged,  put_told_request,  put_response_body};
  put_some(strand, stream, fpi, records);
}
