// Model of the send queue: two producers and a consumer while the run thread resets and closes it.
//
// A semaphore has a value, a mark that says whether it exists, and the number of threads that are inside a call on it.
// A thread is still inside after its post has taken effect, because a real sem_post may touch the semaphore until it
// returns. The lock is a mutex that is not fair, or one that is given in the order of the calls (FAIR_LOCK).
//
// Assumptions
// - Two producers with two messages each (one with FAIR_LOCK), one reset (two with LONG) and one close. A reset may
//   fail to create the semaphores.
// - A wait for a message may time out at any time. A wait for a free slot may not.
// - There are more free slots than messages, as there are 2^30 in the queue. With one slot the close would hang, because
//   its one post cannot wake two producers: PLANTED_ONE_SLOT.
// - The reads of m_running without the lock are only a first check. m_count is a hint and not modelled.
// - Sequential consistency.
//
// Properties
// - No deadlock: no Enqueue, Take, Reset or Close waits for what never comes.
// - No semaphore is used after it was destroyed or before it was created, and none is destroyed with a thread inside.
// - A thread that has taken a token of m_items in the same generation finds a message.
// - With a fair lock, Reset and Close end under weak fairness. With one that is not, a consumer that never sleeps could
//   keep the lock from them; the real one gives it up while it waits for a message, for up to 500 ms.
//
// Mirrors
// src/plugin/send_queue.h SemaphoreUse 8fb44c7025a7
// src/plugin/send_queue.cpp CSendQueue::Enqueue 66a67f1d2b71
// src/plugin/send_queue.cpp CSendQueue::Take 03b7d6fd69d9
// src/plugin/send_queue.cpp CSendQueue::Close 16b2d028b9cc
// src/plugin/send_queue.cpp CSendQueue::Reset 9f43a2dde2b9
// src/plugin/send_queue.cpp CSendQueue::BeginUse a0baac71d242
// src/plugin/send_queue.cpp CSendQueue::WaitInUse 3be3aede2405
// src/plugin/send_queue.cpp CSendQueue::OpenLocked 372c3541b5c9
// src/plugin/send_queue.cpp CSendQueue::CloseLocked 31f364dee404
// src/plugin/send_queue.cpp RetryOnInterrupt 7b5b46356035

#ifdef LONG
#define RESETS 2
#else
#define RESETS 1
#endif
#define PRODUCERS 2
#ifdef FAIR_LOCK
#define MESSAGES 1  // of each producer
#else
#define MESSAGES 2
#endif

#ifdef PLANTED_ONE_SLOT
#define SLOTS 1
#else
#define SLOTS (PRODUCERS * MESSAGES + 1)
#endif

#define FREE_SLOTS 0
#define ITEMS 1

typedef Semaphore {
    bool exists;
    byte value;
    byte inside;
};

Semaphore semaphores[2];
bool locked = false;      // m_lock
byte messages = 0;        // the length of m_list
bool queue_runs = false;  // m_running
byte generation = 0;      // m_generation
byte uses = 0;            // m_uses
bool finished = false;    // the send thread's stop request
bool closing = false;     // the run thread is in Reset or Close

ltl close_ends { [] (closing -> <> !closing) }

#ifdef FAIR_LOCK
// The first in the line has the lock.
chan line = [PRODUCERS + 2] of { byte };
inline Lock() {
    line!_pid;
    line?[eval(_pid)]
}
inline Unlock() {
    line?_
}
#else
inline Lock() {
    atomic { !locked -> locked = true }
}
inline Unlock() {
    locked = false
}
#endif

inline Create(s, initial) {
    d_step {
        assert(!semaphores[s].exists);
        semaphores[s].exists = true;
        semaphores[s].value = initial
    }
}

inline Destroy(s) {
    d_step {
        assert(semaphores[s].exists && semaphores[s].inside == 0);
        semaphores[s].exists = false;
        semaphores[s].value = 0
    }
}

inline Enter(s) {
    d_step {
        assert(semaphores[s].exists);
        semaphores[s].inside++
    }
}

inline Leave(s) {
    d_step {
        assert(semaphores[s].exists);
        semaphores[s].inside--
    }
}

inline Post(s) {
    Enter(s);
    semaphores[s].value++;
    Leave(s)
}

// SemaphoreUse. The caller holds the lock.
inline BeginUse(begun, its_generation) {
    d_step {
        begun = queue_runs;
        its_generation = generation;
        if
        :: begun -> uses++
        :: else -> skip
        fi
    }
}

inline EndUse(begun) {
    d_step {
        if
        :: begun -> uses--
        :: else -> skip
        fi;
        begun = false
    }
}

// CSendQueue::WaitInUse. `taken` says whether a token was taken.
inline WaitInUse(s, may_time_out) {
    taken = false;
    if
    :: !queue_runs -> skip
    :: queue_runs ->
        Lock();
        BeginUse(use, use_generation);
        Unlock();
        if
        :: !use -> skip
        :: use ->
            Enter(s);
            if
            :: atomic { semaphores[s].value > 0 -> semaphores[s].value-- }
                taken = true
            :: may_time_out -> skip
            fi;
            Leave(s);
            EndUse(use)
        fi
    fi
}

// Whether the queue was closed since the token was taken.
#ifdef PLANTED_NO_GENERATION
#define STALE false
#else
#define STALE (generation != use_generation)
#endif

// CSendQueue::Enqueue, MESSAGES times
proctype Producer() {
    bool use = false, taken, stale;
    byte use_generation, ignored, message;
    for (message : 1 .. MESSAGES) {
        WaitInUse(FREE_SLOTS, false);
        if
        :: !taken -> skip
        :: taken ->
            Lock();
            stale = STALE;
            if
            :: stale -> Unlock()
            :: else ->
                messages++;
                BeginUse(use, ignored);
                Unlock();
                if
                :: use -> Post(ITEMS)
                :: else -> assert(false)
                fi;
                EndUse(use)
            fi
        fi
    }
}

// CSendQueue::Take, until it is stopped
proctype Consumer() {
    bool use = false, taken, stale;
    byte use_generation, ignored;
    do
    :: finished -> break
    :: !finished ->
        WaitInUse(ITEMS, true);
        if
        :: !taken -> skip
        :: taken ->
            Lock();
            stale = STALE;
            if
            :: stale -> Unlock()
            :: else ->
                assert(messages > 0);
                messages--;
                BeginUse(use, ignored);
                Unlock();
                if
                :: use -> Post(FREE_SLOTS)
                :: else -> assert(false)
                fi;
                EndUse(use)
            fi
        fi
    od
}

// CSendQueue::OpenLocked
inline OpenLocked() {
    messages = 0;
    if
    :: true ->
        Create(FREE_SLOTS, SLOTS);
        Create(ITEMS, 0);
        queue_runs = true
    :: true -> skip
    fi
}

// CSendQueue::CloseLocked
inline CloseLocked() {
    if
    :: !queue_runs -> skip
    :: queue_runs ->
        queue_runs = false;
        generation++;
        Post(ITEMS);
        Post(FREE_SLOTS);
#ifndef PLANTED_NO_USES
        uses == 0;
#endif
        Destroy(FREE_SLOTS);
        Post(ITEMS);
        Destroy(ITEMS);
        messages = 0
    fi
}

init {
    byte reset, producer;
    OpenLocked();
    for (producer : 1 .. PRODUCERS) {
        run Producer()
    }
    run Consumer();
    // CSendQueue::Reset
    for (reset : 1 .. RESETS) {
        closing = true;
        Lock();
        CloseLocked();
        OpenLocked();
        Unlock();
        closing = false
    }
    // The plugin's destructor stops the send thread, then closes the queue. Here the consumer may also outlive the close.
    if
    :: true -> finished = true
    :: true -> skip
    fi;
    // CSendQueue::Close
    closing = true;
    Lock();
    CloseLocked();
    Unlock();
    closing = false;
    finished = true
}
