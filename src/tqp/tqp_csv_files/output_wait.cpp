// Waiting for files that cannot be opened; see the header.

#include "output_wait.h"

#include "process_wake.h"
#include "wllb_output_file.h"

#include <cerrno>
#include <sys/resource.h>

static thread_local tqp_instance_t *waiting_for; // null: this thread does not wait

tqp_waits_for_output::tqp_waits_for_output(tqp_instance_t *inst) : before(waiting_for) {
  waiting_for = inst;
}

tqp_waits_for_output::~tqp_waits_for_output() {
  waiting_for = before;
}

// --- waiting ----------------------------------------------------------------------------------------------------

static void report(const char *severity, const std::string &words) {
  wllb_trace(1, severity, "%s", words.c_str());
  fprintf(stderr, "%s\n", words.c_str());
}

// The directory may be what could not be made.
static void make_missing_directory(const std::string &path) {
  const std::string directory = path.substr(0, path.rfind('/'));
  if (wllb_is_directory(directory.c_str()) || mkdir_ex(path.c_str()) != 0)
    return;
  wllb_own_directory(directory.c_str(), {static_cast<uid_t>(ownerid), static_cast<gid_t>(grpid)});
}

bool tqp_output_wait::try_again(const char *path) {
  const int error = errno;
  if (!waiting_for)
    return false;
  if (!waited && wl_status != WL_STOP_NOW)
    report("Critical",
           wllb_format("CRITICAL ERROR: %s | Could not open file '%s': %s. Nothing more is read until it can be.",
                       waiting_for->tier_server_app_name, path, wllb_strerror(error).c_str()));
  waited = true;
  if (wl_status != WL_STOP_NOW)
    tqp_sleep_or_wake(tqp_new_raw_data_poll_interval);
  if (wl_status == WL_STOP_NOW) {
    errno = error;
    return false;
  }
  make_missing_directory(path);
  return true;
}

void tqp_output_wait::done(const char *path) {
  if (waited && waiting_for)
    report("Info", wllb_format("%s | File '%s' is open, reading goes on.", waiting_for->tier_server_app_name, path));
  waited = false;
}

// --- descriptors --------------------------------------------------------------------------------------------------

// Kept open by one instance at most: raw file, offset file, its files and blob file of two partitions, one for a moment.
static constexpr rlim_t descriptors_of_instance = 24;
// Common files, trace log, connections, whatever is opened and closed again.
static constexpr rlim_t descriptors_of_process = 64;

static std::atomic<rlim_t> claims;

static bool claim() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    limit.rlim_cur = RLIM_INFINITY;
  rlim_t held = claims;
  do {
    const bool is_only_one = held == 0; // however low the limit is
    if (!is_only_one && (held + 1) * descriptors_of_instance + descriptors_of_process > limit.rlim_cur)
      return false;
  } while (!claims.compare_exchange_weak(held, held + 1));
  return true;
}

tqp_descriptor_claim::tqp_descriptor_claim() {
  const std::string path = waiting_for->csvfilepath;
  tqp_output_wait wait;
  for (errno = EMFILE; !claim(); errno = EMFILE)
    if (!wait.try_again(path.c_str())) {
      ++claims; // it leaves at once
      return;
    }
  wait.done(path.c_str());
}

tqp_descriptor_claim::~tqp_descriptor_claim() {
  --claims;
}

static bool wait_for_descriptor(const char *path, bool opened) {
  static thread_local tqp_output_wait wait;
  if (!opened)
    return wait.try_again(path);
  wait.done(path);
  return true;
}

void tqp_prepare_descriptors() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  wllb_wait_for_descriptor = wait_for_descriptor;
}
