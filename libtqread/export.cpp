// Which export: words, what each needs, and making it.
//   In      words of a command line
//   Out     an exporter
//   Thread  any
//   Failure false for a word that there is not
#include "export_formats.h"

namespace tqread {

template <class T> struct word_row {
  std::string_view word;
  T value;
};

static constexpr word_row<export_format> format_words[] = {
    {"chrome", export_format::chrome}, {"speedscope", export_format::speedscope},
    {"folded", export_format::folded}, {"otlp", export_format::otlp},
    {"html", export_format::html},
};

static constexpr word_row<export_weight> weight_words[] = {
    {"self", export_weight::self},
    {"wall", export_weight::wall},
    {"cpu", export_weight::cpu},
    {"calls", export_weight::calls},
};

template <class T, size_t N> static bool read_word(const word_row<T> (&rows)[N], std::string_view word, T *value) {
  for (const word_row<T> &row : rows)
    if (row.word == word) {
      *value = row.value;
      return true;
    }
  return false;
}

bool read_export_format(std::string_view word, export_format *format) {
  return read_word(format_words, word, format);
}

bool read_export_weight(std::string_view word, export_weight *weight) {
  return read_word(weight_words, word, weight);
}

uint32_t export_name_kinds(export_format format) {
  constexpr uint32_t methods = kinds_of({name_kind::method});
  constexpr uint32_t calls = methods | kinds_of({name_kind::url, name_kind::query, name_kind::resource});
  if (format == export_format::folded)
    return methods;
  if (format == export_format::speedscope)
    return methods | kinds_of({name_kind::url});
  return format == export_format::chrome
             ? calls
             : calls | kinds_of({name_kind::header, name_kind::exception_class, name_kind::throwing_class,
                                 name_kind::throwing_method, name_kind::stack_trace, name_kind::message,
                                 name_kind::cause, name_kind::tag_set, name_kind::argument});
}

uint32_t export_parts(export_format format) {
  return format == export_format::otlp || format == export_format::html ? whole_flowpath : WITH_TREES;
}

std::unique_ptr<exporter> make_exporter(const export_options &options, const test_run &run, const name_table &names,
                                        wllb_sink sink) {
  switch (options.format) {
  case export_format::chrome:
    return make_chrome_exporter(names, std::move(sink));
  case export_format::speedscope:
    return make_speedscope_exporter(run, names, std::move(sink));
  case export_format::folded:
    return make_folded_exporter(options.weight, names, std::move(sink));
  case export_format::otlp:
    return make_otlp_exporter(
        run, names, [to = std::move(sink)](std::string_view document, int64_t) { return to(document) && to("\n"); });
  case export_format::html:
    break;
  }
  return make_html_exporter(names, std::move(sink));
}

} // namespace tqread
