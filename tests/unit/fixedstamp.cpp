#include "fixedstamp.h"

#include <cstdlib>
#include <cstring>

#include "calls.h"
#include "tracefile.h"

namespace armtest {

void fixStamp() {
  setenv("TZ", "UTC", 1);
  calls::gettimeofday.replace([](timeval* now, void*) {
    now->tv_sec = 1709802302;
    now->tv_usec = 45917;
    return 0;
  });
  calls::gethostname.replace([](char* name, size_t) {
    std::strcpy(name, "host");
    return 0;
  });
  calls::getpid.fail(1234, 0);
  calls::pthread_self.fail(1024, 0);
}

std::string xmlRecord(const std::string& text) {
  return xmlRecord(text, {"1709802302045", "2024-03-07 09:05:02.045", "host", "1024", "1234"});
}

}  // namespace armtest
