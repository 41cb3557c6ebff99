// The plugin's end of the broker: the stream that the plugin reads requests from and writes messages to.
//
// Three threads meet here. The plugin's run thread waits in Read until the broker has a request for it; the
// send thread waits in Write until a peer can take a frame; the main thread serves the peers' connections and
// never waits here. The run thread looks at cameras for the gate, without the mutex; the frames of a camera
// that it is about to look at wait on the send thread. The broker is guarded by
// one mutex, which nobody holds during a system call that may block. A change by the main thread wakes the
// two waiting threads (m_changed); a change by the plugin's threads makes Wake() readable for the main
// thread.
//
// Thread rule: Read is [run thread]; Write is [run thread, send thread]; End is [any thread]; the rest is
// [main thread].
#pragma once

#include <condition_variable>
#include <optional>
#include <span>
#include <utility>

#include "common/mutex.h"
#include "common/unique_fd.h"
#include "host/broker.h"
#include "host/camera_gate.h"
#include "zumod/channel_stream.h"
#include "zumod/reference.h"

namespace zumod::host {

class PluginStream final : public CCounted_T<IChannelStream> {
public:
    // `gate` is borrowed. Null: every camera may be listed and opened.
    explicit PluginStream(const PeerLimits& limits, CameraGate* gate = nullptr);
    ~PluginStream() override = default;

    // Whether the system had a descriptor for it; errno says why not.
    bool IsValid() const { return static_cast<bool>(m_wake); }

    int Read(void* data, unsigned long size, unsigned long* done) override;
    int Write(const void* data, unsigned long size, unsigned long* done) override;

    // Lets the threads that wait look again.
    void WakePlugin();

    // Makes all current and later calls of the plugin fail.
    void End();

    // Readable when the plugin's threads have changed something in the broker; ClearWake makes it unreadable.
    int Wake() const { return m_wake.Get(); }
    void ClearWake();

    // Calls `action` with the broker under the mutex, and returns its result. Call wakes the plugin's threads
    // for what the action changes; Update is for actions that do not concern them; Query cannot change
    // anything.
    template <class Action>
    auto Call(Action action) {
        const MutexLock lock(m_mutex);
        m_changed.notify_all();
        return action(m_broker);
    }
    template <class Action>
    auto Update(Action action) {
        const MutexLock lock(m_mutex);
        return action(m_broker);
    }
    template <class Action>
    auto Query(Action action) {
        const MutexLock lock(m_mutex);
        return action(std::as_const(m_broker));
    }

private:
    // Waits until m_request has bytes to read, or the stream has ended. Returns early with a task; then the
    // caller performs it, without the mutex, and calls again.
    std::optional<DeviceTask> WaitForRequest();
    void CheckOpen(const Broker::OpenCheck& check) ZU_REQUIRES(m_mutex);
    void CheckDevice() ZU_REQUIRES(m_mutex);
    bool Pass(std::span<const uint8_t> bytes);
    std::optional<CameraGate::Listing> Filter(std::span<const uint8_t> bytes);
    void EndLocked() ZU_REQUIRES(m_mutex);
    void WakeMain() ZU_REQUIRES(m_mutex);

    CameraGate* const m_gate;  // for the run thread
    const UniqueFd m_wake;     // an eventfd
    Mutex m_mutex;
    std::condition_variable_any m_changed;
    Broker m_broker ZU_GUARDED_BY(m_mutex);
    bool m_ended ZU_GUARDED_BY(m_mutex) = false;
    // The request that the plugin is reading.
    Bytes m_request ZU_GUARDED_BY(m_mutex);
    size_t m_read ZU_GUARDED_BY(m_mutex) = 0;  // bytes of it
};

}  // namespace zumod::host
