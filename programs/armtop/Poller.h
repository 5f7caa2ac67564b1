#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "armtop/Figures.h"
#include "text/HostPort.h"

namespace armtop {

/// Reads "HOST:PORT", "[HOST]:PORT", "PORT" or such with "http://" before it; none when the text is
/// anything else.
std::optional<armtext::HostPort> parseAddress(std::string text);

/// Asks an engine once.  None, with one sentence in why, when that does not succeed.
std::optional<Figures> ask(const armtext::HostPort& address, std::string* why);

/// Asks an engine time and again, on a thread of its own.
class Poller {
 public:
  /// What is known at one time.
  struct State {
    std::optional<Figures> now;
    std::optional<Figures> before;  ///< about the window earlier
    std::string problem;            ///< why the last question had no answer; empty when it had
    unsigned long answers = 0;
  };

  Poller(armtext::HostPort address, std::chrono::duration<double> interval,
         std::chrono::duration<double> window);
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  State state();
  std::chrono::duration<double> interval();
  void setInterval(std::chrono::duration<double> interval);

 private:
  void work();
  void keep(std::optional<Figures> answer, const std::string& why);

  const armtext::HostPort address_;
  const std::chrono::duration<double> window_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::chrono::duration<double> interval_;
  std::deque<Figures> history_;
  std::string problem_;
  unsigned long answers_ = 0;
  bool over_ = false;
  std::thread thread_;
};

}  // namespace armtop
