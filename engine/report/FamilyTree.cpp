#include "report/FamilyTree.h"

#include <algorithm>

namespace armengine {

FamilyTree::FamilyTree(const std::vector<Finished>& finished, const std::vector<Subject>& open) {
  for (const Finished& one : finished) {
    const auto outcome = one.abandoned ? std::nullopt : std::optional<Outcome>(one.outcome);
    add({one.of->application, one.of->name, one.start, one.duration, outcome, {}, false},
        one.context);
  }
  for (const Subject& one : open) {
    if (one.tran_class == nullptr) continue;
    add({one.application->name, one.tran_class->name, one.start, 0, std::nullopt, {}, false},
        one.context);
  }
  link();
}

void FamilyTree::add(TreeNode node, const TraceContext& context) {
  nodes_.push_back(std::move(node));
  parents_.emplace_back(context.trace_id, context.parent_id);
  places_[{context.trace_id, context.span_id}] = &nodes_.back();
}

void FamilyTree::link() {
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    const auto parent = places_.find(parents_[i]);
    if (parent == places_.end()) continue;
    nodes_[i].has_parent = true;
    parent->second->children.push_back(&nodes_[i]);
  }
  for (TreeNode& node : nodes_) {
    std::stable_sort(
        node.children.begin(), node.children.end(), [](const TreeNode* a, const TreeNode* b) {
          return a->start != b->start ? a->start < b->start : a->duration > b->duration;
        });
  }
}

const TreeNode* FamilyTree::largest() const {
  const TreeNode* largest = nullptr;
  for (const TreeNode& node : nodes_) {
    if (node.has_parent || node.children.empty()) continue;
    const auto rank = [](const TreeNode& of) {
      return std::pair(of.outcome.has_value(), of.children.size());
    };
    if (largest == nullptr || rank(node) > rank(*largest)) largest = &node;
  }
  return largest;
}

}  // namespace armengine
