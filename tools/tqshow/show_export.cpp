// Exports: finds flowpaths, reads them whole, hands them to an exporter of the library.
//   In      a question, a format, where to
//   Out     a file, standard output, or requests to an endpoint; what could not be done, on standard error
//   Thread  one
//   Failure exit status 1. A file that is not whole is removed
#include "show_export.h"

#include "show_list.h"

#include "export_push.h"
#include "tqread_text.h"

#include "wllb_util.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

// --- where to -----------------------------------------------------------------------------------------------------------

namespace {

// A file beside its place, renamed when it is whole; or standard output.
class output_file {
public:
  bool open(const std::string &path) {
    path_ = path == "-" ? "" : path;
    if (path_.empty())
      return true;
    part_ = path_ + ".part";
    file_.reset(::open(part_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return file_.fd >= 0 || report("cannot be written");
  }

  bool write(std::string_view bytes) {
    return wllb_write_all(path_.empty() ? STDOUT_FILENO : file_.fd, bytes) || report("cannot be written");
  }

  // Puts the file in its place, or removes it.
  bool close(bool whole) {
    if (path_.empty())
      return whole;
    file_.reset();
    if (!whole) {
      unlink(part_.c_str());
      return false;
    }
    return rename(part_.c_str(), path_.c_str()) == 0 || report("cannot be put in its place");
  }

private:
  bool report(const char *words) const {
    const std::string shown = path_.empty() ? "standard output" : tqread::printable(path_, 1000);
    fprintf(stderr, "tqshow: %s %s: %s\n", shown.c_str(), words, wllb_strerror(errno).c_str());
    return false;
  }

  std::string path_, part_;
  wllb_fd file_;
};

} // namespace

// --- the walk -----------------------------------------------------------------------------------------------------------

// Names as they are, not as a terminal may see them: an export has its own escapes.
struct export_question {
  tqread::name_table names;
  tqread::filter which;
};

// Hands over what is found, up to --top. *good: nothing was left out of it. The number of flowpaths.
static int64_t export_found(const tqread::test_run &run, export_question *question, const show_options &options,
                            tqread::export_format format, tqread::exporter *to, bool *good) {
  tqread::flowpath_reader reader(run);
  const auto whole = std::make_unique<tqread::flowpath>();
  const int64_t most = options.first || format == tqread::export_format::html ? 1 : options.top;
  int64_t exported = 0;
  const tqread::found_counts counts =
      each_flowpath(&reader, &question->which, show_fault, [&](const tqread::found_flowpath &found) {
        const bool readable = reader.read(found.place, found.row_bytes, export_parts(format), whole.get());
        for (const tqread::error &fault : whole->faults)
          show_fault(fault);
        *good = *good && readable && whole->faults.empty();
        if (readable) {
          to->add(*whole);
          ++exported;
        }
        return !to->failed() && exported != most;
      });
  *good = *good && counts.bad == 0;
  if (exported == 0)
    fputs("tqshow: no such flowpath was found\n", stderr);
  return exported;
}

static int export_to_file(const tqread::test_run &run, export_question *question, const show_options &options,
                          const show_export_options &wanted) {
  output_file file;
  if (!file.open(wanted.output))
    return 1;
  const tqread::export_options what = {static_cast<tqread::export_format>(wanted.format),
                                       static_cast<tqread::export_weight>(wanted.weight)};
  const std::unique_ptr<tqread::exporter> out =
      make_exporter(what, run, question->names, [&](std::string_view bytes) { return file.write(bytes); });
  bool good = true;
  const int64_t exported = export_found(run, question, options, what.format, out.get(), &good);
  const bool written = file.close(out->finish() && exported > 0);
  return good && written ? 0 : 1;
}

// --- sending --------------------------------------------------------------------------------------------------------------

static void report_push(const tqread::push_result &result) {
  fprintf(stderr, "tqshow: %lld spans sent in %lld requests, %lld refused, %lld lost\n",
          static_cast<long long>(result.spans - result.spans_rejected), static_cast<long long>(result.tries),
          static_cast<long long>(result.spans_rejected), static_cast<long long>(result.spans_lost));
  for (const std::string &problem : result.problems)
    fprintf(stderr, "tqshow: %s\n", problem.c_str());
}

static int export_by_push(const tqread::test_run &run, export_question *question, const show_options &options,
                          const show_export_options &wanted) {
  tqread::push_options target;
  target.url = wanted.push_url;
  target.headers = wanted.push_headers;
  tqread::otlp_pusher pusher(target);
  if (!pusher.unusable().empty()) {
    fprintf(stderr, "tqshow: %s\n", pusher.unusable().c_str());
    return 1;
  }
  // What is lost is counted; the next document may get through.
  const std::unique_ptr<tqread::exporter> out =
      make_otlp_exporter(run, question->names, [&](std::string_view document, int64_t spans) {
        pusher.send(document, spans);
        return true;
      });
  bool good = true;
  const int64_t exported = export_found(run, question, options, tqread::export_format::otlp, out.get(), &good);
  out->finish();
  const tqread::push_result &result = pusher.result();
  report_push(result);
  return good && exported > 0 && result.spans_lost == 0 && result.spans_rejected == 0 ? 0 : 1;
}

// --- entry ------------------------------------------------------------------------------------------------------------------

std::string show_check_export(const show_options &options, const show_export_options &wanted) {
  if (!wanted.wanted())
    return wanted.output.empty() ? "" : "--output needs --export";
  if (wanted.format >= 0 && !wanted.push_url.empty())
    return "--export and --push do not go together";
  if (options.follow || options.by >= 0 || options.count_only || options.json)
    return "an export is not a list: --follow, --by, --count and --json do not go with it";
  if (options.tiers || options.fold_ms > 0)
    return "--tiers and --fold are for printed call trees, not for exports";
  if (!options.sort.empty())
    return "an export is in the order of the files: --sort does not go with it";
  return "";
}

int show_export(const tqread::test_run &run, const show_options &options, const show_export_options &wanted) {
  const auto format =
      wanted.format >= 0 ? static_cast<tqread::export_format>(wanted.format) : tqread::export_format::otlp;
  export_question question;
  tqread::name_loader(run, kinds_for(options.asked) | export_name_kinds(format), tqread::name_loader::texts::utf8)
      .load(&question.names);
  if (const std::string words = question.which.make(run, question.names, options.asked); !words.empty()) {
    fprintf(stderr, "tqshow: %s\n", words.c_str());
    return 1;
  }
  return wanted.format >= 0 ? export_to_file(run, &question, options, wanted)
                            : export_by_push(run, &question, options, wanted);
}
