// The container of a recording: turns parsed frames into the bytes of an MP4, Matroska, MPEG transport stream
// or bare H.264 file.
//
// What has been written can be played at any moment, also if the program is killed: MP4 is written in
// fragments and Matroska in clusters. Each starts at a key frame or after kLongestPiece, is complete in
// itself, and reaches the output in one go. So the memory holds at most about a second of frames.
//
// A finished MP4 has its index in front, without a second copy of the data: the file starts with an empty box
// ("free") of a fixed size, which Finish() turns into a segment index ("sidx"). The index has one entry per
// key frame. When it is full, neighbours are merged, so a longer recording has a coarser index. The type of
// the box is written last; if the program is killed before that, players continue to skip the box.
//
// Bare H.264 has no time stamps. Players take the rate from the parameter sets, where encoders write the rate
// that they were asked for. Therefore the first kMeasuredTime of it is held back until the real rate is
// known, and the parameter sets get that rate.
//
// Thread rule: one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/sidx_box.h"
#include "peer/stream_parser.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace zumod::peer {

// libavformat's name of the format for a file of this name: mp4, matroska or h264. Null for any other name.
const char* RecordingFormat(const std::string& path);
// The same of a container for standard output: h264, mkv or ts. Null for any other name.
const char* ContainerFormat(const std::string& name);

// Where the bytes go.
class RecordingOutput {
public:
    RecordingOutput() = default;
    RecordingOutput(const RecordingOutput&) = delete;
    RecordingOutput& operator=(const RecordingOutput&) = delete;
    virtual ~RecordingOutput() = default;

    // Whether bytes can be written before the end.
    virtual bool CanSeek() const = 0;
    // Returns 0 or an errno value.
    virtual int WriteAt(int64_t position, std::span<const uint8_t> bytes) = 0;
};

struct RecordingSettings {
    const char* format = nullptr;  // libavformat's name
    int fps = 30;                  // requested
    bool live = false;             // each frame is written at once, bare H.264 unchanged
    std::string title;
};

class Recorder {
public:
    static constexpr auto kLongestPiece = std::chrono::milliseconds(900);
    static constexpr auto kMeasuredTime = std::chrono::milliseconds(900);

    // `output` is borrowed.
    static Expected<std::unique_ptr<Recorder>> Create(const RecordingSettings& settings,
                                                      RecordingOutput& output);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Before the first frame.
    void SetTitle(const std::string& title) { m_settings.title = title; }
    bool HasBegun() const { return m_begun; }

    // Returns false if the frame is skipped because a recording cannot start with it. Times must increase.
    Expected<bool> Add(ParsedFrame frame, Clock::time_point time);

    // Writes the frames that are held in memory.
    Expected<void> Flush();

    // Completes the file. Without a frame nothing is written.
    Expected<void> Finish();

    // What can be played of the output: its length as time and in bytes. After a failed write there may be
    // more bytes, which are of no use.
    Clock::duration PlayableTime() const { return m_playable_time; }
    int64_t PlayableBytes() const { return m_playable_bytes; }
    // When to call Flush() if no frame arrives before.
    Clock::time_point FlushDue() const;
    bool HasFailedToWrite() const { return m_write_error != 0; }
    // The size of the pictures; 0x0 before the first one.
    PictureSize Size() const { return m_size; }

private:
    // Frames that are, or will be, written in one go.
    struct Piece {
        int64_t stamp;  // of the first frame
        bool key;       // whether that is a key frame
        Clock::time_point time;
        int64_t bytes = 0;
    };
    // A frame of bare H.264 whose rate is not known yet.
    struct Held {
        ParsedFrame frame;
        Clock::time_point time;
    };

    Recorder(RecordingSettings settings, RecordingOutput& output, AVFormatContext* file);

    static int OnWrite(void* recorder, uint8_t* bytes, int size);
    static int64_t OnSeek(void* recorder, int64_t offset, int whence);

    Expected<void> Check(int result, const char* step) const;
    bool IsFormat(const char* format) const;
    // Whether the frames of a piece stay in memory until it is complete.
    bool HasPieces() const { return !m_bare && !IsFormat("mpegts"); }
    Expected<void> Begin(const ParsedFrame& first, Clock::time_point time);
    Expected<void> WriteHeader();
    Expected<void> Write(ParsedFrame& frame, Clock::time_point time);
    Expected<void> WriteHeld();
    void EndPiece(int64_t begin, int64_t end);
    Expected<void> WriteOut(int64_t end_stamp);
    Expected<void> WriteIndex();

    RecordingSettings m_settings;
    RecordingOutput& m_output;
    AVFormatContext* const m_file;
    AVStream* const m_stream;
    const bool m_bare;       // H.264 without a container
    int64_t m_position = 0;  // where OnWrite() writes
    int m_write_error = 0;   // errno value of the first failure

    bool m_begun = false;
    PictureSize m_size;
    Clock::time_point m_first;
    int64_t m_last_stamp = -1;
    int64_t m_frame_duration = 0;
    int64_t m_playable_bytes = 0;
    Clock::duration m_playable_time{};

    std::optional<Piece> m_open;     // the frames in memory
    std::optional<Piece> m_written;  // waits for the stamp of the next one
    SidxBox m_index;                 // of the pieces before it
    int64_t m_index_position = -1;   // negative if there is none

    std::vector<Held> m_held;
    size_t m_held_bytes = 0;
    std::optional<AVRational> m_rate;  // of bare H.264
};

}  // namespace zumod::peer
