// Frames out of call trees.
//   In      trees whose times may contradict each other
//   Out     frames whose times never do
//   Thread  the owner's
//   Failure none
#include "export_frames.h"

#include <algorithm>

namespace tqread {

// Where a method ends. One that has not ended lasts as long as its caller; INT64_MAX: as long as its thread.
static int64_t end_of(const tree_node &node) {
  return node.is_open ? INT64_MAX : std::max(node.begin_ms, node.end_ms);
}

// A segment lasts a year at most; damaged numbers beyond that are cut.
constexpr int64_t longest_ms = int64_t{366} * 24 * 3600 * 1000;

// The latest end in a tree: what is open ends there.
static int64_t last_end(const call_tree &tree) {
  int64_t last = 0;
  for (const tree_node &node : tree.nodes)
    if (node.kind == node_kind::method)
      last = std::max({last, node.begin_ms, node.is_open ? 0 : node.end_ms});
  return std::min(last, longest_ms);
}

// Frames are made without recursion: trees may be as deep as they have nodes.
void frame_builder::add_subtree(const call_tree &tree, int32_t root, int64_t last, int64_t *reached) {
  const auto put = [&](int32_t at, int32_t parent, int64_t from, int64_t to) {
    const tree_node &node = tree.nodes[static_cast<size_t>(at)];
    profile_frame frame = {};
    frame.node = at;
    frame.parent = parent;
    frame.depth = parent == no_node ? 0 : frames_[static_cast<size_t>(parent)].depth + 1;
    frame.thread = parent == no_node ? 0 : frames_[static_cast<size_t>(parent)].thread;
    frame.begin_ms = std::clamp(node.begin_ms, from, to);
    frame.end_ms = std::clamp(end_of(node), frame.begin_ms, to);
    frame.self_ms = frame.end_ms - frame.begin_ms;
    if (parent != no_node)
      frames_[static_cast<size_t>(parent)].self_ms -= frame.self_ms;
    frames_.push_back(frame);
    open_.push_back({node.first_child, static_cast<int32_t>(frames_.size() - 1), frame.begin_ms});
    return frame.end_ms;
  };
  *reached = put(root, no_node, *reached, last);
  while (!open_.empty()) {
    open_frame &top = open_.back();
    if (top.next_node == no_node) {
      open_.pop_back();
      continue;
    }
    const int32_t at = top.next_node, parent = top.frame;
    const tree_node &node = tree.nodes[static_cast<size_t>(at)];
    top.next_node = node.next_sibling;
    if (node.kind != node_kind::method)
      continue;
    const size_t place = open_.size() - 1;
    const int64_t end = put(at, parent, top.reached, frames_[static_cast<size_t>(parent)].end_ms);
    open_[place].reached = end;
  }
}

const std::vector<profile_frame> &frame_builder::build(const call_tree &tree) {
  frames_.clear();
  roots_.clear();
  for (int32_t at = tree.first_root; at != no_node; at = tree.nodes[static_cast<size_t>(at)].next_sibling)
    if (const tree_node &node = tree.nodes[static_cast<size_t>(at)]; node.kind == node_kind::method)
      roots_.emplace_back(tree.exit_form || !node.has_thread ? -1 : node.thread_id, at);
  std::stable_sort(roots_.begin(), roots_.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  const int64_t last = last_end(tree);
  int64_t reached = 0;
  for (size_t i = 0; i < roots_.size(); ++i) {
    if (i > 0 && roots_[i].first != roots_[i - 1].first)
      reached = 0;
    const size_t first = frames_.size();
    add_subtree(tree, roots_[i].second, last, &reached);
    for (size_t frame = first; frame < frames_.size(); ++frame)
      frames_[frame].thread = roots_[i].first;
  }
  return frames_;
}

} // namespace tqread
