// Global ids of tag texts: get or add in key_tags, which needs no lock.
//   In      merged JSON texts of the instances' tags
//   Out     ids from 1 up, the same for all instances; gaps after lost races
//   Thread  set-up and tear-down on main, get_norm_id on any
//   Failure memory that cannot be had ends the process
#pragma once

#include "tqp_main.h"

// Prepares the text table's library. Main calls it before anything else here.
void init_folly_hash();

// Makes key_tags. Called once, by tqp_init.
void tqp_init_norm_table();

// Gives key_tags back, with the texts that get_norm_id copied. No other thread may use it any more.
void tqp_free_norm_table();

// The id of a NUL-terminated text of `text_length` bytes. False when this call added it, which happens once for a text:
// when another thread was first, the id taken in vain is lost. The table keeps a copy of every text, so `kind`, the local
// tag id, has no meaning any more.
bool get_norm_id(std::atomic<uint32_t> *counter, const char *text, int text_length, uint32_t *out_id, int kind);
