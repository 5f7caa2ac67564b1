#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "registry/Correlator.h"
#include "registry/ResponseTimes.h"

namespace armengine {

/// Statuses that the engine answers: 0, or one of these.  They stay clear of the library's own.
inline constexpr int32_t STATUS_OK = 0;
inline constexpr int32_t STATUS_UNKNOWN_APPLICATION = -101;  ///< never given, or ended
inline constexpr int32_t STATUS_UNKNOWN_CLASS = -102;        ///< never given, or of an ended one
inline constexpr int32_t STATUS_UNKNOWN_HANDLE = -103;       ///< never given, or stopped already
inline constexpr int32_t STATUS_UNKNOWN_MESSAGE = -104;
inline constexpr int32_t STATUS_BAD_LENGTH = -105;

/// How an instance ended.
enum class Outcome { good, aborted, failed, unknown };

/// The outcome of a completion status word.
Outcome outcomeOf(int32_t completion_status);

/// What is known of all finished instances of the classes of one name in applications of one name.
struct ClassStatistics {
  std::string application;
  std::string name;
  uint64_t good = 0;
  uint64_t aborted = 0;
  uint64_t failed = 0;
  uint64_t unknown = 0;
  ResponseTimes times;

  uint64_t count() const { return good + aborted + failed + unknown; }
};

/// An instance as it is drawn: with the first of its children, down to a small depth.
struct TreeNode {
  static constexpr unsigned MAX_CHILDREN = 8;
  static constexpr unsigned MAX_DEPTH = 4;

  const ClassStatistics* statistics = nullptr;
  unsigned depth = 0;
  std::optional<Outcome> outcome;  ///< none while the instance is open
  uint64_t duration = 0;           ///< nanoseconds
  uint64_t child_count = 0;        ///< all children, also those that are not kept
  std::vector<std::shared_ptr<TreeNode>> children;
};

/// An application's answer to a start: a handle, or a negative status.
struct Started {
  int32_t result = 0;
  CorrelatorBytes correlator = {};
};

/// The applications, transaction classes and open instances of one engine, and the statistics of
/// what has finished.  One counter numbers all three, so that a number names one thing; numbers are
/// positive and never IGNOREID.  Times are nanoseconds since the epoch.  One thread.
///
/// Every registration of an application gets an id of its own.  An application that has ended is
/// forgotten, with its classes, when its last open instance has been stopped; the statistics stay.
class Registry {
 public:
  /// engine: the number that this run writes into its correlators.
  explicit Registry(uint64_t engine) : engine_(engine) {}

  int32_t addApplication(const std::string& name);
  /// The id of a class, the same for the same application, name and description block.
  ///   block  the metric descriptions and their size as they were given; empty without any
  int32_t addClass(int32_t application, const std::string& name, const std::string& block);
  /// Ends an application: no more classes and starts; its open instances go on.
  int32_t endApplication(int32_t application);

  /// Opens an instance.
  ///   parent  correlator that came with the start; one that cannot be resolved is no error
  ///   trace   whether the application asks for a trace
  Started start(int32_t class_id, const std::optional<CorrelatorBytes>& parent, bool trace,
                uint64_t time);
  int32_t update(int32_t handle) const;
  int32_t stop(int32_t handle, int32_t completion_status, uint64_t time);
  /// Counts an instance of a class that has finished already; it is never open.  The result is
  /// STATUS_OK or a negative status.
  Started report(int32_t class_id, const std::optional<CorrelatorBytes>& parent, bool trace,
                 int32_t completion_status, uint64_t duration);

  bool isClass(int32_t id) const { return classes_.count(id) != 0; }
  bool isOpen(int32_t id) const { return instances_.count(id) != 0; }
  std::size_t openInstances() const { return instances_.size(); }
  /// Applications that have not been forgotten.
  std::size_t applications() const { return applications_.size(); }

  /// All statistics, by application and class name.
  std::vector<const ClassStatistics*> statistics() const;
  /// The finished instance without a parent that had most children, else an open one; null when no
  /// instance had any.
  std::shared_ptr<const TreeNode> largestTree() const;

  /// The last number given; the next one is the first free one after it.  For tests of the wrap.
  void continueAfter(int32_t id) { last_id_ = id; }

 private:
  struct Application {
    std::string name;
    bool ended = false;
    std::size_t open_instances = 0;
    std::map<std::pair<std::string, std::string>, int32_t> classes;
  };
  struct TransactionClass {
    int32_t application;
    ClassStatistics* statistics;
  };
  struct Instance {
    int32_t class_id;
    uint64_t start;
    std::shared_ptr<TreeNode> node;
  };

  int32_t newId();
  ClassStatistics* statisticsOf(const std::string& application, const std::string& name);
  const TransactionClass* usableClass(int32_t id) const;
  std::shared_ptr<TreeNode> openNode(const TransactionClass& of,
                                     const std::optional<CorrelatorBytes>& parent);
  CorrelatorBytes correlatorFor(int32_t class_id, int32_t handle, bool trace) const;
  void finish(const std::shared_ptr<TreeNode>& node, ClassStatistics* statistics, Outcome outcome,
              uint64_t duration);
  void forgetIfOver(int32_t application);

  uint64_t engine_;
  int32_t last_id_ = 0;
  std::unordered_map<int32_t, Application> applications_;
  std::unordered_map<int32_t, TransactionClass> classes_;
  std::unordered_map<int32_t, Instance> instances_;
  std::map<std::pair<std::string, std::string>, std::unique_ptr<ClassStatistics>> statistics_;
  std::shared_ptr<const TreeNode> largest_tree_;
};

}  // namespace armengine
