// The agent sends its metadata anew: what its local ids meant is forgotten, and with it every flowpath in flight.
//   In      11,x,5 (one kind)    11,x,0 (all kinds)    11,x (all kinds; the flowpaths stay)
//   Out     empty maps, an empty flowpath table; no rows, and not a byte of a recovery file
//   Thread  the instance's
//   Failure a record without its kind is told and clears nothing
// A recovery file keeps the old ids until the next discovery of its kind; that save then writes the map whole.

#include "event_table.h"
#include "flowpath_release.h"
#include "tqp_recovery.h"

// --- maps ---------------------------------------------------------------------------------------------------------

struct new_map_row {
  loc2norm_bit bit;
  int64_t entries; // zeroed; 0: no memory until the next discovery
};

// clang-format off
static constexpr new_map_row new_maps[] = { // in the order in which all are made new
  {LOC2NORM_METHOD,       16384},
  {LOC2NORM_HTTP_HEADER,  0},
  {LOC2NORM_URL,          4096},
  {LOC2NORM_SQL,          0},
  {LOC2NORM_RESOURCE,     4096},
  {LOC2NORM_EXCP_CLS,     0},
  {LOC2NORM_EXCP_THR_CLS, 0},
  {LOC2NORM_EXCP_THR_MTD, 0},
  {LOC2NORM_EXCP_MSG,     0},
  {LOC2NORM_EXCP_ST,      0},
  {LOC2NORM_EXCP_CAUSE,   0},
  {LOC2NORM_BCI_ARG,      16384},
  {LOC2NORM_TAGS,         16384},
};

// clang-format on

static void free_sql_map(tqp_instance_t *inst) {
  wllb_zarray_free(inst->sql_query_map, sql_query_map_growth);
  inst->sql_first_time = 1;
  inst->sql_query_map_size = 0;
}

static void make_map_new(tqp_instance_t *inst, const new_map_row &made) {
  const loc2norm_row &row = loc2norm_rows[made.bit];
  if (row.map) {
    wllb_zarray_free(inst->*row.map, *row.growth);
    wllb_zarray_reserve(inst->*row.map, made.entries, *row.growth);
  } else if (made.bit == LOC2NORM_SQL) {
    free_sql_map(inst);
  } else {
    tqp_free_http_header_map(inst);
  }
  if (made.bit == LOC2NORM_URL)
    inst->url_map.data[0] = norm_id_flag;
  tqp_free_loc2norm_pages(&inst->loc2norm_pages[made.bit]); // they say what the file lacks: from now on, everything
  inst->loc2norm_unsaved_flags &= ~(1 << made.bit);
}

void clear_loc2norm_tables(tqp_instance_t *inst, int kind) {
  for (const new_map_row &made : new_maps)
    if (kind == -1 || kind == loc2norm_rows[made.bit].kind)
      make_map_new(inst, made);
}

// --- flowpaths in flight ------------------------------------------------------------------------------------------

// Their ids mean nothing any more, so nothing of them is written.
static void drop_flowpaths(tqp_instance_t *inst) {
  wllb_trace(1, "Info", "Going to clean FP in Concurrent FP buffer. Last_occupied_fp_idx = %d",
             inst->last_occupied_fp_idx);
  const int last = inst->last_occupied_fp_idx; // moves when the last one is cleaned
  for (int slot = 0; slot <= last; ++slot)
    tqp_clean_flowpath(inst, slot);
}

// --- the record ---------------------------------------------------------------------------------------------------

void tq_run_resend(tq_event &ev) {
  tqp_instance_t *inst = ev.inst;
  inst->disable_req_metadata_from_bci = 0;
  inst->bt_category_flag = 0;
  ev.f.next();
  if (ev.f.ended)
    return clear_loc2norm_tables(inst, -1);
  const char *kind = ev.f.next();
  if (*kind == 0) {
    wllb_trace(
        1, "Error",
        "Incomplete 11 record (Reseinding Meta Data), raw data line number '%d'. Not clearing any local to normalized map tables.",
        static_cast<int>(inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]));
    return;
  }
  const int number = atoi(kind);
  clear_loc2norm_tables(inst, number == 0 ? -1 : number);
  drop_flowpaths(inst);
}
