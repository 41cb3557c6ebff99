#include <algorithm>
#include <optional>
#include <string>

#include "peer/commands.h"

namespace zumod::peer {
namespace {

// A change of format is not answered, but answers arrive in order. Once a version request that follows the
// change is answered, only the frames in the host's queue (5 messages and the one being written) can still
// have the former size.
constexpr int kMostFormerFrames = 10;

// A size other than the new one, if the camera has one, so that the change is visible.
PictureSize FormerSize(const PeerOptions& options, const CameraEntry& camera) {
    std::vector<PictureSize> others = camera.sizes;
    std::erase(others, *options.size);
    return DefaultSize(others.empty() ? camera.sizes : others);
}

class FormatChange {
public:
    explicit FormatChange(CameraView& view)
        : m_session(view.session), m_decoder(view.decoder), m_camera(view.camera) {}

    // The size of the next decoded picture. `since` completes the error: "within 10.0 s" of what.
    Expected<PictureSize> NextSize(const std::string& since) {
        const auto deadline = Clock::now() + m_session.Limit();
        for (;;) {
            const auto received = m_session.Receive(deadline);
            if (!received) {
                return Fail(received.error());
            }
            if (!*received || Clock::now() >= deadline) {
                return Fail("no picture of " + CameraLabel(m_camera) + " came within " +
                            SecondsText(m_session.Limit()) + since);
            }
            const auto size = OnMessage((*received)->message);
            if (!size) {
                return Fail(size.error());
            }
            if (*size) {
                return **size;
            }
        }
    }

    // The size of the pictures after the change.
    Expected<PictureSize> ChangeTo(PictureSize wanted, int fps, PictureSize before) {
        const auto sent = m_session.Send(SetFormatRequest(m_camera.id, wanted, fps)).and_then([this] {
            return m_session.Send(VersionRequest());
        });
        if (!sent) {
            return Fail(sent.error());
        }
        m_changed = false;
        int pictures_since = 0;
        Expected<PictureSize> size = before;
        const std::string since = " of the change to " + SizeText(wanted) +
                                  (Lists(m_camera, wanted) ? "" : ", which it does not list");
        while (size == before && pictures_since < kMostFormerFrames) {
            size = NextSize(since);
            pictures_since += m_changed ? 1 : 0;
        }
        return size;
    }

private:
    // The size of the picture in the message, if there is one.
    Expected<std::optional<PictureSize>> OnMessage(const Message& message) {
        std::optional<PictureSize> size;
        if (const auto* state = std::get_if<StateMessage>(&message)) {
            if (state->id == m_camera.id && state->state != kCameraOpen) {
                return Fail("the host closed " + CameraLabel(m_camera));
            }
        } else if (std::holds_alternative<VersionMessage>(message)) {
            m_changed = true;
        } else if (const auto* frame = std::get_if<FrameMessage>(&message)) {
            if (frame->id == m_camera.id && !frame->bytes.empty()) {
                const auto decoded = m_decoder.Decode(frame->bytes, [&](const VideoDecodedPicture& picture) {
                    size = {static_cast<uint32_t>(picture.width), static_cast<uint32_t>(picture.height)};
                });
                if (!decoded) {
                    return Fail(decoded.error());
                }
            }
        }
        return size;
    }

    Session& m_session;
    PictureDecoder& m_decoder;
    const CameraEntry& m_camera;
    bool m_changed = false;  // the host has processed the change
};

}  // namespace

Expected<void> ChangeFormat(const CommandContext& context) {
    const PictureSize wanted = *context.options.size;
    const auto view = OpenView(context, kVideoTargetI420, FormerSize);
    if (!view) {
        return Fail(view.error());
    }
    const std::string label = CameraLabel((*view)->camera);
    FormatChange change(**view);
    const auto before = change.NextSize("");
    if (!before) {
        return Fail(before.error());
    }
    const auto after = change.ChangeTo(wanted, context.options.fps, *before);
    if (!after) {
        return Fail(after.error());
    }
    auto printed =
        context.output.Write(label + ": " + SizeText(*before) + ", then " + SizeText(*after) + "\n");
    if (printed && *after != wanted) {
        return Fail(label + " sends " + SizeText(*after) + ", not the requested " + SizeText(wanted));
    }
    return printed;
}

}  // namespace zumod::peer
