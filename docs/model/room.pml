/* The wait for room: an answer's worker looks whether it may store, and sleeps until something has changed.
 * What it looks at changes elsewhere: the client asks or cancels under the answer's lock, others give memory
 * back under no lock that the worker knows. Whoever changes something then looks whether anybody waits.
 *
 * One step of the model is one access to what the threads share. Names are those of the code's fields;
 * README.md maps them. What stands below "ghosts" exists in the model only, to tell right from wrong.
 *
 * Each guard of the protocol can be dropped by a macro, and then the named check must fail:
 *
 * MUTATE_NOTIFY_BEFORE_CHANGE     safety   whoever changes something tells of it afterwards
 * MUTATE_NOTIFY_WITHOUT_LOCK      safety   notifyChange holds lock_
 * MUTATE_NOTIFY_WITHOUT_VERSION   safety   notifyChange changes version_
 * MUTATE_NOTIFY_WITHOUT_BROADCAST safety   notifyChange wakes the worker
 * MUTATE_LOOK_BEFORE_ENTERING     safety   awaitRoom looks again after its RoomWait is made
 * MUTATE_VERSION_AFTER_LOOK       safety   RoomWait reads version_ before the look
 * MUTATE_SLEEP_WITHOUT_LOOK       safety   wait compares version_ before it sleeps
 * MUTATE_TRUST_WAKE_UP            safety   awaitRoom looks again after a wait
 * MUTATE_ASK_TELLS_NOBODY         safety   requestNextChunk calls notifyChange
 * MUTATE_CANCEL_TELLS_NOBODY      safety   setCancelled calls notifyChange
 * MUTATE_GIVE_TELLS_NOBODY        safety   give calls notifyChange
 */

#define CHANGES 3 /* that one holder makes at the most */

/* MemoryBudget */
byte held_ = 1; /* by others; the budget's size is 1 */
byte waiters_;
byte version_;
bool lock_;

/* Answer */
bool answerLock_;
bool waitingForGetData_ = true;
bool cancelled_;

/* -- ghosts ----------------------------------------------------------------------------------- */

bool patient; /* deadlines pass only when nothing else can happen; no spurious wake-up */
bool waiting; /* the worker is inside wait */
bool asleep;  /* ... and has released lock_ in waitUntil */
bool woken;   /* ... and was woken since */
bool deadlinePassed;
bool ended;   /* the worker has ended */

#define mayStore (cancelled_ || held_ == 0 || !waitingForGetData_)

inline acquire(mutex) { atomic { !mutex -> mutex = true } }
inline release(mutex) { mutex = false }

/* -- whoever changes something ----------------------------------------------------------------- */

inline notifyChange() {
  if
  :: waiters_ > 0 ->
#ifndef MUTATE_NOTIFY_WITHOUT_LOCK
     acquire(lock_);
#endif
#ifndef MUTATE_NOTIFY_WITHOUT_VERSION
     version_++;
#endif
#ifndef MUTATE_NOTIFY_WITHOUT_BROADCAST
     if /* a broadcast reaches who is asleep, and nobody else */
     :: asleep -> woken = true
     :: else
     fi;
#endif
#ifndef MUTATE_NOTIFY_WITHOUT_LOCK
     release(lock_)
#endif
  :: else
  fi
}

inline change(variable, value) {
#ifdef MUTATE_NOTIFY_BEFORE_CHANGE
  notifyChange();
  variable = value
#else
  variable = value;
  notifyChange()
#endif
}

proctype MainLoop() {
end:
  do
  :: waitingForGetData_ ->
     acquire(answerLock_);
#ifdef MUTATE_ASK_TELLS_NOBODY
     waitingForGetData_ = false;
#else
     change(waitingForGetData_, false);
#endif
     release(answerLock_)
  :: !cancelled_ ->
     acquire(answerLock_);
#ifdef MUTATE_CANCEL_TELLS_NOBODY
     cancelled_ = true;
#else
     change(cancelled_, true);
#endif
     release(answerLock_)
  :: break /* a client may fall silent at any time */
  od
}

/* Others take the room that there is, and give it back or keep it. */
proctype Others() {
  byte changes;

end:
  do
  :: held_ == 1 && changes < CHANGES ->
     changes++;
#ifdef MUTATE_GIVE_TELLS_NOBODY
     held_ = 0
#else
     change(held_, 0)
#endif
  :: held_ == 0 && changes < CHANGES -> changes++; held_ = 1
  :: break
  od
}

/* -- worker's thread --------------------------------------------------------------------------- */

inline canStore() {
  acquire(answerLock_);
  stores = cancelled_ || held_ == 0;
  if
  :: !stores && !waitingForGetData_ && chunks > 0 -> /* a chunk goes on, and the rest needs room */
     atomic { chunks--; waitingForGetData_ = true }
  :: !stores && !waitingForGetData_ && chunks == 0 -> stores = true /* the last one takes all */
  :: else
  fi;
  release(answerLock_)
}

/* As the C library has it: returns by a wake-up, for no reason, or at the deadline. */
inline waitUntil() {
  atomic { asleep = true; woken = false; lock_ = false };
  if
  :: woken -> inTime = true
  :: !patient && !deadlinePassed -> inTime = true
  :: deadlinePassed ->
     /* If nobody else could take a step, there must have been nothing to wake the worker for. */
     assert(!patient || !mayStore);
     inTime = false
  fi;
  asleep = false;
  acquire(lock_)
}

inline wait() {
  acquire(lock_);
#ifdef MUTATE_VERSION_AFTER_LOOK
  seen_ = version_;
#endif
  atomic { inTime = true; waiting = true };
#ifdef MUTATE_SLEEP_WITHOUT_LOOK
  waitUntil();
#endif
  do
  :: inTime && version_ == seen_ -> waitUntil()
  :: else -> break
  od;
  atomic { waiting = false; deadlinePassed = false; woken = false };
  seen_ = version_;
  release(lock_)
}

proctype Worker() { /* awaitRoom */
  byte seen_, chunks;
  bool stores, inTime = true;

  if
  :: chunks = 1 /* what is to be stored is larger than a chunk */
  :: skip
  fi;

  canStore();
  if
  :: stores
  :: else ->
     waiters_++; /* RoomWait */
     acquire(lock_);
     seen_ = version_;
     release(lock_);
#ifndef MUTATE_LOOK_BEFORE_ENTERING
     canStore();
#endif
     do
     :: stores || !inTime -> break
     :: else ->
        wait();
#ifdef MUTATE_TRUST_WAKE_UP
        assert(!inTime || mayStore);
        break
#else
        canStore()
#endif
     od;
     waiters_--
  fi;
  ended = true
}

/* -- time -------------------------------------------------------------------------------------- */

proctype Clock() {
end:
  do
  :: waiting && !patient && !deadlinePassed -> deadlinePassed = true
  :: waiting && patient && timeout -> deadlinePassed = true
  od
}

init {
  if
  :: patient = true
  :: patient = false
  fi;
  atomic { run MainLoop(); run Others(); run Worker(); run Clock() }
}

/* -- properties -------------------------------------------------------------------------------- */

/* The worker comes to its end, at the deadline at the latest. */
ltl ends { <> ended }
