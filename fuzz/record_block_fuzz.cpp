// Raw data as an agent, the collector or a damaged disk may leave it: blocks of lines through the line cutter.
//   In      any bytes; each 0x1E byte stands for a border between two blocks, where a poll of a growing file would end

#include "fuzz_targets.h"
#include "one_instance_run.h"
#include "tqp_main.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqp_instance_t *inst = open_one_instance_run();
  const std::string_view all(reinterpret_cast<const char *>(data), size);
  for (size_t begin = 0; begin <= size && !inst->get_tsa_id;) {
    const size_t end = std::min(all.find('\x1E', begin), size);
    run_block(inst, std::string(all.substr(begin, end - begin)) + "\n"); // the reader loop's blocks end in a newline
    begin = end + 1;
  }
  close_one_instance_run(inst);
  return 0;
}
