#include "recent/RecentTransactions.h"

#include <algorithm>

#include "arm/TArmMessage.h"
#include "base/Time.h"
#include "events/Finished.h"
#include "text/Utf8.h"

namespace armengine {

namespace {

constexpr uint64_t SLICE_SECONDS = 10;
constexpr std::size_t MOST_CLASSES = 20000;

bool isSlower(const Finished& a, const Finished& b) {
  return a.duration > b.duration;
}

bool isEarlier(const Finished& a, const Finished& b) {
  return a.start != b.start ? a.start < b.start : a.duration > b.duration;
}

bool isSame(const Finished& a, const Finished& b) {
  return a.context.span_id == b.context.span_id && a.context.trace_id == b.context.trace_id;
}

}  // namespace

uint64_t keyOf(std::string_view application, std::string_view name) {
  constexpr uint64_t BASIS = 0xCBF29CE484222325;
  constexpr uint64_t PRIME = 0x100000001B3;
  uint64_t key = BASIS;
  const auto add = [&key](uint8_t byte) { key = (key ^ byte) * PRIME; };
  for (const char byte : application) add(static_cast<uint8_t>(byte));
  // No byte of UTF-8.
  add(0xFF);
  for (const char byte : name) add(static_cast<uint8_t>(byte));
  return key;
}

std::string shortened(std::string_view text, std::size_t most) {
  constexpr std::string_view ELLIPSIS = "\xE2\x80\xA6";
  if (text.size() <= most) return std::string(text);
  std::size_t length = 0;
  for (;;) {
    const std::size_t next =
        std::max<std::size_t>(armtext::characterLength(text.substr(length)), 1);
    if (length + next > most - ELLIPSIS.size()) break;
    length += next;
  }
  return std::string(text.substr(0, length)).append(ELLIPSIS);
}

// ---- history ------------------------------------------------------------------------------------

void RecentTransactions::History::add(uint64_t number, uint64_t duration, bool failed) {
  Slot& slot = slots[static_cast<std::size_t>(number % SLOTS)];
  if (slot.number != number) slot = Slot{number, {}};
  slot.counts.add(duration, failed);
  last = number;
}

DurationCounts RecentTransactions::History::since(uint64_t number, uint64_t current) const {
  DurationCounts sum;
  for (const Slot& slot : slots) {
    if (slot.number >= number && slot.number + SLOTS > current) sum.add(slot.counts);
  }
  return sum;
}

RecentTransactions::RecentTransactions(Clock clock) : clock_(std::move(clock)) {
  last_.reserve(MOST_LAST);
}

uint64_t RecentTransactions::slotNumber() const {
  return std::max(current_, clock_() / SECOND / SLOT_SECONDS);
}

/// The history of a class; null when too many classes that are in use have one.
RecentTransactions::History* RecentTransactions::historyOf(uint64_t key, uint64_t number) {
  const auto found = histories_.find(key);
  if (found != histories_.end()) return &found->second;
  if (histories_.size() >= MOST_HISTORIES) {
    const auto idle = [number](const auto& entry) { return entry.second.last + SLOTS <= number; };
    const auto unused = std::find_if(histories_.begin(), histories_.end(), idle);
    if (unused == histories_.end()) return nullptr;
    histories_.erase(unused);
  }
  return &histories_[key];
}

void RecentTransactions::keepHistory(const Finished& finished) {
  if (finished.abandoned) return;
  all_.add(current_, finished.duration, finished.hasFailed());
  History* history = historyOf(finished.of->key, current_);
  if (history != nullptr) history->add(current_, finished.duration, finished.hasFailed());
}

std::optional<std::vector<RecentTransactions::Slot>> RecentTransactions::history(
    std::optional<uint64_t> key) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const History* history = &all_;
  if (key) {
    const auto found = histories_.find(*key);
    if (found == histories_.end()) return std::nullopt;
    history = &found->second;
  }
  const uint64_t current = slotNumber();
  std::vector<Slot> slots;
  for (const Slot& slot : history->slots) {
    if (slot.counts.total > 0 && slot.number + SLOTS > current) slots.push_back(slot);
  }
  std::sort(slots.begin(), slots.end(),
            [](const Slot& a, const Slot& b) { return a.number < b.number; });
  return slots;
}

std::map<std::optional<uint64_t>, DurationCounts> RecentTransactions::since(uint64_t time) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t first = time / SECOND / SLOT_SECONDS;
  const uint64_t current = slotNumber();
  std::map<std::optional<uint64_t>, DurationCounts> sums;
  sums[std::nullopt] = all_.since(first, current);
  for (const auto& [key, history] : histories_) sums[key] = history.since(first, current);
  return sums;
}

// ---- single instances ---------------------------------------------------------------------------

void RecentTransactions::consume(const Event& event, const Payload&) {
  if (!endsInstance(event)) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  const Subject& subject = event.subject;
  Finished finished;
  finished.of = classOf(*subject.tran_class);
  finished.context = subject.context;
  finished.start = startOf(event);
  finished.duration = subject.duration;
  finished.status = event.values[0];
  finished.process = event.process;
  finished.thread = event.thread;
  finished.outcome = subject.outcome;
  finished.abandoned = event.type == EVENT_ABANDONED;
  current_ = slotNumber();
  keepLast(finished);
  keepHistory(finished);
  if (const auto found = saved_.find(finished.context.trace_id); found != saved_.end()) {
    // The last ones are read later.
    if (unread_.count(found->first) == 0) save(&found->second, finished);
  }
  keepSlow(finished);
}

std::shared_ptr<const ShownClass> RecentTransactions::classOf(const ClassInfo& info) {
  const uint64_t key = keyOf(info.application->name, info.name);
  const auto found = classes_.find(key);
  if (found != classes_.end()) return found->second;
  if (classes_.size() >= MOST_CLASSES) forgetUnused();
  auto made = std::make_shared<const ShownClass>(
      ShownClass{key, shortened(info.application->name, ShownClass::LONGEST),
                 shortened(info.name, ShownClass::LONGEST)});
  classes_[key] = made;
  return made;
}

/// Only the last and the slow ones refer to classes, and there are less of them than of classes
/// then.
void RecentTransactions::forgetUnused() {
  for (auto at = classes_.begin(); at != classes_.end();) {
    at = at->second.use_count() == 1 ? classes_.erase(at) : std::next(at);
  }
}

void RecentTransactions::keepLast(const Finished& finished) {
  if (last_.size() < MOST_LAST) {
    last_.push_back(finished);
    return;
  }
  last_[next_] = finished;
  next_ = (next_ + 1) % MOST_LAST;
}

void RecentTransactions::keepSlow(const Finished& finished) {
  const uint64_t number = current_ * SLOT_SECONDS / SLICE_SECONDS;
  Slice& slice = slices_[static_cast<std::size_t>(number % SLICES)];
  if (slice.number != number) {
    clear(&slice);
    slice.number = number;
  }
  std::vector<Finished>& slow = slice.slow;
  if (slow.size() >= MOST_SLOW) {
    if (!isSlower(finished, slow.front())) return;
    std::pop_heap(slow.begin(), slow.end(), isSlower);
    leaveTrace(slow.back().context.trace_id);
    slow.pop_back();
  }
  slow.push_back(finished);
  std::push_heap(slow.begin(), slow.end(), isSlower);
  useTrace(finished.context.trace_id);
}

void RecentTransactions::clear(Slice* slice) {
  for (const Finished& one : slice->slow) leaveTrace(one.context.trace_id);
  slice->slow.clear();
}

void RecentTransactions::useTrace(const TraceId& id) {
  if (++saved_[id].users == 1) unread_.insert(id);
}

void RecentTransactions::leaveTrace(const TraceId& id) {
  const auto found = saved_.find(id);
  if (--found->second.users > 0) return;
  saved_spans_ -= found->second.spans.size();
  saved_.erase(found);
  unread_.erase(id);
}

/// The quickest goes first: what explains a trace are its long spans, and whatever holds them.
void RecentTransactions::save(SavedTrace* trace, const Finished& finished) {
  std::vector<Finished>& spans = trace->spans;
  const bool full = spans.size() >= MOST_OF_TRACE ||
                    (saved_spans_ >= MOST_SAVED && spans.size() >= LEAST_OF_TRACE);
  if (full) {
    trace->complete = false;
    if (!isSlower(finished, spans.front())) return;
    std::pop_heap(spans.begin(), spans.end(), isSlower);
    spans.back() = finished;
  } else {
    spans.push_back(finished);
    ++saved_spans_;
  }
  std::push_heap(spans.begin(), spans.end(), isSlower);
}

/// Saves what the last ones have of the traces of new slow ones, before quick ones push it out.
void RecentTransactions::flush() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (unread_.empty()) return;
  for (const Finished& one : last_) {
    if (unread_.count(one.context.trace_id) == 0) continue;
    save(&saved_.at(one.context.trace_id), one);
  }
  unread_.clear();
}

std::vector<Finished> RecentTransactions::slowest(uint64_t since, std::optional<uint64_t> key,
                                                  std::size_t most) const {
  std::vector<Finished> found;
  const auto collect = [&](const std::vector<Finished>& from) {
    for (const Finished& one : from) {
      if (one.end() < since || (key && one.of->key != *key)) continue;
      found.push_back(one);
    }
  };
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    collect(last_);
    for (const Slice& slice : slices_) collect(slice.slow);
  }
  std::sort(found.begin(), found.end(), [](const Finished& a, const Finished& b) {
    return a.duration != b.duration ? a.duration > b.duration
                                    : a.context.span_id < b.context.span_id;
  });
  found.erase(std::unique(found.begin(), found.end(), isSame), found.end());
  if (found.size() > most) found.resize(most);
  return found;
}

std::vector<Finished> RecentTransactions::last() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Finished> in_order = last_;
  std::rotate(in_order.begin(), in_order.begin() + static_cast<std::ptrdiff_t>(next_),
              in_order.end());
  return in_order;
}

RecentTransactions::Trace RecentTransactions::trace(const TraceId& id) const {
  Trace trace;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto saved = saved_.find(id);
    if (saved != saved_.end() && unread_.count(id) == 0) {
      trace.spans = saved->second.spans;
      trace.complete = saved->second.complete;
    } else {
      for (const Finished& one : last_) {
        if (one.context.trace_id == id) trace.spans.push_back(one);
      }
    }
  }
  if (trace.spans.size() > MOST_OF_TRACE) {
    std::sort(trace.spans.begin(), trace.spans.end(), isSlower);
    trace.spans.resize(MOST_OF_TRACE);
    trace.complete = false;
  }
  std::sort(trace.spans.begin(), trace.spans.end(), isEarlier);
  return trace;
}

}  // namespace armengine
