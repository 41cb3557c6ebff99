#include "peer/commands.h"
#include "peer/output_file.h"
#include "peer/png_writer.h"

namespace zumod::peer {
namespace {

using Png = std::vector<uint8_t>;

// The first picture that can be decoded.
Expected<Png> FirstPicture(CameraView& view) {
    const std::string label = CameraLabel(view.camera);
    const auto deadline = Clock::now() + view.session.Limit();
    uint64_t frames = 0;
    do {
        const auto frame = NextFrame(view.session, view.camera, deadline);
        if (!frame) {
            return Fail(frame.error());
        }
        if (!*frame) {
            break;
        }
        ++frames;
        std::optional<Expected<Png>> png;
        const auto decoded = view.decoder.Decode(
            (*frame)->bytes, [&](const VideoDecodedPicture& picture) { png = EncodePng(picture); });
        if (!decoded) {
            return Fail(decoded.error());
        }
        if (png) {
            return *png;
        }
    } while (Clock::now() < deadline);
    const std::string within = " within " + SecondsText(view.session.Limit());
    if (frames == 0) {
        return Fail(label + " sent no frame" + within);
    }
    return Fail("none of the " + std::to_string(frames) + " frames of " + label + within +
                " could be decoded");
}

}  // namespace

// The file comes first: if it cannot be written, that is reported before a camera is opened.
Expected<void> TakeSnapshot(const CommandContext& context) {
    const PeerOptions& options = context.options;
    auto file = OutputFile::Create(options.path, options.overwrite, options.mode);
    if (!file) {
        return Fail(file.error());
    }
    return OpenView(context, kVideoTargetBgr32)
        .and_then([](const std::unique_ptr<CameraView>& view) { return FirstPicture(*view); })
        .and_then([&](const Png& png) { return file->Write(png); })
        .and_then([&] { return file->Commit(); });
}

}  // namespace zumod::peer
