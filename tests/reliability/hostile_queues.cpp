#include "hostile_queues.h"

#include <algorithm>
#include <cstring>

namespace armtest {

namespace {

constexpr uint8_t MARGIN = 0xC3;
constexpr size_t ITEM = 532;

size_t sizeOf(long given, size_t whole) {
  return given < 0 ? whole : static_cast<size_t>(given);
}

void fillMargin(Segment& memory) {
  std::memset(memory.at(memory.size()), MARGIN, memory.mappedSize() - memory.size());
}

bool marginUntouched(const Segment& memory) {
  const Bytes margin = memory.bytes(memory.size(), memory.mappedSize() - memory.size());
  return std::all_of(margin.begin(), margin.end(), [](uint8_t byte) { return byte == MARGIN; });
}

std::vector<uint32_t> around(std::vector<uint32_t> values, std::initializer_list<size_t> more) {
  for (const size_t value : more) {
    for (const size_t near : {value - 1, value, value + 1}) {
      values.push_back(static_cast<uint32_t>(near));
    }
  }
  return values;
}

const std::vector<uint32_t> BYTE = {0, 1, 2, 3, 4, 127, 128, 255};
const std::vector<uint32_t> SHORT = {0, 1, 2, 255, 256, 0x7FFF, 0x8000, 0xFFFE, 0xFFFF};
const std::vector<uint32_t> WORD = {0,     1,          2,          3,          50299,
                                    50301, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFC, 0xFFFFFFFF};
const std::vector<uint32_t> SEMAPHORE = {0, 1, 2, 3, 255, 32766, 32767};

int countSleepers(const SemaphoreSet& set) {
  int sum = 0;
  for (int number = 0; number < set.semaphores(); ++number) {
    sum += std::max(0, semaphoreWaiters(set.id(), number));
    sum += std::max(0, zeroWaiters(set.id(), number));
  }
  return sum;
}

}  // namespace

HostileQueues::HostileQueues(const Layout& layout)
    : layout_(layout),
      requests_(AE + "_mem", sizeOf(layout.request_size, 28 + layout.requests * 4116)),
      replies_(EA, sizeOf(layout.reply_size, 12 + layout.replies * 548)) {
  fillMargin(requests_);
  fillMargin(replies_);
  SemaphoreSet* request_lock = addSet(AE + "_mem", 1, layout.request_lock);
  SemaphoreSet* reply_lock = addSet(EA, 1, layout.reply_lock);
  SemaphoreSet* empty = addSet(AE + "_emp", 1, layout.empty);
  SemaphoreSet* overflow = addSet(AE + "_ovr", 1, layout.overflow);
  const int heads = static_cast<int>(layout.replies);
  SemaphoreSet* waits = addSet(EA, 3, layout.waits < 0 ? heads + 2 : layout.waits);
  for (SemaphoreSet* set : {request_lock, reply_lock}) set->tryValue(1, 2);
  for (SemaphoreSet* set : {empty, overflow}) set->tryValue(2, 32766);
  waits->tryValue(0, 1);
  layRequests();
  layReplies();
}

SemaphoreSet* HostileQueues::addSet(const std::string& path, int project, int semaphores) {
  sets_.push_back(std::make_unique<SemaphoreSet>(path, project, semaphores));
  return sets_.back().get();
}

void HostileQueues::layRequests() {
  if (requests_.size() >= 28) requests_.put32(24, 1);
}

void HostileQueues::layReplies() {
  if (!whole()) return;
  for (size_t offset = itemOffset(0); offset < replies_.size(); offset += 4) {
    replies_.put32(offset, static_cast<uint32_t>(MARKED_RESULT));
  }
  armtest::layReplies(replies_, layout_.replies);
}

void HostileQueues::answer(uint32_t process, uint32_t thread, int replies) {
  if (!whole()) return;
  replies_.put32(16, process);
  replies_.put32(20, thread);
  replies_.put16(2, 1);
  // The first items, in the order in which they already are linked.
  replies_.put32(24, static_cast<uint32_t>(itemOffset(0)));
  const size_t last = static_cast<size_t>(replies) - 1;
  replies_.put32(4, replies_.u32(itemOffset(last) + 528));
  replies_.put32(itemOffset(last) + 528, 0);
  replies_.put16(0, static_cast<uint16_t>(replies));
  sets_[4]->tryValue(2, replies);
}

void HostileQueues::addWord(std::vector<Target>& all, std::string name, Segment& memory,
                            size_t offset, size_t width, std::vector<uint32_t> values) {
  if (offset + width > memory.size()) return;
  const auto set = [&memory, offset, width](uint32_t value) {
    if (width == 1) memory.put8(offset, static_cast<uint8_t>(value));
    if (width == 2) memory.put16(offset, static_cast<uint16_t>(value));
    if (width == 4) memory.put32(offset, value);
  };
  all.push_back({std::move(name), set, std::move(values)});
}

void HostileQueues::addLink(std::vector<Target>& all, std::string name, size_t offset,
                            std::vector<uint32_t> values) {
  const size_t before = all.size();
  addWord(all, std::move(name), replies_, offset, 4, std::move(values));
  if (all.size() > before) all.back().is_link = true;
}

void HostileQueues::addSemaphores(std::vector<Target>& all, const char* name, SemaphoreSet& set) {
  for (int number = 0; number < set.semaphores(); ++number) {
    const auto change = [&set, number](uint32_t value) {
      (void)set.tryValue(number, static_cast<int>(value & 0x7FFF));
    };
    all.push_back({name + std::string(" ") + std::to_string(number), change, SEMAPHORE});
  }
}

std::vector<Target> HostileQueues::targets() {
  std::vector<Target> all;
  const std::vector<uint32_t> index = around(SHORT, {layout_.requests});
  for (const auto& [name, offset] :
       {std::pair<const char*, size_t>{"count", 0}, {"head", 2}, {"tail", 4}, {"padding", 6}}) {
    addWord(all, std::string("request ") + name, requests_, offset, 2, index);
  }
  for (const auto& [name, offset] : {std::pair<const char*, size_t>{"state", 8},
                                     {"overflow waiters", 12},
                                     {"empty waiters", 16},
                                     {"version", 20},
                                     {"ready", 24}}) {
    addWord(all, std::string("request ") + name, requests_, offset, 4, WORD);
  }
  const std::vector<uint32_t> number = around(SHORT, {layout_.replies});
  const std::vector<uint32_t> link =
      around(WORD, {12, 28, itemOffset(0), itemOffset(0) + ITEM / 2,
                    itemOffset(layout_.replies - 1), itemOffset(layout_.replies)});
  addWord(all, "used items", replies_, 0, 2, number);
  addWord(all, "heads in use", replies_, 2, 2, number);
  // It becomes the link of an item that is given back.
  addLink(all, "free list", 4, link);
  addWord(all, "reply state", replies_, 8, 4, WORD);
  for (size_t i = 0; i < layout_.replies; ++i) {
    const size_t head = 12 + 16 * i;
    const std::string name = "head " + std::to_string(i) + " ";
    addWord(all, name + "status", replies_, head, 1, BYTE);
    addWord(all, name + "semaphore", replies_, head + 2, 2, around(SHORT, {layout_.replies + 2}));
    addWord(all, name + "process", replies_, head + 4, 4, WORD);
    addWord(all, name + "thread", replies_, head + 8, 4, WORD);
    addLink(all, name + "first reply", head + 12, link);
    addLink(all, "link " + std::to_string(i), itemOffset(i) + 528, link);
  }
  const char* const names[] = {"request lock", "reply lock", "_emp", "_ovr", "wake-up"};
  for (size_t i = 0; i < sets_.size(); ++i) {
    addSemaphores(all, names[i], *sets_[i]);
  }
  return all;
}

void HostileQueues::answerHead(size_t head) {
  const size_t place = head % layout_.replies;
  replies_.put32(12 + 16 * place + 12, static_cast<uint32_t>(itemOffset(place)));
  (void)sets_[4]->tryValue(static_cast<int>(2 + place), 1);
}

void HostileQueues::serve() {
  if (!whole()) return;
  requests_.put16(2, requests_.u16(4));
  requests_.put16(0, 0);
  for (size_t i = 0; i < layout_.replies; ++i) {
    if (replies_.u8(12 + 16 * i) == 1) answerHead(i);
  }
}

void HostileQueues::removeSets() {
  for (const auto& set : sets_) set->remove();
}

int HostileQueues::sleepers() const {
  int sum = 0;
  for (const auto& set : sets_) sum += countSleepers(*set);
  return sum;
}

bool HostileQueues::marginsUntouched() const {
  return marginUntouched(requests_) && marginUntouched(replies_);
}

}  // namespace armtest
