// Discovery of SQL texts, prepared (22) and not prepared (23).
//   In      22,8731,9,select * from cart    (hash first)    23,select 1,9    (text first)
//   Out     key_sql_query or key_sql_nonprep_query, which number independently; the instance's sorted SQL map; a row of
//           "TQSQL.csv" or "TQSQL_nonprepared.csv" for a text that is new
//   Thread  the instance's
//   Failure a record of the wrong shape is told and dropped. A local id that is in the map keeps what it has

#include "event_table.h"
#include "local_maps.h"
#include "record_errors.h"
#include "tqp_csv_files.h"

#include <cstring>

struct sql_discovery_t {
  const char *hash; // null in the text-first form
  const char *local_id;
  const char *query;
  int query_len; // bytes to the end of the record; -1 in the text-first form
};

static bool read_hash_first(tq_event &ev, const char *hash, sql_discovery_t *sql) {
  sql->hash = hash;
  sql->local_id = ev.f.next();
  if (ev.f.ended) {
    tqp_incomplete_record(ev.inst);
    return false;
  }
  sql->query_len = static_cast<int>(ev.f.end - ev.f.pos);
  sql->query = ev.f.next();
  if (!ev.f.ended)
    tqp_surplus_fields(ev.inst);
  return ev.f.ended;
}

static bool read_text_first(tq_event &ev, const char *query, sql_discovery_t *sql) {
  sql->hash = nullptr;
  sql->query = query;
  sql->query_len = -1;
  sql->local_id = ev.f.next();
  if (!ev.f.ended)
    wllb_trace(1, "Error", "Error in recover meta data from BCI: %s, More fields than expected.",
               ev.inst->tier_server_app_name);
  return ev.f.ended;
}

static bool read_sql_discovery(tq_event &ev, sql_discovery_t *sql) {
  const char *first = ev.f.next();
  if (ev.f.ended) {
    wllb_trace(
        1, "Error", "Error in meta data record rom BCI: %s, More fields than expected. Raw data file line # %lld; ",
        ev.inst->tier_server_app_name, static_cast<long long>(ev.inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]));
    return false;
  }
  return *first >= '0' && *first <= '9' ? read_hash_first(ev, first, sql) : read_text_first(ev, first, sql);
}

void tq_run_sql_discovery(tq_event &ev) {
  tqp_instance_t *inst = ev.inst;
  sql_discovery_t sql;
  if (!read_sql_discovery(ev, &sql))
    return;
  const int local_id = atoi(sql.local_id);
  if (local_id < 0)
    return tqp_incomplete_record(inst);
  if (dummy_query && strcmp(sql.query, "Unknown") == 0)
    sql.query = dummy_query;

  const bool non_prepared = ev.id == TQ_EV_SQL_NON_PREPARED_DISCOVERY;
  int norm_id = -1;
  int is_new = 0;
  if (*sql.query) {
    wllb_hold hold(key_sql_query_mutex);
    norm_id = wllb_get_or_gen_norm_id(non_prepared ? &key_sql_nonprep_query : &key_sql_query, sql.query, 0, &is_new);
  }
  if (norm_id == -1)
    return;
  if (non_prepared)
    norm_id |= norm_id_flag; // keeps the two tables' ids apart in every map and file
  tqp_store_sql(inst, local_id, norm_id, static_cast<int8_t>(find_query_type(sql.query)));
  if (is_new)
    csv_dump_sql_table(inst, sql.hash ? static_cast<int64_t>(strtoull(sql.hash, nullptr, 10)) : 0, sql.query,
                       sql.query_len, norm_id, 0, non_prepared);
}
