// A finished row or a full buffer asks for the instance's state to be saved, which flushes every writer; a new label is
// saved at once; the identity record has the maps of the last run read back: calls from the writers and the records up to
// the recovery floor.
#pragma once

struct tqp_instance_t;

// Saves what a restart needs, in this order: local maps (recovery files), the offset, then all output buffers. So a
// restart may repeat records but never reads on behind maps it does not have.
void save_tqp_app_instance_thread_state(tqp_instance_t *inst);

// Rewrites "%s.txt.recovery" with the instance's global texts; a failure is traced.
void tqp_write_recovery_raw_data(tqp_instance_t *inst);

// Loads each map whose bit is in `mask`. A run over a chosen range that finds no file at all ends the process, unless
// its data begins with the agent's own resending.
void read_loc2norm_rec_file(tqp_instance_t *inst, int mask);

// Writes the offset of the instance's raw file if a save is due (flag_to_update_offset). The reader owns it.
void tqp_save_offset(tqp_instance_t *inst);
