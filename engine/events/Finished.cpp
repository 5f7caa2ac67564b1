#include "events/Finished.h"

#include <algorithm>

#include "arm/TArmMessage.h"

namespace armengine {

bool isReport(const Event& event) {
  return event.type == ARM_MSG_TRANS_REPORT || event.type == ARM_MSG_TRANS_INSTANCE_REPORT;
}

bool endsInstance(const Event& event) {
  if (event.result < 0 || event.subject.tran_class == nullptr) return false;
  // What names a class is a report of a whole instance, or changes nothing and has no handle.
  if (isReport(event)) return event.id != event.subject.handle;
  switch (event.type) {
    case ARM_MSG_STOP:
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
    case EVENT_ABANDONED:
      return event.subject.handle != 0;
    default:
      return false;
  }
}

uint64_t startOf(const Event& event) {
  // A report comes when all is over.
  return isReport(event) ? event.time - std::min(event.subject.duration, event.time)
                         : event.subject.start;
}

}  // namespace armengine
