#include "peer/view_service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/parse_number.h"
#include "common/safe_text.h"
#include "peer/view_page.h"

namespace zumod::peer {
namespace {

constexpr char kJsonType[] = "application/json";
constexpr int kGreatestRate = 1000;
constexpr auto kFirstRetryInterval = std::chrono::milliseconds(500);

// A number of the page in these limits.
std::optional<int32_t> NumberIn(const nlohmann::json& body, const char* name, int64_t least, int64_t most) {
    const auto found = body.find(name);
    if (found == body.end() || !found->is_number_integer() ||
        (found->is_number_unsigned() && found->get<uint64_t>() > INT32_MAX)) {
        return std::nullopt;
    }
    const auto number = found->get<int64_t>();
    return number >= least && number <= most ? std::optional(static_cast<int32_t>(number)) : std::nullopt;
}

std::optional<StreamFormat> FormatIn(const nlohmann::json& body) {
    const auto width = NumberIn(body, "width", 1, UINT16_MAX);
    const auto height = NumberIn(body, "height", 1, UINT16_MAX);
    const auto rate = NumberIn(body, "rate", 1, kGreatestRate);
    if (!width || !height || !rate) {
        return std::nullopt;
    }
    return StreamFormat{{static_cast<uint32_t>(*width), static_cast<uint32_t>(*height)}, *rate};
}

const char* TypeOf(std::string_view name) {
    return name.ends_with(".html")  ? "text/html; charset=utf-8"
           : name.ends_with(".css") ? "text/css; charset=utf-8"
           : name.ends_with(".svg") ? "image/svg+xml"
                                    : "text/javascript; charset=utf-8";
}

// A recording, from the disk. What is missing of it ends the connection too early, which a browser reports.
class FileSource final : public ViewSource {
public:
    FileSource(UniqueFd file, size_t size) : m_file(std::move(file)), m_left(size) {}

    std::optional<ViewPiece> Next() override {
        constexpr size_t kPiece = size_t{64} * 1024;
        ViewPiece piece;
        piece.head.resize(std::min(m_left, kPiece));
        const ssize_t count = read(m_file.Get(), piece.head.data(), piece.head.size());
        m_left = count > 0 ? m_left - static_cast<size_t>(count) : 0;
        if (count <= 0) {
            return std::nullopt;
        }
        piece.head.resize(static_cast<size_t>(count));
        return piece;
    }
    bool IsOver() const override { return m_left == 0; }

private:
    const UniqueFd m_file;
    size_t m_left;
};

}  // namespace

// A page that watches the state.
class ViewService::EventSource final : public ViewSource {
public:
    explicit EventSource(ViewService& service) : m_service(service) { ++m_service.m_event_streams; }
    ~EventSource() override { --m_service.m_event_streams; }

    std::optional<ViewPiece> Next() override {
        if (std::exchange(m_sent, m_service.m_state_number) == m_service.m_state_number) {
            return std::nullopt;
        }
        return ViewPiece{"data: " + *m_service.m_state + "\n\n"};
    }
    bool IsOver() const override { return false; }

private:
    ViewService& m_service;
    uint64_t m_sent = 0;
};

// A viewer of one or several cameras.
class ViewService::VideoSource final : public ViewSource {
public:
    VideoSource(ViewService& service, const std::vector<ViewCamera*>& cameras, Clock::time_point now)
        : m_service(service) {
        ++m_service.m_viewers;
        for (ViewCamera* const camera : cameras) {
            camera->AddViewer(m_shown.emplace_back(Shown{camera, {}}).part, now);
        }
    }
    ~VideoSource() override {
        --m_service.m_viewers;
        for (Shown& shown : m_shown) {
            shown.camera->RemoveViewer(shown.part);
        }
    }

    // States first, then the picture that has waited longest.
    std::optional<ViewPiece> Next() override {
        const auto now = Clock::now();
        Shown* next = nullptr;
        uint16_t index = 0;
        uint16_t next_index = 0;
        for (Shown& shown : m_shown) {
            if (std::exchange(shown.part.has_state, false)) {
                return ViewPiece{StateRecord(shown.camera->StateJson())};
            }
            const ViewQueue& pictures = shown.part.pictures;
            if (!pictures.IsEmpty() &&
                (next == nullptr || pictures.Delay(now) > next->part.pictures.Delay(now))) {
                next = &shown;
                next_index = index;
            }
            ++index;
        }
        if (next == nullptr) {
            return std::nullopt;
        }
        const SharedPicture picture = next->part.pictures.Pop();
        return ViewPiece{PictureRecord(*picture, next_index, next->part.pictures.Lost()), picture->bytes,
                         picture};
    }
    bool IsOver() const override { return false; }

private:
    struct Shown {
        ViewCamera* camera;
        ViewPart part;
    };

    ViewService& m_service;
    std::list<Shown> m_shown;  // cameras have pointers to the parts
};

ViewService::ViewService(const CommandContext& context, Made made)
    : m_context(context),
      m_options(context.options),
      m_directory(std::move(made.directory)),
      m_connector(std::move(made.connector)),
      m_server(std::move(made.listener), std::move(made.token), context.waiter, [this] {
          if (m_session) {
              m_session->Wake();
          }
      }) {}

ViewService::~ViewService() = default;

// ---- The host

Expected<void> ViewService::Connect() {
    const auto deadline = Clock::now() + m_options.wait;
    for (;;) {
        if (auto asked = m_connector.Request(); !asked) {
            return asked;
        }
        const auto ready =
            m_context.waiter.WaitFor(m_connector.Descriptor(), POLLIN, Clock::time_point::max());
        if (!ready) {
            return Fail(ready.error());
        }
        auto answer = m_connector.Receive();
        if (answer.connection) {
            Begin(std::move(*answer.connection));
            // A host that is busy accepts a connection, and says so in place of the first answer.
            auto listed = AskCameras(*m_session);
            if (listed) {
                m_session->PrintInformation();
                return OnCameras(*listed);
            }
            m_session.reset();
            answer.connection = Fail(listed.error());
        }
        if (answer.is_over || answer.connection.error() == Interrupted() || Clock::now() >= deadline) {
            return Fail(answer.connection.error());
        }
        if (const auto waited = m_context.waiter.Wait(std::min(deadline, Clock::now() + kFirstRetryInterval));
            !waited) {
            return Fail(waited.error());
        }
    }
}

void ViewService::Begin(Connection connection) {
    m_session.emplace(std::move(connection), m_context.waiter, m_options.limit,
                      [this](const std::string& notice) {
                          m_notice = notice;
                          m_context.Say(notice);
                      });
    m_is_list_asked = false;
    m_version_asked.reset();
    m_next_version = Clock::now();
    m_has_changed = true;
}

Expected<void> ViewService::AskConnection() {
    m_has_answer = false;
    m_connecting = m_context.waiter.Watch(m_connector.Descriptor(), POLLIN, [this] { m_has_answer = true; });
    return m_connector.Request();
}

Expected<void> ViewService::OnConnectorReady() {
    m_connecting.reset();
    m_has_answer = false;
    m_next_connect = Clock::now() + kConnectInterval;
    auto answer = m_connector.Receive();
    if (answer.is_over) {
        return Fail(answer.connection.error());
    }
    if (!answer.connection) {
        LoseHost(answer.connection.error().text);
        return {};
    }
    Begin(std::move(*answer.connection));
    m_is_list_asked = true;
    return Send(ListRequest());
}

void ViewService::LoseHost(const std::string& reason) {
    if (reason != m_said) {
        m_said = reason;
        m_context.Say(reason + "; trying to connect again");
    }
    m_has_changed |= m_session.has_value() || m_host_text != reason;
    m_host_text = reason;
    m_next_connect = Clock::now() + kConnectInterval;
    if (!m_session) {
        return;
    }
    m_session.reset();
    m_round_trip_ms.reset();
    m_listed.clear();
    for (ViewCamera& camera : m_cameras) {
        camera.OnListed(nullptr);
        const auto actions = camera.published.OnDisconnect(Clock::now());
        (void)Perform(camera, actions, false);
        if (camera.HasReaders()) {
            camera.OnLost(false, "the host is gone; the camera is opened again when it is back");
        }
        EndRecording(camera);
    }
}

Expected<void> ViewService::Send(const std::vector<uint8_t>& request) {
    return m_session ? m_session->Send(request) : Expected<void>();
}

Expected<void> ViewService::OnMessage(const ReceivedMessage& received) {
    if (const auto* list = std::get_if<CameraListMessage>(&received.message)) {
        m_is_list_asked = false;
        return OnCameras(list->cameras);
    }
    if (std::holds_alternative<VersionMessage>(received.message)) {
        if (m_version_asked) {
            m_round_trip_ms =
                std::chrono::duration<double, std::milli>(received.at - *m_version_asked).count();
            m_version_asked.reset();
        }
        return {};
    }
    for (ViewCamera& camera : m_cameras) {
        if (const auto* state = std::get_if<StateMessage>(&received.message)) {
            if (auto done = OnState(camera, *state); !done) {
                return done;
            }
        } else if (const auto* controls = std::get_if<ControlsMessage>(&received.message)) {
            if (controls->read && controls->id == camera.published.Camera().id) {
                camera.OnControls(controls->controls);
                m_has_changed = true;
            }
        } else if (const auto* frame = std::get_if<FrameMessage>(&received.message);
                   frame != nullptr && !frame->bytes.empty() && camera.published.WantsFrames(frame->id)) {
            return Perform(camera, camera.published.OnFrame(received.at), false).map([&] {
                if (const auto shown = camera.OnFrame(*frame, received.at); !shown) {
                    m_context.Say(camera.Label() + ": " + shown.error().text);
                }
            });
        }
    }
    return {};
}

Expected<void> ViewService::OnState(ViewCamera& camera, const StateMessage& state) {
    if (!camera.published.WantsFrames(state.id)) {
        return {};
    }
    const bool is_explained = m_session->Notices() != camera.notices_at_open;
    const auto actions = camera.published.OnState(state, Clock::now(), !is_explained);
    const bool is_lost = !camera.published.WantsFrames(state.id);
    auto done = Perform(camera, actions, false);
    if (state.state == kCameraOpen) {
        camera.OnOpened();
        return done.and_then([&] { return Send(ControlsRequest(state.id)); });
    }
    if (state.state == kCameraFailed && is_lost) {
        camera.OnRefused(is_explained ? m_notice : "");
    } else if (state.state == kCameraClosed && is_lost && camera.HasReaders()) {
        camera.OnLost(true, "the host has closed the camera" + (is_explained ? ": " + m_notice : ""));
        EndRecording(camera);
    }
    return done;
}

Expected<void> ViewService::OnCameras(const std::vector<CameraEntry>& listed) {
    m_listed = listed;
    m_host_text.clear();
    m_said.clear();
    std::vector<const CameraEntry*> unknown;
    unknown.reserve(listed.size());
    for (const CameraEntry& entry : listed) {
        unknown.push_back(&entry);
    }
    // Cameras of one name are told apart by their order.
    for (ViewCamera& camera : m_cameras) {
        const auto found =
            std::ranges::find(unknown, camera.Entry().name,
                              [](const CameraEntry* entry) -> const std::string& { return entry->name; });
        camera.OnListed(found != unknown.end() ? *found : nullptr);
        if (found != unknown.end()) {
            unknown.erase(found);
        }
    }
    std::erase_if(m_cameras, [this](const ViewCamera& camera) {
        const bool is_over = !camera.IsListed() && !camera.HasReaders() &&
                             !camera.published.WantsFrames(camera.published.Camera().id);
        m_has_changed |= is_over;
        return is_over;
    });
    for (const CameraEntry* const entry : unknown) {
        m_cameras.emplace_back(m_next_id++, ViewCamera::Made{listed, *entry, m_options});
        m_has_changed = true;
    }
    for (ViewCamera& camera : m_cameras) {
        if (auto done = Perform(camera, camera.published.OnCameras(listed, Clock::now()), true); !done) {
            return done;
        }
    }
    return {};
}

Expected<void> ViewService::OnTime(ViewCamera& camera) {
    const auto now = Clock::now();
    if (auto flushed = now >= camera.FlushDue() ? camera.Flush() : Expected<void>(); !flushed) {
        m_context.Say(flushed.error().text);
        EndRecording(camera);
    }
    auto done = Perform(camera, camera.published.OnReaders(camera.HasReaders(), now), false);
    if (done && m_session) {
        auto actions = camera.published.OnTime(now);
        done = actions ? Perform(camera, *actions, true) : Fail(actions.error());
    }
    m_has_changed |= camera.UpdateState();
    return done;
}

Expected<void> ViewService::Perform(ViewCamera& camera, const PublishedCamera::Actions& actions,
                                    bool is_loss) {
    for (const PublishAction& action : actions) {
        if (auto done = Perform(camera, action, is_loss); !done) {
            return done;
        }
    }
    return {};
}

Expected<void> ViewService::Perform(ViewCamera& camera, const PublishAction& action, bool is_loss) {
    const StreamFormat& format = action.format;
    switch (action.kind) {
        case PublishAction::kAskCameras:
            // One answer serves all cameras.
            return std::exchange(m_is_list_asked, true) ? Expected<void>() : Send(ListRequest());
        case PublishAction::kOpen:
            if (IsUsed(camera, action.id)) {
                return Perform(camera, camera.published.OnState({kCameraFailed, action.id}, Clock::now()),
                               is_loss);
            }
            camera.notices_at_open = m_session->Notices();
            camera.OnOpen();
            return Send(OpenRequest(action.id, format.size, format.fps));
        case PublishAction::kSetFormat:
            return Send(SetFormatRequest(action.id, format.size, format.fps));
        case PublishAction::kClose:
            return Send(CloseRequest(action.id));
        case PublishAction::kShowCard:
            if (is_loss) {
                camera.OnLost(camera.IsListed(), "");
                EndRecording(camera);
            }
            return {};
        case PublishAction::kWithdraw:
        case PublishAction::kPublish:
            return {};  // see OnCameras
        case PublishAction::kReport:
            m_context.Say(action.text);
            return {};
    }
    return {};
}

void ViewService::EndRecording(ViewCamera& camera) {
    if (const auto finished = camera.FinishRecording(); !finished) {
        m_context.Say(finished.error().text);
    }
}

// Two cameras of one name may be listed under one id after another. Their frames could not be told apart.
bool ViewService::IsUsed(const ViewCamera& camera, uint32_t id) const {
    return std::ranges::any_of(m_cameras, [&](const ViewCamera& other) {
        return &other != &camera && other.published.WantsFrames(id);
    });
}

// ---- Pages

ViewCamera* ViewService::Find(std::string_view id) {
    const auto number = ParseNumber<uint32_t>(id);
    const auto found =
        std::ranges::find_if(m_cameras, [&](const ViewCamera& camera) { return number == camera.Id(); });
    return found != m_cameras.end() ? &*found : nullptr;
}

Expected<void> ViewService::OnRequest(const Request& request) {
    const std::string& path = request.target.path;
    constexpr std::string_view kRecordings = "recording/";
    if (request.request.is_post) {
        return OnPost(request);
    }
    if (path == "video") {
        return StartVideo(request);
    }
    if (path == "events") {
        StartEvents(request);
    } else if (path.starts_with(kRecordings)) {
        SendRecording(request, path.substr(kRecordings.size()));
    } else {
        SendFile(request);
    }
    return {};
}

void ViewService::SendFile(const Request& request) {
    const std::string_view path = request.target.path;
    const std::string_view name = path.empty() ? "index.html" : path;
    const auto files = PageFiles();
    const auto file = std::ranges::find(files, name, &PageFile::name);
    if (file == files.end()) {
        m_server.Answer(request.id, HttpStatus::kNotFound, "", "");
    } else {
        m_server.Answer(request.id, HttpStatus::kOk, TypeOf(name), std::string(file->text));
    }
}

// Only names that this program has made: what the page sends is never a path.
void ViewService::SendRecording(const Request& request, const std::string& name) {
    const auto known = std::ranges::find(m_recorded, name, &RecordedFile::name);
    if (known == m_recorded.end()) {
        m_server.Answer(request.id, HttpStatus::kNotFound, "", "");
        return;
    }
    const std::string path = (std::filesystem::path(m_directory) / known->name).string();
    UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        m_server.Refuse(request.id, HttpStatus::kNotFound, "this recording is not complete, or was removed");
        return;
    }
    const auto size = static_cast<size_t>(status.st_size);
    m_server.Answer(request.id, "video/mp4", std::make_unique<FileSource>(std::move(file), size), size, name);
}

void ViewService::StartEvents(const Request& request) {
    if (m_event_streams == kMostEventStreams) {
        m_server.Refuse(request.id, HttpStatus::kUnavailable, "too many pages are open");
        return;
    }
    MakeState(Clock::now());
    m_server.Answer(request.id, "text/event-stream", std::make_unique<EventSource>(*this));
}

Expected<void> ViewService::StartVideo(const Request& request) {
    std::vector<ViewCamera*> cameras;
    nlohmann::json format_text;
    for (const auto& [name, value] : request.target.query) {
        if (name != "camera") {
            format_text[name] = ParseNumber<uint16_t>(value).value_or(0);
            continue;
        }
        ViewCamera* const camera = Find(value);
        if (camera == nullptr) {
            m_server.Refuse(request.id, HttpStatus::kNotFound, "there is no such camera");
            return {};
        }
        cameras.push_back(camera);
    }
    const auto format = FormatIn(format_text);
    if (cameras.empty() || cameras.size() > kMostCamerasOfViewer || (!format_text.empty() && !format)) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest,
                        "give camera, or camera, width, height and rate");
        return {};
    }
    if (m_viewers == kMostViewers) {
        m_server.Refuse(request.id, HttpStatus::kUnavailable, "too many viewers");
        return {};
    }
    const auto now = Clock::now();
    for (ViewCamera* const camera : cameras) {
        if (format && !camera->HasReaders()) {
            if (auto done = Perform(*camera, camera->published.OnFormat(*format, now), false); !done) {
                return done;
            }
        }
    }
    m_server.Answer(request.id, "application/octet-stream",
                    std::make_unique<VideoSource>(*this, cameras, now));
    return {};
}

Expected<void> ViewService::OnPost(const Request& request) {
    const auto body = nlohmann::json::parse(request.request.body, nullptr, false);
    const auto id = body.is_object() ? NumberIn(body, "camera", 0, INT32_MAX) : std::nullopt;
    ViewCamera* const camera = id ? Find(std::to_string(*id)) : nullptr;
    const std::string& path = request.target.path;
    if (path != "format" && path != "control" && path != "record") {
        m_server.Answer(request.id, HttpStatus::kNotFound, "", "");
    } else if (!id) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, "the body is not JSON with a camera");
    } else if (camera == nullptr) {
        m_server.Refuse(request.id, HttpStatus::kNotFound, "there is no such camera");
    } else if (path == "format") {
        return SetFormat(request, *camera, body);
    } else if (path == "control") {
        return SetControl(request, *camera, body);
    } else {
        Record(request, *camera, body);
    }
    return {};
}

Expected<void> ViewService::SetFormat(const Request& request, ViewCamera& camera,
                                      const nlohmann::json& body) {
    const auto format = FormatIn(body);
    if (!format) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, "give width, height and rate");
    } else if (!Lists(camera.Entry(), format->size)) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, "the camera does not have this size");
    } else if (camera.IsRecording()) {
        m_server.Refuse(request.id, HttpStatus::kConflict,
                        "the camera is being recorded, and a recording has one size: stop it first");
    } else {
        Done(request);
        m_has_changed = true;
        return Perform(camera, camera.published.OnFormat(*format, Clock::now()), false);
    }
    return {};
}

Expected<void> ViewService::SetControl(const Request& request, ViewCamera& camera,
                                       const nlohmann::json& body) {
    const auto name = body.find("name");
    const CameraControl* const control =
        name != body.end() && name->is_string()
            ? std::ranges::find(kControlTable, std::string_view(name->get_ref<const std::string&>()),
                                &CameraControl::name)
            : std::end(kControlTable);
    if (control == std::end(kControlTable) || !camera.Controls()) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, "the camera has no such control");
        return {};
    }
    const ControlEntry* const entry = FindEntry(*camera.Controls(), control->property);
    const auto automatic = body.find("automatic");
    const bool is_automatic = automatic != body.end() && *automatic == true;
    auto value = NumberIn(body, "value", INT32_MIN, INT32_MAX);
    if (!value && automatic != body.end() && *automatic == false && entry != nullptr) {
        value = entry->value;  // no longer automatic
    }
    if (!is_automatic && !value) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, "give a value, or automatic");
        return {};
    }
    const ControlSetting setting{
        control, std::string(control->name),
        is_automatic ? ControlSetting::Kind::kAutomatic : ControlSetting::Kind::kValue, value.value_or(0)};
    const auto change = CheckSetting(setting, *camera.Controls(), camera.Label());
    if (!change) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, change.error().text);
        return {};
    }
    if (!m_session) {
        m_server.Refuse(request.id, HttpStatus::kUnavailable, "the host is gone");
        return {};
    }
    Done(request);
    const uint32_t id = camera.published.Camera().id;
    return Send(SetControlRequest(id, *change)).and_then([&] { return Send(ControlsRequest(id)); });
}

void ViewService::Record(const Request& request, ViewCamera& camera, const nlohmann::json& body) {
    const auto on = body.find("on");
    if (on == body.end() || !on->is_boolean()) {
        m_server.Refuse(request.id, HttpStatus::kBadRequest, "say whether the recording is on");
        return;
    }
    if (*on == false && !camera.IsRecording()) {
        m_server.Refuse(request.id, HttpStatus::kConflict, "the camera is not being recorded");
        return;
    }
    if (*on == true && !camera.IsRecording() && m_recorded.size() == kMostRecordings) {
        m_server.Refuse(request.id, HttpStatus::kConflict, "there are too many recordings");
        return;
    }
    const bool is_new = !camera.IsRecording();
    auto name = camera.StartRecording(m_directory);  // or that of the one that goes on
    if (name && *on == false) {
        if (auto finished = camera.FinishRecording(); !finished) {
            name = Fail(finished.error());
        }
    }
    m_has_changed = true;
    if (!name) {
        m_server.Refuse(request.id, HttpStatus::kFailed, name.error().text);
        return;
    }
    if (is_new) {
        m_recorded.push_back({camera.Id(), *name});
    }
    m_server.Answer(request.id, HttpStatus::kOk, kJsonType, nlohmann::json{{"file", *name}}.dump());
}

void ViewService::MakeState(Clock::time_point now) {
    nlohmann::json cameras = nlohmann::json::array();
    for (const ViewCamera& camera : m_cameras) {
        if (camera.IsListed() || camera.HasReaders() || !m_session) {
            cameras.push_back(camera.Json(m_round_trip_ms, now));
        }
    }
    nlohmann::json recordings = nlohmann::json::array();
    for (const RecordedFile& file : m_recorded) {
        std::error_code error;
        const auto size = std::filesystem::file_size(std::filesystem::path(m_directory) / file.name, error);
        if (!error) {
            recordings.push_back({{"camera", file.camera}, {"file", file.name}, {"bytes", size}});
        }
    }
    const std::string label = HostLabel(m_options);
    const nlohmann::json state = {
        {"host",
         {{"name", label.empty() ? "host" : label},
          {"state", m_session ? "connected" : "reconnecting"},
          {"text", m_host_text}}},
        {"directory", m_options.directory.empty() ? nlohmann::json() : nlohmann::json(m_options.directory)},
        {"cameras", std::move(cameras)},
        {"recordings", std::move(recordings)}};
    m_state = std::make_shared<const std::string>(
        state.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
    ++m_state_number;
    m_has_changed = false;
    m_next_state = now + kStateInterval;
    m_next_figures = now + kFiguresInterval;
    m_next_alive = now + kAliveInterval;
}

// ---- The loop

Clock::time_point ViewService::NextTime() const {
    auto next = m_server.NextTime();
    for (const ViewCamera& camera : m_cameras) {
        next = std::min(next, camera.FlushDue());
        next = m_session ? std::min(next, camera.published.NextTime()) : next;
    }
    if (m_event_streams > 0) {
        next = std::min(next, m_has_changed ? m_next_state : m_viewers > 0 ? m_next_figures : m_next_alive);
    }
    if (m_session) {
        return m_viewers > 0 && !m_version_asked ? std::min(next, m_next_version) : next;
    }
    return m_connecting ? next : std::min(next, m_next_connect);
}

Expected<void> ViewService::ServeOnce() {
    if (m_session) {
        const auto received = m_session->Receive(NextTime());
        if (!received) {
            return Fail(received.error());
        }
        if (*received) {
            if (auto done = OnMessage(**received); !done) {
                return done;
            }
        }
    } else if (const auto waited = m_context.waiter.Wait(NextTime()); !waited) {
        return Fail(waited.error());
    }
    for (const Request& request : m_server.TakeRequests()) {
        if (auto done = OnRequest(request); !done) {
            return done;
        }
    }
    for (ViewCamera& camera : m_cameras) {
        if (auto done = OnTime(camera); !done) {
            return done;
        }
    }
    const auto now = Clock::now();
    if (m_session && m_viewers > 0 && !m_version_asked && now >= m_next_version) {
        m_version_asked = now;
        m_next_version = now + kRoundTripInterval;
        if (auto sent = Send(VersionRequest()); !sent) {
            return sent;
        }
    }
    const bool has_figures = m_viewers > 0 && now >= m_next_figures;
    if (m_event_streams > 0 &&
        ((m_has_changed && now >= m_next_state) || has_figures || now >= m_next_alive)) {
        MakeState(now);
    }
    m_server.OnTime(now);
    m_server.SendMore();
    return {};
}

Expected<void> ViewService::Serve() {
    for (;;) {
        if (auto served = ServeOnce(); !served) {
            if (served.error() == Interrupted() || !m_session) {
                return served;
            }
            LoseHost(served.error().text);
        }
        if (m_session) {
            continue;
        }
        auto connected = m_has_answer                                      ? OnConnectorReady()
                         : !m_connecting && Clock::now() >= m_next_connect ? AskConnection()
                                                                           : Expected<void>();
        if (!connected) {
            return connected;
        }
    }
}

Expected<void> ViewService::Run() {
    auto served = Serve();
    std::string failures;
    for (ViewCamera& camera : m_cameras) {
        if (const auto finished = camera.FinishRecording(); !finished) {
            failures += (failures.empty() ? "" : "; ") + finished.error().text;
        }
        // The host would also close it when the connection ends.
        if (const uint32_t id = camera.published.Camera().id; camera.published.WantsFrames(id)) {
            (void)Send(CloseRequest(id));
        }
    }
    // A signal is the usual end.
    if (served.error() != Interrupted()) {
        return served;
    }
    return failures.empty() ? Expected<void>() : Fail(failures);
}

}  // namespace zumod::peer
