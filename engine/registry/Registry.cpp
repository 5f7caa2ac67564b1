#include "registry/Registry.h"

#include <fnmatch.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "arm.h"
#include "text/Utf8.h"

namespace armengine {

namespace {

constexpr const char* OTHER = "other";
/// How long the ids of a process that has ended are kept: its children may go on with them.
constexpr uint64_t LONGEST_GRACE = 300;

template <typename Bytes>
bool isZero(const Bytes& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

void putRandom(uint64_t value, uint8_t* bytes) {
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

/// Whether a trace is in the sample; every engine with the same rate decides alike.
bool isSampled(const TraceId& id, double rate) {
  if (rate >= 1) return true;
  uint64_t value = 0;
  for (std::size_t i = 8; i < id.size(); ++i) value = value << 8 | id[i];
  return static_cast<double>(value) < rate * std::ldexp(1.0, 64);
}

bool matchesAny(const std::vector<std::string>& patterns, const ClassInfo& info) {
  const std::string name = info.application->name + "/" + info.name;
  return std::any_of(patterns.begin(), patterns.end(), [&name](const std::string& pattern) {
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
  });
}

}  // namespace

Registry::Registry(uint64_t engine, RegistrySettings settings)
    : engine_(engine),
      settings_(std::move(settings)),
      random_(engine),
      statistics_(settings_.buckets) {}

/// The first number after the last one that is not in use.
int32_t Registry::newId() {
  do {
    last_id_ = last_id_ < IGNOREID - 1 ? last_id_ + 1 : 1;
  } while (applications_.count(last_id_) != 0 || isClass(last_id_) || isOpen(last_id_));
  return last_id_;
}

// ---- applications and classes -------------------------------------------------------------------

int32_t Registry::addApplication(std::string_view name, std::string_view user, int32_t process) {
  applied_ = Applied();
  if (applications_.size() >= settings_.most_applications) {
    figures_.applications_over_limit.add();
    return otherApplication();
  }
  const auto info = std::make_shared<ApplicationInfo>();
  info->id = newId();
  info->name = armtext::validUtf8(name);
  info->user = armtext::validUtf8(user);
  if (info->name != name) info->raw = name;
  Application& application = applications_[info->id];
  application.info = info;
  application.process = process;
  application.last_used = now_;
  applied_.application = info;
  return info->id;
}

/// What all registrations beyond the limit share; it never ends.
int32_t Registry::otherApplication() {
  if (other_application_ == 0) {
    const auto info = std::make_shared<ApplicationInfo>();
    info->id = newId();
    info->name = OTHER;
    other_application_ = info->id;
    applications_[info->id].info = info;
  }
  applied_.application = applications_.at(other_application_).info;
  return other_application_;
}

int32_t Registry::otherClass() {
  if (other_class_ == 0) {
    Application& application = applications_.at(otherApplication());
    other_class_ = newClass(&application, OTHER, {}, {});
  }
  applied_.tran_class = classes_.at(other_class_).info;
  return other_class_;
}

void Registry::useApplication(Application* application, int32_t process) const {
  application->last_used = now_;
  if (process == 0 || process == application->process) return;
  // A child goes on with what its parent has registered.
  application->process = process;
  application->departed = false;
}

int32_t Registry::addClass(int32_t application, std::string_view name, std::string_view block,
                           std::string_view detail, int32_t process) {
  applied_ = Applied();
  const auto found = applications_.find(application);
  if (found == applications_.end() || found->second.ended) {
    figures_.unknown_applications.add();
    return STATUS_UNKNOWN_APPLICATION;
  }
  useApplication(&found->second, process);
  applied_.application = found->second.info;
  const auto known = found->second.classes.find(ClassKey(name, block));
  if (known != found->second.classes.end()) {
    applied_.tran_class = classes_.at(known->second).info;
    return known->second;
  }
  if (application == other_application_ || classes_.size() >= settings_.most_classes) {
    figures_.classes_over_limit.add();
    return otherClass();
  }
  return newClass(&found->second, name, block, detail);
}

int32_t Registry::newClass(Application* application, std::string_view name, std::string_view block,
                           std::string_view detail) {
  const auto info = std::make_shared<ClassInfo>();
  info->id = newId();
  info->application = application->info;
  info->name = armtext::validUtf8(name);
  info->detail = armtext::validUtf8(detail);
  if (info->name != name) info->raw = name;
  if (block.size() >= ARM_FORMAT101_SIZE) {
    uint8_t bytes[ARM_FORMAT101_SIZE];
    std::copy_n(block.begin(), sizeof bytes, bytes);
    info->metrics = readDescriptions(bytes);
  }
  application->classes[{std::string(name), std::string(block)}] = info->id;
  TransactionClass& made = classes_[info->id];
  made.info = info;
  made.application = application->info->id;
  made.ignored = matchesAny(settings_.ignore, *info);
  for (const MetricDescription& metric : info->metrics) {
    made.has_counters = made.has_counters || isCounter(metric.type);
    made.has_metrics = made.has_metrics || isCounter(metric.type) || isGauge(metric.type);
  }
  bindStatistics(&made);
  applied_.tran_class = info;
  return info->id;
}

/// Gives a class its statistics, which are those of "other" when there are too many.
void Registry::bindStatistics(TransactionClass* of) {
  std::string application = of->info->application->name;
  std::string name = of->info->name;
  ClassStatistics* found = statistics_.find(application, name);
  if (found == nullptr && statistics_.size() >= settings_.most_classes) {
    if (application != OTHER || name != OTHER) figures_.classes_over_limit.add();
    application = OTHER;
    name = OTHER;
    found = statistics_.find(application, name);
  }
  of->statistics =
      found != nullptr ? statistics_.share(*found) : statistics_.add(application, name);
  of->statistics->last_used = now_;
  bindMetrics(of);
}

void Registry::bindMetrics(TransactionClass* of) {
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    const MetricDescription& described = of->info->metrics[slot];
    const bool counter = isCounter(described.type);
    if (!counter && !isGauge(described.type)) continue;
    of->metrics[slot] = of->statistics->userMetric(described.name, counter);
    if (of->metrics[slot] == nullptr) figures_.metrics_over_limit.add();
  }
}

int32_t Registry::endApplication(int32_t application) {
  applied_ = Applied();
  const auto found = applications_.find(application);
  if (found == applications_.end() || found->second.ended) {
    figures_.unknown_applications.add();
    return STATUS_UNKNOWN_APPLICATION;
  }
  applied_.application = found->second.info;
  if (application == other_application_) return STATUS_OK;
  found->second.ended = true;
  forgetIfOver(application);
  return STATUS_OK;
}

void Registry::forgetIfOver(int32_t application) {
  const auto found = applications_.find(application);
  if (found->second.ended && found->second.open_instances == 0) forget(application);
}

void Registry::forget(int32_t application) {
  const auto found = applications_.find(application);
  if (found == applications_.end() || application == other_application_) return;
  for (const auto& [key, id] : found->second.classes) classes_.erase(id);
  applications_.erase(found);
}

void Registry::look(int32_t id) {
  applied_ = Applied();
  if (const auto found = classes_.find(id); found != classes_.end()) {
    applied_.tran_class = found->second.info;
    applied_.application = found->second.info->application;
  } else if (const Instance* instance = instances_.find(id); instance != nullptr) {
    setApplied(classes_.at(instance->class_id), id, *instance);
  }
}

// ---- instances ----------------------------------------------------------------------------------

/// A class of which instances may be started, else null.
Registry::TransactionClass* Registry::usableClass(int32_t id, int32_t process) {
  const auto found = classes_.find(id);
  Application* application =
      found != classes_.end() ? &applications_.at(found->second.application) : nullptr;
  if (application == nullptr || application->ended) {
    figures_.unknown_classes.add();
    return nullptr;
  }
  useApplication(application, process);
  if (found->second.statistics == nullptr) bindStatistics(&found->second);
  found->second.statistics->last_used = now_;
  return &found->second;
}

/// The parent, if it is one that some engine of this kind has given.
std::optional<Correlator> Registry::readParent(const StartData& data) {
  if (!data.parent) return std::nullopt;
  auto parent = decodeCorrelator(*data.parent);
  if (parent && (isZero(parent->trace_id) || isZero(parent->span_id))) parent.reset();
  if (!parent) figures_.parents_not_known.add();
  return parent;
}

/// SplitMix64: from a random start, no value comes twice.
uint64_t Registry::nextRandom() {
  random_ += 0x9E3779B97F4A7C15;
  uint64_t value = random_;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

SpanId Registry::newSpanId() {
  SpanId id = {};
  while (isZero(id)) putRandom(nextRandom(), id.data());
  return id;
}

TraceContext Registry::contextFor(const TransactionClass& of, const StartData& data,
                                  const std::optional<Correlator>& parent) {
  TraceContext context;
  context.span_id = newSpanId();
  if (parent) {
    context.trace_id = parent->trace_id;
    context.parent_id = parent->span_id;
    context.traced = parent->traced && !of.ignored;
    return context;
  }
  putRandom(nextRandom(), context.trace_id.data());
  putRandom(nextRandom() | 1, context.trace_id.data() + 8);
  context.traced = !of.ignored && (data.trace || isSampled(context.trace_id, settings_.sample));
  return context;
}

Started Registry::start(int32_t class_id, const StartData& data, uint64_t time) {
  applied_ = Applied();
  TransactionClass* of = usableClass(class_id, data.process);
  if (of == nullptr) return {STATUS_UNKNOWN_CLASS};
  if (instances_.size() >= settings_.most_open) {
    figures_.instances_over_limit.add();
    return {STATUS_TOO_MANY};
  }
  const auto parent = readParent(data);
  const int32_t handle = newId();
  Instance instance;
  instance.class_id = class_id;
  instance.process = data.process;
  instance.start = time;
  instance.seen = data.seen;
  instance.context = contextFor(*of, data, parent);
  linkToParent(*of, parent, &instance);
  instances_[handle] = instance;
  ++applications_.at(of->application).open_instances;
  of->statistics->started.add();
  of->statistics->open.add();
  if (of->has_counters) counters_[handle] = Counters();
  takeMetrics(*of, data.metrics, true, handle);
  setApplied(*of, handle, instance);
  return {handle, correlatorFor(instance, handle, data.trace)};
}

Started Registry::report(int32_t class_id, const StartData& data, int32_t completion_status,
                         uint64_t duration) {
  applied_ = Applied();
  TransactionClass* of = usableClass(class_id, data.process);
  if (of == nullptr) return {STATUS_UNKNOWN_CLASS};
  const auto parent = readParent(data);
  Instance instance;
  instance.class_id = class_id;
  instance.context = contextFor(*of, data, parent);
  linkToParent(*of, parent, &instance);
  Counters counters;
  takeMetrics(*of, data.metrics, false, &counters);
  addCounters(*of, counters);
  const Outcome outcome = outcomeOf(completion_status);
  of->statistics->started.add();
  of->statistics->addFinished(outcome, duration);
  finishNode(instance.node, outcome, duration);
  nodes_.release(instance.node);
  const int32_t handle = newId();
  setApplied(*of, handle, instance);
  applied_.outcome = outcome;
  applied_.duration = duration;
  return {STATUS_OK, correlatorFor(instance, handle, data.trace)};
}

CorrelatorBytes Registry::correlatorFor(const Instance& instance, int32_t handle,
                                        bool trace) const {
  Correlator correlator;
  correlator.engine = engine_;
  correlator.class_id = instance.class_id;
  correlator.handle = handle;
  correlator.trace_id = instance.context.trace_id;
  correlator.span_id = instance.context.span_id;
  correlator.traced = instance.context.traced;
  correlator.trace = trace;
  return encodeCorrelator(correlator);
}

/// Gives an instance a node below its parent's when that is open in this engine and has room for it.
void Registry::linkToParent(const TransactionClass& of, const std::optional<Correlator>& parent,
                            Instance* instance) {
  if (!parent || parent->engine != engine_) return;
  Instance* above = instances_.find(parent->handle);
  if (above == nullptr || above->class_id != parent->class_id) return;
  instance->below = true;
  if (above->node == nullptr) {
    if (above->below) return;
    above->node = nodes_.make(classes_.at(above->class_id).statistics, 0);
  }
  TreeNode& node = *above->node;
  ++node.child_count;
  if (node.depth + 1 >= TreeNode::MAX_DEPTH || node.kept >= TreeNode::MAX_CHILDREN) return;
  TreeNode* own = nodes_.make(of.statistics, node.depth + 1);
  node.children[node.kept++] = own;
  instance->node = nodes_.use(own);
}

void Registry::setApplied(const TransactionClass& of, int32_t handle, const Instance& instance) {
  applied_.application = of.info->application;
  applied_.tran_class = of.info;
  applied_.handle = handle;
  applied_.start = instance.start;
  applied_.context = instance.context;
}

int32_t Registry::update(int32_t handle, const uint8_t* metrics, int32_t process) {
  applied_ = Applied();
  Instance* instance = instances_.find(handle);
  if (instance == nullptr) {
    figures_.unknown_handles.add();
    return STATUS_UNKNOWN_HANDLE;
  }
  if (process != 0) instance->process = process;
  const TransactionClass& of = classes_.at(instance->class_id);
  takeMetrics(of, metrics, false, handle);
  setApplied(of, handle, *instance);
  return STATUS_OK;
}

int32_t Registry::stop(int32_t handle, int32_t completion_status, uint64_t time,
                       const uint8_t* metrics) {
  applied_ = Applied();
  const Instance* instance = instances_.find(handle);
  if (instance == nullptr) {
    figures_.unknown_handles.add();
    return STATUS_UNKNOWN_HANDLE;
  }
  const TransactionClass& of = classes_.at(instance->class_id);
  takeMetrics(of, metrics, false, handle);
  if (const Counters* counters = counters_.find(handle); counters != nullptr) {
    addCounters(of, *counters);
  }
  // A clock that has been set back must not make a response time that has gone round.
  if (time < instance->start) figures_.clocks_stepped_back.add();
  const uint64_t duration = time > instance->start ? time - instance->start : 0;
  const Outcome outcome = outcomeOf(completion_status);
  of.statistics->addFinished(outcome, duration);
  finishNode(instance->node, outcome, duration);
  setApplied(of, handle, *instance);
  applied_.outcome = outcome;
  applied_.duration = duration;
  close(handle);
  return STATUS_OK;
}

int32_t Registry::abandon(int32_t handle, uint64_t time) {
  applied_ = Applied();
  const Instance* instance = instances_.find(handle);
  if (instance == nullptr) return STATUS_UNKNOWN_HANDLE;
  const TransactionClass& of = classes_.at(instance->class_id);
  of.statistics->abandoned.add();
  setApplied(of, handle, *instance);
  applied_.duration = time > instance->start ? time - instance->start : 0;
  close(handle);
  return STATUS_OK;
}

/// Removes an open instance that has been counted.
void Registry::close(int32_t handle) {
  const Instance* instance = instances_.find(handle);
  TransactionClass& of = classes_.at(instance->class_id);
  const int32_t application = of.application;
  of.statistics->open.subtract();
  of.statistics->last_used = now_;
  nodes_.release(instance->node);
  instances_.erase(handle);
  counters_.erase(handle);
  --applications_.at(application).open_instances;
  forgetIfOver(application);
}

void Registry::finishNode(TreeNode* node, Outcome outcome, uint64_t duration) {
  if (node == nullptr) return;
  node->outcome = outcome;
  node->duration = duration;
  const uint64_t largest = largest_tree_ != nullptr ? largest_tree_->child_count : 0;
  if (node->depth != 0 || node->child_count <= largest) return;
  nodes_.release(largest_tree_);
  largest_tree_ = nodes_.use(node);
}

// ---- metrics ------------------------------------------------------------------------------------

void Registry::takeMetrics(const TransactionClass& of, const uint8_t* block, bool first,
                           int32_t handle) {
  if (block == nullptr || !of.has_metrics) return;
  Counters unused;
  Counters* counters = of.has_counters ? counters_.find(handle) : &unused;
  takeMetrics(of, block, first, counters);
}

/// A gauge shows its last value.  What a counter has before it is first given is 0, except at the
/// start, where its value is what the instance begins with.
void Registry::takeMetrics(const TransactionClass& of, const uint8_t* block, bool first,
                           Counters* counters) {
  if (block == nullptr || !of.has_metrics) return;
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    UserMetric* metric = of.metrics[slot];
    if (metric == nullptr) continue;
    const MetricValue value = readMetric(block, slot, of.info->metrics[slot].type);
    if (value.kind == MetricValue::Kind::none) continue;
    if (!metric->counter) metric->value.set(value.number());
    counters->last[slot] = value.number();
    if (first) counters->first[slot] = value.number();
  }
}

void Registry::addCounters(const TransactionClass& of, const Counters& counters) {
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    UserMetric* metric = of.metrics[slot];
    if (metric == nullptr || !metric->counter) continue;
    metric->value.add(std::max(0.0, counters.last[slot] - counters.first[slot]));
  }
}

// ---- departed processes and idle classes --------------------------------------------------------

std::vector<int32_t> Registry::openOf(int32_t process, uint64_t seen_before) const {
  std::vector<int32_t> handles;
  instances_.forEach([&](int32_t handle, const Instance& instance) {
    if (instance.process == process && instance.seen < seen_before) handles.push_back(handle);
  });
  std::sort(handles.begin(), handles.end());
  return handles;
}

void Registry::processEnded(int32_t process) {
  figures_.departed_processes.add();
  for (auto& [id, application] : applications_) {
    if (application.process != process) continue;
    application.departed = true;
    application.last_used = now_;
  }
}

uint64_t Registry::graceSeconds() const {
  const uint64_t idle = settings_.idle_seconds;
  return idle > 0 ? std::min(idle, LONGEST_GRACE) : LONGEST_GRACE;
}

Expired Registry::expire(uint64_t now) {
  now_ = now;
  Expired expired;
  if (now < next_expiry_) return expired;
  next_expiry_ = now + std::clamp<uint64_t>(graceSeconds() / 10, 1, 10);
  for (const auto& [id, application] : applications_) {
    const bool over = application.departed && application.open_instances == 0 &&
                      now - application.last_used >= graceSeconds();
    if (over) expired.applications.push_back(application.info);
  }
  for (const auto& application : expired.applications) forget(application->id);
  if (settings_.idle_seconds == 0) return expired;
  for (const auto& entry : statistics_.all()) {
    const bool over = entry->open.get() == 0 && now - entry->last_used >= settings_.idle_seconds;
    if (over) expired.classes.push_back(entry);
  }
  for (const auto& entry : expired.classes) forgetStatistics(entry->application, entry->name);
  return expired;
}

void Registry::forgetStatistics(const std::string& application, const std::string& name) {
  const ClassStatistics* entry = statistics_.find(application, name);
  if (entry == nullptr) return;
  for (auto& [id, of] : classes_) {
    if (of.statistics.get() != entry) continue;
    of.metrics = {};
    of.statistics.reset();
  }
  figures_.expired_classes.add();
  statistics_.remove(*entry);
}

const TreeNode* Registry::largestTree() const {
  if (largest_tree_ != nullptr) return largest_tree_;
  const TreeNode* largest = nullptr;
  instances_.forEach([&largest](int32_t, const Instance& instance) {
    if (instance.node == nullptr || instance.node->depth != 0) return;
    const uint64_t best = largest != nullptr ? largest->child_count : 0;
    if (instance.node->child_count > best) largest = instance.node;
  });
  return largest;
}

}  // namespace armengine
