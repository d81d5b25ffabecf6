// The maps from an agent's local ids to norm ids: how they lie in the instance, grow, are written and looked up. A service
// for the readers of records; what becomes of the maps on disk is tqp_recovery.h's.
//   In      local ids and norm ids
//   Out     entries of the instance's maps; marks of what is not saved yet
//   Thread  the instance's
//   Failure an id that no map takes does nothing; one that nobody has told is 0, of a query -1
#pragma once

#include "tqp_main.h"

// One map: where it stands in the instance, how it grows, what saves it, and the event number that names its kind.
struct loc2norm_row {
  loc2norm_bit bit;
  int kind;                              // of tq_event_enum
  wllb_zarray<int> tqp_instance_t::*map; // null: http_header_map, sql_query_map
  const wllb_growth *growth;
  const char *file_name; // of its recovery file
};

extern const loc2norm_row loc2norm_rows[__NUM_LOC2NORM_BITS__]; // by bit

// How each map grows.
extern const wllb_growth method_map_growth, url_map_growth, bci_arg_id_map_growth, resource_map_growth, tags_map_growth,
    excp_map_growth, http_header_map_growth, sql_query_map_growth;

// Adds a query; a local id that is there keeps what it has. The new number of used entries.
int sql_query_map_insert_loc_id(wllb_zarray<sql_query_map_t> *map, int loc_id, int size, int8_t query_type,
                                int norm_id);

// The norm id, or -1 when absent; *out_type (if given) is the query's type, or -1 (255 as a byte).
int sql_query_map_read_loc2norm(const sql_query_map_t *map, int loc_id, int size, int8_t *out_type);

// Index of loc_id in map[low..high], or -1.
int tqp_binary_search(const sql_query_map_t *map, int low, int high, int loc_id);

// Stores what an agent's local id means, over what stood there, and marks the map as unsaved. `bit` names an int map;
// local_id is at most max_local_id, any other does nothing.
void tqp_store_loc2norm(tqp_instance_t *inst, int bit, int64_t local_id, int norm_id);

// The same for a header; the map keeps its own copy of `name`.
void tqp_store_http_header(tqp_instance_t *inst, int64_t local_id, int norm_id, const char *name);

// The same for a query, whose first meaning stays. The first call takes the map's memory.
void tqp_store_sql(tqp_instance_t *inst, int loc_id, int norm_id, int8_t query_type);

// Frees every map of an instance.
void tqp_free_local_maps(tqp_instance_t *inst);

// Frees the header map and its names.
void tqp_free_http_header_map(tqp_instance_t *inst);

// Notes that an entry of a map was written; the second form tells whether any entry of a page was.
void tqp_mark_loc2norm_page(wllb_zarray<uint64_t> *pages, int64_t page);
bool tqp_loc2norm_page_marked(const wllb_zarray<uint64_t> &pages, int64_t page);
void tqp_free_loc2norm_pages(loc2norm_pages_t *pages);
