#include "ScriptedEngine.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "ipcobjects.h"
#include "process.h"

namespace armtest {

ScriptedEngine::ScriptedEngine() : log_(nullptr), mapping_(memfd_create("requests", MFD_CLOEXEC)) {
  if (mapping_ < 0 || ftruncate(mapping_, sizeof(EngineLog)) != 0) abort();
  void* start = mmap(nullptr, sizeof(EngineLog), PROT_READ | PROT_WRITE, MAP_SHARED, mapping_, 0);
  if (start == MAP_FAILED) abort();
  log_ = new (start) EngineLog;
  for (char** entry = environ; *entry != nullptr; ++entry) environment_.emplace_back(*entry);
}

ScriptedEngine::~ScriptedEngine() {
  if (leftovers_ && !running()) (void)start(setup_);
  if (running()) quit();
  munmap(log_, sizeof(EngineLog));
  close(mapping_);
}

bool ScriptedEngine::start(const EngineSetup& setup) {
  setup_ = setup;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
  socket_ = ends[0];
  launch(setup, ends[1]);
  close(ends[1]);
  Answer answer = {};
  if (process_ > 0 && receive(answer) && answer.value == 0) {
    leftovers_ = false;
    return true;
  }
  ADD_FAILURE() << "the scripted engine " << setup.build_dir
                << "/bin/scripted_engine did not start: " << answer.why;
  reap();
  return false;
}

void ScriptedEngine::launch(const EngineSetup& setup, int socket) {
  const std::string program = setup.build_dir + "/bin/scripted_engine";
  const std::string requests = std::to_string(setup.requests);
  const std::string requesters = std::to_string(setup.requesters);
  std::vector<const char*> arguments = {program.c_str(), requests.c_str(), requesters.c_str(),
                                        setup.ready ? "1" : "0"};
  if (setup.prefixed) arguments.push_back(setup.prefix.c_str());
  arguments.push_back(nullptr);
  std::vector<char*> environment;
  for (std::string& entry : environment_) environment.push_back(entry.data());
  environment.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Far away first: either number may be in use here.
  posix_spawn_file_actions_adddup2(&actions, socket, 100);
  posix_spawn_file_actions_adddup2(&actions, mapping_, 101);
  posix_spawn_file_actions_adddup2(&actions, 100, ENGINE_SOCKET);
  posix_spawn_file_actions_adddup2(&actions, 101, ENGINE_MAPPING);
  const int error = posix_spawn(&process_, program.c_str(), &actions, nullptr,
                                const_cast<char**>(arguments.data()), environment.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) process_ = -1;
}

void ScriptedEngine::reap() {
  if (process_ > 0) (void)exitCodeOf(process_);
  process_ = -1;
  if (socket_ >= 0) close(socket_);
  socket_ = -1;
}

void ScriptedEngine::quit() {
  EXPECT_EQ(0, command(Op::quit));
  if (process_ > 0) {
    EXPECT_EQ(0, exitCodeOf(process_)) << "the scripted engine ended badly";
  }
  process_ = -1;
  reap();
}

void ScriptedEngine::kill() {
  if (process_ <= 0) return;
  ::kill(process_, SIGKILL);
  leftovers_ = true;
  reap();
}

void ScriptedEngine::reply(int32_t type, int32_t result, int32_t times) {
  expectZero(command(Op::add_rule, {type, int32_t(Reaction::reply), result, 0, times}));
}

void ScriptedEngine::replyWithCorrelator(int32_t type, int32_t result, int32_t flag,
                                         const Correlator& correlator) {
  expectZero(
      command(Op::add_rule, {type, int32_t(Reaction::reply), result, flag, -1}, correlator.data()));
}

void ScriptedEngine::hold(int32_t type, int32_t times, int32_t result) {
  expectZero(command(Op::add_rule, {type, int32_t(Reaction::hold), result, 0, times}));
}

void ScriptedEngine::drop(int32_t type, int32_t times) {
  expectZero(command(Op::add_rule, {type, int32_t(Reaction::drop), 0, 0, times}));
}

void ScriptedEngine::derive(int32_t type) {
  expectZero(command(Op::add_rule, {type, int32_t(Reaction::derive), 0, 0, -1}));
}

Bytes ScriptedEngine::record(uint32_t number) const {
  if (number >= taken() || number >= KEPT_RECORDS) {
    ADD_FAILURE() << "the engine has no record " << number;
    return Bytes(RECORD_SIZE, 0);
  }
  const uint8_t* first = log_->records[number];
  return Bytes(first, first + RECORD_SIZE);
}

bool ScriptedEngine::waitTaken(uint32_t count) const {
  const bool came = waitUntil([&] { return taken() >= count; });
  EXPECT_TRUE(came) << "the engine has taken " << taken() << " of " << count << " requests";
  return came;
}

bool ScriptedEngine::waitSleepers(int count) const {
  const bool came = waitUntil([&] { return sleepers() >= count; });
  EXPECT_TRUE(came) << sleepers() << " of " << count << " threads sleep";
  return came;
}

int ScriptedEngine::sleepers() const {
  constexpr int PROJECT = 3;
  constexpr int FIRST_HEAD = 2;
  std::string path = "/var/kelp/controls_ea.kelp";
  if (setup_.prefixed) path += "." + setup_.prefix;
  const int set = setAt(path, PROJECT);
  if (set < 0) return 0;
  int sum = 0;
  for (int number = FIRST_HEAD; number < FIRST_HEAD + setup_.requesters; ++number) {
    const int sleeping = semaphoreWaiters(set, number);
    if (sleeping > 0) sum += sleeping;
  }
  return sum;
}

void ScriptedEngine::expectZero(int32_t value) {
  EXPECT_EQ(0, value) << "the scripted engine could not do what it was told";
}

int32_t ScriptedEngine::command(Op op, std::array<int32_t, 5> values, const uint8_t* correlator) {
  Command message = {};
  message.op = op;
  std::memcpy(message.values, values.data(), sizeof message.values);
  if (correlator != nullptr) std::memcpy(message.correlator, correlator, CORRELATOR_SIZE);
  Answer answer = {};
  const bool sent = socket_ >= 0 && send(socket_, &message, sizeof message, MSG_NOSIGNAL) ==
                                        static_cast<ssize_t>(sizeof message);
  if (sent && receive(answer)) return answer.value;
  ADD_FAILURE() << "the scripted engine does not answer";
  return -1;
}

bool ScriptedEngine::receive(Answer& answer) {
  pollfd readable = {socket_, POLLIN, 0};
  const int limit = static_cast<int>(secondsPerTest()) * 1000 * 2 / 3;
  int ready = -1;
  do {
    ready = poll(&readable, 1, limit);
  } while (ready < 0 && errno == EINTR);
  if (ready != 1) return false;
  return recv(socket_, &answer, sizeof answer, MSG_WAITALL) == static_cast<ssize_t>(sizeof answer);
}

}  // namespace armtest
