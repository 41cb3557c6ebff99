// One virtual camera: what a driver keeps for a device. Any thread; one lock guards everything but the board,
// and a thread of its own gives the frames.
#pragma once

#include <linux/videodev2.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "vcam/model/buffer_pool.h"
#include "vcam/model/camera_board.h"
#include "vcam/model/camera_config.h"
#include "vcam/model/controls.h"
#include "vcam/model/device_end.h"
#include "vcam/model/frame_clock.h"
#include "vcam/model/wire.h"
#include "vcam/picture/frame_source.h"
#include "vcam/picture/y4m_source.h"

namespace zumod::vcam {

struct CameraStatus {
    int number = 0;
    bool present = false;
    bool streaming = false;
    unsigned open_files = 0;
    uint64_t delivered = 0;  // frames, in all streams
    uint64_t dropped = 0;    // frames for which no buffer was queued, or a fault took them
    uint32_t fourcc = 0;
    Size size;
    Rate rate;
};

class Camera {
public:
    // The board must outlive the camera. A Y4M file that cannot be read leaves the test picture.
    Camera(unsigned slot, CameraConfig config, const std::string& server_name, CameraBoard& board);
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;
    ~Camera();

    // Opens the device file with open's flags: 0 or errno.
    int Open(uint32_t flags, UniqueFd& program_end, FileIdentity& identity);
    // How long opening is to take, for a fault.
    uint32_t OpenDelay();
    // A request of an open file. The payload is replaced by the reply's.
    Reply Serve(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor);

    void Inject(const Fault& fault);
    void ClearFaults();
    CameraStatus Status();
    // The number of its device file, or -1 while it is unplugged.
    int Number();
    CameraBoard& Board() { return board_; }

    // The picture of that moment as the negotiated format lays it out: for comparing.
    std::vector<uint8_t> Picture(const Stamp& stamp);
    PictureLayout Layout();

private:
    struct Subscription {
        uint32_t type;
        uint32_t id;
        uint32_t flags;
    };
    struct OpenFile {
        uint32_t id = 0;
        uint32_t flags = 0;
        uint32_t priority = V4L2_PRIORITY_DEFAULT;
        DeviceEnd end;
        std::vector<Subscription> subscriptions;
        std::deque<v4l2_event> events;
        uint32_t event_sequence = 0;
        bool event_marked = false;  // its descriptor shows that an event is pending
    };
    using Handler = int (Camera::*)(OpenFile& file, void* argument);
    struct Entry {
        unsigned long command;
        Handler handler;
        bool needs_priority;
    };
    struct ActiveFault {
        Fault fault;
        uint64_t calls = 0;
    };
    // A picture painted before it is due.
    struct Painted {
        std::shared_ptr<BufferPool> pool;
        uint32_t index = 0;
        uint64_t frame = 0;
        uint64_t time_us = 0;
        size_t bytes = 0;
    };
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    // camera.cpp: files and plugging
    int ServeFile(const Request& request, std::vector<uint8_t>& payload, Reply& reply, UniqueFd& descriptor,
                  Lock& lock);
    int Ioctl(OpenFile& file, const Request& request, std::vector<uint8_t>& payload);
    int Map(const OpenFile& file, const Request& request, Reply& reply, UniqueFd& descriptor);
    void Rearm(OpenFile& file, uint32_t what);
    OpenFile* FindFile(uint32_t id, uint32_t plug);
    void ReapLocked(Lock& lock);
    void ReleaseLingering(Lock& lock);
    void UnplugLocked();
    void PlugLocked(int number);
    static const Entry* FindEntry(unsigned long command);

    // camera_faults.cpp
    ActiveFault* FindFault(FaultKind kind);
    void RemoveFault(const ActiveFault* fault);
    int FailCall(FaultKind kind, unsigned long command, int error);
    int FailIoctl(unsigned long command);
    void UpdateSlowCalls();

    // camera_formats.cpp
    int QueryCapability(OpenFile& file, void* argument);
    int EnumFormat(OpenFile& file, void* argument);
    int GetFormat(OpenFile& file, void* argument);
    int TryFormat(OpenFile& file, void* argument);
    int SetFormat(OpenFile& file, void* argument);
    int EnumSizes(OpenFile& file, void* argument);
    int EnumIntervals(OpenFile& file, void* argument);
    int GetParm(OpenFile& file, void* argument);
    int SetParm(OpenFile& file, void* argument);
    int EnumInput(OpenFile& file, void* argument);
    int GetInput(OpenFile& file, void* argument);
    int SetInput(OpenFile& file, void* argument);
    Size AdjustSize(Size asked) const;
    PictureLayout AdjustLayout(const v4l2_pix_format& asked) const;
    void DescribeLayout(const PictureLayout& layout, v4l2_pix_format& pix) const;
    void UseLayout(const PictureLayout& layout);

    // camera_buffers.cpp
    int RequestBuffers(OpenFile& file, void* argument);
    int QueryBuffer(OpenFile& file, void* argument);
    int StreamOn(OpenFile& file, void* argument);
    int StreamOff(OpenFile& file, void* argument);
    void StopStream();
    void FreeBuffers();
    bool IsOwner(const OpenFile& file) const;
    void SendMark(const OpenFile& file) const;
    bool IsStreaming() const;

    // camera_controls.cpp
    int QueryControl(OpenFile& file, void* argument);
    int QueryControlExtended(OpenFile& file, void* argument);
    int QueryControlMenu(OpenFile& file, void* argument);
    int GetControl(OpenFile& file, void* argument);
    int SetControl(OpenFile& file, void* argument);
    int GetControls(OpenFile& file, void* argument);
    int SetControls(OpenFile& file, void* argument);
    int TryControls(OpenFile& file, void* argument);
    int GetPriority(OpenFile& file, void* argument);
    int SetPriority(OpenFile& file, void* argument);
    int Subscribe(OpenFile& file, void* argument);
    int Unsubscribe(OpenFile& file, void* argument);
    int DequeueEvent(OpenFile& file, void* argument);
    void TellChanged(const OpenFile& origin, const std::vector<uint32_t>& changed);
    void PushEvent(OpenFile& file, v4l2_event event);
    void MarkEvent(OpenFile& file);
    uint32_t GreatestPriority() const;

    // camera_frames.cpp: the frame thread
    void FrameLoop();
    bool IsOwnerThere() const;
    void WaitForWork(Lock& lock);
    bool ServeStall(Lock& lock);
    void PaintAhead(Lock& lock);
    void Deliver();
    bool TakesFrame();
    void Spoil(v4l2_buffer& buffer);
    void StartClock();
    const ActiveFault* FrameFault(FaultKind kind);

    const unsigned slot_;
    const CameraConfig config_;
    const std::string server_name_;
    CameraBoard& board_;
    Y4mFile y4m_;

    std::mutex mutex_;
    std::condition_variable changed_;  // for the frame thread
    std::condition_variable painted_;  // for whoever waits until nothing is being painted
    bool quit_ = false;

    bool present_ = true;
    int number_;
    std::optional<Clock::time_point> replug_at_;
    int replug_number_ = 0;

    std::map<uint32_t, OpenFile> files_;
    uint32_t next_file_ = 1;
    bool owner_lingers_ = false;  // the owner closed its file, and its memory is still mapped

    Controls controls_;
    PictureLayout layout_;
    Rate rate_;
    std::shared_ptr<const FrameSource> source_;
    std::shared_ptr<BufferPool> pool_;

    FrameClock clock_;
    uint64_t frame_ = 0;  // the next one of the stream
    uint32_t sequence_offset_ = 0;
    int64_t time_offset_us_ = 0;
    Painted painted_ahead_;
    bool painting_ = false;
    uint64_t delivered_ = 0;
    uint64_t dropped_ = 0;

    std::vector<ActiveFault> faults_;
    std::thread frame_thread_;  // last: it uses all of the above
};

}  // namespace zumod::vcam
