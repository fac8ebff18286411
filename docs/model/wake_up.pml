/* The wake-up between sendData and the read callback: the main loop stores data for a request and wakes
 * the worker, which takes the data or waits for it until a deadline. At the end the main loop may cancel and
 * join the worker.
 *
 * One step of the model is one access to what both threads share. Names are those of the code's fields;
 * README.md maps them. What stands below "ghosts" exists in the model only, to tell right from wrong.
 *
 * Each guard of the protocol can be dropped by a macro, and then the named check must fail:
 *
 * MUTATE_NOTIFY_WITHOUT_MUTEX     safety   notifyData holds dataMutex_
 * MUTATE_NOTIFY_WITHOUT_FLAG      safety   notifyData sets dataArrived_
 * MUTATE_NOTIFY_WITHOUT_BROADCAST safety   notifyData wakes the worker
 * MUTATE_NOTIFY_BEFORE_APPEND     safety   sendData stores the data before it wakes the worker
 * MUTATE_NOTIFY_UNDER_LOCK        safety   sendData wakes the worker with the part's lock_ released
 * MUTATE_RELEASE_BEFORE_WAIT      safety   the reader holds dataMutex_ from taking to waiting
 * MUTATE_WAIT_WITHOUT_RESET       ends     waitForData clears dataArrived_ before it waits
 * MUTATE_TRUST_WAKE_UP            ends     waitForData asks dataArrived_ after a wake-up
 * MUTATE_DEADLINE_WINS            safety   waitForData asks dataArrived_ at the deadline
 * MUTATE_DEADLINE_KEEPS_OPEN      ends     awaitData ends the part at the deadline
 * MUTATE_TEST_THEN_APPEND         safety   appendIfAccepting tests and appends in one step
 * MUTATE_APPEND_WITHOUT_LOCK      safety   appendIfAccepting holds lock_
 * MUTATE_TAKE_WITHOUT_LOCK        safety   take holds lock_
 * MUTATE_TAKE_KEEPS_ACCEPTING     safety   take ends the acceptance with the last byte, in the same step
 * MUTATE_ACCEPT_BEFORE_HEADER     safety   the part header is written before data is accepted
 * MUTATE_ASK_BEFORE_ACCEPTING     safety   data is accepted before the client is asked for it
 * MUTATE_READ_AFTER_CANCEL        safety   readBody asks cancelRequested_ first
 * MUTATE_WAIT_AFTER_CANCEL        safety   takeSlice asks cancelRequested_ before it waits again
 * MUTATE_SHUTDOWN_WITHOUT_CANCEL  safety   shutdown cancels the transfer before it joins the worker
 * MUTATE_JOIN_UNDER_MUTEX         safety   shutdown joins the worker with dataMutex_ released
 */

#define REQUESTS 2 /* in the exchange, each of another client */

/* OutgoingPart */
bool lock_[REQUESTS];
byte bytes_[REQUESTS];         /* messages stored and not taken yet */
bool lastDataGiven_[REQUESTS];
bool accepting_[REQUESTS];
bool header_[REQUESTS];        /* has been written */

/* DataSignal */
bool dataMutex_;
bool dataArrived_;
bool cancelRequested_;

/* -- ghosts ----------------------------------------------------------------------------------- */

bool patient;              /* deadlines pass only when nothing else can happen; no spurious wake-up */
bool waiting;              /* the worker is inside awaitData */
bool asleep;               /* ... and has released dataMutex_ in waitUntil */
bool woken;                /* ... and was woken since */
bool deadlinePassed;
bool requestData[REQUESTS];/* the client was asked, by the signal */
byte accepted[REQUESTS];   /* messages that sendData answered with 0 */
byte taken[REQUESTS];      /* messages that went into the body */
bool joining;              /* the main loop waits for the worker's end */
bool ended;                /* the worker has ended */

inline acquire(mutex) { atomic { !mutex -> mutex = true } }
inline release(mutex) { mutex = false }

/* -- main loop's thread ------------------------------------------------------------------------ */

inline notifyData() {
#ifndef MUTATE_NOTIFY_WITHOUT_MUTEX
  acquire(dataMutex_);
#endif
#ifndef MUTATE_NOTIFY_WITHOUT_FLAG
  dataArrived_ = true;
#endif
#ifndef MUTATE_NOTIFY_WITHOUT_MUTEX
  release(dataMutex_);
#endif
#ifndef MUTATE_NOTIFY_WITHOUT_BROADCAST
  if /* a broadcast reaches who is asleep, and nobody else */
  :: asleep -> woken = true
  :: else
  fi
#endif
}

/* A read and a write of the buffer, so that somebody else could come between them. */
inline appendIfAccepting() {
  done = false;
#ifdef MUTATE_TEST_THEN_APPEND
  test = accepting_[r];
#endif
#ifndef MUTATE_APPEND_WITHOUT_LOCK
  acquire(lock_[r]);
#endif
#ifndef MUTATE_TEST_THEN_APPEND
  test = accepting_[r];
#endif
  if
  :: test ->
     assert(header_[r]); /* the header goes out in front of the first data */
     stored = bytes_[r];
     bytes_[r] = stored + 1;
     lastDataGiven_[r] = last;
     accepted[r]++;
     done = true
  :: else ->
     assert(!asked || lastDataGiven_[r]) /* who was asked is refused only when the part is closed */
  fi;
#ifdef MUTATE_NOTIFY_UNDER_LOCK
  notifyData();
#endif
#ifndef MUTATE_APPEND_WITHOUT_LOCK
  release(lock_[r]);
#endif
  stored = 0; test = false
}

inline sendData() {
  asked = requestData[r];
#ifdef MUTATE_NOTIFY_BEFORE_APPEND
  notifyData();
#endif
  appendIfAccepting();
#if !defined(MUTATE_NOTIFY_BEFORE_APPEND) && !defined(MUTATE_NOTIFY_UNDER_LOCK)
  if
  :: done -> notifyData()
  :: else
  fi;
#endif
  asked = false; done = false
}

inline shutdown() {
#ifndef MUTATE_SHUTDOWN_WITHOUT_CANCEL
  acquire(dataMutex_);
  cancelRequested_ = true; /* wakes nobody */
#ifndef MUTATE_JOIN_UNDER_MUTEX
  release(dataMutex_);
#endif
#endif
  joining = true;
  ended /* WorkerThread::join */
}

inline sendOne() {
  if
  :: last = true
  :: last = false
  fi;
  sendData();
  atomic { r = 0; last = false }
}

proctype MainLoop() {
  byte r, stored;
  bool last, asked, test, done;
  byte sent[REQUESTS];

end:
  do
  :: atomic { sent[0] < 2 -> r = 0; sent[0]++ }; sendOne()
  :: atomic { sent[1] < 1 -> r = 1; sent[1]++ }; sendOne()
  :: shutdown(); break
  :: break /* clients may fall silent at any time */
  od
}

/* -- worker's thread --------------------------------------------------------------------------- */

/* As the C library has it: returns by a wake-up, for no reason, or at the deadline. */
inline waitUntil() {
  atomic { asleep = true; woken = false; dataMutex_ = false };
  if
  :: woken -> inTime = true
  :: !patient && !deadlinePassed -> inTime = true
  :: deadlinePassed ->
     /* If nobody else could take a step, there must have been nothing to wake the worker for. */
     assert(!patient || bytes_[currentPart_] == 0);
     inTime = false
  fi;
  asleep = false;
  acquire(dataMutex_)
}

inline waitForData() {
#ifndef MUTATE_WAIT_WITHOUT_RESET
  dataArrived_ = false;
#endif
  do
  :: waitUntil();
     if
#ifdef MUTATE_TRUST_WAKE_UP
     :: inTime -> arrived = true; break
#else
     :: inTime && dataArrived_ -> arrived = true; break
     :: inTime && !dataArrived_
#endif
#ifdef MUTATE_DEADLINE_WINS
     :: !inTime -> arrived = false; break
#else
     :: !inTime -> arrived = dataArrived_; break
#endif
     fi
  od
}

inline awaitData(r) {
#ifdef MUTATE_RELEASE_BEFORE_WAIT
  release(dataMutex_);
  acquire(dataMutex_);
#endif
  assert(!cancelRequested_ && !joining); /* no wait begins after a cancellation, nor keeps a join waiting */
  atomic { waiting = true; deadlinePassed = false };
  waitForData();
  atomic { waiting = false; deadlinePassed = false; woken = false; inTime = false };
  if
  :: arrived
  :: else ->
     assert(!dataArrived_); /* a part is not closed on a client that was in time */
#ifndef MUTATE_DEADLINE_KEEPS_OPEN
     acquire(lock_[r]); /* append({}, true) */
     lastDataGiven_[r] = true;
     release(lock_[r])
#endif
  fi;
  arrived = false
}

inline take(r) {
#ifndef MUTATE_TAKE_WITHOUT_LOCK
  acquire(lock_[r]);
#endif
  held = bytes_[r];
  if /* libcurl's buffer has room for all of it, or for less */
  :: size = held
  :: held > 1 -> size = 1
  fi;
  atomic { bytes_[r] = held - size; taken[r] = taken[r] + size };
  finished = bytes_[r] == 0 && lastDataGiven_[r];
#ifndef MUTATE_TAKE_KEEPS_ACCEPTING
  if
  :: finished -> accepting_[r] = false
  :: else
  fi;
#endif
#ifndef MUTATE_TAKE_WITHOUT_LOCK
  release(lock_[r]);
#endif
  held = 0
}

/* advanceToNextPart in two halves: there is no part to close behind the prefix. */
inline closePart() {
  accepting_[currentPart_] = false;
  assert(accepted[currentPart_] == taken[currentPart_]) /* nothing that was accepted is lost */
}

inline openPart() {
  currentPart_++;
#ifndef MUTATE_ACCEPT_BEFORE_HEADER
  header_[currentPart_] = true;
#endif
#ifdef MUTATE_ASK_BEFORE_ACCEPTING
  requestData[currentPart_] = true;
#endif
  accepting_[currentPart_] = true;
#ifdef MUTATE_ACCEPT_BEFORE_HEADER
  header_[currentPart_] = true;
#endif
#ifndef MUTATE_ASK_BEFORE_ACCEPTING
  requestData[currentPart_] = true
#endif
}

inline takeSlice() {
  do
  :: size > 0 -> break
  :: size == 0 ->
     if
#ifndef MUTATE_WAIT_AFTER_CANCEL
     :: cancelRequested_ -> failed = true; break
#endif
     :: else ->
        if
        :: partsClosed_ -> atomic { size = 1; bodyComplete_ = true }; break /* closing delimiter */
        :: else ->
           take(currentPart_);
           if
           :: finished ->
              closePart();
              if
              :: currentPart_ + 1 >= REQUESTS -> partsClosed_ = true
              :: else -> openPart()
              fi
           :: !finished && size == 0 -> awaitData(currentPart_)
           :: !finished && size > 0
           fi;
           finished = false
        fi
     fi
  od
}

inline readBody() {
  acquire(dataMutex_);
  late = cancelRequested_;
  if
#ifndef MUTATE_READ_AFTER_CANCEL
  :: cancelRequested_ -> failed = true
#endif
  :: else ->
     if
     :: bodyComplete_ -> complete = true
     :: !bodyComplete_ && currentPart_ < 0 -> /* the prefix, in one slice or two */
        size = 1;
        if
        :: openPart()
        :: !second -> second = true
        fi
     :: !bodyComplete_ && currentPart_ >= 0 -> takeSlice()
     fi
  fi;
  assert(!late || size == 0); /* nothing is sent by a callback that begins after a cancellation */
  release(dataMutex_);
  atomic { size = 0; late = false }
}

proctype Worker() {
  /* RequestBody */
  short currentPart_ = -1;
  bool partsClosed_, bodyComplete_;
  /* variables of its operations */
  byte size, held;
  bool failed, complete, finished, arrived, inTime, second, late;

  do
  :: failed || complete -> break
  :: else -> readBody()
  od;
  assert(failed || accepted[0] == taken[0] && accepted[1] == taken[1]);
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
  atomic { run MainLoop(); run Worker(); run Clock() }
}

/* -- properties -------------------------------------------------------------------------------- */

/* The worker comes to its end, whatever clients send or leave out: their messages are so many and no more. */
ltl ends { <> ended }
