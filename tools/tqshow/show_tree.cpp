// The call tree of a segment: methods under the methods that called them, callouts in the methods that were open.
//   In      a rewritten blob in either form, and names
//   Out     lines on standard output, in the order of the blob; the depth shows as indentation
//   Thread  one
//   Failure an exit that closes nothing, and a token that is not understood, get lines of their own
#include "show_tree.h"

#include "show_blob.h"

#include <algorithm>
#include <unordered_map>

constexpr size_t most_lines = 250000;
constexpr int most_indent = 40; // levels
constexpr size_t most_of_name = 200, most_of_token = 120;

// --- the tree -----------------------------------------------------------------------------------------------------

struct tree_line {
  int depth;
  bool is_open; // a method that has not ended
  show_token token;
  int64_t end_time; // of a method that has ended; -1: it has not
  int64_t times[5];
  bool is_forced;
  int64_t caller; // of a method without instrumentation, where the form tells; -1: it does not
};

// Open methods, the newest last. Those that have ended stay in until they come to the top.
using open_methods = std::vector<size_t>;

struct call_tree {
  std::vector<tree_line> lines;
  size_t tokens_left_out = 0;
  bool exit_form = false;
  int64_t ended_last = -1; // method id
  open_methods open;
  std::unordered_map<int64_t, open_methods> open_of_thread;
  std::unordered_map<int64_t, std::unordered_map<int64_t, open_methods>> open_of_method; // by thread, then method
};

// The newest open method, or null.
static tree_line *newest(call_tree *tree, open_methods *open) {
  while (!open->empty() && !tree->lines[open->back()].is_open)
    open->pop_back();
  return open->empty() ? nullptr : &tree->lines[open->back()];
}

// The exit form's order is that of one thread. A negative thread of the classic form stands on entries as none.
static int64_t thread_key(const call_tree &tree, const show_token &token) {
  return tree.exit_form || !token.has_thread ? -1 : std::max<int64_t>(token.thread_id, -1);
}

static void add_line(call_tree *tree, const tree_line *parent, const show_token &token) {
  tree->lines.push_back({parent ? parent->depth + 1 : 0,
                         token.kind == TOKEN_ENTRY,
                         token,
                         -1,
                         {},
                         false,
                         tree->exit_form ? tree->ended_last : -1});
}

static void add_entry(call_tree *tree, const show_token &token) {
  const int64_t thread = thread_key(*tree, token);
  open_methods &of_thread = tree->open_of_thread[thread];
  add_line(tree, newest(tree, &of_thread), token);
  const size_t index = tree->lines.size() - 1;
  of_thread.push_back(index);
  tree->open.push_back(index);
  tree->open_of_method[thread][token.method_id].push_back(index);
}

// Ends the method that the token names; false when none is open.
static bool end_method(call_tree *tree, const show_token &token) {
  tree_line *const method = newest(tree, &tree->open_of_method[thread_key(*tree, token)][token.method_id]);
  if (!method)
    return false;
  method->is_open = false;
  method->end_time = token.time;
  method->is_forced = token.is_forced;
  tree->ended_last = token.method_id;
  std::copy(token.times, token.times + 5, method->times);
  return true;
}

static void add_token(call_tree *tree, const show_token &token) {
  if (token.kind == TOKEN_EXIT && end_method(tree, token))
    return;
  if (tree->lines.size() >= most_lines)
    ++tree->tokens_left_out;
  else if (token.kind == TOKEN_ENTRY)
    add_entry(tree, token);
  else
    add_line(tree, newest(tree, &tree->open), token);
}

// --- its lines ----------------------------------------------------------------------------------------------------

static std::string number_text(int64_t number) {
  return std::to_string(number);
}

static void put_line(const tree_line &line, const std::string &at, const std::string &wall, const std::string &cpu,
                     const std::string &words) {
  const std::string thread = line.token.has_thread ? number_text(line.token.thread_id) : "-";
  const int indent = 2 * std::min(line.depth, most_indent);
  const std::string deeper = line.depth > most_indent ? "(" + number_text(line.depth) + ") " : "";
  printf("%10s %10s %8s %12s  %*s%s%s\n", at.c_str(), wall.c_str(), cpu.c_str(), thread.c_str(), indent, "",
         deeper.c_str(), words.c_str());
}

// "  wait 3  sync 1", as far as there are such times.
static std::string waits_text(const int64_t (&times)[5]) {
  static constexpr const char *names[] = {"cpu", "wait", "sync", "io", "suspended"};
  std::string text;
  for (size_t i = 1; i < 5; ++i)
    if (times[i] != 0)
      text += std::string("  ") + names[i] + " " + number_text(times[i]);
  return text;
}

static std::string async_text(const show_token &token) {
  if (!token.is_async)
    return "";
  return token.task_id.empty() ? "  [asynchronous]"
                               : "  [asynchronous, task " + show_printable(token.task_id, most_of_token) + "]";
}

static void put_method(const show_names &names, const tree_line &line) {
  const show_token &token = line.token;
  const std::string name = show_name(names, KIND_METHOD, token.method_id, most_of_name) + async_text(token);
  if (line.is_open)
    return put_line(line, number_text(token.time), "-", "-", name + "  [not ended]");
  // As unsigned numbers: a damaged pair of times may be any distance apart.
  const uint64_t wall = static_cast<uint64_t>(line.end_time) - static_cast<uint64_t>(token.time);
  put_line(line, number_text(token.time), number_text(static_cast<int64_t>(wall)),
           line.is_forced ? "-" : number_text(line.times[0]),
           name + waits_text(line.times) + (line.is_forced ? "  [ended by force]" : ""));
}

// --- callouts -----------------------------------------------------------------------------------------------------

struct callout_word {
  char letter;
  const char *words;
};

static constexpr callout_word callout_words[] = {
    {'T', "call"},        {'t', "thread call"},           {'x', "new segment"},
    {'c', "callout (c)"}, {'g', "callout (g)"},           {'e', "error mark"},
    {'E', "error"},       {'a', "asynchronous call"},     {'G', "grouped queries"},
    {'C', "cache calls"}, {'A', "asynchronous response"},
};

static const char *words_of(char letter) {
  for (const callout_word &row : callout_words)
    if (row.letter == letter)
      return row.words;
  return "callout";
}

static void add_detail(std::string *words, const char *name, std::string_view text) {
  if (!text.empty())
    *words += std::string(", ") + name + show_printable(text, most_of_name);
}

// ", queue:mail, type 2, ...": what is there of it.
static std::string callout_details(const show_names &names, const show_token &token) {
  std::string words = ": " + show_name(names, KIND_METHOD, token.backend_id, most_of_name);
  add_detail(&words, "type ", token.backend_type);
  add_detail(&words, "status ", token.status);
  if (token.resource_id != 0)
    words += ", resource " + show_name(names, KIND_RESOURCE, token.resource_id, most_of_name);
  if (!token.net_request.empty() || !token.net_response.empty())
    words +=
        ", network " + show_printable(token.net_request, 20) + "/" + show_printable(token.net_response, 20) + " ms";
  if (token.flowpath != 0)
    words += ", flowpath " + number_text(token.flowpath);
  add_detail(&words, "parameter ", token.parameter);
  add_detail(&words, "values ", token.values);
  if (token.letter == 'G' || (token.letter != 'C' && show_is_database_type(token.backend_type)))
    words += ", sql \"" + show_name(names, KIND_SQL, token.sql_id, most_of_name) + "\"";
  return words;
}

static void put_callout(const show_names &names, const tree_line &line) {
  const show_token &token = line.token;
  std::string words = std::string("* ") + words_of(token.letter);
  if (!token.number.empty())
    words += " " + show_printable(token.number, most_of_token);
  if (!token.is_bare)
    words += callout_details(names, token);
  put_line(line, token.start.empty() ? "-" : show_printable(token.start, 10),
           token.duration.empty() ? "-" : show_printable(token.duration, 10), "-", words);
}

// In the exit form such a method stands behind the end of the one that called it.
static void put_uninstrumented(const show_names &names, const tree_line &line) {
  const std::string caller =
      line.caller < 0 ? "" : ", called by " + show_name(names, KIND_METHOD, line.caller, most_of_name);
  put_line(line, "-", "-", "-",
           show_name(names, KIND_METHOD, line.token.method_id, most_of_name) + "  [not instrumented" + caller + "]");
}

static void put_tree_line(const show_names &names, const tree_line &line) {
  switch (line.token.kind) {
  case TOKEN_ENTRY:
    return put_method(names, line);
  case TOKEN_CALLOUT:
    return put_callout(names, line);
  case TOKEN_EXIT:
    return put_line(line, number_text(line.token.time), "-", number_text(line.token.times[0]),
                    show_name(names, KIND_METHOD, line.token.method_id, most_of_name) + "  [end without a beginning]");
  case TOKEN_UNINSTRUMENTED:
    return put_uninstrumented(names, line);
  case TOKEN_BAD:
    return put_line(line, "-", "-", "-", "? " + show_printable(line.token.text, most_of_token));
  }
}

void show_print_tree(const show_names &names, std::string_view text) {
  call_tree tree;
  show_blob blob = show_begin_blob(text);
  tree.exit_form = blob.exit_form;
  for (show_token token; show_next_token(&blob, &token);)
    add_token(&tree, token);
  printf("%10s %10s %8s %12s  %s\n", "at ms", "wall ms", "cpu ms", "thread", "call");
  for (const tree_line &line : tree.lines)
    put_tree_line(names, line);
  if (tree.tokens_left_out != 0)
    printf("... and %zu more\n", tree.tokens_left_out);
}
