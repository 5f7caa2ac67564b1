#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "registry/Correlator.h"
#include "registry/EngineFigures.h"
#include "registry/IdTable.h"
#include "registry/Infos.h"
#include "registry/Statistics.h"
#include "registry/Tree.h"

namespace armengine {

/// Statuses that the engine answers: 0, or one of these.  They stay clear of the library's own.
inline constexpr int32_t STATUS_OK = 0;
inline constexpr int32_t STATUS_UNKNOWN_APPLICATION = -101;  ///< never given, or ended
inline constexpr int32_t STATUS_UNKNOWN_CLASS = -102;        ///< never given, or of an ended one
inline constexpr int32_t STATUS_UNKNOWN_HANDLE = -103;       ///< never given, or stopped already
inline constexpr int32_t STATUS_UNKNOWN_MESSAGE = -104;
inline constexpr int32_t STATUS_BAD_LENGTH = -105;
inline constexpr int32_t STATUS_TOO_MANY = -106;  ///< a start beyond the limit of open instances

/// What an operator can choose.
struct RegistrySettings {
  std::size_t most_applications = 1000;  ///< what comes beyond shares the application "other"
  std::size_t most_classes = 10000;      ///< what comes beyond shares the class "other"
  std::size_t most_open = 100000;        ///< starts beyond are refused
  uint64_t idle_seconds = 86400;         ///< unused statistics go after that time; 0: never
  double sample = 1;                     ///< share of the new traces that are traced
  /// Patterns of APPLICATION/CLASS (as a shell's, '*' stands for any text) that are not traced.
  std::vector<std::string> ignore;
  Buckets buckets = standardBuckets();
};

/// An application's answer to a start: a handle, or a negative status.
struct Started {
  int32_t result = 0;
  CorrelatorBytes correlator = {};
};

/// What came with a start or a report.
struct StartData {
  std::optional<CorrelatorBytes> parent = {};  ///< one that cannot be resolved is no error
  bool trace = false;                          ///< whether the application asks for a trace
  const uint8_t* metrics = nullptr;            ///< format-1 block, null without one
  int32_t process = 0;                         ///< who started it
  uint64_t seen = 0;                           ///< when, as bootTime
};

/// What has been dropped because nobody used it.
struct Expired {
  std::vector<std::shared_ptr<const ApplicationInfo>> applications;
  std::vector<std::shared_ptr<const ClassStatistics>> classes;
};

/// The applications, transaction classes and open instances of one engine, and the statistics of
/// what has finished.  One counter numbers all three, so that a number names one thing; numbers are
/// positive and never IGNOREID.  Times are nanoseconds since the epoch.  One thread, except where
/// another one is allowed.
///
/// Every registration of an application gets an id of its own.  An application that has ended is
/// forgotten, with its classes, when its last open instance has been stopped; the statistics stay.
/// Starting, updating and stopping allocate no memory once there has been room for as many.
class Registry {
 public:
  /// engine: the number that this run writes into its correlators.
  explicit Registry(uint64_t engine, RegistrySettings settings = {});

  int32_t addApplication(std::string_view name, std::string_view user = {}, int32_t process = 0);
  /// The id of a class, the same for the same application, name and description block.
  ///   block  the metric descriptions and then their size as they were given; empty without any
  int32_t addClass(int32_t application, std::string_view name, std::string_view block,
                   std::string_view detail = {}, int32_t process = 0);
  /// Ends an application: no more classes and starts; its open instances go on.
  int32_t endApplication(int32_t application);

  /// Opens an instance.
  Started start(int32_t class_id, const StartData& data, uint64_t time);
  ///   metrics  format-1 block, null without one
  ///   process  who asks; an instance belongs to the process that used it last
  int32_t update(int32_t handle, const uint8_t* metrics = nullptr, int32_t process = 0);
  int32_t stop(int32_t handle, int32_t completion_status, uint64_t time,
               const uint8_t* metrics = nullptr);
  /// Counts an instance of a class that has finished already; it is never open.  The result is
  /// STATUS_OK or a negative status.
  Started report(int32_t class_id, const StartData& data, int32_t completion_status,
                 uint64_t duration);
  /// Ends an instance that nobody will stop; it is counted apart and its time is not.
  int32_t abandon(int32_t handle, uint64_t time);
  /// Names what a number stands for in applied(), if it is known.
  void look(int32_t id);

  /// What the last of the operations above was about.
  const Applied& applied() const { return applied_; }

  /// The open instances of a process that were started before a time (as bootTime).
  std::vector<int32_t> openOf(int32_t process, uint64_t seen_before) const;
  /// Marks the applications of a process that has ended; they go when they are not used for a while.
  void processEnded(int32_t process);
  /// Drops what nobody has used for the time of the settings.
  ///   now  seconds of a steady clock; also what is used from now on is used then
  Expired expire(uint64_t now);
  /// Drops an application, or the statistics of a class, by name; for the reading of events.
  void forget(int32_t application);
  void forgetStatistics(const std::string& application, const std::string& name);

  bool isClass(int32_t id) const { return classes_.count(id) != 0; }
  bool isOpen(int32_t id) const { return instances_.find(id) != nullptr; }
  std::size_t openInstances() const { return instances_.size(); }
  /// Applications that have not been forgotten.
  std::size_t applications() const { return applications_.size(); }

  /// All statistics, by application and class name.  Any thread.
  std::vector<std::shared_ptr<ClassStatistics>> statistics() const { return statistics_.all(); }
  /// The finished instance without a parent that had most children, else an open one; null when no
  /// instance had any.
  const TreeNode* largestTree() const;

  EngineFigures& figures() { return figures_; }
  const EngineFigures& figures() const { return figures_; }
  const RegistrySettings& settings() const { return settings_; }
  uint64_t engine() const { return engine_; }

  /// The last number given; the next one is the first free one after it.
  void continueAfter(int32_t id) { last_id_ = id; }

 private:
  using ClassKey = std::pair<std::string_view, std::string_view>;
  struct CompareKeys {
    using is_transparent = void;
    using Kept = std::pair<std::string, std::string>;
    bool operator()(const Kept& a, const Kept& b) const { return a < b; }
    bool operator()(const Kept& a, const ClassKey& b) const { return ClassKey(a) < b; }
    bool operator()(const ClassKey& a, const Kept& b) const { return a < ClassKey(b); }
  };
  struct Application {
    std::shared_ptr<const ApplicationInfo> info;
    int32_t process = 0;
    bool ended = false;
    bool departed = false;
    std::size_t open_instances = 0;
    uint64_t last_used = 0;
    std::map<std::pair<std::string, std::string>, int32_t, CompareKeys> classes;
  };
  struct TransactionClass {
    std::shared_ptr<const ClassInfo> info;
    int32_t application = 0;
    std::shared_ptr<ClassStatistics> statistics;  ///< null when they have expired
    std::array<UserMetric*, METRIC_SLOTS> metrics = {};
    bool has_metrics = false;
    bool has_counters = false;
    bool ignored = false;
  };
  struct Instance {
    int32_t class_id = 0;
    int32_t process = 0;
    uint64_t start = 0;
    uint64_t seen = 0;
    TraceContext context;
    bool below = false;  ///< has a parent here, so that it is no tree of its own
    TreeNode* node = nullptr;
  };
  /// The counters of an open instance: what it has counted is the last value less the first.
  struct Counters {
    std::array<double, METRIC_SLOTS> first = {};
    std::array<double, METRIC_SLOTS> last = {};
  };

  int32_t newId();
  int32_t otherApplication();
  int32_t otherClass();
  int32_t newClass(Application* application, std::string_view name, std::string_view block,
                   std::string_view detail);
  void bindStatistics(TransactionClass* of);
  void bindMetrics(TransactionClass* of);
  void useApplication(Application* application, int32_t process) const;
  TransactionClass* usableClass(int32_t id, int32_t process);
  TraceContext contextFor(const TransactionClass& of, const StartData& data,
                          const std::optional<Correlator>& parent);
  std::optional<Correlator> readParent(const StartData& data);
  SpanId newSpanId();
  uint64_t nextRandom();
  void linkToParent(const TransactionClass& of, const std::optional<Correlator>& parent,
                    Instance* instance);
  CorrelatorBytes correlatorFor(const Instance& instance, int32_t handle, bool trace) const;
  void takeMetrics(const TransactionClass& of, const uint8_t* block, bool first,
                   Counters* counters);
  void takeMetrics(const TransactionClass& of, const uint8_t* block, bool first, int32_t handle);
  static void addCounters(const TransactionClass& of, const Counters& counters);
  void finishNode(TreeNode* node, Outcome outcome, uint64_t duration);
  void close(int32_t handle);
  void setApplied(const TransactionClass& of, int32_t handle, const Instance& instance);
  void forgetIfOver(int32_t application);
  uint64_t graceSeconds() const;

  uint64_t engine_;
  RegistrySettings settings_;
  EngineFigures figures_;
  int32_t last_id_ = 0;
  uint64_t now_ = 0;
  uint64_t next_expiry_ = 0;
  uint64_t random_;
  int32_t other_application_ = 0;
  int32_t other_class_ = 0;
  std::unordered_map<int32_t, Application> applications_;
  std::unordered_map<int32_t, TransactionClass> classes_;
  IdTable<Instance> instances_;
  IdTable<Counters> counters_;
  StatisticsTable statistics_;
  TreeNodes nodes_;
  TreeNode* largest_tree_ = nullptr;
  Applied applied_;
};

}  // namespace armengine
