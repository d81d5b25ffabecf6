// Summaries of like calls that an agent has added up within one method: "G" of identical queries, "C" of cache calls.
//   In      one token of a blob, its parts joined by ':'
//   Out     the rewritten token, a row in the segment's callout text, the segment's counts
//   Thread  the instance's
//   Failure a token without the parts it must have gives -1, without a word
// Samples:  G7:2:40:5:1:9:20:3:1  backend 7, type 2, query 40, 5 calls, four values passed on, 1 error
//           C7:1:2:5:1:3:9:0      method 7, type, sub type, 5 calls, shortest, longest, sum, no error

#include "callout_text.h"

#include "flowpath_files.h"
#include "metadata_request.h"

#include <array>

// The first eight ':' of a token; null from the first one that is not there.
using token_colons = std::array<char *, 8>;

static token_colons find_colons(char *token) {
  token_colons colons = {};
  char *at = token;
  for (char *&colon : colons) {
    colon = strchr(at, ':');
    if (!colon)
      break;
    at = colon + 1;
  }
  return colons;
}

// The row of a group, but for its own columns.
static callout_row group_row(std::string_view type_text, int32_t norm_method_id) {
  callout_row row = {};
  row.get_val = type_text;
  row.backend_id = norm_method_id;
  row.start_time = "0";
  row.status_code = "-";
  row.net_delay = "-";
  return row;
}

// --- queries ------------------------------------------------------------------------------------------------------

static int32_t norm_sql_of_group(blob_reader *r, int32_t sql_id) {
  const auto begin_ts = static_cast<int64_t>(r->segment->begin_ts);
  int32_t norm_id = tqp_norm_sql_id(r->inst, sql_id, begin_ts);
  if (norm_id == 0 || sql_id < 1) {
    get_meta_data_for_events_from_bci(r->inst, TQ_EV_SQL_DISCOVERY, sql_id, begin_ts);
    norm_id = tqp_norm_sql_id(r->inst, sql_id, begin_ts);
  }
  // Used entries, not ids: so groups have always been told apart.
  return sql_id > r->inst->sql_query_map_size ? 0 : norm_id;
}

int handle_grouped_queries(blob_reader *r, char *token) {
  const token_colons colons = find_colons(token);
  if (!colons[2])
    return -1;
  segment_fp_t *const segment = r->segment;
  const int32_t norm_method_id = tqp_norm_method_id(r->inst, static_cast<int32_t>(tqp_blob_number(token + 1)), segment);
  const int32_t norm_sql_id = norm_sql_of_group(r, static_cast<int32_t>(tqp_blob_number(colons[1] + 1)));
  const std::string_view tail = colons[2];
  if (!tqp_has_callout_target(r))
    return -1;
  wllb_putter out = tqp_begin_callout(r, tail.size() + 64);
  out.put('G').num(norm_method_id).put(':').num(static_cast<int32_t>(tqp_blob_number(colons[0] + 1)));
  tqp_end_callout(r, out.put(':').num(norm_sql_id).put(tail));
  callout_row row = group_row("G", norm_method_id);
  row.backend_type = colons[0] + 1; // to the end of the token
  row.backend_sub_type = norm_sql_id;
  csv_dump_callout(r->inst, segment, row);
  // The group's size goes into no count: it is in the token. Only its errors count.
  if (colons[7])
    tqp_add_number(segment->totalError, tqp_blob_number(colons[7] + 1));
  return 0;
}

// --- cache calls --------------------------------------------------------------------------------------------------

// Cuts at all but the third and the seventh ':'.
static void cut_cache_token(const token_colons &colons) {
  for (const size_t i : {0, 1, 3, 4, 5})
    if (colons[i])
      *colons[i] = 0;
}

static void dump_cache_row(blob_reader *r, int32_t norm_method_id, const token_colons &colons) {
  callout_row row = group_row("C", norm_method_id);
  row.backend_type = "";
  if (colons[2])
    row.tot_count = colons[2] + 1;
  if (colons[3])
    row.min_dur = colons[3]; // this and the next two stand at their cut, and are empty
  if (colons[4])
    row.max_dur = colons[4];
  if (colons[5])
    row.total_dur = colons[5];
  if (colons[6])
    row.err_count = colons[6] + 1;
  csv_dump_callout(r->inst, r->segment, row);
}

int handle_coherence(blob_reader *r, char *token) {
  const token_colons colons = find_colons(token);
  if (!colons[0])
    return -1;
  cut_cache_token(colons);
  segment_fp_t *const segment = r->segment;
  const int32_t norm_method_id = tqp_norm_method_id(r->inst, static_cast<int32_t>(tqp_blob_number(token + 1)), segment);
  if (tqp_has_callout_target(r)) // the details are in the row only
    tqp_end_callout(r, tqp_begin_callout(r, 32).put('C').num(norm_method_id));
  dump_cache_row(r, norm_method_id, colons);
  const int64_t tot_count = colons[2] ? tqp_blob_number(colons[2] + 1) : 0;
  tqp_add_number(segment->call_out_count, tot_count);
  tqp_add_number(segment->coherenceCount, tot_count);
  tqp_add_number(segment->totalError, colons[6] ? tqp_blob_number(colons[6] + 1) : 0);
  return 0;
}
