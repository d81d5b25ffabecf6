// Builds call trees; see the header.
//   In      tokens in the order of the blob, callout rows in the order of the calls
//   Out     nodes
//   Thread  one for each builder
//   Failure an exit that ends nothing, and what is not understood, become nodes of their own
// An exit belongs to the newest open entry of its method on its thread. Every step takes the same time however damaged the
// blob is: entries and threads are found by an index, and methods that have ended leave the stacks when they come to the top.
#include "tqread_tree.h"

#include "tqread_text.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace tqread {

// --- the index ----------------------------------------------------------------------------------------------------

void pair_index::clear() {
  used_ = 0;
  if (++round_ == 0) { // once in 2^32 trees
    slots_.clear();
    round_ = 1;
  }
}

static size_t hash_of(int64_t a, int64_t b) {
  uint64_t h = static_cast<uint64_t>(a) * 0x9E3779B97F4A7C15U ^ static_cast<uint64_t>(b) * 0xC2B2AE3D27D4EB4FU;
  h ^= h >> 29U;
  h *= 0x165667B19E3779F9U;
  return h ^ h >> 32U;
}

void pair_index::grow() {
  const std::vector<slot> before = std::move(slots_);
  slots_.assign(std::max<size_t>(256, before.size() * 2), {});
  used_ = 0;
  for (const slot &s : before)
    if (s.round == round_)
      at(s.a, s.b) = s.value;
}

int32_t &pair_index::at(int64_t a, int64_t b) {
  if (2 * (used_ + 1) > slots_.size())
    grow();
  for (size_t i = hash_of(a, b);; ++i) {
    slot &s = slots_[i & (slots_.size() - 1)];
    if (s.round != round_) {
      s = {a, b, no_node, round_};
      ++used_;
      return s.value;
    }
    if (s.a == a && s.b == b)
      return s.value;
  }
}

// --- nodes ----------------------------------------------------------------------------------------------------------

// The newest method of a stack that is still open.
static int32_t newest(const call_tree &tree, std::vector<int32_t> *open) {
  while (!open->empty() && !tree.nodes[static_cast<size_t>(open->back())].is_open)
    open->pop_back();
  return open->empty() ? no_node : open->back();
}

int32_t tree_builder::add_node(int32_t parent, node_kind kind, call_tree *tree) {
  const auto index = static_cast<int32_t>(tree->nodes.size());
  tree_node &node = tree->nodes.emplace_back();
  last_child_.push_back(no_node);
  opened_before_.push_back(no_node);
  node.kind = kind;
  node.parent = parent;
  int32_t &last = parent == no_node ? last_root_ : last_child_[static_cast<size_t>(parent)];
  if (last != no_node)
    tree->nodes[static_cast<size_t>(last)].next_sibling = index;
  else if (parent == no_node)
    tree->first_root = index;
  else
    tree->nodes[static_cast<size_t>(parent)].first_child = index;
  last = index;
  node.depth = parent == no_node ? 0 : tree->nodes[static_cast<size_t>(parent)].depth + 1;
  return index;
}

// The exit form's order is that of one thread. A negative thread of the classic form stands on entries as none.
std::vector<int32_t> &tree_builder::open_of(const call_tree &tree, const blob_token &token, int32_t *thread) {
  const int64_t id = tree.exit_form || !token.has_thread ? -1 : std::max<int64_t>(token.thread_id, -1);
  int32_t &place = index_.at(id, INT64_MIN);
  if (place == no_node) {
    place = static_cast<int32_t>(threads_++);
    if (open_of_thread_.size() < threads_)
      open_of_thread_.emplace_back();
    open_of_thread_[threads_ - 1].clear();
  }
  *thread = place;
  return open_of_thread_[static_cast<size_t>(place)];
}

// Threads are -1 or above in the index; what belongs to the methods of one is below.
static int64_t entry_key(int32_t thread_place) {
  return -2 - int64_t{thread_place};
}

void tree_builder::add_entry(const blob_token &token, call_tree *tree) {
  int32_t thread = 0;
  std::vector<int32_t> &open = open_of(*tree, token, &thread);
  const int32_t index = add_node(newest(*tree, &open), node_kind::method, tree);
  tree_node &node = tree->nodes[static_cast<size_t>(index)];
  node.is_open = true;
  node.is_async = token.is_async;
  node.logs = token.logs;
  node.has_thread = token.has_thread;
  node.method_id = token.method_id;
  node.thread_id = token.thread_id;
  node.begin_ms = token.time_ms;
  node.text = token.task_id;
  open.push_back(index);
  open_.push_back(index);
  int32_t &entry = index_.at(entry_key(thread), token.method_id);
  opened_before_[static_cast<size_t>(index)] = entry;
  entry = index;
}

// Ends the method that the token names; false when none is open.
bool tree_builder::end_method(const blob_token &token, call_tree *tree) {
  int32_t thread = 0;
  open_of(*tree, token, &thread);
  int32_t &entry = index_.at(entry_key(thread), token.method_id);
  if (entry == no_node)
    return false;
  tree_node &node = tree->nodes[static_cast<size_t>(entry)];
  entry = opened_before_[static_cast<size_t>(entry)];
  node.is_open = false;
  node.is_forced = token.is_forced;
  node.end_ms = token.time_ms;
  // As unsigned numbers: a damaged pair of times may be any distance apart.
  node.wall_ms = static_cast<int64_t>(static_cast<uint64_t>(node.end_ms) - static_cast<uint64_t>(node.begin_ms));
  node.wall_ms = std::max<int64_t>(node.wall_ms, 0);
  if (!token.is_forced)
    std::tie(node.cpu_ms, node.wait_ms, node.sync_ms, node.io_ms, node.suspension_ms) =
        std::tie(token.times_ms[0], token.times_ms[1], token.times_ms[2], token.times_ms[3], token.times_ms[4]);
  ended_last_ = token.method_id;
  return true;
}

static int64_t whole_ms(double ms) {
  return ms > -9e15 && ms < 9e15 ? static_cast<int64_t>(std::ceil(ms)) : 0;
}

void tree_builder::add_callout(const blob_token &token, call_tree *tree) {
  const int32_t index = add_node(newest(*tree, &open_), node_kind::callout, tree);
  tree_callout &callout = tree->callouts.emplace_back();
  callout.token = token.callout;
  read_real(token.callout.start_ms, &callout.start_ms);
  read_real(token.callout.duration_ms, &callout.duration_ms);
  if (token.callout.letter == 'G') {
    callout.group.type = number_or(token.callout.backend_type, 0);
    read_group_values(token.callout.values, &callout.group);
  }
  tree_node &node = tree->nodes[static_cast<size_t>(index)];
  node.callout = static_cast<int32_t>(tree->callouts.size() - 1);
  node.method_id = token.callout.backend_id;
  node.begin_ms = whole_ms(callout.start_ms);
  node.end_ms = whole_ms(callout.start_ms + callout.duration_ms);
  node.wall_ms = std::max<int64_t>(0, node.end_ms - node.begin_ms);
}

void tree_builder::add_token(const blob_token &token, call_tree *tree) {
  tree->bad += token.kind == token_kind::bad ? 1 : 0;
  if (token.kind == token_kind::exit && end_method(token, tree))
    return;
  if (tree->nodes.size() >= most_nodes) {
    ++tree->left_out;
    return;
  }
  if (token.kind == token_kind::entry)
    return add_entry(token, tree);
  if (token.kind == token_kind::callout)
    return add_callout(token, tree);
  const node_kind kind = token.kind == token_kind::exit  ? node_kind::lone_exit
                         : token.kind == token_kind::bad ? node_kind::bad
                                                         : node_kind::uninstrumented;
  const int32_t index = add_node(newest(*tree, &open_), kind, tree);
  tree_node &node = tree->nodes[static_cast<size_t>(index)];
  node.method_id = token.method_id;
  if (kind == node_kind::bad) {
    node.text = token.text;
  } else if (kind == node_kind::uninstrumented) {
    node.caller_id = tree->exit_form ? ended_last_ : -1;
  } else {
    node.has_thread = token.has_thread;
    node.thread_id = token.thread_id;
    node.end_ms = token.time_ms;
    node.cpu_ms = token.times_ms[0];
  }
}

// --- rows of callouts -------------------------------------------------------------------------------------------------

// What a token and its row have in common.
struct callout_key {
  char letter;
  int64_t number, backend, query;
  size_t at; // among tokens, or among rows

  auto what() const { return std::tie(letter, number, backend, query); }

  bool operator<(const callout_key &other) const {
    return what() != other.what() ? what() < other.what() : at < other.at;
  }
};

static callout_key key_of(char letter, std::string_view number, int64_t backend, int64_t query, size_t at) {
  if (letter == 'G' || letter == 'C')
    return {letter, 0, backend, letter == 'G' ? query : 0, at};
  return {letter, number_or(number.substr(number.rfind('.') + 1), 0), 0, 0, at};
}

static void give_row(const callout_record &row, tree_callout *callout) {
  callout->row = row;
  callout->has_row = true;
  read_group(row, &callout->group);
}

static callout_key key_of_token(const call_tree &tree, size_t at) {
  const callout_token &token = tree.callouts[at].token;
  return key_of(token.letter, token.number, token.backend_id, token.query_id, at);
}

static callout_key key_of_row(const callout_record &row, size_t at) {
  return key_of(row.kind[0], row.number, row.backend_id, row.query_id, at);
}

// Rows are in the order of the calls, which in the classic form is the order of the tokens; else both are sorted. A bare error
// mark has no row.
static void pair_rows(std::string_view text, int64_t epoch_diff_s, call_tree *tree) {
  std::vector<callout_record> rows;
  std::vector<callout_key> row_keys, token_keys;
  callout_rows reader(text, epoch_diff_s);
  for (callout_record row; !reader.left_over().empty() && reader.next(&row);) {
    row_keys.push_back(key_of_row(row, rows.size()));
    rows.push_back(row);
  }
  for (size_t i = 0; i < tree->callouts.size(); ++i)
    if (!tree->callouts[i].token.is_bare || tree->callouts[i].token.letter != 'e')
      token_keys.push_back(key_of_token(*tree, i));
  const auto same = [](const callout_key &a, const callout_key &b) { return a.what() == b.what(); };
  if (!std::equal(row_keys.begin(), row_keys.end(), token_keys.begin(), token_keys.end(), same)) {
    std::sort(row_keys.begin(), row_keys.end());
    std::sort(token_keys.begin(), token_keys.end());
  }
  tree->rows_match = row_keys.size() == token_keys.size() && reader.left_over().empty();
  for (auto row = row_keys.begin(), token = token_keys.begin(); row != row_keys.end() && token != token_keys.end();) {
    if (same(*row, *token)) {
      give_row(rows[row++->at], &tree->callouts[token++->at]);
      continue;
    }
    tree->rows_match = false;
    if (row->what() < token->what())
      ++row;
    else
      ++token;
  }
}

// --- the tree -----------------------------------------------------------------------------------------------------------

static void add_self_times(call_tree *tree) {
  for (tree_node &node : tree->nodes) {
    node.self_ms = node.wall_ms;
    node.self_cpu_ms = node.cpu_ms;
  }
  for (const tree_node &node : tree->nodes)
    if (node.kind == node_kind::method && node.parent != no_node) {
      tree_node &parent = tree->nodes[static_cast<size_t>(node.parent)];
      parent.self_ms = std::max<int64_t>(0, parent.self_ms - node.wall_ms);
      parent.self_cpu_ms = std::max<int64_t>(0, parent.self_cpu_ms - std::max<int64_t>(0, node.cpu_ms));
    }
}

void tree_builder::build(std::string_view blob, std::string_view callouts, int64_t epoch_diff_s, call_tree *tree) {
  tree->nodes.clear();
  tree->callouts.clear();
  tree->first_root = last_root_ = no_node;
  tree->left_out = tree->bad = threads_ = 0;
  tree->rows_match = true;
  ended_last_ = -1;
  open_.clear();
  last_child_.clear();
  opened_before_.clear();
  index_.clear();
  blob_cursor cursor(blob);
  tree->exit_form = cursor.is_exit_form();
  for (blob_token token = {}; cursor.next(&token);)
    add_token(token, tree);
  if (!callouts.empty())
    pair_rows(callouts, epoch_diff_s, tree);
  add_self_times(tree);
}

} // namespace tqread
