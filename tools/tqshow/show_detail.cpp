// Captured texts: a segment's line names each by "partition:offset:length", several joined by '@'.
//   In      columns 43 to 45 of a segment's line, the sequence blob files they point into, names
//   Out     lines on standard output, or words for the check
//   Thread  one
//   Failure a text that cannot be read is told in its place, the others follow
// Samples:  20,3,4711,9,12,1,0,2,1,0|2,open||3,7    45,1,0,25,1,text/plain,hello
#include "show_detail.h"

#include <algorithm>

struct captured_column {
  show_line_column column;
  const char *head;        // of a line of print
  std::string_view begins; // each of its texts
};

static constexpr captured_column captured_columns[] = {
    {LINE_DYNAMIC, "logged", "20,"},
    {static_cast<show_line_column>(LINE_DYNAMIC + 1), "request", "45,"},
    {LINE_RESPONSE_BODY, "response", "46,"},
};

// Calls use(reference, words, text) for each text of a column; words: null, or why it cannot be read.
template <class Use> static void each_text(const show_run &run, int64_t app, std::string_view references, Use use) {
  while (!references.empty()) {
    const std::string_view reference = wllb_take_piece(&references, '@');
    std::string_view parts[3];
    show_blob_file file;
    std::string text;
    const char *words = "cannot be read";
    if (show_split(reference, ':', parts, 3) == 3 && show_open_blob_file(run, parts[0], app, &file))
      words = show_read_member(file, show_number_or(parts[1], -1), show_number_or(parts[2], -1), &text);
    use(reference, words, text);
  }
}

// --- logged values -------------------------------------------------------------------------------------------------

struct logged_values {
  int64_t method = 0;
  std::string_view values; // "|id,value" each, or '|' alone
};

static bool read_logged_values(std::string_view text, logged_values *logged) {
  constexpr size_t numbers = 10;
  std::string_view columns[numbers];
  const std::string_view head = text.substr(0, text.find('|'));
  logged->values = text.substr(head.size());
  return show_split(head, ',', columns, numbers) == numbers && show_number(columns[3], &logged->method) &&
         std::all_of(std::begin(columns), std::end(columns), show_is_number) && !logged->values.empty();
}

// Takes the next value off the front. A value may hold anything but '|'.
static bool next_value(std::string_view *values, std::string_view *id, std::string_view *value) {
  if (values->empty())
    return false;
  values->remove_prefix(1);
  const std::string_view whole = values->substr(0, values->find('|'));
  values->remove_prefix(whole.size());
  *id = whole.substr(0, whole.find(','));
  *value = whole.substr(std::min(id->size() + 1, whole.size()));
  return true;
}

// --- printed --------------------------------------------------------------------------------------------------------

constexpr size_t most_of_text = 500, most_of_name = 200;

// "in com.acme.Shop.pay()V: amount=250, state=open"
static std::string logged_text(const show_names &names, const std::string &text) {
  logged_values logged;
  if (!read_logged_values(text, &logged))
    return show_printable(text, most_of_text);
  std::string line = "in " + show_name(names, KIND_METHOD, logged.method, most_of_name), before = ": ";
  std::string_view id, value;
  while (next_value(&logged.values, &id, &value)) {
    if (id.empty())
      continue;
    line += before + show_name(names, KIND_HEADER, show_number_or(id, 0), most_of_name) + "=" +
            show_printable(value, most_of_text);
    before = ", ";
  }
  return line;
}

bool show_print_detail(const show_run &run, const show_names &names, int64_t app, const show_segment_line &line,
                       std::string_view detail) {
  bool good = true;
  if (!detail.empty())
    printf("detail       %s\n", show_printable(detail, most_of_text).c_str());
  for (const captured_column &of : captured_columns)
    each_text(run, app, line[of.column], [&](std::string_view, const char *words, const std::string &text) {
      const std::string shown =
          of.column == LINE_DYNAMIC ? logged_text(names, text) : show_printable(text, most_of_text);
      printf("%-12s %s\n", of.head, words ? (std::string("? it ") + words).c_str() : shown.c_str());
      good = good && !words;
    });
  return good;
}

// --- checked --------------------------------------------------------------------------------------------------------

static std::string check_logged_values(const show_names &names, const std::string &text) {
  logged_values logged;
  if (!read_logged_values(text, &logged))
    return "has no ten numbers and values";
  if (!show_is_known(names, KIND_METHOD, logged.method))
    return wllb_format("has the method %lld, which has no row among the names", static_cast<long long>(logged.method));
  // A record's last piece is its whole rest: what stands behind a '|' there is as the agent sent it.
  constexpr int most_values = 1023;
  std::string_view id, value;
  for (int i = 0; i < most_values && next_value(&logged.values, &id, &value); ++i) {
    const int64_t header = show_number_or(id, 0);
    if (header != 0 && !show_is_known(names, KIND_HEADER, header))
      return wllb_format("has the header %lld, which has no row among the names", static_cast<long long>(header));
  }
  return "";
}

std::vector<std::string> show_check_detail(const show_run &run, const show_names &names, int64_t app,
                                           const show_segment_line &line) {
  std::vector<std::string> faults;
  for (const captured_column &of : captured_columns)
    each_text(run, app, line[of.column], [&](std::string_view reference, const char *words, const std::string &text) {
      std::string wrong = words ? words : "";
      if (!words && !text.starts_with(of.begins))
        wrong = "is none of its kind";
      else if (!words && of.column == LINE_DYNAMIC)
        wrong = check_logged_values(names, text);
      if (!wrong.empty())
        faults.push_back("its text at " + show_printable(reference, 60) + " " + wrong);
    });
  return faults;
}
