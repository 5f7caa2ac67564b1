#include "CountingEngine.h"

#include <sched.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>

#include "core/EngineQueues.h"
#include "ipc/CIPCSimpleQueue.h"
#include "ipc/EngineObjects.h"
#include "process.h"
#include "queueaccess.h"

namespace armtest {

namespace {

using Ring = CountingEngine::Ring;

/// Marks the request that nobody waits for.
constexpr int32_t FILLER = 0;

void answer(armengine::EngineQueues& queues, const TArmMessage& request) {
  armengine::Outgoing reply = {request.sender_id, {}, armengine::Delivery::failed};
  reply.reply.result = 1;
  queues.replies().putAllUnlessCrowded(&reply, 1);
}

void serveEmpty(armengine::EngineQueues& queues) {
  TArmMessage request;
  while (takeRequest(queues.requests(), request)) answer(queues, request);
}

/// Takes only while another request stays behind.
void serveOccupied(armengine::EngineQueues& queues) {
  CIPCSimpleQueue<TArmMessage> writer(REQUEST_QUEUE_NAME);
  for (;;) {
    (void)sched_yield();
    TArmMessage request;
    if (queues.requests().depth() < 2 || !takeRequestIfAny(queues.requests(), request)) continue;
    if (request.msg_type == FILLER) {
      (void)writer.Put(request);
    } else {
      answer(queues, request);
    }
  }
}

bool putFiller() {
  TArmMessage filler = {};
  filler.msg_type = FILLER;
  return CIPCSimpleQueue<TArmMessage>(REQUEST_QUEUE_NAME).Put(filler) == 0;
}

int serve(Ring ring, int ready_pipe) {
  std::string why;
  const auto queues = armengine::EngineQueues::create({}, &why);
  if (queues == nullptr || (ring == Ring::occupied && !putFiller())) return 1;
  if (write(ready_pipe, "r", 1) != 1) return 1;
  if (ring == Ring::empty) {
    serveEmpty(*queues);
  } else {
    serveOccupied(*queues);
  }
  return 0;
}

}  // namespace

CountingEngine::CountingEngine(Ring ring) : process_(-1), ready_(false) {
  int ends[2];
  if (pipe(ends) != 0) return;
  process_ = forkChild([&] { return serve(ring, ends[1]); });
  (void)close(ends[1]);
  char byte = 0;
  ready_ = read(ends[0], &byte, 1) == 1;
  (void)close(ends[0]);
}

CountingEngine::~CountingEngine() {
  if (process_ <= 0) return;
  (void)kill(process_, SIGKILL);
  (void)exitCodeOf(process_);
}

}  // namespace armtest
