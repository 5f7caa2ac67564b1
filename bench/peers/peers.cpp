// One round trip of the library beside those of what else a program could use, by Google Benchmark.
// An engine must be running. With BENCH_TRACE_SESSION in the environment, an LTTng session that
// records bench:* must exist, stopped.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "Calls.h"
#include "Peer.h"

namespace bench {

void failPeer(const char* what) {
  std::perror(what);
  std::exit(1);
}

namespace {

void measure(benchmark::State& state, Peer& peer) {
  peer.begin();
  peer.exchange();
  for (auto each : state) {
    (void)each;
    peer.exchange();
  }
  peer.end();
}

void append(std::vector<NamedPeer>& all, std::vector<NamedPeer> more) {
  all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

/// Servers are forked before anything here has a second thread.
std::vector<NamedPeer> makeAll() {
  std::vector<NamedPeer> all = makeKernelPeers();
  append(all, makeBusPeers());
  append(all, makeArmPeers());
  append(all, makeEventPeers(std::getenv("BENCH_TRACE_SESSION") != nullptr));
  return all;
}

int run(int argc, char** argv) {
  const std::vector<NamedPeer> peers = makeAll();
  benchmark::Initialize(&argc, argv);
  for (const NamedPeer& named : peers) {
    Peer& peer = *named.peer;
    benchmark::RegisterBenchmark(named.name.c_str(),
                                 [&peer](benchmark::State& state) { measure(state, peer); })
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
  }
  (void)benchmark::RunSpecifiedBenchmarks();
  if (failedCalls() == 0) return 0;
  (void)std::fprintf(stderr, "%ld calls failed, the figures mean nothing\n", failedCalls());
  return 1;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
  return bench::run(argc, argv);
}
