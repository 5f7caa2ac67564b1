#include "diag/wcdebug.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "diag/CPatience.h"
#include "diag/slowtrace.h"
#include "diag/util1.h"
#include "diag/util2.h"
#include "platform/kelptime2.h"

namespace {

constexpr int FORMAT_BASIC = 0;
constexpr int FORMAT_XML = 1;
constexpr int NEW_RECORD = 1;
constexpr int CONTINUATION = 0;

// sic (host-as-ip): the element holds the host's name.
constexpr char XML_BEFORE_HOST[] = "</Time>\n <Server Format=\"IP\">";
constexpr char XML_AFTER_HOST[] =
    "</Server>\n <ProductId>QDN</ProductId>\n <Component>ARM</Component>\n"
    " <ProductInstance>5.3</ProductInstance>\n <LogText><![CDATA[";

}  // namespace

std::atomic<int> VLogFormat{FORMAT_XML};
std::atomic<bool> VTriedFileOnce{false};
std::atomic<bool> wcdebug::VInitialized{false};
char VLogFileSpec[TRACE_SPEC_SIZE];
char VHostName[TRACE_HOST_SIZE];

const char VXMLPart1[] = "<Trace>\n <Time Millis=\"";
const char VXMLPart2[] = "\">";
char VXMLPart3[sizeof XML_BEFORE_HOST + TRACE_HOST_SIZE + sizeof XML_AFTER_HOST];
const char VXMLPart4[] =
    "]]></LogText>\n <LogAttribs><Key>organization</Key><Value>ORV</Value></LogAttribs>\n"
    " <Source FileName=\"None\" Method=\"None\"/>\n <Thread>";
const char VXMLPart5[] = "</Thread>\n <Process>";
const char VXMLPart6[] = "</Process>\n</Trace>\n";

namespace {

/// Keeps writing from killing or stopping the host.  The signal that the kernel sends with a write
/// beyond a file-size limit is held back, and dropped unless it was there before; with the one that
/// stops background jobs held back, a terminal takes their output.
class CWriteSignals {
 public:
  CWriteSignals() {
    sigset_t pending;
    (void)sigpending(&pending);
    VWasPending = sigismember(&pending, SIGXFSZ) == 1;
    (void)sigemptyset(&VSignals);
    (void)sigaddset(&VSignals, SIGXFSZ);
    (void)sigaddset(&VSignals, SIGTTOU);
    (void)pthread_sigmask(SIG_BLOCK, &VSignals, &VMask);
    (void)sigdelset(&VSignals, SIGTTOU);
  }
  ~CWriteSignals() {
    const timespec now = {0, 0};
    if (!VWasPending) (void)sigtimedwait(&VSignals, nullptr, &now);
    (void)pthread_sigmask(SIG_SETMASK, &VMask, nullptr);
  }
  CWriteSignals(const CWriteSignals&) = delete;
  CWriteSignals& operator=(const CWriteSignals&) = delete;

 private:
  sigset_t VSignals;
  sigset_t VMask;
  bool VWasPending;
};

CPatience VLeasePatience(LEASE_MILLISECONDS);

// Whatever somebody has put in the trace file's place: nothing waits without a limit, and a
// terminal does not become the host's controlling one.
int openTraceFile() {
  constexpr int FLAGS = O_RDWR | O_CREAT | O_APPEND | O_NOCTTY | O_CLOEXEC;
  const int file = openPatiently(VLogFileSpec, FLAGS, S_IRUSR | S_IWUSR, VLeasePatience);
  if (file < 0 && !VTriedFileOnce.exchange(true)) {
    (void)std::printf("Failed to open trace file [%s], make sure that subdirectory exists\n",
                      VLogFileSpec);
  }
  return file;
}

/// Kept apart, as is the next: their stack is given back before a record is written.
__attribute__((noinline)) bool isRegular(int file) {
  struct stat info = {};
  return fstat(file, &info) != 0 || S_ISREG(info.st_mode);
}

__attribute__((noinline)) bool beginSlowRecordIn(int file) {
  struct stat info = {};
  return fstat(file, &info) == 0 && beginSlowRecord(info);
}

}  // namespace

unsigned long getPid() {
  return static_cast<unsigned long>(getpid());
}

unsigned long getTid() {
  return pthread_self();
}

void writeString(int file, const char* text) {
  if (file == GATHERED_FILE) return gatherText(text);
  if (write(file, text, std::strlen(text)) < 0) return;  // a lost trace is never the host's problem
}

/// Writes a number with at least four digits.
static void writeId(int file, unsigned long number) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%04lu", number);
  writeString(file, text);
}

void prepXMLFormat() {
  if (gethostname(VHostName, sizeof VHostName) != 0) VHostName[0] = '\0';
  VHostName[TRACE_HOST_SIZE - 1] = '\0';
  (void)std::snprintf(VXMLPart3, sizeof VXMLPart3, "%s%s%s", XML_BEFORE_HOST, VHostName,
                      XML_AFTER_HOST);
}

void doInit() {
  (void)getLogFileSpec(VLogFileSpec, sizeof VLogFileSpec);
  prepXMLFormat();
}

static void prepareOnce() {
  doInit();
  wcdebug::VInitialized = true;
}

static void prepare() {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  (void)pthread_once(&once, prepareOnce);
}

void getLocalTime(int subMilliseconds, char* buffer, uint32_t* seconds, uint32_t* milliseconds) {
  uint32_t now = 0;
  uint32_t nanoseconds = 0;
  KelpBestGetCurrentTime(&now, &nanoseconds);
  HrtTime time = {};
  ConvertToHRT(now, nanoseconds, &time);
  const std::tm& day = time.calendar;
  const int length =
      std::snprintf(buffer, TRACE_STAMP_SIZE, "%04d-%02d-%02d %02d:%02d:%02d.%03lu",
                    day.tm_year + 1900, day.tm_mon + 1, day.tm_mday, day.tm_hour, day.tm_min,
                    day.tm_sec, static_cast<unsigned long>(time.milliseconds));
  if (subMilliseconds != 0 && length > 0) {
    (void)std::snprintf(buffer + length, TRACE_STAMP_SIZE - static_cast<std::size_t>(length),
                        ":%03lu:%03lu", static_cast<unsigned long>(time.microseconds),
                        static_cast<unsigned long>(time.nanoseconds));
  }
  if (seconds == nullptr) return;
  *seconds = now;
  if (milliseconds != nullptr) *milliseconds = time.milliseconds;
}

void writeBasicMsg(int file, const char* text, int kind, const char* stamp) {
  if (kind == NEW_RECORD) {
    writeString(file, stamp);
    char ids[64];
    (void)std::snprintf(ids, sizeof ids, " (%04lu:%04lu)", getPid(), getTid());
    writeString(file, ids);
    writeString(file, " - ");
  }
  writeString(file, text);
}

void writeXMLMsg(int file, const char* text, int kind, const char* stamp, uint32_t seconds,
                 uint32_t milliseconds) {
  if (kind == CONTINUATION) return;
  writeString(file, VXMLPart1);
  char millis[48];
  // What a double would be printed as, without touching the host's floating-point unit.
  (void)std::snprintf(millis, sizeof millis, "%13llu", seconds * 1000ULL + milliseconds);
  writeString(file, millis);
  writeString(file, VXMLPart2);
  writeString(file, stamp);
  writeString(file, VXMLPart3);
  // Deliberate (not-escaped): no escaping; a text with "]]>" in it ends the section early.
  writeString(file, text);
  writeString(file, VXMLPart4);
  writeId(file, getTid());
  writeString(file, VXMLPart5);
  writeId(file, getPid());
  writeString(file, VXMLPart6);
}

/// False when the file's reader, or another thread's record, has cost this one.
static bool writeTrace(const char* text, int kind) {
  if (text == nullptr) return true;
  char stamp[TRACE_STAMP_SIZE] = "";
  uint32_t seconds = 0;
  uint32_t milliseconds = 0;
  if (kind == NEW_RECORD) {
    const bool xml = VLogFormat == FORMAT_XML;
    getLocalTime(xml ? 0 : 1, stamp, xml ? &seconds : nullptr, xml ? &milliseconds : nullptr);
  }
  prepare();
  const CWriteSignals signals;
  // Deliberate (each-write): opened and closed each time.
  const int file = openTraceFile();
  if (file < 0) return true;
  const bool regular = isRegular(file);
  bool written = regular || beginSlowRecordIn(file);
  if (written) {
    const int target = regular ? file : GATHERED_FILE;
    if (VLogFormat == FORMAT_XML) {
      writeXMLMsg(target, text, kind, stamp, seconds, milliseconds);
    } else {
      writeBasicMsg(target, text, kind, stamp);
    }
    if (!regular) written = endSlowRecord(file, kind == CONTINUATION);
  }
  (void)close(file);
  return written;
}

void wcDebug(const char* text) {
  (void)writeTrace(text, NEW_RECORD);
}

void wcDebugln(const char* text) {
  if (writeTrace(text, NEW_RECORD)) (void)writeTrace("\n", CONTINUATION);
}

void wcDebugWorker(const char* text, int kind) {
  (void)writeTrace(text, kind);
}

void wcDebugSetLogFormat(int format) {
  if (format == FORMAT_BASIC || format == FORMAT_XML) VLogFormat = format;
}

char* wcDebugGetLogFileSpec(char* dst, unsigned int len) {
  prepare();
  if (len == 0) return dst;
  std::strncpy(dst, VLogFileSpec, len);
  dst[len - 1] = '\0';
  return dst;
}
