#include "registry/OpenInstances.h"

#include <algorithm>

namespace armengine {

namespace {

template <typename Condition>
std::vector<int32_t> handlesOf(const RecordTable<Instance>& instances, Condition condition) {
  std::vector<int32_t> handles;
  instances.forEach([&](int32_t handle, const Instance& instance) {
    if (condition(instance)) handles.push_back(handle);
  });
  std::sort(handles.begin(), handles.end());
  return handles;
}

}  // namespace

std::vector<int32_t> OpenInstances::of(int32_t process, uint64_t seen_before) const {
  return handlesOf(instances_, [&](const Instance& instance) {
    return instance.process == process && instance.seen < seen_before;
  });
}

std::vector<int32_t> OpenInstances::all() const {
  return handlesOf(instances_, [](const Instance&) { return true; });
}

}  // namespace armengine
