// Fuzz targets: each takes bytes that come from outside and must neither crash nor hang.
//   Run by libFuzzer (TQP_LIBFUZZER), or by replay_main.cpp over the corpus and seeded damages of it, as ordinary tests
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
