/* One bucket of a store, its writer and two readers, store by store.
 *
 * Two keys: KEEP is always there (it is replaced, never deleted), GUEST comes and goes. Two tables; a
 * record has a link for each. A record's value stands in two words, so that who meets it half written
 * or half reused sees halves that differ; its checksum tells them. A node that was taken out waits on
 * the hold list. The wait may end early, also under a reader that stands on the node: the clock
 * promises nothing about a reader that was stopped.
 *
 * What a reader must never do: give out halves that differ or a value that its key never had, call a
 * record bad that is not, miss KEEP. Its means: after the answer was taken the link still leads to
 * the record, which still says what it said, and the tables have not moved; a miss needs so many
 * walks, the last two of which met the same records, and tables that have not moved.
 *
 * Each store of the writer and each load of a reader is a step of its own, as on a machine whose
 * stores become visible in order and whose loads are not reordered (x86-64).
 *
 * Faults put in with -D:
 *   PUBLISH_EARLY   the record is linked before it is filled
 *   NO_HOLD         nodes are free at once, and readers trust what they read
 *   NO_VALIDATION   readers trust what they read; the hold list may end early
 *   NO_MOVE_CHECK   readers do not look whether the tables have moved
 *   FLIP_EARLY      the flag moves to the new table before the refill is over
 *   ONE_WALK        a miss counts after a single walk
 *   UNLINK_CLEARS   a delete clears the link of the record that it takes out */
#define NODES 4
#define TRIES 3
#ifndef OPS
#define OPS 3
#endif
#ifndef WALKS
#define WALKS 3
#endif
#define NIL 0
#define KEEP 1
#define GUEST 2

byte key[NODES + 1], low[NODES + 1], high[NODES + 1], sum[NODES + 1];
byte next[2 * (NODES + 1)]; /* by table and node */
byte first[2];
byte flag;         /* flips so far; odd: table 1 is in force. comm_flg and the versions in one */
bool held[NODES + 1], used[NODES + 1];
byte gen = 2;      /* the newest value written */
byte keyof[OPS + 3];  /* the key that each value was stored under */

#define NOW (flag % 2)
#define OTHER (1 - NOW)
#define NEXT(t, n) next[(t) * (NODES + 1) + (n)]

/* ---- the writer ---- */

byte w_node, w_old, w_prev, w_at, w_ops;
bool w_refill;     /* the other table holds its records, too */

inline find_old(t, k) {
    d_step {
        w_prev = NIL;
        w_old = first[t];
        do
        :: w_old != NIL && key[w_old] != k -> w_prev = w_old; w_old = NEXT(t, w_old)
        :: else -> break
        od
    }
}

/* A node that was never used, or one that was held. A reader may stand on the latter. */
inline take_node() {
    if
    :: !used[1] && !held[1] -> w_node = 1
    :: !used[2] && !held[2] -> w_node = 2
    :: !used[3] && !held[3] -> w_node = 3
    :: !used[4] && !held[4] -> w_node = 4
    :: held[1] -> w_node = 1
    :: held[2] -> w_node = 2
    :: held[3] -> w_node = 3
    :: held[4] -> w_node = 4
    fi;
    d_step { held[w_node] = false; used[w_node] = true }
    NEXT(0, w_node) = NIL; /* clear_node of the manager */
    NEXT(1, w_node) = NIL
}

inline fill_node(k) {
    key[w_node] = k;
    low[w_node] = gen;
    high[w_node] = gen;
    sum[w_node] = 2 * gen
}

inline link_node(t, k) {
    find_old(t, k);
    if
    :: w_old != NIL -> NEXT(t, w_node) = NEXT(t, w_old)
    :: else -> NEXT(t, w_node) = first[t]
    fi;
    if
    :: w_old != NIL && w_prev != NIL -> NEXT(t, w_prev) = w_node /* in the old one's place */
    :: else -> first[t] = w_node
    fi
}

inline unlink_old(t) {
    if
    :: w_prev != NIL -> NEXT(t, w_prev) = NEXT(t, w_old)
    :: else -> first[t] = NEXT(t, w_old)
    fi;
#ifdef UNLINK_CLEARS
    NEXT(t, w_old) = NIL
#endif
}

inline put_away() {
#ifdef NO_HOLD
    used[w_old] = false
#else
    d_step { used[w_old] = false; held[w_old] = true }
#endif
}

inline put_key(k) {
    take_node();
    d_step { gen++; keyof[gen] = k }
#ifdef PUBLISH_EARLY
    link_node(NOW, k);
    fill_node(k);
#else
    fill_node(k);
    link_node(NOW, k);
#endif
    if
    :: w_refill -> link_node(OTHER, k) /* finds the old one there, too */
    :: else -> skip
    fi;
    if
    :: w_old != NIL -> put_away()
    :: else -> skip
    fi
}

inline drop_guest() {
    find_old(NOW, GUEST);
    if
    :: w_old == NIL -> skip
    :: else ->
        unlink_old(NOW);
        if
        :: w_refill -> find_old(OTHER, GUEST); unlink_old(OTHER)
        :: else -> skip
        fi;
        put_away()
    fi
}

/* The other table is emptied, then every record of the table in force goes into it, in front. */
inline refill() {
    first[OTHER] = NIL;
    w_at = first[NOW];
#ifdef FLIP_EARLY
    flag++;
    do
    :: w_at != NIL -> NEXT(NOW, w_at) = first[NOW]; first[NOW] = w_at; w_at = NEXT(OTHER, w_at)
    :: else -> break
    od
#else
    do
    :: w_at != NIL -> NEXT(OTHER, w_at) = first[OTHER]; first[OTHER] = w_at; w_at = NEXT(NOW, w_at)
    :: else -> break
    od;
    w_refill = true
#endif
}

inline flip() {
    flag++;
    w_refill = false
}

proctype writer() {
    do
    :: w_ops < OPS ->
        w_ops++;
        if
        :: put_key(KEEP)
        :: put_key(GUEST)
        :: drop_guest()
        :: !w_refill -> refill()
        :: w_refill -> flip()
        fi
    :: w_ops == OPS -> break
    od
}

/* ---- the readers ---- */

proctype reader(byte k) {
    byte snap, t, at, seen, last_seen, walks, tries, steps, r_low, r_high, r_sum;

again:
    if
    :: tries == TRIES -> goto done /* as much as the model follows */
    :: else -> tries++
    fi;
    snap = flag;
    t = snap % 2;
    walks = 0;
    last_seen = 255;
walk:
    seen = 0;
    steps = 0;
    at = first[t];
    do
    :: at == NIL -> goto miss
    :: at != NIL && steps > NODES -> goto again /* a ring, by way of reused nodes */
    :: else ->
        steps++;
        r_sum = sum[at];
        if
        :: key[at] == k -> break
        :: else -> seen = seen * 5 + at; at = NEXT(t, at)
        fi
    od;
    r_low = low[at];
    r_high = high[at];
#if !defined(NO_VALIDATION) && !defined(NO_HOLD)
    seen = first[t];
    steps = 0;
    do
    :: seen == at -> break
    :: seen != at && (seen == NIL || steps > NODES) -> goto again
    :: else -> steps++; seen = NEXT(t, seen)
    od;
    if
    :: sum[at] != r_sum -> goto again
    :: else -> skip
    fi;
#ifndef NO_MOVE_CHECK
    if
    :: flag != snap -> goto again
    :: else -> skip
    fi;
#endif
    assert(r_low + r_high == r_sum);                /* a bad checksum would be reported now */
#endif
    assert(r_low == r_high);                        /* of one piece */
    assert(r_low >= 1 && keyof[r_low] == k);           /* that was stored under this key */
    goto done;
miss:
    walks++;
#ifndef ONE_WALK
    if
    :: walks < WALKS || seen != last_seen -> last_seen = seen; goto walk
    :: else -> skip
    fi;
#endif
#ifndef NO_MOVE_CHECK
    if
    :: flag != snap -> goto again
    :: else -> skip
    fi;
#endif
    assert(k != KEEP);                              /* it is always there */
done:
    skip
}

init {
    d_step {
        /* GUEST in front of KEEP: a reader of KEEP passes a record that comes and goes */
        key[1] = KEEP; low[1] = 1; high[1] = 1; sum[1] = 2; used[1] = true; keyof[1] = KEEP;
        key[2] = GUEST; low[2] = 2; high[2] = 2; sum[2] = 4; used[2] = true; keyof[2] = GUEST;
        first[0] = 2; NEXT(0, 2) = 1
    }
#ifdef ONLY
    atomic { run writer(); run reader(ONLY) }
#else
    atomic { run writer(); run reader(KEEP); run reader(GUEST) }
#endif
}
