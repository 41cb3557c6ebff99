#include "peer/commands.h"
#include "peer/output_file.h"
#include "peer/peer_error.h"
#include "peer/picture_decoder.h"
#include "peer/png_writer.h"

namespace zumod::peer {
namespace {

// The first picture that can be decoded, as PNG.
std::vector<uint8_t> FirstPicture(Session& session, const CameraEntry& camera, PictureDecoder& decoder) {
    const auto deadline = Clock::now() + session.Limit();
    std::vector<uint8_t> png;
    uint64_t frames = 0;
    while (const auto frame = NextFrame(session, camera, deadline)) {
        ++frames;
        decoder.Decode(frame->bytes, [&](const VideoDecodedPicture& picture) { png = EncodePng(picture); });
        if (!png.empty()) {
            return png;
        }
        if (Clock::now() >= deadline) {
            break;
        }
    }
    const std::string within = " within " + SecondsText(session.Limit());
    if (frames == 0) {
        throw PeerError(CameraLabel(camera) + " sent no frame" + within);
    }
    throw PeerError("none of the " + std::to_string(frames) + " frames of " + CameraLabel(camera) + within +
                    " could be decoded");
}

}  // namespace

void TakeSnapshot(const Work& work) {
    const PeerOptions& options = work.options;
    OutputFile file(options.path, options.overwrite);
    PictureDecoder decoder(ModuleDirectory(options.modules), kVideoTargetBgr32);
    Session session = work.Connect();
    const CameraEntry camera = AskCamera(session, options.id);
    const CameraHold hold(session, camera, SizeFor(options, camera), options.fps);
    file.Write(FirstPicture(session, camera, decoder));
    file.Commit();
}

}  // namespace zumod::peer
