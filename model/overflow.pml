/* Writers that wait for room in the request queue.  libarm's own never do; the contract
   allows them.
   A writer that has been woken tests the count without the lock, and counts itself as waiting once
   more without the lock when the queue is full again; in the end it uncounts itself once.  Loads
   and stores of the unlocked part are steps of their own. */

#ifndef WRITERS
#define WRITERS 2
#endif
#ifndef PUTS
#define PUTS 2
#endif
#ifndef RING
#define RING 1
#endif
/* TEST_AGAIN   a writer tests the count once more with the lock held, and refuses to put when the
                queue is full (libarm's code -283)
   RAISE_ALWAYS the engine raises the overflow semaphore for each request it takes, whatever the
                waiter count says; the semaphore's maximum is the number of slots
   CHECK_RING   no more records than slots */

bit lock;
byte count;
byte waiters;
byte overflow;      /* the overflow semaphore */
byte taken;

inline takeLock() { atomic { lock == 0 -> lock = 1 } }

proctype Writer() {
  byte puts, seen;
  bit waited, unlocked;
  do
  :: puts < PUTS ->
     takeLock();
     do
     :: count == RING ->
        seen = waiters;
        waiters = seen + 1;
        waited = 1;
        if
        :: !unlocked -> unlocked = 1; lock = 0
        :: else -> skip
        fi;
        atomic { overflow > 0 -> overflow-- }
     :: else -> break
     od;
     if
     :: unlocked -> takeLock()
     :: else -> skip
     fi;
     if
     :: waited -> seen = waiters; waiters = seen - 1
     :: else -> skip
     fi;
     if
#ifdef TEST_AGAIN
     :: count >= RING -> taken++   /* refused: the engine need not take it */
#endif
     :: else ->
        count++;
#ifdef CHECK_RING
        assert(count <= RING);
#endif
        if
        :: count != 1 && count == RING -> overflow = 0
        :: else -> skip
        fi
     fi;
     lock = 0;
     d_step { puts++; seen = 0; waited = 0; unlocked = 0 }
  :: else -> break
  od
}

active proctype Engine() {
  do
  :: taken == WRITERS * PUTS -> break
  :: atomic { lock == 0 && count > 0 -> lock = 1 };
     count--; taken++;
#ifdef RAISE_ALWAYS
     if
     :: overflow < RING -> overflow++
     :: else -> skip   /* the semaphore's maximum */
     fi;
#else
     if
     :: waiters > 0 -> overflow++
     :: else -> skip
     fi;
#endif
     lock = 0
  od
}

init {
  byte i;
  atomic {
    do
    :: i < WRITERS -> run Writer(); i++
    :: else -> break
    od
  }
}
