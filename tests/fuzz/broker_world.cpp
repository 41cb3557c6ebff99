#include "tests/fuzz/broker_world.h"

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include "tests/fuzz/check.h"

namespace zumod::testing {
namespace {

using host::Broker;
using host::PeerId;

constexpr uint8_t kList = 1;
constexpr uint8_t kOpen = 3;
constexpr uint8_t kClose = 4;
constexpr uint8_t kFormat = 9;
constexpr uint8_t kVersion = 10;
constexpr uint32_t kFailedState = 1;
constexpr uint32_t kOpenState = 2;
constexpr uint32_t kClosedState = 4;

constexpr size_t kLongestFrame = 300'000;
// What a peer may hold: an input that is read in pieces, frames, answers, and the objects around all of it.
constexpr size_t kPeerBytes = 2 * (host::kRequestLimit + 8) + host::kQueuedBytesLimit + kLongestFrame +
                              host::kAnswerLimit + size_t{512} * 1024;
constexpr size_t kCameraBytes = host::kGroupBytesLimit;
constexpr size_t kOtherBytes = size_t{64} * 1024;
// What may be kept without any peer.
constexpr int64_t kIdleBytes = 4096;

// Missing bytes count as 0.
uint32_t NumberAt(std::span<const uint8_t> bytes, size_t at) {
    uint32_t number = 0;
    for (size_t i = 0; i < 4 && at + i < bytes.size(); ++i) {
        number |= uint32_t{bytes[at + i]} << (8 * i);
    }
    return number;
}

// Bytes of the first message if it is whole; 0 if it is not.
size_t MessageSize(const Bytes& bytes) {
    const size_t size = 8 + size_t{NumberAt(bytes, 0)};
    return bytes.size() >= 8 && bytes.size() >= size ? size : 0;
}

Bytes RemoveFront(Bytes& bytes, size_t count) {
    const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(count);
    Bytes front(bytes.begin(), end);
    bytes.erase(bytes.begin(), end);
    return front;
}

}  // namespace

template <class Call>
auto BrokerWorld::Measured(Call call) {
    const auto before = static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
    const auto count = [&] {
        m_held += static_cast<int64_t>(__sanitizer_get_current_allocated_bytes()) - before;
    };
    if constexpr (std::is_void_v<decltype(call(m_broker))>) {
        call(m_broker);
        count();
    } else {
        auto result = call(m_broker);
        count();
        return result;
    }
}

// ---- Peers

BrokerWorld::Peer* BrokerWorld::At(size_t which) {
    return m_peers.empty() ? nullptr : &m_peers[which % m_peers.size()];
}

void BrokerWorld::Join() {
    if (m_peers.size() == kMostPeers) {
        return;
    }
    Peer peer{};
    peer.id = ++m_last_id;
    while (std::ranges::any_of(m_peers, [&](const Peer& other) { return other.slot == peer.slot; })) {
        ++peer.slot;
    }
    peer.last_arrival = peer.last_taken = m_now;
    Measured([&](Broker& broker) { broker.AddPeer(peer.id, m_now); });
    m_peers.push_back(std::move(peer));
}

void BrokerWorld::Leave(size_t which) {
    if (!m_peers.empty()) {
        Remove(which % m_peers.size());
    }
}

void BrokerWorld::Remove(size_t index) {
    Measured([&](Broker& broker) { broker.RemovePeer(m_peers[index].id); });
    m_peers.erase(m_peers.begin() + static_cast<std::ptrdiff_t>(index));
}

// As the server does after each round.
bool BrokerWorld::RemoveDone() {
    const size_t before = m_peers.size();
    for (size_t i = m_peers.size(); i-- != 0;) {
        if (m_broker.IsDone(m_peers[i].id, m_now)) {
            Remove(i);
        }
    }
    return m_peers.size() != before;
}

void BrokerWorld::Ask(size_t which, const Bytes& request) {
    constexpr size_t kMostWaiting = 200'000;
    if (Peer* peer = At(which); peer != nullptr && peer->wire.size() < kMostWaiting) {
        peer->wire = std::move(peer->wire) + request;
    }
}

void BrokerWorld::Arrive(size_t which, size_t count) {
    Peer* const peer = At(which);
    if (peer == nullptr) {
        return;
    }
    const size_t space = m_broker.InputSpace(peer->id);
    FUZZ_CHECK(space <= 8 + host::kRequestLimit);
    // One byte less than fits: no space shows that a peer has been ended.
    count = std::min({count, space == 0 ? 0 : space - 1, peer->wire.size()});
    if (count == 0) {
        return;
    }
    const Bytes bytes = RemoveFront(peer->wire, count);
    Measured([&](Broker& broker) { broker.OnInput(peer->id, bytes); });
    peer->last_arrival = m_now;
    peer->arrived = std::move(peer->arrived) + bytes;
    while (!peer->is_malformed && peer->arrived.size() >= 8) {
        peer->is_malformed = NumberAt(peer->arrived, 0) > host::kRequestLimit;
        const size_t size = MessageSize(peer->arrived);
        if (size == 0) {
            break;
        }
        OnRequest(*peer, RemoveFront(peer->arrived, size));
    }
}

void BrokerWorld::OnRequest(Peer& peer, const Bytes& request) {
    ++peer.requests;
    const uint8_t type = request[4];
    const bool has_format = request.size() == 8 + 16;
    if (type == kList || type == kVersion || type == kClose ||
        ((type == kOpen || type == kFormat) && has_format)) {
        const uint32_t number = NumberAt(request, 8);
        // A change of format is only answered if it is refused.
        peer.due.push_back({type, number, type == kFormat || peer.views[number].is_unknown});
    }
}

void BrokerWorld::EndInput(size_t which) {
    if (Peer* peer = At(which); peer != nullptr && !peer->input_ended) {
        peer->input_ended = true;
        Measured([&](Broker& broker) { broker.OnInputEnd(peer->id); });
    }
}

void BrokerWorld::End(size_t which) {
    if (Peer* peer = At(which)) {
        Measured([&](Broker& broker) { broker.EndPeer(peer->id, "ended", "ended", m_now); });
        if (!peer->ended) {
            peer->ended = true;
            peer->frames_after_end = peer->received.empty() ? 0 : 1;
        }
    }
}

// Finds the peers that the broker has ended, and checks that there was a reason.
void BrokerWorld::NoticeEnds() {
    for (Peer& peer : m_peers) {
        if (peer.ended || peer.input_ended || m_broker.InputSpace(peer.id) != 0) {
            continue;
        }
        constexpr uint64_t kManyRequests = host::kRequestPeriod / host::kRequestInterval;
        const host::PeerLimits limits;
        FUZZ_CHECK(peer.is_malformed || peer.requests >= kManyRequests ||
                   m_now - peer.last_arrival >= limits.idle || m_now - peer.last_taken >= limits.stuck);
        peer.ended = true;
        peer.frames_after_end = peer.received.empty() ? 0 : 1;
    }
}

bool BrokerWorld::HasOutput(const Peer& peer) const {
    return !m_broker.NextOutput(peer.id).rest.empty();
}

void BrokerWorld::Take(size_t which, size_t count) {
    Peer* const peer = At(which);
    while (peer != nullptr && count != 0 && HasOutput(*peer)) {
        size_t size = 0;
        {
            const auto output = m_broker.NextOutput(peer->id);
            const auto piece = output.rest.first(std::min(count, output.rest.size()));
            peer->received.insert(peer->received.end(), piece.begin(), piece.end());
            size = piece.size();
        }
        // Frees the message: nobody else holds it now.
        Measured([&](Broker& broker) { broker.OnSent(peer->id, size, m_now); });
        count -= size;
        peer->taken.bytes += size;
        peer->last_taken = m_now;
        while (const size_t whole = MessageSize(peer->received)) {
            const Bytes message = RemoveFront(peer->received, whole);
            OnMessage(*peer, message);
        }
    }
}

// ---- What a peer gets

bool BrokerWorld::TakeDue(Peer& peer, uint8_t request, uint32_t number) {
    while (!peer.due.empty()) {
        const Due front = peer.due.front();
        const bool found = front.request == request && front.number == number;
        if (!found && !front.optional) {
            return false;
        }
        peer.due.pop_front();
        if (found) {
            return true;
        }
    }
    return false;
}

bool BrokerWorld::IsDue(const Peer& peer, uint8_t request, uint32_t number) {
    return std::ranges::any_of(
        peer.due, [&](const Due& due) { return due.request == request && due.number == number; });
}

void BrokerWorld::OnMessage(Peer& peer, std::span<const uint8_t> message) {
    const auto is = [&](const Bytes& bytes) { return std::ranges::equal(message, bytes); };
    switch (message[4]) {
        case 2:
        case 11: {
            const uint8_t request = message[4] == 2 ? kList : kVersion;
            const auto is_answered = [&](const Due& due) {
                return due.request == request && is(AnswerTo(request, due.number));
            };
            while (!peer.due.empty() && peer.due.front().optional && !is_answered(peer.due.front())) {
                peer.due.pop_front();
            }
            FUZZ_CHECK(!peer.due.empty() && is_answered(peer.due.front()));
            peer.due.pop_front();
            break;
        }
        case 5:
            FUZZ_CHECK(message.size() == 16);
            OnState(peer, NumberAt(message, 8), NumberAt(message, 12));
            break;
        case 7:
            OnFrame(peer, message);
            break;
        case 128:
            FUZZ_CHECK(message.size() <= 8 + 256);
            FUZZ_CHECK(
                std::ranges::all_of(message.subspan(8), [](uint8_t c) { return c >= ' ' && c <= '~'; }));
            break;
        default:
            FUZZ_CHECK(false);
    }
}

void BrokerWorld::OnState(Peer& peer, uint32_t state, uint32_t camera) {
    View& view = peer.views[camera];
    FUZZ_CHECK(state == kFailedState || state == kOpenState || state == kClosedState);
    if (view.is_unknown) {
        return;
    }
    switch (state) {
        case kOpenState:
            FUZZ_CHECK(TakeDue(peer, kOpen, camera));
            view.is_open = true;
            return;
        case kClosedState:
            FUZZ_CHECK(TakeDue(peer, kClose, camera) || view.silent-- > 0);
            break;
        default:
            if (view.is_open) {
                // A refused change of format, which does not close the camera.
                FUZZ_CHECK(TakeDue(peer, kFormat, camera));
                return;
            }
            FUZZ_CHECK(TakeDue(peer, kOpen, camera));
    }
    view.is_open = false;
    view.starts = true;
}

void BrokerWorld::OnFrame(Peer& peer, std::span<const uint8_t> message) {
    const uint32_t id = NumberAt(message, 8);
    ++peer.taken.frames;
    FUZZ_CHECK(!peer.ended || peer.frames_after_end-- > 0);
    FUZZ_CHECK(m_cameras.contains(id));
    const std::vector<Frame>& frames = m_cameras.at(id).frames;
    // The number of the frame is at the end of its payload.
    const size_t index = NumberAt(message, message.size() - 4);
    FUZZ_CHECK(index < frames.size() && std::ranges::equal(message, FrameMessage(id, index)));
    View& view = peer.views[id];
    if (view.is_unknown) {
        return;
    }
    // It may come before the answer to the open.
    FUZZ_CHECK(view.is_open || IsDue(peer, kOpen, id));
    const bool can_be_first = frames[index].kind == Kind::kKey || !frames[index].after_key;
    if (view.starts) {
        FUZZ_CHECK(can_be_first);
    } else {
        FUZZ_CHECK(index > view.last);
        if (index != view.last + 1) {
            FUZZ_CHECK(can_be_first);
            const Taken then = frames[view.last + 1].taken[peer.slot];
            FUZZ_CHECK(peer.taken.frames - then.frames > host::kQueuedFramesLimit ||
                       peer.taken.bytes - then.bytes > host::kQueuedBytesLimit);
        }
    }
    view.starts = false;
    view.last = index;
}

// ---- The plugin

Bytes BrokerWorld::AnswerTo(uint8_t request, uint32_t number) {
    return request == kList ? ListBytes({CameraBytes(0, "Camera " + std::to_string(number), {{640, 480}})})
                            : MessageBytes(11, Number32(number));
}

void BrokerWorld::NextRequest() {
    if (m_request) {
        AnswerRequest(Answer::kUsual);
    }
    do {
        m_request = Measured([&](Broker& broker) { return broker.NextRequest(m_now); });
        // What the host does with the camera's device has no effect here.
        Measured([&](Broker& broker) {
            if (const auto task = broker.TakeTask()) {
                broker.OnTaskDone(*task, {}, m_now);
            }
        });
    } while (m_request && m_request->empty());
    if (!m_request) {
        if (m_peers.empty()) {
            for (const auto& [id, camera] : m_cameras) {
                FUZZ_CHECK(!camera.is_open);
            }
        }
        return;
    }
    // Allocated by the broker, and from here on not its memory.
    m_held -= static_cast<int64_t>(m_request->capacity());
    FUZZ_CHECK(MessageSize(*m_request) == m_request->size());
    const uint32_t id = NumberAt(*m_request, 8);
    if ((*m_request)[4] == kFormat && m_cameras.contains(id)) {
        m_cameras.at(id).has_key = false;
    } else if ((*m_request)[4] == kOpen) {
        FUZZ_CHECK(!m_cameras.contains(id) || !m_cameras.at(id).is_open);
        if (id < kCameras) {
            Camera& camera = m_cameras[id];
            camera.is_open = true;
            camera.has_key = false;
            camera.last_frame = m_now;
        }
    } else if ((*m_request)[4] == kClose) {
        m_lost_failures.erase(id);
        if (m_cameras.contains(id)) {
            m_cameras.at(id).is_open = false;
        }
    }
}

void BrokerWorld::AnswerRequest(Answer answer) {
    if (!m_request) {
        return;
    }
    const uint8_t type = (*m_request)[4];
    const uint32_t number = NumberAt(*m_request, 8);
    m_request.reset();
    Camera* const camera = m_cameras.contains(number) ? &m_cameras.at(number) : nullptr;
    if (type == kOpen && answer == Answer::kFailed && camera != nullptr) {
        camera->is_open = false;
    }
    if (answer == Answer::kLost) {
        LoseAnswer(type, number);
        if (type == kOpen && camera == nullptr) {
            m_lost_failures.insert(number);
        }
    } else if (type == kList || type == kVersion) {
        Write(AnswerTo(type, number));
    } else if (type == kOpen) {
        const bool is_open = camera != nullptr && camera->is_open;
        Write(StateBytes(is_open ? kOpenState : kFailedState, number));
    } else if (type == kClose) {
        Write(StateBytes(kClosedState, number));
    }
}

void BrokerWorld::LoseAnswer(uint8_t request, uint32_t number) {
    for (Peer& peer : m_peers) {
        for (Due& due : peer.due) {
            // Of a camera, no answer is certain any more.
            const bool is_camera = request == kOpen || request == kClose;
            const bool is_due_camera = due.request == kOpen || due.request == kClose;
            due.optional |= due.number == number && (is_camera ? is_due_camera : due.request == request);
        }
        if (request == kOpen || request == kClose) {
            peer.views[number].is_unknown = true;
        }
    }
}

void BrokerWorld::Write(const Bytes& message) {
    FUZZ_CHECK(Measured([&](Broker& broker) { return broker.OnMessage(message, m_now); }));
}

void BrokerWorld::WriteMalformed(const Bytes& bytes) {
    if (MessageSize(bytes) != bytes.size() || bytes.empty()) {
        FUZZ_CHECK(!Measured([&](Broker& broker) { return broker.OnMessage(bytes, m_now); }));
    }
}

Bytes BrokerWorld::FrameMessage(uint32_t camera, size_t index) const {
    static const Bytes kBegin[] = {{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65}, {0, 0, 1, 0x41}, {9, 9, 9, 9}};
    const Frame& frame = m_cameras.at(camera).frames.at(index);
    Bytes encoded = kBegin[static_cast<size_t>(frame.kind)];
    encoded.resize(encoded.size() + frame.size, static_cast<uint8_t>(index));
    return FrameBytes(camera, encoded + Number32(static_cast<uint32_t>(index)));
}

// Whether this peer must get the next frame of the camera at once.
bool BrokerWorld::MustTake(const Peer& peer, uint32_t camera, Kind kind) const {
    const auto found = peer.views.find(camera);
    if (peer.ended || HasOutput(peer) || found == peer.views.end() || !found->second.is_open ||
        found->second.is_unknown || (m_request && (*m_request)[4] == kClose)) {
        return false;
    }
    const View& view = found->second;
    return kind == Kind::kKey || (!view.starts && view.last + 1 == m_cameras.at(camera).frames.size());
}

// Whether a peer that watches a camera has taken all.
bool BrokerWorld::CanTakeFrame() const {
    return !m_request && std::ranges::any_of(m_peers, [this](const Peer& peer) {
        return !peer.ended && !HasOutput(peer) && std::ranges::any_of(peer.views, [](const auto& entry) {
            return entry.second.is_open && !entry.second.is_unknown;
        });
    });
}

void BrokerWorld::Deliver(uint32_t id, Kind kind, size_t size, size_t count, unsigned readers) {
    Camera& camera = m_cameras[id];
    for (size_t i = 0; i < count; ++i) {
        if (!m_broker.MayTakeFrame()) {
            return;
        }
        std::vector<PeerId> must_take;
        for (const Peer& peer : m_peers) {
            if (camera.is_open && MustTake(peer, id, kind)) {
                must_take.push_back(peer.id);
            }
        }
        Frame frame{kind, size, camera.has_key, {}};
        for (const Peer& peer : m_peers) {
            frame.taken[peer.slot] = peer.taken;
        }
        camera.frames.push_back(frame);
        camera.has_key |= kind == Kind::kKey;
        camera.last_frame = m_now;
        Write(FrameMessage(id, camera.frames.size() - 1));
        for (const PeerId peer : must_take) {
            FUZZ_CHECK(!m_broker.NextOutput(peer).rest.empty());
        }
        CheckMemory();
        for (size_t which = 0; which < m_peers.size(); ++which) {
            if ((readers >> m_peers[which].slot & 1U) != 0) {
                Take(which, SIZE_MAX);
            }
        }
        kind = kind == Kind::kKey ? Kind::kNext : kind;
    }
}

// ---- Time, and the whole

void BrokerWorld::MoveClock(Clock::duration duration) {
    m_now += duration;
    for (const auto& [id, camera] : m_cameras) {
        if (m_now - camera.last_frame >= host::kSilenceTime) {
            for (Peer& peer : m_peers) {
                peer.views[id].silent = 1;
            }
        }
    }
    Measured([&](Broker& broker) { return broker.OnTime(m_now); });
    RemoveDone();
    // Otherwise the server would not wait.
    FUZZ_CHECK(m_broker.NextTime() > m_now);
}

void BrokerWorld::CheckMemory() const {
    const auto open = static_cast<size_t>(
        std::ranges::count_if(m_cameras, [](const auto& entry) { return entry.second.is_open; }));
    FUZZ_CHECK(m_held <=
               static_cast<int64_t>(m_peers.size() * kPeerBytes + open * kCameraBytes + kOtherBytes));
}

void BrokerWorld::Check() {
    // The lines and events are freed inside.
    Measured([](Broker& broker) { return broker.TakeLog().size() + broker.TakeEvents().size(); });
    NoticeEnds();
    for (Peer& peer : m_peers) {
        if (!HasOutput(peer)) {
            peer.last_taken = m_now;
        }
    }
    FUZZ_CHECK(!CanTakeFrame() || m_broker.MayTakeFrame());
    CheckMemory();
}

void BrokerWorld::TakeAll() {
    for (size_t which = 0; which < m_peers.size(); ++which) {
        Take(which, SIZE_MAX);
    }
}

void BrokerWorld::Settle() {
    bool has_output = false;
    do {
        NextRequest();
        NoticeEnds();
        // A peer with many answers waiting is served again after it has taken them.
        has_output = std::ranges::any_of(m_peers, [this](const Peer& peer) { return HasOutput(peer); });
        TakeAll();
    } while (RemoveDone() || m_request || has_output);
    for (Peer& peer : m_peers) {
        FUZZ_CHECK(!peer.ended && peer.received.empty());
        FUZZ_CHECK(std::ranges::all_of(peer.due, [](const Due& due) { return due.optional; }));
        for (const auto& [id, view] : peer.views) {
            if (view.is_open && !view.is_unknown) {
                FUZZ_CHECK(m_lost_failures.contains(id) || m_cameras.at(id).is_open);
            }
        }
    }
    for (auto& [id, camera] : m_cameras) {
        FUZZ_CHECK(!camera.is_open || std::ranges::any_of(m_peers, [id = id](const Peer& peer) {
            const auto found = peer.views.find(id);
            return found != peer.views.end() && (found->second.is_open || found->second.is_unknown);
        }));
        if (camera.is_open) {
            FUZZ_CHECK(m_broker.MayTakeFrame());
            Deliver(id, Kind::kKey, 0, 1, 0);
            TakeAll();
        }
    }
    Check();
}

void BrokerWorld::Finish() {
    Settle();
    while (!m_peers.empty()) {
        Leave(0);
    }
    do {
        NextRequest();
    } while (m_request);
    Check();
    FUZZ_CHECK(m_held <= kIdleBytes);
}

}  // namespace zumod::testing
