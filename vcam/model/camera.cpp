#include "vcam/model/camera.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>

namespace zumod::vcam {

Camera::Camera(unsigned slot, CameraConfig config, const std::string& server_name, CameraBoard& board)
    : slot_(slot),
      config_([&config] {
          config.Complete();
          return std::move(config);
      }()),
      server_name_(server_name),
      board_(board),
      number_(config_.number),
      rate_(config_.rates[0]) {
    board_.plug.store(1, std::memory_order_release);
    if (!config_.y4m.empty()) {
        std::string error;
        if (!Y4mFile::Read(config_.y4m, y4m_, error)) {
            y4m_.frames.clear();
        }
    }
    v4l2_pix_format pix{};
    pix.width = config_.sizes[0].width;
    pix.height = config_.sizes[0].height;
    pix.pixelformat = config_.formats[0];
    UseLayout(AdjustLayout(pix));
    for (const Fault& fault : config_.faults) {
        Inject(fault);
    }
    frame_thread_ = std::thread([this] { FrameLoop(); });
}

Camera::~Camera() {
    {
        const Lock lock(mutex_);
        quit_ = true;
        UnplugLocked();
        replug_at_.reset();
    }
    changed_.notify_all();
    frame_thread_.join();
}

uint32_t Camera::OpenDelay() {
    const Lock lock(mutex_);
    const ActiveFault* slow = FindFault(FaultKind::kSlowOpen);
    return slow == nullptr ? 0 : static_cast<uint32_t>(slow->fault.value);
}

int Camera::Open(uint32_t flags, UniqueFd& program_end, FileIdentity& identity) {
    Lock lock(mutex_);
    ReapLocked(lock);
    if (!present_) {
        return ENOENT;
    }
    if (const int error = FailCall(FaultKind::kOpenBusy, 0, EBUSY); error != 0) {
        return error;
    }
    identity = {};
    std::memcpy(identity.server, server_name_.data(), std::min(server_name_.size(), sizeof identity.server));
    identity.slot = slot_;
    identity.file = next_file_++;
    identity.plug = board_.plug.load(std::memory_order_relaxed);
    identity.flags = flags;
    identity.number = static_cast<uint32_t>(number_);
    OpenFile file;
    file.id = identity.file;
    file.flags = flags;
    if (!file.end.Open(identity, program_end)) {
        return errno;
    }
    const int status = fcntl(program_end.Get(), F_GETFL);
    fcntl(program_end.Get(), F_SETFL, status | static_cast<int>(flags & O_NONBLOCK));
    SendMark(file);
    files_.emplace(file.id, std::move(file));
    return 0;
}

Reply Camera::Serve(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor) {
    Reply reply{};
    Lock lock(mutex_);
    reply.error = ServeFile(request, payload, reply, descriptor, lock);
    lock.unlock();
    changed_.notify_all();
    reply.size = static_cast<uint32_t>(payload.size());
    return reply;
}

int Camera::ServeFile(const Request& request, std::vector<uint8_t>& payload, Reply& reply,
                      UniqueFd& descriptor, Lock& lock) {
    ReapLocked(lock);
    OpenFile* file = FindFile(request.file, request.plug);
    if (file == nullptr) {
        return ENODEV;
    }
    switch (request.operation) {
        case Operation::kIoctl:
            return Ioctl(*file, request, payload);
        case Operation::kCheck:
            return FailIoctl(request.command);
        case Operation::kMap:
            return Map(*file, request, reply, descriptor);
        case Operation::kRearm:
            Rearm(*file, request.flags);
            return 0;
        default:
            return EINVAL;
    }
}

const Camera::Entry* Camera::FindEntry(unsigned long command) {
    static const Entry entries[] = {
        {VIDIOC_QUERYCAP, &Camera::QueryCapability, false},
        {VIDIOC_ENUM_FMT, &Camera::EnumFormat, false},
        {VIDIOC_G_FMT, &Camera::GetFormat, false},
        {VIDIOC_TRY_FMT, &Camera::TryFormat, false},
        {VIDIOC_S_FMT, &Camera::SetFormat, true},
        {VIDIOC_ENUM_FRAMESIZES, &Camera::EnumSizes, false},
        {VIDIOC_ENUM_FRAMEINTERVALS, &Camera::EnumIntervals, false},
        {VIDIOC_G_PARM, &Camera::GetParm, false},
        {VIDIOC_S_PARM, &Camera::SetParm, true},
        {VIDIOC_ENUMINPUT, &Camera::EnumInput, false},
        {VIDIOC_G_INPUT, &Camera::GetInput, false},
        {VIDIOC_S_INPUT, &Camera::SetInput, true},
        {VIDIOC_REQBUFS, &Camera::RequestBuffers, true},
        {VIDIOC_QUERYBUF, &Camera::QueryBuffer, false},
        {VIDIOC_STREAMON, &Camera::StreamOn, true},
        {VIDIOC_STREAMOFF, &Camera::StreamOff, true},
        {VIDIOC_QUERYCTRL, &Camera::QueryControl, false},
        {VIDIOC_QUERY_EXT_CTRL, &Camera::QueryControlExtended, false},
        {VIDIOC_QUERYMENU, &Camera::QueryControlMenu, false},
        {VIDIOC_G_CTRL, &Camera::GetControl, false},
        {VIDIOC_S_CTRL, &Camera::SetControl, true},
        {VIDIOC_G_EXT_CTRLS, &Camera::GetControls, false},
        {VIDIOC_S_EXT_CTRLS, &Camera::SetControls, true},
        {VIDIOC_TRY_EXT_CTRLS, &Camera::TryControls, false},
        {VIDIOC_G_PRIORITY, &Camera::GetPriority, false},
        {VIDIOC_S_PRIORITY, &Camera::SetPriority, true},
        {VIDIOC_SUBSCRIBE_EVENT, &Camera::Subscribe, false},
        {VIDIOC_UNSUBSCRIBE_EVENT, &Camera::Unsubscribe, false},
        {VIDIOC_DQEVENT, &Camera::DequeueEvent, false},
    };
    const auto* found = std::find_if(std::begin(entries), std::end(entries),
                                     [command](const Entry& entry) { return entry.command == command; });
    return found == std::end(entries) ? nullptr : found;
}

int Camera::Ioctl(OpenFile& file, const Request& request, std::vector<uint8_t>& payload) {
    const Entry* entry = FindEntry(request.command);
    if (entry == nullptr) {
        return ENOTTY;
    }
    if (payload.size() < _IOC_SIZE(request.command)) {
        return EFAULT;
    }
    if (const int error = FailIoctl(request.command); error != 0) {
        return error;
    }
    if (entry->needs_priority && file.priority < GreatestPriority()) {
        return EBUSY;
    }
    if (request.command == VIDIOC_DQEVENT && (request.flags & kRearmEvent) != 0) {
        file.event_marked = false;
    }
    // The arrays of extended controls follow their head; the pointer between them is the program's.
    const bool has_array = request.command == VIDIOC_G_EXT_CTRLS || request.command == VIDIOC_S_EXT_CTRLS ||
                           request.command == VIDIOC_TRY_EXT_CTRLS;
    v4l2_ext_control* theirs = nullptr;
    if (has_array) {
        auto& controls = *reinterpret_cast<v4l2_ext_controls*>(payload.data());
        if (payload.size() < sizeof controls + size_t{controls.count} * sizeof(v4l2_ext_control)) {
            return EFAULT;
        }
        theirs = controls.controls;
        controls.controls = reinterpret_cast<v4l2_ext_control*>(payload.data() + sizeof controls);
    }
    const int error = (this->*entry->handler)(file, payload.data());
    if (has_array) {
        reinterpret_cast<v4l2_ext_controls*>(payload.data())->controls = theirs;
    } else if (error != 0) {
        payload.clear();  // a failed call leaves the program's memory alone
    }
    return error;
}

int Camera::Map(const OpenFile& file, const Request& request, Reply& reply, UniqueFd& descriptor) {
    const bool writes = request.flags != 0;
    if (writes && (file.flags & O_ACCMODE) == O_RDONLY) {
        return EACCES;
    }
    if (!pool_) {
        return EINVAL;
    }
    const uint64_t index = request.value / pool_->Stride();
    if (request.value % pool_->Stride() != 0 || index >= pool_->Count() || request.argument == 0 ||
        request.argument > pool_->Stride()) {
        return EINVAL;
    }
    descriptor.Reset(fcntl(pool_->Descriptor(), F_DUPFD_CLOEXEC, 0));
    if (!descriptor) {
        return errno;
    }
    board_.mapped.fetch_or(1U << index, std::memory_order_relaxed);
    reply.value = request.value;
    return 0;
}

void Camera::Rearm(OpenFile& file, uint32_t what) {
    if ((what & kRearmStopped) != 0 && (!IsStreaming() || !IsOwner(file))) {
        SendMark(file);
    }
    if ((what & kRearmEvent) != 0) {
        file.event_marked = false;
        MarkEvent(file);
    }
}

Camera::OpenFile* Camera::FindFile(uint32_t id, uint32_t plug) {
    const auto found = files_.find(id);
    return plug != board_.plug.load(std::memory_order_relaxed) || found == files_.end() ? nullptr
                                                                                        : &found->second;
}

// Forgets the files that no process has open any more.
void Camera::ReapLocked(Lock& lock) {
    for (auto file = files_.begin(); file != files_.end();) {
        if (!file->second.end.IsAbandoned()) {
            ++file;
            continue;
        }
        if (IsOwner(file->second)) {
            StopStream();
            owner_lingers_ = true;
        }
        file = files_.erase(file);
    }
    if (owner_lingers_) {
        ReleaseLingering(lock);
    }
}

void Camera::ReleaseLingering(Lock& lock) {
    painted_.wait(lock, [this] { return !painting_; });
    if (owner_lingers_ && (!pool_ || !pool_->IsMappedElsewhere())) {
        FreeBuffers();
    }
}

void Camera::UnplugLocked() {
    if (!present_) {
        return;
    }
    present_ = false;
    // First of all: whoever is woken by the rest sees that the camera is gone.
    board_.plug.fetch_add(1, std::memory_order_acq_rel);
    StopStream();
    FreeBuffers();
    for (auto& [id, file] : files_) {
        file.end.HangUp();
    }
    files_.clear();
    for (const FaultKind kind : {FaultKind::kReplug, FaultKind::kReplugAs}) {
        if (const ActiveFault* fault = FindFault(kind)) {
            replug_at_ = Clock::now() + std::chrono::milliseconds(fault->fault.value);
            replug_number_ = kind == FaultKind::kReplug ? number_ : static_cast<int>(fault->fault.value2);
            RemoveFault(fault);
            break;
        }
    }
}

void Camera::PlugLocked(int number) {
    replug_at_.reset();
    if (!present_) {
        number_ = number;
        present_ = true;
        controls_ = Controls();
    }
}

CameraStatus Camera::Status() {
    Lock lock(mutex_);
    ReapLocked(lock);
    CameraStatus status;
    status.number = number_;
    status.present = present_;
    status.streaming = IsStreaming();
    status.open_files = static_cast<unsigned>(files_.size());
    status.delivered = delivered_;
    status.dropped = dropped_;
    status.fourcc = layout_.fourcc;
    status.size = {layout_.width, layout_.height};
    status.rate = rate_;
    return status;
}

int Camera::Number() {
    const Lock lock(mutex_);
    return present_ ? number_ : -1;
}

std::vector<uint8_t> Camera::Picture(const Stamp& stamp) {
    const Lock lock(mutex_);
    std::vector<uint8_t> picture(layout_.sizeimage);
    picture.resize(source_->Paint(picture.data(), stamp));
    return picture;
}

PictureLayout Camera::Layout() {
    const Lock lock(mutex_);
    return layout_;
}

}  // namespace zumod::vcam
