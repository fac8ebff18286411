/* The way of an answer: the worker stores what the server sends and delivers it, the main loop asks for
 * chunk after chunk, and the outcome of the exchange comes behind them.
 *
 * One step of the model is one access to what both threads share. Names are those of the code's fields;
 * README.md maps them. What stands below "ghosts" exists in the model only, to tell right from wrong.
 *
 * Each guard of the protocol can be dropped by a macro, and then the named check must fail:
 *
 * MUTATE_STORE_WITHOUT_LOCK         safety    add holds lock_ while it stores
 * MUTATE_FETCH_WITHOUT_LOCK         safety    requestNextChunk holds lock_
 * MUTATE_LOOK_BEFORE_ASKING         answered  requestNextChunk asks and looks with lock_ held all the time
 * MUTATE_STATE_AFTER_BYTES          safety    store changes bytes and state_ with lock_ held all the time
 * MUTATE_POST_KEEPS_ASKING          safety    post sets waitingForGetData_
 * MUTATE_DELIVER_CANCELLED          safety    deliverStored asks cancelled_
 * MUTATE_PAUSE_CANCELLED            safety    add asks cancelled_ before it pauses
 * MUTATE_RELEASE_BEFORE_PAUSE       safety    pause looks and begins to wait with lock_ held all the time
 * MUTATE_FETCH_WAKES_NOBODY         safety    fetched wakes a worker that pauses
 * MUTATE_TRUST_WAKE_UP              safety    pause looks again after a wake-up
 * MUTATE_PAUSE_WITHOUT_DEADLINE     ends      pause waits to a deadline
 * MUTATE_OUTCOME_OVERTAKES          safety    chunks and outcome go through one queue
 * MUTATE_OUTCOME_BEFORE_CLEAR       safety    runExchange empties queue_ before it posts the outcome
 * MUTATE_FAILURE_KEEPS_CALL         answered  onExchangeFailed gives up the held calls
 * MUTATE_HOLD_UNKNOWN               safety    onGetData holds no call for an unknown request
 * MUTATE_SWEEP_WHILE_RUNNING        safety    startExchange asks isTransferRunning
 * MUTATE_DROP_AT_ONCE               safety    postFinished posts, so that the last chunk is first
 * MUTATE_FINISH_KEEPS_CANCELLED     safety    onExchangeFinished removes what was cancelled
 * MUTATE_DESTROY_WITHOUT_JOIN       safety    the destructor of Exchange joins the worker
 * MUTATE_OUTCOME_AFTER_END          safety    a post asks for the lifetime of its Exchange before it runs
 * MUTATE_TIMER_AFTER_END            safety    endTimer_ ends with its Exchange
 */

#define PARTS 2  /* of the answer */
#define PIECES 2 /* of one part at most; each is as large as a chunk, the last one may be empty */
#define HIGH 2   /* chunks stored at which the worker pauses */
#define LOW 1    /* ... and at which it goes on */

mtype = { Sent, Receiving, PartReceived, AllPartsReceived, Delivered };

/* Answer */
bool lock_;
bool waitingForGetData_ = true;
bool cancelled_;
byte responseBuffers_[PARTS]; /* chunks stored of each part */
bool complete[PARTS];         /* the code of the part says that nothing follows */
byte front, back = 1;         /* the parts that responseBuffers_ holds: from front to before back */
mtype state_ = Sent;

/* BackPressure */
byte waiting_;
bool pausing_;

/* Exchange; queue_ tells whether the worker still holds the request */
bool queue_ = true;
bool isTransferRunning = true;
bool endTimer_;

/* OrvexMain and DbusService */
bool exchange_ = true;
bool requests_ = true; /* holds the request */
bool pending_;         /* holds a call of getData */

/* What waits for the main loop; its second field is a ghost: made behind the outcome. */
mtype:post = { PartContinues, PartComplete, ResponseComplete, Succeeded, Failed, Finished };
chan mainContext = [5] of { mtype:post, bool };

/* -- ghosts ----------------------------------------------------------------------------------- */

bool patient;        /* deadlines pass only when nothing else can happen; no spurious wake-up */
bool asleep;         /* the worker has released lock_ in waitUntil */
bool woken;          /* ... and was woken since */
bool deadlinePassed;
byte calls;          /* of getData, less the chunks that were posted for them */
bool outcomePosted;
bool failureTold;    /* the outcome has reached the main loop, and is a failure */
bool overtaken;      /* the client called while a call of its own was held, which is its own fault */
bool mayQuit;        /* a client will call quit or a signal will come; else run for ever */
bool closed;         /* that has happened */
bool ended;          /* the worker has ended */

inline acquire() { atomic { !lock_ -> lock_ = true } }
inline release() { lock_ = false }

inline putPost(what) { atomic { assert(nfull(mainContext)); mainContext ! what, outcomePosted } }

/* -- both threads, with lock_ held ------------------------------------------------------------- */

inline postChunk() {
#ifndef MUTATE_POST_KEEPS_ASKING
  waitingForGetData_ = true;
#endif
  atomic {
    assert(calls > 0); /* at most one chunk for each getData */
    calls--;
    putPost(code)
  }
}

inline fetched() {
  count = waiting_;
  atomic {
    waiting_ = count - size;
#ifndef MUTATE_FETCH_WAKES_NOBODY
    /* A broadcast reaches who is asleep, and nobody else. */
    woken = woken || pausing_ && waiting_ <= LOW && asleep;
#endif
    count = 0
  }
}

inline nextCode() {
  if
  :: responseBuffers_[front] > 1 || !complete[front] -> code = PartContinues
  :: else ->
     if
     :: state_ == AllPartsReceived && front + 1 == back -> code = ResponseComplete
     :: else -> code = PartComplete
     fi
  fi
}

inline takeChunk() {
  atomic { nextCode(); count = responseBuffers_[front]; size = (count > 0 -> 1 : 0) };
  responseBuffers_[front] = count - size;
  assert(size > 0 || code != PartContinues); /* a chunk that brings nothing says something */
  fetched();
  atomic {
    front = (code == PartContinues -> front : front + 1);
    state_ = (state_ == AllPartsReceived && front == back -> Delivered : state_);
    assert((code == ResponseComplete) == (state_ == Delivered))
  }
}

inline deliverStored() {
  if
#ifndef MUTATE_DELIVER_CANCELLED
  :: cancelled_ -> state_ = (state_ == AllPartsReceived -> Delivered : state_)
#endif
  :: else ->
     if
     :: waitingForGetData_ || front == back
     :: else ->
        assert(!late); /* no chunk in a step that begins after the cancellation */
        takeChunk();
        postChunk()
     fi
  fi;
  atomic { code = 0; size = 0 }
}

/* -- main loop's thread ------------------------------------------------------------------------ */

inline requestNextChunk() {
  atomic { late = cancelled_; calls++ };
#ifndef MUTATE_FETCH_WITHOUT_LOCK
  acquire();
#endif
#ifdef MUTATE_LOOK_BEFORE_ASKING
  bool nothing = front == back || (responseBuffers_[front] == 0 && !complete[front]);
  release();
  acquire();
#endif
  waitingForGetData_ = false;
  if
#ifdef MUTATE_LOOK_BEFORE_ASKING
  :: nothing
#else
  :: front == back || (responseBuffers_[front] == 0 && !complete[front])
#endif
  :: else -> deliverStored()
  fi;
#ifndef MUTATE_FETCH_WITHOUT_LOCK
  release()
#endif
}

inline onGetData() {
  if
  :: requests_ -> requestNextChunk(); atomic { pending_ = true; late = false }
#ifdef MUTATE_HOLD_UNKNOWN
  :: else -> atomic { pending_ = true; quiet = true }
#else
  :: else -> quiet = true /* an error tells the client */
#endif
  fi
}

inline deliverChunk(behind) {
  atomic {
    assert(!pending_ || !failureTold); /* nothing comes behind the failure */
    assert(pending_ || overtaken || closed || failureTold && behind); /* no chunk misses its call */
    quiet = quiet || pending_ && code == ResponseComplete;
    pending_ = false
  }
}

inline postFinished() {
#ifdef MUTATE_DROP_AT_ONCE
  pending_ = false
#else
  putPost(Finished)
#endif
}

inline removeInExchange(condition) {
  if
  :: requests_ && condition ->
     assert(!queue_); /* the main loop is the last that holds a request */
     requests_ = false;
     postFinished()
  :: else
  fi
}

inline destroyExchange() {
#ifndef MUTATE_DESTROY_WITHOUT_JOIN
  ended; /* WorkerThread::join */
#endif
  assert(ended); /* there is never more than one worker */
  exchange_ = false;
#ifndef MUTATE_TIMER_AFTER_END
  endTimer_ = false
#endif
}

/* Another client's request; the next exchange waits for nothing when this one has failed. */
inline startExchange() {
  removeInExchange(state_ == Delivered);
  if
  :: exchange_ && failureTold -> destroyExchange()
  :: else
  fi
}

inline onOutcome() {
  atomic {
    assert(exchange_);
    isTransferRunning = false;
    endTimer_ = true;
    if
    :: code == Failed -> /* onExchangeFailed */
       assert(!queue_);
       failureTold = true;
       requests_ = false;
#ifndef MUTATE_FAILURE_KEEPS_CALL
       pending_ = false
#endif
    :: else
    fi
  }
}

inline onExchangeFinished() {
  atomic { assert(exchange_); endTimer_ = false };
  destroyExchange();
#ifdef MUTATE_FINISH_KEEPS_CANCELLED
  removeInExchange(state_ == Delivered);
#else
  removeInExchange((state_ == Delivered || cancelled_));
#endif
  assert(!requests_ || !cancelled_) /* what was cancelled in an exchange goes with it */
}

/* The call "quit", or the end after a signal. The worker may fail at any time, here for its cancellation. */
inline quit() {
  if
  :: exchange_ -> destroyExchange()
  :: else
  fi;
  assert(!requests_ || !queue_);
  atomic { closed = true; requests_ = false; pending_ = false; isTransferRunning = false }
}

proctype MainLoop() {
  byte count, size;
  bool late, behind, quiet;
  mtype:post code;

end:
  do
  :: atomic { !quiet && (!cancelled_ || exchange_) && (!pending_ || !overtaken) ->
              overtaken = overtaken || pending_ }; onGetData()
  :: !quiet -> quiet = true /* clients may fall silent at any time */
  :: !cancelled_ && requests_ -> cancelled_ = true
#ifdef MUTATE_SWEEP_WHILE_RUNNING
  :: requests_ && state_ == Delivered -> startExchange()
#else
  :: !isTransferRunning && (requests_ && state_ == Delivered || exchange_ && failureTold) -> startExchange()
#endif
  :: endTimer_ -> onExchangeFinished()
  :: mayQuit && !closed -> quit()
#ifdef MUTATE_OUTCOME_OVERTAKES
  :: atomic {
       exchange_ && mainContext ?? [Failed, _] ->
       mainContext ?? Failed, behind; code = Failed; onOutcome(); code = 0; behind = false
     }
#endif
  :: atomic {
       mainContext ? code, behind ->
       if
       :: code == Succeeded || code == Failed ->
          if
#ifndef MUTATE_OUTCOME_AFTER_END
          :: !exchange_ /* the Lifetime of the Exchange has ended */
#endif
          :: else -> onOutcome()
          fi
       :: code == Finished -> pending_ = false /* dropPending */
       :: else -> deliverChunk(behind)
       fi;
       code = 0; behind = false
     }
  od
}

/* -- worker's thread --------------------------------------------------------------------------- */

/* A cancelled answer stores nothing, but its parts are counted. */
inline store() {
  if
  :: cancelled_
  :: else ->
     count = responseBuffers_[back - 1];
     atomic { responseBuffers_[back - 1] = count + size; complete[back - 1] = partComplete };
     count = waiting_;
     atomic { waiting_ = count + size; count = 0 }
  fi;
#ifdef MUTATE_STATE_AFTER_BYTES
  release();
  acquire();
#endif
  if
  :: !partComplete -> state_ = Receiving
  :: else ->
     atomic {
       completed++;
       if
       :: completed == PARTS -> state_ = AllPartsReceived
       :: else -> state_ = PartReceived; back++
       fi
     }
  fi;
  deliverStored()
}

/* As the C library has it: returns by a wake-up, for no reason, or at the deadline. */
inline waitUntil() {
  atomic { asleep = true; woken = false; lock_ = false };
  if
  :: woken -> inTime = true
  :: !patient && !deadlinePassed -> inTime = true
#ifndef MUTATE_PAUSE_WITHOUT_DEADLINE
  :: deadlinePassed ->
     /* If nobody else could take a step, there must have been nothing to wake the worker for. */
     assert(!patient || waiting_ > LOW);
     inTime = false
#endif
  fi;
  asleep = false;
  acquire()
}

/* The code pauses less often: only when enough has been stored since the last pause. */
inline pause() {
  if
  :: waiting_ < HIGH
  :: else ->
     assert(!late); /* no pause in a step that begins after the cancellation */
     atomic { pausing_ = true; deadlinePassed = false; inTime = true };
     do
     :: !inTime || waiting_ <= LOW -> break
     :: else ->
#ifdef MUTATE_RELEASE_BEFORE_PAUSE
        release();
        acquire();
#endif
        waitUntil();
#ifdef MUTATE_TRUST_WAKE_UP
        break
#endif
     od;
     assert(!inTime || waiting_ <= LOW);
     atomic { pausing_ = false; deadlinePassed = false; woken = false; inTime = false }
  fi
}

inline add() {
  late = cancelled_;
#ifndef MUTATE_STORE_WITHOUT_LOCK
  acquire();
#endif
  store();
#ifdef MUTATE_STORE_WITHOUT_LOCK
  acquire();
#endif
  size = 0;
  assert(waiting_ == responseBuffers_[0] + responseBuffers_[1]);
  if
#ifndef MUTATE_PAUSE_CANCELLED
  :: cancelled_
#endif
  :: else -> pause()
  fi;
  release();
  atomic { late = false; partComplete = false }
}

/* The server sends as it likes, and the exchange fails at any time, also for a cancellation. */
inline transferQueue() {
  do
  :: completed == PARTS -> outcome = Succeeded; break
  :: completed < PARTS ->
     if
     :: pieces + 1 < PIECES -> atomic { pieces++; size = 1 }
     :: atomic { pieces = 0; partComplete = true; size = 1 }
     :: atomic { pieces = 0; partComplete = true; size = 0 }
     fi;
     add()
  :: outcome = Failed; break
  od
}

proctype Worker() {
  byte completed, pieces, count, size;
  bool late, partComplete, inTime;
  mtype:post code, outcome;

  transferQueue();
  /* The client has been told of the answer's end, or will be. */
  assert(completed < PARTS || lock_ || cancelled_ || state_ == Delivered || front < back);
#ifndef MUTATE_OUTCOME_BEFORE_CLEAR
  queue_ = false;
#endif
  atomic { putPost(outcome); outcomePosted = true };
#ifdef MUTATE_OUTCOME_BEFORE_CLEAR
  queue_ = false;
#endif
  ended = true
}

/* -- time -------------------------------------------------------------------------------------- */

proctype Clock() {
end:
  do
  :: pausing_ && !patient && !deadlinePassed -> deadlinePassed = true
  :: pausing_ && patient && timeout -> deadlinePassed = true
  od
}

init {
  if
  :: patient = true
  :: mayQuit = true
  :: skip
  fi;
  atomic { run MainLoop(); run Worker(); run Clock() }
}

/* -- properties -------------------------------------------------------------------------------- */

/* The worker comes to its end, whether the client fetches or not: every pause ends. */
ltl ends { <> ended }

/* A held call gets its chunk, or is given up. */
ltl answered { [] (pending_ -> <> (!pending_ || overtaken)) }
