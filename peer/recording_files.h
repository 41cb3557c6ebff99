// A recording as one file, or as several one after another: a new one for every segment, after a camera was
// away, and (with --split-on-format) when the size of the pictures changes. Only a file under a name that the
// pattern has just produced may replace another one; a further file under the same name gets the next number
// that is free.
//
// Thread rule: one thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "common/error.h"
#include "peer/clock_recovery.h"
#include "peer/frame_sink.h"
#include "peer/output_file.h"
#include "peer/recorder.h"
#include "peer/stream_parser.h"

namespace zumod::peer {

class RecordingFiles final : public FrameSink {
public:
    // Creates the first file. `options` is borrowed.
    static Expected<std::unique_ptr<RecordingFiles>> Create(const std::string& pattern,
                                                            const PeerOptions& options);

    void Begin(const CameraEntry& camera) override;
    Expected<Result> Add(const Frame& frame) override;
    Clock::time_point FlushDue() const override;
    Expected<void> Flush() override;
    Expected<void> Split() override;
    Expected<void> Finish() override { return Split(); }
    std::string Name() const override;

private:
    class Output final : public RecordingOutput {
    public:
        explicit Output(OutputFile opened) : file(std::move(opened)) {}
        bool CanSeek() const override { return true; }
        int WriteAt(int64_t position, std::span<const uint8_t> bytes) override {
            return file.WriteAt(position, bytes);
        }

        OutputFile file;
    };

    RecordingFiles(StreamParser parser, std::string pattern, const PeerOptions& options)
        : m_parser(std::move(parser)),
          m_pattern(std::move(pattern)),
          m_options(options),
          m_clock(options.fps) {}

    Expected<void> OpenNext();
    Expected<OutputFile> CreateNext();
    Expected<void> Complete();
    bool IsSplitDue(const ParsedFrame& frame, Clock::time_point time) const;

    StreamParser m_parser;
    const std::string m_pattern;
    const PeerOptions& m_options;
    ClockRecovery m_clock;
    std::string m_title;

    std::string m_base;     // what the pattern produced last
    unsigned m_number = 0;  // of the last file with that name
    std::string m_first_name;
    std::string m_last_name;

    // The current file; null between two. The recorder writes into the output, so it goes first.
    std::unique_ptr<Output> m_output;
    std::unique_ptr<Recorder> m_recorder;
    std::optional<Clock::time_point> m_begin;  // of the first frame in it
};

}  // namespace zumod::peer
