// Memory that grows by told steps, always zeroed.
//   In      sizes and labels of the callers
//   Out     blocks from the C heap below first_mapped_size, whole pages from there on
//   Thread  any; a block belongs to its caller
//   Failure the process ends with -1: a trace line and the common text on standard error
// Traces: Malloced  $0x7f0c1c000b70$ size 65536, msg=tqp_instance_tptr->method_map
//         Freed pointer $0x7f0c1c000b70$, msg=tqp_instance_tptr->method_map
#include "wllb_alloc.h"

#include "wllb_multi_thread_trace_log.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

// The sanitizers watch heap blocks only, so under them nearly everything comes from the heap.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define WLLB_ALLOC_WATCHED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define WLLB_ALLOC_WATCHED
#endif

// Blocks below this size are the C heap's, which keeps what is given back and hands it out again without page faults.
static constexpr size_t heap_limit = size_t{4} << 20U;

#ifdef WLLB_ALLOC_WATCHED
static constexpr size_t first_mapped_size = size_t{1} << 32U;
#else
static constexpr size_t first_mapped_size = heap_limit;
#endif

static bool is_mapped(size_t size) {
  return size >= first_mapped_size;
}

// A size as the trace texts show it.
static int shown(size_t size) {
  return static_cast<int>(std::min<size_t>(size, INT_MAX));
}

void wllb_exit(int status) {
  fflush(stdout);
  fflush(stderr);
  _exit(status);
}

void wllb_out_of_memory(size_t size, const char *label) {
  fprintf(stderr, "Failed to Realloc Malloced size %ld, msg=%s", static_cast<long>(size), label);
  wllb_exit(-1);
}

void wllb_install_new_handler() {
  std::set_new_handler([] {
    wllb_trace(1, "Critical", "Failed to Malloced size %d, msg=%s", 0, "operator new");
    wllb_out_of_memory(0, "operator new");
  });
}

// NOLINTBEGIN(concurrency-mt-unsafe): called before any thread starts
void wllb_tune_heap() {
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(heap_limit));
  mallopt(M_TRIM_THRESHOLD, static_cast<int>(heap_limit));
}

// NOLINTEND(concurrency-mt-unsafe)

static void *take_zeroed(size_t size) {
  if (!is_mapped(size))
    return calloc(1, size);
  void *pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

static void give_back(void *block, size_t size) {
  if (is_mapped(size))
    munmap(block, size);
  else
    free(block);
}

void *wllb_new_block(size_t size, const char *label) {
  size = std::max<size_t>(size, 1);
  void *block = take_zeroed(size);
  if (!block) {
    wllb_trace(1, "Critical", "Failed to Malloced size %d, msg=%s", shown(size), label);
    wllb_out_of_memory(size, label);
  }
  wllb_trace(4, "Info", "Malloced  $%p$ size %d, msg=%s", block, shown(size), label);
  return block;
}

// Fresh pages are zero; the rest of the last old page may hold what was there before the block shrank.
static void *grow_pages(void *block, size_t old_size, size_t new_size) {
  void *grown = mremap(block, old_size, new_size, MREMAP_MAYMOVE);
  if (grown == MAP_FAILED)
    return nullptr;
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t last_page_end = (old_size + page - 1) / page * page;
  if (new_size > old_size)
    memset(static_cast<char *>(grown) + old_size, 0, std::min(new_size, last_page_end) - old_size);
  return grown;
}

static void *grow_on_heap(void *block, size_t old_size, size_t new_size) {
  void *grown = realloc(block, new_size);
  if (grown && new_size > old_size)
    memset(static_cast<char *>(grown) + old_size, 0, new_size - old_size);
  return grown;
}

static void *grow_across(void *block, size_t old_size, size_t new_size) {
  void *grown = take_zeroed(new_size);
  if (!grown)
    return nullptr;
  memcpy(grown, block, std::min(old_size, new_size));
  give_back(block, old_size);
  return grown;
}

void *wllb_grow_block(void *block, size_t old_size, size_t new_size, const char *label) {
  if (!block)
    return wllb_new_block(new_size, label);
  old_size = std::max<size_t>(old_size, 1);
  new_size = std::max<size_t>(new_size, 1);
  const auto old_address = reinterpret_cast<uintptr_t>(block);
  void *grown = is_mapped(old_size) != is_mapped(new_size) ? grow_across(block, old_size, new_size)
                : is_mapped(new_size)                      ? grow_pages(block, old_size, new_size)
                                                           : grow_on_heap(block, old_size, new_size);
  if (!grown) {
    wllb_trace(1, "Critical", "Failed to Realloc size %d, msg=%s", shown(new_size), label);
    wllb_out_of_memory(new_size, label);
  }
  if (reinterpret_cast<uintptr_t>(grown) != old_address) {
    // NOLINTNEXTLINE: the old address is shown, not used
    wllb_trace(4, "Info", "Freed  $%p$ size %d, msg=%s", reinterpret_cast<void *>(old_address), shown(old_size), label);
    wllb_trace(4, "Info", "Realloced  $%p$ size %d, msg=%s", grown, shown(new_size), label);
  }
  return grown;
}

void wllb_free_block(void *block, size_t size, const char *label) {
  if (!block)
    return;
  wllb_trace(4, "Info", "Freed pointer $%p$, msg=%s", block, label); // before, while the pointer may be looked at
  give_back(block, std::max<size_t>(size, 1));
}

int64_t wllb_grown_size(int64_t have, int64_t needed, const wllb_growth &growth) {
  if (needed <= have)
    return have;
  int64_t size = have > 0 ? have : growth.first;
  if (size >= needed)
    return size;
  if (growth.step > 0) {
    const int64_t steps = (needed - size) / growth.step + ((needed - size) % growth.step != 0 ? 1 : 0);
    return size + steps * growth.step;
  }
  size = std::max<int64_t>(size, 1);
  while (size < needed && size <= INT64_MAX / 2)
    size *= 2;
  return std::max(size, needed);
}
