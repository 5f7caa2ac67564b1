// The writer's end of the request queue on a segment and sets that anybody may have written: laid
// by the input before the queue is opened, and changed at every System V call.

#include <set>
#include <string>

#include "Check.h"
#include "HostileQueue.h"
#include "Input.h"
#include "QueueObjects.h"
#include "ipc/CIPCSimpleQueue.h"

namespace {

using Queue = CIPCSimpleQueue<TArmMessage>;

/// An owner's operations raise semaphores as often as the segment says that somebody waits, which
/// may be 2^32 times.
void limitWaiters(HostileQueue& objects) {
  constexpr std::size_t WAITERS_OFFSET = 12;
  if (objects.size() >= REQUEST_FRONT) {
    objects.write(WAITERS_OFFSET, std::string("\x03\0\0\0\x03\0\0\0", 8));
  }
}

long cleanUp(Queue& queue, HostileQueue& objects) {
  limitWaiters(objects);
  const PeerActs undisturbed;
  const bool free =
      objects.set(REQUEST_LOCK).value(0) <= 0 && objects.set(REQUEST_OVERFLOW).value(1) <= 0;
  return free ? queue.Cleanup() : 0;
}

long useOnce(Queue& queue, HostileQueue& objects, Input& input) {
  TArmMessage message = {};
  switch (input.byte() % 8) {
    case 4:
      queue.SetOverflowWait(input.flag());
      return 0;
    case 5:
      return queue.IsInitialized() ? queue.PrivatePut(message, true) : 0;
    case 6:
      limitWaiters(objects);
      return queue.SetState(edgeValue(input));
    case 7:
      return cleanUp(queue, objects);
    default:
      return queue.Put(message);
  }
}

void use(HostileQueue& objects, Input& input) {
  static const std::set<long> CODES = {0, -141, -143, -144, -261, -262, -274, -276, -283, -284};
  Queue queue(REQUEST_NAME);
  (void)queue.IsReadyForIO();
  (void)queue.CreatorAlive();
  (void)queue.GetArmVersion();
  for (int calls = 0; calls < 6; ++calls) CHECK(CODES.count(useOnce(queue, objects, input)) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  HostileQueue queue;
  buildRequestQueue(queue, input);
  const bool lock_taken = input.byte() >= 0xf0;
  if (lock_taken) queue.setValue(REQUEST_LOCK, 0, 1);
  ScriptedPeer peer(queue, input, REQUEST_FRONT);
  use(queue, input);
  if (!peer.touchedSemaphores() && !lock_taken) CHECK(queue.set(REQUEST_LOCK).value(0) <= 0);
  return 0;
}
