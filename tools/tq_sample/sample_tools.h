// Small tools of the generator: numbers drawn from a seed, and appending to a text without streams or formats.
//   In      a seed; parts of a record
//   Out     the same numbers for the same seed on every machine; text at the end of a buffer
//   Thread  one
//   Failure none
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

// The monotonic clock.
inline int64_t sample_now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

struct sample_random {
  uint64_t state;

  uint64_t next() {
    uint64_t x = state += 0x9e3779b97f4a7c15U;
    x = (x ^ (x >> 30U)) * 0xbf58476d1ce4e5b9U;
    x = (x ^ (x >> 27U)) * 0x94d049bb133111ebU;
    return x ^ (x >> 31U);
  }

  // 0 to n - 1; 0 for an n of 0.
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(((next() >> 32U) * n) >> 32U); }

  uint32_t between(uint32_t low, uint32_t high) { return low + below(high - low + 1); }

  bool chance(uint32_t percent) { return below(100) < percent; }

  template <class T> const T &one_of(const std::vector<T> &list) {
    return list[below(static_cast<uint32_t>(list.size()))];
  }

  template <class T, size_t N> const T &one_of(const T (&list)[N]) { return list[below(N)]; }
};

inline void sample_put_one(std::string &out, std::string_view text) {
  out.append(text);
}

inline void sample_put_one(std::string &out, char c) {
  out.push_back(c);
}

template <std::integral T> void sample_put_one(std::string &out, T number) {
  char digits[24];
  out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// Appends texts, characters and numbers, one behind the other.
template <class... Parts> void sample_put(std::string &out, const Parts &...parts) {
  (sample_put_one(out, parts), ...);
}
