// tqu_db_upload: brings a test run into a database, while it runs or afterwards.
//   In      the command line, by hand or as the daemon gives it; signals; the daemon's life
//   Out     calls to the loader; one line about what was done
//   Thread  main; the driver's calls run in a second one
//   Failure exit status 1 and a line on standard error; a daemon starts the program again. A database that is away (a full disk,
//           a stopped server) is waited for
#include "upload_admin.h"
#include "upload_options.h"
#include "upload_progress.h"
#include "upload_watch.h"

#include "tqdb_load.h"
#include "tqdb_threaded.h"

#include "wllb_alloc.h"
#include "wllb_util.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <malloc.h>
#include <string>
#include <utility>

namespace {

struct upload_session {
  const upload_options &options;
  upload_watch &watch;
  tqdb::load_driver &driver;
  tqdb::loader loader;
  std::string waiting_for; // reported; "": nothing

  bool live() const { return options.ppid != 0 || options.follow; }
};

} // namespace

// --- opening ----------------------------------------------------------------------------------------------------

static void report(const std::string &text) {
  char stamp[32];
  const time_t now = wllb_now();
  tm local;
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", localtime_r(&now, &local));
  fprintf(stderr, "%s tqu_db_upload: %s\n", stamp, text.c_str());
}

// Reports when a wait begins, and when it has ended.
static void report_wait(upload_session *s, const std::string &reason) {
  if (reason.empty() && !s->waiting_for.empty())
    report("loading goes on");
  else if (!reason.empty() && s->waiting_for.empty())
    report(reason + "; waiting");
  s->waiting_for = reason;
}

// A loader that was killed may still be on its way out; a server may come back. False: for good, or told to stop.
static bool open_loader(upload_session *s) {
  int wait_ms = 100;
  for (;;) {
    const tqdb::open_result opened = s->loader.open();
    if (opened == tqdb::TQDB_READY) {
      report_wait(s, "");
      return true;
    }
    if (opened == tqdb::TQDB_REFUSED || (opened == tqdb::TQDB_IN_USE && !s->live())) {
      fprintf(stderr, "tqu_db_upload: %s\n", s->loader.error().c_str());
      return false;
    }
    report_wait(s, s->loader.error());
    s->watch.look(wait_ms);
    wait_ms = std::min(wait_ms * 2, 2000);
    if (s->watch.stop)
      return false;
  }
}

// The test run's rows are removed before they are loaded again.
static bool begin_anew(upload_session *s) {
  while (s->driver.drop_testrun(s->options.testrun, s->options.node) != tqdb::TQDB_TAKEN) {
    report_wait(s, s->driver.error());
    s->watch.look(500);
    if (s->watch.stop || !open_loader(s))
      return false;
  }
  return open_loader(s);
}

// --- rounds -----------------------------------------------------------------------------------------------------

enum class round_end : uint8_t { more, done, failed };

// Runs the passes of a round; what comes while there is something new is looked for every second.
static round_end run_round(upload_session *s) {
  s->watch.look(0);
  const bool was_over = s->watch.over || !s->live(); // before the files are listed
  bool took = false;
  for (int cycle = 0; cycle < s->options.num_cycles && !s->watch.stop; ++cycle) {
    const tqdb::load_result passed = s->loader.pass();
    took = took || passed == tqdb::load_result::took_some;
    if (passed == tqdb::load_result::broken) {
      fprintf(stderr, "tqu_db_upload: %s\n", s->loader.error().c_str());
      return round_end::failed;
    }
    if (passed == tqdb::load_result::away) {
      report_wait(s, s->loader.error());
      s->watch.look(500);
      if (!s->watch.stop && !open_loader(s))
        return s->watch.stop ? round_end::done : round_end::failed;
      return s->watch.stop ? round_end::done : round_end::more;
    }
  }
  if (s->watch.stop || (was_over && !took))
    return round_end::done;
  if (!was_over)
    s->watch.look(took ? 1000 : s->options.idle_time * 1000);
  return s->watch.stop ? round_end::done : round_end::more;
}

static bool finish(upload_session *s) {
  for (;;) {
    const tqdb::load_result finished = s->loader.finish();
    if (finished == tqdb::load_result::nothing_new)
      return true;
    report_wait(s, s->loader.error());
    if (finished == tqdb::load_result::broken)
      return false;
    s->watch.look(500);
    if (s->watch.stop || !open_loader(s))
      return false;
  }
}

static void print_totals(const upload_session &s, double seconds) {
  const tqdb::load_totals &t = s.loader.totals();
  printf("test run %d: %s rows (%.1f MB) loaded in %.1f s into %s; %s rejected, %s mended\n", s.options.testrun,
         upload_with_commas(t.rows).c_str(), static_cast<double>(t.bytes) / 1e6, seconds, s.options.target.url.c_str(),
         upload_with_commas(t.rejected).c_str(), upload_with_commas(t.mended).c_str());
}

static int load(const upload_options &options, upload_watch *watch, tqdb::load_driver *driver) {
  const bool by_hand = options.ppid == 0 && !options.follow;
  upload_session s = {options,
                      *watch,
                      *driver,
                      {options.run,
                       {{options.testrun, options.node, options.run.base}, by_hand, options.blobs == 1},
                       driver,
                       [watch] {
                         watch->look(0);
                         return watch->stop;
                       }},
                      ""};
  if (options.ppid != 0)
    watch->watch_parent(options.ppid);
  if (!open_loader(&s) || (options.resume == 0 && !begin_anew(&s)))
    return watch->stop ? 0 : 1;
  int64_t loaded = 0;
  for (const auto &[path, position] : s.loader.positions())
    loaded += position.taken;
  upload_progress progress(by_hand ? upload_bytes_there(options.run.base) - loaded : 0);
  if (by_hand)
    s.loader.on_commit = [&] { progress.show(s.loader.totals()); };
  round_end end = round_end::more;
  while (!watch->stop && end == round_end::more)
    end = run_round(&s);
  if (end == round_end::failed || (!watch->stop && !finish(&s)))
    return 1;
  progress.clear();
  print_totals(s, progress.seconds());
  return watch->stop && by_hand ? 1 : 0;
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  upload_options options;
  if (const std::optional<int> status = upload_read_options(argc, argv, &options))
    return *status;
  // Two threads hand rows on: what one gives back, the other takes.
  mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe): no other thread yet
  signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a full disk like any other
  upload_watch watch;
  if (options.status)
    return upload_show_status(options);
  if (!options.question.empty())
    return upload_ask(options);
  if (options.verify)
    return upload_verify(options);
  std::string error;
  std::unique_ptr<tqdb::load_driver> driver = tqdb::make_driver(options.target, &error);
  if (!driver) {
    fprintf(stderr, "tqu_db_upload: %s\n", error.c_str());
    return 1;
  }
  if (options.drop_testrun >= 0 || options.keep_days >= 0)
    return upload_remove(options, driver.get());
  driver = tqdb::make_threaded(std::move(driver)); // the signals are blocked already
  return load(options, &watch, driver.get());
}
