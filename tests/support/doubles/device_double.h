// The double for a camera's calls: answers every call of src/capture/device_calls.h instead of the system.
// It records the exact sequence of calls, can fail or run a hook at any of them, produces frames and
// detects misuse. Use it for tests of single calls; use vcam/ for programs and sessions, where a camera
// must behave as one over time.
//
// Thread rule: every operation is [any thread]. The object constructed last receives the calls. Construct
// it before any thread that makes such calls, and destroy it after them.
#pragma once

#include <linux/videodev2.h>
#include <sys/select.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zumod::testing {

enum class DeviceCall : size_t {
    kOpen,
    kClose,
    kMap,
    kUnmap,
    kSelect,
    kEnumFmt,
    kTryFmt,
    kQueryCap,
    kGetFmt,
    kSetFmt,
    kGetParm,
    kSetParm,
    kReqBufs,
    kQueryBuf,
    kQueueBuf,
    kDequeueBuf,
    kStreamOn,
    kStreamOff,
    kUnknownRequest,
};
inline constexpr size_t kDeviceCallCount = static_cast<size_t>(DeviceCall::kUnknownRequest) + 1;

// The name in the recorded sequence: "open", "TRY_FMT".
const char* NameOf(DeviceCall call);

struct FrameSize {
    uint32_t width;
    uint32_t height;

    bool operator==(const FrameSize&) const = default;
};

struct CameraFormat {
    uint32_t pixel_format;
    // TRY_FMT accepts these sizes and refuses all others with EINVAL...
    std::vector<FrameSize> sizes;
    // ...except these, which it answers with another size: requested, answered.
    std::vector<std::pair<FrameSize, FrameSize>> adjusted = {};
};

struct CameraModel {
    // Cut at 32 bytes. A name of 32 bytes or more has no terminating NUL, as drivers may do.
    std::string card = "Test camera";
    std::string bus_info = "usb-1";
    std::vector<CameraFormat> formats;
    // The format set on the device. It persists from one open to the next.
    FrameSize current_size = {640, 480};
    uint32_t current_format = 0;
    // The size that S_FMT sets instead of the requested one.
    std::optional<FrameSize> size_after_set = std::nullopt;
    // How many buffers REQBUFS grants, if not as many as requested.
    std::optional<uint32_t> granted_buffers = std::nullopt;
    uint32_t buffer_length = 4096;
    uint32_t parm_capability = V4L2_CAP_TIMEPERFRAME;
};

struct Frame {
    std::vector<uint8_t> bytes;
    // What DQBUF reports instead of the number of bytes, and instead of the buffer's index.
    std::optional<uint32_t> bytes_used = std::nullopt;
    std::optional<uint32_t> index = std::nullopt;
};

// How the wait for a frame ends once the camera is unplugged. In both cases open fails with ENOENT and
// every other request with ENODEV.
enum class Unplugged {
    kSelectFails,     // with ENODEV
    kAlwaysReadable,  // the dequeue fails, without end
};

class DeviceDouble {
public:
    static constexpr int kEveryTime = INT_MAX;

    DeviceDouble();
    ~DeviceDouble();
    DeviceDouble(const DeviceDouble&) = delete;
    DeviceDouble& operator=(const DeviceDouble&) = delete;

    // The camera at /dev/video<index>. Replaces a camera that is there and closed.
    void SetCamera(int index, CameraModel model);
    void Unplug(int index, Unplugged how = Unplugged::kSelectFails);
    // The first descriptor. Descriptors count up from it and start again after 400.
    void SetFirstDescriptor(int descriptor);

    // The nth such call from now (1: the next one) and the `times` - 1 calls after it fail with `error`
    // and have no effect, except that a failed close still closes.
    void Fail(DeviceCall call, int error, int nth = 1, int times = 1);
    // As Fail, with any result. An error of 0 leaves errno unchanged. A wait whose result is
    // neither -1 nor 1 empties its set.
    void Answer(DeviceCall call, int result, int error, int nth = 1, int times = 1);
    void ForgetScripts();
    // Called on the calling thread at each such call, before it is recorded or after its effect.
    void Before(DeviceCall call, std::function<void()> hook);
    void After(DeviceCall call, std::function<void()> hook);

    // The frame fills the next queued buffer; it waits until there is one and the stream has started.
    void PushFrame(int index, Frame frame);
    // Produces a frame every `period` while streaming. Its first 8 bytes are a sequence number from 0. A
    // period of 0 stops this. A frame that is due while no buffer is queued is lost.
    void SetFramePeriod(int index, std::chrono::microseconds period);
    // The longest real duration of a wait for a frame, even if the timeout is longer.
    void SetLongestWait(std::chrono::microseconds limit);

    // Without recording a call costs next to nothing.
    void SetRecording(bool recording);
    // One line per call, with the arguments as they were before it. A wait repeated with no call in
    // between is one line.
    std::vector<std::string> Calls() const;
    std::vector<std::string> TakeCalls();
    int CallCount(DeviceCall call) const;

    int OpenDescriptors() const;
    int Mappings() const;
    // Unknown descriptors, double closes, munmap of memory that is not mapped, sets with other
    // descriptors.
    std::vector<std::string> Misuse() const;

    // The calls.
    int Open(const char* path, int flags);
    int Close(int descriptor);
    int Ioctl(int descriptor, unsigned long request, void* argument);
    void* Map(size_t length, int protection, int flags, int descriptor, off_t offset);
    int Unmap(void* address, size_t length);
    int Select(int count, fd_set* readable, timeval* timeout);

    // Null if there is none. Then no device file exists.
    static DeviceDouble* Current();

private:
    using Clock = std::chrono::steady_clock;

    struct Outcome {
        int result;
        int error;  // 0: errno is unchanged
    };
    struct Script {
        DeviceCall call;
        Outcome outcome;
        int calls_before;
        int times;
    };
    struct Buffer {
        uint8_t* memory = nullptr;  // while mapped
    };
    struct Camera {
        CameraModel model;
        bool gone = false;
        Unplugged how_gone = Unplugged::kSelectFails;
        bool streaming = false;
        int owner = -1;  // the descriptor that asked for the buffers
        std::vector<Buffer> buffers;
        std::deque<uint32_t> queued;
        std::deque<Frame> pending;
        std::deque<std::pair<uint32_t, Frame>> done;
        std::chrono::microseconds period{0};
        Clock::time_point next_due;
        uint64_t sequence = 0;
    };
    struct Mapping {
        std::unique_ptr<uint8_t[]> memory;
        size_t length;
        int camera;
        uint32_t buffer;
    };
    struct Hooks {
        std::function<void()> before;
        std::function<void()> after;
    };

    template <class Effect, class Describe>
    int Perform(DeviceCall call, Effect effect, Describe describe);
    void RunHook(DeviceCall call, std::function<void()> Hooks::*which);
    std::optional<Outcome> TakeScript(DeviceCall call);
    void Note(std::string misuse);

    int IndexOf(int descriptor) const;
    Camera* CameraOf(int descriptor);
    std::string DeviceName(int descriptor) const;
    Outcome Answer(Camera& camera, int descriptor, DeviceCall call, void* argument);
    static Outcome EnumFmt(const Camera& camera, v4l2_fmtdesc& description);
    static Outcome TryFmt(const Camera& camera, v4l2_format& format);
    static Outcome QueryCap(const Camera& camera, v4l2_capability& capability);
    static Outcome GetFmt(const Camera& camera, v4l2_format& format);
    static Outcome SetFmt(Camera& camera, v4l2_format& format);
    static Outcome ReqBufs(Camera& camera, int descriptor, v4l2_requestbuffers& request);
    static Outcome QueryBuf(const Camera& camera, v4l2_buffer& buffer);
    static Outcome QueueBuf(Camera& camera, const v4l2_buffer& buffer);
    static Outcome DequeueBuf(Camera& camera, v4l2_buffer& buffer);
    static void StopStream(Camera& camera);
    static void FillBuffers(Camera& camera);
    static void MakeDueFrame(Camera& camera, Clock::time_point now);
    Outcome WaitReadable(std::unique_lock<std::mutex>& lock, int descriptor, Clock::duration timeout);

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::map<int, int> m_descriptors;  // to the index of the camera
    std::map<void*, Mapping> m_mappings;
    std::vector<Script> m_scripts;
    std::array<Hooks, kDeviceCallCount> m_hooks;
    std::atomic<bool> m_has_hooks{false};
    std::array<int, kDeviceCallCount> m_counts{};
    std::vector<std::string> m_calls;
    std::vector<std::string> m_misuse;
    bool m_recording = true;
    int m_first_descriptor = 100;
    int m_next_descriptor = 100;
    std::chrono::microseconds m_longest_wait{2000};
};

}  // namespace zumod::testing
