// Both queues while another thread writes to the segments without pause, at places and with values
// that the input chooses: what has been checked must be what is used.  The timing is the machine's,
// so a finding may need several runs to show again.

#include <array>
#include <atomic>
#include <thread>

#include "HostileQueue.h"
#include "Input.h"
#include "QueueObjects.h"
#include "ipc/CIPCQueue.h"
#include "ipc/CIPCSimpleQueue.h"

namespace {

/// A word of a segment and the two values that it changes between.
struct Place {
  std::size_t offset;
  uint16_t first;
  uint16_t second;
};
using Places = std::array<Place, 8>;

Places readPlaces(Input& input, std::size_t front) {
  Places places;
  for (Place& place : places) {
    place.offset = input.below(static_cast<uint32_t>(front)) & ~std::size_t{1};
    place.first = static_cast<uint16_t>(edgeValue(input));
    place.second = input.half();
  }
  return places;
}

/// Writes to the places of a segment until it is destroyed.
class Scribbler {
 public:
  Scribbler(HostileQueue& queue, const Places& places) : queue_(queue), places_(places) {
    thread_ = std::thread([this] { run(); });
    while (!running_) std::this_thread::yield();
  }
  ~Scribbler() {
    stop_ = true;
    thread_.join();
  }
  Scribbler(const Scribbler&) = delete;
  Scribbler& operator=(const Scribbler&) = delete;

 private:
  void run() {
    for (bool turn = false; !stop_; turn = !turn) {
      for (const Place& place : places_) write(place.offset, turn ? place.first : place.second);
      running_ = true;
    }
  }
  void write(std::size_t offset, uint16_t value) {
    if (offset + sizeof value > queue_.size()) return;
    __atomic_store_n(reinterpret_cast<uint16_t*>(queue_.memory().at(offset)), value,
                     __ATOMIC_RELAXED);
  }

  HostileQueue& queue_;
  Places places_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> running_{false};
  std::thread thread_;
};

void putWhileScribbled(Input& input) {
  const Places places = readPlaces(input, REQUEST_FRONT);
  HostileQueue objects;
  buildRequestQueue(objects, input);
  ScriptedPeer peer(objects, input, REQUEST_FRONT);
  CIPCSimpleQueue<TArmMessage> queue(REQUEST_NAME);
  const Scribbler scribbler(objects, places);
  TArmMessage message = {};
  for (int calls = 0; calls < 64; ++calls) (void)queue.Put(message);
  for (int calls = 0; calls < 16; ++calls) (void)queue.PrivatePut(message, true);
}

void getWhileScribbled(Input& input) {
  const Places places = readPlaces(input, REPLY_FRONT);
  HostileQueue objects;
  buildReplyQueue(objects, input);
  ScriptedPeer peer(objects, input, REPLY_FRONT);
  CIPCQueue<TArmReplyMessage> queue(REPLY_NAME, false);
  const Scribbler scribbler(objects, places);
  TArmReplyMessage reply;
  const _TIPCIdentifier id = {REQUESTER[0], static_cast<uint32_t>(REQUESTER[1])};
  for (int calls = 0; calls < 16; ++calls) (void)queue.Get(id, reply);
  for (long index = 0; index < 8; ++index) (void)queue.PrivateGet(id, index, reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  if (input.flag()) {
    putWhileScribbled(input);
  } else {
    getWhileScribbled(input);
  }
  return 0;
}
