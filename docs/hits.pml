/* The protocol of docs/hits.md for one block: two pieces on it, a client of each that maps and
 * unmaps, somebody who evicts, clears and gathers, and somebody who frees the pieces. spin takes
 * every interleaving of their steps; scripts/check_hits runs it, and sees each FAULT found.
 *
 * A step between two semicolons is indivisible, as one access to memory is. `atomic` stands for a
 * compare-exchange, and for the few lines that a lock makes one step anyway. */

#define MAPPED   0
#define UNMAPPED 1
#define CACHED   2

#ifndef FAULT
#define FAULT 0
#endif

#define ROUNDS 2

typedef Word { byte stat; byte refs; bool noted };

Word word;              /* the block's word */
bool view;              /* there is a view */
bool record = true;     /* the block's record lives */
bool listed;            /* the block stands in the notes */
bool queued;            /* the block stands in the queue */
bool piece[2] = true;   /* the pieces live */
byte pieces = 2;
bool mutex;
bool stripe[2];
byte done;

#define lock(m)   atomic { !m; m = true }
#define unlock(m) m = false

inline read(w)
{
    d_step { assert(record); w.stat = word.stat; w.refs = word.refs; w.noted = word.noted }
}

/* w is what the word was read as; what it became is read anew on failure. */
inline exchange(w, the_stat, the_refs, the_noted, ok)
{
    d_step {
        assert(record);
        if
        :: word.stat == w.stat && word.refs == w.refs && word.noted == w.noted ->
            word.stat = the_stat;
            word.refs = the_refs;
            word.noted = the_noted;
            ok = true
        :: else ->
            w.stat = word.stat;
            w.refs = word.refs;
            w.noted = word.noted;
            ok = false
        fi
    }
}

inline note()
{
    d_step { assert(record); assert(!listed); listed = true }
}

/* Mem_Hits::Hold */
inline hold(w, ok)
{
    read(w);
    ok = false;
    do
    :: ok || w.stat == UNMAPPED -> break
    :: else ->
        if
        :: w.stat == MAPPED -> exchange(w, MAPPED, w.refs + 1, w.noted, ok)
        :: else ->
            exchange(w, MAPPED, 1, true, ok);
            if
            :: ok && !w.noted && FAULT != 1 -> note()
            :: else
            fi
        fi
    od
}

/* Mem_Hits::LetGoUnlessLast */
inline let_go_unless_last(w, ok)
{
    read(w);
    ok = false;
    do
    :: ok || w.refs <= 1 -> break
    :: else -> exchange(w, w.stat, w.refs - 1, w.noted, ok)
    od
}

/* Mem_Hits::LetGoToCache */
inline let_go_to_cache(w, ok)
{
    do
    :: read(w);
        ok = false;
        do
        :: ok || w.stat != MAPPED || w.refs != 1 -> break
        :: else ->
            exchange(w, CACHED, 0, true, ok);
            if
            :: ok && !w.noted -> note()
            :: else
            fi
        od;
        if
        :: ok -> break
        :: else
        fi;
        let_go_unless_last(w, ok);
        if
        :: ok -> break
        :: else
        fi
    od
}

/* Mem_Views::Gather; under the mutex, as all that follows */
inline gather(w, ok)
{
    d_step { ok = listed; listed = false };
    if
    :: ok ->
        read(w);
        ok = false;
        do
        :: ok -> break
        :: else -> exchange(w, w.stat, w.refs, false, ok)
        od;
        queued = w.stat == CACHED
    :: else
    fi
}

inline end_view()
{
    d_step { assert(record); assert(view); view = false }
}

/* Mem_Views::EvictAtLeast, of this block's turn */
inline evict(w, ok)
{
    gather(w, ok);
    if
    :: queued ->
        queued = false;
        w.stat = CACHED;
        w.refs = 0;
        w.noted = false;
#if FAULT == 2
        ok = word.stat == CACHED;
        if
        :: ok -> word.stat = UNMAPPED
        :: else
        fi;
#else
        exchange(w, UNMAPPED, 0, false, ok);
#endif
        if
        :: ok -> end_view()
        :: else
        fi
    :: else
    fi
}

/* Mem_Views::ClearCache */
inline clear(w, ok)
{
    read(w);
    if
    :: w.stat == CACHED ->
        exchange(w, UNMAPPED, 0, w.noted, ok);
        if
        :: ok -> end_view()
        :: else
        fi
    :: else
    fi;
    queued = false
}

/* Mem_Views::Drop */
inline drop(w, ok)
{
    do
    :: let_go_unless_last(w, ok);
        if
        :: ok -> break
        :: else
        fi;
        read(w);
        if
        :: w.stat == MAPPED && w.refs == 1 ->
            exchange(w, UNMAPPED, 0, w.noted, ok);
            if
            :: ok -> end_view(); break
            :: else
            fi
        :: else
        fi
    od
}

proctype Client(byte me)
{
    Word w;
    bool ok;
    byte round;
    do
    :: round == ROUNDS -> break
    :: else ->
        round++;
        lock(stripe[me]);
        if
        :: !piece[me] -> unlock(stripe[me]); break
        :: else
        fi;
        hold(w, ok);
        if
        :: ok
        :: else ->
            lock(mutex);
            if
            :: view
            :: else -> view = true
            fi;
            hold(w, ok);
            if
            :: ok
            :: else -> d_step { word.stat = MAPPED; word.refs = 1 }
            fi;
            unlock(mutex)
        fi;
        unlock(stripe[me]);

        /* The client's own use of the memory. A piece that was freed under it is its own fault. */
        d_step { assert(!piece[me] || view) };

        lock(stripe[me]);
        if
        :: !piece[me] -> unlock(stripe[me]); break
        :: else
        fi;
        assert(view);
        let_go_unless_last(w, ok);
        if
        :: ok
        :: else ->
            if
            :: let_go_to_cache(w, ok)
            :: lock(mutex); /* over the limit */
                let_go_unless_last(w, ok);
                if
                :: ok
                :: else ->
                    evict(w, ok);
                    if
                    :: let_go_to_cache(w, ok)
                    :: drop(w, ok)
                    fi
                fi;
                unlock(mutex)
            fi
        fi;
        unlock(stripe[me])
    od;
    done++
}

proctype Reclaimer()
{
    Word w;
    bool ok;
    byte round;
    do
    :: round == ROUNDS -> break
    :: else ->
        round++;
        lock(mutex);
        if
        :: record ->
            if
            :: evict(w, ok)
            :: clear(w, ok)
            :: gather(w, ok)
            fi
        :: else
        fi;
        unlock(mutex)
    od;
    done++
}

proctype Freer(byte me)
{
    Word w;
    bool ok;
#if FAULT != 3
    lock(stripe[me]);
#endif
    lock(mutex);
    piece[me] = false;
    pieces--;
    if
    :: pieces == 0 ->
#if FAULT != 4
        read(w);
        if
        :: w.noted -> gather(w, ok)
        :: else
        fi;
#endif
        queued = false;
        d_step { assert(!listed); assert(!word.noted); record = false; view = false }
    :: else
    fi;
    unlock(mutex);
#if FAULT != 3
    unlock(stripe[me]);
#endif
    done++
}

init
{
    Word w;
    bool ok;
    byte i;
    word.stat = UNMAPPED;
    if
    :: i = 3
    :: i = 4
    :: i = 5
    fi;
    atomic {
        run Client(0);
        run Client(1);
        run Reclaimer();
        if
        :: i > 3 -> run Freer(0)
        :: else
        fi;
        if
        :: i > 4 -> run Freer(1)
        :: else
        fi
    };
    done == i;
    /* Nobody is at work: what the queue is told now has to be all there is to tell. */
    if
    :: record ->
        gather(w, ok);
        d_step {
            assert(!word.noted);
            assert(queued == (word.stat == CACHED));
            assert(view == (word.stat != UNMAPPED));
            assert((word.refs > 0) == (word.stat == MAPPED))
        }
    :: else
    fi
}
