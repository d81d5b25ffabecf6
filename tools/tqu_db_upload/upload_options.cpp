// What the loader is asked to do; see the header.
#include "upload_options.h"

#include "wllb_options.h"
#include "wllb_util.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

static constexpr wllb_program program = {
    .name = "tqu_db_upload",
    .synopsis = "--dir DIR --testrun N [options]",
    .about =
        "Brings everything that the daemon has written of a test run into a database: SQLite, PostgreSQL or ClickHouse. By "
        "hand it loads what is there and ends; as the daemon's child, or with --follow, it goes on while the test runs. "
        "What has been loaded is not loaded again.",
    .notes =
        "URLs: sqlite:PATH, postgresql://..., clickhouse://HOST:PORT/DB?cluster=NAME&password_file=FILE, journal:\n"
        "The first one given counts: --database, the keyword TQU_DATABASE, the environment's TQU_DATABASE; else\n"
        "sqlite:DIR/logs/TR<N>/tq/db/testrun.sqlite. Passwords: libpq's own files, or a file of mode 0600.\n"
        "Exit status: 0, or 1 with a reason; with --verify 1 at the first difference.",
};

// --- keywords -----------------------------------------------------------------------------------------------------

// The profile directory that changed last.
static std::string newest_profile(const std::string &profiles) {
  std::string newest;
  timespec changed = {};
  DIR *dir = opendir(profiles.c_str());
  if (!dir)
    return newest;
  while (const dirent *entry = readdir(dir)) { // NOLINT(concurrency-mt-unsafe): this stream is this thread's alone
    struct stat facts = {};
    if (entry->d_name[0] == '.' || fstatat(dirfd(dir), entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(facts.st_mode))
      continue;
    const timespec &t = facts.st_mtim;
    const bool same = t.tv_sec == changed.tv_sec && t.tv_nsec == changed.tv_nsec;
    if (newest.empty() || t.tv_sec > changed.tv_sec || (t.tv_sec == changed.tv_sec && t.tv_nsec > changed.tv_nsec) ||
        (same && entry->d_name > newest)) {
      newest = entry->d_name;
      changed = t;
    }
  }
  closedir(dir);
  return newest;
}

// The last value of a keyword; "" when it has none.
static std::string keyword_value(std::string_view text, std::string_view keyword) {
  std::string value;
  while (!text.empty()) {
    const std::vector<std::string> words = wllb_words(wllb_take_piece(&text, '\n'), 2);
    if (words.size() == 2 && words[0] == keyword)
      value = words[1];
  }
  return value;
}

static bool take_number_keyword(std::string_view text, const char *keyword, int most, int *number) {
  const std::string value = keyword_value(text, keyword);
  if (value.empty() || *number >= 0)
    return true;
  if (wllb_is_numeric(value) && value.size() < 10 && atoi(value.c_str()) <= most) {
    *number = atoi(value.c_str());
    return true;
  }
  fprintf(stderr, "tqu_db_upload: keyword %s: '%s' is not a number from 0 to %d\n", keyword, value.c_str(), most);
  return false;
}

// --- all of it ----------------------------------------------------------------------------------------------------

static bool find_target(upload_options *options) {
  const std::string profiles = options->run.base + "/tq/conf/tqprof/";
  const std::string profile = profiles + newest_profile(profiles);
  std::string keywords = wllb_read_small_file((profile + "/TQKeywords.conf").c_str());
  if (keywords.empty())
    keywords = wllb_read_small_file((profile + "/tq.conf").c_str());
  if (!take_number_keyword(keywords, "TQU_NODE", INT_MAX, &options->node) ||
      !take_number_keyword(keywords, "TQU_LOAD_BLOBS", 1, &options->blobs))
    return false;
  std::string error;
  const std::string url =
      tqdb::choose_url(options->database, keyword_value(keywords, "TQU_DATABASE"), options->run.base);
  if (!tqdb::parse_target(url, &options->target, &error)) {
    fprintf(stderr, "tqu_db_upload: %s\n", error.c_str());
    return false;
  }
  options->node = std::max(options->node, 0);
  if (options->blobs < 0)
    options->blobs = options->target.kind == tqdb::TQDB_SQLITE ? 0 : 1;
  return true;
}

// --keep-days and --drop-testrun look at the database alone.
static bool needs_run(const upload_options &options) {
  return options.keep_days < 0 && options.drop_testrun < 0;
}

static bool find_run(upload_options *options) {
  const char *work_dir = getenv("WL_WDIR"); // NOLINT(concurrency-mt-unsafe): one thread
  if (options->dir.empty() && work_dir)
    options->dir = work_dir;
  if (!needs_run(*options) && !options->database.empty())
    return true;
  if (options->dir.empty()) {
    fprintf(stderr, "tqu_db_upload: --dir is missing, and the environment has no WL_WDIR\n");
    return false;
  }
  const int number = options->testrun >= 0 ? options->testrun : options->drop_testrun;
  const tqread::error error = tqread::open_run(options->dir, number, &options->run);
  if (error)
    fprintf(stderr, "tqu_db_upload: %s\n", tqread::error_text(error).c_str());
  return !error;
}

std::optional<int> upload_read_options(int argc, char **argv, upload_options *o) {
  const wllb_option rows[] = {
      // clang-format off
    {.name = "dir", .value = "DIR", .help = "working directory of the daemon; else the environment's WL_WDIR", .text = &o->dir},
    {.name = "testrun", .value = "N", .help = "test run, DIR/logs/TR<N>", .default_text = "", .number32 = &o->testrun, .min = 0},
    {.name = "database", .value = "URL", .help = "where to; see below", .text = &o->database},
    {.name = "node", .value = "N", .help = "number of this machine in a test run of several", .default_text = "the keyword TQU_NODE, else 0", .number32 = &o->node, .min = 0},
    {.name = "blobs", .value = "N", .help = "1: also load call trees, details and bodies, for a page on another machine", .default_text = "the keyword TQU_LOAD_BLOBS, else 0 with SQLite, 1 with the others", .number32 = &o->blobs, .min = 0, .max = 1},
    {.name = "follow", .help = "go on while the test runs, until SIGTERM or SIGINT", .flag = &o->follow},
    {.help = "Instead of loading:"},
    {.name = "verify", .help = "compare every file with its table: rows, and sums of each numeric column", .flag = &o->verify},
    {.name = "status", .help = "how far each file has been loaded, and what was rejected", .flag = &o->status},
    {.name = "ask", .value = "SQL", .help = "print the answer to a question, at most 1,000 rows", .text = &o->question},
    {.name = "drop-testrun", .value = "N", .help = "remove a test run from the database", .default_text = "", .number32 = &o->drop_testrun, .min = 0},
    {.name = "keep-days", .value = "D", .help = "remove rows that are older than so many days, of all test runs", .default_text = "", .number32 = &o->keep_days, .min = 0, .max = 36500},
    {.help = "As the daemon's child:"},
    {.name = "ppid", .value = "PID", .help = "the daemon: go on as long as it runs; 0: by hand", .number32 = &o->ppid, .min = 0},
    {.name = "idle_time", .value = "SEC", .help = "wait between two passes when nothing comes", .number32 = &o->idle_time, .min = 1, .max = 3600},
    {.name = "num_cycles", .value = "N", .help = "passes before that wait", .number32 = &o->num_cycles, .min = 1, .max = 1000},
    {.name = "resume", .value = "N", .help = "0: remove the test run's rows and load all of it again", .number32 = &o->resume, .min = INT_MIN},
    {.name = "running_mode", .value = "N", .help = "accepted, without effect", .number32 = &o->running_mode, .min = INT_MIN},
    {.name = "vector_separator", .value = "C", .help = "accepted, without effect", .text = &o->vector_separator},
  }; // clang-format on
  if (const std::optional<int> status = wllb_read_options(program, rows, argc, argv))
    return status;
  if (needs_run(*o) && o->testrun < 0)
    return wllb_report_mistake(program, "--testrun is missing");
  if (!find_run(o) || !find_target(o))
    return 1;
  return {};
}
