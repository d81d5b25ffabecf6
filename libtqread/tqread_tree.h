// The call tree of a segment, from either form of its blob, as one kind of nodes.
//   In      an inflated blob and callout text
//   Out     nodes: methods under the methods that called them, callouts in the methods that were open
//   Thread  any
//   Failure what is not of the grammar becomes a node of its own; nothing is lost without being counted
#pragma once

#include "tqread_blob.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace tqread {

constexpr size_t most_nodes = 250000; // of one tree; what comes after is counted and left out

enum class node_kind : uint8_t {
  method,
  callout,
  uninstrumented, // a method without times
  lone_exit,      // an end without a beginning: its entry was not sent
  bad             // a piece that is not of the grammar: its text
};

constexpr int32_t no_node = -1;

// One node. Times are milliseconds since the segment's begin, ids are norm ids.
struct tree_node {
  node_kind kind = node_kind::bad;
  bool is_open = false;   // a method that has not ended: its times are 0
  bool is_forced = false; // ended because a method below it did: only begin and end are known
  bool is_async = false;  // entered as an asynchronous call
  bool logs = false;      // values were logged in it, or custom data
  bool has_thread = false;
  int32_t parent = no_node, first_child = no_node, next_sibling = no_node; // indexes; children in the order of the blob
  int32_t depth = 0;                                                       // 0: a root
  int32_t callout = no_node;                                               // of a callout: index in call_tree::callouts
  int64_t method_id = 0; // method, uninstrumented, lone exit; a callout's backend
  int64_t thread_id = 0;
  int64_t begin_ms = 0,
          end_ms = 0;  // a callout's end is its start and duration, rounded up; a lone exit has an end only
  int64_t wall_ms = 0; // end less begin, never below 0
  int64_t self_ms = 0; // wall less the walls of the methods and callouts directly below it, never below 0
  int64_t cpu_ms = 0, wait_ms = 0, sync_ms = 0, io_ms = 0, suspension_ms = 0; // as the agent sums them, with callees
  int64_t self_cpu_ms = 0; // CPU less that of the methods directly below, never below 0
  int64_t caller_id = -1;  // of an uninstrumented one, where the form says: the method that called it
  std::string_view text;   // of a bad one: its bytes; of a method: the task of an asynchronous call
};

// A callout of the tree, with its row where there is one.
struct tree_callout {
  callout_token token;
  callout_record row = {};
  bool has_row = false;
  double start_ms = 0, duration_ms = 0; // 0: not given
  group_numbers group;                  // of a 'G' or 'C'
};

// The texts live in the blob and the callout text from which the tree was made.
struct call_tree {
  std::vector<tree_node> nodes; // every parent before its children; siblings in the order of the blob
  std::vector<tree_callout> callouts;
  int32_t first_root = no_node; // roots are siblings
  size_t left_out = 0;          // tokens beyond most_nodes
  size_t bad = 0;               // tokens that are not of the grammar
  bool exit_form = false;
  bool rows_match = true; // false: tokens and callout rows are not the same in number and kind

  // Calls use(node, index) for each node in the order of a printed tree: a node, then its children.
  template <class Use> void walk(Use use) const;
};

// Finds a place by two numbers; cleared at no cost. For the builder alone.
struct pair_index {
  void clear();
  int32_t &at(int64_t a, int64_t b); // no_node where nothing was stored yet; good until the next call

private:
  struct slot {
    int64_t a, b;
    int32_t value;
    uint32_t round; // the slot is in use when this is the present round
  };

  void grow();
  std::vector<slot> slots_; // a power of two
  size_t used_ = 0;
  uint32_t round_ = 0;
};

// Makes trees; keeps its memory from one to the next.
struct tree_builder {
  // Makes the tree of a segment. `callouts` may be empty: then no callout has a row.
  void build(std::string_view blob, std::string_view callouts, int64_t epoch_diff_s, call_tree *tree);

private:
  void add_token(const blob_token &token, call_tree *tree);
  int32_t add_node(int32_t parent, node_kind kind, call_tree *tree);
  void add_entry(const blob_token &token, call_tree *tree);
  void add_callout(const blob_token &token, call_tree *tree);
  bool end_method(const blob_token &token, call_tree *tree);
  std::vector<int32_t> &open_of(const call_tree &tree, const blob_token &token, int32_t *thread);

  std::vector<std::vector<int32_t>>
      open_of_thread_; // open methods, the newest last; ended ones stay until they are on top
  size_t threads_ = 0;
  std::vector<int32_t> open_;                       // of all threads
  std::vector<int32_t> last_child_, opened_before_; // by node; the second: the same method's open entry before this one
  pair_index index_;                                // a thread's place; by a thread and a method: the newest open entry
  int32_t last_root_ = no_node;
  int64_t ended_last_ = -1; // method
};

template <class Use> void call_tree::walk(Use use) const {
  for (int32_t at = first_root; at != no_node;) {
    const tree_node &node = nodes[static_cast<size_t>(at)];
    use(node, at);
    if (node.first_child != no_node) {
      at = node.first_child;
      continue;
    }
    while (at != no_node && nodes[static_cast<size_t>(at)].next_sibling == no_node)
      at = nodes[static_cast<size_t>(at)].parent;
    if (at != no_node)
      at = nodes[static_cast<size_t>(at)].next_sibling;
  }
}

} // namespace tqread
