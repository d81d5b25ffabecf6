// Mutexes that clang can check, and small atomics for what other threads only look at.
//   In      the lock names of each declaration (WLLB_GUARDED_BY)
//   Out     nothing; held is held, released is released
//   Thread  any
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define WLLB_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define WLLB_THREAD_ATTRIBUTE(x)
#endif
#define WLLB_CAPABILITY(x) WLLB_THREAD_ATTRIBUTE(capability(x))
#define WLLB_SCOPED_CAPABILITY WLLB_THREAD_ATTRIBUTE(scoped_lockable)
#define WLLB_GUARDED_BY(x) WLLB_THREAD_ATTRIBUTE(guarded_by(x))
#define WLLB_REQUIRES(...) WLLB_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define WLLB_EXCLUDES(...) WLLB_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define WLLB_ACQUIRE(...) WLLB_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define WLLB_RELEASE(...) WLLB_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define WLLB_NO_THREAD_CHECK WLLB_THREAD_ATTRIBUTE(no_thread_safety_analysis)

struct WLLB_CAPABILITY("mutex") wllb_mutex {
  std::mutex m;

  void lock() WLLB_ACQUIRE() { m.lock(); }

  void unlock() WLLB_RELEASE() { m.unlock(); }
};

// Holds a mutex for a scope.
class WLLB_SCOPED_CAPABILITY wllb_hold {
public:
  explicit wllb_hold(wllb_mutex &mutex) WLLB_ACQUIRE(mutex) : held(mutex) { held.lock(); }

  ~wllb_hold() WLLB_RELEASE() { held.unlock(); }

  wllb_hold(const wllb_hold &) = delete;
  wllb_hold &operator=(const wllb_hold &) = delete;

private:
  wllb_mutex &held;
};

// A flag or counter that one thread writes and others may read at any time, a moment late. Reads and writes as
// the plain number does; no order with other memory is promised.
template <class T> struct wllb_relaxed {
  std::atomic<T> value{};

  wllb_relaxed() = default;

  constexpr wllb_relaxed(T v) : value(v) {} // NOLINT(google-explicit-constructor): stands for the plain number

  operator T() const { return value.load(std::memory_order_relaxed); } // NOLINT(google-explicit-constructor)

  wllb_relaxed &operator=(T v) {
    value.store(v, std::memory_order_relaxed);
    return *this;
  }

  wllb_relaxed(const wllb_relaxed &) = delete;
  wllb_relaxed &operator=(const wllb_relaxed &) = delete;

  T operator+=(T v) { return value.fetch_add(v, std::memory_order_relaxed) + v; }

  T operator-=(T v) { return value.fetch_sub(v, std::memory_order_relaxed) - v; }
};
