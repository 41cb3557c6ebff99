#include "peer/frame_sink.h"

#include "common/safe_text.h"
#include "peer/output_file.h"
#include "peer/peer_error.h"
#include "peer/recorder.h"
#include "peer/standard_output.h"

namespace zumod::peer {
namespace {

class FileSink final : public FrameSink {
public:
    FileSink(const std::string& path, const PeerOptions& options)
        : m_file(path, options.overwrite),
          m_recorder(m_file.TemporaryPath(), RecordingFormat(path), options.fps),
          m_name(SafeText(path)) {}

    bool Add(const Frame& frame) override { return m_recorder.Add(frame.bytes, frame.at); }
    void Keep() override {
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
    explicit OutputSink(const StopSignals& signals) : m_signals(signals) {}

    bool Add(const Frame& frame) override {
        if (!m_begun) {
            const AvOwner<AVPacket> packet = MakePacket(frame.bytes);
            m_begun = m_parser.Parse(*packet).key && !ParameterSets(*packet).empty();
        }
        if (m_begun) {
            WriteOut(frame.bytes, m_signals);
        }
        return m_begun;
    }
    void Keep() override {}
    std::string Name() const override { return "standard output"; }

private:
    const StopSignals& m_signals;
    StreamParser m_parser;
    bool m_begun = false;
};

}  // namespace

std::unique_ptr<FrameSink> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                         const StopSignals& signals) {
    if (path == "-") {
        return std::make_unique<OutputSink>(signals);
    }
    return std::make_unique<FileSink>(path, options);
}

}  // namespace zumod::peer
