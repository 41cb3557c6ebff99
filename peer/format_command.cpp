#include <algorithm>
#include <optional>
#include <string>

#include "peer/commands.h"
#include "peer/peer_error.h"
#include "peer/picture_decoder.h"
#include "peer/picture_size.h"
#include "peer/requests.h"

namespace zumod::peer {
namespace {

// Nothing answers a change of format, but answers come in order: once a version request that follows it is
// answered, at most the frames of the host's queue (5 messages and the one being written) are still as
// before.
constexpr int kFramesOfBefore = 10;

// Another size than the one to change to, where the camera has one, so that the change shows.
PictureSize OpeningSize(const CameraEntry& camera, PictureSize wanted) {
    std::vector<PictureSize> others = camera.sizes;
    others.erase(std::remove(others.begin(), others.end(), wanted), others.end());
    return DefaultSize(others.empty() ? camera.sizes : others);
}

class FormatChanging {
public:
    FormatChanging(Session& session, PictureDecoder& decoder, const CameraEntry& camera)
        : m_session(session), m_decoder(decoder), m_camera(camera) {}

    // The size of the next decoded picture. `since` says what it comes, or does not come, after.
    PictureSize NextSize(const std::string& since) {
        const auto deadline = Clock::now() + m_session.Limit();
        while (const auto arrived = m_session.Receive(deadline)) {
            if (const auto size = Look(*arrived)) {
                return *size;
            }
        }
        throw PeerError("no picture of " + CameraLabel(m_camera) + " came within " +
                        SecondsText(m_session.Limit()) + since);
    }

    PictureSize ChangeTo(PictureSize wanted, int fps, PictureSize before) {
        m_session.Send(FormatChange(m_camera.id, wanted, fps));
        m_session.Send(VersionRequest());
        m_changed = false;
        int pictures_since = 0;
        PictureSize size = before;
        const std::string since = " of the change to " + SizeText(wanted) +
                                  (Lists(m_camera, wanted) ? "" : ", which it does not list");
        while (size == before && pictures_since < kFramesOfBefore) {
            size = NextSize(since);
            pictures_since += m_changed ? 1 : 0;
        }
        return size;
    }

private:
    std::optional<PictureSize> Look(const ReceivedMessage& arrived) {
        std::optional<PictureSize> size;
        if (const auto* state = std::get_if<StateMessage>(&arrived.message)) {
            if (state->id == m_camera.id && state->state != kCameraOpen) {
                throw PeerError("the host closed " + CameraLabel(m_camera));
            }
        } else if (std::holds_alternative<VersionMessage>(arrived.message)) {
            m_changed = true;
        } else if (const auto* frame = std::get_if<FrameMessage>(&arrived.message)) {
            if (frame->id == m_camera.id && !frame->bytes.empty()) {
                m_decoder.Decode(frame->bytes, [&](const VideoDecodedPicture& picture) {
                    size = {static_cast<uint32_t>(picture.width), static_cast<uint32_t>(picture.height)};
                });
            }
        }
        return size;
    }

    Session& m_session;
    PictureDecoder& m_decoder;
    const CameraEntry& m_camera;
    bool m_changed = false;  // the host has taken the change
};

}  // namespace

void ChangeFormat(const Work& work) {
    const PeerOptions& options = work.options;
    PictureDecoder decoder(ModuleDirectory(options.modules), kVideoTargetI420);
    Session session = work.Connect();
    const CameraEntry camera = AskCamera(session, options.id);
    const CameraHold hold(session, camera, OpeningSize(camera, *options.size), options.fps);
    FormatChanging changing(session, decoder, camera);
    const PictureSize before = changing.NextSize("");
    const PictureSize after = changing.ChangeTo(*options.size, options.fps, before);
    work.output.Write(CameraLabel(camera) + ": " + SizeText(before) + ", then " + SizeText(after) + "\n");
    if (after != *options.size) {
        throw PeerError(CameraLabel(camera) + " sends " + SizeText(after) + " where " +
                        SizeText(*options.size) + " was asked for");
    }
}

}  // namespace zumod::peer
