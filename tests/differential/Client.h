#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Board.h"

namespace differential {

/// Functions of the wire's calls, in the order of the Python side's CALLS.
enum Function : uint8_t {
  ARM_INIT,
  W_ARM_INIT,
  ARM_GETID,
  W_ARM_GET_ID,
  ARM_START,
  ARM_UPDATE,
  ARM_STOP,
  ARM_END,
  TRANSACTION_REPORT,
  TRANSACTION_INSTANCE_REPORT,
  COMPLETE_TRANSACTION,
  COMPLETE_TRANSACTION_INSTANCE,
  ASSOCIATE_METRIC_DATA,
  GET_CORRELATOR_KEY,
  SET_EXPECTED_CODESET,
  GET_EXPECTED_CODESET,
  SET_ENVIRONMENT  ///< not a call of the library: what a host does in between
};

/// A process in which the library has not been used before, with up to two threads that call when
/// told.
class Client {
 public:
  explicit Client(Board& board) : board_(board) {}

  /// Forks it. The output of the process goes to the descriptor.
  void start(const std::vector<std::string>& environment, int threads, int output);
  void beginCall(int thread);
  enum class Wait { over, not_yet, dead };
  Wait awaitCall(int thread, int milliseconds);
  /// Lets it end by itself, or kills it; its wait status.
  int end(bool kindly);
  pid_t process() const { return process_; }

 private:
  struct Pipe {
    int read;
    int write;
  };

  [[noreturn]] void live(const std::vector<std::string>& environment, int threads, int output);
  void work(int thread);

  Board& board_;
  pid_t process_ = -1;
  std::vector<Pipe> orders_;
  std::vector<Pipe> ends_;
};

}  // namespace differential
