// The broker between the one plugin of a session and its peers: decides which bytes go to whom.
//
// The module serves one byte stream, and its protocol has no field that names a peer. The broker makes it
// serve several peers. It owns the plugin's stream, reads and writes whole messages on it, and keeps for each
// peer which cameras it watches. Each Write of the plugin is exactly one message.
//
// Requests. Each peer has an input buffer; the broker takes the peers' requests in turn, one at a time, and
// decides about a request only when the plugin asks for the next one. The plugin asks only after it has
// handled the one before and written the answer. So two facts hold at every decision: the broker knows
// exactly which cameras the plugin has open, and an answer belongs to the request that was passed on last.
// No table of pending answers is needed, and the answers to one peer keep the order of its requests.
//
// - List and version requests are passed on.
// - The first open of a camera is passed on. A further peer joins if it asks for the same size and rate: the
//   broker answers. Another size or rate is refused with a notice and the state "failed".
// - A close is passed on if no other peer watches the camera; otherwise the broker answers. When the last
//   watcher leaves without a close, the broker closes the camera itself.
// - A change of format is passed on if its sender is the only watcher, and refused like an open otherwise.
// - What the plugin would read and drop is dropped here.
// - With a CameraGate that checks opens, an open first makes the plugin list the cameras, for the broker. The
//   caller then lets the gate look at the camera (TakeOpenCheck, OnOpenCheck). Once the plugin has started
//   the camera, the gate looks again (UncheckedDevice, OnDeviceCheck), and its frames wait for that. With a
//   gate that asks the owner, an event says so and the open waits for OnDecision. After the owner has agreed
//   the camera is checked again. The peer's further requests wait behind its open. An agreement is for one
//   open of one device in one format: another device at the same file, and another format, are refused or
//   asked about again. Peers try smaller sizes if a camera does not start in one. So until an open succeeds,
//   and for kAgreementTime, the agreement is for every format of that device that is not larger.
// - Properties are also applied by the host, and requests for the controls of a camera are only for the host.
//   They become a DeviceTask (host/controls.h) that the thread of the plugin's requests performs before it
//   goes on. So these answers keep their order, too. Any peer may change the controls of any camera, like any
//   program of a machine: V4L2 does not bind them to the descriptor that streams.
//
// Frames. A frame is copied once, into memory that all queues share. Each watcher has a queue with a limit.
// The broker keeps the frames of a camera from the last key frame on, within limits; a peer that joins gets
// them first, so it has a picture at once. A peer whose queue is full loses frames up to the next key frame
// that its queue can hold. A stream in which no key frame was ever recognised is passed on frame by frame.
//
// Frames of another camera. To open a camera the module first sets the format and then chooses the device. So
// for a moment it starts its first camera in the format of the request, unless that is the format that it
// begins with (640x480 at 15 frames per second). A frame that comes in that moment is encoded and queued, and
// its header has the id of the camera that is being opened. Its size is no help: it is the requested one. The
// order is: the module has stopped its first camera, and queued all of its frames, before it starts the right
// one, and writes the answer after that, past the queue. Both cameras share one encoder, so a frame of the
// right camera may refer to a picture of the wrong one. Therefore, for any camera but the first one:
//
// - Frames before the answer are dropped. While such an open lasts, no frame waits for a slow peer, so
//   the module's queue moves on and holds none of them when the answer comes.
// - After the answer, the stream begins with its next key frame. That is the first frame after the answer if
//   none was dropped, as with every real camera. Otherwise the peer waits for it: 2 s with the codec's
//   default.
//
// Limits. A frame of the wrong camera gets through if the send thread does not run at all from the moment
// between the two calls until the right camera has started. If the codec makes no key frames that the host
// recognises, what follows the answer is passed on from any frame.
//
// Back-pressure. The plugin drops frames before it encodes them while its own queue is long. That only works
// if Write blocks when no peer can take more. So a frame is accepted only if at least one peer with an open
// camera has sent all its frames (MayTakeFrame). A single peer therefore never loses a frame here and sees
// the bytes that it would see without a broker. There is one exception: if there are devices that the module
// cannot use, Inform adds messages before a camera list. Of several peers, the fastest sets the pace. A peer
// that does not read its answers gets none of its further requests served, and its input is not read.
//
// Limits of time. A peer without an open camera that asks for nothing is ended, and so is one that takes
// nothing although something waits for it, and one that sends requests too fast. A camera that delivers no
// frame for long although a peer could take one is taken for gone: its watchers are told that it is closed,
// and the broker closes it, which ends the work that the module has with it. One whose device file is gone
// (OnDeviceGone) is closed in the same way, at once.
//
// Time is passed in, and there is no I/O here: PluginStream calls the broker for the plugin's threads,
// PeerServer for the main thread. All state that threads share is in the broker, under PluginStream's mutex.
//
// Thread rule: one thread at a time; PluginStream holds its mutex during each call.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "common/waiter.h"
#include "host/camera_gate.h"
#include "host/controls.h"
#include "zumod/camera_channel.h"

namespace zumod::host {

// The number of a peer; never used again.
using PeerId = uint64_t;
using Bytes = std::vector<uint8_t>;

// The longest body of a request.
inline constexpr uint32_t kRequestLimit = 64 * 1024;
// While this many bytes of answers wait for a peer, none of its requests is served.
inline constexpr size_t kAnswerLimit = size_t{64} * 1024;
// What a peer's queue of frames may hold before a further frame is lost.
inline constexpr size_t kQueuedBytesLimit = size_t{4} * 1024 * 1024;
inline constexpr size_t kQueuedFramesLimit = 300;
// What is kept of a camera for peers that join: less than a queue may hold.
inline constexpr size_t kGroupBytesLimit = size_t{2} * 1024 * 1024;
inline constexpr size_t kGroupFramesLimit = 150;
inline constexpr auto kGroupTimeLimit = std::chrono::seconds(5);
// How long a peer may take to read the notice that ends it.
inline constexpr auto kLastNoticeTime = std::chrono::seconds(2);
// A peer may send one request in this time, on average over the time after it.
inline constexpr auto kRequestInterval = std::chrono::milliseconds(10);
inline constexpr auto kRequestPeriod = std::chrono::seconds(10);
// How long a peer may try smaller formats after the owner has agreed to one.
inline constexpr auto kAgreementTime = std::chrono::seconds(10);
// A camera without a frame for both of these is gone.
inline constexpr auto kSilenceTime = std::chrono::seconds(10);
inline constexpr int kSilenceFrames = 60;

// 0: no limit.
struct PeerLimits {
    Clock::duration idle = std::chrono::seconds(60);   // no camera open and no request
    Clock::duration stuck = std::chrono::seconds(20);  // nothing taken of what waits
};

class Broker {
public:
    struct LogLine {
        uint32_t level;  // LogLevel
        std::string text;
    };

    // What peers do with cameras, in order.
    struct Event {
        enum class Kind { kAsked, kOpened, kClosed } kind;
        PeerId peer;
        FormatRequest request;
        ListedCamera camera;
        // Only of kClosed.
        Clock::duration time{};
        uint64_t frames = 0;  // that were sent to the peer, or queued for it
        uint64_t bytes = 0;
    };

    // Without a gate, every camera may be opened.
    explicit Broker(const PeerLimits& limits, const CameraGate* gate = nullptr)
        : m_limits(limits), m_gate(gate) {}
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // ---- Peers

    void AddPeer(PeerId id, Clock::time_point now);
    // The connection is closed. What only this peer watches will be closed.
    void RemovePeer(PeerId id);
    // Sends a notice as the last message to this peer. From here on it is not served. `reason` is for the
    // log.
    void EndPeer(PeerId id, const std::string& notice, const std::string& reason, Clock::time_point now);
    // Why this peer was ended; empty if it was not.
    std::string EndReason(PeerId id) const { return m_peers.at(id).end_reason; }

    // How many bytes OnInput takes now; 0: the peer's input must wait.
    size_t InputSpace(PeerId id) const;
    // At most InputSpace(id) bytes.
    void OnInput(PeerId id, std::span<const uint8_t> bytes);
    // The peer sends nothing more.
    void OnInputEnd(PeerId id);

    // The bytes that this peer gets next; empty if there are none. Valid while the caller holds `message`.
    struct Output {
        std::shared_ptr<const Bytes> message;
        std::span<const uint8_t> rest;
    };
    Output NextOutput(PeerId id) const;
    // The first `count` bytes of NextOutput were sent.
    void OnSent(PeerId id, size_t count, Clock::time_point now);

    // Whether the connection can be closed: nothing that the peer should get is left.
    bool IsDone(PeerId id, Clock::time_point now) const;
    // Applies the limits of time. Returns whether the plugin's threads may have something to do now.
    bool OnTime(Clock::time_point now);
    // The open cameras and their device files.
    std::map<uint32_t, std::string> OpenDevices() const;
    bool HasOpenCamera() const { return !m_cameras.empty(); }
    // The same for a plugin whose Run has returned. It may have been given a close that it has not read.
    bool MayHaveOpenCamera() const { return HasOpenCamera() || m_current.type == kCloseCamera; }
    // The device file of an open camera does not exist any more.
    void OnDeviceGone(uint32_t camera, Clock::time_point now);
    // When OnTime or IsDone may do something if nothing else happens.
    Clock::time_point NextTime() const;

    // ---- The plugin

    // The plugin has handled the request before. The next one, if there is any. TakeTask() says whether there
    // is something to do before the plugin gets it. An empty request is not for the plugin: there is only
    // that.
    std::optional<Bytes> NextRequest(Clock::time_point now);
    std::optional<DeviceTask> TakeTask() { return std::exchange(m_task, std::nullopt); }
    void OnTaskDone(const DeviceTask& task, const DeviceResult& result, Clock::time_point now);
    // Whether OnMessage may be called with a frame. Answers are always taken.
    bool MayTakeFrame() const;
    // Whether this message is a frame of a camera that the gate has not looked at since it was started.
    bool IsUnchecked(std::span<const uint8_t> bytes) const;
    // False if these bytes are not one message.
    bool OnMessage(std::span<const uint8_t> bytes, Clock::time_point now);

    static bool IsFrame(std::span<const uint8_t> bytes);
    static bool IsList(std::span<const uint8_t> bytes);

    // Whether a peer waits for the answer to the request that the plugin is handling.
    bool HasAsker() const { return m_peers.contains(m_current.peer); }
    // Tells that peer something before the answer.
    void Inform(const std::string& text);

    // ---- The gate

    // An open that CameraGate::CheckOpen must decide. The module has listed the cameras just before.
    struct OpenCheck {
        PeerId peer;
        uint32_t camera;
    };
    std::optional<OpenCheck> TakeOpenCheck();
    void OnOpenCheck(const OpenCheck& check, const CameraGate::Verdict& verdict);
    // A camera that the plugin has started, to be checked by CameraGate::IsDevice: before OnMessage with the
    // answer, and before NextRequest.
    struct DeviceCheck {
        uint32_t camera;
        std::string file;
        std::string identity;

        bool operator==(const DeviceCheck&) const = default;
    };
    std::optional<DeviceCheck> UncheckedDevice() const;
    void OnDeviceCheck(const DeviceCheck& check, bool is_same);
    // What the owner has decided about the open of an Event kAsked. `refusal`: empty if it may be opened.
    void OnDecision(PeerId id, const std::string& refusal, Clock::time_point now);
    // Whether the peer's open waits for OnDecision.
    bool IsAsked(PeerId id) const;

    // ---- What the caller must do

    // Whether the plugin's calls have changed what NextOutput, InputSpace or IsDone return.
    bool TakeChange() { return std::exchange(m_changed, false); }
    std::vector<Event> TakeEvents() { return std::exchange(m_events, {}); }
    std::vector<LogLine> TakeLog() { return std::exchange(m_log, {}); }

private:
    using Message = std::shared_ptr<const Bytes>;
    struct Watch {
        bool waits_for_key_frame = false;
        bool is_slow = false;  // it waits because its queue was full
        std::optional<Clock::time_point> opened = {};
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };
    struct Queued {
        Message message;
        bool is_frame;
    };
    struct Peer {
        Bytes input;
        size_t served = 0;  // bytes of `input`
        bool input_ended = false;
        bool ended = false;  // the last message is queued
        std::string end_reason;
        Clock::time_point close_at = Clock::time_point::max();
        std::deque<Queued> output;
        size_t sent = 0;  // of the first message in `output`
        size_t queued_frames = 0;
        size_t queued_frame_bytes = 0;
        size_t queued_answer_bytes = 0;
        uint64_t lost_frames = 0;
        Clock::time_point last_request;  // its begin, its end, or when a camera was open for the last time
        Clock::time_point last_taken;    // or when nothing waited for it
        Clock::time_point request_pace = Clock::time_point::min();
        std::map<uint32_t, Watch> watches;  // by camera
        // How far the open at the front of `input` is.
        enum class Open { kNew, kListed, kAsked, kAgreed, kAllowed } open = Open::kNew;
        CameraGate::Verdict allowed;  // of the last check
        std::string asked;            // the camera's identity
        std::string agreed;           // likewise
        // What the owner has agreed to last, until an open succeeds.
        struct Agreement {
            std::string identity = {};
            FormatRequest format{};
            Clock::time_point until{};
        } agreement;
    };
    // What is dropped because it may show another camera.
    enum class FrameFilter {
        kNone,
        kUntilAnswer,    // to the open
        kUntilKeyFrame,  // after the answer
    };
    // A camera that the plugin has open, or is opening.
    struct Camera {
        FormatRequest format{};
        FrameFilter filter = FrameFilter::kNone;
        std::string device;           // its file; empty if it is not known
        std::string file;             // that the gate has allowed; empty if it did not check
        std::string identity;         // likewise
        bool is_checked = false;      // again, since it was started
        bool is_other = false;        // than the gate has allowed
        ListedCamera shown;           // for events
        bool has_key_frames = false;  // one was recognised since the open or the last change of format
        std::vector<Message> group;   // from the last key frame on; empty if a limit was exceeded
        size_t group_bytes = 0;
        Clock::time_point group_begin;
        Clock::time_point last_frame;  // or when one could be delivered for the first time
    };
    // The request that the plugin is handling.
    struct Current {
        PeerId peer = 0;  // 0: the broker itself
        uint8_t type = 0;
        uint32_t camera = 0;
    };

    Clock::time_point IdleTime(PeerId id, const Peer& peer) const;
    Clock::time_point StuckTime(const Peer& peer) const;
    static Clock::time_point SilentTime(const Camera& camera);
    // Returns whether there was one.
    bool CloseSilentCameras();
    // Tells every watcher that the camera is closed, and logs what happened to it. Returns whether there was
    // one.
    bool Abandon(uint32_t camera, const std::string& what);

    std::optional<Bytes> Serve(PeerId id, Peer& peer, Clock::time_point now);
    static std::optional<_MESSAGE_HEADER> FrontHeader(const Peer& peer);
    static std::span<const uint8_t> Unserved(const Peer& peer);
    static bool HasRequest(const Peer& peer);
    // Each returns whether the request is passed on to the plugin.
    bool Decide(PeerId id, Peer& peer, std::span<const uint8_t> request);
    bool DecideOpen(PeerId id, Peer& peer, const FormatRequest& request);
    bool DecideClose(PeerId id, Peer& peer, uint32_t camera);
    bool DecideFormat(PeerId id, Peer& peer, const FormatRequest& request);
    bool MayControl(const Peer& peer, uint32_t camera) const;
    void DecideControls(Peer& peer, uint32_t camera);
    bool DecideProperty(const Peer& peer, const PropertyRequest& request);
    void AddTask(DeviceTask::Kind kind, uint32_t camera, const PropertyRequest& change = {});

    std::optional<Bytes> CloseUnwatchedCamera();
    bool IsWatched(uint32_t camera) const;
    bool IsWatchedByOthers(uint32_t camera, const Peer& peer) const;
    void Join(Peer& peer, uint32_t id, const Camera& camera);
    void RefuseFormat(PeerId id, Peer& peer, const FormatRequest& request, const std::string& text);
    void SendFailure(Peer& peer, uint32_t camera, const std::string& text);

    bool MustPrepare(const Peer& peer, std::span<const uint8_t> request) const;
    std::optional<Bytes> PrepareOpen(PeerId id, Peer& peer, uint32_t camera);
    void AskOwner(PeerId id, Peer& peer, const ListedCamera& camera, const std::string& identity);
    void BeginWatch(PeerId id, Peer& peer, uint32_t camera);
    // Returns whether there was one.
    bool EndWatch(PeerId id, Peer& peer, uint32_t camera);
    void EndWatches(PeerId id, Peer& peer);
    void RefuseOpen(PeerId id, Peer& peer, uint32_t camera, const std::string& text);
    static FormatRequest FrontOpen(const Peer& peer);
    // Whether the owner has agreed to the open at the front of the peer's input, of this device.
    bool HasAgreed(const Peer& peer, const std::string& identity) const;
    bool IsExpected(uint32_t id, const Camera& camera) const;
    void CloseChangedCamera();
    void CloseForPeers(uint32_t camera);

    void OnAnswer(std::span<const uint8_t> bytes);
    void OnOpenDone();
    void OnFrame(std::span<const uint8_t> bytes, Clock::time_point now);
    static void Remember(Camera& camera, const Message& message, bool is_key_frame, Clock::time_point now);
    void Offer(PeerId id, Peer& peer, uint32_t camera, const Message& message, bool is_key_frame);
    void Send(Peer& peer, Message message, bool is_frame);
    void SendState(Peer& peer, CameraState state, uint32_t camera);

    const PeerLimits m_limits;
    const CameraGate* const m_gate;
    std::optional<OpenCheck> m_open_check;
    Clock::time_point m_now;  // of the call that is running
    std::map<PeerId, Peer> m_peers;
    std::map<uint32_t, Camera> m_cameras;
    Current m_current;
    std::optional<DeviceTask> m_task;  // to be done before the plugin gets the request
    PeerId m_last_served = 0;
    bool m_had_space = true;  // MayTakeFrame() at the last OnTime
    bool m_changed = false;
    std::vector<LogLine> m_log;
    std::vector<Event> m_events;
};

}  // namespace zumod::host
