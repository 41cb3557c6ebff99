// One camera with one open file, for unit tests that make a program's calls.
//
// Thread rule: one thread at a time.
#pragma once

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vcam/model/camera.h"
#include "vcam/model/camera_option.h"
#include "vcam/testing/model_file.h"
#include "vcam/testing/requests.h"

namespace zumod::vcam {

inline CameraConfig Configure(const std::string& options) {
    CameraConfig config = ParseCamera(options).value();
    if (config.number < 0) {
        config.number = 0;
    }
    return config;
}

inline constexpr char kFastCamera[] = "sizes=64x64,fps=500";

class TestRig {
public:
    explicit TestRig(const std::string& options = kFastCamera)
        : m_camera(0, Configure(options), NewName(), m_board) {
        Reopen();
    }
    ~TestRig() { Unmap(); }

    Camera& Device() { return m_camera; }
    void Inject(const std::string& fault) { m_camera.Inject(ParseFault(fault).value()); }
    ModelFile& File() { return *m_file; }
    CameraBoard& Board() { return m_board; }

    // Closes the file and opens it again.
    int Reopen(int flags = O_RDWR | O_NONBLOCK) {
        m_file.reset();
        m_file = std::make_unique<ModelFile>(m_camera, flags);
        return m_file->Error();
    }
    void CloseFile() { m_file.reset(); }

    template <class T>
    int Call(unsigned long command, T& argument) {
        return m_file->Ioctl(command, &argument);
    }

    // REQBUFS. Returns the number of buffers granted, or a negative errno.
    int Request(uint32_t count) {
        v4l2_requestbuffers request = BufferRequest(count);
        const int error = Call(VIDIOC_REQBUFS, request);
        return error != 0 ? -error : static_cast<int>(request.count);
    }

    int Queue(uint32_t index) {
        v4l2_buffer buffer = Buffer(index);
        return Call(VIDIOC_QBUF, buffer);
    }

    int Dequeue(v4l2_buffer& buffer) {
        buffer = Buffer();
        return Call(VIDIOC_DQBUF, buffer);
    }

    int StreamOn() {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return Call(VIDIOC_STREAMON, type);
    }
    int StreamOff() {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return Call(VIDIOC_STREAMOFF, type);
    }

    // Requests, maps and queues buffers and starts streaming. Returns 0 or errno.
    int Start(uint32_t count = 4) {
        const int granted = Request(count);
        if (granted < 0) {
            return -granted;
        }
        for (uint32_t i = 0; i < static_cast<uint32_t>(granted); ++i) {
            v4l2_buffer buffer = Buffer(i);
            if (const int error = Call(VIDIOC_QUERYBUF, buffer); error != 0) {
                return error;
            }
            void* memory = m_file->Map(buffer.length, PROT_READ | PROT_WRITE, buffer.m.offset);
            if (memory == MAP_FAILED) {
                return errno;
            }
            m_mapped.push_back({static_cast<uint8_t*>(memory), buffer.length});
            if (const int error = Queue(i); error != 0) {
                return error;
            }
        }
        return StreamOn();
    }

    void Unmap() {
        for (const auto& [memory, length] : m_mapped) {
            munmap(memory, length);
        }
        m_mapped.clear();
    }
    const uint8_t* Memory(uint32_t index) const { return m_mapped.at(index).first; }

    short Poll(int milliseconds = 20000, short events = POLLIN | POLLPRI) const {
        pollfd state{m_file->Descriptor(), events, 0};
        return poll(&state, 1, milliseconds) == 1 ? state.revents : short{0};
    }

    // Waits for the next frame; `error` is that of DQBUF.
    struct Frame {
        int error = 0;
        v4l2_buffer buffer{};
    };
    Frame Next() {
        Frame frame;
        if (Poll() == 0) {
            frame.error = ETIMEDOUT;
            return frame;
        }
        frame.error = Dequeue(frame.buffer);
        return frame;
    }
    // As Next, and queues the buffer again.
    Frame NextAndQueue() {
        Frame frame = Next();
        if (frame.error == 0) {
            Queue(frame.buffer.index);
        }
        return frame;
    }

private:
    // Tests run in parallel, so each rig needs a different name.
    static std::string NewName() {
        static unsigned count = 0;
        return "rig." + std::to_string(getpid()) + "." + std::to_string(count++);
    }

    CameraBoard m_board{};
    Camera m_camera;
    std::unique_ptr<ModelFile> m_file;
    std::vector<std::pair<uint8_t*, size_t>> m_mapped;
};

// A rig that streams with this many buffers.
class StreamingRig : public TestRig {
public:
    explicit StreamingRig(uint32_t count, const std::string& options = kFastCamera) : TestRig(options) {
        EXPECT_EQ(Start(count), 0);
    }
};

}  // namespace zumod::vcam
