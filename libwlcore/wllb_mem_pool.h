// Hands out slots of one fixed size from chunks that stay until the pool is destroyed.
//   In      the slot size; each slot type begins with wllb_mp_slot
//   Out     zeroed slots the first time, later slots with their old contents (oldest freed first)
//   Thread  any with the lock enabled, otherwise one
//   Failure null when the limit is reached; a chunk that cannot be had ends the process with status 1
#pragma once

#include "wllb_thread.h"

// Head of every slot. A user that clears a slot leaves it as it is.
struct wllb_mp_slot {
  wllb_mp_slot *prev;
  wllb_mp_slot *next;
  char slot_status; // value 1: first slot of its chunk
};

struct wllb_mp_handler {
  char handler_flag;       // 1: take the lock in every operation
  int num_slots_init;      // slots of the first chunk
  int num_slots_increment; // slots of each later chunk
  int num_slots_max;       // limit, 0: none
  wllb_mp_slot *free_head; // slots to hand out, oldest freed first
  wllb_mp_slot *free_tail;
  wllb_mp_slot *busy_head; // slots in use, oldest first
  wllb_mp_slot *busy_tail;
  int slot_size;          // bytes
  int num_malloced_slot;  // chunks allocated, despite the name
  const char *error_text; // why the last chunk was refused; null: never
  wllb_mutex mem_pool_lock;
};

// Sets up a pool; no memory is taken. 1 for a slot size of 0 (below a slot head: 1 too), else 0. init and increment
// not above 0 are taken as 10; `locked` 1 enables the lock.
int wllb_mp_init(wllb_mp_handler *pool, int slot_size, int init, int increment, int locked);

// Takes one chunk and makes it the free list. 0, or -1 when the limit is reached. The caller holds the lock if any.
int wllb_mp_create(wllb_mp_handler *pool);

// A slot, owned by the caller until it is given back; null when the limit is reached.
void *wllb_mp_get_slot(wllb_mp_handler *pool);

// Gives a slot back, contents and all. A null slot does nothing.
void wllb_mp_free_slot(wllb_mp_handler *pool, void *slot);

void wllb_mp_free_all_slots(wllb_mp_handler *pool);
void wllb_mp_set_max(wllb_mp_handler *pool, int max);

// Frees every chunk; the pool must be set up again before it is used.
void wllb_mp_destroy(wllb_mp_handler *pool);
