// A POSIX thread that calls a work function repeatedly until the function returns false or a stop is
// requested.
//
// Thread rule: one owner thread at a time calls Start, Stop, Join and SetName; IsRunning and Sleep are
// [owner, the thread itself]; IsCurrent is [any thread].
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace zumod {

// Binary table: slots 0 and 1 the destructor pair, then Start 2, Stop 3, StopEx 4, StartEx 5, Run 6, WaitStop
// 7, OnThreadExit 8, OnThreadStart 9.
class CBaseThread {
public:
    CBaseThread();
    // Neither stops nor joins: the owner calls Stop first, and keeps the object until a detached thread's
    // OnThreadExit has returned.
    virtual ~CBaseThread();

    CBaseThread(const CBaseThread&) = delete;
    CBaseThread& operator=(const CBaseThread&) = delete;

    // StartEx(false).
    virtual bool Start();
    // Requests a stop and joins without a time limit; the object may then be started again. Returns true.
    virtual bool Stop();
    // The same; passes the time on to WaitStop.
    virtual bool StopEx(int32_t time);
    // Starts the thread; a detached one runs a single pass. Returns true if the thread was started, now or
    // before; false if it could not be created.
    virtual bool StartEx(bool detach);

protected:
    // One pass of work; returns true to be called again.
    virtual bool Run() = 0;

public:
    // Requests a stop and joins, unless detached. Returns true. Required by the contract: the time is
    // ignored; the wait is always a full join.
    virtual bool WaitStop(int32_t time);

protected:
    // Called on the thread after the loop.
    virtual void OnThreadExit() {}
    // Called on the thread before the loop.
    virtual void OnThreadStart() {}

public:
    // Waits; a stop request does not end the wait. Returns true; returns at once if the thread is not
    // started.
    bool Sleep(int32_t milliseconds);
    // Joins a started thread that is not detached. Returns true.
    bool Join();
    // True from the start until the loop has ended.
    bool IsRunning() const;
    // For the owner's use only: the operating system's thread name is not set. A null pointer is ignored.
    void SetName(const char* text);
    const std::string& GetName() const { return m_name; }
    // Whether the calling thread is this one. (The thread itself has written the id that it is compared
    // with.)
    bool IsCurrent() const;

private:
    static void* Entry(void* self);
    void Loop();

    // Owner only; 0 when there is no thread to join.
    pthread_t m_handle = 0;
    // Written by the owner, read by the owner and by IsRunning and Sleep on the thread; relaxed: the flag
    // publishes no other data. Creation and join order everything else.
    std::atomic<bool> m_started{false};
    // Written by the owner, polled by the thread; relaxed: a late read costs one more pass.
    std::atomic<bool> m_stop_request{false};
    // Written by the thread, read by IsRunning; relaxed: the join synchronises.
    std::atomic<bool> m_finished{false};
    // Written by the owner before the thread is created, read by both; a detached thread may outlive the
    // start, hence atomic.
    std::atomic<bool> m_detached{false};
    // Written by the owner before the thread is created.
    pid_t m_starter_id = 0;
    // Written by the thread, for IsCurrent and a debugger; relaxed: a detached thread may still be starting
    // when the next one writes.
    std::atomic<pid_t> m_own_id{0};
    std::string m_name;
};

static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free,
              "a shared flag is a plain byte");
static_assert(sizeof(pid_t) == 4 && sizeof(std::atomic<pid_t>) == 4 &&
                  std::atomic<pid_t>::is_always_lock_free,
              "kernel thread ids have 32 bits");
static_assert(sizeof(CBaseThread) == 32 + sizeof(std::string),
              "table pointer, handle, four flags, two thread ids, name");

}  // namespace zumod
