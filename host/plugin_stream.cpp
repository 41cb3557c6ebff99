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

PluginStream::PluginStream(const PeerLimits& limits, CameraGate* gate)
    : m_gate(gate), m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_broker(limits, gate) {}

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
        if (const auto check = m_broker.TakeOpenCheck()) {
            CheckOpen(*check);
            continue;
        }
        CheckDevice();
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

// Looking at a device may block.
void PluginStream::CheckOpen(const Broker::OpenCheck& check) {
    m_mutex.unlock();
    CameraGate::Verdict verdict;
    try {
        verdict = m_gate->CheckOpen(check.camera);
    } catch (...) {
        m_mutex.lock();
        throw;
    }
    m_mutex.lock();
    m_broker.OnOpenCheck(check, verdict);
}

// Of the camera that the plugin has just started, if the gate must look at it.
void PluginStream::CheckDevice() {
    const auto check = m_broker.UncheckedDevice();
    if (!check) {
        return;
    }
    m_mutex.unlock();
    bool is_same = false;
    try {
        is_same = CameraGate::IsDevice(check->file, check->identity);
    } catch (...) {
        m_mutex.lock();
        throw;
    }
    m_mutex.lock();
    m_broker.OnDeviceCheck(*check, is_same);
    m_changed.notify_all();
}

int PluginStream::Write(const void* data, unsigned long size, unsigned long* done) {
    const std::span<const uint8_t> bytes(static_cast<const uint8_t*>(data), size);
    try {
        if (!Pass(bytes)) {
            return kFailed;
        }
    } catch (const std::bad_alloc&) {
        // Nothing may throw on the send thread. A peer may miss a message now, so the session ends.
        End();
        return kFailed;
    }
    *done = size;
    return 0;
}

bool PluginStream::Pass(std::span<const uint8_t> bytes) {
    const std::optional<CameraGate::Listing> listing = Filter(bytes);
    const MutexLock lock(m_mutex);
    if (!Broker::IsFrame(bytes)) {
        CheckDevice();
    }
    while (!m_ended && Broker::IsFrame(bytes) && (!m_broker.MayTakeFrame() || m_broker.IsUnchecked(bytes))) {
        m_changed.wait(m_mutex);
    }
    if (m_ended) {
        return false;
    }
    if (listing) {
        for (const std::string& text : listing->information) {
            m_broker.Inform(text);
        }
    }
    const bool passed =
        m_broker.OnMessage(listing ? std::span<const uint8_t>(listing->message) : bytes, Clock::now());
    WakeMain();
    return passed;
}

// What the asker gets for a camera list; nothing if it gets the message unchanged. Looking at devices may
// block.
std::optional<CameraGate::Listing> PluginStream::Filter(std::span<const uint8_t> bytes) {
    const bool is_for_peer = m_gate != nullptr && Broker::IsList(bytes) &&
                             Query([](const Broker& broker) { return broker.HasAsker(); });
    return is_for_peer ? std::optional(m_gate->OnList(bytes)) : std::nullopt;
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
