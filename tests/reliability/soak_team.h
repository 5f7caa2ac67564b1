#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "soak_board.h"

namespace armtest {

/// The build trees whose programs are to be mixed: a 32-bit and a 64-bit one where both can be.
const std::vector<std::string>& buildDirs();
/// The build tree of the engine: the 64-bit one where both can be.
const std::string& engineBuildDir();

/// Measuring programs (soak_client.cpp) and their board.
class SoakTeam {
 public:
  SoakTeam();
  /// Kills what still runs.
  ~SoakTeam();
  SoakTeam(const SoakTeam&) = delete;
  SoakTeam& operator=(const SoakTeam&) = delete;

  SoakBoard& board() { return *board_; }

  /// Starts a program of a build tree; the first free slots become those of its threads. Returns
  /// its place, or -1 with a failed test.
  int start(const std::string& build_dir, unsigned threads, uint32_t calls = 0);
  /// Whether the program at a place still runs; one that has ended must have ended well.
  bool runs(int place);
  /// Kills the program at a place.
  void kill(int place);

  // While engines change, calls may fail.
  void beginChange() { board_->epoch.fetch_add(1); }
  void endChange() { board_->epoch.fetch_add(1); }
  /// The number of the engine that serves.
  unsigned life() const { return board_->epoch.load() / 2; }

  /// Waits until every thread of every running program has got so many answers more; false, and a
  /// failed test, when one does not.
  bool waitProgress(uint32_t answers);
  /// Lets every thread end its call and begin no other until resume; false, and a failed test, when
  /// one does not end.
  bool pause();
  void resume() { board_->pause.store(0); }
  /// Tells all programs to end, waits for them, and fails the test when one did not end well or an
  /// answer was wrong.
  void finish();

  uint32_t answered() const;
  uint32_t disturbed() const;
  uint32_t reconnecting() const;
  /// Fails the test when an answer was wrong.
  void expectNoWrongAnswer() const;

 private:
  struct Program {
    pid_t process;
    unsigned first_slot;
    unsigned threads;
  };

  bool allRest();
  uint32_t sum(Count Slot::*count) const;
  unsigned freeSlots(unsigned threads) const;

  int mapping_;
  SoakBoard* board_;
  std::vector<Program> programs_;
};

}  // namespace armtest
