#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "peer/commands.h"
#include "peer/output_file.h"
#include "peer/peer_error.h"
#include "peer/recorder.h"
#include "peer/safe_text.h"
#include "peer/standard_output.h"

namespace zumod::peer {
namespace {

constexpr auto kProgressEvery = std::chrono::milliseconds(500);

// Where the frames go.
class FrameSink {
public:
    virtual ~FrameSink() = default;
    // False for a frame that is left out because it is no place to begin.
    virtual bool Add(const Frame& frame) = 0;
    // To be called once a frame was added, also after a failure.
    virtual void Keep() = 0;
    virtual std::string Name() const = 0;
};

class FileSink final : public FrameSink {
public:
    explicit FileSink(const PeerOptions& options)
        : m_file(options.path, options.overwrite),
          m_recorder(m_file.TemporaryPath(), RecordingFormat(options.path), options.fps),
          m_name(SafeText(options.path)) {}

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

// One line that is written again and again, on a terminal alone.
class Progress {
public:
    ~Progress() { Clear(); }
    void Show(const std::string& name, uint64_t frames, uint64_t bytes, Clock::duration length) {
        const auto now = Clock::now();
        if (!m_shows || now < m_next) {
            return;
        }
        m_next = now + kProgressEvery;
        m_shown = true;
        std::fprintf(stderr, "\r\033[K%s: %s, %llu frames, %.1f MB", name.c_str(),
                     SecondsText(length).c_str(), static_cast<unsigned long long>(frames),
                     static_cast<double>(bytes) / 1e6);
    }
    void Clear() {
        if (m_shown) {
            std::fputs("\r\033[K", stderr);
        }
        m_shown = false;
    }

private:
    const bool m_shows = isatty(STDERR_FILENO) == 1;
    bool m_shown = false;
    Clock::time_point m_next;
};

class Recording {
public:
    Recording(const Work& work, FrameSink& sink) : m_work(work), m_sink(sink) {}

    void Run() {
        Session session = m_work.Connect();
        const CameraEntry camera = AskCamera(session, m_work.options.id);
        const CameraHold hold(session, camera, SizeFor(m_work.options, camera), m_work.options.fps);
        auto no_frame_until = Clock::now() + session.Limit();
        const char* awaited = "no frame";
        while (Clock::now() < m_end) {
            const auto frame = NextFrame(session, camera, std::min(no_frame_until, m_end));
            if (frame && frame->at < m_end) {
                if (m_sink.Add(*frame)) {
                    Count(*frame);
                    // By now: while nobody reads standard output it is not the camera that is late.
                    no_frame_until = Clock::now() + session.Limit();
                    awaited = "no frame";
                } else {
                    awaited = "no key frame";
                }
            }
            if (Clock::now() >= no_frame_until) {
                throw PeerError(CameraLabel(camera) + " sent " + awaited + " within " +
                                SecondsText(session.Limit()));
            }
        }
    }

    uint64_t Frames() const { return m_frames; }

private:
    void Count(const Frame& frame) {
        if (m_frames == 0) {
            m_first = frame.at;
            if (m_work.options.seconds) {
                m_end = m_first + *m_work.options.seconds;
            }
        }
        ++m_frames;
        m_bytes += frame.bytes.size();
        m_progress.Show(m_sink.Name(), m_frames, m_bytes, frame.at - m_first);
    }

    const Work& m_work;
    FrameSink& m_sink;
    Progress m_progress;
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
    Clock::time_point m_first;
    Clock::time_point m_end = Clock::time_point::max();
};

}  // namespace

void RecordCamera(const Work& work) {
    std::unique_ptr<FrameSink> sink;
    if (work.options.path == "-") {
        sink = std::make_unique<OutputSink>(work.signals);
    } else {
        sink = std::make_unique<FileSink>(work.options);
    }
    Recording recording(work, *sink);
    try {
        recording.Run();
    } catch (const Interrupted&) {
        if (recording.Frames() == 0) {
            throw;
        }
    } catch (const PeerError& error) {
        if (recording.Frames() == 0) {
            throw;
        }
        sink->Keep();
        throw PeerError(std::string(error.what()) + "; the " + std::to_string(recording.Frames()) +
                        " frames before that are in " + sink->Name());
    }
    sink->Keep();
}

}  // namespace zumod::peer
