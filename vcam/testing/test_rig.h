// One camera with one open file, driven as a program drives it. For tests.
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

namespace zumod::vcam {

inline CameraConfig Configure(const std::string& options) {
    CameraConfig config;
    std::string error;
    if (!ParseCamera(options, config, error)) {
        ADD_FAILURE() << error;
    }
    if (config.number < 0) {
        config.number = 0;
    }
    return config;
}

class TestRig {
public:
    explicit TestRig(const std::string& options = "sizes=64x64,fps=500")
        : camera_(0, Configure(options), NewName(), board_) {
        Reopen();
    }
    ~TestRig() { Unmap(); }

    Camera& Device() { return camera_; }
    ModelFile& File() { return *file_; }
    CameraBoard& Board() { return board_; }

    // Closes the file and opens it again.
    int Reopen(int flags = O_RDWR | O_NONBLOCK) {
        file_.reset();
        file_ = std::make_unique<ModelFile>(camera_, flags);
        return file_->Error();
    }
    void CloseFile() { file_.reset(); }

    template <class T>
    int Call(unsigned long command, T& argument) {
        return file_->Ioctl(command, &argument);
    }

    // REQBUFS: the buffers granted, or minus errno.
    int Request(uint32_t count) {
        v4l2_requestbuffers request{};
        request.count = count;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        const int error = Call(VIDIOC_REQBUFS, request);
        return error != 0 ? -error : static_cast<int>(request.count);
    }

    static v4l2_buffer Buffer(uint32_t index = 0) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = index;
        return buffer;
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

    // Requests, maps and queues buffers and starts streaming: 0 or errno.
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
            void* memory = file_->Map(buffer.length, PROT_READ | PROT_WRITE, buffer.m.offset);
            if (memory == MAP_FAILED) {
                return errno;
            }
            mapped_.push_back({static_cast<uint8_t*>(memory), buffer.length});
            if (const int error = Queue(i); error != 0) {
                return error;
            }
        }
        return StreamOn();
    }

    void Unmap() {
        for (const auto& [memory, length] : mapped_) {
            munmap(memory, length);
        }
        mapped_.clear();
    }
    const uint8_t* Memory(uint32_t index) const { return mapped_.at(index).first; }

    short Poll(int milliseconds = 20000, short events = POLLIN | POLLPRI) const {
        pollfd state{file_->Descriptor(), events, 0};
        return poll(&state, 1, milliseconds) == 1 ? state.revents : short{0};
    }

    // The next frame, waited for; its error when it cannot be dequeued.
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
    // The next frame; its buffer is queued again at once.
    Frame NextAndQueue() {
        Frame frame = Next();
        if (frame.error == 0) {
            Queue(frame.buffer.index);
        }
        return frame;
    }

private:
    // The names of descriptors must differ between the tests that run at one time.
    static std::string NewName() {
        static unsigned count = 0;
        return "rig." + std::to_string(getpid()) + "." + std::to_string(count++);
    }

    CameraBoard board_{};
    Camera camera_;
    std::unique_ptr<ModelFile> file_;
    std::vector<std::pair<uint8_t*, size_t>> mapped_;
};

}  // namespace zumod::vcam
