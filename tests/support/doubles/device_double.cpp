#include "tests/support/doubles/device_double.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "src/capture/device_calls.h"

namespace zumod::testing {
namespace {

constexpr char kPathStart[] = "/dev/video";
constexpr int kDescriptorCount = 400;
constexpr size_t kWordBits = 8 * sizeof(long);

std::atomic<DeviceDouble*> g_current{nullptr};

const char* const kNames[kDeviceCallCount] = {
    "open",     "close", "mmap",     "munmap",    "select", "ENUM_FMT", "TRY_FMT",
    "QUERYCAP", "G_FMT", "S_FMT",    "G_PARM",    "S_PARM", "REQBUFS",  "QUERYBUF",
    "QBUF",     "DQBUF", "STREAMON", "STREAMOFF", "?",
};

DeviceCall CallOf(unsigned long request) {
    switch (request) {
        case VIDIOC_ENUM_FMT:
            return DeviceCall::kEnumFmt;
        case VIDIOC_TRY_FMT:
            return DeviceCall::kTryFmt;
        case VIDIOC_QUERYCAP:
            return DeviceCall::kQueryCap;
        case VIDIOC_G_FMT:
            return DeviceCall::kGetFmt;
        case VIDIOC_S_FMT:
            return DeviceCall::kSetFmt;
        case VIDIOC_G_PARM:
            return DeviceCall::kGetParm;
        case VIDIOC_S_PARM:
            return DeviceCall::kSetParm;
        case VIDIOC_REQBUFS:
            return DeviceCall::kReqBufs;
        case VIDIOC_QUERYBUF:
            return DeviceCall::kQueryBuf;
        case VIDIOC_QBUF:
            return DeviceCall::kQueueBuf;
        case VIDIOC_DQBUF:
            return DeviceCall::kDequeueBuf;
        case VIDIOC_STREAMON:
            return DeviceCall::kStreamOn;
        case VIDIOC_STREAMOFF:
            return DeviceCall::kStreamOff;
        default:
            return DeviceCall::kUnknownRequest;
    }
}

std::string FourCc(uint32_t code) {
    if (code == 0) {
        return "0";
    }
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        text += static_cast<char>(code >> shift & 0xFF);
    }
    return text;
}

// " name=value", or nothing for a field of 0.
std::string Field(const char* name, uint64_t value) {
    return value == 0 ? "" : ' ' + std::string(name) + '=' + std::to_string(value);
}

std::string TypeOf(uint32_t type) {
    return " type=" + std::to_string(type);
}

std::string OpenFlags(int flags) {
    if (flags == O_RDONLY) {
        return "O_RDONLY";
    }
    if (flags == (O_RDWR | O_NONBLOCK)) {
        return "O_RDWR|O_NONBLOCK";
    }
    return "flags=" + std::to_string(flags);
}

bool IsZero(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

std::string DescribeFormat(const v4l2_format& format) {
    const v4l2_pix_format& picture = format.fmt.pix;
    return TypeOf(format.type) + ' ' + std::to_string(picture.width) + 'x' + std::to_string(picture.height) +
           ' ' + FourCc(picture.pixelformat) + Field("field", picture.field) +
           Field("stride", picture.bytesperline) + Field("size", picture.sizeimage) +
           Field("colorspace", picture.colorspace);
}

std::string DescribeBuffer(const v4l2_buffer& buffer) {
    return TypeOf(buffer.type) + " memory=" + std::to_string(buffer.memory) +
           " index=" + std::to_string(buffer.index) + Field("used", buffer.bytesused) +
           Field("length", buffer.length) + Field("offset", buffer.m.offset);
}

std::string DescribeParm(const v4l2_streamparm& parm) {
    const v4l2_captureparm& capture = parm.parm.capture;
    std::string text = TypeOf(parm.type) + Field("capability", capture.capability);
    if (capture.timeperframe.numerator != 0 || capture.timeperframe.denominator != 0) {
        text += " timeperframe=" + std::to_string(capture.timeperframe.numerator) + '/' +
                std::to_string(capture.timeperframe.denominator);
    }
    return text;
}

std::string DescribeRequest(DeviceCall call, const void* argument) {
    switch (call) {
        case DeviceCall::kEnumFmt: {
            const auto& description = *static_cast<const v4l2_fmtdesc*>(argument);
            return TypeOf(description.type) + " index=" + std::to_string(description.index) + ' ' +
                   FourCc(description.pixelformat) + Field("flags", description.flags);
        }
        case DeviceCall::kTryFmt:
        case DeviceCall::kGetFmt:
        case DeviceCall::kSetFmt:
            return DescribeFormat(*static_cast<const v4l2_format*>(argument));
        case DeviceCall::kQueryCap:
            return IsZero(argument, sizeof(v4l2_capability)) ? "" : " not zeroed";
        case DeviceCall::kGetParm:
        case DeviceCall::kSetParm:
            return DescribeParm(*static_cast<const v4l2_streamparm*>(argument));
        case DeviceCall::kReqBufs: {
            const auto& request = *static_cast<const v4l2_requestbuffers*>(argument);
            return TypeOf(request.type) + " memory=" + std::to_string(request.memory) +
                   " count=" + std::to_string(request.count);
        }
        case DeviceCall::kQueryBuf:
        case DeviceCall::kQueueBuf:
        case DeviceCall::kDequeueBuf:
            return DescribeBuffer(*static_cast<const v4l2_buffer*>(argument));
        case DeviceCall::kStreamOn:
        case DeviceCall::kStreamOff:
            return TypeOf(static_cast<uint32_t>(*static_cast<const int*>(argument)));
        default:
            return "";
    }
}

template <size_t kSize>
void CopyText(const std::string& text, unsigned char (&field)[kSize]) {
    std::memset(field, 0, kSize);
    std::memcpy(field, text.data(), std::min(text.size(), kSize));
}

// What a driver fills in besides the size and the format.
void FillPicture(v4l2_pix_format& picture) {
    picture.field = V4L2_FIELD_NONE;
    picture.bytesperline = picture.width * 2;
    picture.sizeimage = picture.width * picture.height * 2;
    picture.colorspace = V4L2_COLORSPACE_SRGB;
}

// The set may contain descriptors beyond FD_SETSIZE. It is an array of words, as select() reads it.
bool IsInSet(const fd_set* set, int descriptor) {
    const auto place = static_cast<size_t>(descriptor);
    long word = 0;
    std::memcpy(&word, reinterpret_cast<const char*>(set) + place / kWordBits * sizeof(word), sizeof(word));
    return (static_cast<unsigned long>(word) >> (place % kWordBits) & 1UL) != 0;
}

void EmptySet(fd_set* set, int count) {
    const size_t words = (static_cast<size_t>(count) + kWordBits - 1) / kWordBits;
    std::memset(static_cast<void*>(set), 0, words * sizeof(long));
}

}  // namespace

const char* NameOf(DeviceCall call) {
    return kNames[static_cast<size_t>(call)];
}

DeviceDouble::DeviceDouble() {
    g_current = this;
}

DeviceDouble::~DeviceDouble() {
    DeviceDouble* self = this;
    g_current.compare_exchange_strong(self, nullptr);
}

DeviceDouble* DeviceDouble::Current() {
    return g_current;
}

void DeviceDouble::SetCamera(int index, CameraModel model) {
    const std::lock_guard guard(m_mutex);
    const auto place = static_cast<size_t>(index);
    if (m_cameras.size() <= place) {
        m_cameras.resize(place + 1);
    }
    m_cameras[place] = std::make_unique<Camera>();
    m_cameras[place]->model = std::move(model);
}

void DeviceDouble::Unplug(int index, Unplugged how) {
    const std::lock_guard guard(m_mutex);
    Camera& camera = *m_cameras.at(static_cast<size_t>(index));
    camera.gone = true;
    camera.how_gone = how;
    m_changed.notify_all();
}

void DeviceDouble::SetFirstDescriptor(int descriptor) {
    const std::lock_guard guard(m_mutex);
    m_first_descriptor = m_next_descriptor = descriptor;
}

void DeviceDouble::Fail(DeviceCall call, int error, int nth, int times) {
    Answer(call, -1, error, nth, times);
}

void DeviceDouble::Answer(DeviceCall call, int result, int error, int nth, int times) {
    const std::lock_guard guard(m_mutex);
    m_scripts.push_back({call, {result, error}, nth - 1, times});
}

void DeviceDouble::ForgetScripts() {
    const std::lock_guard guard(m_mutex);
    m_scripts.clear();
}

void DeviceDouble::Before(DeviceCall call, std::function<void()> hook) {
    const std::lock_guard guard(m_mutex);
    m_hooks[static_cast<size_t>(call)].before = std::move(hook);
    m_has_hooks = true;
}

void DeviceDouble::After(DeviceCall call, std::function<void()> hook) {
    const std::lock_guard guard(m_mutex);
    m_hooks[static_cast<size_t>(call)].after = std::move(hook);
    m_has_hooks = true;
}

void DeviceDouble::PushFrame(int index, Frame frame) {
    const std::lock_guard guard(m_mutex);
    Camera& camera = *m_cameras.at(static_cast<size_t>(index));
    camera.pending.push_back(std::move(frame));
    FillBuffers(camera);
    m_changed.notify_all();
}

void DeviceDouble::SetFramePeriod(int index, std::chrono::microseconds period) {
    const std::lock_guard guard(m_mutex);
    Camera& camera = *m_cameras.at(static_cast<size_t>(index));
    camera.period = period;
    camera.next_due = Clock::now() + period;
    m_changed.notify_all();
}

void DeviceDouble::SetLongestWait(std::chrono::microseconds limit) {
    const std::lock_guard guard(m_mutex);
    m_longest_wait = limit;
}

void DeviceDouble::SetRecording(bool recording) {
    const std::lock_guard guard(m_mutex);
    m_recording = recording;
}

std::vector<std::string> DeviceDouble::Calls() const {
    const std::lock_guard guard(m_mutex);
    return m_calls;
}

std::vector<std::string> DeviceDouble::TakeCalls() {
    const std::lock_guard guard(m_mutex);
    return std::exchange(m_calls, {});
}

int DeviceDouble::CallCount(DeviceCall call) const {
    const std::lock_guard guard(m_mutex);
    return m_counts[static_cast<size_t>(call)];
}

int DeviceDouble::OpenDescriptors() const {
    const std::lock_guard guard(m_mutex);
    return static_cast<int>(m_descriptors.size());
}

int DeviceDouble::Mappings() const {
    const std::lock_guard guard(m_mutex);
    return static_cast<int>(m_mappings.size());
}

std::vector<std::string> DeviceDouble::Misuse() const {
    const std::lock_guard guard(m_mutex);
    return m_misuse;
}

// The effect and the description are called with the lock held; the hooks are not.
template <class Effect, class Describe>
int DeviceDouble::Perform(DeviceCall call, Effect effect, Describe describe) {
    const int entry_error = errno;
    RunHook(call, &Hooks::before);
    Outcome outcome{};
    {
        std::unique_lock lock(m_mutex);
        ++m_counts[static_cast<size_t>(call)];
        if (m_recording) {
            std::string line = std::string(NameOf(call)) + ' ' + describe();
            const bool same_wait = call == DeviceCall::kSelect && !m_calls.empty() && m_calls.back() == line;
            if (!same_wait) {
                m_calls.push_back(std::move(line));
            }
        }
        const std::optional<Outcome> scripted = TakeScript(call);
        outcome = effect(lock, scripted);
    }
    RunHook(call, &Hooks::after);
    errno = outcome.error != 0 ? outcome.error : entry_error;
    return outcome.result;
}

void DeviceDouble::RunHook(DeviceCall call, std::function<void()> Hooks::*which) {
    if (!m_has_hooks) {
        return;
    }
    std::function<void()> hook;
    {
        const std::lock_guard guard(m_mutex);
        hook = m_hooks[static_cast<size_t>(call)].*which;
    }
    if (hook) {
        hook();
    }
}

std::optional<DeviceDouble::Outcome> DeviceDouble::TakeScript(DeviceCall call) {
    std::optional<Outcome> taken;
    for (Script& script : m_scripts) {
        if (script.call != call || script.times == 0) {
            continue;
        }
        if (script.calls_before > 0) {
            --script.calls_before;
        } else if (!taken) {
            taken = script.outcome;
            script.times -= script.times == kEveryTime ? 0 : 1;
        }
    }
    return taken;
}

void DeviceDouble::Note(std::string misuse) {
    m_misuse.push_back(std::move(misuse));
}

int DeviceDouble::IndexOf(int descriptor) const {
    const auto found = m_descriptors.find(descriptor);
    return found != m_descriptors.end() ? found->second : -1;
}

DeviceDouble::Camera* DeviceDouble::CameraOf(int descriptor) {
    const int index = IndexOf(descriptor);
    return index >= 0 ? m_cameras[static_cast<size_t>(index)].get() : nullptr;
}

std::string DeviceDouble::DeviceName(int descriptor) const {
    const int index = IndexOf(descriptor);
    return index >= 0 ? "video" + std::to_string(index) : "descriptor " + std::to_string(descriptor);
}

int DeviceDouble::Open(const char* path, int flags) {
    const auto effect = [&](std::unique_lock<std::mutex>&,
                            const std::optional<Outcome>& scripted) -> Outcome {
        if (scripted) {
            return *scripted;
        }
        int index = -1;
        if (std::strncmp(path, kPathStart, sizeof(kPathStart) - 1) == 0) {
            index = std::atoi(path + sizeof(kPathStart) - 1);
        }
        const auto place = static_cast<size_t>(index);
        if (index < 0 || place >= m_cameras.size() || m_cameras[place] == nullptr || m_cameras[place]->gone) {
            return {-1, ENOENT};
        }
        for (int tries = 0; tries < kDescriptorCount; ++tries) {
            const int descriptor = m_next_descriptor;
            m_next_descriptor = m_first_descriptor + (descriptor + 1 - m_first_descriptor) % kDescriptorCount;
            if (m_descriptors.emplace(descriptor, index).second) {
                return {descriptor, 0};
            }
        }
        return {-1, EMFILE};
    };
    return Perform(DeviceCall::kOpen, effect, [&] { return path + (' ' + OpenFlags(flags)); });
}

int DeviceDouble::Close(int descriptor) {
    const auto effect = [&](std::unique_lock<std::mutex>&,
                            const std::optional<Outcome>& scripted) -> Outcome {
        Camera* camera = CameraOf(descriptor);
        if (camera == nullptr) {
            Note("close of unknown descriptor " + std::to_string(descriptor));
            return {-1, EBADF};
        }
        if (camera->owner == descriptor) {
            StopStream(*camera);
            camera->buffers.clear();
            camera->owner = -1;
        }
        m_descriptors.erase(descriptor);
        return scripted.value_or(Outcome{0, 0});
    };
    return Perform(DeviceCall::kClose, effect, [&] { return DeviceName(descriptor); });
}

int DeviceDouble::Ioctl(int descriptor, unsigned long request, void* argument) {
    const DeviceCall call = CallOf(request);
    const auto effect = [&](std::unique_lock<std::mutex>&,
                            const std::optional<Outcome>& scripted) -> Outcome {
        Camera* camera = CameraOf(descriptor);
        if (camera == nullptr) {
            Note(std::string(NameOf(call)) + " on unknown descriptor " + std::to_string(descriptor));
            return {-1, EBADF};
        }
        if (scripted) {
            return *scripted;
        }
        return camera->gone ? Outcome{-1, ENODEV} : Answer(*camera, descriptor, call, argument);
    };
    return Perform(call, effect, [&] { return DeviceName(descriptor) + DescribeRequest(call, argument); });
}

DeviceDouble::Outcome DeviceDouble::Answer(Camera& camera, int descriptor, DeviceCall call, void* argument) {
    switch (call) {
        case DeviceCall::kEnumFmt:
            return EnumFmt(camera, *static_cast<v4l2_fmtdesc*>(argument));
        case DeviceCall::kTryFmt:
            return TryFmt(camera, *static_cast<v4l2_format*>(argument));
        case DeviceCall::kQueryCap:
            return QueryCap(camera, *static_cast<v4l2_capability*>(argument));
        case DeviceCall::kGetFmt:
            return GetFmt(camera, *static_cast<v4l2_format*>(argument));
        case DeviceCall::kSetFmt:
            return SetFmt(camera, *static_cast<v4l2_format*>(argument));
        case DeviceCall::kGetParm:
            static_cast<v4l2_streamparm*>(argument)->parm.capture.capability = camera.model.parm_capability;
            static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe = {1, 30};
            return {0, 0};
        case DeviceCall::kSetParm:
            return {0, 0};
        case DeviceCall::kReqBufs:
            return ReqBufs(camera, descriptor, *static_cast<v4l2_requestbuffers*>(argument));
        case DeviceCall::kQueryBuf:
            return QueryBuf(camera, *static_cast<v4l2_buffer*>(argument));
        case DeviceCall::kQueueBuf:
            return QueueBuf(camera, *static_cast<v4l2_buffer*>(argument));
        case DeviceCall::kDequeueBuf:
            return DequeueBuf(camera, *static_cast<v4l2_buffer*>(argument));
        case DeviceCall::kStreamOn:
            camera.streaming = true;
            camera.sequence = 0;
            camera.next_due = Clock::now() + camera.period;
            FillBuffers(camera);
            return {0, 0};
        case DeviceCall::kStreamOff:
            StopStream(camera);
            return {0, 0};
        default:
            return {-1, ENOTTY};
    }
}

DeviceDouble::Outcome DeviceDouble::EnumFmt(const Camera& camera, v4l2_fmtdesc& description) {
    if (description.index >= camera.model.formats.size()) {
        return {-1, EINVAL};
    }
    description.pixelformat = camera.model.formats[description.index].pixel_format;
    description.flags = V4L2_FMT_FLAG_EMULATED;
    return {0, 0};
}

DeviceDouble::Outcome DeviceDouble::TryFmt(const Camera& camera, v4l2_format& format) {
    v4l2_pix_format& picture = format.fmt.pix;
    const FrameSize asked{picture.width, picture.height};
    for (const CameraFormat& each : camera.model.formats) {
        if (each.pixel_format != picture.pixelformat) {
            continue;
        }
        std::optional<FrameSize> answered;
        if (std::find(each.sizes.begin(), each.sizes.end(), asked) != each.sizes.end()) {
            answered = asked;
        }
        for (const auto& [from, to] : each.adjusted) {
            if (from == asked) {
                answered = to;
            }
        }
        if (answered) {
            picture.width = answered->width;
            picture.height = answered->height;
            FillPicture(picture);
            return {0, 0};
        }
    }
    return {-1, EINVAL};
}

DeviceDouble::Outcome DeviceDouble::QueryCap(const Camera& camera, v4l2_capability& capability) {
    CopyText("double", capability.driver);
    CopyText(camera.model.card, capability.card);
    CopyText(camera.model.bus_info, capability.bus_info);
    capability.capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    return {0, 0};
}

DeviceDouble::Outcome DeviceDouble::GetFmt(const Camera& camera, v4l2_format& format) {
    v4l2_pix_format& picture = format.fmt.pix;
    picture.width = camera.model.current_size.width;
    picture.height = camera.model.current_size.height;
    picture.pixelformat = camera.model.current_format;
    FillPicture(picture);
    return {0, 0};
}

DeviceDouble::Outcome DeviceDouble::SetFmt(Camera& camera, v4l2_format& format) {
    const Outcome outcome = TryFmt(camera, format);
    if (outcome.result == 0) {
        if (camera.model.size_after_set) {
            format.fmt.pix.width = camera.model.size_after_set->width;
            format.fmt.pix.height = camera.model.size_after_set->height;
        }
        camera.model.current_size = {format.fmt.pix.width, format.fmt.pix.height};
        camera.model.current_format = format.fmt.pix.pixelformat;
    }
    return outcome;
}

DeviceDouble::Outcome DeviceDouble::ReqBufs(Camera& camera, int descriptor, v4l2_requestbuffers& request) {
    if (camera.owner != -1 && camera.owner != descriptor) {
        return {-1, EBUSY};
    }
    request.count = camera.model.granted_buffers.value_or(request.count);
    camera.owner = descriptor;
    camera.buffers.assign(request.count, Buffer{});
    camera.queued.clear();
    return {0, 0};
}

DeviceDouble::Outcome DeviceDouble::QueryBuf(const Camera& camera, v4l2_buffer& buffer) {
    if (buffer.index >= camera.buffers.size()) {
        return {-1, EINVAL};
    }
    buffer.length = camera.model.buffer_length;
    buffer.m.offset = buffer.index * 0x10000;
    return {0, 0};
}

DeviceDouble::Outcome DeviceDouble::QueueBuf(Camera& camera, const v4l2_buffer& buffer) {
    if (buffer.index >= camera.buffers.size()) {
        return {-1, EINVAL};
    }
    camera.queued.push_back(buffer.index);
    FillBuffers(camera);
    return {0, 0};
}

DeviceDouble::Outcome DeviceDouble::DequeueBuf(Camera& camera, v4l2_buffer& buffer) {
    MakeDueFrame(camera, Clock::now());
    if (camera.done.empty()) {
        return {-1, EAGAIN};
    }
    const auto [index, frame] = std::move(camera.done.front());
    camera.done.pop_front();
    buffer.index = frame.index.value_or(index);
    buffer.bytesused = frame.bytes_used.value_or(static_cast<uint32_t>(frame.bytes.size()));
    buffer.length = camera.model.buffer_length;
    buffer.m.offset = index * 0x10000;
    return {0, 0};
}

void DeviceDouble::StopStream(Camera& camera) {
    camera.streaming = false;
    camera.queued.clear();
    camera.pending.clear();
    camera.done.clear();
}

void DeviceDouble::FillBuffers(Camera& camera) {
    while (camera.streaming && !camera.pending.empty() && !camera.queued.empty()) {
        const uint32_t index = camera.queued.front();
        camera.queued.pop_front();
        Frame frame = std::move(camera.pending.front());
        camera.pending.pop_front();
        uint8_t* memory = camera.buffers[index].memory;
        if (memory != nullptr) {
            std::memcpy(memory, frame.bytes.data(),
                        std::min<size_t>(frame.bytes.size(), camera.model.buffer_length));
        }
        camera.done.emplace_back(index, std::move(frame));
    }
}

void DeviceDouble::MakeDueFrame(Camera& camera, Clock::time_point now) {
    if (!camera.streaming || camera.period.count() == 0 || now < camera.next_due) {
        return;
    }
    const auto behind = (now - camera.next_due) / camera.period;
    camera.next_due += camera.period * (behind + 1);
    if (!camera.queued.empty()) {
        Frame frame{std::vector<uint8_t>(sizeof(camera.sequence)), camera.model.buffer_length};
        std::memcpy(frame.bytes.data(), &camera.sequence, sizeof(camera.sequence));
        camera.pending.push_back(std::move(frame));
        FillBuffers(camera);
    }
    ++camera.sequence;
}

void* DeviceDouble::Map(size_t length, int protection, int flags, int descriptor, off_t offset) {
    void* address = MAP_FAILED;
    const auto effect = [&](std::unique_lock<std::mutex>&,
                            const std::optional<Outcome>& scripted) -> Outcome {
        Camera* camera = CameraOf(descriptor);
        if (camera == nullptr) {
            Note("mmap of unknown descriptor " + std::to_string(descriptor));
            return {-1, EBADF};
        }
        if (scripted) {
            return *scripted;
        }
        const auto buffer = static_cast<uint32_t>(offset / 0x10000);
        if (camera->gone || buffer >= camera->buffers.size() || length != camera->model.buffer_length) {
            return {-1, camera->gone ? ENODEV : EINVAL};
        }
        Mapping mapping{std::make_unique<uint8_t[]>(length), length, IndexOf(descriptor), buffer};
        camera->buffers[buffer].memory = mapping.memory.get();
        address = mapping.memory.get();
        m_mappings.emplace(address, std::move(mapping));
        return {0, 0};
    };
    Perform(DeviceCall::kMap, effect, [&] {
        const bool usual = protection == (PROT_READ | PROT_WRITE) && flags == MAP_SHARED;
        return DeviceName(descriptor) + Field("length", length) + " offset=" + std::to_string(offset) +
               (usual ? " PROT_READ|PROT_WRITE MAP_SHARED"
                      : " protection=" + std::to_string(protection) + " flags=" + std::to_string(flags));
    });
    return address;
}

int DeviceDouble::Unmap(void* address, size_t length) {
    const auto effect = [&](std::unique_lock<std::mutex>&,
                            const std::optional<Outcome>& scripted) -> Outcome {
        const auto found = m_mappings.find(address);
        if (found == m_mappings.end() || found->second.length != length) {
            Note("munmap of what is not mapped, length " + std::to_string(length));
            return {-1, EINVAL};
        }
        if (scripted) {
            return *scripted;
        }
        const Mapping& mapping = found->second;
        std::vector<Buffer>& buffers = m_cameras[static_cast<size_t>(mapping.camera)]->buffers;
        if (mapping.buffer < buffers.size() && buffers[mapping.buffer].memory == address) {
            buffers[mapping.buffer].memory = nullptr;
        }
        m_mappings.erase(found);
        return {0, 0};
    };
    return Perform(DeviceCall::kUnmap, effect, [&] {
        const auto found = m_mappings.find(address);
        const std::string which = found == m_mappings.end()
                                      ? "unknown"
                                      : "video" + std::to_string(found->second.camera) +
                                            " buffer=" + std::to_string(found->second.buffer);
        return which + Field("length", length);
    });
}

int DeviceDouble::Select(int count, fd_set* readable, timeval* timeout) {
    const auto effect = [&](std::unique_lock<std::mutex>& lock,
                            const std::optional<Outcome>& scripted) -> Outcome {
        Outcome outcome{};
        int members = 0;
        for (int descriptor = 0; descriptor < count; ++descriptor) {
            members += IsInSet(readable, descriptor) ? 1 : 0;
        }
        if (members != 1 || !IsInSet(readable, count - 1)) {
            Note("select on something else than one descriptor");
        }
        if (scripted) {
            outcome = *scripted;
        } else {
            const auto asked =
                std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
            outcome = WaitReadable(lock, count - 1, std::min<Clock::duration>(asked, m_longest_wait));
        }
        if (outcome.result != -1 && outcome.result != 1) {
            EmptySet(readable, count);
        }
        // As select() does: the time that is left.
        timeout->tv_sec = 0;
        timeout->tv_usec = 0;
        return outcome;
    };
    return Perform(DeviceCall::kSelect, effect, [&] {
        char text[48];
        std::snprintf(text, sizeof(text), " timeout=%ld.%06ld", static_cast<long>(timeout->tv_sec),
                      static_cast<long>(timeout->tv_usec));
        return DeviceName(count - 1) + text;
    });
}

DeviceDouble::Outcome DeviceDouble::WaitReadable(std::unique_lock<std::mutex>& lock, int descriptor,
                                                 Clock::duration timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        Camera* camera = CameraOf(descriptor);
        if (camera == nullptr) {
            Note("select on unknown descriptor " + std::to_string(descriptor));
            return {-1, EBADF};
        }
        if (camera->gone) {
            return camera->how_gone == Unplugged::kSelectFails ? Outcome{-1, ENODEV} : Outcome{1, 0};
        }
        const Clock::time_point now = Clock::now();
        MakeDueFrame(*camera, now);
        if (!camera->done.empty()) {
            return {1, 0};
        }
        if (now >= deadline) {
            return {0, 0};
        }
        const bool paced = camera->streaming && camera->period.count() != 0;
        m_changed.wait_until(lock, paced ? std::min(deadline, camera->next_due) : deadline);
    }
}

}  // namespace zumod::testing

// The seam's functions, linked into a test instead of src/capture/device_calls.cpp.
namespace zumod::device {

using testing::DeviceDouble;

int Open(const char* path, int flags) {
    DeviceDouble* current = DeviceDouble::Current();
    if (current == nullptr) {
        errno = ENOENT;
        return -1;
    }
    return current->Open(path, flags);
}

int Close(int descriptor) {
    return DeviceDouble::Current()->Close(descriptor);
}

int Ioctl(int descriptor, unsigned long request, void* argument) {
    return DeviceDouble::Current()->Ioctl(descriptor, request, argument);
}

void* Map(size_t length, int protection, int flags, int descriptor, off_t offset) {
    return DeviceDouble::Current()->Map(length, protection, flags, descriptor, offset);
}

int Unmap(void* address, size_t length) {
    return DeviceDouble::Current()->Unmap(address, length);
}

int Select(int count, fd_set* readable, timeval* timeout) {
    return DeviceDouble::Current()->Select(count, readable, timeout);
}

}  // namespace zumod::device
