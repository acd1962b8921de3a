/*
 *  The single-instance protocol: two starters, one stopper, and kills at any point.
 *
 *      -start   query   claim   write   fork   close               of two starts at once, one waits at its claim
 *                                         \  chdir  claim  write  start  arm  loop     the child becomes the service
 *      -run     query   claim   write   claim   write   start   arm   loop
 *      -stop    query   SIGTERM   up to STOP_LIMIT times: query, wait 1 s   SIGKILL
 *
 *  Each "write" above is two steps: TRUNCATE and WRITE. A step is about one system call: other processes may run
 *  between any two steps, and a process may be killed there. A process is a number from 1 to 4, and its step is its
 *  next action. The two starters repeatedly start processes 1 and 3. Process 2 is the child that process 1 forks,
 *  process 4 the child that process 3 forks.
 *
 *  The phase of random starts and kills ("storm") ends at any moment. Afterwards only -stop kills. -stop is repeated
 *  until it reports that nothing runs. Then one more program is started.
 *
 *  README.md describes how to run the model, its results, and what it leaves out.
 *
 *  QUIET leaves out the storm and -stop: each starter starts one program. Each of the other defines breaks the protocol
 *  in one place, to show that the checks can fail.
 */

#define NOBODY 0
#define LAST 4
#define STOP_LIMIT 3         /* queries of -stop: 300 in the program */

/* The next step of a process. Up to ARM, SIGTERM ends the process: no handler is installed before LOOP. */
#define ABSENT 0             /* no such process */
#define QUERY 1              /* F_GETLK */
#define CLAIM 2              /* F_SETLKW */
#define TRUNCATE 3
#define WRITE 4
#define CLAIM_AGAIN 5        /* -run: F_SETLKW */
#define TRUNCATE_AGAIN 6
#define WRITE_AGAIN 7
#define FORK 8               /* -start */
#define CLOSE 9              /* the parent; its later steps affect no other process */
#define CHDIR 10             /* the child */
#define CHILD_CLAIM 11       /* F_SETLKW */
#define CHILD_TRUNCATE 12
#define CHILD_WRITE 13
#define START 14             /* CRunCls::start */
#define ARM 15               /* the service object runs, but no signal handler is installed */
#define LOOP 16              /* the publish cycle; only a signal ends it */
#define DYING 17             /* a signal ends it, but it still has its lock */
#define LEAVING 18           /* a service inside its signal handler */
#define HUNG 19              /* a service inside its signal handler that is stopped, or blocked in a call */

/* The step of -stop. */
#define IDLE 0
#define PROBE 1
#define TERM 2
#define LOOK 3
#define KILL 4

byte step[LAST + 2];       /* process 0 does not exist, and process 4 has no child */
byte holder = NOBODY;        /* the process with the record lock on the pid file; there is at most one */
byte text = NOBODY;          /* the process whose pid is in the file, even after it has lost the lock */

byte stop_step = IDLE;
byte stop_looks = 0;
byte target = NOBODY;        /* the process that -stop is to end; NOBODY after it has ended */

bool calm = false;           /* the storm is over */
bool not_run = false;        /* a -stop after the storm reported that no service runs */
bool last_begun = false;     /* the one program that starts after the storm was started */

#define IS_SERVICE(p) (step[p] == ARM || step[p] == LOOP || step[p] == LEAVING || step[p] == HUNG)
#define SERVING (step[1] == LOOP || step[2] == LOOP || step[3] == LOOP || step[4] == LOOP)

/* Only one process can hold the lock. So if this is true for all processes, at most one service runs. */
#define SINGLE(p) (!IS_SERVICE(p) || (holder == p && text == p))

/* The process has no further step: it is absent, in the loop, or waiting for the lock of a process in the loop. */
#define SETTLED(p) (step[p] == ABSENT || step[p] == LOOP || \
                    ((step[p] == CLAIM || step[p] == CHILD_CLAIM) && holder != NOBODY && step[holder] == LOOP))

/* The lock is free, or the process holds it already. */
#define FREE_FOR(p) (holder == NOBODY || holder == p)

/* A process releases its record lock by closing any descriptor of the file, and by ending. */
inline release(p) {
    if
    :: holder == p -> holder = NOBODY
    :: else -> skip
    fi
}

inline end_process(p) {
    release(p);
    step[p] = ABSENT;
    if
    :: target == p -> target = NOBODY
    :: else -> skip
    fi
}

inline sigterm(p) {
    if
    :: step[p] == LOOP -> step[p] = LEAVING
    :: step[p] == LOOP -> step[p] = HUNG
    :: step[p] > ABSENT && step[p] <= ARM -> step[p] = DYING
    :: else -> skip
    fi
}

/* A step that may fail during the storm: chdir or the start of the service object. */
inline go_on_or_fail(p, next) {
    if
    :: step[p] = next
#ifndef QUIET
    :: !calm -> end_process(p)
#endif
    fi
}

proctype Process(byte me) {
    bool used = false;
    do
#ifdef QUIET
    :: atomic { step[me] == ABSENT && me % 2 == 1 && !used -> used = true; step[me] = QUERY }
#else
    :: atomic { step[me] == ABSENT && me % 2 == 1 && !calm -> step[me] = QUERY }
    :: atomic { step[me] == ABSENT && me == 1 && not_run && !last_begun -> last_begun = true; step[me] = QUERY }
#endif
    :: atomic { step[me] == QUERY ->
        if
        :: holder == NOBODY -> step[me] = CLAIM
        :: else -> end_process(me)                               /* "alreay runging" */
        fi }
    :: atomic { step[me] == CLAIM && FREE_FOR(me) -> holder = me; step[me] = TRUNCATE }
    :: atomic { step[me] == TRUNCATE -> text = NOBODY; step[me] = WRITE }
    :: atomic { step[me] == WRITE -> text = me;
        if
        :: step[me] = CLAIM_AGAIN
        :: step[me] = FORK
        fi }
    :: atomic { step[me] == CLAIM_AGAIN && FREE_FOR(me) -> holder = me; step[me] = TRUNCATE_AGAIN }
    :: atomic { step[me] == TRUNCATE_AGAIN -> text = NOBODY; step[me] = WRITE_AGAIN }
    :: atomic { step[me] == WRITE_AGAIN -> text = me; step[me] = START }
    :: atomic { step[me] == FORK ->
        if
        :: step[me + 1] == ABSENT -> step[me + 1] = CHDIR; step[me] = CLOSE
        :: else -> end_process(me)                               /* fork failed */
        fi }
#ifdef PARENT_KEEPS
    :: atomic { step[me] == CLOSE && (step[me + 1] == ABSENT || step[me + 1] >= LOOP) -> end_process(me) }
#else
    :: atomic { step[me] == CLOSE -> end_process(me) }
#endif
#ifdef NO_SECOND_CLAIM
    :: atomic { step[me] == CHDIR -> go_on_or_fail(me, START) }
#else
    :: atomic { step[me] == CHDIR -> go_on_or_fail(me, CHILD_CLAIM) }
#endif
#ifdef CLAIM_WITHOUT_WAIT
    :: atomic { step[me] == CHILD_CLAIM && !FREE_FOR(me) -> step[me] = START }
#endif
    :: atomic { step[me] == CHILD_CLAIM && FREE_FOR(me) -> holder = me; step[me] = CHILD_TRUNCATE }
    :: atomic { step[me] == CHILD_TRUNCATE -> text = NOBODY; step[me] = CHILD_WRITE }
    :: atomic { step[me] == CHILD_WRITE -> text = me; step[me] = START }
    :: atomic { step[me] == START -> go_on_or_fail(me, ARM)
#ifdef LOOK_AND_CLOSE
        ; release(me)
#endif
        }
    :: atomic { step[me] == ARM -> step[me] = LOOP }
    :: atomic { step[me] == DYING || step[me] == LEAVING -> end_process(me) }
    od
}

inline stop_ended() {
    target = NOBODY;
    stop_looks = 0;
    stop_step = IDLE
}

/* Runs -stop repeatedly; after the storm, until it reports that nothing runs. -stop may be killed, too. */
proctype Stopper() {
    do
    :: atomic { stop_step == IDLE && (!calm || !not_run) -> stop_step = PROBE }
    :: atomic { stop_step == PROBE ->
        target = holder;
        if
        :: holder == NOBODY -> not_run = calm; stop_ended()     /* "not run!" */
        :: else -> stop_step = TERM
        fi }
    :: atomic { stop_step == TERM -> sigterm(target); stop_step = LOOK }
    :: atomic { stop_step == LOOK ->
        if
        :: holder == NOBODY -> stop_ended()                      /* "stoped gracefully!", whoever takes the lock next */
        :: else ->
#ifndef NO_LIMIT
            stop_looks++;
#endif
            if
            :: stop_looks == STOP_LIMIT -> stop_step = KILL
            :: else -> skip
            fi
        fi }
    :: atomic { stop_step == KILL ->
#ifndef NO_KILL
        end_process(target);
#endif
        stop_ended() }
    :: atomic { stop_step != IDLE && !calm -> stop_ended() }
    od
}

#define KILLABLE(p) (step[p] != ABSENT && !calm)

proctype Storm() {
    do
    :: atomic { KILLABLE(1) -> end_process(1) }
    :: atomic { KILLABLE(2) -> end_process(2) }
    :: atomic { KILLABLE(3) -> end_process(3) }
    :: atomic { KILLABLE(4) -> end_process(4) }
    :: atomic { !calm -> calm = true }
    :: calm -> break
    od
}

/* Checks at every moment: while a service runs, it holds the lock and the file contains its pid. */
proctype Watch() {
    !(SINGLE(1) && SINGLE(2) && SINGLE(3) && SINGLE(4)) -> assert(false)
}

/* Checks the states in which no process has a further step. */
proctype DeadEnds() {
    timeout;
    assert(SETTLED(1) && SETTLED(2) && SETTLED(3) && SETTLED(4) && stop_step == IDLE && SERVING)
}

init {
    atomic {
        run Process(1);
        run Process(2);
        run Process(3);
        run Process(4);
#ifndef QUIET
        run Stopper();
        run Storm();
#endif
        run Watch();
        run DeadEnds()
    }
}

/* -stop always ends. */
ltl stop_ends { [] (stop_step != IDLE -> <> (stop_step == IDLE)) }

/* After the storm, from every state: once -stop has reported that nothing runs and one program was started, a service
   runs and keeps running. */
ltl recovers { [] (calm -> <> [] SERVING) }

/* If two programs start at the same time, and nothing else happens, a service starts and keeps running. */
ltl one_comes_up { <> [] SERVING }
