// The instances: who they are, how they are found, and the life of the thread that serves each.
//   In      raw data files under "<base_dir>/<partition>/tq/raw_data/", names from the collector
//   Out     records in tqp_imap, one detached thread each
//   Thread  discovery on main at start-up, on the control thread afterwards, never two at once
//   Failure a file whose record cannot be made stays unserved until the next discovery; see each function
#pragma once

#include "tqp_main.h"

#include <functional>

// --- set-up (tqp_init.cpp, default_entries.cpp) ----------------------------------------------------------------

// Makes the norm tables, overwrites the keywords that are fixed, rebuilds the tables when resuming, makes the common
// files.
void tqp_init(int online_flag);

// Gives id 0 of each table to its "unknown" text; rows are written only for texts that are new.
void set_default_entries_in_hashmap(tqp_instance_t *inst);

// --- registry and discovery (instance_registry.cpp, discovery.cpp) --------------------------------------------

// Finds instances over the chain of unfinished partitions (periodic 0), or in the newest one (periodic 1), and starts
// their threads. 0, or -1 when the chain cannot be read.
int tqp_discover_instances(int periodic);

// Starts an instance that the collector names; a known name does nothing.
void searchInstanceInHashMap(const char *name);

// Marks an instance as deleted; its thread leaves at its next end of file.
void setInstanceDisableFlag(const char *name);

// 1 while the timed discovery runs, so that its finds are counted.
extern int periodic_scandir_flag;
extern time_t last_scandir_time; // s, monotonic clock: start of the last discovery

// A raw file's name that stands for an instance: two "_" at least, ends in ".txt", does not begin with "agg_data" or a
// dot, no '/', no control byte, at most 255 bytes.
bool filter_tsa_entries(const char *file_name);

// Names of the instance files of a partition, in no order. -1 when the directory cannot be read, else the count.
int get_num_raw_data_files(const char *partition, std::vector<std::string> *names);

// Notes that an instance's thread has a raw file open or has closed it; discovery skips open ones.
void tqp_note_raw_file_open(const char *tier_server_app_name, bool open);

// 0 when the instance's raw file is open.
int check_instance_thread_is_running(const char *name);

// Calls `visit` for each present instance, under tqp_imap_lock.
void tqp_for_each_instance(const std::function<void(tqp_instance_t *)> &visit);

// The thread's last act for its instance: the name goes, the entry is cleared, the slot goes back.
void tqp_release_instance(tqp_instance_t *inst);

// Present entries of the registry.
int tqp_count_instances();

// Destroys the name table, the pool and the registry. Main's last act, and a test fixture's.
void tqp_free_registry();

// --- the life of one instance (instance_thread.cpp) -----------------------------------------------------------

// Installs `inst` as the running thread's instance for a scope, for its lines in the trace log too.
class tqp_running_as {
public:
  explicit tqp_running_as(tqp_instance_t *inst);
  ~tqp_running_as();
  tqp_running_as(const tqp_running_as &) = delete;
  tqp_running_as &operator=(const tqp_running_as &) = delete;

private:
  tqp_instance_t *before;
  wllb_trace_context trace_before;
};

// Thread entry; arg is the instance's record.
void *process_raw_data(void *arg);

void tq_init_app_instance(tqp_instance_t *inst);

// Writes out and frees everything of an instance but its place in the registry. 1 when there was nothing to do, else 0.
int tq_close_app_instance(tqp_instance_t *inst);

// True when the last record of the instance's raw file is the end event.
bool is_tq_data_over_event_logged(const tqp_instance_t *inst);

// Trace mask of an instance by the keyword level.
void set_debug_for_instance(tqp_instance_t *inst);

// Re-reads the trace level file's instance names and gives them (or all) the handle's mask.
void tqp_set_debug_level_on_instance();

// "<tier><sep><server><sep><app>" into dst (n bytes); a null dst does nothing. Returns dst.
char *get_tier_server_app_with_display_name(const tqp_instance_t *inst, char *dst, size_t n, char sep);

// Destroys the norm tables, the common files and what is left of the instances. -1 if an instance's close failed.
int tq_close();
