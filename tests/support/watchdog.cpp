#include "watchdog.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "setting.h"

namespace armtest {
namespace {

constexpr unsigned DEFAULT_SECONDS = 30;

// Composed before the alarm is armed: its handler may do no more than write and abort.
char g_message[512];
size_t g_message_length = 0;

void onAlarm(int) {
  if (write(STDERR_FILENO, g_message, g_message_length) < 0) _exit(EXIT_FAILURE);
  abort();
}

}  // namespace

unsigned secondsPerTest() {
  return settingOr("ARM_TEST_SECONDS", DEFAULT_SECONDS);
}

void Watchdog::OnTestStart(const testing::TestInfo& test) {
  const int length =
      snprintf(g_message, sizeof g_message, "watchdog: %s.%s has not ended after %u seconds\n",
               test.test_suite_name(), test.name(), secondsPerTest());
  g_message_length = std::min(static_cast<size_t>(length), sizeof g_message - 1);
  signal(SIGALRM, onAlarm);
  alarm(secondsPerTest());
}

void Watchdog::OnTestEnd(const testing::TestInfo&) {
  alarm(0);
}

}  // namespace armtest
