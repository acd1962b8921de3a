/*
 *  Shutdown of the service: an exit signal at any point of the service's thread, and one thread of the client library.
 *
 *      service    rest --> own code --> rest
 *                            ^
 *                            '--> with a lock of the allocator, or in the C library's allocator, or in a call of the
 *                                 client library, which may block forever
 *      library    idle --> callback: reads the log's pointer, uses the log --> idle
 *      timer      ticks at any time after it was started
 *
 *  The signal and the ticks interrupt the service's thread at any place. Each handler either lets the step continue or
 *  starts the shutdown, as in service/exitsignal.cpp. README.md describes how to run the model, and its results.
 *
 *  Each define that README.md lists for this model breaks one thing, to show that the checks can fail.
 */

#define STEP_TICKS 2         /* max_step_ticks, 5 in the program */

/* The state of the service's thread. */
mtype = { REST, OWN, ALLOCATOR, C_LIBRARY, CALL, STUCK_CALL }
mtype place = REST;

bool signalled = false;      /* the signal was sent */
bool pending = false;        /* the handler has stored the signal */
bool ticking = false;
byte ticks = 0;
bool ending = false;

bool log_there = true;       /* the pointer to the log is set */
bool log_alive = true;       /* the log object exists */
bool in_callback = false;    /* the library's thread is in a callback and has read the pointer */
bool kept = false;           /* the wait for that callback has reached its limit */

bool closed = false;         /* both connections were closed */
bool cut_off = false;        /* the time limit of the shutdown was reached */
bool ended = false;

#define IN_STEP (place != REST)

/* The decision of the two handlers: true lets the step continue. */
#ifdef END_AT_ONCE
#define STEP_GOES_ON false
#else
#ifdef NO_LOOK_AT_LOCKS
#define STEP_GOES_ON (IN_STEP && ticks < STEP_TICKS)
#else
#define STEP_GOES_ON (IN_STEP && (ticks < STEP_TICKS || place == ALLOCATOR))
#endif
#endif

/* The service's thread until the shutdown begins. A step has at most three parts, so it ends unless a call blocks. */
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

/* Used by the two handlers, which interrupt the service's thread at any place. */
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

/* The shutdown on the service's thread: the interrupted code does not continue. If that code holds no lock, the
   shutdown finishes. If it holds a lock of the allocator, the shutdown waits for the lock until the time limit. */
proctype End() {
    ending;
    log_there = false;
#ifndef NO_CALLBACK_WAIT
    if
    :: !in_callback -> skip
    :: in_callback -> kept = true                    /* the wait has ended after max_callback_ticks */
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

/* A callback uses the log while it has the pointer. A callback may block, because no program reads the console. */
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

/* The time limit of the shutdown is reached only if a step was blocked too long in the C library's allocator. */
ltl uncut { [] (cut_off -> (place == C_LIBRARY && ticks == STEP_TICKS)) }
