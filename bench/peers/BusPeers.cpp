#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Peer.h"

namespace bench {

namespace {

constexpr const char* SERVICE = "bench.Server";
constexpr const char* PATH = "/bench";
constexpr const char* INTERFACE = "bench.Exchange";
constexpr const char* METHOD = "Exchange";
constexpr const char* SOCKET = "/tmp/bench_bus";

void must(int result, const char* what) {
  if (result >= 0) return;
  errno = -result;
  failPeer(what);
}

int answer(sd_bus_message* request, void*, sd_bus_error*) {
  static const char ANSWER[ANSWER_SIZE] = {};
  const void* bytes = nullptr;
  std::size_t size = 0;
  must(sd_bus_message_read_array(request, 'y', &bytes, &size), "D-Bus request");
  sd_bus_message* reply = nullptr;
  must(sd_bus_message_new_method_return(request, &reply), "D-Bus reply");
  must(sd_bus_message_append_array(reply, 'y', ANSWER, sizeof ANSWER), "D-Bus reply");
  const int result = sd_bus_send(nullptr, reply, nullptr);
  (void)sd_bus_message_unref(reply);
  return result;
}

int dispatch(sd_bus_message* request, void* data, sd_bus_error* error) {
  return sd_bus_message_is_method_call(request, INTERFACE, METHOD) > 0
             ? answer(request, data, error)
             : 0;
}

void serve(sd_bus* bus) {
  must(sd_bus_add_object(bus, nullptr, PATH, dispatch, nullptr), "D-Bus object");
  for (;;) {
    const int result = sd_bus_process(bus, nullptr);
    must(result, "D-Bus server");
    if (result == 0) must(sd_bus_wait(bus, UINT64_MAX), "D-Bus server");
  }
}

sd_bus* openOn(int file, bool server) {
  sd_bus* bus = nullptr;
  sd_id128_t id = {};
  must(sd_bus_new(&bus), "sd_bus_new");
  must(sd_bus_set_fd(bus, file, file), "D-Bus file");
  if (server) must(sd_bus_set_server(bus, 1, id), "D-Bus server");
  must(sd_bus_start(bus), "D-Bus start");
  return bus;
}

sd_bus* openDaemon() {
  sd_bus* bus = nullptr;
  must(sd_bus_new(&bus), "sd_bus_new");
  must(sd_bus_set_address(bus, (std::string("unix:path=") + SOCKET).c_str()), "D-Bus address");
  must(sd_bus_set_bus_client(bus, 1), "D-Bus client");
  must(sd_bus_start(bus), "D-Bus start");
  return bus;
}

class BusPeer : public Peer {
 public:
  BusPeer(sd_bus* bus, const char* destination) : bus_(bus), destination_(destination) {}

  void exchange() override {
    sd_bus_message* request = nullptr;
    sd_bus_message* reply = nullptr;
    must(sd_bus_message_new_method_call(bus_, &request, destination_, PATH, INTERFACE, METHOD),
         "D-Bus call");
    must(sd_bus_message_append_array(request, 'y', request_, sizeof request_), "D-Bus call");
    must(sd_bus_call(bus_, request, 0, nullptr, &reply), "D-Bus call");
    const void* bytes = nullptr;
    std::size_t size = 0;
    must(sd_bus_message_read_array(reply, 'y', &bytes, &size), "D-Bus reply");
    if (size != ANSWER_SIZE) failPeer("D-Bus reply");
    (void)sd_bus_message_unref(request);
    (void)sd_bus_message_unref(reply);
  }

 private:
  sd_bus* bus_;
  const char* destination_;
  char request_[REQUEST_SIZE] = {};
};

std::unique_ptr<Peer> makeDirect() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) failPeer("socketpair");
  forkServer([&] {
    (void)close(ends[0]);
    serve(openOn(ends[1], true));
  });
  (void)close(ends[1]);
  return std::make_unique<BusPeer>(openOn(ends[0], false), nullptr);
}

void startDaemon() {
  forkServer([] {
    const std::string address = std::string("--address=unix:path=") + SOCKET;
    (void)execlp("dbus-daemon", "dbus-daemon", "--config-file=/usr/share/dbus-1/session.conf",
                 address.c_str(), "--nofork", "--nopidfile", "--nosyslog", nullptr);
    failPeer("dbus-daemon");
  });
  constexpr useconds_t PAUSE = 10'000;
  for (int i = 0; i < 500 && access(SOCKET, F_OK) != 0; ++i) (void)usleep(PAUSE);
}

std::unique_ptr<Peer> makeThroughDaemon() {
  startDaemon();
  int ready[2];
  if (pipe(ready) != 0) failPeer("pipe");
  forkServer([&] {
    sd_bus* bus = openDaemon();
    must(sd_bus_request_name(bus, SERVICE, 0), "D-Bus name");
    if (write(ready[1], "r", 1) != 1) failPeer("write");
    serve(bus);
  });
  (void)close(ready[1]);
  char byte = 0;
  if (read(ready[0], &byte, 1) != 1) failPeer("the D-Bus server");
  return std::make_unique<BusPeer>(openDaemon(), SERVICE);
}

}  // namespace

std::vector<NamedPeer> makeBusPeers() {
  std::vector<NamedPeer> peers;
  peers.push_back({"D-Bus, peer to peer", makeDirect()});
  peers.push_back({"D-Bus, through its daemon", makeThroughDaemon()});
  return peers;
}

}  // namespace bench
