/* The life of an exchange: the main loop starts a worker, the worker ends or fails, its end comes back
 * to the main loop late, clients cancel, the daemon shuts down.
 *
 * One step of the model is one access to what both threads share. Names are those of the code's fields;
 * README.md maps them. What stands below "ghosts" exists in the model only, to tell right from wrong.
 *
 * Each guard of the protocol can be dropped by a macro, and then the named check must fail:
 *
 * MUTATE_CREATE_STARTS_ALWAYS    safety             createRequest asks isTransferRunning
 * MUTATE_START_WHILE_RUNNING     safety             startExchange asks isTransferRunning
 * MUTATE_START_BEFORE_FINISH     safety             queueRequests asks workerStarted_
 * MUTATE_START_AFTER_SHUTDOWN    safety             startExchange asks closing_
 * MUTATE_START_WITHOUT_JOIN      safety             WorkerThread::start joins the thread before
 * MUTATE_RESET_BY_WORKER         safety             the main loop resets the cancellation, not the worker
 * MUTATE_ABANDON_KEEPS_QUEUE     safety             abandonExchange empties the queue
 * MUTATE_ABANDON_KEEPS_STATE     safety             abandonExchange makes its requests wait again
 * MUTATE_ABANDON_KEEPS_RUNNING   safety             abandonExchange clears transferRunning_
 * MUTATE_ABANDON_KEEPS_STARTED   safety             startWorker clears workerStarted_ without a thread
 * MUTATE_LATE_FINISH             safety             onExchangeDone compares number and startedExchange_
 * MUTATE_FINISH_WITHOUT_JOIN     safety             onExchangeFinished joins the thread
 * MUTATE_FINISH_KEEPS_STARTED    waiting            onExchangeFinished clears workerStarted_
 * MUTATE_FINISH_KEEPS_CANCELLED  cancelled          onExchangeFinished removes what was cancelled
 * MUTATE_FINISH_WITHOUT_NEXT     waiting            onExchangeFinished starts the next exchange
 * MUTATE_FAILED_REMOVES_ALL      safety             onExchangeFailed keeps what waits
 * MUTATE_FAILED_WITHOUT_LOCK     safety             onExchangeFailed holds requestsLock_
 * MUTATE_CREATE_WITHOUT_LOCK     safety             createRequest holds requestsLock_
 * MUTATE_CANCEL_WITHOUT_LOCK     safety             cancelRequest holds requestsLock_
 * MUTATE_GETDATA_WITHOUT_LOCK    safety             getData holds requestsLock_
 * MUTATE_AVAILABLE_WITHOUT_LOCK  safety             hasSendableRequest holds requestsLock_
 * MUTATE_CANCEL_REMOVES_QUEUED   safety             cancelLive keeps what is part of an exchange
 * MUTATE_CLEAR_AFTER_FLAG        safety             endExchange empties the queue before the flag
 * MUTATE_POST_AFTER_FLAG         safety             endExchange posts its number before the flag
 * MUTATE_FAILURE_WITHOUT_POST    finish             endExchange posts also after a failure
 * MUTATE_SHUTDOWN_WITHOUT_JOIN   safety             shutdown joins the worker
 * MUTATE_SHUTDOWN_WITHOUT_CANCEL safety             shutdown cancels the transfer
 * MUTATE_SHUTDOWN_UNDER_LOCK     shutdown_ends      shutdown joins with no lock held
 * MUTATE_RUN_AFTER_END           safety             ExchangeDone asks alive before it runs
 */

#define REQUESTS 2  /* that clients make in one run */
#define EXCHANGES 3 /* at most: one for each request, and one that finds no thread */
#define EVENTS 2    /* cancellations, calls of getData and changes of the network, in any mixture */

mtype = { Created, Queued, Sending, Sent, AllPartsReceived, Delivered };

/* OrvexMain */
bool workerStarted_;
bool closing_;
byte startedExchange_;
byte workerThread_;       /* number of the exchange whose thread is held; 0: none */
bool requests_[REQUESTS]; /* whether it holds the request */
bool requestsLock_;

/* RequestData */
mtype state_[REQUESTS] = Created;
bool cancelled_[REQUESTS];
bool waitingForGetData_[REQUESTS] = true;

/* HttpClient */
byte lastExchange_;
byte number;           /* exchange_.number */
bool queue[REQUESTS];  /* exchange_.queue */
bool transferRunning_;

/* DataSignal */
bool cancelRequested_;

/* ExchangeDone records that the main context holds for 50 ms; their order is kept. */
chan mainContext = [EXCHANGES] of { byte };

/* -- ghosts ----------------------------------------------------------------------------------- */

bool mayQuit;                  /* a client will call quit or a signal will come; else run for ever */
bool threadRefused;            /* the system had no thread to give, which happens once at most */
bool coreGone;                 /* OrvexMain has been destroyed */
byte workers;                  /* threads between their start and their end */
bool ended[EXCHANGES + 1];     /* the thread has ended */
bool posted[EXCHANGES + 1];    /* its end has been posted */
bool failedOnce[EXCHANGES + 1];/* it has failed, and its requests are gone */
byte finished;                 /* newest exchange whose end has come to the main loop */
bool mapInUse;                 /* somebody is inside requests_ */
bool deleted[REQUESTS];        /* the request has left requests_ */
bool assembled[REQUESTS];      /* what the main loop has put into the newest exchange */
bool everQueued[REQUESTS];
bool cancelledInside[REQUESTS];/* was cancelled while it was part of an exchange */
bool shutdownWaits;            /* the main loop stands in shutdown and waits for the worker */

inline lock() { atomic { !requestsLock_ -> requestsLock_ = true } }
inline unlock() { requestsLock_ = false }

/* What holds the requests bears one user at a time. */
inline enterMap() { atomic { assert(!mapInUse); mapInUse = true } }
inline leaveMap() { mapInUse = false }

/* Nobody may touch a request that has left the map, although the code's shared pointers would still
 * keep its memory. */
inline use(r) { assert(!deleted[r]) }
inline remove(r) { d_step { requests_[r] = false; deleted[r] = true } }

/* -- main loop's thread ------------------------------------------------------------------------ */

inline join() {
  if
  :: workerThread_ != 0 -> ended[workerThread_]; workerThread_ = 0
  :: else
  fi
}

inline abandonExchange() {
  d_step {
    i = 0;
    do
    :: i < REQUESTS ->
       if
       :: queue[i] ->
#ifndef MUTATE_ABANDON_KEEPS_STATE
          state_[i] = Created;
#endif
#ifndef MUTATE_ABANDON_KEEPS_QUEUE
          queue[i] = false;
#endif
          assembled[i] = false
       :: else
       fi;
       i++
    :: else -> break
    od;
    i = 0
  }
#ifndef MUTATE_ABANDON_KEEPS_RUNNING
  transferRunning_ = false
#endif
}

inline startWorker() {
  workerStarted_ = true;
  /* beginExchange */
  d_step { lastExchange_++; number = lastExchange_ }
#ifndef MUTATE_RESET_BY_WORKER
  cancelRequested_ = false;
#endif
  transferRunning_ = true;
  /* WorkerThread::start */
#ifndef MUTATE_START_WITHOUT_JOIN
  join();
#endif
  if
  :: !threadRefused ->
     threadRefused = true;
     abandonExchange();
#ifndef MUTATE_ABANDON_KEEPS_STARTED
     workerStarted_ = false;
#endif
     result = false
  :: atomic {
       assert(!closing_);    /* nothing starts after shutdown */
       assert(workers == 0); /* at most one worker */
       workers++;
       workerThread_ = lastExchange_;
       run Worker(lastExchange_)
     }
     startedExchange_ = lastExchange_;
     result = true
  fi
}

/* The sweep of requests_ takes no lock here: whoever else sweeps it, the worker, is past that. */
inline queueRequests() {
  enterMap();
  d_step {
    i = 0; any = false;
    do
    :: i < REQUESTS ->
       if
       :: requests_[i] && state_[i] == Delivered -> requests_[i] = false; deleted[i] = true
       :: else
       fi;
       any = any || (requests_[i] && state_[i] == Created);
       i++
    :: else -> break
    od;
    i = 0
  }
  leaveMap()
}

/* addPart for everything that waits */
inline addParts() {
  d_step {
    i = 0;
    do
    :: i < REQUESTS ->
       assembled[i] = requests_[i] && state_[i] == Created;
       if
       :: assembled[i] -> queue[i] = true; everQueued[i] = true; state_[i] = Queued
       :: else
       fi;
       i++
    :: else -> break
    od;
    i = 0
  }
}

inline startExchange() {
  if
#ifndef MUTATE_START_AFTER_SHUTDOWN
  :: closing_ -> result = false
#endif
  :: else ->
     if
#ifndef MUTATE_START_WHILE_RUNNING
     :: transferRunning_ -> result = false
#endif
     :: else ->
        queueRequests();
        if
#ifndef MUTATE_START_BEFORE_FINISH
        :: workerStarted_ || !any -> result = true /* an ended exchange is still to be swept up */
#else
        :: !any -> result = true
#endif
        :: else -> addParts(); startWorker()
        fi
     fi
  fi;
  any = false
}

inline createRequest() {
#ifndef MUTATE_CREATE_WITHOUT_LOCK
  lock();
#endif
  enterMap();
  d_step { requests_[next] = true; next++ }
  leaveMap();
#ifndef MUTATE_CREATE_WITHOUT_LOCK
  unlock();
#endif
  created = true;
#ifdef MUTATE_CREATE_STARTS_ALWAYS
  wanted = true
#else
  wanted = !transferRunning_
#endif
}

/* Tests and use of one request, by two different steps. */
inline cancelRequest(r) {
#ifndef MUTATE_CANCEL_WITHOUT_LOCK
  lock();
#endif
  enterMap();
  if
  :: requests_[r] ->
     use(r);
     cancelled_[r] = true;
     cancelledInside[r] = r == 0 && queue[r];
     if
#ifndef MUTATE_CANCEL_REMOVES_QUEUED
     :: state_[r] != Created
#endif
     :: else -> remove(r)
     fi
  :: else
  fi;
  leaveMap();
#ifndef MUTATE_CANCEL_WITHOUT_LOCK
  unlock()
#endif
}

inline getData(r) {
#ifndef MUTATE_GETDATA_WITHOUT_LOCK
  lock();
#endif
  enterMap();
  if
  :: requests_[r] ->
     use(r);
     atomic { /* requestNextChunk, under the request's own lock */
       waitingForGetData_[r] = false;
       deliverNext(r)
     }
  :: else
  fi;
  leaveMap();
#ifndef MUTATE_GETDATA_WITHOUT_LOCK
  unlock()
#endif
}

inline deliverNext(r) {
  if
  :: state_[r] == AllPartsReceived && (cancelled_[r] || !waitingForGetData_[r]) ->
     state_[r] = Delivered;
     waitingForGetData_[r] = true
  :: else
  fi
}

/* No lock, for the same reason as in queueRequests. */
inline onExchangeFinished() {
#ifndef MUTATE_FINISH_WITHOUT_JOIN
  assert(workerThread_ == 0 || posted[workerThread_]); /* the main loop waits for no exchange */
  join();
#endif
  assert(workers == 0); /* no thread is left over */
#ifndef MUTATE_FINISH_KEEPS_STARTED
  workerStarted_ = false;
#endif
  enterMap();
  d_step {
    i = 0; any = false;
    do
    :: i < REQUESTS ->
       if
       :: requests_[i] && state_[i] == Delivered -> requests_[i] = false; deleted[i] = true
#ifndef MUTATE_FINISH_KEEPS_CANCELLED
       :: requests_[i] && state_[i] != Delivered && cancelled_[i] ->
          requests_[i] = false; deleted[i] = true
#endif
       :: else
       fi;
       any = any || (requests_[i] && state_[i] == Created);
       i++
    :: else -> break
    od;
    i = 0
  }
  leaveMap();
#ifndef MUTATE_FINISH_WITHOUT_NEXT
  wanted = any;
#endif
  any = false
}

/* The platform tells of a connection at any time. */
inline onNetworkAvailable() {
#ifndef MUTATE_AVAILABLE_WITHOUT_LOCK
  lock();
#endif
  enterMap();
  d_step { /* hasSendableRequest */
    any = (requests_[0] && state_[0] == Created) || (requests_[1] && state_[1] == Created)
  }
  leaveMap();
#ifndef MUTATE_AVAILABLE_WITHOUT_LOCK
  unlock();
#endif
  atomic { wanted = any; any = false }
}

inline onExchangeDone(done) {
  assert(!coreGone);
  atomic { assert(done == finished + 1 || threadRefused && done == finished + 2); finished = done }
#ifdef MUTATE_LATE_FINISH
  onExchangeFinished()
#else
  if
  :: done == startedExchange_ -> onExchangeFinished()
  :: else -> assert(failedOnce[done]) /* whose finish is passed over has nothing left to sweep */
  fi
#endif
}

inline shutdown() {
  closing_ = true;
#ifdef MUTATE_SHUTDOWN_UNDER_LOCK
  lock();
#endif
  if
  :: workerThread_ != 0 ->
#ifndef MUTATE_SHUTDOWN_WITHOUT_CANCEL
     cancelRequested_ = true;
#endif
#ifndef MUTATE_SHUTDOWN_WITHOUT_JOIN
     shutdownWaits = true;
     join();
     shutdownWaits = false
#endif
  :: else
  fi;
#ifdef MUTATE_SHUTDOWN_UNDER_LOCK
  unlock();
#endif
  enterMap();
  d_step {
    i = 0;
    do
    :: i < REQUESTS -> deleted[i] = deleted[i] || requests_[i]; requests_[i] = false; i++
    :: else -> break
    od;
    i = 0
  }
  leaveMap()
}

/* Between two events nothing may be left half done. */
inline checkIdle() {
  d_step {
    assert(!transferRunning_ || workers == 1);
    assert(!workerStarted_ || workers == 1 || (startedExchange_ > finished && posted[startedExchange_]));
    i = 0;
    do
    :: i < REQUESTS ->
       assert(!requests_[i] || state_[i] != Queued || workers == 1);
       assert(!queue[i] || workers == 1);
       i++
    :: else -> break
    od;
    i = 0
  }
}

inline pick() {
  if
  :: r = 0
  :: r = 1
  fi
}

active proctype MainLoop() {
  byte i, r, next, done;
  bool any, wanted, created, result;
  byte events; /* that clients and platform have caused, so that they come to an end */

  if
  :: mayQuit = true
  :: mayQuit = false
  fi;
  do
  :: checkIdle();
end:
     if
     :: next < REQUESTS -> createRequest()
     :: atomic { events < EVENTS -> events++; pick() }; cancelRequest(r)
     :: atomic { events < EVENTS -> events++; pick() }; getData(r)
     :: atomic { events < EVENTS -> events++ }; onNetworkAvailable()
     :: mainContext ? done -> onExchangeDone(done)
     :: mayQuit && !closing_ -> shutdown() /* the call "quit"; handlers may still run after it */
     :: mayQuit -> break                   /* a signal, or the loop's end after that call */
     fi;
     if
     :: wanted ->
        startExchange();
        /* A client is never refused only because another exchange runs. */
        assert(!created || result || closing_ || threadRefused)
     :: else
     fi;
     atomic { r = 0; done = 0; wanted = false; created = false; result = false }
  od;
  shutdown(); /* the service's destructor */
  assert(workers == 0);
  coreGone = true;
  do
  :: mainContext ? done ->
#ifdef MUTATE_RUN_AFTER_END
     onExchangeDone(done)
#else
     skip /* alive has expired */
#endif
  :: empty(mainContext) -> break
  od
}

/* -- worker's thread --------------------------------------------------------------------------- */

/* A request's answer comes completely or not at all, before or after the upload has ended. */
inline addResponseData(r) {
  atomic { /* under the request's own lock */
    use(r);
    state_[r] = AllPartsReceived;
    deliverNext(r)
  }
}

inline raiseState(r, to) {
  atomic {
    use(r);
    if
    :: (to == Sending && state_[r] == Queued) || (to == Sent && (state_[r] == Queued || state_[r] == Sending)) ->
       state_[r] = to
    :: else
    fi
  }
}

/* readBody asks and begins its wait for client data without releasing dataMutex_ in between. */
inline readBody() {
  atomic {
    if
    :: cancelRequested_ -> failed = true
    :: else -> assert(!shutdownWaits) /* a shutdown is not kept waiting by one more wait */
    fi
  }
}

inline onExchangeFailed() {
  d_step { /* unfinishedKeys */
    do
    :: i < REQUESTS -> assert(!queue[i] || !deleted[i]); i++
    :: else -> break
    od;
    i = 0;
    failedOnce[mine] = true
  }
  workerStarted_ = false;
#ifndef MUTATE_FAILED_WITHOUT_LOCK
  lock();
#endif
  enterMap();
  d_step {
    do
    :: i < REQUESTS ->
       if
#ifndef MUTATE_FAILED_REMOVES_ALL
       :: requests_[i] && state_[i] != Created ->
#else
       :: requests_[i] ->
#endif
          assert(everQueued[i]); /* what waits for the next exchange is not lost */
          requests_[i] = false;
          deleted[i] = true
       :: else
       fi;
       i++
    :: else -> break
    od;
    i = 0
  }
  leaveMap();
#ifndef MUTATE_FAILED_WITHOUT_LOCK
  unlock()
#endif
}

inline clearQueue() {
  d_step {
    do
    :: i < REQUESTS -> queue[i] = false; i++
    :: else -> break
    od;
    i = 0
  }
}

inline postExchangeDone() {
#ifdef MUTATE_FAILURE_WITHOUT_POST
  if
  :: failed
  :: else -> atomic { mainContext ! number; posted[number] = true }
  fi
#else
  atomic { mainContext ! number; posted[number] = true }
#endif
}

inline endExchange() {
  assert(!coreGone);
#ifndef MUTATE_CLEAR_AFTER_FLAG
  clearQueue();
#endif
#ifndef MUTATE_POST_AFTER_FLAG
  postExchangeDone();
#endif
  transferRunning_ = false;
#ifdef MUTATE_CLEAR_AFTER_FLAG
  clearQueue();
#endif
#ifdef MUTATE_POST_AFTER_FLAG
  postExchangeDone();
#endif
  assert(!coreGone)
}

proctype Worker(byte mine) {
  byte i;
  bool failed;

#ifdef MUTATE_RESET_BY_WORKER
  cancelRequested_ = false;
#endif
  /* transferQueue */
  d_step {
    do
    :: i < REQUESTS ->
       assert(queue[i] == assembled[i]); /* what the main loop assembled is what is sent */
       assembled[i] = false;
       i++
    :: else -> break
    od;
    i = 0
  }
  do
  :: i == REQUESTS -> i = 0; break
  :: i < REQUESTS && (failed || !queue[i]) -> i++
  :: i < REQUESTS && !failed && queue[i] ->
     raiseState(i, Sending);
     readBody();
     if
     :: addResponseData(i) /* the server answers early */
     :: skip
     fi;
     raiseState(i, Sent);
     i++
  od;
  if
  :: failed = true
  :: !failed ->
     do
     :: i == REQUESTS -> i = 0; break
     :: i < REQUESTS && !queue[i] -> i++
     :: i < REQUESTS && queue[i] -> addResponseData(i); i++
     od
  fi;
  if
  :: failed -> onExchangeFailed()
  :: else
  fi;
  endExchange();
  d_step { ended[mine] = true; workers-- }
}

/* -- properties -------------------------------------------------------------------------------- */

/* Every started exchange is followed by its finish; the numbers come in order, see onExchangeDone. */
ltl finish { [] (startedExchange_ > finished -> <> (startedExchange_ <= finished || coreGone)) }

/* A request that waits behind an exchange gets its own, unless there was no thread for it. */
ltl waiting { [] ((requests_[1] && state_[1] == Created) ->
                  <> (!requests_[1] || state_[1] != Created || threadRefused)) }

/* A request that was cancelled in an exchange goes with it. */
ltl cancelled { [] (cancelledInside[0] -> <> !requests_[0]) }

/* A shutdown comes to its end. */
ltl shutdown_ends { [] (closing_ -> <> coreGone) }
