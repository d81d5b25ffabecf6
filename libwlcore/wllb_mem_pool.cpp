// Slots of one size from chunks that stay until the end, kept in a list of free and a list of busy ones.
//   In      slots that begin with wllb_mp_slot and keep it
//   Out     zeroed slots of fresh chunks, then slots given back, oldest first, as they were left
//   Thread  any with the lock enabled, otherwise one
//   Failure null at the limit; a chunk that cannot be had ends the process with status 1
#include "wllb_mem_pool.h"

#include "wllb_alloc.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>

static constexpr char first_of_chunk = 1; // slot_status

static void append(wllb_mp_slot *&head, wllb_mp_slot *&tail, wllb_mp_slot *slot) {
  slot->prev = tail;
  slot->next = nullptr;
  if (tail)
    tail->next = slot;
  else
    head = slot;
  tail = slot;
}

static void unlink_slot(wllb_mp_slot *&head, wllb_mp_slot *&tail, wllb_mp_slot *slot) {
  if (slot->prev)
    slot->prev->next = slot->next;
  else
    head = slot->next;
  if (slot->next)
    slot->next->prev = slot->prev;
  else
    tail = slot->prev;
}

static std::unique_lock<std::mutex> hold_if_locked(wllb_mp_handler *pool) {
  return pool->handler_flag == 1 ? std::unique_lock(pool->mem_pool_lock.m) : std::unique_lock<std::mutex>();
}

// Everything but the mutex.
static void zero_handler(wllb_mp_handler *pool) {
  pool->handler_flag = 0;
  pool->num_slots_init = 0;
  pool->num_slots_increment = 0;
  pool->num_slots_max = 0;
  pool->free_head = nullptr;
  pool->free_tail = nullptr;
  pool->busy_head = nullptr;
  pool->busy_tail = nullptr;
  pool->slot_size = 0;
  pool->num_malloced_slot = 0;
  pool->error_text = nullptr;
}

int wllb_mp_init(wllb_mp_handler *pool, int slot_size, int init, int increment, int locked) {
  zero_handler(pool);
  if (slot_size < static_cast<int>(sizeof(wllb_mp_slot)))
    return 1;
  pool->slot_size = slot_size;
  pool->num_slots_init = init > 0 ? init : 10;
  pool->num_slots_increment = increment > 0 ? increment : 10;
  pool->handler_flag = locked == 1 ? 1 : 0;
  return 0;
}

// Slots of the next chunk, cut so that all chunks together stay within the limit; below 1 at the limit.
static int64_t next_chunk_slots(const wllb_mp_handler *pool) {
  const int64_t slots = pool->num_malloced_slot == 0 ? pool->num_slots_init : pool->num_slots_increment;
  const int64_t total = pool->num_slots_init + int64_t{pool->num_slots_increment} * pool->num_malloced_slot;
  if (pool->num_slots_max == 0 || total <= pool->num_slots_max)
    return slots;
  return slots - (total - pool->num_slots_max);
}

// Bytes from one slot to the next: any record may begin there.
static size_t slot_stride(const wllb_mp_handler *pool) {
  constexpr size_t alignment = alignof(std::max_align_t);
  return (static_cast<size_t>(pool->slot_size) + alignment - 1) / alignment * alignment;
}

int wllb_mp_create(wllb_mp_handler *pool) {
  const int64_t slots = next_chunk_slots(pool);
  if (slots < 1) {
    pool->error_text = "Memory pool max limit reached";
    return -1;
  }
  const size_t stride = slot_stride(pool);
  char *chunk = static_cast<char *>(calloc(static_cast<size_t>(slots), stride));
  if (!chunk) {
    fprintf(stderr, "Out of Memory (size = %d): %s \n", static_cast<int>(static_cast<size_t>(slots) * stride),
            "Allocating memory pool");
    wllb_exit(1);
  }
  reinterpret_cast<wllb_mp_slot *>(chunk)->slot_status |= first_of_chunk;
  for (int64_t i = 0; i < slots; ++i)
    append(pool->free_head, pool->free_tail, reinterpret_cast<wllb_mp_slot *>(chunk + static_cast<size_t>(i) * stride));
  ++pool->num_malloced_slot;
  return 0;
}

void *wllb_mp_get_slot(wllb_mp_handler *pool) {
  const auto hold = hold_if_locked(pool);
  if (!pool->free_head)
    wllb_mp_create(pool);
  wllb_mp_slot *slot = pool->free_head;
  if (!slot)
    return nullptr;
  unlink_slot(pool->free_head, pool->free_tail, slot);
  append(pool->busy_head, pool->busy_tail, slot);
  return slot;
}

void wllb_mp_free_slot(wllb_mp_handler *pool, void *slot) {
  if (!slot)
    return;
  const auto hold = hold_if_locked(pool);
  auto *freed = static_cast<wllb_mp_slot *>(slot);
  unlink_slot(pool->busy_head, pool->busy_tail, freed);
  append(pool->free_head, pool->free_tail, freed);
}

// The caller holds the lock if any.
static void free_all_busy(wllb_mp_handler *pool) {
  while (pool->busy_head) {
    wllb_mp_slot *slot = pool->busy_head;
    unlink_slot(pool->busy_head, pool->busy_tail, slot);
    append(pool->free_head, pool->free_tail, slot);
  }
}

void wllb_mp_free_all_slots(wllb_mp_handler *pool) {
  const auto hold = hold_if_locked(pool);
  free_all_busy(pool);
}

void wllb_mp_set_max(wllb_mp_handler *pool, int max) {
  const auto hold = hold_if_locked(pool);
  pool->num_slots_max = max;
}

void wllb_mp_destroy(wllb_mp_handler *pool) {
  const auto hold = hold_if_locked(pool);
  free_all_busy(pool);
  // The chunks are collected before the first is freed, since the free list runs through all of them.
  wllb_mp_slot *chunks = nullptr;
  for (wllb_mp_slot *slot = pool->free_head; slot; slot = slot->next) {
    if ((slot->slot_status & first_of_chunk) != 0) {
      slot->prev = chunks;
      chunks = slot;
    }
  }
  while (chunks) {
    wllb_mp_slot *chunk = chunks;
    chunks = chunk->prev;
    free(chunk);
  }
  zero_handler(pool);
}
