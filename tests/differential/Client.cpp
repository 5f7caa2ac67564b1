#include "Client.h"

#include <arm.h>
#include <armext.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace differential {

namespace {

constexpr int ERROR_BEFORE = 4711;

void storeText(CallOutcome& outcome, const char* text) {
  outcome.is_text = true;
  outcome.is_null = text == nullptr;
  if (text != nullptr) strncpy(outcome.text, text, sizeof outcome.text - 1);
}

void setEnvironment(const char* name, const char* value) {
  if (value == nullptr) {
    unsetenv(name);
  } else {
    setenv(name, value, 1);
  }
}

int32_t callNumber(const CallOrder& order) {
  const int32_t* n = order.numbers;
  void* const* m = order.memory;
  const char* first = static_cast<const char*>(m[0]);
  const char* second = static_cast<const char*>(m[1]);
  switch (order.function) {
    case ARM_INIT:
      return arm_init(first, second, n[0], m[2], n[1]);
    case W_ARM_INIT:
      return w_ArmInit(static_cast<unsigned char>(n[2]), first, second, n[0], m[2], n[1]);
    case ARM_GETID:
      return arm_getid(n[0], first, second, n[1], m[2], n[2]);
    case W_ARM_GET_ID:
      return w_ArmGetID(static_cast<unsigned char>(n[3]), n[0], first, second, n[1], m[2], n[2]);
    case ARM_START:
      return arm_start(n[0], n[1], m[0], n[2]);
    case ARM_UPDATE:
      return arm_update(n[0], n[1], m[0], n[2]);
    case ARM_STOP:
      return arm_stop(n[0], n[1], n[2], m[0], n[3]);
    case ARM_END:
      return arm_end(n[0], n[1], m[0], n[2]);
    case TRANSACTION_REPORT:
      return arm_transactionReport(n[0], n[1], m[0], n[2], n[3], n[4], n[5], n[6]);
    case TRANSACTION_INSTANCE_REPORT:
      return arm_transactionInstanceReport(n[0], n[1], m[0], n[2], n[3], n[4], n[5], n[6]);
    case COMPLETE_TRANSACTION:
      return arm_completeTransaction(n[0], n[1], n[2]);
    case COMPLETE_TRANSACTION_INSTANCE:
      return arm_completeTransactionInstance(n[0], n[1], n[2]);
    case ASSOCIATE_METRIC_DATA:
      return arm_associateMetricData(n[0], m[0], n[1]);
    case SET_EXPECTED_CODESET:
      return SetExpectedCodeset(first);
    default:
      setEnvironment(first, second);
      return 0;
  }
}

void call(const CallOrder& order, CallOutcome& outcome) {
  outcome.is_text = false;
  errno = ERROR_BEFORE;
  if (order.function == GET_CORRELATOR_KEY) {
    storeText(outcome, arm_getCorrelatorKey());
  } else if (order.function == GET_EXPECTED_CODESET) {
    storeText(outcome, GetExpectedCodeset());
  } else {
    outcome.result = callNumber(order);
  }
  outcome.error = errno - ERROR_BEFORE;
}

void callAndWatch(const CallOrder& order, CallOutcome& outcome) {
  clock_gettime(CLOCK_REALTIME, &outcome.begin);
  call(order, outcome);
  clock_gettime(CLOCK_REALTIME, &outcome.end);
  const char* data = getenv("ICU_DATA");
  outcome.has_icu_data = data != nullptr;
  if (data != nullptr) strncpy(outcome.icu_data, data, sizeof outcome.icu_data - 1);
}

}  // namespace

void Client::start(const std::vector<std::string>& environment, int threads, int output) {
  for (int i = 0; i < threads; ++i) {
    int order[2];
    int end[2];
    if (pipe2(order, O_CLOEXEC) != 0 || pipe2(end, O_CLOEXEC) != 0) abort();
    orders_.push_back({order[0], order[1]});
    ends_.push_back({end[0], end[1]});
  }
  process_ = fork();
  if (process_ == 0) live(environment, threads, output);
  for (int i = 0; i < threads; ++i) {
    close(orders_[static_cast<size_t>(i)].read);
    close(ends_[static_cast<size_t>(i)].write);
  }
  // Every thread has said who it is.
  for (int i = 0; i < threads; ++i) (void)awaitCall(i, PATIENCE_SECONDS * 1000);
}

[[noreturn]] void Client::live(const std::vector<std::string>& environment, int threads,
                               int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  for (const Pipe& order : orders_) close(order.write);
  for (const Pipe& end : ends_) close(end.read);
  clearenv();
  for (const std::string& entry : environment) putenv(strdup(entry.c_str()));
  std::thread second;
  if (threads == 2) second = std::thread([this] { work(1); });
  work(0);
  if (second.joinable()) second.join();
  exit(0);
}

void Client::work(int thread) {
  board_.threads[thread] = {uint64_t{pthread_self()}, static_cast<uint32_t>(syscall(SYS_gettid))};
  char byte = 0;
  do {
    board_.call_is_over.store(true);
    if (write(ends_[static_cast<size_t>(thread)].write, &byte, 1) != 1) return;
    if (read(orders_[static_cast<size_t>(thread)].read, &byte, 1) != 1) return;
    callAndWatch(board_.call, board_.outcome);
  } while (true);
}

void Client::beginCall(int thread) {
  const char byte = 0;
  board_.call_is_over.store(false);
  (void)!write(orders_[static_cast<size_t>(thread)].write, &byte, 1);
}

Client::Wait Client::awaitCall(int thread, int milliseconds) {
  const int end = ends_[static_cast<size_t>(thread)].read;
  pollfd readable = {end, POLLIN, 0};
  if (poll(&readable, 1, milliseconds) == 0) return Wait::not_yet;
  char byte = 0;
  return read(end, &byte, 1) == 1 ? Wait::over : Wait::dead;
}

int Client::end(bool kindly) {
  for (const Pipe& order : orders_) close(order.write);
  if (!kindly) kill(process_, SIGKILL);
  int status = 0;
  while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
  for (const Pipe& end : ends_) close(end.read);
  return status;
}

}  // namespace differential
