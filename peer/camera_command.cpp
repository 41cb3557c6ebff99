#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/safe_text.h"
#include "peer/commands.h"
#include "peer/pipewire_node.h"
#include "peer/published_camera.h"

namespace zumod::peer {
namespace {

// Where PipeWire's library reads its configuration.
std::vector<std::string> ConfigurationDirectories() {
    std::vector<std::string> directories = {"/usr/share/pipewire", "/etc/pipewire"};
    const char* const configuration = std::getenv("XDG_CONFIG_HOME");  // NOLINT(concurrency-mt-unsafe)
    const char* const home = std::getenv("HOME");                      // NOLINT(concurrency-mt-unsafe)
    if (configuration != nullptr && configuration[0] != '\0') {
        directories.push_back(std::string(configuration) + "/pipewire");
    } else if (home != nullptr) {
        directories.push_back(std::string(home) + "/.config/pipewire");
    }
    return directories;
}

// The text with only letters, digits and hyphens.
std::string NamePart(const std::string& text) {
    std::string part = text;
    std::ranges::replace_if(
        part,
        [](char letter) {
            return (letter < '0' || letter > '9') && (letter < 'A' || letter > 'Z') &&
                   (letter < 'a' || letter > 'z');
        },
        '-');
    return part;
}

// The sizes that readers may choose from.
std::vector<PictureSize> OfferedSizes(const CameraEntry& camera, PictureSize preferred) {
    std::vector<PictureSize> sizes;
    std::ranges::copy_if(camera.sizes, std::back_inserter(sizes), CanBeOffered);
    if (CanBeOffered(preferred)) {
        sizes.push_back(preferred);
    }
    // Pictures are scaled to it.
    return sizes.empty() ? std::vector<PictureSize>{DefaultSize({})} : sizes;
}

// One camera of the host and its node.
class LentCamera {
public:
    struct Made {
        const std::vector<CameraEntry>& listed;
        const CameraEntry& camera;
        NodeSettings node;
        const PeerOptions& options;
    };
    LentCamera(Made made, PipeWire& pipewire, Session& session, PictureDecoder decoder)
        : m_pipewire(pipewire),
          m_session(session),
          m_decoder(std::move(decoder)),
          m_settings(std::move(made.node)),
          camera(made.listed, made.camera, m_settings.preferred, {.watch = WatchLimits(made.options)},
                 Clock::now()) {}

    Expected<void> Publish() {
        auto node = PipeWireNode::Create(m_pipewire, m_settings,
                                         {.on_readers =
                                              [this](bool any) {
                                                  m_readers = any;
                                                  m_session.Wake();
                                              },
                                          .on_format =
                                              [this](StreamFormat format, VideoTargetFormat target) {
                                                  m_format = {format, target};
                                                  m_session.Wake();
                                              },
                                          .on_error =
                                              [this](const std::string& text) {
                                                  m_error = text;
                                                  m_session.Wake();
                                              }});
        if (!node) {
            return Fail(node.error());
        }
        m_node = std::move(*node);
        return m_decoder.SetOutput(m_settings.preferred.size, m_target);
    }
    void Withdraw() {
        m_node.reset();
        m_readers = false;
    }

    // What readers did since the last call.
    Expected<PublishedCamera::Actions> OnNode() {
        const auto now = Clock::now();
        PublishedCamera::Actions actions;
        if (const auto format = std::exchange(m_format, std::nullopt)) {
            m_target = format->second;
            if (auto set = m_decoder.SetOutput(format->first.size, m_target); !set) {
                return Fail(set.error());
            }
            actions = camera.OnFormat(format->first, now);
        }
        const auto more = camera.OnReaders(m_readers, now);
        actions.insert(actions.end(), more.begin(), more.end());
        if (m_error != m_reported_error) {
            m_reported_error = m_error;
            actions.push_back({.kind = PublishAction::kReport,
                               .text = CameraLabel(camera.Camera()) + ": PipeWire reports: " + m_error});
        }
        return actions;
    }

    Expected<void> RestartDecoder() { return m_decoder.Restart(); }

    Expected<void> Show(const FrameMessage& frame, Clock::time_point arrived) {
        if (m_node == nullptr) {
            return {};
        }
        const auto decoded = m_decoder.Decode(frame.bytes, [&](const VideoDecodedPicture& picture) {
            Picture& written = m_node->Mailbox().Writing();
            if (CopyPicture(picture, m_target, written)) {
                written.sequence = m_sequence++;
                written.arrived = arrived;
                m_node->Mailbox().Post();
            }
        });
        if (!decoded) {
            return Fail(decoded.error());
        }
        m_node->Present();
        return {};
    }

    void ShowCard() {
        if (m_node == nullptr) {
            return;
        }
        Picture& written = m_node->Mailbox().Writing();
        DrawNoCamera(camera.Format().size, m_target, written);
        written.sequence = m_sequence++;
        written.arrived = Clock::now();
        m_node->Mailbox().Post();
        m_node->Present();
    }

    bool IsRead() const { return m_readers; }

private:
    PipeWire& m_pipewire;
    Session& m_session;
    PictureDecoder m_decoder;
    const NodeSettings m_settings;
    std::unique_ptr<PipeWireNode> m_node;
    VideoTargetFormat m_target = kVideoTargetI420;
    uint64_t m_sequence = 0;

    // Set by the node's callbacks.
    bool m_readers = false;
    std::optional<std::pair<StreamFormat, VideoTargetFormat>> m_format;
    std::string m_error;  // the last one

    std::string m_reported_error;  // not again if it is the same

public:
    PublishedCamera camera;
    uint64_t notices = 0;  // of the host, when the camera was to be opened
};

class CameraService {
public:
    CameraService(const CommandContext& context, Session& session, PipeWire& pipewire)
        : m_context(context), m_session(session), m_pipewire(pipewire) {}

    Expected<void> Publish(const std::vector<CameraEntry>& listed, const std::vector<CameraEntry>& wanted) {
        const PeerOptions& options = m_context.options;
        for (const CameraEntry& camera : wanted) {
            auto decoder =
                PictureDecoder::Create(options.modules, kVideoTargetI420, m_context.waiter, options.limit);
            if (!decoder) {
                return Fail(decoder.error());
            }
            const auto sizes = OfferedSizes(camera, RequestedSize(options, camera));
            const PictureSize preferred = options.size.value_or(DefaultSize(sizes));
            if (auto limited = decoder->LimitPixels(MostPixels(options, {3840, 2176})); !limited) {
                return limited;
            }
            LentCamera& lent = m_cameras.emplace_back(
                LentCamera::Made{listed,
                                 camera,
                                 {NodeName(camera), Description(camera), sizes, {preferred, options.fps}},
                                 options},
                m_pipewire, m_session, std::move(*decoder));
            if (auto published = lent.Publish(); !published) {
                return published;
            }
            Say(CameraLabel(camera) + " is offered as \"" + Description(camera) + "\"");
        }
        return {};
    }

    // Ends on a signal, or when the host or PipeWire is gone.
    Expected<void> Run() {
        auto served = Serve();
        if (!served && m_host_failed) {
            Say(served.error().text + "; ends when no program uses a camera");
            if (auto shown = ShowCardsToTheLast(); !shown) {
                return shown.error() == Interrupted() ? served : shown;
            }
        } else {
            Close();
        }
        return served;
    }

private:
    static constexpr size_t kLongestName = 64;

    std::string Label() const {
        const std::string label = HostLabel(m_context.options);
        return SafeText(!label.empty() ? label : "lent");
    }
    std::string Description(const CameraEntry& camera) const {
        return SafeText(camera.name) + " (" + Label() + ")";
    }
    // The same each time, as far as the host lists its cameras in the same order.
    std::string NodeName(const CameraEntry& camera) {
        const std::string name =
            ("zu-lent." + NamePart(Label()) + "." + NamePart(camera.name)).substr(0, kLongestName);
        std::string unique = name;
        for (int i = 2; std::ranges::find(m_names, unique) != m_names.end(); ++i) {
            unique = name + "." + std::to_string(i);
        }
        m_names.push_back(unique);
        return unique;
    }

    Expected<void> Serve() {
        for (;;) {
            auto next = Clock::time_point::max();
            for (LentCamera& lent : m_cameras) {
                next = std::min(next, lent.camera.NextTime());
            }
            auto received = m_session.Receive(next);
            if (!received) {
                m_host_failed = received.error() != Interrupted();
                return Fail(received.error());
            }
            if (*received) {
                if (auto handled = OnMessage(**received); !handled) {
                    return handled;
                }
            }
            if (const std::string failure = m_pipewire.Failure(); !failure.empty()) {
                return Fail(failure);
            }
            for (LentCamera& lent : m_cameras) {
                if (auto done = OnTime(lent); !done) {
                    return done;
                }
            }
        }
    }

    Expected<void> OnTime(LentCamera& lent) {
        return lent.OnNode()
            .and_then([&](const PublishedCamera::Actions& actions) { return Perform(lent, actions); })
            .and_then([&]() -> Expected<void> {
                const auto actions = lent.camera.OnTime(Clock::now());
                if (!actions) {
                    m_host_failed = true;
                    return Fail(actions.error());
                }
                return Perform(lent, *actions);
            });
    }

    Expected<void> OnMessage(const ReceivedMessage& received) {
        const auto now = Clock::now();
        const auto* frame = std::get_if<FrameMessage>(&received.message);
        const auto* list = std::get_if<CameraListMessage>(&received.message);
        m_asked = m_asked && list == nullptr;
        for (LentCamera& lent : m_cameras) {
            Expected<void> done;
            if (const auto* state = std::get_if<StateMessage>(&received.message)) {
                const bool explained = m_session.Notices() != lent.notices;
                done = Perform(lent, lent.camera.OnState(*state, now, !explained));
            } else if (list != nullptr) {
                done = Perform(lent, lent.camera.OnCameras(list->cameras, now));
            } else if (frame != nullptr && !frame->bytes.empty() && lent.camera.WantsFrames(frame->id)) {
                return Perform(lent, lent.camera.OnFrame(now)).and_then([&] {
                    return lent.Show(*frame, received.at);
                });
            }
            if (!done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> Perform(LentCamera& lent, const PublishedCamera::Actions& actions) {
        for (const PublishAction& action : actions) {
            if (auto done = Perform(lent, action); !done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> Perform(LentCamera& lent, const PublishAction& action) {
        switch (action.kind) {
            case PublishAction::kAskCameras:
                // One answer serves all cameras.
                return std::exchange(m_asked, true) ? Expected<void>() : Send(ListRequest());
            case PublishAction::kOpen:
                if (IsUsed(lent, action.id)) {
                    return Perform(lent, lent.camera.OnState({kCameraFailed, action.id}, Clock::now()));
                }
                lent.notices = m_session.Notices();
                return Send(OpenRequest(action.id, action.format.size, action.format.fps)).and_then([&] {
                    return lent.RestartDecoder();
                });
            case PublishAction::kSetFormat:
                return Send(SetFormatRequest(action.id, action.format.size, action.format.fps));
            case PublishAction::kClose:
                return Send(CloseRequest(action.id));
            case PublishAction::kShowCard:
                lent.ShowCard();
                return {};
            case PublishAction::kWithdraw:
                lent.Withdraw();
                return {};
            case PublishAction::kPublish:
                return lent.Publish();
            case PublishAction::kReport:
                Say(action.text);
                return {};
        }
        return {};
    }

    // A camera may be listed under an id that another one was opened with. Their frames could not be told
    // apart.
    bool IsUsed(const LentCamera& lent, uint32_t id) const {
        return std::ranges::any_of(m_cameras, [&](const LentCamera& other) {
            return &other != &lent && other.camera.WantsFrames(id);
        });
    }

    Expected<void> Send(const std::vector<uint8_t>& request) {
        auto sent = m_session.Send(request);
        m_host_failed = !sent && sent.error() != Interrupted();
        return sent;
    }

    // The host is gone. A program that reads a node that vanishes may wait for its next picture for ever.
    Expected<void> ShowCardsToTheLast() {
        for (;;) {
            bool any = false;
            for (LentCamera& lent : m_cameras) {
                // A card has the format that readers want now.
                if (const auto changed = lent.OnNode(); !changed) {
                    return Fail(changed.error());
                }
                if (lent.IsRead()) {
                    any = true;
                    lent.ShowCard();
                } else {
                    lent.Withdraw();
                }
            }
            if (!any || !m_pipewire.Failure().empty()) {
                return {};
            }
            if (const auto waited = m_context.waiter.Wait(Clock::now() + PublishedCamera::kCardInterval);
                !waited) {
                return Fail(waited.error());
            }
        }
    }

    // The host would also close them when the connection ends.
    void Close() {
        for (LentCamera& lent : m_cameras) {
            if (lent.camera.WantsFrames(lent.camera.Camera().id)) {
                (void)m_session.Send(CloseRequest(lent.camera.Camera().id));
            }
        }
    }

    void Say(const std::string& text) { m_context.messages.Offer("zu-camera-peer: " + text + "\n"); }

    const CommandContext& m_context;
    Session& m_session;
    PipeWire& m_pipewire;
    std::list<LentCamera> m_cameras;  // their nodes have pointers to them
    std::vector<std::string> m_names;
    bool m_asked = false;  // for the list
    bool m_host_failed = false;
};

Expected<std::vector<CameraEntry>> WantedCameras(const std::vector<CameraEntry>& listed,
                                                 const std::vector<std::string>& names) {
    if (names.empty()) {
        return listed.empty() ? Expected<std::vector<CameraEntry>>(Fail("the host lists no camera")) : listed;
    }
    std::vector<CameraEntry> wanted;
    for (const std::string& name : names) {
        auto camera = FindCamera(listed, name);
        if (!camera) {
            return Fail(camera.error());
        }
        if (std::ranges::find(wanted, camera->id, &CameraEntry::id) != wanted.end()) {
            return Fail(CameraLabel(*camera) + " is given twice");
        }
        wanted.push_back(std::move(*camera));
    }
    return wanted;
}

}  // namespace

Expected<void> PublishCameras(const CommandContext& context) {
    if (const auto size = context.options.size; size && !CanBeOffered(*size)) {
        return Fail(SizeText(*size) +
                    " cannot be offered to programs: the width must be a multiple of 8, the height even, and "
                    "the size at most 3840x2176 pixels");
    }
    auto socket = PipeWire::Connect();
    if (!socket) {
        return Fail(socket.error());
    }
    auto session = context.Connect();
    if (!session) {
        return Fail(session.error());
    }
    if (auto restricted = RestrictProcess(context.options, session->Command(), ConfigurationDirectories());
        !restricted) {
        return restricted;
    }
    auto pipewire = PipeWire::Start(std::move(*socket), context.waiter);
    if (!pipewire) {
        return Fail(pipewire.error());
    }
    const auto listed = AskCameras(*session);
    if (!listed) {
        return Fail(listed.error());
    }
    const auto wanted = WantedCameras(*listed, context.options.cameras);
    if (!wanted) {
        return Fail(wanted.error());
    }
    CameraService service(context, *session, **pipewire);
    auto ran = service.Publish(*listed, *wanted).and_then([&] { return service.Run(); });
    // A signal is the usual end.
    return !ran && ran.error() == Interrupted() ? Expected<void>() : ran;
}

}  // namespace zumod::peer
