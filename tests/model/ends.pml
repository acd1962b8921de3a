/*
 *  The end of the service: an exit signal at any point of the service's thread, beside a thread of the client library.
 *
 *      service    rest --> step: own code, in a lock of the allocator, in the C library's allocator --> call --> rest
 *                                                                              the call may wait for ever
 *      library    idle --> callback: reads the log's pointer, uses the log --> idle
 *      timer      a tick now and then, once it was started
 *
 *  Signal and tick interrupt the service's thread at any place. Each lets its step go on or begins the end, as
 *  service/exitsignal.cpp does. README.md says how to run it and what holds.
 *
 *  The other defines break one thing each, so that the checks can be seen to fail.
 */

#define STEP_TICKS 2         /* 5 in the program */

/* Where the service's thread is. */
mtype = { REST, OWN, ALLOCATOR, C_LIBRARY, CALL, STUCK_CALL }
mtype place = REST;

bool signalled = false;      /* the signal was sent */
bool pending = false;        /* it was taken note of */
bool ticking = false;
byte ticks = 0;
bool ending = false;

bool log_there = true;       /* the pointer */
bool log_alive = true;       /* the object */
bool in_callback = false;    /* the library's thread is in a callback and has read the pointer */
bool kept = false;           /* the end has waited for that callback as long as it may */

bool closed = false;         /* both connections were closed */
bool cut_off = false;        /* the limit of the end was needed */
bool ended = false;

#define IN_STEP (place != REST)

/* What the handler decides: true to let the step go on. */
#ifdef END_AT_ONCE
#define STEP_GOES_ON false
#else
#ifdef NO_LOOK_AT_LOCKS
#define STEP_GOES_ON (IN_STEP && ticks < STEP_TICKS)
#else
#define STEP_GOES_ON (IN_STEP && (ticks < STEP_TICKS || place == ALLOCATOR))
#endif
#endif

/* What the service's thread does until a signal ends it. A step of the program is finite. */
proctype Service() {
    byte work = 0;
    do
    :: atomic { !ending && place == REST ->
        if
        :: pending -> ending = true
        :: else -> place = OWN; work = 0
        fi }
    :: atomic { !ending && place == OWN && work < 3 -> work++; place = ALLOCATOR }
    :: atomic { !ending && place == OWN && work < 3 -> work++; place = C_LIBRARY }
    :: atomic { !ending && place == OWN && work < 3 -> work++;
        if
        :: pending -> ending = true                  /* endIfSignalled, before each call */
        :: else -> place = CALL
        fi }
    :: atomic { !ending && place == OWN -> place = REST }
    :: atomic { !ending && place == ALLOCATOR -> place = OWN }
    :: atomic { !ending && place == C_LIBRARY -> place = OWN }
    :: atomic { !ending && place == CALL -> place = OWN }
    :: atomic { !ending && place == CALL -> place = STUCK_CALL }
    :: ending -> break
    od
}

/* The handlers: they interrupt the service's thread at any place. */
inline decide() {
    if
    :: STEP_GOES_ON -> skip
    :: else -> ending = true
    fi
}

proctype Signal() {
    signalled = true;
    atomic {
        pending = true;
#ifndef NO_TICKS
        ticking = IN_STEP;
#endif
        decide()
    }
}

proctype Timer() {
    do
    :: atomic { ticking && !ending -> ticks = (ticks < STEP_TICKS -> ticks + 1 : ticks); decide() }
    :: ending -> break
    od
}

/* The end, on the service's thread: what it interrupted does not go on. Without a lock that is held there it goes through;
   a lock of the allocator that is held there is waited for until the limit. */
proctype End() {
    ending;
    log_there = false;
#ifndef NO_CALLBACK_WAIT
    if
    :: !in_callback -> skip
    :: in_callback -> kept = true                    /* for max_callback_ticks: it uses the log no more */
    fi;
#endif
    if
    :: place == ALLOCATOR -> cut_off = true
    :: else ->
        log_alive = false;
        closed = true;
        /* exit: functions of libraries may use the C library's allocator. */
        if
        :: place == C_LIBRARY -> cut_off = true
        :: else -> skip
        fi
    fi;
    ended = true
}

/* A callback uses the log while it has the pointer. Kept for long, it waits for a reader of the console. */
proctype Library() {
    do
    :: atomic { !ended && !in_callback && log_there -> in_callback = true }
    :: atomic { !ended && in_callback -> assert(log_alive || kept); in_callback = false }
    :: ended -> break
    od
}

init {
    atomic { run Service(); run Signal(); run Timer(); run End(); run Library() }
}

/* Both connections are closed before the process ends: no lock of the allocator keeps the end from that. */
ltl orderly { [] (ended -> closed) }

/* A signal ends the process. */
ltl ends { [] (signalled -> <> ended) }

/* The limit is met only where a step waited too long, and then only inside the C library's allocator. */
ltl uncut { [] (cut_off -> (place == C_LIBRARY && ticks == STEP_TICKS)) }
