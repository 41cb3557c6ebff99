// Arguments of V4L2 requests, filled in as a program fills them in.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>

namespace zumod::vcam {

inline v4l2_buffer Buffer(uint32_t index = 0) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    return buffer;
}

inline v4l2_requestbuffers BufferRequest(uint32_t count) {
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    return request;
}

inline v4l2_format Format(uint32_t width, uint32_t height, uint32_t fourcc, uint32_t bytesperline = 0) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = fourcc;
    format.fmt.pix.bytesperline = bytesperline;
    return format;
}

// The time stamp in microseconds.
inline int64_t TimeOf(const v4l2_buffer& buffer) {
    return buffer.timestamp.tv_sec * 1000000L + buffer.timestamp.tv_usec;
}

}  // namespace zumod::vcam
