// Memory that grows by told steps, is always zeroed, and ends the process when there is none left.
//   In      sizes, and a label that names the buffer in traces and in the last message
//   Out     memory from mmap for large blocks (fresh pages are zero and cost nothing until touched), else from the C heap
//   Thread  any; a block belongs to its caller
//   Failure "Failed to Realloc Malloced size %ld, msg=%s" on standard error, exit status -1
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Ends the process with `status` at once: standard streams are flushed, no destructor runs beside live threads.
[[noreturn]] void wllb_exit(int status);

// Prints the common text for memory that cannot be had and ends the process with -1.
[[noreturn]] void wllb_out_of_memory(size_t size, const char *label);

// Makes operator new end the process in the same way. Called once by main.
void wllb_install_new_handler();

// Has the C heap keep up to 4 MiB of unused memory a thread, which a flowpath that ends leaves to the next one. Called once
// by main.
void wllb_tune_heap();

// A zeroed block of `size` bytes (at least 1). Owned by the caller, given back with wllb_free_block.
void *wllb_new_block(size_t size, const char *label);

// Resizes a block made here; the part beyond old_size is zero. A null block is a new one.
void *wllb_grow_block(void *block, size_t old_size, size_t new_size, const char *label);

// Gives a block back; its size must be the one it was made or last grown with. A null block does nothing.
void wllb_free_block(void *block, size_t size, const char *label);

// How an array grows: from empty to `first` entries, then by `step`. A step of 0 doubles.
struct wllb_growth {
  int64_t first;
  int64_t step;
  const char *label;
};

// The capacity that `growth` reaches for `needed` entries, starting from `have`.
int64_t wllb_grown_size(int64_t have, int64_t needed, const wllb_growth &growth);

// A zeroed array. All-zero bytes are a valid empty one. The owner gives it back with wllb_zarray_free.
template <class T> struct wllb_zarray {
  static_assert(std::is_trivially_copyable_v<T>, "entries are moved and zeroed as bytes");
  T *data = nullptr;
  int64_t size = 0; // entries, all of them zero until written

  // The entry, or a zero one when `i` lies outside.
  T at_or_zero(int64_t i) const { return i >= 0 && i < size ? data[i] : T{}; }
};

// Grows the array until it holds `needed` entries.
template <class T> void wllb_zarray_reserve(wllb_zarray<T> &array, int64_t needed, const wllb_growth &growth) {
  if (needed <= array.size)
    return;
  const int64_t size = wllb_grown_size(array.size, needed, growth);
  array.data = static_cast<T *>(wllb_grow_block(array.data, static_cast<size_t>(array.size) * sizeof(T),
                                                static_cast<size_t>(size) * sizeof(T), growth.label));
  array.size = size;
}

template <class T> void wllb_zarray_free(wllb_zarray<T> &array, const wllb_growth &growth) {
  wllb_free_block(array.data, static_cast<size_t>(array.size) * sizeof(T), growth.label);
  array = {};
}
