#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "registry/Statistics.h"

namespace armengine {

/// An instance as it is drawn: with the first of its children, down to a small depth.
struct TreeNode {
  static constexpr unsigned MAX_CHILDREN = 8;
  static constexpr unsigned MAX_DEPTH = 4;

  std::shared_ptr<const ClassStatistics> statistics;
  unsigned depth = 0;
  std::optional<Outcome> outcome;  ///< none while the instance is open
  uint64_t duration = 0;           ///< nanoseconds
  uint64_t child_count = 0;        ///< all children, also those that are not kept
  std::array<TreeNode*, MAX_CHILDREN> children = {};
  unsigned kept = 0;  ///< children that are kept

 private:
  friend class TreeNodes;
  unsigned users = 0;
};

/// Gives nodes and takes them back, without allocating memory once there are enough.
class TreeNodes {
 public:
  /// A node with one user.
  TreeNode* make(std::shared_ptr<const ClassStatistics> statistics, unsigned depth) {
    if (free_ == nullptr) free_ = &all_.emplace_back();
    TreeNode* node = free_;
    free_ = node->children[0];
    node->children[0] = nullptr;
    node->statistics = std::move(statistics);
    node->depth = depth;
    node->users = 1;
    return node;
  }
  TreeNode* use(TreeNode* node) {
    if (node != nullptr) ++node->users;
    return node;
  }
  /// Ends one use; a node without users goes, and so do its children.
  void release(TreeNode* node) {
    if (node == nullptr || --node->users > 0) return;
    for (unsigned i = 0; i < node->kept; ++i) release(node->children[i]);
    *node = TreeNode();
    node->children[0] = free_;
    free_ = node;
  }

 private:
  std::deque<TreeNode> all_;
  TreeNode* free_ = nullptr;  ///< linked through their first children
};

}  // namespace armengine
