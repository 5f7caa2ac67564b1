#include "soak_team.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "process.h"

namespace armtest {

const std::vector<std::string>& buildDirs() {
#if defined(ARM_BOTH_WIDTHS)
  static const std::vector<std::string> DIRS = {ARM_BUILD_DIR, ARM_OTHER_BUILD_DIR};
#else
  static const std::vector<std::string> dirs = {ARM_BUILD_DIR, ARM_BUILD_DIR};
#endif
  return DIRS;
}

const std::string& engineBuildDir() {
  return sizeof(void*) == 8 ? buildDirs().front() : buildDirs().back();
}

SoakTeam::SoakTeam() : mapping_(memfd_create("board", MFD_CLOEXEC)), board_(nullptr) {
  if (mapping_ < 0 || ftruncate(mapping_, sizeof(SoakBoard)) != 0) abort();
  void* start = mmap(nullptr, sizeof(SoakBoard), PROT_READ | PROT_WRITE, MAP_SHARED, mapping_, 0);
  if (start == MAP_FAILED) abort();
  board_ = new (start) SoakBoard{};
}

SoakTeam::~SoakTeam() {
  for (size_t place = 0; place < programs_.size(); ++place) kill(static_cast<int>(place));
  munmap(board_, sizeof(SoakBoard));
  close(mapping_);
}

unsigned SoakTeam::freeSlots(unsigned threads) const {
  for (unsigned first = 0;; first += threads) {
    const auto uses = [&](const Program& one) {
      return one.process > 0 && one.first_slot < first + threads &&
             first < one.first_slot + one.threads;
    };
    if (std::none_of(programs_.begin(), programs_.end(), uses)) return first;
  }
}

int SoakTeam::start(const std::string& build_dir, unsigned threads, uint32_t calls) {
  const unsigned first = freeSlots(threads);
  for (unsigned i = first; i < first + threads; ++i) board_->slots[i].rests.store(0);
  const std::vector<std::string> words = {build_dir + "/bin/soak_client", std::to_string(first),
                                          std::to_string(threads), std::to_string(calls)};
  std::vector<char*> arguments;
  for (const std::string& one : words) arguments.push_back(const_cast<char*>(one.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Far away first: the number may be in use here.
  posix_spawn_file_actions_adddup2(&actions, mapping_, 100);
  posix_spawn_file_actions_adddup2(&actions, 100, BOARD_DESCRIPTOR);
  pid_t process = -1;
  const int error =
      posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    ADD_FAILURE() << words[0] << " is missing: build that tree first (./run build)";
    return -1;
  }
  const auto ended = std::find_if(programs_.begin(), programs_.end(),
                                  [](const Program& one) { return one.process <= 0; });
  if (ended != programs_.end()) {
    *ended = {process, first, threads};
    return static_cast<int>(ended - programs_.begin());
  }
  programs_.push_back({process, first, threads});
  return static_cast<int>(programs_.size()) - 1;
}

bool SoakTeam::runs(int place) {
  Program& program = programs_.at(static_cast<size_t>(place));
  if (program.process <= 0) return false;
  siginfo_t info = {};
  if (waitid(P_PID, static_cast<id_t>(program.process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
      info.si_pid == 0) {
    return true;
  }
  EXPECT_EQ(0, exitCodeOf(program.process)) << "a measuring program ended badly";
  program.process = -1;
  return false;
}

void SoakTeam::kill(int place) {
  Program& program = programs_.at(static_cast<size_t>(place));
  if (program.process <= 0) return;
  ::kill(program.process, SIGKILL);
  (void)exitCodeOf(program.process);
  program.process = -1;
}

bool SoakTeam::waitProgress(uint32_t answers) {
  std::vector<std::pair<unsigned, uint32_t>> goals;
  for (size_t place = 0; place < programs_.size(); ++place) {
    if (!runs(static_cast<int>(place))) continue;
    const Program& program = programs_[place];
    for (unsigned i = program.first_slot; i < program.first_slot + program.threads; ++i) {
      goals.emplace_back(i, board_->slots[i].answered.load() + answers);
    }
  }
  const bool reached = waitUntil([&] {
    return std::all_of(goals.begin(), goals.end(), [&](const auto& goal) {
      return static_cast<int32_t>(board_->slots[goal.first].answered.load() - goal.second) >= 0;
    });
  });
  EXPECT_TRUE(reached) << "a measuring thread gets no more answers";
  return reached;
}

bool SoakTeam::allRest() {
  for (size_t place = 0; place < programs_.size(); ++place) {
    if (!runs(static_cast<int>(place))) continue;
    const Slot* first = board_->slots + programs_[place].first_slot;
    const auto rests = [](const Slot& slot) { return slot.rests.load() != 0; };
    if (!std::all_of(first, first + programs_[place].threads, rests)) return false;
  }
  return true;
}

bool SoakTeam::pause() {
  board_->pause.store(1);
  const bool paused = waitUntil([&] { return allRest(); });
  EXPECT_TRUE(paused) << "a measuring thread does not end its call";
  return paused;
}

void SoakTeam::finish() {
  board_->stop.store(1);
  for (size_t place = 0; place < programs_.size(); ++place) {
    const auto ended = [&] { return !runs(static_cast<int>(place)); };
    EXPECT_TRUE(waitUntil(ended)) << "a measuring program does not end";
  }
  expectNoWrongAnswer();
}

uint32_t SoakTeam::sum(Count Slot::*count) const {
  uint32_t sum = 0;
  for (const Slot& slot : board_->slots) sum += (slot.*count).load();
  return sum;
}

uint32_t SoakTeam::answered() const {
  return sum(&Slot::answered);
}

uint32_t SoakTeam::disturbed() const {
  return sum(&Slot::disturbed);
}

uint32_t SoakTeam::reconnecting() const {
  return sum(&Slot::reconnecting);
}

void SoakTeam::expectNoWrongAnswer() const {
  const Wrong& wrong = board_->wrong;
  EXPECT_EQ(0U, wrong.count.load())
      << "first: call " << wrong.call.load() << " gave " << wrong.result.load() << " instead of "
      << wrong.expected.load();
}

}  // namespace armtest
