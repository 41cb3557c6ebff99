#include "peer/run_session.h"

#include <poll.h>

#include <algorithm>
#include <list>
#include <utility>

#include "common/safe_text.h"
#include "peer/picture_mailbox.h"
#include "peer/published_camera.h"
#include "vcam/cli/feeder.h"

namespace zumod::peer {
namespace {

// Of a virtual camera.
constexpr uint32_t kLeastSide = 16;
constexpr uint32_t kGreatestSide = 8192;
constexpr uint64_t kMostPixels = uint64_t{4096} * 2304;
constexpr size_t kMostOfferedSizes = 256;
constexpr size_t kLongestCard = 31;  // characters
constexpr int kRates[] = {30, 25, 20, 15, 10, 5};

// While no program streams. One that looks for a camera that was plugged in waits so long for it.
constexpr auto kListInterval = std::chrono::seconds(1);
constexpr auto kServerStart = std::chrono::seconds(10);
constexpr auto kServerRetry = std::chrono::milliseconds(20);

// The name without what has a meaning in the option.
std::string CardOf(const CameraEntry& camera) {
    std::string card;
    size_t characters = 0;
    for (const char letter : SafeText(camera.name)) {
        // In UTF-8 every byte but the first of a character is 10xxxxxx.
        characters += (letter & 0xc0) != 0x80 ? 1 : 0;
        if (characters > kLongestCard) {
            break;
        }
        card += letter == '"' ? '\'' : letter;
    }
    return card.empty() ? "Camera" : card;
}

struct LentCamera {
    LentCamera(const RunPlan& plan, const CameraEntry& entry, StreamFormat format,
               const PublishedCamera::Limits& limits, vcam::Feeder connected)
        : name(entry.name),
          published(plan.lent, entry, format, limits, Clock::now()),
          feeder(std::move(connected)) {}

    const std::string name;
    PublishedCamera published;
    vcam::Feeder feeder;
    std::optional<PictureDecoder> decoder;  // from the first open on
    bool is_fitted = false;                 // the decoder scales pictures to what the program wants
    Waiter::Registration notices;           // none while a notice waits to be received
    bool is_plugged = true;
    uint64_t notices_at_open = 0;  // of the host, when the camera was to be opened
};

class RunSession {
public:
    RunSession(const CommandContext& context, Session& session, const RunPlan& plan)
        : m_context(context), m_session(session), m_plan(plan) {}

    Expected<void> ConnectFeeders() {
        const auto deadline = Clock::now() + kServerStart;
        for (unsigned index = 0; index < m_plan.lent.size(); ++index) {
            auto feeder = ConnectFeeder(index, deadline);
            if (!feeder) {
                return feeder.error() == Interrupted() ? Fail(feeder.error()) : ServerGone(feeder.error());
            }
            const CameraEntry& camera = m_plan.lent[index];
            m_cameras.emplace_back(
                m_plan, camera, StreamFormat{RequestedSize(m_context.options, camera), m_context.options.fps},
                PublishedCamera::Limits{.watch = WatchLimits(m_context.options),
                                        .list_interval = kListInterval},
                std::move(*feeder));
        }
        return {};
    }

    Expected<void> Run(const std::vector<CameraEntry>& listed) {
        if (auto done = OnCameras(listed); !done) {
            return done;
        }
        for (LentCamera& camera : m_cameras) {
            WatchNotices(camera);
        }
        for (;;) {
            auto next = Clock::time_point::max();
            for (const LentCamera& camera : m_cameras) {
                next = std::min(next, camera.published.NextTime());
            }
            const auto received = m_session.Receive(next);
            if (!received) {
                return Fail(received.error());
            }
            auto done = *received ? OnMessage(**received) : Expected<void>();
            for (LentCamera& camera : m_cameras) {
                done =
                    done.and_then([&] { return OnNotices(camera); }).and_then([&] { return OnTime(camera); });
            }
            if (!done) {
                return done;
            }
        }
    }

    // The host would also close them when the connection ends.
    void Close() {
        for (const LentCamera& camera : m_cameras) {
            if (const uint32_t id = camera.published.Camera().id; camera.published.WantsFrames(id)) {
                (void)m_session.Send(CloseRequest(id));
            }
        }
    }

    bool IsServerGone() const { return m_is_server_gone; }

private:
    // The server may only just have been started.
    Expected<vcam::Feeder> ConnectFeeder(unsigned index, Clock::time_point deadline) const {
        for (;;) {
            auto feeder = vcam::Feeder::Connect(m_plan.server, index);
            if (feeder || Clock::now() >= deadline) {
                return feeder;
            }
            if (const auto waited = m_context.waiter.Wait(Clock::now() + kServerRetry); !waited) {
                return Fail(waited.error());
            }
        }
    }

    tl::unexpected<Error> ServerGone(const Error& error) {
        m_is_server_gone = true;
        return Fail(error);
    }

    void WatchNotices(LentCamera& camera) {
        camera.notices = m_context.waiter.Watch(camera.feeder.Descriptor(), POLLIN, [this, &camera] {
            camera.notices.reset();
            m_session.Wake();
        });
    }

    Expected<void> OnNotices(LentCamera& camera) {
        if (camera.notices) {
            return {};
        }
        for (;;) {
            const auto notice = camera.feeder.Receive();
            if (!notice) {
                return ServerGone(notice.error());
            }
            if (!*notice) {
                WatchNotices(camera);
                return {};
            }
            if (auto done = OnNotice(camera, **notice); !done) {
                return done;
            }
        }
    }

    Expected<void> OnNotice(LentCamera& camera, const vcam::FeedNotice& notice) {
        const auto now = Clock::now();
        if (notice.is_streaming == 0) {
            return Perform(camera, camera.published.OnReaders(false, now));
        }
        const uint32_t fps =
            notice.rate_denominator == 0 ? 0 : notice.rate_numerator / notice.rate_denominator;
        const StreamFormat format{{notice.width, notice.height}, std::max(1, static_cast<int>(fps))};
        return Perform(camera, camera.published.OnFormat(format, now))
            .and_then([&] { return Perform(camera, camera.published.OnReaders(true, now)); })
            .and_then([&] { return camera.is_fitted ? Fit(camera) : Expected<void>(); });
    }

    Expected<void> OnTime(LentCamera& camera) {
        return camera.published.OnTime(Clock::now()).and_then([&](const PublishedCamera::Actions& actions) {
            return Perform(camera, actions);
        });
    }

    Expected<void> OnMessage(const ReceivedMessage& received) {
        if (const auto* list = std::get_if<CameraListMessage>(&received.message)) {
            return OnCameras(list->cameras);
        }
        const auto* state = std::get_if<StateMessage>(&received.message);
        const auto* frame = std::get_if<FrameMessage>(&received.message);
        for (LentCamera& camera : m_cameras) {
            Expected<void> done;
            if (state != nullptr) {
                const bool explained = m_session.Notices() != camera.notices_at_open;
                done = Perform(camera, camera.published.OnState(*state, Clock::now(), !explained));
            } else if (frame != nullptr && !frame->bytes.empty() && camera.published.WantsFrames(frame->id)) {
                done = Perform(camera, camera.published.OnFrame(received.at)).and_then([&] {
                    return Show(camera, frame->bytes);
                });
            }
            if (!done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> OnCameras(const std::vector<CameraEntry>& listed) {
        m_is_list_requested = false;
        for (LentCamera& camera : m_cameras) {
            const bool is_listed = std::ranges::find(listed, camera.name, &CameraEntry::name) != listed.end();
            if (std::exchange(camera.is_plugged, is_listed) != is_listed) {
                if (const auto told = camera.feeder.SetPlugged(is_listed); !told) {
                    return ServerGone(told.error());
                }
            }
            if (auto done = Perform(camera, camera.published.OnCameras(listed, Clock::now())); !done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> Show(LentCamera& camera, std::span<const uint8_t> frame) {
        if (!camera.decoder) {
            return {};
        }
        bool fits = true;
        const auto decoded = camera.decoder->Decode(frame, [&](const VideoDecodedPicture& picture) {
            vcam::Feeder::Picture fed;
            fed.width = static_cast<uint32_t>(picture.width) & ~1U;
            fed.height = static_cast<uint32_t>(picture.height) & ~1U;
            for (size_t plane = 0; plane < fed.planes.size(); ++plane) {
                fed.planes[plane] = picture.planes[plane];
                fed.strides[plane] = static_cast<size_t>(picture.strides[plane]);
            }
            fits = camera.feeder.Put(fed);
        });
        if (!decoded) {
            return Fail(decoded.error());
        }
        return fits || camera.is_fitted ? Expected<void>() : Fit(camera);
    }

    // Usually the virtual camera scales. A picture that is too large or too small for it is scaled by the
    // decoder, as all pictures after it.
    static Expected<void> Fit(LentCamera& camera) {
        camera.is_fitted = true;
        return camera.decoder->SetOutput(camera.published.Format().size, kVideoTargetI420);
    }

    // A dark picture with a sign that there is no camera.
    static void ShowCard(LentCamera& camera) {
        const PictureSize size = camera.published.Format().size;
        Picture card;
        DrawNoCamera(size, kVideoTargetI420, card);
        const auto planes = PlanesOf(size, kVideoTargetI420);
        vcam::Feeder::Picture fed{size.width, size.height, {}, {}};
        for (size_t plane = 0; plane < planes.size() && plane < fed.planes.size(); ++plane) {
            fed.planes[plane] = card.bytes.data() + planes[plane].offset;
            fed.strides[plane] = planes[plane].row_bytes;
        }
        camera.feeder.Put(fed);
    }

    // Before the camera is opened: without a decoder, none is.
    Expected<void> PrepareDecoder(LentCamera& camera, PictureSize size) {
        if (camera.decoder) {
            if (auto restarted = camera.decoder->Restart(); !restarted) {
                return restarted;
            }
        } else {
            const PeerOptions& options = m_context.options;
            auto decoder =
                PictureDecoder::Create(options.modules, kVideoTargetI420, m_context.waiter, options.limit);
            if (!decoder) {
                return Fail(decoder.error());
            }
            camera.decoder.emplace(std::move(*decoder));
        }
        return camera.decoder->LimitPixels(MostPixels(m_context.options, size));
    }

    Expected<void> Perform(LentCamera& camera, const PublishedCamera::Actions& actions) {
        for (const PublishAction& action : actions) {
            if (auto done = Perform(camera, action); !done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> Perform(LentCamera& camera, const PublishAction& action) {
        const StreamFormat& format = action.format;
        switch (action.kind) {
            case PublishAction::kAskCameras:
                // One answer serves all cameras.
                return std::exchange(m_is_list_requested, true) ? Expected<void>()
                                                                : m_session.Send(ListRequest());
            case PublishAction::kOpen:
                if (IsUsed(camera, action.id)) {
                    return Perform(camera,
                                   camera.published.OnState({kCameraFailed, action.id}, Clock::now()));
                }
                camera.notices_at_open = m_session.Notices();
                return PrepareDecoder(camera, format.size).and_then([&] {
                    return m_session.Send(OpenRequest(action.id, format.size, format.fps));
                });
            case PublishAction::kSetFormat:
                return m_session.Send(SetFormatRequest(action.id, format.size, format.fps)).and_then([&] {
                    return camera.decoder->LimitPixels(MostPixels(m_context.options, format.size));
                });
            case PublishAction::kClose:
                return m_session.Send(CloseRequest(action.id));
            case PublishAction::kShowCard:
                ShowCard(camera);
                return {};
            case PublishAction::kWithdraw:
            case PublishAction::kPublish:
                return {};  // see OnCameras
            case PublishAction::kReport:
                m_context.messages.Offer("zu-camera-peer: " + action.text + "\n");
                return {};
        }
        return {};
    }

    // Two cameras of one name may be listed under one id after another. Their frames could not be told apart.
    bool IsUsed(const LentCamera& camera, uint32_t id) const {
        return std::ranges::any_of(m_cameras, [&](const LentCamera& other) {
            return &other != &camera && other.published.WantsFrames(id);
        });
    }

    const CommandContext& m_context;
    Session& m_session;
    const RunPlan& m_plan;
    std::list<LentCamera> m_cameras;  // callbacks have pointers to them
    bool m_is_list_requested = false;
    bool m_is_server_gone = false;
};

}  // namespace

bool CanBeVirtual(PictureSize size) {
    const auto is_side = [](uint32_t side) {
        return side >= kLeastSide && side <= kGreatestSide && side % 2 == 0;
    };
    return is_side(size.width) && is_side(size.height) && uint64_t{size.width} * size.height <= kMostPixels;
}

std::string VirtualCameraOption(const CameraEntry& camera, PictureSize size, int fps) {
    std::vector<PictureSize> sizes = {size};
    sizes.insert(sizes.end(), camera.sizes.begin(), camera.sizes.end());
    std::vector<PictureSize> offered;
    for (const PictureSize each : sizes) {
        if (CanBeVirtual(each) && std::ranges::find(offered, each) == offered.end() &&
            offered.size() < kMostOfferedSizes) {
            offered.push_back(each);
        }
    }
    std::string text = "source=feed,card=\"" + CardOf(camera) + "\",formats=NV12:YUYV:MJPG";
    for (const PictureSize& each : offered) {
        text += &each == &offered.front() ? ",sizes=" : ":";
        text += SizeText(each);
    }
    text += ",fps=" + std::to_string(fps);
    for (const int rate : kRates) {
        if (rate != fps) {
            text += ':';
            text += std::to_string(rate);
        }
    }
    return text;
}

std::optional<RunEnd> FeedVirtualCameras(const CommandContext& context, Session& session,
                                         const std::vector<CameraEntry>& listed, const RunPlan& plan) {
    RunSession run(context, session, plan);
    const auto connected = run.ConnectFeeders();
    const auto ran =
        connected.and_then([&] { return RestrictProcess(context.options, session.Command()); }).and_then([&] {
            return run.Run(listed);
        });
    if (ran.error() == Interrupted()) {
        run.Close();
        return std::nullopt;
    }
    const bool has_ended = connected && run.IsServerGone();
    return RunEnd{run.IsServerGone(), has_ended ? "" : ran.error().text};
}

}  // namespace zumod::peer
