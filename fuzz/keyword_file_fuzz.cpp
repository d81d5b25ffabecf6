// A keyword file full of anything.

#include "fuzz_targets.h"
#include "tqp_parse_keywords.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  char path[] = "/tmp/tqp_fuzz_keywords_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size))
    abort();
  close(fd);
  tqp_process_state_init();
  tqp_keywords_init();
  std::string error;
  read_config_file_and_parse_tq_keywords(path, &error);
  tqp_keywords_init();
  unlink(path);
  return 0;
}
