// The last side segment of a flowpath releases the main segment that has waited for it, and a truncated or broken
// flowpath is cleaned: calls from the writers and the header reader up to completion.
#pragma once

struct tqp_instance_t;

// Cleans a slot: every segment and pending entry is reset and removed, every field zeroed. Nothing is written.
void tqp_clean_flowpath(tqp_instance_t *inst, int slot);
