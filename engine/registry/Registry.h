#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "registry/Answer.h"
#include "registry/Catalogue.h"
#include "registry/EngineCounters.h"
#include "registry/Expiry.h"
#include "registry/Ids.h"
#include "registry/InstanceMetrics.h"
#include "registry/OpenInstances.h"
#include "registry/Statistics.h"
#include "registry/Tracer.h"

namespace armengine {

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

  /// Registers an application; the result is its id.
  Answer addApplication(std::string_view name, std::string_view user = {}, int32_t process = 0);
  /// Registers a class; the result is its id, the same for the same application, name and block.
  ///   block  the metric descriptions and then their size as they were given; empty without any
  Answer addClass(int32_t application, std::string_view name, std::string_view block,
                  std::string_view detail = {}, int32_t process = 0);
  /// Ends an application: no more classes and starts; its open instances go on.
  Answer endApplication(int32_t application);

  /// Opens an instance; the result is its handle.
  Started start(int32_t class_id, const StartData& data, uint64_t time);
  ///   metrics  format-1 block, null without one
  ///   process  who asks; an instance belongs to the process that used it last
  Answer update(int32_t handle, const uint8_t* metrics = nullptr, int32_t process = 0);
  Answer stop(int32_t handle, int32_t completion_status, uint64_t time,
              const uint8_t* metrics = nullptr);
  /// Counts an instance of a class that has finished already; it is never open.
  Started report(int32_t class_id, const StartData& data, int32_t completion_status,
                 uint64_t duration);
  /// Ends an instance that nobody will stop; it is counted apart and its time is not.
  Answer abandon(int32_t handle, uint64_t time);

  /// What a number of a class or an open instance stands for; empty when it is neither.
  Subject describe(int32_t id) const;
  bool isClass(int32_t id) const { return catalogue_.tranClass(id) != nullptr; }
  bool isOpen(int32_t id) const { return instances_.has(id); }
  std::size_t openInstances() const { return instances_.size(); }
  /// All open instances, by handle.
  std::vector<Subject> describeOpen() const;
  /// Applications that have not been forgotten.
  std::size_t applications() const { return catalogue_.applications(); }

  /// The open instances of a process that were started before a time (as bootTime).
  std::vector<int32_t> openOf(int32_t process, uint64_t seen_before) const {
    return instances_.of(process, seen_before);
  }
  /// Marks the applications of a process that has ended; they go when they are not used for a
  /// while.
  void processEnded(int32_t process);
  /// Drops what nobody has used for the time of the settings.
  ///   now  seconds of a steady clock; also what is used from now on is used then
  Expired expire(uint64_t now);
  /// Drops an application, or the statistics of a class, by name; for the reading of events.
  void forget(int32_t application);
  void forgetStatistics(const std::string& application, const std::string& name);

  /// All statistics, by application and class name.  Any thread.
  std::vector<std::shared_ptr<ClassStatistics>> statistics() const { return statistics_.all(); }
  EngineCounters& counters() { return counters_; }
  const EngineCounters& counters() const { return counters_; }
  const RegistrySettings& settings() const { return settings_; }
  uint64_t engine() const { return tracer_.engine(); }

  /// The last number given; the next one is the first free one after it.
  void continueAfter(int32_t id) { ids_.continueAfter(id); }

 private:
  /// An open instance and what it is of; nulls without one.
  struct Open {
    Instance* instance = nullptr;
    TransactionClass* of = nullptr;
    Application* application = nullptr;
  };

  int32_t newId();
  Application& otherApplication();
  TransactionClass& otherClass();
  TransactionClass& newClass(const Application& application, std::string_view name,
                             std::string_view block, std::string_view detail);
  void bindStatistics(TransactionClass* of);
  Application* usableApplication(int32_t id, int32_t process);
  TransactionClass* usableClass(int32_t id, int32_t process);
  std::optional<Correlator> readParent(const StartData& data);
  Open findOpen(int32_t handle);
  Open findOpenOrCount(int32_t handle);
  static Subject subjectOf(const TransactionClass& of, int32_t handle, const Instance& instance);
  void close(int32_t handle, const Open& open);
  void forgetIfOver(const Application& application);

  RegistrySettings settings_;
  EngineCounters counters_;
  Ids ids_;
  Catalogue catalogue_;
  OpenInstances instances_;
  InstanceMetrics metrics_;
  Tracer tracer_;
  Expiry expiry_;
  StatisticsTable statistics_;
  int32_t other_application_ = 0;
  int32_t other_class_ = 0;
};

}  // namespace armengine
