// Labels and topology that agents tell: global texts and tag sets, and which tier answers which backend.
//   In      records 91, 110, 111, 112; the files of the run before
//   Out     ids of merged texts, "TQTags.csv", "tqIntegrationPoint.conf"
//   Thread  the instance's; the topology is shared, under key_auto_topo_mutex
#pragma once

#include "tqp_main.h"

// --- texts (tag_texts.cpp) ---------------------------------------------------------------------------------------

constexpr int TAG_KIND_ATTRIBUTES = 1;
constexpr int TAG_KIND_TAGS = 2;

// Kind of tag texts among the metadata; "TQMetaDataEx.csv" has no rows of it.
constexpr int METADATA_TYPE_TAGS = 19;

// Takes the text [*p_cursor, end_of_record) as the instance's global attributes (kind 1) or tags (kind 2). write_back 1:
// from a record, ids and rows are made; 0: from the recovery file, whose end points to the last byte.
void tqp_set_global_tags_and_attributes(tqp_instance_t *inst, char **p_cursor, char *end_of_record, int write_back,
                                        int kind);

// A tag set: local id, then its text.
void tqp_process_tags(tqp_instance_t *inst, char **p_cursor, char *end_of_record);

// Gives back the instance's global texts.
void tqp_free_global_texts(tqp_instance_t *inst);

// --- topology (topology.cpp) -------------------------------------------------------------------------------------

void tq_process_auto_topology_discovery_record(char **p_cursor, char *end_of_record);

// Writes the topology file if it lacks a pair; an instance that has read its file to the end, and one that closes.
void tqp_save_auto_topology();

// Reads the topology file of the run before; main, at start.
void tq_build_norm_tables_for_auto_discovery();

// Frees the topology; the end of the process, and of a test.
void tqp_free_auto_topology();
