// A finished row or a full buffer asks for the instance's state to be saved, which flushes every writer: the one call
// from the writers up to the recovery floor.
#pragma once

struct tqp_instance_t;

// Saves what a restart needs, in this order: local maps (recovery files), the offset, then all output buffers. So a
// restart may repeat records but never reads on behind maps it does not have.
void save_tqp_app_instance_thread_state(tqp_instance_t *inst);

// Writes the offset of the instance's raw file if a save is due (flag_to_update_offset). The reader owns it.
void tqp_save_offset(tqp_instance_t *inst);
