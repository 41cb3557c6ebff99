#include "vcam/model/camera.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vcam/model/ioctl_table.h"

namespace zumod::vcam {

using Clock = FrameThread::Clock;

namespace {

// Whether the fault changes the sequence numbers or the times of all frames of a stream.
bool ChangesClock(FaultKind kind) {
    return kind == FaultKind::kTooFast || kind == FaultKind::kSequenceWrap || kind == FaultKind::kTimeWrap;
}

}  // namespace

Camera::Camera(unsigned slot, CameraConfig config, std::string server_name, CameraBoard& board)
    : m_slot(slot), m_server_name(std::move(server_name)), m_board(board), m_parts(std::move(config), board) {
    m_board.plug.store(1, std::memory_order_release);
    for (const Fault& fault : m_parts.formats.Config().faults) {
        Inject(fault);
    }
    m_parts.frames.Start(m_lock, [this](FrameThread::Next next) ZU_NO_THREAD_SAFETY_ANALYSIS {
        OnFrameThread(next);  // the frame thread holds the lock
    });
}

Camera::~Camera() {
    {
        const MutexLock held(m_lock);
        Unplug();
    }
    m_parts.frames.Stop(m_lock);
}

uint32_t Camera::OpenDelay() {
    const MutexLock held(m_lock);
    const Fault* slow = m_parts.faults.Find(FaultKind::kSlowOpen);
    return slow == nullptr ? 0 : static_cast<uint32_t>(slow->value);
}

int Camera::Open(uint32_t flags, UniqueFd& program_end, FileIdentity& identity) {
    const MutexLock held(m_lock);
    Reap();
    if (!m_parts.plug.IsPresent(Clock::now())) {
        return ENOENT;
    }
    if (const int error = m_parts.faults.FailsCall(kOpenCall); error != 0) {
        return error;
    }
    identity = {};
    std::memcpy(identity.server, m_server_name.data(),
                std::min(m_server_name.size(), sizeof identity.server));
    identity.slot = m_slot;
    identity.file = m_next_file++;
    identity.plug = m_board.plug.load(std::memory_order_relaxed);
    identity.flags = flags;
    identity.number = static_cast<uint32_t>(m_parts.plug.Number());
    OpenFile file;
    if (!file.Open(identity, program_end)) {
        return errno;
    }
    file.SendMark();
    m_parts.events.Add(m_files.emplace(identity.file, std::move(file)).first->second);
    return 0;
}

int Camera::Serve(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor) {
    const MutexLock held(m_lock);
    Reap();
    const auto file = m_files.find(request.file);
    const bool is_open =
        file != m_files.end() && request.plug == m_board.plug.load(std::memory_order_relaxed);
    const int error = is_open ? ServeFile(file->second, request, payload, descriptor) : ENODEV;
    NotifyFeed();
    m_parts.frames.Wake();
    return error;
}

int Camera::ServeFile(const OpenFile& file, const Request& request, std::vector<uint8_t>& payload,
                      UniqueFd& descriptor) {
    switch (request.operation) {
        case Operation::kIoctl:
            return ServeIoctl(m_parts, file, request, payload);
        case Operation::kCheck:
            return m_parts.faults.FailsCall(request.command);
        case Operation::kMap:
            return m_parts.buffers.Map(file, request.value, request.argument, request.flags != 0, descriptor);
        case Operation::kRearm:
            if ((request.flags & kRearmStopped) != 0 &&
                !(m_parts.buffers.IsStreaming() && m_parts.buffers.IsOwner(file))) {
                file.SendMark();
            }
            if ((request.flags & kRearmEvent) != 0) {
                m_parts.events.Rearm(file);
            }
            return 0;
        default:
            return EINVAL;
    }
}

void Camera::Reap() {
    for (auto file = m_files.begin(); file != m_files.end();) {
        if (!file->second.IsAbandoned()) {
            ++file;
            continue;
        }
        m_parts.events.Remove(file->second);
        if (m_parts.buffers.IsOwner(file->second)) {
            m_parts.buffers.Disown();
            NotifyFeed();
        }
        file = m_files.erase(file);
    }
    if (m_parts.buffers.HasOwnerClosed()) {
        m_parts.frames.WaitUntilPainted(m_lock);
        m_parts.buffers.FreeIfUnmapped();
    }
}

void Camera::Unplug() {
    if (!m_parts.plug.IsPresent(Clock::now())) {
        return;
    }
    m_parts.plug.Unplug();
    // First: programs that are woken by the rest must see that the camera is gone.
    m_board.plug.fetch_add(1, std::memory_order_acq_rel);
    m_parts.buffers.Stop();
    m_parts.buffers.Free();
    m_parts.events.Clear();
    m_files.clear();
    m_parts.controls = Controls();
    NotifyFeed();
}

void Camera::UnplugByFault() {
    const auto now = Clock::now();
    if (!m_parts.plug.IsPresent(now)) {
        return;
    }
    Unplug();
    for (const FaultKind kind : {FaultKind::kReplug, FaultKind::kReplugAs}) {
        if (const std::optional<Fault> replug = m_parts.faults.Take(kind)) {
            m_parts.plug.Plan(*replug, now);
            break;
        }
    }
}

void Camera::PutPicture(std::shared_ptr<const PlanarImage> picture, uint64_t count) {
    const MutexLock held(m_lock);
    m_parts.live.Put(std::move(picture), Clock::now(), count);
    m_parts.frames.Wake();
}

bool Camera::AttachFeed(UniqueFd notices) {
    const MutexLock held(m_lock);
    if (m_feed) {
        return false;
    }
    m_feed = std::move(notices);
    m_noticed.reset();
    LetFeederPlug(true);
    NotifyFeed();
    return true;
}

void Camera::DetachFeed() {
    const MutexLock held(m_lock);
    m_feed.Reset();
    LetFeederPlug(false);
    m_parts.live.Put(nullptr, Clock::now());
}

void Camera::SetPlugged(bool is_plugged) {
    const MutexLock held(m_lock);
    LetFeederPlug(is_plugged);
}

void Camera::LetFeederPlug(bool is_plugged) {
    const auto now = Clock::now();
    if (!is_plugged) {
        Unplug();
    }
    m_parts.plug.Hold(!is_plugged);
    if (is_plugged && !m_parts.plug.IsPresent(now) && !m_parts.plug.IsReplugPlanned()) {
        m_parts.plug.Plan({.kind = FaultKind::kReplug}, now);
    }
}

void Camera::NotifyFeed() {
    const PictureLayout& layout = m_parts.formats.Layout();
    const Rate rate = m_parts.formats.CurrentRate();
    const FeedNotice notice{m_parts.buffers.IsStreaming() ? 1U : 0U, layout.width, layout.height,
                            rate.numerator, rate.denominator};
    if (!m_feed || notice == m_noticed) {
        return;
    }
    if (notice.is_streaming != 0 && (!m_noticed || m_noticed->is_streaming == 0)) {
        // A program does not see what the camera showed to another one, maybe an hour ago.
        m_parts.live.Put(nullptr, Clock::now());
    }
    m_noticed = notice;
    if (send(m_feed.Get(), &notice, sizeof notice, MSG_DONTWAIT | MSG_NOSIGNAL) != sizeof notice) {
        // It does not read its notices. The server sees the end of the connection.
        shutdown(m_feed.Get(), SHUT_RDWR);
    }
}

void Camera::OnFrameThread(FrameThread::Next next) {
    if (next == FrameThread::Next::kUnplug) {
        UnplugByFault();
    } else {
        Reap();
    }
}

void Camera::Inject(const Fault& fault) {
    const MutexLock held(m_lock);
    const auto now = Clock::now();
    const bool is_replug = fault.kind == FaultKind::kReplug || fault.kind == FaultKind::kReplugAs;
    if (fault.kind == FaultKind::kUnplug && fault.first == 0) {
        UnplugByFault();
    } else if (is_replug && !m_parts.plug.IsPresent(now)) {
        m_parts.plug.Plan(fault, now);
    } else {
        m_parts.faults.Add(fault);
        if (ChangesClock(fault.kind) && m_parts.buffers.IsStreaming()) {
            m_parts.frames.RestartClock(now);
        }
    }
    OnFaultsChanged();
}

void Camera::ClearFaults() {
    const MutexLock held(m_lock);
    const bool was_fast = m_parts.faults.Has(FaultKind::kTooFast);
    m_parts.faults.Clear();
    if (was_fast && m_parts.buffers.IsStreaming()) {
        m_parts.frames.RestartClock(Clock::now());
    }
    OnFaultsChanged();
}

void Camera::OnFaultsChanged() {
    m_board.slow.store((m_parts.faults.CountsCallsOf(VIDIOC_DQBUF) ? CameraBoard::kSlowDequeue : 0) |
                           (m_parts.faults.CountsCallsOf(VIDIOC_QBUF) ? CameraBoard::kSlowQueue : 0),
                       std::memory_order_release);
    m_parts.frames.Wake();
}

CameraStatus Camera::Status() {
    const MutexLock held(m_lock);
    Reap();
    CameraStatus status;
    status.present = m_parts.plug.IsPresent(Clock::now());
    status.number = m_parts.plug.Number();
    status.streaming = m_parts.buffers.IsStreaming();
    status.open_files = static_cast<unsigned>(m_files.size());
    status.delivered = m_parts.frames.Delivered();
    status.dropped = m_parts.frames.Dropped();
    status.fourcc = m_parts.formats.Layout().fourcc;
    status.size = {m_parts.formats.Layout().width, m_parts.formats.Layout().height};
    status.rate = m_parts.formats.CurrentRate();
    return status;
}

CameraConfig Camera::Config() {
    const MutexLock held(m_lock);
    return m_parts.formats.Config();
}

int Camera::Number() {
    const MutexLock held(m_lock);
    return m_parts.plug.IsPresent(Clock::now()) ? m_parts.plug.Number() : -1;
}

}  // namespace zumod::vcam
