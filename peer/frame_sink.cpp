#include "peer/frame_sink.h"

#include "common/safe_text.h"
#include "peer/output_file.h"
#include "peer/peer_error.h"
#include "peer/recorder.h"

namespace zumod::peer {
namespace {

class FileSink final : public FrameSink {
public:
    FileSink(const std::string& path, const PeerOptions& options)
        : m_file(path, options.overwrite),
          m_recorder(m_file.TemporaryPath(), RecordingFormat(path), options.fps),
          m_name(SafeText(path)) {}

    Result Add(const Frame& frame) override {
        return m_recorder.Add(frame.bytes, frame.at) ? Result::kTaken : Result::kSkipped;
    }
    void Finish() override {
        try {
            m_recorder.Finish();
        } catch (const PeerError&) {
            // What was written is better than nothing.
            m_file.Commit();
            throw;
        }
        m_file.Commit();
    }
    std::string Name() const override { return m_name; }

private:
    OutputFile m_file;
    Recorder m_recorder;
    const std::string m_name;
};

class OutputSink final : public FrameSink {
public:
    explicit OutputSink(StandardOutput& output) : m_output(output) {}

    Result Add(const Frame& frame) override {
        if (!m_begun) {
            const AvOwner<AVPacket> packet = MakePacket(frame.bytes);
            m_begun = m_parser.Parse(*packet).key && !ParameterSets(*packet).empty();
            if (!m_begun) {
                return Result::kSkipped;
            }
        }
        m_written += m_output.WriteSome(std::span(frame.bytes).subspan(m_written));
        if (m_written < frame.bytes.size()) {
            return Result::kNotNow;
        }
        m_written = 0;
        return Result::kTaken;
    }
    void Finish() override {}
    std::string Name() const override { return "standard output"; }

private:
    StandardOutput& m_output;
    StreamParser m_parser;
    bool m_begun = false;
    size_t m_written = 0;  // of the frame that was not taken yet
};

}  // namespace

std::unique_ptr<FrameSink> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                         StandardOutput& output) {
    if (path == "-") {
        return std::make_unique<OutputSink>(output);
    }
    return std::make_unique<FileSink>(path, options);
}

}  // namespace zumod::peer
