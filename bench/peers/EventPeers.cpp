#include <arpa/inet.h>
#include <netinet/in.h>
#include <prometheus/counter.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "Peer.h"

extern "C" void benchTrace(int tran_id, int handle);

namespace bench {

namespace {

/// A line of text to a socket that a process reads.
class StatsdPeer : public Peer {
 public:
  StatsdPeer() {
    const int reader = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(reader, generic, size) != 0 || getsockname(reader, generic, &size) != 0) {
      failPeer("bind");
    }
    writer_ = socket(AF_INET, SOCK_DGRAM, 0);
    if (connect(writer_, generic, size) != 0) failPeer("connect");
    forkServer([reader] {
      char line[512];
      while (recv(reader, line, sizeof line, 0) >= 0) {
      }
    });
    (void)close(reader);
  }

  void exchange() override {
    char line[64];
    const int size = std::snprintf(line, sizeof line, "shop.order:%d|ms", ++value_ % 1000);
    if (send(writer_, line, static_cast<std::size_t>(size), 0) != size) failPeer("send");
  }

 private:
  int writer_ = -1;
  int value_ = 0;
};

class TracepointPeer : public Peer {
 public:
  TracepointPeer(const char* begin, const char* end) : begin_(begin), end_(end) {}
  void exchange() override { benchTrace(1, ++handle_); }
  void begin() override { run(begin_); }
  void end() override { run(end_); }

 private:
  static void run(const char* command) {
    if (command != nullptr && std::system(command) != 0) failPeer(command);
  }

  const char* begin_;
  const char* end_;
  int handle_ = 0;
};

class HistogramPeer : public Peer {
 public:
  HistogramPeer()
      : histogram_(prometheus::BuildHistogram()
                       .Name("transaction_seconds")
                       .Register(registry_)
                       .Add({{"class", "order"}},
                            prometheus::Histogram::BucketBoundaries{
                                0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1})) {}
  void exchange() override { histogram_.Observe(0.012); }

 private:
  prometheus::Registry registry_;
  prometheus::Histogram& histogram_;
};

}  // namespace

std::vector<NamedPeer> makeEventPeers(bool trace_session) {
  std::vector<NamedPeer> peers;
  peers.push_back({"UDP line in the manner of statsd", std::make_unique<StatsdPeer>()});
  peers.push_back({"prometheus-cpp histogram", std::make_unique<HistogramPeer>()});
  peers.push_back(
      {"LTTng tracepoint, not recorded", std::make_unique<TracepointPeer>(nullptr, nullptr)});
  if (trace_session) {
    peers.push_back(
        {"LTTng tracepoint, recorded",
         std::make_unique<TracepointPeer>("lttng start >/dev/null", "lttng stop >/dev/null")});
  }
  return peers;
}

}  // namespace bench
