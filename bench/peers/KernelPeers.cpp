#include <linux/futex.h>
#include <mqueue.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#include "Peer.h"

namespace bench {

namespace {

struct Buffers {
  char request[REQUEST_SIZE] = {};
  char answer[ANSWER_SIZE] = {};
};

/// False at the end of the stream.
bool readAll(int file, char* buffer, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t got = read(file, buffer + done, size - done);
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

void writeAll(int file, const char* buffer, std::size_t size) {
  if (write(file, buffer, size) != static_cast<ssize_t>(size)) failPeer("write");
}

/// Two file descriptors at each side, which may be the same.
class StreamPeer : public Peer {
 public:
  struct Side {
    int in;
    int out;
  };

  StreamPeer(Side client, Side server) : client_(client) {
    forkServer([server] {
      Buffers own;
      while (readAll(server.in, own.request, REQUEST_SIZE)) {
        writeAll(server.out, own.answer, ANSWER_SIZE);
      }
    });
  }

  void exchange() override {
    writeAll(client_.out, buffers_.request, REQUEST_SIZE);
    if (!readAll(client_.in, buffers_.answer, ANSWER_SIZE)) failPeer("read");
  }

 private:
  Side client_;
  Buffers buffers_;
};

std::unique_ptr<Peer> makePipe() {
  int out[2];
  int back[2];
  if (pipe(out) != 0 || pipe(back) != 0) failPeer("pipe");
  return std::make_unique<StreamPeer>(StreamPeer::Side{back[0], out[1]},
                                      StreamPeer::Side{out[0], back[1]});
}

std::unique_ptr<Peer> makeSocket(int type) {
  int ends[2];
  if (socketpair(AF_UNIX, type, 0, ends) != 0) failPeer("socketpair");
  return std::make_unique<StreamPeer>(StreamPeer::Side{ends[0], ends[0]},
                                      StreamPeer::Side{ends[1], ends[1]});
}

class QueuePeer : public Peer {
 public:
  QueuePeer() : out_(open("/bench_out", REQUEST_SIZE)), back_(open("/bench_back", ANSWER_SIZE)) {
    forkServer([this] {
      Buffers own;
      while (mq_receive(out_, own.request, REQUEST_SIZE, nullptr) >= 0) {
        if (mq_send(back_, own.answer, ANSWER_SIZE, 0) != 0) failPeer("mq_send");
      }
    });
  }

  void exchange() override {
    if (mq_send(out_, buffers_.request, REQUEST_SIZE, 0) != 0 ||
        mq_receive(back_, buffers_.answer, ANSWER_SIZE, nullptr) < 0) {
      failPeer("message queue");
    }
  }

 private:
  static mqd_t open(const char* name, std::size_t size) {
    mq_attr attributes = {};
    attributes.mq_maxmsg = 1;
    attributes.mq_msgsize = static_cast<long>(size);
    const mqd_t queue = mq_open(name, O_RDWR | O_CREAT, 0600, &attributes);
    if (queue == static_cast<mqd_t>(-1)) failPeer("mq_open");
    return queue;
  }

  mqd_t out_;
  mqd_t back_;
  Buffers buffers_;
};

/// One word that is raised and waited for.
class Bell {
 public:
  void ring() {
    word_.store(1, std::memory_order_release);
    (void)syscall(SYS_futex, &word_, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  }
  void await() {
    while (word_.exchange(0, std::memory_order_acquire) == 0) {
      (void)syscall(SYS_futex, &word_, FUTEX_WAIT, 0, nullptr, nullptr, 0);
    }
  }

 private:
  std::atomic<uint32_t> word_{0};
};

/// What a blocking round trip costs at least: two copies out, two back, and two wake-ups.
class FutexPeer : public Peer {
 public:
  FutexPeer() : shared_(new (map()) Shared) {
    forkServer([this] {
      Buffers own;
      for (;;) {
        shared_->requested.await();
        std::memcpy(own.request, shared_->buffers.request, REQUEST_SIZE);
        std::memcpy(shared_->buffers.answer, own.answer, ANSWER_SIZE);
        shared_->answered.ring();
      }
    });
  }

  void exchange() override {
    std::memcpy(shared_->buffers.request, buffers_.request, REQUEST_SIZE);
    shared_->requested.ring();
    shared_->answered.await();
    std::memcpy(buffers_.answer, shared_->buffers.answer, ANSWER_SIZE);
  }

 private:
  struct Shared {
    Bell requested;
    Bell answered;
    Buffers buffers;
  };

  static void* map() {
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) failPeer("mmap");
    return memory;
  }

  Shared* shared_;
  Buffers buffers_;
};

}  // namespace

std::vector<NamedPeer> makeKernelPeers() {
  std::vector<NamedPeer> peers;
  peers.push_back({"futex in shared memory", std::make_unique<FutexPeer>()});
  peers.push_back({"pipe", makePipe()});
  peers.push_back({"Unix stream socket", makeSocket(SOCK_STREAM)});
  peers.push_back({"Unix datagram socket", makeSocket(SOCK_DGRAM)});
  peers.push_back({"POSIX message queue", std::make_unique<QueuePeer>()});
  return peers;
}

}  // namespace bench
