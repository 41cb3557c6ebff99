#include "vcam/model/ioctl_table.h"

#include <algorithm>
#include <cerrno>
#include <span>

namespace zumod::vcam {
namespace {

using Parts = CameraParts;
using Payload = std::vector<uint8_t>;
using Handler = int (*)(Parts& parts, const OpenFile& file, Payload& payload);

struct Entry {
    unsigned long command;
    Handler handler;
    bool needs_priority = false;    // fails while another file has a higher priority
    bool replies_on_error = false;  // a failed call changes the program's memory too
};

template <class Argument>
Argument& As(Payload& payload) {
    return *reinterpret_cast<Argument*>(payload.data());
}

// Calls a function of a part with the payload as its argument. Some functions also need the file.
template <class Part, class Argument>
int Call(Part& part, int (Part::*function)(Argument&), const OpenFile& /*file*/, Payload& payload) {
    return (part.*function)(As<Argument>(payload));
}
template <class Part, class Argument>
int Call(Part& part, int (Part::*function)(Argument&) const, const OpenFile& /*file*/, Payload& payload) {
    return (part.*function)(As<Argument>(payload));
}
template <class Part, class Argument>
int Call(Part& part, int (Part::*function)(const OpenFile&, Argument&), const OpenFile& file,
         Payload& payload) {
    return (part.*function)(file, As<Argument>(payload));
}

template <auto kPart, auto kFunction>
int Ask(Parts& parts, const OpenFile& file, Payload& payload) {
    return Call(parts.*kPart, kFunction, file, payload);
}
template <auto kFunction>
constexpr Handler kFormatCall = &Ask<&Parts::formats, kFunction>;
template <auto kFunction>
constexpr Handler kBufferCall = &Ask<&Parts::buffers, kFunction>;
template <auto kFunction>
constexpr Handler kControlCall = &Ask<&Parts::controls, kFunction>;
template <auto kFunction>
constexpr Handler kEventCall = &Ask<&Parts::events, kFunction>;

// The controls of an extended request follow it in the payload. Its pointer to them is the program's and is
// not used.
template <auto kFunction>
int AskExtended(Parts& parts, const OpenFile& /*file*/, Payload& payload) {
    auto& request = As<v4l2_ext_controls>(payload);
    if (payload.size() < sizeof request + size_t{request.count} * sizeof(v4l2_ext_control)) {
        return EFAULT;
    }
    auto* first = reinterpret_cast<v4l2_ext_control*>(payload.data() + sizeof request);
    return (parts.controls.*kFunction)(request, std::span(first, request.count));
}

// Requests that concern two parts.

int QueryCapability(Parts& parts, const OpenFile& /*file*/, Payload& payload) {
    return parts.formats.QueryCapability(As<v4l2_capability>(payload), parts.plug.Number());
}

int SetFormat(Parts& parts, const OpenFile& /*file*/, Payload& payload) {
    return parts.formats.SetFormat(As<v4l2_format>(payload), parts.buffers.HasBuffers());
}

int SetParm(Parts& parts, const OpenFile& /*file*/, Payload& payload) {
    return parts.formats.SetParm(As<v4l2_streamparm>(payload), parts.buffers.IsStreaming());
}

int RequestBuffers(Parts& parts, const OpenFile& file, Payload& payload) {
    return parts.buffers.Request(file, As<v4l2_requestbuffers>(payload), parts.formats.Layout().sizeimage);
}

int StreamOn(Parts& parts, const OpenFile& file, Payload& payload) {
    const bool was_streaming = parts.buffers.IsStreaming();
    const int error = parts.buffers.StreamOn(file, As<uint32_t>(payload));
    if (error == 0 && !was_streaming) {
        parts.frames.BeginStream(FrameThread::Clock::now());
    }
    return error;
}

constexpr Entry kTable[] = {
    {VIDIOC_QUERYCAP, &QueryCapability},
    {VIDIOC_ENUM_FMT, kFormatCall<&FormatState::EnumFormat>},
    {VIDIOC_G_FMT, kFormatCall<&FormatState::GetFormat>},
    {VIDIOC_TRY_FMT, kFormatCall<&FormatState::TryFormat>},
    {VIDIOC_S_FMT, &SetFormat, true},
    {VIDIOC_ENUM_FRAMESIZES, kFormatCall<&FormatState::EnumSizes>},
    {VIDIOC_ENUM_FRAMEINTERVALS, kFormatCall<&FormatState::EnumIntervals>},
    {VIDIOC_G_PARM, kFormatCall<&FormatState::GetParm>},
    {VIDIOC_S_PARM, &SetParm, true},
    {VIDIOC_ENUMINPUT, kFormatCall<&FormatState::EnumInput>},
    {VIDIOC_G_INPUT, kFormatCall<&FormatState::GetInput>},
    {VIDIOC_S_INPUT, kFormatCall<&FormatState::SetInput>, true},
    {VIDIOC_REQBUFS, &RequestBuffers, true},
    {VIDIOC_QUERYBUF, kBufferCall<&BufferQueue::Query>},
    {VIDIOC_STREAMON, &StreamOn, true},
    {VIDIOC_STREAMOFF, kBufferCall<&BufferQueue::StreamOff>, true},
    {VIDIOC_QUERYCTRL, kControlCall<&Controls::Query>},
    {VIDIOC_QUERY_EXT_CTRL, kControlCall<&Controls::QueryExtended>},
    {VIDIOC_QUERYMENU, kControlCall<&Controls::QueryMenu>},
    {VIDIOC_G_CTRL, kControlCall<&Controls::Get>},
    {VIDIOC_S_CTRL, kControlCall<&Controls::Set>, true},
    {VIDIOC_G_EXT_CTRLS, &AskExtended<&Controls::GetExtended>, false, true},
    {VIDIOC_S_EXT_CTRLS, &AskExtended<&Controls::SetExtended>, true, true},
    {VIDIOC_TRY_EXT_CTRLS, &AskExtended<&Controls::TryExtended>, false, true},
    {VIDIOC_G_PRIORITY, kEventCall<&EventQueues::GetPriority>},
    {VIDIOC_S_PRIORITY, kEventCall<&EventQueues::SetPriority>, true},
    {VIDIOC_SUBSCRIBE_EVENT, kEventCall<&EventQueues::Subscribe>},
    {VIDIOC_UNSUBSCRIBE_EVENT, kEventCall<&EventQueues::Unsubscribe>},
    {VIDIOC_DQEVENT, kEventCall<&EventQueues::Dequeue>},
};

}  // namespace

int ServeIoctl(CameraParts& parts, const OpenFile& file, const Request& request, Payload& payload) {
    const auto* entry = std::ranges::find(kTable, request.command, &Entry::command);
    if (entry == std::end(kTable)) {
        return ENOTTY;
    }
    if (payload.size() < _IOC_SIZE(request.command)) {
        return EFAULT;
    }
    if (const int error = parts.faults.FailsCall(request.command); error != 0) {
        return error;
    }
    if (entry->needs_priority && !parts.events.HasPriority(file)) {
        return EBUSY;
    }
    if (request.command == VIDIOC_DQEVENT && (request.flags & kRearmEvent) != 0) {
        parts.events.MarkTaken(file);
    }
    const int error = entry->handler(parts, file, payload);
    parts.events.Notify(file, parts.controls.TakeChanged());
    if (error != 0 && !entry->replies_on_error) {
        payload.clear();
    }
    return error;
}

}  // namespace zumod::vcam
