// tqcheck: says what is wrong with a keyword file before the daemon reads it, and explains the keywords.
//   In      the command line; the keyword file of a test run, or any file
//   Out     a line for each finding on standard output; or the list of all keywords
//   Thread  one
//   Failure exit status 1: findings, or a line on standard error
#include "keyword_check.h"
#include "process_frame.h"

#include "wllb_alloc.h"
#include "wllb_options.h"

static constexpr wllb_program program = {
    .name = "tqcheck",
    .synopsis = "--dir DIR --testrun N | --file FILE | --list",
    .about =
        "Reads the keyword file of the test run DIR/logs/TR<N> without running anything, and says what is wrong with "
        "it: words that are no keywords, values that are not taken and what is used instead, keywords that are set "
        "twice or have no effect. The exit status is 1 if it finds anything."};

struct check_options {
  std::string dir, file;
  int64_t testrun = -1;
  bool list = false;
  int form = KW_LIST_TEXT;
};

static std::vector<wllb_option> option_rows(check_options &o) {
  return {
      // clang-format off
  {.name = "dir", .value = "DIR", .help = "working directory", .text = &o.dir},
  {.name = "testrun", .value = "N", .help = "number of the test run", .default_text = "", .number = &o.testrun},
  {.name = "file", .value = "FILE", .help = "instead: this keyword file", .text = &o.file},
  {.name = "list", .help = "instead: prints every keyword with its unit, range, default and meaning", .flag = &o.list},
  {.name = "form", .value = "NAME", .help = "form of that list", .words = "text|markdown|man", .chosen = &o.form},
      // clang-format on
  };
}

// The file that the daemon would read. "" after a line on standard error.
static std::string keyword_file(const check_options &options) {
  if (!options.file.empty())
    return options.file;
  testidx = static_cast<int>(options.testrun);
  wllb_copy_text(wl_wdir, sizeof wl_wdir, options.dir);
  const std::string base = wllb_format("%s/logs/TR%d", wl_wdir, testidx);
  if (wllb_is_directory(base.c_str()))
    return tqp_find_keyword_file();
  fprintf(stderr, "tqcheck: there is no test run %s\n", base.c_str());
  return "";
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  check_options options;
  if (const auto status = wllb_read_options(program, option_rows(options), argc, argv))
    return *status;
  if (options.list) {
    fputs(kw_list(static_cast<kw_list_form>(options.form)).c_str(), stdout);
    return 0;
  }
  if (options.file.empty() && (options.dir.empty() || options.testrun < 0))
    return wllb_report_mistake(program, "--dir and --testrun, or --file, or --list are needed");
  const std::string path = keyword_file(options);
  if (path.empty())
    return 1;
  const kw_findings found = kw_check_file(path.c_str());
  for (const kw_finding &finding : found.list)
    puts(kw_finding_text(path.c_str(), finding).c_str());
  if (found.more)
    printf("%s: %zu more\n", path.c_str(), found.more);
  if (found.list.empty())
    printf("%s: %zu keywords, nothing wrong\n", path.c_str(), found.keywords);
  return found.list.empty() ? 0 : 1;
}
