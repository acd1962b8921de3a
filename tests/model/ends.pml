/*
 *  The end of the service: an exit signal at any point of the service's thread, with one thread of the client library.
 *
 *      service    rest --> step: own code, in a lock of the allocator, in the C library's allocator --> call --> rest
 *                                                                              the call may block for ever
 *      library    idle --> callback: reads the log's pointer, uses the log --> idle
 *      timer      ticks at any time after it was started
 *
 *  Signal and tick interrupt the service's thread at any place. Each lets the step continue or starts the end, like
 *  service/exitsignal.cpp. README.md describes how to run the model, and its results.
 *
 *  Each of the other defines breaks one thing, to show that the checks can fail.
 */

#define STEP_TICKS 2         /* 5 in the program */

/* The state of the service's thread. */
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

/* The decision of the handler: true to let the step continue. */
#ifdef END_AT_ONCE
#define STEP_GOES_ON false
#else
#ifdef NO_LOOK_AT_LOCKS
#define STEP_GOES_ON (IN_STEP && ticks < STEP_TICKS)
#else
#define STEP_GOES_ON (IN_STEP && (ticks < STEP_TICKS || place == ALLOCATOR))
#endif
#endif

/* The service's thread until a signal ends it. A step of the program is finite. */
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

/* The end, on the service's thread: the interrupted code does not continue. If that code holds no lock, the end
   completes;    if it holds a lock of the allocator, the end waits for the lock until the limit. */
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

/* A callback uses the log while it has the pointer. It may block on a reader of the console. */
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

/* Both connections are closed before the process ends: no lock of the allocator prevents this. */
ltl orderly { [] (ended -> closed) }

/* A signal ends the process. */
ltl ends { [] (signalled -> <> ended) }

/* The limit is reached only if a step was blocked too long, and then only inside the C library's allocator. */
ltl uncut { [] (cut_off -> (place == C_LIBRARY && ticks == STEP_TICKS)) }
