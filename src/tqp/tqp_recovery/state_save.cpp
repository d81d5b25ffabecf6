// The one save step of an instance: what a restart needs, then its output.
//   In      the instance's maps, offset and buffers
//   Out     recovery files, the offset file, the data files
//   Thread  the instance's; or the one that closes it when its thread has left
//   Failure each step traces its own and the next one follows
// The order is the point: between two steps a crash repeats records, but never leaves an offset beyond the maps.

#include "state_save.h"

#include "tqp_csv_files.h"
#include "tqp_recovery.h"

void save_tqp_app_instance_thread_state(tqp_instance_t *inst) {
  tqp_write_waiting_metadata(); // ids in the maps have their rows, as far as there is room
  if (!tqp_is_offline())
    write_loc2norm_rec_file(inst, 65535);
  tqp_save_offset(inst);
  csv_dump_all_files(inst);
}
