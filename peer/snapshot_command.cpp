#include "peer/commands.h"
#include "peer/output_file.h"
#include "peer/picture_decoder.h"
#include "peer/png_writer.h"

namespace zumod::peer {
namespace {

using Png = std::vector<uint8_t>;

// The first picture that can be decoded.
Expected<Png> FirstPicture(Session& session, const CameraEntry& camera, PictureDecoder& decoder) {
    const auto deadline = Clock::now() + session.Limit();
    uint64_t frames = 0;
    do {
        const auto frame = NextFrame(session, camera, deadline);
        if (!frame) {
            return tl::make_unexpected(frame.error());
        }
        if (!*frame) {
            break;
        }
        ++frames;
        std::optional<Expected<Png>> png;
        decoder.Decode((*frame)->bytes,
                       [&](const VideoDecodedPicture& picture) { png = EncodePng(picture); });
        if (png) {
            return *png;
        }
    } while (Clock::now() < deadline);
    const std::string within = " within " + SecondsText(session.Limit());
    if (frames == 0) {
        return Fail(CameraLabel(camera) + " sent no frame" + within);
    }
    return Fail("none of the " + std::to_string(frames) + " frames of " + CameraLabel(camera) + within +
                " could be decoded");
}

}  // namespace

// The file comes first: if it cannot be written, that is reported before a camera is opened.
Expected<void> TakeSnapshot(const CommandContext& context) {
    const PeerOptions& options = context.options;
    auto file = OutputFile::Create(options.path, options.overwrite);
    if (!file) {
        return tl::make_unexpected(file.error());
    }
    auto decoder = PictureDecoder::Create(options.modules, kVideoTargetBgr32);
    if (!decoder) {
        return tl::make_unexpected(decoder.error());
    }
    auto session = context.Connect();
    if (!session) {
        return tl::make_unexpected(session.error());
    }
    const auto camera = AskCamera(*session, options.id);
    if (!camera) {
        return tl::make_unexpected(camera.error());
    }
    const auto opened = OpenedCamera::Open(*session, *camera, RequestedSize(options, *camera), options.fps);
    if (!opened) {
        return tl::make_unexpected(opened.error());
    }
    const auto png = FirstPicture(*session, *camera, *decoder);
    if (!png) {
        return tl::make_unexpected(png.error());
    }
    if (const auto written = file->Write(*png); !written) {
        return written;
    }
    return file->Commit();
}

}  // namespace zumod::peer
