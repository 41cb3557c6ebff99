#include "host/broker.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "common/camera_controls.h"
#include "host/key_frame.h"
#include "host/listener.h"
#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr size_t kHeaderSize = sizeof(_MESSAGE_HEADER);
constexpr size_t kFrameHeaderSize = kHeaderSize + sizeof(VideoFrameHeader);

std::shared_ptr<const Bytes> CopyOf(std::span<const uint8_t> bytes) {
    return std::make_shared<const Bytes>(bytes.begin(), bytes.end());
}

// The body of an open or set-format request, unless its length is wrong.
std::optional<FormatRequest> FormatOf(std::span<const uint8_t> body) {
    if (body.size() != sizeof(FormatRequest)) {
        return std::nullopt;
    }
    return ReadRecord<FormatRequest>(body.data());
}

// As the plugin reads it: missing bytes count as 0, further bytes are ignored.
uint32_t ClosedCamera(std::span<const uint8_t> body) {
    uint32_t id = 0;
    std::memcpy(&id, body.data(), std::min(body.size(), sizeof id));
    return id;
}

// Whether the module may start its first camera before it starts this one.
bool StartsAnotherFirst(const FormatRequest& open) {
    const bool is_initial = open.width == 640 && open.height == 480 && open.fps == 15;
    return open.id != 0 && !is_initial;
}

bool IsSameFormat(const FormatRequest& left, const FormatRequest& right) {
    return left.width == right.width && left.height == right.height && left.fps == right.fps;
}

std::string FormatText(const FormatRequest& format) {
    return std::to_string(format.width) + "x" + std::to_string(format.height) + ", " +
           std::to_string(format.fps) + " frames per second";
}

std::string InUseText(const FormatRequest& format) {
    return "camera " + std::to_string(format.id) + " is in use by another peer at " + FormatText(format);
}

}  // namespace

// ---- Peers

void Broker::AddPeer(PeerId id, Clock::time_point now) {
    Peer& peer = m_peers[id];
    peer.last_request = peer.last_taken = now;
}

void Broker::RemovePeer(PeerId id) {
    const auto found = m_peers.find(id);
    if (found == m_peers.end()) {
        return;
    }
    Peer& peer = found->second;
    EndWatches(id, peer);
    if (peer.lost_frames != 0) {
        m_log.push_back({kLogIgnored, "[host] peer " + std::to_string(id) + " was slow and lost " +
                                          std::to_string(peer.lost_frames) + " frames"});
    }
    m_peers.erase(found);
}

void Broker::EndPeer(PeerId id, const std::string& notice, const std::string& reason, Clock::time_point now) {
    Peer& peer = m_peers.at(id);
    if (peer.ended) {
        return;
    }
    m_log.push_back({kLogIgnored, "[host] peer " + std::to_string(id) + " is disconnected: " + notice});
    peer.ended = true;
    peer.end_reason = reason;
    peer.close_at = now + kLastNoticeTime;
    m_now = now;
    EndWatches(id, peer);
    // Frames would only delay the notice, but one of which a part was sent must stay whole.
    const auto first = peer.output.begin() + (peer.sent != 0 ? 1 : 0);
    const auto end = std::remove_if(first, peer.output.end(), [&peer](const Queued& queued) {
        if (queued.is_frame) {
            --peer.queued_frames;
            peer.queued_frame_bytes -= queued.message->size();
        }
        return queued.is_frame;
    });
    peer.output.erase(end, peer.output.end());
    const std::string text = HostNotice(notice);
    Send(peer, std::make_shared<const Bytes>(text.begin(), text.end()), false);
}

size_t Broker::InputSpace(PeerId id) const {
    const Peer& peer = m_peers.at(id);
    constexpr size_t kLargestRequest = kHeaderSize + kRequestLimit;
    return peer.ended || peer.input_ended ? 0 : kLargestRequest - (peer.input.size() - peer.served);
}

void Broker::OnInput(PeerId id, std::span<const uint8_t> bytes) {
    Peer& peer = m_peers.at(id);
    peer.input.erase(peer.input.begin(), peer.input.begin() + static_cast<std::ptrdiff_t>(peer.served));
    peer.served = 0;
    peer.input.insert(peer.input.end(), bytes.begin(), bytes.end());
}

void Broker::OnInputEnd(PeerId id) {
    m_peers.at(id).input_ended = true;
}

Broker::Output Broker::NextOutput(PeerId id) const {
    const Peer& peer = m_peers.at(id);
    if (peer.output.empty()) {
        return {};
    }
    const Message& message = peer.output.front().message;
    return {message, std::span(*message).subspan(peer.sent)};
}

void Broker::OnSent(PeerId id, size_t count, Clock::time_point now) {
    Peer& peer = m_peers.at(id);
    if (count != 0) {
        peer.last_taken = now;
    }
    peer.sent += count;
    const Queued& front = peer.output.front();
    const size_t size = front.message->size();
    if (peer.sent < size) {
        return;
    }
    if (front.is_frame) {
        --peer.queued_frames;
        peer.queued_frame_bytes -= size;
    } else {
        peer.queued_answer_bytes -= size;
    }
    peer.output.pop_front();
    peer.sent = 0;
}

bool Broker::IsDone(PeerId id, Clock::time_point now) const {
    const Peer& peer = m_peers.at(id);
    if (peer.ended) {
        return peer.output.empty() || now >= peer.close_at;
    }
    return peer.input_ended && !HasRequest(peer) && m_current.peer != id && peer.queued_answer_bytes == 0;
}

bool Broker::OnTime(Clock::time_point now) {
    m_now = now;
    bool changed = false;
    for (auto& [id, peer] : m_peers) {
        if (now >= StuckTime(peer)) {
            const std::string time = SecondsText(m_limits.stuck);
            EndPeer(id, "nothing was received for " + time, "took nothing for " + time, now);
            changed = true;
        } else if (now >= IdleTime(id, peer)) {
            const std::string time = SecondsText(m_limits.idle);
            EndPeer(id, "no camera was open and no request came for " + time, "idle for " + time, now);
            changed = true;
        }
    }
    const bool has_space = MayTakeFrame();
    if (!has_space || !m_had_space) {
        // No frame could be delivered, or not for long.
        for (auto& [id, camera] : m_cameras) {
            camera.last_frame = now;
        }
    }
    m_had_space = has_space;
    return CloseSilentCameras() || changed;
}

bool Broker::CloseSilentCameras() {
    bool changed = false;
    for (auto& [id, camera] : m_cameras) {
        if (m_now < SilentTime(camera)) {
            continue;
        }
        camera.last_frame = m_now;
        changed = Abandon(id, " delivers no frames: closed") || changed;
    }
    return changed;
}

bool Broker::Abandon(uint32_t camera, const std::string& what) {
    const bool is_opening = m_current.type == kOpenCamera && m_current.camera == camera;
    if (is_opening || !IsWatched(camera)) {
        return false;
    }
    m_log.push_back({kLogIgnored, "[host] camera " + std::to_string(camera) + what});
    CloseForPeers(camera);
    return true;
}

std::map<uint32_t, std::string> Broker::OpenDevices() const {
    std::map<uint32_t, std::string> devices;
    for (const auto& [id, camera] : m_cameras) {
        devices.emplace(id, camera.device);
    }
    return devices;
}

void Broker::OnDeviceGone(uint32_t camera, Clock::time_point now) {
    m_now = now;
    Abandon(camera, " is gone: closed");
}

Clock::time_point Broker::NextTime() const {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& [id, peer] : m_peers) {
        next = std::min({next, peer.close_at, StuckTime(peer), IdleTime(id, peer)});
    }
    for (const auto& [id, camera] : m_cameras) {
        next = std::min(next, SilentTime(camera));
    }
    return next;
}

// When the peer is ended because it has no camera open and asks for nothing.
Clock::time_point Broker::IdleTime(PeerId id, const Peer& peer) const {
    const bool is_busy = peer.ended || !peer.watches.empty() || !peer.output.empty() || HasRequest(peer) ||
                         m_current.peer == id;
    return is_busy || m_limits.idle.count() == 0 ? Clock::time_point::max()
                                                 : peer.last_request + m_limits.idle;
}

// When the peer is ended because it takes nothing of what waits for it.
Clock::time_point Broker::StuckTime(const Peer& peer) const {
    return peer.ended || peer.output.empty() || m_limits.stuck.count() == 0
               ? Clock::time_point::max()
               : peer.last_taken + m_limits.stuck;
}

// When the camera is taken for gone.
Clock::time_point Broker::SilentTime(const Camera& camera) {
    const Clock::duration frames = std::chrono::seconds(kSilenceFrames) / std::max(camera.format.fps, 1);
    return camera.last_frame + std::max<Clock::duration>(kSilenceTime, frames);
}

// ---- Requests

std::optional<Bytes> Broker::NextRequest(Clock::time_point now) {
    m_now = now;
    // Also if the plugin had no memory for the answer to an open.
    CloseChangedCamera();
    if (const auto opened = m_cameras.find(m_current.camera);
        m_current.type == kOpenCamera && opened != m_cameras.end()) {
        opened->second.last_frame = now;
        OnOpenDone();
    }
    if (m_current.peer != 0) {
        m_changed = true;
    }
    if (const auto asker = m_peers.find(m_current.peer); asker != m_peers.end()) {
        asker->second.last_request = now;
    }
    m_current = {};
    m_task.reset();
    auto next = m_peers.upper_bound(m_last_served);
    for (size_t i = 0; i < m_peers.size(); ++i) {
        if (auto close = CloseUnwatchedCamera()) {
            return close;
        }
        if (next == m_peers.end()) {
            next = m_peers.begin();
        }
        auto& [id, peer] = *next++;
        if (auto request = Serve(id, peer, now)) {
            m_last_served = id;
            return request;
        }
    }
    return CloseUnwatchedCamera();
}

// The next request of this peer that is for the plugin, or that makes a task.
std::optional<Bytes> Broker::Serve(PeerId id, Peer& peer, Clock::time_point now) {
    const bool waits = peer.open == Peer::Open::kListed || peer.open == Peer::Open::kAsked;
    while (!waits && !peer.ended && peer.queued_answer_bytes < kAnswerLimit && HasRequest(peer)) {
        const uint32_t length = FrontHeader(peer)->length;
        if (length > kRequestLimit) {
            EndPeer(id,
                    "a request has " + std::to_string(length) + " bytes; the limit is " +
                        std::to_string(kRequestLimit),
                    "too long a request", now);
            break;
        }
        peer.last_request = now;
        if (peer.open == Peer::Open::kNew) {  // an open that waited has counted before
            peer.request_pace = std::max(peer.request_pace, now - kRequestPeriod) + kRequestInterval;
        }
        if (peer.request_pace > now) {
            EndPeer(id, "more than 100 requests per second", "too many requests", now);
            break;
        }
        const auto request = Unserved(peer).first(kHeaderSize + length);
        if (MustPrepare(peer, request)) {
            const uint32_t camera = ReadRecord<FormatRequest>(request.data() + kHeaderSize).id;
            if (const std::string refusal = m_gate->OpenRefusal(); !refusal.empty()) {
                RefuseOpen(id, peer, camera, refusal);
                continue;
            }
            return PrepareOpen(id, peer, camera);
        }
        peer.served += request.size();
        peer.open = Peer::Open::kNew;
        peer.agreed.clear();
        m_changed = true;
        const bool is_for_plugin = Decide(id, peer, request);
        if (is_for_plugin || m_task) {
            m_current.peer = id;
            m_current.type = ReadHeader(request.data()).type;
            return is_for_plugin ? Bytes(request.begin(), request.end()) : Bytes();
        }
    }
    return std::nullopt;
}

std::optional<_MESSAGE_HEADER> Broker::FrontHeader(const Peer& peer) {
    const auto unserved = Unserved(peer);
    if (unserved.size() < kHeaderSize) {
        return std::nullopt;
    }
    return ReadHeader(unserved.data());
}

std::span<const uint8_t> Broker::Unserved(const Peer& peer) {
    return std::span(peer.input).subspan(peer.served);
}

// Whether Serve can do something: a message is complete, or it is too long.
bool Broker::HasRequest(const Peer& peer) {
    const auto header = FrontHeader(peer);
    return header &&
           (header->length > kRequestLimit || Unserved(peer).size() >= kHeaderSize + header->length);
}

bool Broker::Decide(PeerId id, Peer& peer, std::span<const uint8_t> request) {
    const std::span<const uint8_t> body = request.subspan(kHeaderSize);
    switch (ReadHeader(request.data()).type) {
        case kVersionRequest:
        case kGetCameraList:
            return true;
        case kOpenCamera: {
            const auto format = FormatOf(body);
            return format && DecideOpen(id, peer, *format);
        }
        case kSetFormat: {
            const auto format = FormatOf(body);
            return format && DecideFormat(id, peer, *format);
        }
        case kCloseCamera:
            return DecideClose(id, peer, ClosedCamera(body));
        case kSetProperty:
            return body.size() == sizeof(PropertyRequest) &&
                   DecideProperty(peer, ReadRecord<PropertyRequest>(body.data()));
        case kGetControls:
            if (body.size() == sizeof(uint32_t)) {
                DecideControls(peer, ReadRecord<uint32_t>(body.data()));
            }
            return false;
        default:
            return false;
    }
}

bool Broker::DecideOpen(PeerId id, Peer& peer, const FormatRequest& request) {
    const auto found = m_cameras.find(request.id);
    if (found == m_cameras.end()) {
        Camera& camera = m_cameras[request.id];
        camera.format = request;
        camera.filter = StartsAnotherFirst(request) ? FrameFilter::kUntilAnswer : FrameFilter::kNone;
        camera.file = peer.allowed.camera.file;
        camera.identity = peer.allowed.identity;
        camera.device = camera.file;
        peer.allowed = {};
        camera.last_frame = m_now;
        peer.watches.try_emplace(request.id);
        m_current.camera = request.id;
        AddTask(DeviceTask::Kind::kFindDevice, request.id);
        return true;
    }
    if (peer.watches.contains(request.id)) {
        // As the plugin does, whatever the format is.
        SendState(peer, kCameraOpen, request.id);
    } else if (IsSameFormat(request, found->second.format)) {
        SendState(peer, kCameraOpen, request.id);
        Join(peer, request.id, found->second);
        BeginWatch(id, peer, request.id);
    } else {
        RefuseFormat(id, peer, request, InUseText(found->second.format));
    }
    return false;
}

bool Broker::DecideClose(PeerId id, Peer& peer, uint32_t camera) {
    EndWatch(id, peer, camera);
    if (IsWatched(camera)) {
        SendState(peer, kCameraClosed, camera);
        return false;
    }
    m_cameras.erase(camera);
    return true;
}

bool Broker::DecideFormat(PeerId id, Peer& peer, const FormatRequest& request) {
    m_current.camera = request.id;
    const auto found = m_cameras.find(request.id);
    if (!peer.watches.contains(request.id) || found == m_cameras.end()) {
        // Without an effect. Only logged, if it is not about the camera of another peer.
        return found == m_cameras.end();
    }
    Camera& camera = found->second;
    if (!IsWatchedByOthers(request.id, peer)) {
        const bool is_same = IsSameFormat(request, camera.format);
        if (!is_same && m_gate != nullptr && m_gate->AsksOwner()) {
            RefuseFormat(id, peer, request,
                         "the owner of this host has agreed to " + FormatText(camera.format));
            return false;
        }
        Camera changed;
        changed.format = request;
        // Unless the gate checks it, the module may find another file by now.
        changed.device = is_same ? camera.device : camera.file;
        changed.file = std::move(camera.file);
        changed.identity = std::move(camera.identity);
        changed.shown = std::move(camera.shown);
        changed.last_frame = m_now;
        if (camera.filter != FrameFilter::kNone) {
            changed.filter = camera.filter;
            changed.has_key_frames = camera.has_key_frames;
        }
        camera = std::move(changed);
        Watch& watch = peer.watches[request.id];
        watch.waits_for_key_frame = watch.is_slow = false;
        if (!is_same) {
            AddTask(DeviceTask::Kind::kFindDevice, request.id);
        }
        return true;
    }
    if (!IsSameFormat(request, camera.format)) {
        RefuseFormat(id, peer, request, InUseText(camera.format));
    }
    return false;
}

// With a gate that checks opens, only a camera that the peer has open is certain to be lent.
bool Broker::MayControl(const Peer& peer, uint32_t camera) const {
    return m_gate == nullptr || peer.watches.contains(camera) ||
           (!m_gate->ChecksOpens() && m_gate->OpenRefusal().empty());
}

void Broker::DecideControls(Peer& peer, uint32_t camera) {
    if (MayControl(peer, camera)) {
        AddTask(DeviceTask::Kind::kReportControls, camera);
        return;
    }
    Bytes message(kHeaderSize + sizeof(ControlsHeader));
    WriteRecord(WriteHeader(message.data(), kCameraControls, sizeof(ControlsHeader)),
                ControlsHeader{camera, kControlsFailed});
    Send(peer, std::make_shared<const Bytes>(std::move(message)), false);
}

bool Broker::DecideProperty(const Peer& peer, const PropertyRequest& request) {
    if (FindControl(request.property) != nullptr && MayControl(peer, request.id)) {
        AddTask(DeviceTask::Kind::kSetControl, request.id, request);
    }
    return !IsWatchedByOthers(request.id, peer);
}

void Broker::AddTask(DeviceTask::Kind kind, uint32_t camera, const PropertyRequest& change) {
    const auto open = m_cameras.find(camera);
    m_task = {kind, camera, open != m_cameras.end() ? open->second.device : "", change};
}

void Broker::OnTaskDone(const DeviceTask& task, const DeviceResult& result, Clock::time_point now) {
    m_now = now;
    if (const auto camera = m_cameras.find(task.camera); camera != m_cameras.end()) {
        camera->second.device = result.device;
    }
    if (!result.change.empty()) {
        m_log.push_back({result.failed ? kLogIgnored : kLogEvent,
                         "[host] peer " + std::to_string(m_current.peer) + ", " + result.change});
        m_changed = true;
    }
    const auto asker = m_peers.find(m_current.peer);
    if (!result.message.empty() && asker != m_peers.end() && !asker->second.ended) {
        Send(asker->second, CopyOf(result.message), false);
    }
}

// The request to close a camera that nobody watches any more.
std::optional<Bytes> Broker::CloseUnwatchedCamera() {
    for (const auto& [id, camera] : m_cameras) {
        if (!IsWatched(id)) {
            Bytes request(kHeaderSize + sizeof id);
            WriteRecord(WriteHeader(request.data(), kCloseCamera, sizeof id), id);
            m_cameras.erase(id);
            m_current.type = kCloseCamera;
            return request;
        }
    }
    return std::nullopt;
}

bool Broker::IsWatched(uint32_t camera) const {
    return std::ranges::any_of(m_peers,
                               [camera](const auto& entry) { return entry.second.watches.contains(camera); });
}

bool Broker::IsWatchedByOthers(uint32_t camera, const Peer& peer) const {
    return std::ranges::any_of(m_peers, [&](const auto& entry) {
        return &entry.second != &peer && entry.second.watches.contains(camera);
    });
}

void Broker::Join(Peer& peer, uint32_t id, const Camera& camera) {
    // A peer that takes nothing could join again and again, and would hold one group after the other.
    const bool fits = peer.queued_frames + camera.group.size() <= kQueuedFramesLimit &&
                      peer.queued_frame_bytes + camera.group_bytes <= kQueuedBytesLimit;
    Watch& watch = peer.watches[id];
    watch.waits_for_key_frame = camera.has_key_frames && (camera.group.empty() || !fits);
    if (fits) {
        for (const Message& frame : camera.group) {
            ++watch.frames;
            watch.bytes += frame->size();
            Send(peer, frame, true);
        }
    }
}

void Broker::RefuseFormat(PeerId id, Peer& peer, const FormatRequest& request, const std::string& text) {
    m_log.push_back({kLogIgnored, "[host] peer " + std::to_string(id) + " is refused " + FormatText(request) +
                                      ": " + text});
    SendFailure(peer, request.id, text);
}

void Broker::SendFailure(Peer& peer, uint32_t camera, const std::string& text) {
    const std::string notice = HostNotice(text);
    Send(peer, std::make_shared<const Bytes>(notice.begin(), notice.end()), false);
    SendState(peer, kCameraFailed, camera);
}

// ---- The gate

// Whether the gate must allow this request first.
bool Broker::MustPrepare(const Peer& peer, std::span<const uint8_t> request) const {
    if (m_gate == nullptr || ReadHeader(request.data()).type != kOpenCamera ||
        request.size() != kHeaderSize + sizeof(FormatRequest)) {
        return false;
    }
    const uint32_t camera = ReadRecord<FormatRequest>(request.data() + kHeaderSize).id;
    if (peer.watches.contains(camera)) {
        return false;
    }
    const auto open = m_cameras.find(camera);
    return !m_gate->OpenRefusal().empty() ||
           (open == m_cameras.end() ? m_gate->ChecksOpens() && peer.open != Peer::Open::kAllowed
                                    : m_gate->AsksOwner() && !HasAgreed(peer, open->second.identity));
}

// The request that comes before this open. Nothing if the open waits.
std::optional<Bytes> Broker::PrepareOpen(PeerId id, Peer& peer, uint32_t camera) {
    if (const auto open = m_cameras.find(camera); open != m_cameras.end()) {
        AskOwner(id, peer, open->second.shown, open->second.identity);
        return std::nullopt;
    }
    peer.open = Peer::Open::kListed;
    m_open_check = {id, camera};
    Bytes list(kHeaderSize);
    WriteHeader(list.data(), kGetCameraList, 0);
    return list;
}

std::optional<Broker::OpenCheck> Broker::TakeOpenCheck() {
    return std::exchange(m_open_check, std::nullopt);
}

void Broker::OnOpenCheck(const OpenCheck& check, const CameraGate::Verdict& verdict) {
    const auto found = m_peers.find(check.peer);
    if (found == m_peers.end() || found->second.ended) {
        return;
    }
    Peer& peer = found->second;
    if (!verdict.refusal.empty()) {
        RefuseOpen(check.peer, peer, check.camera, verdict.refusal);
    } else if (m_gate->AsksOwner() && !HasAgreed(peer, verdict.identity)) {
        AskOwner(check.peer, peer, verdict.camera, verdict.identity);
    } else {
        peer.open = Peer::Open::kAllowed;
        peer.allowed = verdict;
    }
}

void Broker::AskOwner(PeerId id, Peer& peer, const ListedCamera& camera, const std::string& identity) {
    peer.open = Peer::Open::kAsked;
    peer.asked = identity;
    m_events.push_back(
        {.kind = Event::Kind::kAsked, .peer = id, .request = FrontOpen(peer), .camera = camera});
    m_changed = true;
}

// The camera may have changed while the owner was asked, so it is checked again.
void Broker::OnDecision(PeerId id, const std::string& refusal, Clock::time_point now) {
    m_now = now;
    const auto found = m_peers.find(id);
    if (found == m_peers.end() || found->second.ended || found->second.open != Peer::Open::kAsked) {
        return;
    }
    Peer& peer = found->second;
    if (refusal.empty()) {
        peer.agreement = {peer.asked, FrontOpen(peer), now + kAgreementTime};
        peer.agreed = std::move(peer.asked);
        peer.open = Peer::Open::kAgreed;
    } else {
        peer.agreement = {};
        RefuseOpen(id, peer, FrontOpen(peer).id, refusal);
    }
}

bool Broker::HasAgreed(const Peer& peer, const std::string& identity) const {
    const Peer::Agreement& agreement = peer.agreement;
    const FormatRequest wanted = FrontOpen(peer);
    const bool is_no_larger = wanted.width <= agreement.format.width &&
                              wanted.height <= agreement.format.height && wanted.fps <= agreement.format.fps;
    return peer.agreed == identity ||
           (agreement.identity == identity && is_no_larger && m_now < agreement.until);
}

std::optional<Broker::DeviceCheck> Broker::UncheckedDevice() const {
    const auto found = m_cameras.find(m_current.camera);
    const bool is_started = m_current.type == kOpenCamera || m_current.type == kSetFormat;
    if (!is_started || found == m_cameras.end() || found->second.file.empty() || found->second.is_checked) {
        return std::nullopt;
    }
    return DeviceCheck{found->first, found->second.file, found->second.identity};
}

void Broker::OnDeviceCheck(const DeviceCheck& check, bool is_same) {
    if (const auto found = m_cameras.find(check.camera); found != m_cameras.end()) {
        found->second.is_checked = true;
        found->second.is_other = !is_same;
    }
}

bool Broker::IsUnchecked(std::span<const uint8_t> bytes) const {
    if (!IsFrame(bytes)) {
        return false;
    }
    const auto found = m_cameras.find(ReadRecord<VideoFrameHeader>(bytes.data() + kHeaderSize).id);
    // Those that are dropped need not wait.
    return found != m_cameras.end() && !found->second.file.empty() && !found->second.is_checked &&
           found->second.filter != FrameFilter::kUntilAnswer;
}

bool Broker::IsAsked(PeerId id) const {
    const Peer& peer = m_peers.at(id);
    return !peer.ended && peer.open == Peer::Open::kAsked;
}

// The open at the front of the peer's input, which waits for the gate.
FormatRequest Broker::FrontOpen(const Peer& peer) {
    return ReadRecord<FormatRequest>(Unserved(peer).data() + kHeaderSize);
}

void Broker::BeginWatch(PeerId id, Peer& peer, uint32_t camera) {
    const Camera& opened = m_cameras.at(camera);
    peer.watches.at(camera).opened = m_now;
    peer.agreement = {};
    m_events.push_back(
        {.kind = Event::Kind::kOpened, .peer = id, .request = opened.format, .camera = opened.shown});
    m_changed = true;
}

bool Broker::EndWatch(PeerId id, Peer& peer, uint32_t camera) {
    const auto found = peer.watches.find(camera);
    if (found == peer.watches.end()) {
        return false;
    }
    const Watch& watch = found->second;
    if (watch.opened) {
        const Camera& opened = m_cameras.at(camera);
        m_events.push_back({.kind = Event::Kind::kClosed,
                            .peer = id,
                            .request = opened.format,
                            .camera = opened.shown,
                            .time = m_now - *watch.opened,
                            .frames = watch.frames,
                            .bytes = watch.bytes});
        m_changed = true;
    }
    peer.watches.erase(found);
    return true;
}

void Broker::EndWatches(PeerId id, Peer& peer) {
    while (!peer.watches.empty()) {
        EndWatch(id, peer, peer.watches.begin()->first);
    }
}

// Answers the open at the front of the peer's input.
void Broker::RefuseOpen(PeerId id, Peer& peer, uint32_t camera, const std::string& text) {
    peer.last_request = m_now;
    peer.served += kHeaderSize + sizeof(FormatRequest);
    peer.open = Peer::Open::kNew;
    peer.agreed.clear();
    m_log.push_back({kLogIgnored, "[host] peer " + std::to_string(id) + " may not open camera " +
                                      std::to_string(camera) + ": " + text});
    SendFailure(peer, camera, text);
}

// Whether the module has opened the camera that the gate has allowed.
bool Broker::IsExpected(uint32_t id, const Camera& camera) const {
    return camera.file.empty() || (!camera.is_other && m_gate->IsStill(id, camera.file));
}

// A change of format starts the camera again, and the module then looks for it by its number. An open is
// checked with its answer, but the plugin may have had no memory for one.
void Broker::CloseChangedCamera() {
    const auto found = m_cameras.find(m_current.camera);
    const bool may_have_changed = m_current.type == kOpenCamera || m_current.type == kSetFormat;
    if (!may_have_changed || found == m_cameras.end() || !IsWatched(found->first) ||
        IsExpected(found->first, found->second)) {
        return;
    }
    m_log.push_back(
        {kLogIgnored, "[host] camera " + std::to_string(found->first) + " is another one now: closed"});
    CloseForPeers(found->first);
}

// NextRequest closes what nobody watches.
void Broker::CloseForPeers(uint32_t camera) {
    for (auto& [id, peer] : m_peers) {
        if (EndWatch(id, peer, camera)) {
            peer.last_request = m_now;
            SendState(peer, kCameraClosed, camera);
        }
    }
}

// ---- Answers and frames

void Broker::Inform(const std::string& text) {
    const auto asker = m_peers.find(m_current.peer);
    if (asker != m_peers.end() && !asker->second.ended) {
        const std::string message = HostInformation(text);
        Send(asker->second, std::make_shared<const Bytes>(message.begin(), message.end()), false);
    }
}

bool Broker::IsFrame(std::span<const uint8_t> bytes) {
    return bytes.size() >= kFrameHeaderSize && ReadHeader(bytes.data()).type == kVideoFrame;
}

bool Broker::IsList(std::span<const uint8_t> bytes) {
    return bytes.size() >= kHeaderSize + sizeof(uint32_t) && ReadHeader(bytes.data()).type == kCameraList;
}

bool Broker::MayTakeFrame() const {
    if (const auto opening = m_cameras.find(m_current.camera);
        m_current.type == kOpenCamera && opening != m_cameras.end() &&
        opening->second.filter == FrameFilter::kUntilAnswer) {
        return true;
    }
    bool any_watches = false;
    for (const auto& [id, peer] : m_peers) {
        if (!peer.watches.empty()) {
            if (peer.queued_frames == 0) {
                return true;
            }
            any_watches = true;
        }
    }
    return !any_watches;
}

bool Broker::OnMessage(std::span<const uint8_t> bytes, Clock::time_point now) {
    m_now = now;
    if (bytes.size() < kHeaderSize || ReadHeader(bytes.data()).length != bytes.size() - kHeaderSize) {
        return false;
    }
    if (IsFrame(bytes)) {
        OnFrame(bytes, now);
    } else {
        OnAnswer(bytes);
    }
    return true;
}

void Broker::OnAnswer(std::span<const uint8_t> bytes) {
    const auto asker = m_peers.find(m_current.peer);
    const auto opened = m_cameras.find(m_current.camera);
    if (m_current.type == kOpenCamera && opened != m_cameras.end() &&
        !IsExpected(opened->first, opened->second)) {
        // NextRequest closes it.
        const std::string text = "the cameras of the host have changed";
        m_log.push_back(
            {kLogIgnored, "[host] camera " + std::to_string(opened->first) + " is closed: " + text});
        if (asker != m_peers.end() && !asker->second.ended) {
            asker->second.watches.erase(opened->first);
            SendFailure(asker->second, opened->first, text);
        }
        return;
    }
    if (m_current.type == kOpenCamera && bytes.size() == kHeaderSize + sizeof(StateNotice) &&
        ReadRecord<StateNotice>(bytes.data() + kHeaderSize).state == kCameraFailed) {
        m_cameras.erase(m_current.camera);
        if (asker != m_peers.end()) {
            asker->second.watches.erase(m_current.camera);
        }
    }
    OnOpenDone();
    // A peer that was ended or has left gets nothing more; the broker's own requests have no asker.
    if (asker != m_peers.end() && !asker->second.ended) {
        Send(asker->second, CopyOf(bytes), false);
    }
}

// The plugin has started the camera that is being opened, and no other one any more.
void Broker::OnOpenDone() {
    const auto opened = m_cameras.find(m_current.camera);
    if (m_current.type != kOpenCamera || opened == m_cameras.end()) {
        return;
    }
    Camera& camera = opened->second;
    if (camera.filter == FrameFilter::kUntilAnswer) {
        camera.filter = FrameFilter::kUntilKeyFrame;
    }
    const auto asker = m_peers.find(m_current.peer);
    if (asker == m_peers.end()) {
        return;
    }
    const auto watch = asker->second.watches.find(opened->first);
    if (watch != asker->second.watches.end() && !watch->second.opened) {
        camera.shown = m_gate != nullptr ? m_gate->Camera(opened->first) : ListedCamera{};
        BeginWatch(asker->first, asker->second, opened->first);
    }
}

void Broker::OnFrame(std::span<const uint8_t> bytes, Clock::time_point now) {
    const uint32_t id = ReadRecord<VideoFrameHeader>(bytes.data() + kHeaderSize).id;
    const auto found = m_cameras.find(id);
    if (found == m_cameras.end()) {
        return;
    }
    const bool is_starting =
        m_current.camera == id && (m_current.type == kOpenCamera || m_current.type == kSetFormat);
    if (is_starting && !IsExpected(id, found->second)) {
        return;
    }
    const bool is_key_frame = IsKeyFrame(bytes.subspan(kFrameHeaderSize));
    Camera& camera = found->second;
    if (camera.filter == FrameFilter::kUntilAnswer ||
        (camera.filter == FrameFilter::kUntilKeyFrame && camera.has_key_frames && !is_key_frame)) {
        camera.has_key_frames |= is_key_frame;
        return;
    }
    camera.filter = FrameFilter::kNone;
    camera.last_frame = now;
    const Message message = CopyOf(bytes);
    Remember(camera, message, is_key_frame, now);
    for (auto& [peer_id, peer] : m_peers) {
        if (peer.watches.contains(id)) {
            Offer(peer_id, peer, id, message, is_key_frame);
        }
    }
}

void Broker::Remember(Camera& camera, const Message& message, bool is_key_frame, Clock::time_point now) {
    if (is_key_frame) {
        camera.has_key_frames = true;
        camera.group_begin = now;
    } else if (camera.group.empty()) {
        return;
    }
    if (is_key_frame || camera.group.size() == kGroupFramesLimit ||
        camera.group_bytes + message->size() > kGroupBytesLimit ||
        now - camera.group_begin > kGroupTimeLimit) {
        camera.group.clear();
        camera.group_bytes = 0;
    }
    if (is_key_frame || !camera.group.empty()) {
        camera.group.push_back(message);
        camera.group_bytes += message->size();
    }
}

void Broker::Offer(PeerId id, Peer& peer, uint32_t camera, const Message& message, bool is_key_frame) {
    Watch& watch = peer.watches.at(camera);
    if (watch.waits_for_key_frame && !is_key_frame) {
        peer.lost_frames += watch.is_slow ? 1 : 0;
        return;
    }
    if (peer.queued_frames >= kQueuedFramesLimit || peer.queued_frame_bytes >= kQueuedBytesLimit) {
        if (peer.lost_frames++ == 0) {
            m_log.push_back({kLogIgnored, "[host] peer " + std::to_string(id) +
                                              " is slow and loses frames of camera " +
                                              std::to_string(camera)});
        }
        watch.waits_for_key_frame = m_cameras.at(camera).has_key_frames;
        watch.is_slow = true;
        return;
    }
    watch.waits_for_key_frame = watch.is_slow = false;
    ++watch.frames;
    watch.bytes += message->size();
    Send(peer, message, true);
}

void Broker::Send(Peer& peer, Message message, bool is_frame) {
    const size_t size = message->size();
    if (peer.output.empty()) {
        peer.last_taken = m_now;
    }
    peer.output.push_back({std::move(message), is_frame});
    if (is_frame) {
        ++peer.queued_frames;
        peer.queued_frame_bytes += size;
    } else {
        peer.queued_answer_bytes += size;
    }
    m_changed = true;
}

void Broker::SendState(Peer& peer, CameraState state, uint32_t camera) {
    Bytes message(kHeaderSize + sizeof(StateNotice));
    WriteRecord(WriteHeader(message.data(), kCameraState, sizeof(StateNotice)), StateNotice{state, camera});
    Send(peer, std::make_shared<const Bytes>(std::move(message)), false);
}

}  // namespace zumod::host
