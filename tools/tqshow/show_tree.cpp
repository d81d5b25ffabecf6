// The call tree for people: methods under the methods that called them, callouts in the methods that were open.
//   In      a call tree, names
//   Out     lines: when, how long, how long by itself, CPU, thread; the depth shows as guides
//   Thread  one
//   Failure an exit that ends nothing, and a piece that is not understood, have lines of their own
#include "show_tree.h"

#include "tqread_text.h"

#include <algorithm>

using namespace tqread;

constexpr int most_guides = 40; // levels
constexpr size_t most_of_name = 200, most_of_piece = 120;
constexpr size_t number_width = 9, thread_width = 6;

struct tree_printer {
  const name_table &names;
  const call_tree &tree;
  const show_tree_options &options;
  show_out *out;
  std::vector<bool> has_error = {}; // by node, when subtrees are folded

  void print_front(const tree_node &node, std::string_view at, std::string_view wall, std::string_view self,
                   std::string_view cpu) const;
  void print_name(name_kind kind, int64_t id) const;
  void print_method(const tree_node &node) const;
  void print_callout(const tree_node &node) const;
  void print_other(const tree_node &node) const;
  void print_folded(const tree_node &first, int64_t methods, int64_t wall_ms) const;
  void find_errors();
  bool is_folded(const tree_node &node, int32_t index) const;
  void print() const;
};

// --- a line's front -------------------------------------------------------------------------------------------------

// A number as text, without memory of its own.
struct number_text {
  explicit number_text(int64_t value) {
    char *at = digits + sizeof digits;
    uint64_t rest = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
      *--at = static_cast<char>('0' + rest % 10);
    } while ((rest /= 10) != 0);
    if (value < 0)
      *--at = '-';
    text = {at, static_cast<size_t>(digits + sizeof digits - at)};
  }

  number_text(const number_text &) = delete;
  number_text &operator=(const number_text &) = delete;
  char digits[24];
  std::string_view text;
};

void show_tree_heading(show_out *out) {
  out->begin_colour(DIM).right("at ms", number_width).put(" ").right("wall ms", number_width).put(" ");
  out->right("self ms", number_width).put(" ").right("cpu ms", number_width).put(" ");
  out->right("thread", thread_width).put("  call").end_colour(DIM).end_line();
}

void tree_printer::print_front(const tree_node &node, std::string_view at, std::string_view wall, std::string_view self,
                               std::string_view cpu) const {
  out->right(at, number_width).put(" ").right(wall, number_width).put(" ").right(self, number_width).put(" ");
  out->right(cpu, number_width).put(" ");
  if (node.has_thread)
    out->right(node.thread_id, thread_width).put("  ");
  else
    out->right("-", thread_width).put("  ");
  const int depth = node.depth + options.levels;
  out->begin_colour(DIM);
  for (int i = 0; i < std::min(depth, most_guides); ++i)
    out->put(out->guide);
  if (depth > most_guides)
    out->put("(").number(depth).put(") ");
  out->end_colour(DIM);
}

void tree_printer::print_name(name_kind kind, int64_t id) const {
  const std::string_view text = names.find(kind, id);
  if (!text.data())
    out->put("#").number(id);
  else if (text.size() <= most_of_name)
    out->put(text);
  else
    out->put_safe(text, most_of_name);
}

// --- methods --------------------------------------------------------------------------------------------------------

void tree_printer::print_method(const tree_node &node) const {
  const number_text at(node.begin_ms), wall(node.wall_ms), self(node.self_ms), cpu(node.cpu_ms);
  if (node.is_open)
    print_front(node, at.text, "-", "-", "-");
  else
    print_front(node, at.text, wall.text, self.text, node.is_forced ? "-" : cpu.text);
  print_name(name_kind::method, node.method_id);
  if (node.is_async) {
    out->put("  [asynchronous");
    if (!node.text.empty())
      out->put(", task ").put_safe(node.text, most_of_piece);
    out->put("]");
  }
  const auto print_time = [this](const char *what, int64_t ms) {
    if (ms != 0)
      out->put(what).number(ms);
  };
  print_time("  wait ", node.wait_ms);
  print_time("  sync ", node.sync_ms);
  print_time("  io ", node.io_ms);
  print_time("  suspended ", node.suspension_ms);
  if (node.is_open)
    out->put("  [not ended]");
  if (node.is_forced)
    out->put("  [ended by force]");
  out->end_line();
}

// "... 12 methods below 5 ms, 33 ms together"
void tree_printer::print_folded(const tree_node &first, int64_t methods, int64_t wall_ms) const {
  const number_text at(first.begin_ms), wall(wall_ms);
  print_front(first, at.text, wall.text, "-", "-");
  out->begin_colour(DIM).put("... ").number(methods).put(methods == 1 ? " method below " : " methods below ");
  out->number(options.fold_ms).put(" ms folded").end_colour(DIM).end_line();
}

// --- callouts -------------------------------------------------------------------------------------------------------

static bool is_error(const tree_callout &callout) {
  return callout.token.letter == 'E' || callout.token.letter == 'e' || callout.row.errors > 0 ||
         callout.group.errors > 0 || number_or(callout.token.status, 0) >= 400;
}

static bool is_group(const callout_token &token) {
  return token.letter == 'G' || token.letter == 'C';
}

// "5 calls, 1 to 9 ms, 20 ms in all, 1 error": what is given of it.
static void print_group(const group_numbers &group, show_out *out) {
  out->put(", ").number(group.count).put(group.count == 1 ? " call" : " calls");
  if (group.longest_ms > 0)
    out->put(", ").real(group.shortest_ms, 3).put(" to ").real(group.longest_ms, 3).put(" ms");
  if (group.total_ms > 0)
    out->put(", ").real(group.total_ms, 3).put(" ms in all");
  if (group.errors != 0)
    out->put(", ").number(group.errors).put(group.errors == 1 ? " error" : " errors");
}

void tree_printer::print_callout(const tree_node &node) const {
  const tree_callout &callout = tree.callouts[static_cast<size_t>(node.callout)];
  const callout_token &token = callout.token;
  const show_colour colour = is_error(callout) ? RED : CYAN;
  print_front(node, token.start_ms.empty() ? "-" : printable(token.start_ms, number_width),
              token.duration_ms.empty() ? "-" : printable(token.duration_ms, number_width), "-", "-");
  out->begin_colour(colour).put("* ").put(words_of_callout(token.letter));
  if (!token.number.empty())
    out->put(" ").put_safe(token.number, most_of_piece);
  const auto print_text = [this](const char *what, std::string_view text) {
    if (!text.empty())
      out->put(what).put_safe(text, most_of_name);
  };
  if (!token.is_bare) {
    out->put(": ");
    print_name(name_kind::method, token.backend_id);
    const int64_t number = callout.group.type != 0 ? callout.group.type : number_or(token.backend_type, 0);
    if (const backend_type type = backend_type_of(number); type.name)
      out->put(", ").put(type.name);
    else
      print_text(", type ", token.backend_type);
    if (is_group(token) && (callout.has_row || token.letter == 'G'))
      print_group(callout.group, out);
    print_text(", status ", token.status);
    if (token.resource_id != 0) {
      out->put(", resource ");
      print_name(name_kind::resource, token.resource_id);
    }
    if (!token.net_request_ms.empty() || !token.net_response_ms.empty())
      out->put(", network ").put_safe(token.net_request_ms, 20).put("/").put_safe(token.net_response_ms, 20).put(" ms");
    if (token.flowpath != 0)
      out->put(", flowpath ").number(token.flowpath);
    print_text(", parameter ", token.parameter);
    if (token.letter == 'G' || (token.letter != 'C' && is_database(token.backend_type))) {
      out->put(", sql \"");
      print_name(name_kind::query, token.query_id);
      out->put("\"");
    }
  }
  out->end_colour(colour).end_line();
  if (options.after_callout)
    options.after_callout(callout, node.depth + options.levels + 1);
}

// --- the rest -------------------------------------------------------------------------------------------------------

// In the exit form a method without instrumentation stands after the end of the one that called it.
void tree_printer::print_other(const tree_node &node) const {
  const number_text end(node.end_ms), cpu(node.cpu_ms);
  if (node.kind == node_kind::lone_exit) {
    print_front(node, end.text, "-", "-", cpu.text);
    print_name(name_kind::method, node.method_id);
    out->put("  [end without a beginning]").end_line();
    return;
  }
  print_front(node, "-", "-", "-", "-");
  if (node.kind == node_kind::bad) {
    out->put("? ").put_safe(node.text, most_of_piece).end_line();
    return;
  }
  print_name(name_kind::method, node.method_id);
  out->put("  [not instrumented");
  if (node.caller_id >= 0) {
    out->put(", called by ");
    print_name(name_kind::method, node.caller_id);
  }
  out->put("]").end_line();
}

// --- folding --------------------------------------------------------------------------------------------------------

// Which nodes have an error or a lasting callout in them: such ones are not folded.
void tree_printer::find_errors() {
  has_error.assign(tree.nodes.size(), false);
  for (size_t i = tree.nodes.size(); i-- > 0;) { // children come after their parents
    const tree_node &node = tree.nodes[i];
    const bool own = node.kind == node_kind::callout
                         ? is_error(tree.callouts[static_cast<size_t>(node.callout)]) || node.wall_ms >= options.fold_ms
                         : node.kind == node_kind::bad || node.is_open;
    has_error[i] = has_error[i] || own;
    if (has_error[i] && node.parent != no_node)
      has_error[static_cast<size_t>(node.parent)] = true;
  }
}

bool tree_printer::is_folded(const tree_node &node, int32_t index) const {
  const bool has_time = node.kind == node_kind::method && !node.is_open;
  return options.fold_ms > 0 && (has_time || node.kind == node_kind::uninstrumented) &&
         node.wall_ms < options.fold_ms && !has_error[static_cast<size_t>(index)];
}

// Neighbours that are folded become one line.
void tree_printer::print() const {
  int32_t at = tree.first_root;
  const auto node_at = [this](int32_t index) -> const tree_node & { return tree.nodes[static_cast<size_t>(index)]; };
  while (at != no_node) {
    const tree_node &node = node_at(at);
    bool goes_down = node.first_child != no_node;
    if (is_folded(node, at)) {
      int64_t methods = 1, wall_ms = node.wall_ms;
      while (node_at(at).next_sibling != no_node &&
             is_folded(node_at(node_at(at).next_sibling), node_at(at).next_sibling)) {
        at = node_at(at).next_sibling;
        ++methods;
        wall_ms += node_at(at).wall_ms;
      }
      print_folded(node, methods, wall_ms);
      goes_down = false;
    } else if (node.kind == node_kind::method) {
      print_method(node);
    } else if (node.kind == node_kind::callout) {
      print_callout(node);
    } else {
      print_other(node);
    }
    if (goes_down) {
      at = node.first_child;
      continue;
    }
    while (at != no_node && node_at(at).next_sibling == no_node)
      at = node_at(at).parent;
    if (at != no_node)
      at = node_at(at).next_sibling;
  }
}

void show_print_tree(const name_table &names, const call_tree &tree, const show_tree_options &options, show_out *out) {
  tree_printer printer = {names, tree, options, out};
  if (options.fold_ms > 0)
    printer.find_errors();
  printer.print();
  if (tree.left_out != 0)
    out->put("... and ").number(static_cast<int64_t>(tree.left_out)).put(" more").end_line();
}
