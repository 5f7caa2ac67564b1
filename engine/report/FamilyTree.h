#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "recent/RecentTransactions.h"

namespace armengine {

/// A transaction as it is drawn.
struct TreeNode {
  std::string application;
  std::string name;
  uint64_t start = 0;
  uint64_t duration = 0;            ///< nanoseconds
  std::optional<Outcome> outcome;   ///< none: it has not been stopped
  std::vector<TreeNode*> children;  ///< in the order of their starts
  bool has_parent = false;
};

/// Parents and children among finished and open transactions.
class FamilyTree {
 public:
  FamilyTree(const std::vector<Finished>& finished, const std::vector<Subject>& open);

  /// The finished transaction without a parent that has most children, else an open one; null when
  /// none has any.
  const TreeNode* largest() const;

 private:
  using Key = std::pair<TraceId, SpanId>;

  void add(TreeNode node, const TraceContext& context);
  void link();

  std::deque<TreeNode> nodes_;
  std::vector<Key> parents_;  ///< of each node
  std::map<Key, TreeNode*> places_;
};

}  // namespace armengine
