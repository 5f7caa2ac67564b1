#include "registry/Registry.h"

#include <fnmatch.h>

#include <algorithm>

namespace armengine {

namespace {

constexpr const char* OTHER = "other";

bool matchesAny(const std::vector<std::string>& patterns, const ClassInfo& info) {
  const std::string name = info.application->name + "/" + info.name;
  return std::any_of(patterns.begin(), patterns.end(), [&name](const std::string& pattern) {
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
  });
}

Answer answerOf(const Application& application, int32_t result) {
  Answer answer;
  answer.result = result;
  answer.subject.application = application.info;
  return answer;
}

Answer answerOf(const TransactionClass& of) {
  Answer answer;
  answer.result = of.info->id;
  answer.subject.application = of.info->application;
  answer.subject.tran_class = of.info;
  return answer;
}

}  // namespace

Registry::Registry(uint64_t engine, RegistrySettings settings)
    : settings_(std::move(settings)),
      tracer_(engine, settings_.sample),
      expiry_(settings_.idle_seconds),
      statistics_(settings_.buckets) {}

int32_t Registry::newId() {
  return ids_.next([this](int32_t id) { return catalogue_.has(id) || instances_.has(id); });
}

// ---- applications and classes -------------------------------------------------------------------

Answer Registry::addApplication(std::string_view name, std::string_view user, int32_t process) {
  if (catalogue_.applications() >= settings_.most_applications) {
    counters_.applications_over_limit.add();
    const Application& other = otherApplication();
    return answerOf(other, other.info->id);
  }
  Application& application = catalogue_.addApplication(newId(), name, user);
  application.process = process;
  application.last_used = expiry_.now();
  return answerOf(application, application.info->id);
}

/// What all registrations beyond the limit share; it never ends.
Application& Registry::otherApplication() {
  if (other_application_ == 0) {
    other_application_ = newId();
    return catalogue_.addApplication(other_application_, OTHER, {});
  }
  return *catalogue_.application(other_application_);
}

TransactionClass& Registry::otherClass() {
  if (other_class_ == 0) {
    TransactionClass& other = newClass(otherApplication(), OTHER, {}, {});
    other_class_ = other.info->id;
    return other;
  }
  return *catalogue_.tranClass(other_class_);
}

/// An application that has not ended, else null.
Application* Registry::usableApplication(int32_t id, int32_t process) {
  Application* application = catalogue_.application(id);
  if (application == nullptr || application->ended) return nullptr;
  application->last_used = expiry_.now();
  if (process == 0 || process == application->process) return application;
  // A child goes on with what its parent has registered.
  application->process = process;
  application->departed = false;
  return application;
}

Answer Registry::addClass(int32_t application, std::string_view name, std::string_view block,
                          std::string_view detail, int32_t process) {
  const Application* of = usableApplication(application, process);
  if (of == nullptr) {
    counters_.unknown_applications.add();
    return {STATUS_UNKNOWN_APPLICATION};
  }
  const TransactionClass* known = catalogue_.findClass(application, name, block);
  if (known != nullptr) return answerOf(*known);
  if (application == other_application_ || catalogue_.classes() >= settings_.most_classes) {
    counters_.classes_over_limit.add();
    return answerOf(otherClass());
  }
  return answerOf(newClass(*of, name, block, detail));
}

TransactionClass& Registry::newClass(const Application& application, std::string_view name,
                                     std::string_view block, std::string_view detail) {
  TransactionClass& of = catalogue_.addClass(newId(), application, name, block, detail);
  of.ignored = matchesAny(settings_.ignore, *of.info);
  bindStatistics(&of);
  return of;
}

/// Gives a class its statistics, which are those of "other" when there are too many.
void Registry::bindStatistics(TransactionClass* of) {
  std::string application = of->info->application->name;
  std::string name = of->info->name;
  const ClassStatistics* found = statistics_.find(application, name);
  if (found == nullptr && statistics_.size() >= settings_.most_classes) {
    if (application != OTHER || name != OTHER) counters_.classes_over_limit.add();
    application = OTHER;
    name = OTHER;
    found = statistics_.find(application, name);
  }
  of->statistics =
      found != nullptr ? statistics_.share(*found) : statistics_.add(application, name);
  of->statistics->last_used = expiry_.now();
  counters_.metrics_over_limit.add(of->metrics.bind(of->info->metrics, of->statistics.get()));
}

Answer Registry::endApplication(int32_t application) {
  Application* of = catalogue_.application(application);
  if (of == nullptr || of->ended) {
    counters_.unknown_applications.add();
    return {STATUS_UNKNOWN_APPLICATION};
  }
  Answer answer = answerOf(*of, STATUS_OK);
  if (application == other_application_) return answer;
  of->ended = true;
  forgetIfOver(*of);
  return answer;
}

void Registry::forgetIfOver(const Application& application) {
  if (application.ended && application.open_instances == 0) forget(application.info->id);
}

void Registry::forget(int32_t application) {
  if (application != other_application_) catalogue_.remove(application);
}

// ---- instances ----------------------------------------------------------------------------------

/// A class of which instances may be started, else null.
TransactionClass* Registry::usableClass(int32_t id, int32_t process) {
  TransactionClass* of = catalogue_.tranClass(id);
  if (of == nullptr || usableApplication(of->application, process) == nullptr) {
    counters_.unknown_classes.add();
    return nullptr;
  }
  if (of->statistics == nullptr) bindStatistics(of);
  of->statistics->last_used = expiry_.now();
  return of;
}

std::optional<Correlator> Registry::readParent(const StartData& data) {
  if (!data.parent) return std::nullopt;
  const auto parent = Tracer::readParent(*data.parent);
  if (!parent) counters_.parents_not_known.add();
  return parent;
}

Subject Registry::subjectOf(const TransactionClass& of, int32_t handle, const Instance& instance) {
  return {of.info->application, of.info,         handle, instance.start, 0,
          Outcome::unknown,     instance.context};
}

Started Registry::start(int32_t class_id, const StartData& data, uint64_t time) {
  TransactionClass* of = usableClass(class_id, data.process);
  if (of == nullptr) return {{STATUS_UNKNOWN_CLASS}};
  if (instances_.size() >= settings_.most_open) {
    counters_.instances_over_limit.add();
    return {{STATUS_TOO_MANY}};
  }
  const auto parent = readParent(data);
  const int32_t handle = newId();
  Instance& instance = instances_.add(handle);
  instance.class_id = class_id;
  instance.process = data.process;
  instance.start = time;
  instance.seen = data.seen;
  instance.context = tracer_.contextFor(parent, data.trace, of->ignored);
  ++catalogue_.application(of->application)->open_instances;
  of->statistics->started.add();
  of->statistics->open.add();
  metrics_.start(handle, of->metrics, data.metrics);
  return {{handle, subjectOf(*of, handle, instance)},
          tracer_.correlatorOf(instance.context, class_id, handle, data.trace)};
}

Started Registry::report(int32_t class_id, const StartData& data, int32_t completion_status,
                         uint64_t duration) {
  const TransactionClass* of = usableClass(class_id, data.process);
  if (of == nullptr) return {{STATUS_UNKNOWN_CLASS}};
  Instance instance;
  instance.context = tracer_.contextFor(readParent(data), data.trace, of->ignored);
  InstanceMetrics::report(of->metrics, data.metrics);
  const Outcome outcome = outcomeOf(completion_status);
  of->statistics->started.add();
  of->statistics->addFinished(outcome, duration);
  const int32_t handle = newId();
  Started reported = {{STATUS_OK, subjectOf(*of, handle, instance)},
                      tracer_.correlatorOf(instance.context, class_id, handle, data.trace)};
  reported.subject.outcome = outcome;
  reported.subject.duration = duration;
  return reported;
}

Registry::Open Registry::findOpen(int32_t handle) {
  Instance* instance = instances_.find(handle);
  if (instance == nullptr) return {};
  TransactionClass* of = catalogue_.tranClass(instance->class_id);
  if (of == nullptr) return {};
  Application* application = catalogue_.application(of->application);
  return application != nullptr ? Open{instance, of, application} : Open{};
}

Registry::Open Registry::findOpenOrCount(int32_t handle) {
  const Open open = findOpen(handle);
  if (open.instance == nullptr) counters_.unknown_handles.add();
  return open;
}

Answer Registry::update(int32_t handle, const uint8_t* metrics, int32_t process) {
  const Open open = findOpenOrCount(handle);
  if (open.instance == nullptr) return {STATUS_UNKNOWN_HANDLE};
  if (process != 0) open.instance->process = process;
  metrics_.update(handle, open.of->metrics, metrics);
  return {STATUS_OK, subjectOf(*open.of, handle, *open.instance)};
}

Answer Registry::stop(int32_t handle, int32_t completion_status, uint64_t time,
                      const uint8_t* metrics) {
  const Open open = findOpenOrCount(handle);
  if (open.instance == nullptr) return {STATUS_UNKNOWN_HANDLE};
  metrics_.stop(handle, open.of->metrics, metrics);
  // A clock that has been set back must not make a response time that has gone round.
  const uint64_t start = open.instance->start;
  if (time < start) counters_.clocks_stepped_back.add();
  Answer answer = {STATUS_OK, subjectOf(*open.of, handle, *open.instance)};
  answer.subject.duration = time > start ? time - start : 0;
  answer.subject.outcome = outcomeOf(completion_status);
  open.of->statistics->addFinished(answer.subject.outcome, answer.subject.duration);
  close(handle, open);
  return answer;
}

Answer Registry::abandon(int32_t handle, uint64_t time) {
  const Open open = findOpen(handle);
  if (open.instance == nullptr) return {STATUS_UNKNOWN_HANDLE};
  metrics_.drop(handle);
  Answer answer = {STATUS_OK, subjectOf(*open.of, handle, *open.instance)};
  answer.subject.duration = time > open.instance->start ? time - open.instance->start : 0;
  open.of->statistics->abandoned.add();
  close(handle, open);
  return answer;
}

/// Removes an open instance that has been counted.
void Registry::close(int32_t handle, const Open& open) {
  open.of->statistics->open.subtract();
  open.of->statistics->last_used = expiry_.now();
  instances_.remove(handle);
  --open.application->open_instances;
  forgetIfOver(*open.application);
}

Subject Registry::describe(int32_t id) const {
  const TransactionClass* of = catalogue_.tranClass(id);
  if (of != nullptr) return answerOf(*of).subject;
  const Instance* instance = instances_.find(id);
  if (instance != nullptr) of = catalogue_.tranClass(instance->class_id);
  return of != nullptr ? subjectOf(*of, id, *instance) : Subject();
}

std::vector<Subject> Registry::describeOpen() const {
  std::vector<Subject> all;
  for (const int32_t handle : instances_.all()) all.push_back(describe(handle));
  return all;
}

// ---- departed processes and idle classes --------------------------------------------------------

void Registry::processEnded(int32_t process) {
  counters_.departed_processes.add();
  catalogue_.forEachApplication([&](Application& application) {
    if (application.process != process) return;
    application.departed = true;
    application.last_used = expiry_.now();
  });
}

Expired Registry::expire(uint64_t now) {
  Expired expired;
  if (!expiry_.isDue(now)) return expired;
  catalogue_.forEachApplication([&](const Application& application) {
    if (expiry_.isOver(application)) expired.applications.push_back(application.info);
  });
  for (const auto& application : expired.applications) forget(application->id);
  for (const auto& entry : statistics_.all()) {
    if (expiry_.isOver(*entry)) expired.classes.push_back(entry);
  }
  for (const auto& entry : expired.classes) forgetStatistics(entry->application, entry->name);
  return expired;
}

void Registry::forgetStatistics(const std::string& application, const std::string& name) {
  const ClassStatistics* entry = statistics_.find(application, name);
  if (entry == nullptr) return;
  catalogue_.forEachClass([entry](TransactionClass& of) {
    if (of.statistics.get() != entry) return;
    of.metrics.unbind();
    of.statistics.reset();
  });
  counters_.expired_classes.add();
  statistics_.remove(*entry);
}

}  // namespace armengine
