// Plays the scripts that come in on standard input, one after the other, and writes what was seen
// to standard output: for each script a fresh client process, which calls the library, and engines
// that come and go. Nothing is judged here; differential_test.py does that.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Board.h"
#include "Client.h"
#include "Engine.h"
#include "Wire.h"

namespace differential {
namespace {

enum class Step : uint8_t {
  call,
  start_engine,
  stop_engine,
  kill_engine,
  set_word,
  set_semaphore,
  remove_set,
  remove_segment,
  hide_name,
  show_name,
  fill_ring,
  drain_ring,
  occupy_heads,
  link_reply,
  make_directory
};

enum class Verdict : uint8_t { done, hangs, died };

constexpr size_t PAGE_SIZE = 4096;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(2);
}

std::string contentOf(const std::string& path, off_t from) {
  std::string content;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return content;
  char block[65536];
  for (ssize_t got; (got = pread(file, block, sizeof block, from)) > 0; from += got) {
    content.append(block, static_cast<size_t>(got));
  }
  close(file);
  return content;
}

void writeFile(const std::string& path, const std::string& content) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0 ||
      write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    fail(path.c_str());
  }
  close(file);
}

bool endsTheEngine(Reaction reaction) {
  return reaction == Reaction::die || reaction == Reaction::die_wake_set_first ||
         reaction == Reaction::stop;
}

/// Memory that ends at an inaccessible page, shared with the client.
struct Arena {
  uint8_t* start;
  uint8_t* end;
  size_t offset = 0;
  size_t length = 0;

  static Arena make() {
    void* start = mmap(nullptr, ARENA_SIZE + PAGE_SIZE, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (start == MAP_FAILED) fail("mmap");
    uint8_t* first = static_cast<uint8_t*>(start);
    if (mprotect(first + ARENA_SIZE, PAGE_SIZE, PROT_NONE) != 0) fail("mprotect");
    return {first, first + ARENA_SIZE};
  }

  void* place(const std::string& bytes, size_t behind) {
    std::memset(start, MARGIN_BYTE, ARENA_SIZE);
    length = bytes.size();
    offset = ARENA_SIZE - behind - length;
    std::memcpy(start + offset, bytes.data(), length);
    return start + offset;
  }

  bool marginsAreWhole() const {
    for (size_t i = 0; i < ARENA_SIZE; ++i) {
      if ((i < offset || i >= offset + length) && start[i] != MARGIN_BYTE) return false;
    }
    return true;
  }
};

class Player {
 public:
  Player();
  std::vector<uint8_t> play(WireReader script);

 private:
  void readHead(WireReader& script);
  void step(WireReader& script);
  void callStep(WireReader& script);
  void makeDirectory(const std::string& path);
  void* readMemory(WireReader& script, Arena& arena, bool& used);
  Verdict awaitCall(int thread);
  void serveFilledRing(uint16_t before);
  void awaitEngineEnd();
  bool engineHasEnded();
  void reportCall();
  void reportTaken();
  void reportTrace();

  void startEngine(WireReader& script);
  void stopEngine();
  void killEngine();
  void reapEngine();
  void awaitQuietEngine();
  void reportEngine();
  void reportWorld();
  void finish();

  Board& board_;
  Arena arenas_[ARENAS] = {Arena::make(), Arena::make(), Arena::make()};
  std::string loginShown_;

  std::unique_ptr<Client> client_;
  std::unique_ptr<Engine> engine_;
  pid_t engineProcess_ = -1;
  std::string paths_[SETS];
  std::string trace_;
  std::string madeDirectory_;
  off_t traced_ = 0;
  int output_ = -1;
  bool over_ = false;
  /// What else a dead engine has left goes when the call is over.
  bool restGoes_ = false;
  uint32_t reportedTaken_ = 0;
  uint32_t reportedWakeUps_ = 0;
  uint32_t ownRaises_ = 0;
  WireWriter seen_;
};

Board& makeBoard() {
  void* start =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (start == MAP_FAILED) fail("mmap");
  return *new (start) Board;
}

Player::Player() : board_(makeBoard()) {}

std::vector<uint8_t> Player::play(WireReader script) {
  seen_ = WireWriter();
  over_ = false;
  readHead(script);
  const uint32_t steps = script.number<uint32_t>();
  for (uint32_t i = 0; i < steps && !over_; ++i) step(script);
  finish();
  return seen_.all();
}

// ---- the script's head --------------------------------------------------------------------------

void Player::readHead(WireReader& script) {
  std::vector<std::string> environment(script.number<uint32_t>());
  for (std::string& entry : environment) entry = script.text();
  trace_ = script.text();
  traced_ = 0;
  const std::string properties = script.text();
  constexpr char PROPERTIES[] = "/etc/orv/kestra/common/cfg/log.properties";
  unlink(PROPERTIES);
  if (!properties.empty()) writeFile(PROPERTIES, properties);
  const std::string login = script.text();
  if (login != loginShown_) writeFile("/etc/passwd", login);
  loginShown_ = login;
  for (std::string& path : paths_) path = script.text();
  board_.taken.store(0);
  board_.wake_ups.store(0);
  reportedTaken_ = reportedWakeUps_ = ownRaises_ = 0;
  output_ = memfd_create("output", MFD_CLOEXEC);
  const int threads = script.number<uint8_t>();
  client_ = std::make_unique<Client>(board_);
  client_->start(environment, threads, output_);
  seen_.number(static_cast<int32_t>(client_->process()));
  for (int i = 0; i < MOST_THREADS; ++i) {
    seen_.number(board_.threads[i].self);
    seen_.number(board_.threads[i].number);
  }
}

// ---- steps --------------------------------------------------------------------------------------

void Player::step(WireReader& script) {
  const Step what = script.number<Step>();
  const int first = script.number<int32_t>();
  const int second = script.number<int32_t>();
  const int third = script.number<int32_t>();
  const bool engine_was_there = engine_ != nullptr;
  switch (what) {
    case Step::call:
      callStep(script);
      break;
    case Step::start_engine:
      startEngine(script);
      break;
    case Step::hide_name:
      (void)rename(paths_[first].c_str(), (paths_[first] + ".away").c_str());
      break;
    case Step::show_name:
      (void)rename((paths_[first] + ".away").c_str(), paths_[first].c_str());
      break;
    case Step::make_directory:
      makeDirectory(trace_.substr(0, trace_.rfind('/')));
      break;
    case Step::stop_engine:
      if (engine_was_there) stopEngine();
      break;
    case Step::kill_engine:
      if (engine_was_there) killEngine();
      break;
    case Step::set_word:
      if (engine_was_there) std::memcpy(engine_->memory(first) + second, &third, 4);
      break;
    case Step::set_semaphore:
      if (engine_was_there) (void)semctl(engine_->set(first), second, SETVAL, third);
      break;
    case Step::remove_set:
      if (engine_was_there) engine_->removeSet(first);
      break;
    case Step::remove_segment:
      if (engine_was_there) engine_->removeSegment(first);
      break;
    case Step::fill_ring:
      if (engine_was_there) engine_->fill(static_cast<uint16_t>(first));
      break;
    case Step::drain_ring:
      if (engine_was_there && !engine_->hasLostEmpty()) {
        engine_->raiseEmpty();
        if (engineProcess_ > 0) ++ownRaises_;
      }
      break;
    case Step::occupy_heads:
      if (engine_was_there) engine_->occupy(static_cast<uint8_t>(first));
      break;
    case Step::link_reply: {
      uint8_t reply[1][REPLY_SIZE];
      std::memcpy(reply[0], script.bytes(REPLY_SIZE), REPLY_SIZE);
      const uint32_t number = first == 0 ? board_.threads[second].number
                                         : static_cast<uint32_t>(board_.threads[second].self);
      if (engine_was_there) (void)engine_->link(client_->process(), number, reply, 1);
      break;
    }
  }
  if (over_) return;
  awaitQuietEngine();
  reportTaken();
  reportTrace();
  reportWorld();
}

void Player::makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0777) == 0) madeDirectory_ = path;
}

void* Player::readMemory(WireReader& script, Arena& arena, bool& used) {
  const uint8_t kind = script.number<uint8_t>();
  const uint8_t behind = script.number<uint8_t>();
  const std::string bytes = script.text();
  used = kind == 1;
  if (kind == 0) return nullptr;
  return used ? arena.place(bytes, behind) : arena.end;
}

void Player::callStep(WireReader& script) {
  const int thread = script.number<uint8_t>();
  CallOrder& order = board_.call;
  order.function = script.number<uint8_t>();
  for (int32_t& number : order.numbers) number = script.number<int32_t>();
  bool used[ARENAS];
  for (int i = 0; i < ARENAS; ++i) order.memory[i] = readMemory(script, arenas_[i], used[i]);
  board_.answer.reaction = script.number<Reaction>();
  for (uint8_t* reply : board_.answer.replies) {
    std::memcpy(reply, script.bytes(REPLY_SIZE), REPLY_SIZE);
  }
  board_.outcome = {};
  const uint16_t in_ring = engine_ != nullptr ? engine_->ringCount() : 0;
  client_->beginCall(thread);
  if (engineProcess_ > 0 && in_ring != 0) serveFilledRing(in_ring);
  if (engineProcess_ > 0 && endsTheEngine(board_.answer.reaction)) awaitEngineEnd();
  const Verdict verdict = awaitCall(thread);
  seen_.number(verdict);
  over_ = verdict != Verdict::done;
  if (over_) return;
  reportCall();
  for (int i = 0; i < ARENAS; ++i) {
    if (!used[i]) continue;
    seen_.number(uint8_t{arenas_[i].marginsAreWhole()});
    seen_.bytes(arenas_[i].start + arenas_[i].offset, arenas_[i].length);
  }
}

// ---- calls --------------------------------------------------------------------------------------

Verdict Player::awaitCall(int thread) {
  const Client::Wait wait = client_->awaitCall(thread, PATIENCE_SECONDS * 1000);
  if (restGoes_) engine_->removeAll();
  restGoes_ = false;
  if (wait == Client::Wait::over) return Verdict::done;
  return wait == Client::Wait::not_yet ? Verdict::hangs : Verdict::died;
}

// A ring that was not empty tells the engine nothing: it looks by itself.
void Player::serveFilledRing(uint16_t before) {
  while (engine_->ringCount() == before && !board_.call_is_over.load()) usleep(50);
  if (engine_->ringCount() == before) return;
  engine_->raiseEmpty();
  ++ownRaises_;
}

void Player::awaitEngineEnd() {
  while (!board_.call_is_over.load() && !engineHasEnded()) usleep(50);
  if (engineProcess_ > 0 || board_.answer.reaction == Reaction::stop) return;
  if (board_.answer.reaction == Reaction::die) engine_->removeAll();
  engine_->removeSet(WAKE_SET);
  restGoes_ = true;
}

bool Player::engineHasEnded() {
  int status = 0;
  if (waitpid(engineProcess_, &status, WNOHANG) != engineProcess_) return false;
  engineProcess_ = -1;
  return true;
}

void Player::reportCall() {
  const CallOutcome& outcome = board_.outcome;
  seen_.number(outcome.result);
  seen_.number(uint8_t{outcome.is_text && !outcome.is_null});
  seen_.text(outcome.text);
  seen_.number(outcome.error);
  for (const timespec& time : {outcome.begin, outcome.end}) {
    seen_.number(static_cast<uint32_t>(time.tv_sec));
    seen_.number(static_cast<uint32_t>(time.tv_nsec));
  }
  seen_.number(uint8_t{outcome.has_icu_data});
  seen_.text(outcome.icu_data);
}

void Player::reportTaken() {
  const uint32_t taken = board_.taken.load();
  seen_.number(taken - reportedTaken_);
  for (; reportedTaken_ < taken; ++reportedTaken_) {
    seen_.number(board_.records[reportedTaken_].slot);
    seen_.bytes(board_.records[reportedTaken_].bytes, RECORD_SIZE);
  }
  const uint32_t wake_ups = board_.wake_ups.load() - ownRaises_;
  seen_.number(wake_ups - reportedWakeUps_);
  reportedWakeUps_ = wake_ups;
}

void Player::reportTrace() {
  const std::string trace = contentOf(trace_, traced_);
  traced_ += static_cast<off_t>(trace.size());
  seen_.text(trace);
}

// ---- the engine ---------------------------------------------------------------------------------

void Player::startEngine(WireReader& script) {
  if (engine_ != nullptr) {
    killEngine();
    engine_->removeAll();
    engine_->forget();
  }
  EngineLayout layout;
  for (int i = 0; i < SETS; ++i) layout.paths[i] = paths_[i];
  layout.request_size = script.number<uint32_t>();
  layout.reply_size = script.number<uint32_t>();
  layout.heads = script.number<uint16_t>();
  layout.first_number = script.number<uint16_t>();
  layout.ready = script.number<uint8_t>() != 0;
  engine_ = std::make_unique<Engine>(board_, layout);
  board_.engine_is_up.store(false);
  engineProcess_ = fork();
  if (engineProcess_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close_range(3, ~0U, 0);
    engine_->make();
    board_.engine_is_up.store(true);
    engine_->serve();
  }
  while (!board_.engine_is_up.load()) usleep(20);
  engine_->find();
  reportEngine();
}

void Player::reportEngine() {
  for (int i = 0; i < SETS; ++i) seen_.number(static_cast<int32_t>(engine_->set(i)));
  for (const std::string& path : paths_) {
    struct stat info = {};
    (void)stat(path.c_str(), &info);
    seen_.number(static_cast<uint32_t>(info.st_dev));
    seen_.number(static_cast<uint32_t>(info.st_ino));
  }
}

void Player::reapEngine() {
  if (engineProcess_ < 0) return;
  int status = 0;
  kill(engineProcess_, SIGKILL);
  while (waitpid(engineProcess_, &status, 0) < 0 && errno == EINTR) {
  }
  engineProcess_ = -1;
}

void Player::stopEngine() {
  const uint32_t stopped = 2;
  for (int i = 0; i < SEGMENTS; ++i) std::memcpy(engine_->memory(i) + 8, &stopped, 4);
  engine_->removeAll();
  engine_->removeNames();
  reapEngine();
}

void Player::killEngine() {
  reapEngine();
  engine_->settleDeath();
}

void Player::awaitQuietEngine() {
  if (engineProcess_ < 0) return;
  const uint32_t looks = board_.looks.load();
  while (!engine_->sleepsOnEmpty() && !engineHasEnded()) {
    if (engine_->hasLostEmpty() && board_.looks.load() - looks >= 2) return;
    usleep(20);
  }
}

void Player::reportWorld() {
  seen_.number(uint8_t{engine_ != nullptr});
  if (engine_ == nullptr) return;
  for (int i = 0; i < SETS; ++i) {
    const int heads = engine_->layout().heads;
    const int semaphores[SETS] = {3, 3, 2, 2, heads + 2};
    for (int number = 0; number < semaphores[i]; ++number) {
      seen_.number(static_cast<int16_t>(semctl(engine_->set(i), number, GETVAL)));
    }
  }
  seen_.bytes(engine_->memory(REQUESTS), 28);
  seen_.bytes(engine_->memory(REPLIES), engine_->layout().reply_size);
}

// ---- the end ------------------------------------------------------------------------------------

void Player::finish() {
  const int status = client_->end(!over_);
  reapEngine();
  if (engine_ != nullptr) {
    engine_->removeAll();
    engine_->removeNames();
    engine_->forget();
    engine_.reset();
  }
  for (const std::string& path : paths_) unlink((path + ".away").c_str());
  seen_.number(static_cast<int32_t>(status));
  seen_.text(contentOf("/proc/self/fd/" + std::to_string(output_), 0));
  close(output_);
  struct stat info = {};
  seen_.number(static_cast<uint32_t>(stat(trace_.c_str(), &info) == 0 ? info.st_mode : 0));
  unlink(trace_.c_str());
  if (!madeDirectory_.empty()) rmdir(madeDirectory_.c_str());
  madeDirectory_.clear();
}

// ---- standard input and output ------------------------------------------------------------------

bool readWhole(void* to, size_t count) {
  char* at = static_cast<char*>(to);
  while (count > 0) {
    const ssize_t got = read(STDIN_FILENO, at, count);
    if (got <= 0) return false;
    at += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

void writeWhole(const void* from, size_t count) {
  const char* at = static_cast<const char*>(from);
  while (count > 0) {
    const ssize_t put = write(STDOUT_FILENO, at, count);
    if (put <= 0) fail("write");
    at += put;
    count -= static_cast<size_t>(put);
  }
}

int run() {
  signal(SIGPIPE, SIG_IGN);
  umask(0);
  Player player;
  for (uint32_t size; readWhole(&size, sizeof size);) {
    std::vector<uint8_t> script(size);
    if (!readWhole(script.data(), size)) return 2;
    const std::vector<uint8_t> seen = player.play(WireReader(std::move(script)));
    const uint32_t length = static_cast<uint32_t>(seen.size());
    writeWhole(&length, sizeof length);
    writeWhole(seen.data(), seen.size());
  }
  return 0;
}

}  // namespace
}  // namespace differential

int main() {
  return differential::run();
}
