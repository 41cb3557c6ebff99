#include "peer/frame_sink.h"

#include <utility>

#include "common/safe_text.h"
#include "peer/clock_recovery.h"
#include "peer/recorder.h"
#include "peer/recording_files.h"

namespace zumod::peer {
namespace {

// One container on standard output. While a frame is not written completely, its bytes wait in this object.
class OutputSink final : public FrameSink {
public:
    OutputSink(StreamParser parser, const PeerOptions& options, StandardOutput& output)
        : m_parser(std::move(parser)), m_options(options), m_clock(options.fps), m_output(output) {}

    void Begin(const CameraEntry& camera) override { m_title = SafeText(camera.name); }

    Expected<Result> Add(const Frame& frame) override {
        if (m_waiting.bytes.empty()) {
            const auto added = Write(frame);
            if (!added || !*added) {
                return added.map([](bool) { return Result::kSkipped; });
            }
        }
        return m_output.WriteSome(std::span(m_waiting.bytes).subspan(m_written)).map([&](size_t written) {
            m_written += written;
            if (m_written < m_waiting.bytes.size()) {
                return Result::kNotNow;
            }
            m_written = 0;
            m_waiting.bytes.clear();
            return Result::kTaken;
        });
    }
    Expected<void> Split() override { return {}; }
    Expected<void> Finish() override { return {}; }
    std::string Name() const override { return "standard output"; }

private:
    struct Waiting final : RecordingOutput {
        bool CanSeek() const override { return false; }
        int WriteAt(int64_t /*position*/, std::span<const uint8_t> more) override {
            bytes.insert(bytes.end(), more.begin(), more.end());
            return 0;
        }

        std::vector<uint8_t> bytes;
    };

    Expected<bool> Write(const Frame& frame) {
        auto parsed = m_parser.Parse(frame.bytes);
        if (!parsed) {
            return Fail(parsed.error());
        }
        if (m_recorder == nullptr) {
            auto recorder = Recorder::Create({.format = ContainerFormat(m_options.container),
                                              .fps = m_options.fps,
                                              .live = true,
                                              .title = m_title},
                                             m_waiting);
            if (!recorder) {
                return Fail(recorder.error());
            }
            m_recorder = std::move(*recorder);
        }
        const auto time = m_options.arrival_times ? frame.at : m_clock.Next(frame.at);
        return m_recorder->Add(std::move(*parsed), time);
    }

    StreamParser m_parser;
    const PeerOptions& m_options;
    ClockRecovery m_clock;
    StandardOutput& m_output;
    std::string m_title;
    Waiting m_waiting;
    size_t m_written = 0;  // of m_waiting
    std::unique_ptr<Recorder> m_recorder;
};

}  // namespace

Expected<std::unique_ptr<FrameSink>> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                                   StandardOutput& output) {
    if (path != "-") {
        return RecordingFiles::Create(path, options);
    }
    if (output.IsTerminal()) {
        return FailUsage("standard output is a terminal; use a file, or a program as in \"| ffplay -\"");
    }
    auto parser = StreamParser::Create();
    if (!parser) {
        return Fail(parser.error());
    }
    return std::make_unique<OutputSink>(std::move(*parser), options, output);
}

}  // namespace zumod::peer
