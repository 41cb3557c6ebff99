#include "peer/frame_sink.h"

#include <utility>

#include "common/safe_text.h"
#include "peer/output_file.h"
#include "peer/recorder.h"

namespace zumod::peer {
namespace {

class FileSink final : public FrameSink {
public:
    FileSink(OutputFile file, std::unique_ptr<Recorder> recorder, const std::string& path)
        : m_file(std::move(file)), m_recorder(std::move(recorder)), m_name(SafeText(path)) {}

    Expected<Result> Add(const Frame& frame) override {
        return m_recorder->Add(frame.bytes, frame.at).map([](bool added) {
            return added ? Result::kTaken : Result::kSkipped;
        });
    }
    Expected<void> Finish() override {
        const auto finished = m_recorder->Finish();
        // Also after a failure: an incomplete recording is better than none.
        const auto committed = m_file.Commit();
        return committed ? finished : committed;
    }
    std::string Name() const override { return m_name; }

private:
    OutputFile m_file;
    std::unique_ptr<Recorder> m_recorder;
    const std::string m_name;
};

class OutputSink final : public FrameSink {
public:
    OutputSink(StreamParser parser, StandardOutput& output) : m_parser(std::move(parser)), m_output(output) {}

    Expected<Result> Add(const Frame& frame) override {
        if (!m_begun) {
            const auto parsed = m_parser.Parse(frame.bytes);
            if (!parsed) {
                return Fail(parsed.error());
            }
            if (!parsed->CanBeFirst()) {
                return Result::kSkipped;
            }
            m_begun = true;
        }
        return m_output.WriteSome(std::span(frame.bytes).subspan(m_written)).map([&](size_t written) {
            m_written += written;
            if (m_written < frame.bytes.size()) {
                return Result::kNotNow;
            }
            m_written = 0;
            return Result::kTaken;
        });
    }
    Expected<void> Finish() override { return {}; }
    std::string Name() const override { return "standard output"; }

private:
    StreamParser m_parser;
    StandardOutput& m_output;
    bool m_begun = false;
    size_t m_written = 0;  // of the frame that is not taken yet
};

}  // namespace

Expected<std::unique_ptr<FrameSink>> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                                   StandardOutput& output) {
    if (path == "-") {
        auto parser = StreamParser::Create();
        if (!parser) {
            return Fail(parser.error());
        }
        return std::make_unique<OutputSink>(std::move(*parser), output);
    }
    auto file = OutputFile::Create(path, options.overwrite);
    if (!file) {
        return Fail(file.error());
    }
    auto recorder = Recorder::Create(file->TemporaryPath(), RecordingFormat(path), options.fps);
    if (!recorder) {
        return Fail(recorder.error());
    }
    return std::make_unique<FileSink>(std::move(*file), std::move(*recorder), path);
}

}  // namespace zumod::peer
