// Tells which signals it gets: writes "ready", then one line for each signal, "NUMBER VALUE", to
// standard output.  SIGUSR2 ends it with status 0, and so does the end of its parent.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>

int main() {
  sigset_t all;
  (void)sigfillset(&all);
  (void)sigprocmask(SIG_SETMASK, &all, nullptr);
  std::puts("ready");
  (void)std::fflush(stdout);
  for (;;) {
    siginfo_t info = {};
    const int number = sigwaitinfo(&all, &info);
    if (number == SIGUSR2) return 0;
    if (number <= 0) continue;
    std::printf("%d %d\n", number, info.si_code == SI_QUEUE ? info.si_value.sival_int : 0);
    (void)std::fflush(stdout);
  }
}
