/*
 * The durability protocol of a persistent region, as a model to check:
 * the host's commits, the checkpoint thread's generations and states, the
 * restart ("zap") of a log, and recovery's choice of a source after the
 * process dies at any step.
 *
 * Files are abstract: a log holds the commits lo..hi of its generation and
 * whether it acknowledges the chk file of that generation (a LOG_CHECKPOINT
 * that a commit follows); a chk file holds every commit up to `upto` once
 * it is complete. Commit k is the k-th commit the host makes.
 *
 * The process may die between any two steps. Recovery reads the files only,
 * so the monitor runs it, atomically, at every step of every interleaving:
 * that is a death there. It checks that
 *   - recovery finds a source once a commit was acknowledged,
 *   - it never takes a chk file that is incomplete,
 *   - it brings back every acknowledged commit.
 *
 * LOG_FAILURES and CHK_FAILURES bound the failed log writes and failed
 * checkpoints the model may choose (0 by default); scripts/model.sh runs
 * the model with and without them.
 */
#ifndef COMMITS
#define COMMITS 4
#endif
#ifndef CHECKPOINTS
#define CHECKPOINTS 3
#endif
#ifndef LOG_FAILURES
#define LOG_FAILURES 0
#endif
#ifndef CHK_FAILURES
#define CHK_FAILURES 0
#endif

mtype = { ACKED, RUNNING, DONE };

typedef Log {
    bool used;      /* has a header */
    byte gen;
    bool gap;       /* restarted after a failed log: records are missing behind it */
    byte lo;        /* its commits are lo..hi; none when hi < lo */
    byte hi;
    bool ack        /* acknowledges the chk file of its generation */
};

typedef Chk {
    bool used;      /* has a header */
    byte gen;
    bool complete;  /* every page was written */
    byte upto       /* the commits it holds, once complete */
};

Log log[2];
Chk chk[2];

/* The region's words (durable.h, region.h). */
byte G = 0;             /* generation */
byte N = 0;             /* next_generation */
byte P = 0;             /* protected_generation */
byte F = 99;            /* flushed_generation: differs, so the first flush restarts log 0 */
bool log_failed = false;
bool follows_gap = false;
mtype state = ACKED;

byte made = 0;          /* commits begun */
bool failing = false;   /* a log failed since the last acknowledged checkpoint */
/* The last commit the host may count on: one that returned while no log
   was failing, and, once a log fails, only those of earlier generations
   (LumRegionGetLogState gives the failed log's generation). */
byte acknowledged = 0;
byte log_failures = 0;
byte chk_failures = 0;

/* GenerationAfterFailure: the chk file of the protected generation's
   parity must stay, so a retry goes to the other parity. */
inline after_failure(next) {
    if
    :: G % 2 == P % 2 -> next = G + 1
    :: else -> next = G + 2
    fi
}

/* A flush of commit c (with a LOG_CHECKPOINT ahead of it when with_ack): the
   restart of the log when the generation moved, then one write. */
inline flush(c, with_ack) {
    g = G;          /* read once */
    if
    :: log_failed && F == g -> skip        /* dropped: this log failed */
    :: else ->
        log_failed = false;
        if
        :: F != g ->                        /* zap: truncate, then a new header */
            log[g % 2].used = false;
            atomic {
                log[g % 2].used = true;
                log[g % 2].gen = g;
                log[g % 2].gap = follows_gap;
                log[g % 2].lo = c;
                log[g % 2].hi = c - 1;
                log[g % 2].ack = false
            };
            follows_gap = false
        :: else -> skip
        fi;
        if
        :: log_failures < LOG_FAILURES ->  /* the write fails */
            log_failures++;
            log_failed = true;
            if  /* the log state now says: no commit of this generation on is durable */
            :: !failing && acknowledged >= log[g % 2].lo -> acknowledged = log[g % 2].lo - 1
            :: else -> skip
            fi;
            failing = true;
            follows_gap = true
        :: true ->
            atomic { log[g % 2].hi = c; log[g % 2].ack = log[g % 2].ack || with_ack }
        fi;
        F = g
    fi
}

active proctype Host() {
    byte c, g, next;
    do
    :: made < COMMITS ->
        made++;
        c = made;
        if
        :: state == DONE ->                 /* AcknowledgeCheckpoint */
            flush(c, true);
            if
            :: log_failed -> after_failure(next); N = next
            :: else -> P = G; failing = false
            fi;
            state = ACKED
        :: else -> flush(c, false)
        fi;
        if
        :: !failing -> acknowledged = c
        :: else -> skip
        fi
    :: else -> break
    od
}

active proctype Checkpointer() {
    byte k = 0, p, upto, next;
    do
    :: k < CHECKPOINTS && state == ACKED ->
        k++;
        atomic { state = RUNNING; G = N; p = G % 2; upto = made };  /* the switch */
        atomic { chk[p].used = true; chk[p].gen = G; chk[p].complete = false };  /* header */
        if
        :: chk_failures < CHK_FAILURES ->  /* a page write fails */
            chk_failures++;
            if
            :: !log_failed -> N = G          /* retry in place */
            :: else -> after_failure(next); N = next
            fi;
            state = ACKED
        :: true ->
            atomic { chk[p].complete = true; chk[p].upto = upto };
            N = G + 1;
            state = DONE
        fi
    :: k >= CHECKPOINTS -> break
    od
}

/* Recovery's verdicts and replay (recovery_files.cc, recovery.cc) on the
   files as they stand, with the checks above. */
active proctype Monitor() {
    byte i, first, covered, a, b;
    bool found, from_chk, continues;
    do
    :: atomic {
        found = false;
        from_chk = false;
        first = 0;
        covered = 0;
        /* a chk file counts when the log of its parity and generation acknowledges it */
        i = 0;
        do
        :: i < 2 ->
            if
            :: chk[i].used && log[i].used && log[i].ack && chk[i].gen == log[i].gen &&
               (!from_chk || chk[i].gen > first) ->
                assert(chk[i].complete);
                from_chk = true;
                found = true;
                first = chk[i].gen;
                covered = chk[i].upto
            :: else -> skip
            fi;
            i++
        :: else -> break
        od;
        /* else the logs alone, while log 0 holds the whole history */
        if
        :: !from_chk && log[0].used && log[0].gen == 0 && !log[0].gap && log[0].hi >= log[0].lo ->
            found = true
        :: else -> skip
        fi;
        assert(found || acknowledged == 0);
        if
        :: found ->
            a = 2; b = 2;
            i = 0;
            do
            :: i < 2 ->
                if
                :: log[i].used && log[i].gen == first -> a = i
                :: log[i].used && log[i].gen == first + 1 -> b = i
                :: else -> skip
                fi;
                i++
            :: else -> break
            od;
            if
            :: a < 2 && log[a].lo <= covered + 1 && log[a].hi > covered -> covered = log[a].hi
            :: else -> skip
            fi;
            continues = a < 2 && b < 2 && log[b].hi >= log[b].lo && !log[b].gap;
            if
            :: continues && log[b].lo <= covered + 1 && log[b].hi > covered -> covered = log[b].hi
            :: else -> skip
            fi;
            assert(covered >= acknowledged)
        :: else -> skip
        fi
       }
    od
}
