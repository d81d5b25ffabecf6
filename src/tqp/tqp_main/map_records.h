// Entries of an instance's maps from the agent's local ids to norm ids, and the marks of unsaved maps.
//   Written by the discovery records of the instance's own thread, and by the reader of the recovery files
#pragma once

#include "wllb_alloc.h"

#include <cstdint>

// Highest local id a map takes; one above it makes its record incomplete. SQL ids have no such limit.
constexpr int64_t max_local_id = 134217727;

// Marks a URL in url_map and a non-prepared query in sql_query_map.
constexpr int32_t norm_id_flag = 0x40000000;

// Bits of loc2norm_unsaved_flags: the map has changed since its recovery file was written.
enum loc2norm_bit {
  LOC2NORM_METHOD = 0,
  LOC2NORM_EXCP_CLS = 1,
  LOC2NORM_EXCP_THR_CLS = 2,
  LOC2NORM_EXCP_THR_MTD = 3,
  LOC2NORM_EXCP_MSG = 4,
  LOC2NORM_EXCP_ST = 5,
  LOC2NORM_EXCP_CAUSE = 6,
  LOC2NORM_URL = 7,
  LOC2NORM_HTTP_HEADER = 8,
  LOC2NORM_SQL = 9,
  LOC2NORM_BCI_ARG = 10,
  LOC2NORM_RESOURCE = 11,
  LOC2NORM_TAGS = 12,
  __NUM_LOC2NORM_BITS__ = 13
};

// One HTTP header name.
struct http_header_map_t {
  int32_t norm_http_header_id; // 0: unknown
  char *http_header_name;      // owned; null: unknown
};

// One query. The map is sorted ascending by loc_id.
struct sql_query_map_t {
  int32_t loc_id;
  int32_t norm_id;   // with norm_id_flag for a non-prepared query
  int8_t query_type; // what find_query_type says of the text
};

// Entries of an indexed map that share one bit below: a page of memory of an int map.
constexpr int64_t loc2norm_page_entries = 1024;

// What a map's recovery file still lacks, so that a save costs the pages that changed, and a map the pages it touched.
// All zero: an untouched map without a file.
struct loc2norm_pages_t {
  wllb_zarray<uint64_t> touched; // bit per page: it has held a norm id since the map was made
  wllb_zarray<uint64_t> unsaved; // bit per page: changed since the file was written; int maps only
  int64_t file_bytes;            // length of the file as written or read last; 0: none, the map is written whole
};
