// Writes a camera's frames into a file as they are, without decoding or encoding them.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/stream_parser.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace zumod::peer {

// libavformat's name of the format that a file with this name has: mp4, matroska or h264. Null for any other.
const char* RecordingFormat(const std::string& path);

class Recorder {
public:
    // `path` is written over. Throws PeerError, as every operation does.
    Recorder(const std::string& path, const char* format, int fps);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Returns false for a frame that is left out because the recording has to begin with a key frame that
    // brings the parameter sets. The time stamps of the file are the times given, from the first one on.
    bool Add(std::span<const uint8_t> frame, Clock::time_point arrival);

    // Completes the file, which has at least one frame then; with none the file is of no use.
    void Finish();

    uint64_t Frames() const { return m_frames; }
    uint64_t Bytes() const { return m_bytes; }
    PictureSize Size() const { return m_size; }
    Clock::duration Length() const { return m_last - m_first; }

private:
    void Begin(const AVPacket& key_frame, PictureSize size, Clock::time_point arrival);
    // Throws PeerError when `result` is an error.
    void Check(int result, const char* what) const;

    const int m_fps;
    StreamParser m_parser;
    AVFormatContext* m_file = nullptr;
    AVStream* m_stream = nullptr;
    bool m_begun = false;
    PictureSize m_size;
    Clock::time_point m_first;
    Clock::time_point m_last;
    int64_t m_last_stamp = -1;
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
};

}  // namespace zumod::peer
