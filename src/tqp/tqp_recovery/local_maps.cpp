// The maps from an agent's local ids to norm ids: how they grow, how entries go in, how they are freed.
//   In      pairs from the discovery records, and from the reader of the recovery files
//   Out     the instance's maps; the marks of what its recovery files still lack
//   Thread  the instance's; its maps take no lock
//   Failure memory that cannot be had ends the process
// A map indexed by local id has room for its highest one, but only pages that were written to cost memory.

#include "local_maps.h"

#include <algorithm>
#include <cstring>

const wllb_growth method_map_growth = {.first = 16384, .step = 4096, .label = "tqp_instance_tptr->method_map"};
const wllb_growth url_map_growth = {.first = 4096, .step = 4096, .label = "tqp_instance_tptr->url_map"};
const wllb_growth bci_arg_id_map_growth = {.first = 16384, .step = 4096, .label = "tqp_instance_tptr->bci_arg_id_map"};
const wllb_growth resource_map_growth = {.first = 4096, .step = 4096, .label = "tqp_instance_tptr->resource_map"};
const wllb_growth tags_map_growth = {.first = 4096, .step = 4096, .label = "tqp_instance_tptr->tags_map"};
// The exception maps go by the header map's name.
const wllb_growth excp_map_growth = {.first = 4096, .step = 4096, .label = "tqp_instance_tptr->http_header_map"};
const wllb_growth http_header_map_growth = {.first = 4096, .step = 4096, .label = "tqp_instance_tptr->http_header_map"};
const wllb_growth sql_query_map_growth = {.first = 16384, .step = 8192, .label = "TQ SQL Query Map"};

// The memory of the first query goes by the map's own name.
static constexpr wllb_growth first_sql_query_map = {
    .first = 16384, .step = 8192, .label = "tqp_instance_tptr->sql_query_map"};

static constexpr wllb_growth pages_growth = {.first = 8, .step = 0, .label = "loc2norm_pages"};

static constexpr const char *header_name_label = "http_header_name";

// clang-format off
const loc2norm_row loc2norm_rows[__NUM_LOC2NORM_BITS__] = {
  {LOC2NORM_METHOD,       TQ_EV_METHOD_DISCOVERY,        &tqp_instance_t::method_map,       &method_map_growth,      ".TQMetaData.recovery"},
  {LOC2NORM_EXCP_CLS,     TQ_EV_EXCP_CLS_DISCOVERY,      &tqp_instance_t::excp_cls_map,     &excp_map_growth,        ".TQExceptionClass.recovery"},
  {LOC2NORM_EXCP_THR_CLS, TQ_EV_EXCP_THR_CLS_DISCOVERY,  &tqp_instance_t::excp_thr_cls_map, &excp_map_growth,        ".TQExceptionThrowingClass.recovery"},
  {LOC2NORM_EXCP_THR_MTD, TQ_EV_EXCP_THR_MTD_DISCOVERY,  &tqp_instance_t::excp_thr_mtd_map, &excp_map_growth,        ".TQExceptionThrowingMethod.recovery"},
  {LOC2NORM_EXCP_MSG,     TQ_EV_EXCP_MSG_DISCOVERY,      &tqp_instance_t::excp_msg_map,     &excp_map_growth,        ".TQExceptionMessage.recovery"},
  {LOC2NORM_EXCP_ST,      TQ_EV_EXCP_ST_DISCOVERY,       &tqp_instance_t::excp_st_map,      &excp_map_growth,        ".TQExceptionStackTrace.recovery"},
  {LOC2NORM_EXCP_CAUSE,   TQ_EV_EXCP_CAUSE_DISCOVERY,    &tqp_instance_t::excp_cause_map,   &excp_map_growth,        ".TQExceptionCause.recovery"},
  {LOC2NORM_URL,          TQ_EV_URL_DISCOVERY,           &tqp_instance_t::url_map,          &url_map_growth,         ".TQURLTable.recovery"},
  {LOC2NORM_HTTP_HEADER,  TQ_EV_HTTP_HEADER_DISCOVERY,   nullptr,                           &http_header_map_growth, ".TQHTTPHeaderMetaData.recovery"},
  {LOC2NORM_SQL,          TQ_EV_SQL_DISCOVERY,           nullptr,                           &sql_query_map_growth,   ".TQSQL.recovery"},
  {LOC2NORM_BCI_ARG,      TQ_EV_BCI_ARG_META_DATA_EVENT, &tqp_instance_t::bci_arg_id_map,   &bci_arg_id_map_growth,  ".TQBCIArgID.recovery"},
  {LOC2NORM_RESOURCE,     TQ_EV_RESOURCE_DISCOVERY,      &tqp_instance_t::resource_map,     &resource_map_growth,    ".TQIPResourceMetaData.recovery"},
  {LOC2NORM_TAGS,         TQ_EV_TAGS,                    &tqp_instance_t::tags_map,         &tags_map_growth,        ".TQTagsData.recovery"},
};

// clang-format on

// --- which pages were written -----------------------------------------------------------------------------------

void tqp_mark_loc2norm_page(wllb_zarray<uint64_t> *pages, int64_t page) {
  wllb_zarray_reserve(*pages, page / 64 + 1, pages_growth);
  pages->data[page / 64] |= uint64_t{1} << (page % 64);
}

bool tqp_loc2norm_page_marked(const wllb_zarray<uint64_t> &pages, int64_t page) {
  return (pages.at_or_zero(page / 64) >> (page % 64) & 1) != 0;
}

void tqp_free_loc2norm_pages(loc2norm_pages_t *pages) {
  wllb_zarray_free(pages->touched, pages_growth);
  wllb_zarray_free(pages->unsaved, pages_growth);
  pages->file_bytes = 0;
}

// --- entries ----------------------------------------------------------------------------------------------------

static bool is_local_id(int64_t local_id) {
  return local_id >= 0 && local_id <= max_local_id;
}

static void mark_unsaved(tqp_instance_t *inst, int bit) {
  inst->loc2norm_unsaved_flags |= 1 << bit;
}

void tqp_store_loc2norm(tqp_instance_t *inst, int bit, int64_t local_id, int norm_id) {
  const loc2norm_row &row = loc2norm_rows[bit];
  if (!row.map || !is_local_id(local_id))
    return;
  wllb_zarray<int> &map = inst->*row.map;
  wllb_zarray_reserve(map, local_id + 1, *row.growth);
  map.data[local_id] = norm_id;
  const int64_t page = local_id / loc2norm_page_entries;
  tqp_mark_loc2norm_page(&inst->loc2norm_pages[bit].touched, page);
  tqp_mark_loc2norm_page(&inst->loc2norm_pages[bit].unsaved, page);
  mark_unsaved(inst, bit);
}

static void free_header_name(http_header_map_t *entry) {
  if (entry->http_header_name)
    wllb_free_block(entry->http_header_name, strlen(entry->http_header_name) + 1, header_name_label);
  entry->http_header_name = nullptr;
}

void tqp_store_http_header(tqp_instance_t *inst, int64_t local_id, int norm_id, const char *name) {
  if (!is_local_id(local_id))
    return;
  wllb_zarray_reserve(inst->http_header_map, local_id + 1, http_header_map_growth);
  const size_t size = strlen(name) + 1;
  auto *copy = static_cast<char *>(wllb_new_block(size, header_name_label));
  memcpy(copy, name, size);
  http_header_map_t *entry = &inst->http_header_map.data[local_id];
  free_header_name(entry); // only now: `name` may be the entry's own
  *entry = {.norm_http_header_id = norm_id, .http_header_name = copy};
  tqp_mark_loc2norm_page(&inst->loc2norm_pages[LOC2NORM_HTTP_HEADER].touched, local_id / loc2norm_page_entries);
  mark_unsaved(inst, LOC2NORM_HTTP_HEADER);
}

void tqp_store_sql(tqp_instance_t *inst, int loc_id, int norm_id, int8_t query_type) {
  if (inst->sql_first_time) {
    wllb_zarray_reserve(inst->sql_query_map, first_sql_query_map.first, first_sql_query_map);
    inst->sql_query_map_size = 0;
    inst->sql_first_time = 0;
  }
  inst->sql_query_map_size =
      sql_query_map_insert_loc_id(&inst->sql_query_map, loc_id, inst->sql_query_map_size, query_type, norm_id);
  mark_unsaved(inst, LOC2NORM_SQL);
}

// --- the sorted map of queries ----------------------------------------------------------------------------------

int tqp_binary_search(const sql_query_map_t *map, int low, int high, int loc_id) {
  while (low <= high) {
    const int middle = low + (high - low) / 2;
    if (map[middle].loc_id == loc_id)
      return middle;
    if (map[middle].loc_id < loc_id)
      low = middle + 1;
    else
      high = middle - 1;
  }
  return -1;
}

// First index of map[0..size) whose loc_id is greater. Agents hand out rising ids, so that is mostly the end.
static int place_of(const sql_query_map_t *map, int size, int loc_id) {
  int place = size;
  if (size == 0 || map[size - 1].loc_id < loc_id)
    return place;
  for (int low = 0; low < place;) {
    const int middle = low + (place - low) / 2;
    if (map[middle].loc_id < loc_id)
      low = middle + 1;
    else
      place = middle;
  }
  return place;
}

int sql_query_map_insert_loc_id(wllb_zarray<sql_query_map_t> *map, int loc_id, int size, int8_t query_type,
                                int norm_id) {
  const int place = place_of(map->data, size, loc_id);
  if (place < size && map->data[place].loc_id == loc_id)
    return size;
  wllb_zarray_reserve(*map, int64_t{size} + 1, sql_query_map_growth);
  sql_query_map_t *entry = &map->data[place];
  memmove(entry + 1, entry, static_cast<size_t>(size - place) * sizeof *entry);
  memset(entry, 0, sizeof *entry); // the bytes behind query_type go to the file, too
  entry->loc_id = loc_id;
  entry->norm_id = norm_id;
  entry->query_type = query_type;
  return size + 1;
}

// Agents number their queries without gaps, as a rule: then a query stands as far behind the first one as its number does.
static int find_query(const sql_query_map_t *map, int loc_id, int size) {
  const int64_t guess = size > 0 ? int64_t{loc_id} - map[0].loc_id : -1;
  if (guess >= 0 && guess < size && map[guess].loc_id == loc_id)
    return static_cast<int>(guess);
  return tqp_binary_search(map, 0, size - 1, loc_id);
}

int sql_query_map_read_loc2norm(const sql_query_map_t *map, int loc_id, int size, int8_t *out_type) {
  const int at = find_query(map, loc_id, size);
  if (out_type)
    *out_type = at < 0 ? -1 : map[at].query_type;
  return at < 0 ? -1 : map[at].norm_id;
}

// --- freeing ----------------------------------------------------------------------------------------------------

static void free_header_names_of_page(tqp_instance_t *inst, int64_t page) {
  const int64_t end = std::min(inst->http_header_map.size, (page + 1) * loc2norm_page_entries);
  for (int64_t i = page * loc2norm_page_entries; i < end; ++i)
    free_header_name(&inst->http_header_map.data[i]);
}

void tqp_free_http_header_map(tqp_instance_t *inst) {
  loc2norm_pages_t *pages = &inst->loc2norm_pages[LOC2NORM_HTTP_HEADER];
  for (int64_t page = 0; page * loc2norm_page_entries < inst->http_header_map.size; ++page)
    if (tqp_loc2norm_page_marked(pages->touched, page))
      free_header_names_of_page(inst, page);
  wllb_zarray_free(inst->http_header_map, http_header_map_growth);
  tqp_free_loc2norm_pages(pages);
}

void tqp_free_local_maps(tqp_instance_t *inst) {
  for (const loc2norm_row &row : loc2norm_rows)
    if (row.map) {
      wllb_zarray_free(inst->*row.map, *row.growth);
      tqp_free_loc2norm_pages(&inst->loc2norm_pages[row.bit]);
    }
  tqp_free_http_header_map(inst);
  wllb_zarray_free(inst->sql_query_map, sql_query_map_growth);
  inst->sql_query_map_size = 0;
  inst->sql_first_time = 1;
  inst->loc2norm_unsaved_flags = 0;
}
