#include <unistd.h>

#include "peer/commands.h"
#include "peer/output_file.h"
#include "peer/picture_writer.h"

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

// Which of the pictures that can be decoded is the one to save.
class Choice {
public:
    explicit Choice(const PeerOptions& options) : m_options(options) {}

    // For each picture, once.
    bool IsThis(Clock::time_point at) {
        m_first = m_first.value_or(at);
        const auto after = m_options.after.value_or(Clock::duration::zero());
        return m_seen++ >= m_options.skip && at - *m_first >= after;
    }
    // By when the first picture, or the chosen one, must have arrived.
    Clock::duration Limit() const {
        return m_options.limit + m_options.after.value_or(Clock::duration::zero());
    }

private:
    const PeerOptions& m_options;
    std::optional<Clock::time_point> m_first;
    int m_seen = 0;
};

// The chosen picture as the bytes of a file.
Expected<Bytes> ChosenPicture(CameraView& view, const PeerOptions& options, const PictureFormat& format) {
    const std::string label = CameraLabel(view.camera);
    Choice choice(options);
    const auto deadline = Clock::now() + choice.Limit();
    uint64_t frames = 0;
    uint64_t pictures = 0;
    do {
        const auto frame = NextFrame(view.session, view.camera, deadline);
        if (!frame) {
            return Fail(frame.error());
        }
        if (!*frame) {
            break;
        }
        ++frames;
        std::optional<Expected<Bytes>> file;
        const auto decoded = view.decoder.Decode((*frame)->bytes, [&](const VideoDecodedPicture& picture) {
            ++pictures;
            if (!file && choice.IsThis((*frame)->at)) {
                file = EncodePicture(picture, format);
            }
        });
        if (!decoded) {
            return Fail(decoded.error());
        }
        if (file) {
            return *file;
        }
    } while (Clock::now() < deadline);
    const std::string within = " within " + SecondsText(choice.Limit());
    if (frames == 0) {
        return Fail(label + " sent no frame" + within);
    }
    if (pictures == 0) {
        return Fail("none of the " + std::to_string(frames) + " frames of " + label + within +
                    " could be decoded");
    }
    return Fail(label + " sent only " + std::to_string(pictures) + " pictures" + within +
                " (see --skip, --after and --timeout)");
}

Expected<void> WriteToStandardOutput(const CommandContext& context, const PictureFormat& format) {
    if (isatty(STDOUT_FILENO) == 1) {
        return FailUsage("FILE: a picture is not written to a terminal");
    }
    return OpenView(context, kVideoTargetBgr32)
        .and_then([&](const std::unique_ptr<CameraView>& view) {
            return ChosenPicture(*view, context.options, format);
        })
        .and_then([&](const Bytes& file) {
            return context.output.Write({file.begin(), file.end()});
        });
}

}  // namespace

// The file comes first: if it cannot be written, that is reported before a camera is opened.
Expected<void> TakeSnapshot(const CommandContext& context) {
    const PeerOptions& options = context.options;
    const PictureFormat& format = *PictureFormatOf(options.path);
    if (options.path == "-") {
        return WriteToStandardOutput(context, format);
    }
    auto file = OutputFile::Create(options.path, options.overwrite, options.mode);
    if (!file) {
        return Fail(file.error());
    }
    if (auto ready = options.sandbox ? file->UseHelper() : Expected<void>(); !ready) {
        return ready;
    }
    return OpenView(context, kVideoTargetBgr32)
        .and_then(
            [&](const std::unique_ptr<CameraView>& view) { return ChosenPicture(*view, options, format); })
        .and_then([&](const Bytes& bytes) { return file->Write(bytes); })
        .and_then([&] { return file->Commit(); });
}

}  // namespace zumod::peer
