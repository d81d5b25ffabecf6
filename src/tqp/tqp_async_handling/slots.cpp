// The table of flowpaths in flight, and the ring of those written lately.
//   In      main_fpi of records
//   Out     slot numbers: always the lowest free one, else the next behind the last, so the table stays dense
//   Thread  the instance's
//   Failure memory that cannot be had ends the process
// Beside the table stand an index by main_fpi (open addressing; an entry that goes is filled up from behind, so nothing
// piles up however many flowpaths pass) and one bit a slot, read a word at a time.

#include "segment_arrays.h"
#include "tqp_async_handling.h"

#include <algorithm>
#include <bit>

static constexpr wllb_growth fp_index_growth = {.first = 256, .step = 0, .label = "fp_slot_index"};
static constexpr wllb_growth busy_growth = {.first = 1, .step = 0, .label = "fp_slot_index.busy"};
static constexpr const char *con_fp_buf_label = "tqp_instance_tptr->con_fp_buf";

// --- index by main_fpi ------------------------------------------------------------------------------------------

static int64_t main_fpi_at(const tqp_instance_t *inst, int32_t place_value) {
  return inst->con_fp_buf.data[place_value - 1].main_fpi;
}

// The place where a number's search begins. Both halves of the number count: its fields lie anywhere in it.
static uint32_t first_place(const fp_slot_index_t &index, int64_t main_fpi) {
  const auto fpi = static_cast<uint64_t>(main_fpi);
  const uint64_t mixed = (fpi ^ fpi >> 32U) * 0x9E3779B97F4A7C15U;
  return static_cast<uint32_t>(mixed >> 32U) & static_cast<uint32_t>(index.places.size - 1);
}

static uint32_t next_place(const fp_slot_index_t &index, uint32_t place) {
  return (place + 1) & static_cast<uint32_t>(index.places.size - 1);
}

int tqp_find_flowpath(const tqp_instance_t *inst, int64_t main_fpi) {
  const fp_slot_index_t &index = inst->fp_slot_index;
  if (index.taken == 0 || main_fpi == 0)
    return -1;
  uint32_t place = first_place(index, main_fpi);
  while (index.places.data[place] != 0 && main_fpi_at(inst, index.places.data[place]) != main_fpi)
    place = next_place(index, place);
  return index.places.data[place] - 1;
}

// Slots with the same main_fpi stand in rising order, so that the lowest is found.
static void put_in_place(tqp_instance_t *inst, int slot) {
  fp_slot_index_t &index = inst->fp_slot_index;
  int32_t carried = slot + 1;
  const int64_t main_fpi = main_fpi_at(inst, carried);
  uint32_t place = first_place(index, main_fpi);
  for (; index.places.data[place] != 0; place = next_place(index, place)) {
    int32_t &met = index.places.data[place];
    if (met > carried && main_fpi_at(inst, met) == main_fpi)
      std::swap(met, carried);
  }
  index.places.data[place] = carried;
  ++index.taken;
}

// Calls f(slot) for each occupied slot in rising order.
template <class F> static void for_each_busy(const tqp_instance_t *inst, const F &f) {
  const wllb_zarray<uint64_t> &busy = inst->fp_slot_index.busy;
  for (int64_t word = 0; word < busy.size; ++word)
    for (uint64_t bits = busy.data[word]; bits != 0; bits &= bits - 1)
      f(static_cast<int>(word * 64 + std::countr_zero(bits)));
}

// Enters an occupied slot whose busy bit is not set yet.
static void add_to_index(tqp_instance_t *inst, int slot) {
  fp_slot_index_t &index = inst->fp_slot_index;
  if ((index.taken + 1) * int64_t{2} > index.places.size) {
    const int64_t size = wllb_grown_size(index.places.size, index.places.size + 1, fp_index_growth);
    wllb_zarray_free(index.places, fp_index_growth);
    const size_t bytes = static_cast<size_t>(size) * sizeof *index.places.data;
    index.places = {static_cast<int32_t *>(wllb_new_block(bytes, fp_index_growth.label)), size};
    index.taken = 0;
    for_each_busy(inst, [inst](int busy) { put_in_place(inst, busy); });
  }
  put_in_place(inst, slot);
}

// Fills a place that became free from behind, until no search needs to pass it.
static void close_gap(tqp_instance_t *inst, uint32_t gap) {
  fp_slot_index_t &index = inst->fp_slot_index;
  const auto mask = static_cast<uint32_t>(index.places.size - 1);
  for (uint32_t place = next_place(index, gap); index.places.data[place] != 0; place = next_place(index, place)) {
    const uint32_t first = first_place(index, main_fpi_at(inst, index.places.data[place]));
    if (((place - first) & mask) < ((place - gap) & mask))
      continue; // its search begins behind the gap
    index.places.data[gap] = index.places.data[place];
    gap = place;
  }
  index.places.data[gap] = 0;
}

static void remove_from_index(tqp_instance_t *inst, int slot) {
  fp_slot_index_t &index = inst->fp_slot_index;
  uint32_t place = first_place(index, inst->con_fp_buf.data[slot].main_fpi);
  while (index.places.data[place] != 0 && index.places.data[place] != slot + 1)
    place = next_place(index, place);
  if (index.places.data[place] == 0)
    return;
  close_gap(inst, place);
  --index.taken;
}

// --- which slots are free -----------------------------------------------------------------------------------------

static uint64_t busy_bit(int slot) {
  return uint64_t{1} << (static_cast<unsigned>(slot) % 64U);
}

// The lowest free slot up to last_occupied_fp_idx, or -1.
static int lowest_free_slot(const tqp_instance_t *inst) {
  const int last = inst->last_occupied_fp_idx;
  for (int word = 0; word * 64 <= last; ++word) {
    const uint64_t bits = ~inst->fp_slot_index.busy.data[word];
    if (bits == 0)
      continue;
    const int slot = word * 64 + std::countr_zero(bits);
    return slot <= last ? slot : -1;
  }
  return -1;
}

// The highest occupied slot up to `slot`, or -1.
static int highest_busy_slot(const tqp_instance_t *inst, int slot) {
  uint64_t wanted = busy_bit(slot) | (busy_bit(slot) - 1);
  for (int word = slot / 64; word >= 0; --word, wanted = UINT64_MAX) {
    const uint64_t bits = inst->fp_slot_index.busy.data[word] & wanted;
    if (bits != 0)
      return word * 64 + 63 - std::countl_zero(bits);
  }
  return -1;
}

// --- the table ------------------------------------------------------------------------------------------------------

// The memory doubles; what the table counts as its own grows by `more`.
static void add_slots(tqp_instance_t *inst, int more, const char *label) {
  const int64_t before = inst->cur_max_concurrent_flowpaths, slots = before + more;
  wllb_zarray_reserve(inst->con_fp_buf, slots, {.first = slots, .step = 0, .label = label});
  wllb_zarray_reserve(inst->fp_slot_index.busy, slots / 64 + 1, busy_growth);
  for (int64_t slot = before; slot < slots; ++slot)
    inst->con_fp_buf.data[slot].method_stack_tail_index = -1;
  inst->cur_max_concurrent_flowpaths = static_cast<int>(slots);
}

int get_concurrent_flowpath_free_idx(tqp_instance_t *inst) {
  if (inst->method_first_time) {
    inst->method_first_time = 0;
    inst->last_occupied_fp_idx = -1;
    inst->cur_max_concurrent_flowpaths = 0;
    add_slots(inst, init_concurrent_flowpaths, "concurrent fp buffer");
  }
  const int free_slot = lowest_free_slot(inst);
  if (free_slot >= 0)
    return free_slot;
  if (inst->last_occupied_fp_idx + 1 >= inst->cur_max_concurrent_flowpaths)
    add_slots(inst, delta_concurrent_flowpaths, con_fp_buf_label);
  return ++inst->last_occupied_fp_idx;
}

void tqp_occupy_flowpath(tqp_instance_t *inst, int slot, int64_t main_fpi) {
  if (slot < 0 || slot >= inst->cur_max_concurrent_flowpaths || main_fpi == 0)
    return;
  concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
  if (fp.main_fpi == main_fpi)
    return;
  uint64_t &word = inst->fp_slot_index.busy.data[slot / 64];
  if (fp.main_fpi != 0) {
    remove_from_index(inst, slot);
    word &= ~busy_bit(slot);
  }
  fp.main_fpi = main_fpi;
  add_to_index(inst, slot);
  word |= busy_bit(slot);
  inst->last_occupied_fp_idx = std::max(inst->last_occupied_fp_idx, slot);
}

template <class T> static record_array<T> emptied(const record_array<T> &array) {
  return {array.data, 0, array.room};
}

void tqp_free_flowpath_slot(tqp_instance_t *inst, int slot) {
  if (slot < 0 || slot >= inst->cur_max_concurrent_flowpaths)
    return;
  concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
  if (fp.main_fpi != 0) {
    remove_from_index(inst, slot);
    inst->fp_slot_index.busy.data[slot / 64] &= ~busy_bit(slot);
  }
  concurrent_flowpath_t fresh = {};
  fresh.seg_arr = emptied(fp.seg_arr);
  fresh.pending_seg_arr = emptied(fp.pending_seg_arr);
  fresh.ipmrt = emptied(fp.ipmrt);
  fp = fresh;
  if (slot == inst->last_occupied_fp_idx)
    inst->last_occupied_fp_idx = highest_busy_slot(inst, slot);
}

// Every slot of the pool goes back, and gives up what it has kept for its next user.
template <class T> static void free_pool_memory(wllb_mp_handler *pool, void (*free_memory)(T *)) {
  wllb_mp_free_all_slots(pool);
  for (wllb_mp_slot *slot = pool->free_head; slot; slot = slot->next)
    free_memory(reinterpret_cast<T *>(slot));
}

void tqp_free_flowpath_store(tqp_instance_t *inst) {
  free_pool_memory(&inst->tqp_flowpath_seg_pool, tqp_free_segment_memory);
  free_pool_memory(&inst->tqp_flowpath_pending_seg_pool, tqp_free_pending_segment_memory);
  for (int slot = 0; slot < inst->cur_max_concurrent_flowpaths; ++slot) {
    concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
    record_array_free(fp.seg_arr, "Segment Array");
    record_array_free(fp.pending_seg_arr, "Pending Segment Array");
    record_array_free(fp.ipmrt, "ipmrt");
  }
  wllb_zarray_free(inst->con_fp_buf, {.first = 0, .step = 0, .label = con_fp_buf_label});
  wllb_zarray_free(inst->fp_slot_index.places, fp_index_growth);
  wllb_zarray_free(inst->fp_slot_index.busy, busy_growth);
  inst->fp_slot_index.taken = 0;
  inst->cur_max_concurrent_flowpaths = 0;
  inst->last_occupied_fp_idx = -1;
  inst->method_first_time = 1;
}

// --- flowpaths written lately -----------------------------------------------------------------------------------

enum ring_look { RING_GO_ON, RING_FOUND, RING_END };

// Looks at entries `from` down to `to`; an entry of 0 was never written, nor was any before it.
static ring_look look_back(const int64_t *ring, int from, int to, int64_t fpi) {
  for (int i = from; i >= to; --i) {
    if (ring[i] == 0)
      return RING_END;
    if (ring[i] == fpi)
      return RING_FOUND;
  }
  return RING_GO_ON;
}

// The oldest entry, which is the one about to be overwritten, is never looked at; right after a wrap nothing is.
static bool is_in_ring(const int64_t *ring, int size, int at, int64_t fpi) {
  if (at == 0)
    return false;
  ring_look look = look_back(ring, at - 1, 0, fpi);
  if (look == RING_GO_ON)
    look = look_back(ring, size - 1, at + 1, fpi);
  return look == RING_FOUND;
}

int is_flowpath_instance_duplicate(tqp_instance_t *inst, int64_t fpi) {
  const auto size = static_cast<int>(std::min<int64_t>(max_fi_array_entries, inst->recent_fpi_array.size));
  if (size < 1)
    return 0;
  int &at = inst->cur_fpi_index;
  if (at < 0 || at >= size)
    at = 0;
  if (is_in_ring(inst->recent_fpi_array.data, size, at, fpi))
    return 1;
  inst->recent_fpi_array.data[at] = fpi;
  at = at == size - 1 ? 0 : at + 1;
  return 0;
}
