// The reader's end of the reply queue on a segment and sets that anybody may have written: laid by
// the input before the queue is opened, and changed at every System V call.

#include <set>

#include "Check.h"
#include "HostileQueue.h"
#include "Input.h"
#include "QueueObjects.h"
#include "ipc/CIPCQueue.h"

namespace {

using Queue = CIPCQueue<TArmReplyMessage>;

_TIPCIdentifier requester(Input& input) {
  const uint8_t choice = input.byte();
  if (choice < 0x80) return {REQUESTER[0], static_cast<uint32_t>(REQUESTER[1])};
  if (choice < 0xc0) return NULL_IPC_ID;
  const auto process = static_cast<int32_t>(edgeValue(input));
  return {process, edgeValue(input)};
}

long useOnce(Queue& queue, Input& input) {
  TArmReplyMessage reply;
  switch (input.byte() % 8) {
    case 4: {
      const _TIPCIdentifier id = requester(input);
      return queue.PrivateGet(id, static_cast<int32_t>(edgeValue(input)), reply);
    }
    case 5:
      return queue.SetState(edgeValue(input));
    case 6:
      (void)queue.CreatorAlive();
      return 0;
    default:
      return queue.Get(requester(input), reply);
  }
}

void use(Input& input, bool remove) {
  static const std::set<long> CODES = {0,    -261, -262, -272, -274, -276, -277,
                                       -278, -279, -280, -281, -283, -284};
  Queue queue(REPLY_NAME, remove);
  for (int calls = 0; calls < 6; ++calls) CHECK(CODES.count(useOnce(queue, input)) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  HostileQueue queue;
  buildReplyQueue(queue, input);
  const bool lock_taken = input.byte() >= 0xf0;
  if (lock_taken) queue.setValue(REPLY_LOCK, 0, 1);
  const bool remove = input.byte() >= 0xf0;
  ScriptedPeer peer(queue, input, REPLY_FRONT);
  use(input, remove);
  if (!peer.touchedSemaphores() && !lock_taken) CHECK(queue.set(REPLY_LOCK).value(0) <= 0);
  return 0;
}
