#pragma once

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "ipc/CIPCQueue.h"
#include "ipc/CIPCSimpleQueue.h"

namespace armtest {

// Clients of the queues, made of the library's own classes.

/// A result code of the queues as an exit code: 0, or the last two digits.
inline int codeOf(long result) {
  return static_cast<int>(-result % 100);
}

/// A request of the calling thread that can be told from others.
inline TArmMessage request(int32_t type) {
  TArmMessage message = {};
  message.sender_id = GetIpcIdentifier();
  message.msg_type = type;
  return message;
}

/// Opens the request queue, puts one request and returns the result.
inline long putRequest(int32_t type, bool wait_for_room) {
  CIPCSimpleQueue<TArmMessage> queue("/var/kelp/controls_ae.kelp");
  queue.SetOverflowWait(wait_for_room);
  return queue.Put(request(type));
}

/// Opens the reply queue and takes a reply of the calling thread; returns the result.
inline long getReply(TArmReplyMessage* reply) {
  CIPCQueue<TArmReplyMessage> queue("/var/kelp/controls_ea.kelp", false);
  return queue.Get(GetIpcIdentifier(), *reply);
}

/// Body of a child process that waits for a reply.
inline int waitForReply() {
  TArmReplyMessage reply = {};
  return codeOf(getReply(&reply));
}

}  // namespace armtest
