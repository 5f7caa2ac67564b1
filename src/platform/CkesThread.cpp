#include "platform/CkesThread.h"

#include <cstring>

#include "diag/CkesErrorManager.h"
#include "platform/CkesThreadLibrary.h"

namespace {

bool createdOrRunning(TThreadState state) {
  return state == THREAD_CREATED || state == THREAD_RUNNING;
}

}  // namespace

CkesThread::CkesThread()
    : VThread(0), VState(THREAD_INVALID), VStartEvent(EVENT_MANUAL_RESET, false), VName{} {
  (void)create();
  std::strcpy(VName, "Unnamed");
}

CkesThread::CkesThread(const char* name)
    : VThread(0), VState(THREAD_INVALID), VStartEvent(EVENT_MANUAL_RESET, false), VName{} {
  // Deliberate (nameless-thread): a thread that could not be created stays without its name, unlike
  // an unnamed one.
  if (create()) std::strncpy(VName, name, NAME_SIZE - 1);
}

CkesThread::~CkesThread() = default;

bool CkesThread::create() {
  if (!CkesThreadLibrary::IsInitialized() && CkesThreadLibrary::Initialize() != 0) return false;
  if (!implInitialize()) return false;
  VState.store(THREAD_CREATED, std::memory_order_relaxed);
  return true;
}

void CkesThread::runBody() {
  (void)CkesErrorManager::RegisterThread();
  (void)CkesThreadLibrary::SetThreadName(VName);
  (void)VStartEvent.Wait();
  Run();
  VState.store(THREAD_FINISHED, std::memory_order_release);
  (void)CkesErrorManager::UnregisterThread();
}

long CkesThread::GetID(unsigned long* id) {
  if (GetState() == THREAD_INVALID)
    return CkesErrorManager::Record(ERR_STATE, "CkesThread::GetID()");
  *id = VThread;
  return 0;
}

long CkesThread::Start() {
  static constexpr const char* where = "CkesThread::Start()";
  if (GetState() != THREAD_CREATED) return CkesErrorManager::Record(ERR_STATE, where);
  VState.store(THREAD_RUNNING, std::memory_order_relaxed);
  // Deliberate (start-renamed): recorded anew, so that the trail names the thread's operation and
  // not its event's.
  return CkesErrorManager::Record(VStartEvent.Signal(), where);
}

long CkesThread::SetPriority(TThreadPriority) {
  return CkesErrorManager::Record(createdOrRunning(GetState()) ? ERR_NOT_SUPPORTED : ERR_STATE,
                                  "CkesThread::SetPriority()");
}

long CkesThread::GetPriority(TThreadPriority*) {
  return CkesErrorManager::Record(createdOrRunning(GetState()) ? ERR_NOT_SUPPORTED : ERR_STATE,
                                  "CkesThread::GetPriority()");
}

long CkesThread::Join() {
  static constexpr const char* where = "CkesThread::Join()";
  const TThreadState state = GetState();  // once: the body may end at any time
  // Deliberate (join-finished): the system is not asked.
  if (state == THREAD_FINISHED) return 0;
  if (!createdOrRunning(state)) return CkesErrorManager::Record(ERR_STATE, where);
  return CkesErrorManager::Record(implJoin(), where);
}

long CkesThread::Terminate() {
  static constexpr const char* where = "CkesThread::Terminate()";
  if (GetState() != THREAD_RUNNING) return CkesErrorManager::Record(ERR_STATE, where);
  const long result = implTerminate();
  VState.store(THREAD_FINISHED, std::memory_order_release);
  return CkesErrorManager::Record(result, where);
}

long CkesThread::GiveWay() {
  static constexpr const char* where = "CkesThread::GiveWay()";
  if (GetState() != THREAD_RUNNING) return CkesErrorManager::Record(ERR_STATE, where);
  return CkesErrorManager::Record(implGiveWay(), where);
}
