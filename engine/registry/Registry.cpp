#include "registry/Registry.h"

#include "arm.h"

namespace armengine {

Outcome outcomeOf(int32_t completion_status) {
  switch (completion_status) {
    case ARM_GOOD:
      return Outcome::good;
    case ARM_ABORT:
      return Outcome::aborted;
    case ARM_FAILED:
      return Outcome::failed;
    default:
      return Outcome::unknown;
  }
}

/// The first number after the last one that is not in use.
int32_t Registry::newId() {
  do {
    last_id_ = last_id_ < IGNOREID - 1 ? last_id_ + 1 : 1;
  } while (applications_.count(last_id_) != 0 || isClass(last_id_) || isOpen(last_id_));
  return last_id_;
}

int32_t Registry::addApplication(const std::string& name) {
  const int32_t id = newId();
  applications_[id].name = name;
  return id;
}

int32_t Registry::addClass(int32_t application, const std::string& name, const std::string& block) {
  const auto found = applications_.find(application);
  if (found == applications_.end() || found->second.ended) return STATUS_UNKNOWN_APPLICATION;
  auto& classes = found->second.classes;
  const auto key = std::make_pair(name, block);
  if (const auto known = classes.find(key); known != classes.end()) return known->second;
  const int32_t id = newId();
  classes[key] = id;
  classes_[id] = {application, statisticsOf(found->second.name, name)};
  return id;
}

ClassStatistics* Registry::statisticsOf(const std::string& application, const std::string& name) {
  std::unique_ptr<ClassStatistics>& statistics = statistics_[{application, name}];
  if (statistics == nullptr) {
    statistics = std::make_unique<ClassStatistics>();
    statistics->application = application;
    statistics->name = name;
  }
  return statistics.get();
}

int32_t Registry::endApplication(int32_t application) {
  const auto found = applications_.find(application);
  if (found == applications_.end() || found->second.ended) return STATUS_UNKNOWN_APPLICATION;
  found->second.ended = true;
  forgetIfOver(application);
  return STATUS_OK;
}

void Registry::forgetIfOver(int32_t application) {
  const auto found = applications_.find(application);
  if (!found->second.ended || found->second.open_instances > 0) return;
  for (const auto& [key, id] : found->second.classes) classes_.erase(id);
  applications_.erase(found);
}

/// A class of which instances may be started, else null.
const Registry::TransactionClass* Registry::usableClass(int32_t id) const {
  const auto found = classes_.find(id);
  if (found == classes_.end()) return nullptr;
  return applications_.at(found->second.application).ended ? nullptr : &found->second;
}

Started Registry::start(int32_t class_id, const std::optional<CorrelatorBytes>& parent, bool trace,
                        uint64_t time) {
  const TransactionClass* of = usableClass(class_id);
  if (of == nullptr) return {STATUS_UNKNOWN_CLASS};
  const int32_t handle = newId();
  instances_[handle] = {class_id, time, openNode(*of, parent)};
  ++applications_.at(of->application).open_instances;
  return {handle, correlatorFor(class_id, handle, trace)};
}

Started Registry::report(int32_t class_id, const std::optional<CorrelatorBytes>& parent, bool trace,
                         int32_t completion_status, uint64_t duration) {
  const TransactionClass* of = usableClass(class_id);
  if (of == nullptr) return {STATUS_UNKNOWN_CLASS};
  finish(openNode(*of, parent), of->statistics, outcomeOf(completion_status), duration);
  return {STATUS_OK, correlatorFor(class_id, newId(), trace)};
}

CorrelatorBytes Registry::correlatorFor(int32_t class_id, int32_t handle, bool trace) const {
  Correlator correlator;
  correlator.engine = engine_;
  correlator.class_id = class_id;
  correlator.handle = handle;
  correlator.trace = trace;
  return encodeCorrelator(correlator);
}

/// A new instance's node, linked to its parent when that is open in this engine.
std::shared_ptr<TreeNode> Registry::openNode(const TransactionClass& of,
                                             const std::optional<CorrelatorBytes>& parent) {
  auto node = std::make_shared<TreeNode>();
  node->statistics = of.statistics;
  const auto correlator = parent ? decodeCorrelator(*parent) : std::nullopt;
  if (!correlator || correlator->engine != engine_) return node;
  const auto found = instances_.find(correlator->handle);
  if (found == instances_.end() || found->second.class_id != correlator->class_id) return node;
  TreeNode& parent_node = *found->second.node;
  node->depth = parent_node.depth + 1;
  ++parent_node.child_count;
  if (node->depth < TreeNode::MAX_DEPTH && parent_node.children.size() < TreeNode::MAX_CHILDREN) {
    parent_node.children.push_back(node);
  }
  return node;
}

int32_t Registry::update(int32_t handle) const {
  return isOpen(handle) ? STATUS_OK : STATUS_UNKNOWN_HANDLE;
}

int32_t Registry::stop(int32_t handle, int32_t completion_status, uint64_t time) {
  const auto found = instances_.find(handle);
  if (found == instances_.end()) return STATUS_UNKNOWN_HANDLE;
  const Instance& instance = found->second;
  const TransactionClass& of = classes_.at(instance.class_id);
  // A clock that has been set back must not make a response time that has gone round.
  const uint64_t duration = time > instance.start ? time - instance.start : 0;
  finish(instance.node, of.statistics, outcomeOf(completion_status), duration);
  const int32_t application = of.application;
  instances_.erase(found);
  --applications_.at(application).open_instances;
  forgetIfOver(application);
  return STATUS_OK;
}

void Registry::finish(const std::shared_ptr<TreeNode>& node, ClassStatistics* statistics,
                      Outcome outcome, uint64_t duration) {
  switch (outcome) {
    case Outcome::good:
      ++statistics->good;
      break;
    case Outcome::aborted:
      ++statistics->aborted;
      break;
    case Outcome::failed:
      ++statistics->failed;
      break;
    case Outcome::unknown:
      ++statistics->unknown;
      break;
  }
  statistics->times.add(duration);
  node->outcome = outcome;
  node->duration = duration;
  const uint64_t largest = largest_tree_ != nullptr ? largest_tree_->child_count : 0;
  if (node->depth == 0 && node->child_count > largest) largest_tree_ = node;
}

std::vector<const ClassStatistics*> Registry::statistics() const {
  std::vector<const ClassStatistics*> all;
  all.reserve(statistics_.size());
  for (const auto& [key, statistics] : statistics_) all.push_back(statistics.get());
  return all;
}

std::shared_ptr<const TreeNode> Registry::largestTree() const {
  if (largest_tree_ != nullptr) return largest_tree_;
  std::shared_ptr<const TreeNode> largest;
  for (const auto& [handle, instance] : instances_) {
    const uint64_t best = largest != nullptr ? largest->child_count : 0;
    if (instance.node->depth == 0 && instance.node->child_count > best) largest = instance.node;
  }
  return largest;
}

}  // namespace armengine
