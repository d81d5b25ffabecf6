// Records of an agent's connection, its announcements, the frames of flowpath records, and records nobody reads.
//   In      values of the caller
//   Out     one line each, at the end of a text
//   Thread  one
//   Failure none
#include "sample_records.h"

#include "sample_tags.h"

#include <iterator>

void sample_put_identity(std::string &out, const sample_instance_t &inst) {
  sample_put(out, "0,", inst.tier, ',', inst.server, ',', inst.app, ',', inst.tier_id, ',', inst.server_id, ',',
             inst.app_id, '\n');
}

void sample_put_connection(std::string &out, bool old_agent) {
  sample_put(out, "99,x,FPGVersion:", old_agent ? "1.0" : "2.0", ",JAVA\n");
}

void sample_put_start_of_agent(std::string &out, const sample_instance_t &inst, std::string_view next_tier) {
  sample_put(out, "11,0,0\n");
  sample_put_labels(out, inst);
  sample_put_topology(out, inst, next_tier);
}

// --- discoveries ----------------------------------------------------------------------------------------------

enum discovery_forms : uint8_t { TEXT_FIRST, EITHER_FIRST, HASH_FIRST_TOO };

struct discovery_row {
  sample_kind kind;
  int event;
  discovery_forms forms;
};

static constexpr discovery_row discovery_rows[] = {
    // clang-format off
  {SAMPLE_METHOD,       5,  TEXT_FIRST},
  {SAMPLE_HEADER,       6,  TEXT_FIRST},
  {SAMPLE_URL,          7,  EITHER_FIRST},
  {SAMPLE_SQL,          22, HASH_FIRST_TOO},
  {SAMPLE_SQL_PLAIN,    23, HASH_FIRST_TOO},
  {SAMPLE_RESOURCE,     26, TEXT_FIRST},
  {SAMPLE_EXCP_CLS,     32, EITHER_FIRST},
  {SAMPLE_EXCP_THR_CLS, 33, EITHER_FIRST},
  {SAMPLE_EXCP_THR_MTD, 34, EITHER_FIRST},
  {SAMPLE_EXCP_MSG,     35, EITHER_FIRST},
  {SAMPLE_EXCP_CAUSE,   36, EITHER_FIRST},
  {SAMPLE_EXCP_ST,      37, EITHER_FIRST},
  {SAMPLE_ARG,          41, EITHER_FIRST},
}; // clang-format on

static_assert(std::size(discovery_rows) == SAMPLE_KINDS);

static uint64_t text_hash(std::string_view text) {
  uint64_t hash = 14695981039346656037U;
  for (const char c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  return hash;
}

void sample_put_discovery(std::string &out, sample_random &random, sample_kind kind, std::string_view text,
                          int32_t local_id) {
  const discovery_row &row = discovery_rows[kind];
  // A text with a comma survives only behind its id, at the end of the line.
  const bool other_form = text.find(',') != std::string_view::npos || random.chance(50);
  if (row.forms == HASH_FIRST_TOO && other_form)
    sample_put(out, row.event, ',', text_hash(text), ',', local_id, ',', text, '\n');
  else if (row.forms == EITHER_FIRST && other_form)
    sample_put(out, row.event, ',', local_id, ',', text, '\n');
  else
    sample_put(out, row.event, ',', text, ',', local_id, '\n');
}

// --- frames of flowpath records -------------------------------------------------------------------------------

void sample_put_tuple(std::string &out, const sample_tuple &fpi) {
  sample_put(out, fpi.self, ':', fpi.root, ':', fpi.parent, ':', fpi.main);
}

void sample_put_header(std::string &out, const sample_header &header) {
  sample_put(out, header.event, header.event == 82 ? ",1," : ",");
  sample_put_tuple(out, header.fpi);
  sample_put(out, ',', header.start_ms / 1000, ',', header.tier_id, ',', header.begin_seq, ',', header.url_id, ',',
             header.query, ',', header.correlation, ',', header.session, ',', header.session % 9973, ',',
             header.session % 31, ',', header.thread_name, ',', header.flowpath_type, ',', header.start_ms % 5,
             ",0,0,0,", header.start_ms, '\n');
}

void sample_put_result(std::string &out, const sample_result &result) {
  sample_put(out, result.event, result.event == 84 ? ",1,0," : result.event == 44 ? ",1," : ",");
  sample_put_tuple(out, result.fpi);
  sample_put(out, ',', result.status, ',', result.category, ',', result.cpu_ms, ':', result.wait_ms, ":0:1:0,",
             result.response_ms, ',');
  if (result.url_id != 0)
    sample_put_one(out, result.url_id);
  else
    sample_put(out, '-');
  if (result.event != 44)
    sample_put(out, ",0,-"); // no garbage collection met; reserved
  if (result.event == 4)
    sample_put(out, ",0,", result.tag_id); // not traced on request
  sample_put(out, ',', result.flowpath_type, ',', result.correlation, ',');
}

void sample_put_piece_front(std::string &out, int event, const sample_tuple &fpi) {
  sample_put(out, event, event == 83 ? ",1,0," : event == 43 ? ",1," : ",");
  sample_put_tuple(out, fpi);
  sample_put_one(out, ',');
}

void sample_put_async_front(std::string &out, const sample_header &header) {
  sample_put(out, "80,1,");
  sample_put_tuple(out, header.fpi);
  sample_put(out, ',', header.start_ms, ',', header.tier_id, ',', header.begin_seq, ',', header.thread_name, ',');
}

// --- records nobody reads -------------------------------------------------------------------------------------

struct skipped_row {
  int event;
  uint32_t min_entries, max_entries; // numbers behind the time stamp, in groups of four
};

static constexpr skipped_row skipped_rows[] = {
    // clang-format off
  {25, 2, 4}, {51, 3, 6}, {52, 3, 6}, {53, 3, 6}, {61, 4, 12}, {62, 1, 3}, {63, 1, 3}, {71, 2, 6}, {72, 2, 6},
  {73, 2, 6}, {74, 2, 6}, {75, 2, 6}, {81, 4, 12}, {86, 2, 3}, {87, 2, 3}, {88, 1, 2}, {89, 1, 2}, {121, 10, 24},
}; // clang-format on

int sample_any_skipped_event(sample_random &random) {
  return random.one_of(skipped_rows).event;
}

static void put_count_groups(std::string &out, sample_random &random, const skipped_row &row) {
  for (uint32_t left = random.between(row.min_entries, row.max_entries); left > 0; --left) {
    const uint64_t bits = random.next();
    sample_put(out, ',', bits & 0xfffU, ':', bits >> 12U & 0x3ffU, ':', bits >> 22U & 0xffU, ':',
               bits >> 30U & 0xffffU);
  }
}

void sample_put_skipped(std::string &out, sample_random &random, int event, int64_t now_ms) {
  sample_put(out, event, ',');
  if (event == 8) {
    const uint64_t bits = random.next();
    sample_put(out, "shop-", bits % 900, ",/srv/acme/shop/app/bin,agent 4.1.", bits >> 16U & 0x1fU, ",process ",
               1000 + (bits >> 32U & 0x7fffU), ",heap 2048m\n");
    return;
  }
  if (event == 85) {
    const int64_t fpi = now_ms << 8U | random.below(256);
    sample_put_tuple(out, {fpi, fpi, 0, fpi});
    sample_put(out, ',', now_ms, ",worker-", random.below(64), ",committed\n");
    return;
  }
  sample_put_one(out, now_ms);
  for (const skipped_row &row : skipped_rows)
    if (row.event == event)
      put_count_groups(out, random, row);
  sample_put_one(out, '\n');
}

void sample_put_end(std::string &out) {
  sample_put(out, "10,\n");
}
