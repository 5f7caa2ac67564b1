#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "base/Counter.h"
#include "events/EventConsumer.h"

namespace armengine {

/// Writes events as lines to a file, or to standard output.
class EventFile : public EventConsumer {
 public:
  /// Opens a file and appends to it; "-" is standard output.  Null, with a sentence in why, when
  /// that fails.
  static std::unique_ptr<EventFile> open(const std::string& path, uint64_t engine,
                                         std::string* why);
  ~EventFile() override;

  void consume(const Event& event, const Payload& payload) override;
  void flush() override;

  /// Makes the writing thread open the path again: somebody has moved the file away.  Any thread.
  void reopen() { reopen_ = true; }
  /// Events that could not be written.
  uint64_t lost() const { return lost_.get(); }

 private:
  EventFile(std::string path, uint64_t engine, int file);
  void write();
  void openAgain();

  const std::string path_;
  const uint64_t engine_;
  int file_;
  std::string text_;  ///< lines that are to be written
  uint64_t lines_ = 0;
  bool begun_ = false;  ///< the first line has been made
  Counter lost_;
  std::atomic<bool> reopen_{false};
};

}  // namespace armengine
