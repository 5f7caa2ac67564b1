#include "Calls.h"
#include "Peer.h"

namespace bench {

namespace {

class CallPeer : public Peer {
 public:
  explicit CallPeer(const char* name) : call_(callNamed(name)) {}
  void exchange() override { call_(); }

 private:
  Call call_;
};

}  // namespace

std::vector<NamedPeer> makeArmPeers() {
  if (!prepareCalls()) failPeer("the engine");
  std::vector<NamedPeer> peers;
  peers.push_back({"libarm, arm_start", std::make_unique<CallPeer>("arm")});
  peers.push_back({"bare client of the engine", std::make_unique<CallPeer>("floor")});
  return peers;
}

}  // namespace bench
