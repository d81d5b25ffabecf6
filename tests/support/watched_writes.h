// write(2) and pwrite(2) of the test program are its own: they pass everything on, unless a test of the same thread wants to
// look at each call, or to disturb it.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

// Called with what is about to be written. What it returns is how many bytes the system takes of it; 0 interrupts the call
// (EINTR). Empty: no watch.
extern thread_local std::function<size_t(std::string_view bytes)> watched_write;
