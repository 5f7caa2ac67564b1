/* The protocol between libarm and an engine: clients that post a request and wait for its reply,
   and an engine that takes requests and puts replies.  Each statement is one step that others can
   come between; what the kernel does in one system call is one atomic block.  README.md explains
   the model; the macros below are set on the command line. */

#ifndef CLIENTS
#define CLIENTS 2       /* processes of one thread each */
#endif
#ifndef CALLS
#define CALLS 2         /* calls of each */
#endif
#ifndef FIRST_CALLS
#define FIRST_CALLS CALLS   /* calls of the first client */
#endif
#ifndef RING
#define RING 2          /* slots of the request queue */
#endif
#ifndef HEADS
#define HEADS 2         /* head records, and items, of the reply queue */
#endif
#ifndef LIVES
#define LIVES 1         /* engines that run one after the other */
#endif
#ifndef KILL_CLIENT
#define KILL_CLIENT 0   /* clients that are killed, at any step */
#endif
#ifndef VICTIMS
#define VICTIMS CLIENTS /* the clients, from the first on, that may be killed */
#endif
#ifndef RESPAWN
#define RESPAWN 0       /* whether a killed client comes back as a new process */
#endif
#ifndef KILL_ENGINE
#define KILL_ENGINE 0   /* whether the engine is killed, at any step, and started again */
#endif
#ifndef STOP
#define STOP 0          /* the state that the engine ends with, 0 when it does not end */
#endif
#ifndef CANCEL
#define CANCEL 0        /* 1: the engine may cancel instead of replying; 2: only those that wait */
#endif
#ifndef BATCH
#define BATCH 1         /* requests that the engine takes, and answers, under one lock each */
#endif
/* SPLIT_PUT        a writer advances the tail and raises the count with two stores instead of one
   RAISE_LATE       the engine raises the semaphores after it has given the lock back, in one call
   RAISE_FIRST_ONLY it raises that of the first reply of a batch only
   NO_UNDO          the kernel takes nothing back from a process that ends
   NO_TIME_LIMIT    the engine waits for requests without a limit
   KEEP_SEGMENT     a new engine uses the segments of the old one
   PLAIN_STOP       an engine that ends stores the state without the lock, and raises nothing
   LOCK_TO_DESTROY  an engine that ends takes the lock of the reply queue once more
   CAREFUL          the engine keeps replies while head records are short, as armengine does
   NOT_AFTERWARDS   it does not, once records have come free, for the requests made before
   AT_ONCE          it hands a kept reply over as soon as its requester waits
   CHECK_MUTEX, CHECK_WAKEUP, CHECK_REPLY, CHECK_ANSWERED   what is asserted */

#define ENGINE CLIENTS                   /* the engine's number as a process */
#define PROCESSES (CLIENTS + 1)
#define IDENTITIES (2 * CLIENTS)         /* a client that comes back has another */
#define NOBODY IDENTITIES
#define SET_Q(life) (life)               /* lock set of the request queue */
#define SET_R(life) (LIVES + (life))     /* lock set of the reply queue */
#define SETS (2 * LIVES)
#ifdef KEEP_SEGMENT
#define MEM(life) 0
#else
#define MEM(life) (life)
#endif
#define SEM(life, head) ((life) * HEADS + (head))
#define MESSAGE(who, number) ((who) * CALLS + (number) + 1)
#define SENDER(message) (((message) - 1) / CALLS)

/* Statuses of a head record. */
#define IDLE 0
#define WAITING 1
#define CANCELLED 3

/* Outcomes of a sleep. */
#define ASLEEP 0
#define RAISED 1
#define REMOVED 2

/* ---- the machine ----------------------------------------------------------------------------- */

/* Semaphore 0 of each lock set, and what each process has to undo when it ends: its increments less
   its decrements. */
byte lock[SETS];
short undo[SETS * PROCESSES];
bit setGone[SETS];
/* The memory that each process believes to have locked, plus one; only to check the lock with. */
byte holds[PROCESSES];

/* The wake-up sets: values, and who sleeps (the number of the semaphore plus one). */
byte sem[LIVES * HEADS];
bit wakeGone[LIVES];
byte sleepsOn[CLIENTS];
byte woken[CLIENTS];

byte identity[CLIENTS];                 /* of the running process; NOBODY when there is none */
bit killed[PROCESSES];

/* ---- shared memory and engine ---------------------------------------------------------------- */

typedef Ring { byte count; byte head; byte tail; byte slot[RING]; byte state }
typedef Head { byte status; byte owner; byte length; byte reply[2] }
typedef Replies { byte free; byte used; byte inUse; byte state; Head head[HEADS] }

Ring ring[LIVES];
Replies replies[LIVES];
byte wakeUnits[LIVES];                  /* the empty-queue semaphore */
bit engineSleeps;
byte life;                              /* the engine that runs, or ran last */
bit creatorAlive[LIVES];                /* semaphore 1 of the lock sets is 2 */
bit ready;
bit begun;                              /* clients run */
byte finished;                          /* clients that have made all their calls */

/* ---- system calls ---------------------------------------------------------------------------- */

inline takeLock(p, set, memory) {
  atomic {
    (setGone[set] || lock[set] == 0);
    if
    :: setGone[set] -> ok = 0
    :: else ->
       lock[set] = 1;
       undo[(set) * PROCESSES + p]++;
       holds[p] = (memory) + 1;
       ok = 1;
       checkMutex()
    fi
  }
}

inline checkMutex() {
#ifdef CHECK_MUTEX
  i = 0;
  do
  :: i < PROCESSES -> j = i + 1;
     do
     :: j < PROCESSES -> assert(holds[i] == 0 || holds[i] != holds[j]); j++
     :: else -> break
     od;
     i++
  :: else -> break
  od
#else
  skip
#endif
}

inline giveLock(p, set) {
  atomic {
    holds[p] = 0;
    if
    :: setGone[set] || lock[set] == 0 -> skip   /* fails, and changes nothing */
    :: else -> lock[set]--; undo[(set) * PROCESSES + p]--
    fi
  }
}

/* What the kernel does for a process that ends, however it ends. */
inline endProcess(p) {
  i = 0;
  do
  :: i < SETS ->
     if
     :: setGone[i] -> skip
#ifndef NO_UNDO
     :: !setGone[i] && undo[i * PROCESSES + p] > lock[i] -> lock[i] = 0
     :: !setGone[i] && undo[i * PROCESSES + p] <= lock[i] ->
        lock[i] = lock[i] - undo[i * PROCESSES + p]
#else
     :: else -> skip
#endif
     fi;
     undo[i * PROCESSES + p] = 0;
     i++
  :: else -> break
  od;
  holds[p] = 0
}

/* A sleeper takes the unit at once.  Part of a system call. */
inline addUnit(which) {
  i = 0;
  do
  :: i < CLIENTS && sleepsOn[i] == (which) + 1 ->
     sleepsOn[i] = 0; woken[i] = RAISED; break
  :: i < CLIENTS && sleepsOn[i] != (which) + 1 -> i++
  :: i == CLIENTS -> sem[which]++; break
  od;
  i = 0
}

inline raise(which) { d_step { addUnit(which) } }

/* One call for several semaphores of a set. */
inline raiseNoted(set) {
  d_step {
    h = 0;
    do
    :: h < HEADS && units[h] > 0 -> addUnit(SEM(set, h)); units[h]--
    :: h < HEADS && units[h] == 0 -> h++
    :: h == HEADS -> break
    od;
    h = 0
  }
}

inline lower(me, set, which) {
  d_step {
    if
    :: wakeGone[set] -> woken[me] = REMOVED
    :: !wakeGone[set] && sem[which] > 0 -> sem[which]--; woken[me] = RAISED
    :: else -> sleepsOn[me] = (which) + 1; woken[me] = ASLEEP
    fi
  };
  woken[me] != ASLEEP
}

#define SLEEPS(which) (sleepsOn[0] == (which) + 1 || sleepsOn[CLIENTS - 1] == (which) + 1)

inline removeWakeSet(set) {
  d_step {
    wakeGone[set] = 1;
    i = 0;
    do
    :: i < CLIENTS ->
       if
       :: sleepsOn[i] > (set) * HEADS && sleepsOn[i] <= (set + 1) * HEADS ->
          sleepsOn[i] = 0; woken[i] = REMOVED
       :: else -> skip
       fi;
       i++
    :: else -> break
    od;
    i = 0
  }
}

/* ---- head records, with the lock held -------------------------------------------------------- */

/* The record of an owner, HEADS when there is none. */
inline findOwned(m, who, found) {
  d_step {
    found = 0;
    do
    :: found < HEADS && replies[m].head[found].owner != who -> found++
    :: else -> break
    od
  }
}

/* Claims a record: a free one while the counter says that there is one (the last, if that is not
   true), else one that is idle, empty and not waited on. */
inline claimHead(m, set, who, found) {
  if
  :: replies[m].inUse < HEADS ->
     findOwned(m, NOBODY, found);
     if
     :: found == HEADS -> found = HEADS - 1
     :: else -> replies[m].inUse++
     fi
  :: else ->
     d_step {
       found = 0;
       do
       :: found < HEADS && (replies[m].head[found].length > 0 ||
          replies[m].head[found].status != IDLE || SLEEPS(SEM(set, found))) -> found++
       :: else -> break
       od
     }
  fi;
  if
  :: found < HEADS ->
     replies[m].head[found].length = 0;
     replies[m].head[found].status = IDLE;
     replies[m].head[found].owner = who
  :: else -> skip
  fi
}

/* ---- a client -------------------------------------------------------------------------------- */

/* Results of a call, besides the messages. */
#define NO_ENGINE 100
#define QUEUE_FULL 101
#define FAILED 102

inline post(me, set, message, result) {
  if
  :: !creatorAlive[set] || setGone[SET_Q(set)] -> result = NO_ENGINE
  :: else ->
     takeLock(me, SET_Q(set), MEM(set));
     if
     :: !ok -> result = FAILED
     :: ok && ring[MEM(set)].state != 0 -> giveLock(me, SET_Q(set)); result = FAILED
     :: ok && ring[MEM(set)].state == 0 && ring[MEM(set)].count == RING ->
        giveLock(me, SET_Q(set)); result = QUEUE_FULL
     :: else ->
        ring[MEM(set)].slot[ring[MEM(set)].tail] = message;
#ifdef SPLIT_PUT
        ring[MEM(set)].tail = (ring[MEM(set)].tail + 1) % RING;
        ring[MEM(set)].count++;
#else
        atomic {
          ring[MEM(set)].tail = (ring[MEM(set)].tail + 1) % RING;
          ring[MEM(set)].count++
        };
#endif
        if
        :: ring[MEM(set)].count == 1 -> wakeUnits[set]++
        :: else -> skip
        fi;
        giveLock(me, SET_Q(set))
     fi
  fi
}

inline get(me, set, who, h, result) {
  if
  :: !creatorAlive[set] || setGone[SET_R(set)] -> result = NO_ENGINE; goto called
  :: else -> skip
  fi;
  takeLock(me, SET_R(set), LIVES + MEM(set));
  if
  :: !ok -> result = FAILED; goto called
  :: else -> skip
  fi;
  findOwned(MEM(set), who, h);
  if
  :: h == HEADS -> claimHead(MEM(set), set, who, h)
  :: else -> skip
  fi;
  if
  :: h == HEADS -> result = FAILED; goto unlock
  :: h < HEADS && replies[MEM(set)].head[h].length == 0 && replies[MEM(set)].state != 0 ->
     result = FAILED; goto unlock
  :: else -> skip
  fi;
wait:
  replies[MEM(set)].head[h].status = WAITING;
  giveLock(me, SET_R(set));
  lower(me, set, SEM(set, h));
  if
  :: replies[MEM(set)].state == 2 ->
     giveLock(me, SET_R(set));   /* of a lock that is not this client's */
     result = FAILED; goto called
  :: else -> skip
  fi;
  takeLock(me, SET_R(set), LIVES + MEM(set));
  if
  :: !ok || woken[me] == REMOVED ->
     giveLock(me, SET_R(set)); result = FAILED; goto called
  :: else -> skip
  fi;
  if
  :: replies[MEM(set)].head[h].length == 0 && replies[MEM(set)].state != 0 ->
     result = FAILED; goto unlock
  :: replies[MEM(set)].head[h].status == CANCELLED ->
     if
     :: !SLEEPS(SEM(set, h)) -> replies[MEM(set)].head[h].status = IDLE
     :: else -> skip
     fi;
     result = FAILED; goto unlock
  :: replies[MEM(set)].head[h].length == 0 && replies[MEM(set)].state == 0 &&
     replies[MEM(set)].head[h].status != CANCELLED -> goto wait
  :: else -> skip
  fi;
  result = replies[MEM(set)].head[h].reply[0];
  atomic {   /* the list's first link */
    replies[MEM(set)].head[h].reply[0] = replies[MEM(set)].head[h].reply[1];
    replies[MEM(set)].head[h].reply[1] = 0;
    replies[MEM(set)].head[h].length--
  };
  replies[MEM(set)].free++;
  replies[MEM(set)].used--;
  if
  :: !SLEEPS(SEM(set, h)) -> replies[MEM(set)].head[h].status = IDLE
  :: else -> skip
  fi;
unlock:
  giveLock(me, SET_R(set));
called:
  skip
}

/* The status check before each call: opens both queues, one after the other. */
inline connect(requestsOf, repliesOf, open, result) {
  if
  :: open && creatorAlive[requestsOf] && !setGone[SET_Q(requestsOf)] -> skip
  :: else ->
     open = 0;
     if
     :: ready && creatorAlive[life] && ring[MEM(life)].state == 0 -> requestsOf = life;
        if
        :: !setGone[SET_R(life)] && replies[MEM(life)].state == 0 -> repliesOf = life; open = 1
        :: else -> result = NO_ENGINE
        fi
     :: else -> result = NO_ENGINE
     fi
  fi
}

proctype Client(byte me) {
  byte number, requestsOf, repliesOf, h, result, i, j;
  bit ok, open;
  do
  :: number < (me == 0 -> FIRST_CALLS : CALLS) && identity[me] != NOBODY ->
     {
       result = 0;
       connect(requestsOf, repliesOf, open, result);
       if
       :: result == 0 -> post(me, requestsOf, MESSAGE(identity[me], number), result)
       :: else -> skip
       fi;
       if
       :: result == 0 -> get(me, repliesOf, identity[me], h, result)
       :: else -> skip
       fi;
#ifdef CHECK_REPLY
       assert(result >= NO_ENGINE || result == MESSAGE(identity[me], number));
#endif
#ifdef CHECK_ANSWERED
       assert(result == MESSAGE(identity[me], number));
#endif
       d_step { number++; h = 0; result = 0; ok = 0 }
     } unless {
       atomic {
         killed[me];
         killed[me] = 0;
         sleepsOn[me] = 0; woken[me] = 0;
         endProcess(me);
#if RESPAWN
         identity[me] = identity[me] + CLIENTS; number = 0;
#else
         identity[me] = NOBODY;
#endif
         open = 0; h = 0; result = 0; ok = 0; i = 0; j = 0
       }
     }
  :: else -> break
  od;
  atomic { endProcess(me); finished++; identity[me] = NOBODY; i = 0; j = 0 }
}

/* ---- the engine ------------------------------------------------------------------------------ */

#define REPLIES replies[MEM(life)]
#define RECORD(h) replies[MEM(life)].head[h]

/* Whether a process runs under an identity. */
#define RUNS(who) ((who) == identity[0] || (who) == identity[CLIENTS - 1])

/* A record of somebody who has ended; one that its owner does not use. */
#define DEPARTED(h) (RECORD(h).owner != NOBODY && !RUNS(RECORD(h).owner) && !SLEEPS(SEM(life, h)))
#define UNUSED(h) (RECORD(h).owner != NOBODY && RECORD(h).status == IDLE && \
                   RECORD(h).length == 0 && !SLEEPS(SEM(life, h)))

/* Gives back the records of those that have ended, or those that are not used, and puts counts
   right. */
inline reclaim(unused) {
  d_step {
    i = 0; REPLIES.used = 0; REPLIES.inUse = 0;
    do
    :: i < HEADS ->
       if
       :: (unused && UNUSED(i)) || (!unused && DEPARTED(i)) ->
          RECORD(i).length = 0; RECORD(i).reply[0] = 0; RECORD(i).reply[1] = 0;
          RECORD(i).status = IDLE; RECORD(i).owner = NOBODY; sem[SEM(life, i)] = 0
       :: else ->
          REPLIES.inUse = REPLIES.inUse + (RECORD(i).owner != NOBODY);
          REPLIES.used = REPLIES.used + RECORD(i).length
       fi;
       i++
    :: else -> break
    od;
    REPLIES.free = HEADS - REPLIES.used; i = 0
  }
}

#ifdef CAREFUL
#define MAY_ANSWER (REPLIES.inUse < HEADS && doubtful == 0)
#else
#define MAY_ANSWER true
#endif

/* The record for message's sender, HEADS when it is to have none. */
inline headFor(who) {
  if
  :: MAY_ANSWER ->
     findOwned(MEM(life), who, h);
     if
     :: h == HEADS -> claimHead(MEM(life), life, who, h)
     :: else -> skip
     fi
  :: else -> h = HEADS
  fi
}

/* With the lock held: takes an item and links it; its semaphore is raised before, or noted to be
   raised after the lock. */
inline link() {
  REPLIES.free--;
  REPLIES.used++;
#ifdef RAISE_FIRST_ONLY
  units[h] = (next == 0);
#elif defined(RAISE_LATE)
  units[h]++;
#else
  raise(SEM(life, h));
#endif
  atomic {
    RECORD(h).reply[RECORD(h).length] = message;
    RECORD(h).length++
  }
}

/* The reply to message, with the lock held. */
inline answer() {
  headFor(SENDER(message));
  if
  :: MAY_ANSWER && (h == HEADS || REPLIES.free == 0) -> reclaim(false); headFor(SENDER(message))
  :: else -> skip
  fi;
  if
  :: h < HEADS && REPLIES.free > 0 -> link(); delivered = 1
  :: else -> delivered = 0
  fi
}

/* What was noted while the lock was held. */
inline wake() {
#ifdef RAISE_LATE
  raiseNoted(life)
#else
  skip
#endif
}

/* Cancels the wait of message's sender, if it has a record (and waits, where that is asked). */
inline cancel() {
  takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
  findOwned(MEM(life), SENDER(message), h);
  if
#if CANCEL == 2
  :: h < HEADS && replies[MEM(life)].head[h].status == WAITING ->
#else
  :: h < HEADS ->
#endif
     replies[MEM(life)].head[h].status = CANCELLED;
     raise(SEM(life, h));
     delivered = 1
  :: else -> delivered = 0
  fi;
  giveLock(ENGINE, SET_R(life))
}

inline layOut(new) {
  d_step {
    ring[MEM(new)].count = 0; ring[MEM(new)].head = 0; ring[MEM(new)].tail = 0;
    ring[MEM(new)].state = 0;
    replies[MEM(new)].free = HEADS; replies[MEM(new)].used = 0; replies[MEM(new)].inUse = 0;
    replies[MEM(new)].state = 0;
    i = 0;
    do
    :: i < HEADS ->
       replies[MEM(new)].head[i].owner = NOBODY; replies[MEM(new)].head[i].status = IDLE;
       replies[MEM(new)].head[i].length = 0; replies[MEM(new)].head[i].reply[0] = 0;
       replies[MEM(new)].head[i].reply[1] = 0;
       i++
    :: else -> break
    od;
    i = 0
  }
}

/* Takes away what the last engine has left, and makes the queues. */
inline start(new) {
  if
  :: new > 0 ->
     setGone[SET_Q(new - 1)] = 1;
     setGone[SET_R(new - 1)] = 1;
     removeWakeSet(new - 1)
  :: else -> skip
  fi;
  layOut(new);
  atomic { life = new; creatorAlive[new] = 1; ready = 1 }
}

/* Wakes everybody with a state, and takes the queues away. */
inline stop() {
  ready = 0;
  takeLock(ENGINE, SET_Q(life), MEM(life));
  ring[MEM(life)].state = STOP;
  giveLock(ENGINE, SET_Q(life));
#ifdef PLAIN_STOP
  replies[MEM(life)].state = STOP;
#else
  takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
  replies[MEM(life)].state = STOP;
  h = 0;
  do
  :: h < HEADS && SLEEPS(SEM(life, h)) -> raise(SEM(life, h)); h++
  :: h < HEADS && !SLEEPS(SEM(life, h)) -> h++
  :: h == HEADS -> break
  od;
  giveLock(ENGINE, SET_R(life));
#endif
#ifdef LOCK_TO_DESTROY
  takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
  giveLock(ENGINE, SET_R(life));
#endif
  removeWakeSet(life);
  setGone[SET_R(life)] = 1;
  setGone[SET_Q(life)] = 1;
  creatorAlive[life] = 0
}

inline repairRing() {
  ring[MEM(life)].tail = (ring[MEM(life)].head + ring[MEM(life)].count) % RING
}

#ifdef CAREFUL

/* Whether message's sender waits; what the engine keeps for it. */
#define WAITS(who) ((RECORD(0).owner == (who) && RECORD(0).status == WAITING) || \
  (RECORD(HEADS - 1).owner == (who) && RECORD(HEADS - 1).status == WAITING))
#define DELIVERABLE(one) (kept[one] != 0 && due[one] <= 1 && WAITS(SENDER(kept[one])))

/* Of the replies that are kept, one for each requester, those whose requester waits are noted to be
   due once what is in the ring has been served, and delivered when they are.  due[] is one more
   than the number of requests to be served before, 0 when not noted. */
inline deliverAgain(one) {
  if
  :: kept[one] != 0 && !RUNS(SENDER(kept[one])) -> kept[one] = 0; due[one] = 0
  :: kept[one] != 0 && RUNS(SENDER(kept[one])) ->
     if
     :: due[one] == 0 ->
        takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
        delivered = WAITS(SENDER(kept[one]));
        giveLock(ENGINE, SET_R(life));
        if
#ifdef AT_ONCE
        :: delivered -> due[one] = 1
#else
        :: delivered -> due[one] = ring[MEM(life)].count + 1
#endif
        :: else -> skip
        fi
     :: else -> skip
     fi;
     if
     :: due[one] == 1 ->
        takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
        message = kept[one];
        findOwned(MEM(life), SENDER(message), h);
        if
        :: h < HEADS && RECORD(h).status == WAITING && REPLIES.free > 0 ->
           link(); kept[one] = 0; due[one] = 0
        :: else -> skip
        fi;
        giveLock(ENGINE, SET_R(life));
        wake()
     :: else -> skip
     fi
  :: else -> skip
  fi
}

/* Whether tidying would change something. */
#define TIDYING_HELPS (DEPARTED(0) || DEPARTED(HEADS - 1) || \
  (REPLIES.inUse == HEADS && (UNUSED(0) || UNUSED(HEADS - 1))))

/* Frees records; those whose calls failed before that must not be given one by their answers. */
inline tidy() {
  crowded = (REPLIES.inUse == HEADS);
  takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
  delivered = REPLIES.inUse;
  reclaim(false);
  delivered = (delivered != REPLIES.inUse);
  giveLock(ENGINE, SET_R(life));
  if
  :: crowded ->
     takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
     reclaim(true);
     giveLock(ENGINE, SET_R(life))
  :: else -> skip
  fi;
#ifndef NOT_AFTERWARDS
  if
  :: crowded || delivered -> doubtful = ring[MEM(life)].count
  :: else -> skip
  fi
#endif
}

#endif

/* A request that has been taken is about to be answered. */
inline beginAnswer() {
#ifdef CAREFUL
  d_step {
    kept[SENDER(message) % CLIENTS] = 0; due[SENDER(message) % CLIENTS] = 0;
    i = 0;
    do
    :: i < CLIENTS -> due[i] = (due[i] > 1 -> due[i] - 1 : due[i]); i++
    :: else -> break
    od;
    i = 0
  }
#else
  skip
#endif
}

inline keepUnlessDelivered() {
#ifdef CAREFUL
  doubtful = (doubtful > 0 -> doubtful - 1 : 0);
  if
  :: !delivered -> kept[SENDER(message) % CLIENTS] = message
  :: else -> skip
  fi
#else
  skip
#endif
}

proctype Engine() {
  byte i, j, h, message, next, taken;
  byte batch[BATCH];
  byte units[HEADS];    /* to be raised after the lock */
  byte kept[CLIENTS];   /* requests whose reply was not delivered yet, by sender */
  byte due[CLIENTS];
  byte doubtful;        /* requests in the ring whose senders may have given up */
  bit ok, delivered, crowded;
  {
    start(0);
serve:
    skip;
    d_step { message = 0; h = 0; delivered = 0; ok = 0; next = 0; taken = 0; crowded = 0 };
#ifdef CAREFUL
    if
    :: TIDYING_HELPS -> tidy()
    :: skip
    fi;
#endif
    takeLock(ENGINE, SET_Q(life), MEM(life));
    repairRing();
    do
    :: ring[MEM(life)].count > 0 && taken < BATCH ->
       batch[taken] = ring[MEM(life)].slot[ring[MEM(life)].head];
       ring[MEM(life)].head = (ring[MEM(life)].head + 1) % RING;
       ring[MEM(life)].count--;
       taken++
    :: else -> break
    od;
    giveLock(ENGINE, SET_Q(life));
    if
    :: taken > 0 -> goto deliver
    :: else -> skip
    fi;
    engineSleeps = 1;
end:
    if
    :: atomic { wakeUnits[life] > 0 -> wakeUnits[life]--; engineSleeps = 0 }; goto serve
#ifndef NO_TIME_LIMIT
    /* A limit that runs out means something only when there is something to do. */
    :: atomic { timeout && ring[MEM(life)].count > 0 -> engineSleeps = 0 }; goto serve
#endif
#ifdef CAREFUL
    :: atomic { DELIVERABLE(0) || DELIVERABLE(CLIENTS - 1) -> engineSleeps = 0 }; goto again
    :: atomic { TIDYING_HELPS -> engineSleeps = 0 }; tidy(); goto serve
#endif
#if STOP
    :: atomic { begun && finished < CLIENTS -> engineSleeps = 0 }; goto leave
#endif
    fi;
deliver:
#if CANCEL
    message = batch[0];
    if
    :: cancel();
       if
       :: delivered -> goto serve
       :: else -> skip
       fi
    :: skip
    fi;
#endif
    takeLock(ENGINE, SET_R(life), LIVES + MEM(life));
    do
    :: next < taken ->
       message = batch[next];
       beginAnswer();
       answer();
       keepUnlessDelivered();
       d_step { batch[next] = 0; next++; h = 0 }
    :: else -> break
    od;
    giveLock(ENGINE, SET_R(life));
    wake();
#ifdef CAREFUL
again:
    deliverAgain(0);
    deliverAgain(CLIENTS - 1);
#endif
#if STOP
    if
    :: goto leave
    :: skip
    fi;
#endif
    goto serve;
leave:
    skip
#if STOP
    ;
    stop();
    atomic { endProcess(ENGINE); i = 0; j = 0; h = 0; message = 0 };
#if LIVES > 1
    if
    :: life == 0 -> start(1); goto serve
    :: else -> skip
    fi
#endif
#endif
  } unless {
    atomic {
      killed[ENGINE];
      killed[ENGINE] = 0;
      engineSleeps = 0; ready = 0; creatorAlive[life] = 0;
      endProcess(ENGINE);
      h = 0;
      do
      :: h < HEADS -> units[h] = 0; h++
      :: else -> break
      od;
      h = 0;
      do
      :: h < CLIENTS -> kept[h] = 0; due[h] = 0; h++
      :: else -> break
      od;
      h = 0;
      do
      :: h < BATCH -> batch[h] = 0; h++
      :: else -> break
      od;
      i = 0; j = 0; h = 0; message = 0; ok = 0; delivered = 0; doubtful = 0; next = 0; taken = 0
    };
#if LIVES > 1
    h = life + 1;
    start(h);
    goto serve
#endif
  }
}

/* ---- who kills, who watches, what runs ------------------------------------------------------- */

#if KILL_CLIENT
active proctype ClientKiller() {
  byte left = KILL_CLIENT;
  byte victim;
  do
  :: left > 0 ->
     select(victim: 0 .. VICTIMS - 1);
     atomic {
       if
       :: identity[victim] < CLIENTS -> killed[victim] = 1
       :: else -> skip
       fi;
       victim = 0; left--
     }
  :: break
  od
}
#endif

#if KILL_ENGINE
active proctype EngineKiller() {
  if
  :: creatorAlive[0] -> killed[ENGINE] = 1
  :: skip
  fi
}
#endif

#ifdef CHECK_WAKEUP
/* The engine must not sleep, with nothing to wake it, beside a request that is fully posted. */
active proctype Watch() {
end:
  atomic {
    engineSleeps && wakeUnits[life] == 0 && ring[MEM(life)].count > 0 && lock[SET_Q(life)] == 0 ->
    assert(false)
  }
}
#endif

init {
  byte k;
  atomic {
    do
    :: k < CLIENTS -> identity[k] = k; k++
    :: else -> break
    od;
    run Engine()
  };
  atomic {
    ready;
    begun = 1;
    k = 0;
    do
    :: k < CLIENTS -> run Client(k); k++
    :: else -> break
    od
  }
}
