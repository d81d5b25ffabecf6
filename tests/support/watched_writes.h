// write(2) and pwrite(2) of the test program are its own: they pass everything on, unless a test of the same thread wants to
// look at each call, or to disturb it.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

// Called with what is about to be written. What it returns is how many bytes the system takes of it; 0 interrupts the call
// (EINTR). Null: no watch.
// A pointer, since signal handlers write as well, and reading it must not take memory.
using write_watch = std::function<size_t(std::string_view bytes)>;
extern thread_local const write_watch *watched_write;
