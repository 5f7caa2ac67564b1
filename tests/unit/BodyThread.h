#pragma once

#include <pthread.h>

#include <functional>
#include <utility>

#include "calls.h"
#include "platform/CkesThread.h"

namespace armtest {

/// A thread whose body is a function.
class BodyThread : public CkesThread {
 public:
  using Body = std::function<void()>;

  explicit BodyThread(Body body) : body_(std::move(body)) {}
  BodyThread(const char* name, Body body) : CkesThread(name), body_(std::move(body)) {}

  pthread_t posixThread() {
    unsigned long id = 0;
    (void)GetID(&id);
    return id;
  }

  /// Waits until the system's thread has ended, whatever state it is in: Join need not wait for it.
  void awaitEnd() { (void)calls::pthread_join.real(posixThread(), nullptr); }

  /// Runs a thread that has not been started to its end.
  void finish() {
    (void)Start();
    awaitEnd();
  }

 private:
  void Run() override { body_(); }

  Body body_;
};

}  // namespace armtest
