// The keywords explained: a list for the terminal, a page of the documentation, the manual page of the keyword file.
//   In      the keyword table
//   Out     text
//   Thread  main
//   Failure none
#include "keyword_check.h"

#include "keyword_rows.h"
#include "wllb_options.h"

#include <algorithm>

std::string kw_accepted_text(const kw_row &row) {
  if (row.accepted)
    return row.accepted;
  switch (row.rule) {
  case KW_RANGE:
    return row.max == INT_MAX ? wllb_format("%d or more", row.min) : wllb_format("%d to %d", row.min, row.max);
  case KW_FLAG:
    return "0 or 1";
  case KW_NON_ZERO:
    return "a number other than 0";
  case KW_NUMERIC:
    return "0 or more";
  case KW_ANY:
  case KW_TRUTH:
  case KW_OWN:
    break;
  }
  return "any number";
}

std::string kw_default_text(const kw_row &row) {
  return row.default_text ? row.default_text : std::to_string(row.def / row.unit);
}

static std::string meaning(const kw_row &row) {
  if (row.fixed && !row.read_before_fixing)
    return std::string("No effect, the default is always used: ") + row.meaning + ".";
  std::string text = (row.unused ? "No effect: " : "") + std::string(row.meaning) + ".";
  if (!row.unused && 'a' <= text[0] && text[0] <= 'z')
    text[0] = static_cast<char>(text[0] - 'a' + 'A');
  return text;
}

static void put_text(std::string &out, const kw_row &row) {
  out += wllb_format("%s\n    %s; %s; default %s\n    %s\n", std::string(row.keyword).c_str(), row.words,
                     kw_accepted_text(row).c_str(), kw_default_text(row).c_str(), meaning(row).c_str());
}

static void put_markdown(std::string &out, const kw_row &row) {
  out += wllb_format("| `%s` | %s | %s | %s | %s |\n", std::string(row.keyword).c_str(), row.words,
                     kw_accepted_text(row).c_str(), kw_default_text(row).c_str(), meaning(row).c_str());
}

static void put_man(std::string &out, const kw_row &row) {
  out += ".It Ic " + std::string(row.keyword) + "\n" +
         wllb_mdoc_lines(wllb_format("Values: %s; %s; default %s. ", row.words, kw_accepted_text(row).c_str(),
                                     kw_default_text(row).c_str()) +
                         meaning(row));
}

std::string kw_list(kw_list_form form) {
  constexpr void (*put[])(std::string &, const kw_row &) = {put_text, put_markdown, put_man};
  std::vector<const kw_row *> rows;
  for (const kw_row &row : kw_rows)
    rows.push_back(&row);
  std::sort(rows.begin(), rows.end(), [](const kw_row *a, const kw_row *b) { return a->keyword < b->keyword; });
  std::string out =
      form == KW_LIST_MARKDOWN ? "| Keyword | Values | Accepted | Default | Meaning |\n|---|---|---|---|---|\n" : "";
  for (const kw_row *row : rows)
    put[form](out, *row);
  return out;
}
