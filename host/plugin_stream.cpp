#include "host/plugin_stream.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <span>
#include <utility>

namespace zumod::host {
namespace {

constexpr int kFailed = -1;

}  // namespace

PluginStream::PluginStream(const PeerLimits& limits)
    : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_broker(limits) {}

int PluginStream::Read(void* data, unsigned long size, unsigned long* done) {
    try {
        while (const std::optional<DeviceTask> task = WaitForRequest()) {
            const DeviceResult result = Perform(*task);
            const MutexLock lock(m_mutex);
            m_broker.OnTaskDone(*task, result, Clock::now());
            WakeMain();
        }
    } catch (const std::bad_alloc&) {
        End();
    }
    const MutexLock lock(m_mutex);
    if (m_ended) {
        return kFailed;
    }
    const size_t count = std::min<size_t>(size, m_request.size() - m_read);
    std::memcpy(data, m_request.data() + m_read, count);
    m_read += count;
    *done = count;
    return 0;
}

std::optional<DeviceTask> PluginStream::WaitForRequest() {
    const MutexLock lock(m_mutex);
    while (m_read == m_request.size() && !m_ended) {
        std::optional<Bytes> request = m_broker.NextRequest(Clock::now());
        // The send thread: no frame waits during some opens.
        m_changed.notify_all();
        WakeMain();
        if (!request) {
            m_changed.wait(m_mutex);
            continue;
        }
        m_request = std::move(*request);
        m_read = 0;
        if (auto task = m_broker.TakeTask()) {
            return task;
        }
    }
    return std::nullopt;
}

int PluginStream::Write(const void* data, unsigned long size, unsigned long* done) {
    const std::span<const uint8_t> bytes(static_cast<const uint8_t*>(data), size);
    const MutexLock lock(m_mutex);
    while (!m_ended && Broker::IsFrame(bytes) && !m_broker.MayTakeFrame()) {
        m_changed.wait(m_mutex);
    }
    try {
        if (m_ended || !m_broker.OnMessage(bytes, Clock::now())) {
            return kFailed;
        }
    } catch (const std::bad_alloc&) {
        // Nothing may throw on the send thread. A peer may miss a message now, so the session ends.
        EndLocked();
        return kFailed;
    }
    WakeMain();
    *done = size;
    return 0;
}

void PluginStream::WakePlugin() {
    const MutexLock lock(m_mutex);
    m_changed.notify_all();
}

void PluginStream::End() {
    const MutexLock lock(m_mutex);
    EndLocked();
}

void PluginStream::EndLocked() {
    m_ended = true;
    m_changed.notify_all();
}

void PluginStream::ClearWake() {
    eventfd_t count = 0;
    eventfd_read(m_wake.Get(), &count);
}

void PluginStream::WakeMain() {
    if (m_broker.TakeChange()) {
        eventfd_write(m_wake.Get(), 1);
    }
}

}  // namespace zumod::host
