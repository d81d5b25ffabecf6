// The methods of a call tree as frames that lie one in the other, as profile formats want them.
//   In      a call tree
//   Out     frames in the order of their begins, a frame before those in it
//   Thread  any
//   Failure none: what a damaged tree has outside its caller is cut at the caller's ends
#pragma once

#include "tqread_tree.h"

#include <cstdint>
#include <vector>

namespace tqread {

// Methods with times only: callouts, methods without instrumentation and lone exits have no frames. Of calls of one method
// on one thread no two overlap, and each lies within its caller.
struct profile_frame {
  int32_t node;             // in the tree
  int32_t parent;           // frame; no_node: a root
  int32_t depth;            // 0: a root
  int64_t thread;           // the roots'; those of a thread stand together
  int64_t begin_ms, end_ms; // since the segment's begin, never below 0
  int64_t self_ms;          // less the frames directly in it
};

// Makes frames; keeps its memory from one tree to the next.
struct frame_builder {
  const std::vector<profile_frame> &build(const call_tree &tree);

private:
  void add_subtree(const call_tree &tree, int32_t root, int64_t last, int64_t *reached);

  struct open_frame {
    int32_t next_node; // the next child to look at
    int32_t frame;
    int64_t reached; // where the last child ended
  };

  std::vector<profile_frame> frames_;
  std::vector<open_frame> open_;
  std::vector<std::pair<int64_t, int32_t>> roots_; // thread, node
};

} // namespace tqread
