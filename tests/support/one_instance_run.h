// A small test run in a directory of its own, with one instance that runs on the calling thread: for fuzz targets and for
// tests that look into the instance.
#pragma once

#include <cstdint>
#include <string>

struct tqp_instance_t;

// Makes the test run and the instance; ends the process when it cannot.
tqp_instance_t *open_one_instance_run();

// Closes the instance as its thread would (every buffer written) and removes all that was made.
void close_one_instance_run(tqp_instance_t *inst);

// Records that were counted as bad since the last sample.
uint32_t bad_records(tqp_instance_t *inst);

// Hands text to the line cutter as one block. What tq_process_data gives.
int run_block(tqp_instance_t *inst, std::string text);
