/* How the callers of a channel pass the reading on. README.md maps the model to the code.

   A step is atomic if no other thread can tell the difference. A section that holds m_mutex is
   therefore split only between two uses of something that m_mutex does not guard. */

#ifndef CALLERS
#define CALLERS 3
#endif
#ifndef LEAVERS
#define LEAVERS 0 /* the number of callers that may leave early, and may never get a reply */
#endif
#ifndef MAIL
#define MAIL 0 /* the number of events that also arrive, at most two */
#endif
#ifndef LIMIT
#define LIMIT 1 /* the number of messages alive at which libdbus stops reading */
#endif
#define MIN_LIVE 1 /* always allowed in addition to those given up */
#ifndef PLACES
#define PLACES CALLERS /* the number of calls that may be outstanding */
#endif

/* Row m is the call of caller m, then its reply. Mail follows; the last row is libdbus's own message. */
#define ROWS 5
#define DISCONNECTED 4
#define NOBODY ROWS
mtype = { NOWHERE, LEFT_OVER, AT_BUS, IN_SOCKET, IN_LOADER, IN_QUEUE, DISPATCHED, IN_INBOX };
mtype at[ROWS] = NOWHERE;
byte references[ROWS];

bool busIsUp = true;

/* libdbus */
bool isConnected = true;
bool connectionLock, dispatching;
byte alive;
bool readWatch = true, writeWatch;

/* The channel */
bool mutex;
bool epollIn = true, epollOut; /* the socket events that the kernel watches */
bool toggled, wakeUp;          /* event descriptors */
bool hasToggled;               /* toggled may be set */
bool isLost, isPolling, isScheduled;
byte reader = NOBODY;
bool queued[ROWS], sent[ROWS], asleep[ROWS], isDone[ROWS];
byte outstanding, givenUp;

byte polls; /* the number of callers that poll */
byte it;    /* scratch; zero between steps */

#define IS_LEFT_OVER(m) (at[m] == LEFT_OVER)
#define IS_AT_BUS(m) (at[m] == AT_BUS)
#define IS_IN_SOCKET(m) (at[m] == IN_SOCKET)
#define IS_IN_LOADER(m) (at[m] == IN_LOADER)
#define IS_IN_QUEUE(m) (at[m] == IN_QUEUE)
#define IS_IN_INBOX(m) (at[m] == IN_INBOX)
#define IS_QUEUED(c) queued[c]
#define WAITS(c) (queued[c] || sent[c])

#define ANY(is) (is(0) || is(1) || is(2) || is(3) || is(4))
#define PICK(is) \
  if \
  :: is(0) -> it = 0 :: is(1) -> it = 1 :: is(2) -> it = 2 :: is(3) -> it = 3 :: is(4) -> it = 4 \
  fi

#define POLL_RETURNS (toggled || epollOut || epollIn && (ANY(IS_IN_SOCKET) || !busIsUp))
#define HAS_ROOM (outstanding < PLACES || outstanding < givenUp + MIN_LIVE)

inline Lock(lock) { !lock -> lock = true }

inline Watch() {
  d_step {
#ifdef NO_EPOLL_ON_TOGGLE
    epollIn = epollIn && readWatch;
#else
    epollIn = readWatch;
#endif
    epollOut = writeWatch
  };
#ifdef FLAG_BEFORE_WRITE
  hasToggled = true;
#endif
#ifndef NO_WAKE_ON_TOGGLE
  toggled = true;
#endif
#ifndef FLAG_BEFORE_WRITE
  hasToggled = true
#endif
}

/* In libdbus, its lock held */

inline CheckReadWatch() {
  if
  :: atomic { isConnected && readWatch != (alive < LIMIT) -> readWatch = alive < LIMIT };
     Watch()
  :: else
  fi
}

inline QueueMessages() {
  do
  :: atomic { alive < LIMIT && ANY(IS_IN_LOADER) ->
       PICK(IS_IN_LOADER); at[it] = IN_QUEUE; it = 0; alive++ };
     CheckReadWatch()
  :: else -> break
  od
}

inline Disconnect() {
  isConnected = false; readWatch = false; writeWatch = false; Watch()
}

/* In libdbus, its lock free */

inline Unreference(message) {
  if
  :: atomic { references[message] > 1 -> references[message]-- }
  :: atomic { references[message] == 1 && alive != LIMIT ->
       references[message] = 0; at[message] = NOWHERE; alive-- }
  :: atomic { references[message] == 1 && alive == LIMIT ->
       references[message] = 0; at[message] = NOWHERE; alive-- };
     atomic { Lock(connectionLock) };
     CheckReadWatch();
     connectionLock = false
  fi
}

inline HandleWrite() {
  do
  :: ANY(IS_LEFT_OVER) -> PICK(IS_LEFT_OVER); at[it] = AT_BUS; it = 0
  :: else -> break
  od;
  writeWatch = false; Watch()
}

inline HandleRead() {
  atomic { Lock(connectionLock) };
  CheckReadWatch();
  if
  :: atomic { readWatch && ANY(IS_IN_SOCKET) ->
       do
       :: ANY(IS_IN_SOCKET) -> PICK(IS_IN_SOCKET); at[it] = IN_LOADER; it = 0
       :: ANY(IS_IN_LOADER) -> break
       od };
     QueueMessages()
  :: atomic { readWatch && !ANY(IS_IN_SOCKET) && !busIsUp -> Disconnect() }
  :: else
  fi;
  connectionLock = false
}

/* In the channel, m_mutex held */

inline SendQueued() {
  do
  :: ANY(IS_QUEUED) && HAS_ROOM ->
     PICK(IS_QUEUED); queued[it] = false; sent[it] = true; outstanding++;
     if
     :: at[it] = AT_BUS
#ifdef LEFT_OVERS
     :: at[it] = LEFT_OVER; writeWatch = true; Watch()
#endif
     fi;
     it = 0
  :: else -> break
  od
}

inline SetLost() {
  isLost = true;
  do
  :: it < ROWS -> asleep[it] = false; it++
  :: else -> it = 0; break
  od;
  wakeUp = true
}

inline TakeReply(message) {
  outstanding--;
  if
  :: sent[message] ->
     sent[message] = false; isDone[message] = true; asleep[message] = false; references[message]++;
#ifndef NO_WAKE_ON_FOREIGN_REPLY
     if
     :: reader == message && isPolling -> wakeUp = true
     :: else
     fi
#endif
  :: else -> givenUp--
  fi;
  SendQueued()
}

inline TakeMail(message) { at[message] = IN_INBOX; references[message]++; isScheduled = true }

inline ReadAndWrite() {
  if
  :: atomic { hasToggled -> hasToggled = false }; toggled = false
  :: else
  fi;
  if
  :: atomic { writeWatch -> HandleWrite() }
  :: else
  fi;
  if
  :: readWatch -> HandleRead()
  :: else
  fi;
  mutex = false;
  do
  :: true ->
     /* The dispatch status */
     atomic { Lock(connectionLock) };
     QueueMessages();
     atomic {
       if
       :: !isConnected && at[DISCONNECTED] == NOWHERE -> at[DISCONNECTED] = IN_QUEUE
       :: else
       fi;
       connectionLock = false;
       if
       :: !ANY(IS_IN_QUEUE) -> break
       :: else
       fi };
     /* One thread dispatches at a time; the next may find nothing left. */
     atomic { !dispatching && !connectionLock ->
       if
       :: ANY(IS_IN_QUEUE) ->
          dispatching = true; PICK(IS_IN_QUEUE); mine = it; it = 0; at[mine] = DISPATCHED
       :: else
       fi };
     if
     :: mine == NOBODY
     :: atomic { mine == DISCONNECTED && !mutex -> SetLost(); mine = NOBODY; dispatching = false }
     :: atomic { mine < DISCONNECTED && !mutex ->
          references[mine] = 1;
          if
          :: mine < CALLERS -> TakeReply(mine)
          :: else -> TakeMail(mine)
          fi;
          dispatching = false };
        Unreference(mine);
        mine = NOBODY
     fi
  od;
  atomic { Lock(mutex) }
}

proctype Caller(byte me) {
  bool leaves, woken;
  byte mine = NOBODY;

  atomic { Lock(mutex);
    if
    :: isLost || !isConnected -> mutex = false; goto over
    :: else -> queued[me] = true; SendQueued()
    fi };

  /* Wait */
  do
  :: isDone[me] || isLost || leaves -> break
  :: else ->
     if
     :: atomic { reader != NOBODY && reader != me -> asleep[me] = true; mutex = false };
        if
        :: atomic { !asleep[me] && !mutex -> mutex = true }
        :: atomic { me < LEAVERS && !mutex -> mutex = true; asleep[me] = false; leaves = true }
        fi
     :: atomic { reader == NOBODY || reader == me ->
          /* Turn */
          reader = me; isPolling = true; mutex = false; polls++; assert(polls == 1) };
        if
        :: atomic { wakeUp || POLL_RETURNS -> woken = wakeUp; polls-- }
        :: atomic { me < LEAVERS -> leaves = true; polls-- }
        :: atomic { me < LEAVERS && !mutex -> mutex = true; leaves = true; polls--; break }
        fi;
        atomic { Lock(mutex);
          isPolling = false;
          if
          :: woken -> woken = false; wakeUp = false
          :: else
          fi };
        ReadAndWrite()
     fi
  od;

  /* Leave */
  atomic {
    queued[me] = false;
    if
    :: sent[me] -> sent[me] = false; givenUp++
    :: else
    fi;
#ifndef NO_SEND_ON_LEAVE
    SendQueued();
#endif
    if
    :: reader == me -> reader = NOBODY; isPolling = false
    :: else
    fi;
#ifndef NO_PASS_ON
    if
    :: reader == NOBODY && ANY(WAITS) -> PICK(WAITS); asleep[it] = false; it = 0
    :: else
    fi;
#endif
    mutex = false };

  assert(isDone[me] || isLost || leaves);
  if
  :: isDone[me] -> Unreference(me)
  :: else
  fi;
over:
  skip
}

active proctype Bus() {
end:
  do
  :: atomic { busIsUp && ANY(IS_AT_BUS) ->
       PICK(IS_AT_BUS);
       if
       :: at[it] = IN_SOCKET
       :: it < LEAVERS -> at[it] = NOWHERE
       fi;
       it = 0 }
  od
}

#ifdef ENDS
active proctype End() {
  if
  :: busIsUp = false
  :: atomic { !mutex -> SetLost(); Disconnect() }
  fi
}
#endif

#if MAIL || defined(MAIN_LOOP)
active proctype MainLoop() {
  bool isReadable;
  byte mine = NOBODY;

end:
  do
#if !MAIL
  :: break /* busy from now on */
#endif
  :: atomic { isScheduled || POLL_RETURNS -> isReadable = POLL_RETURNS };
     /* OnContext */
     atomic { Lock(mutex); isScheduled = false };
     if
     :: isReadable -> isReadable = false; ReadAndWrite()
     :: else
     fi;
     /* Deliver */
     if
     :: atomic { ANY(IS_IN_INBOX) -> PICK(IS_IN_INBOX); mine = it; it = 0; at[mine] = DISPATCHED };
        Unreference(mine);
        mine = NOBODY
     :: else
     fi;
     atomic { isScheduled = ANY(IS_IN_INBOX); mutex = false }
  od
}
#endif

#if MAIL
/* Ends once the mail is delivered. */
active proctype Mail() {
  at[CALLERS] == NOWHERE && at[CALLERS + MAIL - 1] == NOWHERE || !isConnected
}
#endif

init {
  byte caller;
  atomic {
    do
    :: it < MAIL -> at[CALLERS + it] = AT_BUS; it++
    :: else -> it = 0; break
    od;
    do
    :: caller < CALLERS -> run Caller(caller); caller++
    :: else -> break
    od
  }
}
