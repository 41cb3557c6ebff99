// A file that a camera's encoded frames are written to, unchanged.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/stream_parser.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace zumod::peer {

// libavformat's name of the format for a file of this name: mp4, matroska or h264. Null for any other name.
const char* RecordingFormat(const std::string& path);

class Recorder {
public:
    // A file at `path` is overwritten.
    static Expected<std::unique_ptr<Recorder>> Create(const std::string& path, const char* format, int fps);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Returns false if the frame is skipped because a recording cannot start with it. Time stamps are the
    // arrival times, from the first frame on.
    Expected<bool> Add(std::span<const uint8_t> frame, Clock::time_point arrival);

    // Completes the file. Without a frame the file is of no use.
    Expected<void> Finish();

private:
    Recorder(StreamParser parser, AVFormatContext* file, int fps);

    Expected<void> Begin(const ParsedFrame& first, Clock::time_point arrival);

    StreamParser m_parser;
    AVFormatContext* const m_file;
    AVStream* const m_stream;
    const int m_fps;
    bool m_begun = false;
    PictureSize m_size;
    Clock::time_point m_first;
    int64_t m_last_stamp = -1;
};

}  // namespace zumod::peer
