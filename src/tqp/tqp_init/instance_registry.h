// Making and giving back places in the registry. Private to this group.
#pragma once

#include "tqp_main.h"

// A file's or message's name that can be an instance's: no '/', no control byte, no leading dot, 1 to 255 bytes.
bool tqp_is_instance_name(std::string_view name);

// Closes every file of an instance and frees all it holds but its names. What is still buffered in it is lost.
void tqp_free_instance_data(tqp_instance_t *inst);

// Frees the names of a record; its thread has left, or never ran.
void tqp_free_instance_names(tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock);

// Sizes pool, name table and registry for `raw_files` instance files; what exists is left alone. With 0 files (an instance
// told by name) the pool keeps the present counts.
void tqp_size_registry(int raw_files);

// False, and reported when that begins, while as many instances are served as may be. A name that is refused is met again
// at the next discovery or message.
bool tqp_has_room_for_instance(const char *name);

// Makes registry entries up to `index`. False when there cannot be so many.
bool tqp_imap_reallocator(int index);

// A cleared record for a name, in no place yet; null when the pool gives none.
tqp_instance_t *tqp_new_instance(const char *tier_server_app_name, int jvmid);

// Puts the record in its place, makes its files and starts its thread. Ends the process when no thread can be made.
void tqp_start_instance(tqp_instance_t *inst);
