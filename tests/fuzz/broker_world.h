// A world around the broker for its fuzzer: peers, a plugin that behaves as the protocol says, and a clock.
// It knows nothing of the broker's state. It checks what the broker does from outside, after each step.
//
// A peer sees one stream of messages. The order of that stream is the order in which the broker decided, so
// the last state of a camera in it says whether the peer watches that camera, once the peer has taken all
// that waits. From this follow the checks:
//
// - Every message that a peer takes is whole, and is one of these: the next answer that is due to this peer;
// a
//   frame of a camera that it watches, with the bytes that the plugin wrote; a notice. Answers carry the
//   number of their request, so one that goes to the wrong peer is found.
// - Frames of a camera come in order. The first one after an open is a key frame if the camera has had one.
// The
//   same holds for the first one after a loss. A frame is lost only by a peer whose queue was full then.
// - A frame of a watched camera reaches at once each peer whose queue is empty.
// - A peer is ended only for one of the reasons in broker.h.
// - Memory stays within a limit for each peer and camera, and nothing is kept for peers that have left.
// - Once all is served and taken, the plugin has a camera open exactly if a peer watches it.
//
// What cannot be known is not checked: a plugin that loses the answer to an open or a close (it has no
// memory) leaves the peer in doubt about that camera. From then on this peer's view of the camera is ignored.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "host/broker.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

class BrokerWorld {
public:
    static constexpr size_t kMostPeers = 5;
    static constexpr uint32_t kCameras = 3;  // the plugin opens those with a smaller id

    enum class Kind : uint8_t { kKey, kNext, kUnknown };
    enum class Answer : uint8_t { kUsual, kFailed, kLost };

    BrokerWorld() = default;
    BrokerWorld(const BrokerWorld&) = delete;
    BrokerWorld& operator=(const BrokerWorld&) = delete;

    // Peers. `which` is taken modulo the number of peers; without any, nothing happens.
    void Join();
    void Leave(size_t which);
    void Ask(size_t which, const Bytes& request);  // the bytes wait until Arrive
    void Arrive(size_t which, size_t count);
    void EndInput(size_t which);
    void End(size_t which);
    void Take(size_t which, size_t count);

    // The plugin.
    void NextRequest();
    void AnswerRequest(Answer answer);
    // `readers`: a bit for each peer that takes everything after each frame.
    void Deliver(uint32_t camera, Kind kind, size_t size, size_t count, unsigned readers);
    void WriteMalformed(const Bytes& bytes);

    void MoveClock(Clock::duration duration);

    // Serves all requests that have arrived, lets every peer take all, and checks who watches what.
    void Settle();
    // All peers leave. Nothing may be left.
    void Finish();

    // After each step.
    void Check();

    // A number for a request, to find it in its answer.
    uint32_t NextSerial() { return ++m_serial; }

private:
    struct Taken {
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };
    struct Due {
        uint8_t request;  // the type
        uint32_t number;  // camera or serial
        bool optional;
    };
    struct View {
        bool is_open = false;
        bool is_unknown = false;
        bool starts = true;  // no frame since the camera was closed for this peer
        size_t last = 0;     // index of the last frame
        int silent = 0;      // how often the camera may have been closed because it is silent
    };
    struct Peer {
        host::PeerId id;
        size_t slot;
        Bytes wire;     // sent, and not arrived
        Bytes arrived;  // the begin of a request
        std::deque<Due> due;
        Bytes received;  // the begin of a message
        std::map<uint32_t, View> views;
        Taken taken;
        uint64_t requests = 0;
        bool is_malformed = false;  // it has sent a request that is too long
        bool input_ended = false;
        bool ended = false;
        int frames_after_end = 0;  // that may follow
        Clock::time_point last_arrival;
        Clock::time_point last_taken;
    };
    struct Frame {
        Kind kind;
        size_t size;
        bool after_key;  // since the camera was opened or changed there was a key frame
        Taken taken[kMostPeers];
    };
    struct Camera {
        bool is_open = false;
        bool has_key = false;
        std::vector<Frame> frames;
        Clock::time_point last_frame;
    };

    // Calls the broker and counts what it allocates and frees.
    template <class Call>
    auto Measured(Call call);

    Peer* At(size_t which);
    bool HasOutput(const Peer& peer) const;
    void Remove(size_t index);
    // Returns whether there was one.
    bool RemoveDone();
    void NoticeEnds();
    void TakeAll();

    void OnRequest(Peer& peer, const Bytes& request);
    void OnMessage(Peer& peer, std::span<const uint8_t> message);
    void OnFrame(Peer& peer, std::span<const uint8_t> message);
    void OnState(Peer& peer, uint32_t state, uint32_t camera);
    static bool TakeDue(Peer& peer, uint8_t request, uint32_t number);
    static bool IsDue(const Peer& peer, uint8_t request, uint32_t number);
    static Bytes AnswerTo(uint8_t request, uint32_t number);
    Bytes FrameMessage(uint32_t camera, size_t index) const;
    void Write(const Bytes& message);
    void LoseAnswer(uint8_t request, uint32_t number);
    bool MustTake(const Peer& peer, uint32_t camera, Kind kind) const;
    bool CanTakeFrame() const;
    void CheckMemory() const;

    Clock::time_point m_now{std::chrono::seconds(1000)};
    host::Broker m_broker{host::PeerLimits{}};
    int64_t m_held = 0;  // bytes
    std::vector<Peer> m_peers;
    host::PeerId m_last_id = 0;
    uint32_t m_serial = 0;
    std::map<uint32_t, Camera> m_cameras;
    // Cameras that could not be opened while the answer that says so was lost. The broker takes them for
    // open.
    std::set<uint32_t> m_lost_failures;
    std::optional<Bytes> m_request;  // that the plugin handles
};

}  // namespace zumod::testing
