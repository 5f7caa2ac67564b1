#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "base/RecordTable.h"
#include "registry/InstanceMetrics.h"
#include "registry/Registrations.h"
#include "registry/Statistics.h"

namespace armengine {

/// A registered application.
struct Application {
  std::shared_ptr<const ApplicationInfo> info;
  int32_t process = 0;  ///< that has used it last
  bool ended = false;
  bool departed = false;  ///< its process has ended
  std::size_t open_instances = 0;
  uint64_t last_used = 0;
};

/// A registered transaction class.
struct TransactionClass {
  int32_t application = 0;
  std::shared_ptr<const ClassInfo> info;
  std::shared_ptr<ClassStatistics> statistics;  ///< null when they have expired
  MetricBinding metrics;
  bool ignored = false;  ///< never traced
};

/// The registered applications and transaction classes: plain records by id, and an index of the
/// classes by what they are registered with.  One thread; pointers hold until their id is removed.
class Catalogue {
 public:
  Application* application(int32_t id) { return applications_.find(id); }
  TransactionClass* tranClass(int32_t id) { return classes_.find(id); }
  const TransactionClass* tranClass(int32_t id) const { return classes_.find(id); }
  /// The class of an application with that name and metric description block; null without one.
  TransactionClass* findClass(int32_t application, std::string_view name, std::string_view block);

  /// Names become UTF-8; bytes that are not are kept beside them.
  Application& addApplication(int32_t id, std::string_view name, std::string_view user);
  TransactionClass& addClass(int32_t id, const Application& application, std::string_view name,
                             std::string_view block, std::string_view detail);
  /// Removes an application and its classes.
  void remove(int32_t application);

  std::size_t applications() const { return applications_.size(); }
  std::size_t classes() const { return classes_.size(); }
  bool has(int32_t id) const { return applications_.has(id) || classes_.has(id); }
  template <typename Body>
  void forEachApplication(Body&& body) {
    applications_.forEach([&](int32_t, Application& application) { body(application); });
  }
  template <typename Body>
  void forEachClass(Body&& body) {
    classes_.forEach([&](int32_t, TransactionClass& of) { body(of); });
  }

 private:
  /// Of an application, the name and the block.
  using Key = std::tuple<int32_t, std::string, std::string>;
  using KeyView = std::tuple<int32_t, std::string_view, std::string_view>;
  struct CompareKeys {
    using is_transparent = void;
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
      return KeyView(a) < KeyView(b);
    }
  };

  RecordTable<Application> applications_;
  RecordTable<TransactionClass> classes_;
  std::map<Key, int32_t, CompareKeys> class_index_;
};

}  // namespace armengine
