#include "armtop/Poller.h"

#include <httplib.h>

namespace armtop {

namespace {

constexpr time_t PATIENCE_SECONDS = 3;
// A page of thousands of classes is some megabytes.
constexpr std::size_t LARGEST_PAGE = std::size_t{64} << 20;

std::string reasonFor(httplib::Error error) {
  switch (error) {
    case httplib::Error::Connection:
      return "nobody listens there";
    case httplib::Error::Read:
      return "it does not answer, or breaks off";
    case httplib::Error::Canceled:
      return "its page is too large";
    default:
      return httplib::to_string(error);
  }
}

}  // namespace

std::optional<armtext::HostPort> parseAddress(std::string text) {
  const std::string scheme = "http://";
  if (text.rfind(scheme, 0) == 0) text.erase(0, scheme.size());
  if (!text.empty() && text.back() == '/') text.pop_back();
  auto address = armtext::parseHostPort(text);
  if (address && address->port == 0) address.reset();
  return address;
}

std::optional<Figures> ask(const armtext::HostPort& address, std::string* why) {
  httplib::Client client(address.host, address.port);
  client.set_connection_timeout(PATIENCE_SECONDS);
  client.set_read_timeout(PATIENCE_SECONDS);
  std::string body;
  const auto result = client.Get("/metrics", [&body](const char* data, std::size_t length) {
    body.append(data, length);
    return body.size() <= LARGEST_PAGE;
  });
  const std::string where = address.text();
  if (!result) {
    *why = "no answer from " + where + " (" + reasonFor(result.error()) +
           "): start the engine with --listen, and give its address with --engine";
    return std::nullopt;
  }
  if (result->status != 200) {
    *why = where + " answers with status " + std::to_string(result->status) + ": is it an engine?";
    return std::nullopt;
  }
  auto figures = readFigures(body, Clock::now());
  if (!figures) *why = where + " serves nothing of an engine: look at --engine";
  return figures;
}

Poller::Poller(armtext::HostPort address, std::chrono::duration<double> interval,
               std::chrono::duration<double> window)
    : address_(std::move(address)),
      window_(window),
      interval_(interval),
      thread_([this] { work(); }) {}

Poller::~Poller() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    over_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

Poller::State Poller::state() {
  const std::lock_guard<std::mutex> guard(mutex_);
  State state;
  if (!history_.empty()) state.now = history_.back();
  if (history_.size() > 1) state.before = history_.front();
  state.problem = problem_;
  state.answers = answers_;
  return state;
}

std::chrono::duration<double> Poller::interval() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return interval_;
}

void Poller::setInterval(std::chrono::duration<double> interval) {
  const std::lock_guard<std::mutex> guard(mutex_);
  interval_ = interval;
  changed_.notify_one();
}

void Poller::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!over_) {
    lock.unlock();
    std::string why;
    auto answer = ask(address_, &why);
    lock.lock();
    keep(std::move(answer), why);
    const auto asked_with = interval_;
    (void)changed_.wait_for(lock, interval_,
                            [this, asked_with] { return over_ || interval_ != asked_with; });
  }
}

void Poller::keep(std::optional<Figures> answer, const std::string& why) {
  problem_ = why;
  if (!answer) return;
  ++answers_;
  history_.push_back(std::move(*answer));
  // The oldest one is just about as old as the window.
  while (history_.size() > 2 && history_.back().time - history_[1].time >= window_) {
    history_.pop_front();
  }
}

}  // namespace armtop
