// The page's server and the host's cameras behind it: answers the requests of pages, passes pictures from the
// host to viewers, and connects again when the host was away.
//
// Everything is done by the main thread, which waits in one place (Run). Who does what:
//
//   host --> Session --> Run --> ViewCamera (state, group, recording) --> ViewPart's queue of each viewer
//                                                                             |
//   page <-- ViewServer (sockets) <-- VideoSource::Next() <-------------------+
//   page --> ViewServer --> TakeRequests() --> Run --> ViewCamera, host
//
// The host is never held back by a viewer: what arrives is put into queues with limits (view_queue.h). The
// socket of a viewer pulls from them when it takes more.
//
// State. The page shows one JSON text, which is made at most every kStateInterval when something has changed,
// and every kAliveInterval anyway. A stream of events sends the newest one that it has not sent, so a page
// that does not read costs nothing.
//
// The connection. If it ends, the cameras are told (PublishedCamera::OnDisconnect), the page is shown why,
// and a connection is asked for every kConnectInterval at the ViewConnector. Its answer comes while the pages
// are served.
//
// Limits: kMostViewers and kMostEventStreams; further requests for those are refused with 503.
//
// Thread rule: one thread at a time.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "peer/commands.h"
#include "peer/view_camera.h"
#include "peer/view_connector.h"
#include "peer/view_server.h"

namespace zumod::peer {

class ViewService {
public:
    static constexpr size_t kMostViewers = 16;
    static constexpr size_t kMostEventStreams = 8;
    static constexpr size_t kMostCamerasOfViewer = 16;
    static constexpr size_t kMostRecordings = 1000;
    static constexpr auto kStateInterval = std::chrono::milliseconds(100);
    static constexpr auto kFiguresInterval = std::chrono::milliseconds(500);
    static constexpr auto kAliveInterval = std::chrono::seconds(5);
    static constexpr auto kConnectInterval = std::chrono::seconds(1);
    static constexpr auto kRoundTripInterval = std::chrono::seconds(2);

    struct Made {
        ViewListener listener;
        std::string token;
        ViewConnector connector;
        std::string directory;  // of recordings
    };
    ViewService(const CommandContext& context, Made made);
    ~ViewService();
    ViewService(const ViewService&) = delete;
    ViewService& operator=(const ViewService&) = delete;

    // The first connection. With --wait a failed attempt is repeated until that time is over.
    Expected<void> Connect();
    Expected<void> OpenPage() { return m_connector.OpenPage(); }
    // Ends on a signal. The host is disconnected from, recordings are completed.
    Expected<void> Run();

private:
    class VideoSource;
    class EventSource;
    struct RecordedFile {
        uint32_t camera;
        std::string name;
    };
    using Request = ViewServer::Asked;

    Expected<void> Serve();
    Expected<void> ServeOnce();
    Clock::time_point NextTime() const;

    // ---- The host
    void Begin(Connection connection);
    Expected<void> AskConnection();
    Expected<void> OnConnectorReady();
    void LoseHost(const std::string& reason);
    // A host that is gone is not a failure.
    Expected<void> Send(const std::vector<uint8_t>& request);
    Expected<void> OnMessage(const ReceivedMessage& received);
    Expected<void> OnState(ViewCamera& camera, const StateMessage& state);
    Expected<void> OnCameras(const std::vector<CameraEntry>& listed);
    Expected<void> OnTime(ViewCamera& camera);
    Expected<void> Perform(ViewCamera& camera, const PublishedCamera::Actions& actions, bool is_loss);
    Expected<void> Perform(ViewCamera& camera, const PublishAction& action, bool is_loss);
    void EndRecording(ViewCamera& camera);
    bool IsUsed(const ViewCamera& camera, uint32_t id) const;

    // ---- Pages
    Expected<void> OnRequest(const Request& request);
    void SendFile(const Request& request);
    void SendRecording(const Request& request, const std::string& name);
    Expected<void> StartVideo(const Request& request);
    void StartEvents(const Request& request);
    Expected<void> OnPost(const Request& request);
    Expected<void> SetFormat(const Request& request, ViewCamera& camera, const nlohmann::json& body);
    Expected<void> SetControl(const Request& request, ViewCamera& camera, const nlohmann::json& body);
    void Record(const Request& request, ViewCamera& camera, const nlohmann::json& body);
    void Done(const Request& request) { m_server.Answer(request.id, HttpStatus::kNoContent, "", ""); }
    ViewCamera* Find(std::string_view id);
    void MakeState(Clock::time_point now);

    const CommandContext& m_context;
    const PeerOptions m_options;  // for recordings, too
    const std::string m_directory;
    ViewConnector m_connector;
    Waiter::Registration m_connecting;  // while an answer is awaited
    bool m_has_answer = false;
    std::optional<Session> m_session;
    Clock::time_point m_next_connect;
    std::string m_host_text;  // why the host is away
    std::string m_said;       // the last reason that was printed
    std::string m_notice;     // the last one of the host
    bool m_is_list_asked = false;
    std::optional<Clock::time_point> m_version_asked;
    Clock::time_point m_next_version;
    std::optional<double> m_round_trip_ms;

    uint32_t m_next_id = 0;
    std::list<ViewCamera> m_cameras;  // viewers have pointers to them
    std::vector<CameraEntry> m_listed;
    std::vector<RecordedFile> m_recorded;

    bool m_has_changed = true;
    std::shared_ptr<const std::string> m_state;
    uint64_t m_state_number = 0;
    Clock::time_point m_next_state;
    Clock::time_point m_next_figures;
    Clock::time_point m_next_alive;
    size_t m_viewers = 0;
    size_t m_event_streams = 0;

    ViewServer m_server;  // its sources use what is above
};

}  // namespace zumod::peer
