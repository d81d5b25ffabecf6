// Turns one database call of a blob into what is kept of it: an execution's row, its part in the sums, the numbers per
// kind of query. A query that nobody has told gets a placeholder, so that its calls count.
//   In      a call, by the agent's id of its query
//   Out     "TQSQLRecord.csv", the segment's sums, the instance's *_query_stats; a placeholder in the SQL map and "TQSQL.csv"
//   Thread  the instance's; the norm table is locked, and so are the numbers, which a monitor takes
//   Failure an unknown query is told once and then known by its placeholder

#include "tqp_sql_timing.h"

#include "field_cursor.h"
#include "flowpath_files.h"
#include "local_maps.h"
#include "metadata_request.h"
#include "row_batch.h"
#include "tqp_csv_files.h"

#include <algorithm>

// --- which calls are kept -------------------------------------------------------------------------------------------

struct backend_gate {
  int32_t backend_type;
  const int *enabled; // null: always
};

// clang-format off
static constexpr backend_gate backend_gates[] = {
  { 2, &tqp_enable_jdbc_call},
  { 5, nullptr},
  { 9, &tqp_enable_casscendra_call},
  {10, &tqp_enable_jdbc_call},
  {15, &tqp_enable_mongodb_call},
  {16, &tqp_enable_redix_call},
  {18, &tqp_enable_neo4j_call},
  {19, &tqp_enable_cloundant_call},
  {20, &tqp_enable_bigtable_call},
  {21, &tqp_enable_bigquery_call},
  {22, &tqp_enable_ftp_call},
  {25, &tqp_enable_dynamo_call},
};

// clang-format on

static bool is_kept(int32_t backend_type) {
  for (const backend_gate &gate : backend_gates)
    if (gate.backend_type == backend_type)
      return !gate.enabled || *gate.enabled;
  return false;
}

// --- numbers per kind -----------------------------------------------------------------------------------------------

using query_stats = db_query_stat_data tqp_instance_t::*;

// By find_query_type: 1 select to 6 drop; 0 and the rest are other.
static constexpr query_stats query_stats_by_type[] = {
    &tqp_instance_t::other_query_stats,  &tqp_instance_t::select_query_stats, &tqp_instance_t::insert_query_stats,
    &tqp_instance_t::update_query_stats, &tqp_instance_t::delete_query_stats, &tqp_instance_t::create_query_stats,
    &tqp_instance_t::drop_query_stats};

static void count_execution(db_query_stat_data *stat, double duration) {
  stat->min_duration = std::min(stat->min_duration, duration);
  stat->max_duration = std::max(stat->max_duration, duration);
  stat->total_duration = tqp_finite(stat->total_duration + duration);
  ++stat->query_counts;
}

void update_sql_stats(tqp_instance_t *inst, int query_type, double duration) {
  const double time = tqp_finite(duration);
  const query_stats of_type = query_stats_by_type[query_type >= 1 && query_type <= 6 ? query_type : 0];
  wllb_hold hold(inst->fp_stats_mutex);
  count_execution(&inst->total_query_stats, time);
  count_execution(&(inst->*of_type), time);
}

// --- calls ----------------------------------------------------------------------------------------------------------

// Gives an unknown query the norm id of a text that says so.
static void make_placeholder(tqp_instance_t *inst, const sql_call &call, int32_t local_id) {
  static constexpr char text[] = "Query is not available";
  int is_new = 0;
  int norm_id;
  {
    wllb_hold hold(key_sql_query_mutex);
    norm_id = wllb_get_or_gen_norm_id(&key_sql_query, text, 0, &is_new);
  }
  if (is_new)
    csv_dump_sql_table(inst, call.flowpath_id, text, sizeof text - 1, norm_id, 0, 0);
  tqp_store_sql(inst, local_id, norm_id, static_cast<int8_t>(find_query_type(text)));
}

struct known_query {
  int32_t norm_id; // below 0: unknown
  int8_t type;
};

static known_query find_query(const tqp_instance_t *inst, int32_t local_id) {
  known_query query;
  query.norm_id =
      sql_query_map_read_loc2norm(inst->sql_query_map.data, local_id, inst->sql_query_map_size, &query.type);
  return query;
}

static void make_known(tqp_instance_t *inst, const sql_call &call, int32_t local_id) {
  const int32_t norm_id = find_query(inst, local_id).norm_id;
  if (norm_id > 0 && local_id > 0) [[likely]]
    return;
  get_meta_data_for_events_from_bci(inst, TQ_EV_SQL_DISCOVERY, local_id, 0);
  if (find_query(inst, local_id).norm_id >= 0)
    return;
  wllb_trace(
      1, "Error",
      "Error: Found a method exit record with SQL hash/index '%s' for which corresponding SQL discovery record not found, and also could not get it from BCI",
      call.sql_id);
  make_placeholder(inst, call, local_id);
}

static void keep_execution(tqp_instance_t *inst, segment_fp_t *segment, const sql_call &call, int32_t local_id,
                           const known_query &query) {
  if (tqp_enable_sql_record)
    csv_dump_sql_record(inst, segment, {call.flowpath_id, call.time, call.duration, query.norm_id, call.status});
  if (tqp_enable_sql_timing)
    tq_update_sqlarray(segment, local_id, call.duration, static_cast<uint64_t>(call.time), call.status,
                       call.backend_norm_id);
  update_sql_stats(inst, query.type, call.duration);
}

// The placeholder is made even for a kind of call that is not kept: the query's token in the blob names it.
void process_sql_record_data(tqp_instance_t *inst, segment_fp_t *segment, const sql_call &call) {
  const auto local_id = static_cast<int32_t>(tqp_read_number(call.sql_id));
  if (call.found_norm_id < 1)
    make_known(inst, call, local_id);
  if (!is_kept(call.backend_type))
    return;
  ++segment->dbCallCounts;
  if (local_id <= 0)
    return;
  const known_query query = find_query(inst, local_id);
  if (query.norm_id >= 0)
    keep_execution(inst, segment, call, local_id, query);
}
