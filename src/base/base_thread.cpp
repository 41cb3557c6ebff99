#include "src/base/base_thread.h"

#include <sys/select.h>
#include <unistd.h>

#include "src/base/object_monitor.h"

namespace zumod {

CBaseThread::CBaseThread() {
    ADD_TO_MONITORING_LIST<CBaseThread>::CountNew();
}

CBaseThread::~CBaseThread() {
    ADD_TO_MONITORING_LIST<CBaseThread>::CountDelete();
}

bool CBaseThread::Start() {
    return StartEx(false);
}

bool CBaseThread::Stop() {
    return CBaseThread::StopEx(-1);
}

bool CBaseThread::StopEx(int32_t time) {
    if (!m_started.load(std::memory_order_relaxed)) {
        return true;
    }
    WaitStop(time);
    m_handle = 0;
    m_started.store(false, std::memory_order_relaxed);
    return true;
}

bool CBaseThread::StartEx(bool detach) {
    if (m_started.load(std::memory_order_relaxed)) {
        return true;
    }
    m_detached.store(detach, std::memory_order_relaxed);
    m_started.store(true, std::memory_order_relaxed);
    m_stop_request.store(false, std::memory_order_relaxed);
    m_finished.store(false, std::memory_order_relaxed);
    m_starter_id = gettid();
    if (pthread_create(&m_handle, nullptr, &CBaseThread::Entry, this) != 0) {
        m_started.store(false, std::memory_order_relaxed);
        m_handle = 0;
    }
    return m_started.load(std::memory_order_relaxed);
}

bool CBaseThread::WaitStop(int32_t /*time*/) {
    if (!m_started.load(std::memory_order_relaxed)) {
        return true;
    }
    m_stop_request.store(true, std::memory_order_relaxed);
    return Join();
}

bool CBaseThread::Sleep(int32_t milliseconds) {
    if (!m_started.load(std::memory_order_relaxed)) {
        return true;
    }
    timeval duration{};
    duration.tv_sec = milliseconds / 1000;
    duration.tv_usec = long{milliseconds % 1000} * 1000;
    select(0, nullptr, nullptr, nullptr, &duration);
    return true;
}

bool CBaseThread::Join() {
    const bool joinable =
        m_started.load(std::memory_order_relaxed) && !m_detached.load(std::memory_order_relaxed);
    // A handle can be joined only once, but Join and then Stop, or WaitStop twice, are allowed.
    if (joinable && m_handle != 0 && pthread_join(m_handle, nullptr) == 0) {
        m_handle = 0;
    }
    return true;
}

bool CBaseThread::IsRunning() const {
    return m_started.load(std::memory_order_relaxed) && !m_finished.load(std::memory_order_relaxed);
}

void CBaseThread::SetName(const char* text) {
    if (text != nullptr) {
        m_name = text;
    }
}

bool CBaseThread::IsCurrent() const {
    return IsRunning() && m_own_id.load(std::memory_order_relaxed) == gettid();
}

void* CBaseThread::Entry(void* self) {
    static_cast<CBaseThread*>(self)->Loop();
    return nullptr;
}

void CBaseThread::Loop() {
    m_own_id.store(gettid(), std::memory_order_relaxed);
    if (m_detached.load(std::memory_order_relaxed)) {
        pthread_detach(pthread_self());
    }
    OnThreadStart();
    // Required by the contract: the detached flag is tested after a pass, so a detached thread runs exactly
    // one.
    while (!m_stop_request.load(std::memory_order_relaxed) && Run() &&
           !m_detached.load(std::memory_order_relaxed)) {
    }
    m_finished.store(true, std::memory_order_relaxed);
    OnThreadExit();
}

}  // namespace zumod
