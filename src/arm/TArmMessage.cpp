#include "arm/TArmMessage.h"

#include <cstdio>

#include "arm/TArmReplyMessage.h"

void dumpMsgSizes() {
  (void)std::printf("Sizeof TArmMessage      [%d]\n", static_cast<int>(sizeof(TArmMessage)));
  (void)std::printf(
      "  TArmMessage sizeof(sender_id)[%d] sizeof(msg_type)[%d] sizeof(messages)[%d]\n",
      static_cast<int>(sizeof(TArmMessage::sender_id)),
      static_cast<int>(sizeof(TArmMessage::msg_type)),
      static_cast<int>(sizeof(TArmMessage::messages)));
  (void)std::printf("  TArmMessage offset sender_id[%d] msg_type[%d] messages[%d]\n",
                    static_cast<int>(offsetof(TArmMessage, sender_id)),
                    static_cast<int>(offsetof(TArmMessage, msg_type)),
                    static_cast<int>(offsetof(TArmMessage, messages)));
  (void)std::printf("Sizeof TArmReplyMessage [%d]\n", static_cast<int>(sizeof(TArmReplyMessage)));
}
