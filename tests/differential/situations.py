"""What the scripts of a fixed round reach, so that nobody takes an idle test for a good one."""

import re

POSTING = ("arm_init", "w_ArmInit", "arm_getid", "w_ArmGetID", "arm_start", "arm_update",
           "arm_stop", "arm_end", "arm_transactionReport", "arm_transactionInstanceReport",
           "arm_completeTransaction", "arm_completeTransactionInstance", "arm_associateMetricData")
CALLS = (
    ["call %s: %s" % (name, outcome) for name in POSTING
     for outcome in ("answered", "-1", "-2", "-8", "-9")] +
    ["call %s: -1003" % name for name in POSTING[:4]] +
    ["call arm_getCorrelatorKey: a text", "call GetExpectedCodeset: a text",
     "call GetExpectedCodeset: null", "call SetExpectedCodeset: answered",
     "call SetExpectedCodeset: -1003", "call SetExpectedCodeset: -3004"])
TRACES = """
Bad tran ID
CheckEngineStatus failed
IPCGetFrmEngine failed
IPCGetFromEngine failed
IPCPostToEngine failed
Invalid start_handle
Some name is too long
Some param is too long
UTF-8 conversion failed
appl_id is invalid
appl_id or trans name is invalid
appl_name is NULL
CIPCQueue::CIPCQueue(const char*,bool) - ERROR -VSharedMemory->GetInitResult()
CIPCQueue::CIPCQueue(const char*,bool) ENTER, name
CIPCQueue::CIPCQueue(const char*,bool) ERROR - VInitialized =
CIPCQueue::CIPCQueue(const char*,bool) EXIT, name
CIPCQueue_LINUX::implInitialize - ERROR - ftok errno
CIPCQueue_LINUX::implInitialize - ERROR - semget get semaphore id errno
CIPCQueue_LINUX::implInitialize ENTER - name
CIPCQueue_LINUX::implInitialize EXIT - name
CIPCSimpleQueue Failed on VOverflowSem
CIPCSimpleQueue Failed on the empty queue wait sem
CIPCSimpleQueue Failed on the shared memory
CIPCSimpleQueue VQueueState is bad
CheckEngineStatus, 2nd try at InitializeIPC failed.
CheckEngineStatus, InitializeIPC failed
CheckEngineStatus, IsEngineAlive failed
CheckEngineStatus, Try to InitializeIPC again.
CkesSemaphore_LINUX::implOpen ftok call failed
CkesSemaphore_LINUX::implOpen semget call failed
CkesSharedMemory::implLock: semop on VSemaphore
CkesSharedMemory_UNIX::implOpen - ERROR -  ftok(name, IPC_MEM_ID) failed where name
CkesSharedMemory_UNIX::implOpen - ERROR - semctl(VSemaphore, 1, GETVAL) failed where errno
CkesSharedMemory_UNIX::implOpen - ERROR - semget(sem_key, 2, 0) failed where errno
CkesSharedMemory_UNIX::implOpen - ERROR - shmget(mem_key, 1, 0) failed where errno
CkesSharedMemory_UNIX::implOpen ENTER - name
CkesSharedMemory_UNIX::implOpen EXIT - name
Conversion of appl_name
Conversion of appl_user_id
ConvertStrUTF8()->ucnv_toUChars() ICU ERROR Code
ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code
Debug run found in caller's environment.
Ignoring this tran_id
InitializeIPC, Failed to create InQueue
InitializeIPC, OutQueue Creator is not alive
InitializeIPC, OutQueue failure
InitializeIPC, OutQueue is not Initialized
IsEngineAlive: CreatorAlive failed
IsEngineAlive: OutQueue version
Passed IGNOREID
app
applID
appl_id
intlGetICUConverter()->ICU ERROR Code
libarm:arm_end ENTER
libarm:arm_end EXIT
libarm:arm_getid ENTER
libarm:arm_getid EXIT
libarm:arm_init ENTER
libarm:arm_init EXIT
libarm:arm_start ENTER
libarm:arm_start EXIT
libarm:arm_stop ENTER
libarm:arm_stop EXIT
start_handle
tran_id
""".strip().split("\n")
SITUATIONS = (CALLS + ["basic trace", "xml trace", "no trace directory"] +
              ["trace: %s" % text for text in TRACES])


def outcome_of(result):
    """A call's result, without what differs from call to call."""
    if isinstance(result, str) or result is None:
        return "a text" if result else "null"
    return str(result) if result in (-1, -2, -8, -9, -3004, -1003) else "answered"


def shape_of(text):
    """What a trace line says, likewise."""
    if not isinstance(text, str):
        text = text.before
    return re.split(r"[\[<]|= ", text.replace("Queue<T>", "Queue"))[0].strip(" \a\n")
