#include "vcam/preload/client_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "vcam/preload/raw_system.h"

namespace zumod::vcam {
namespace {

int Ask(const Channel& channel, const Request& request, const iovec* parts = nullptr, int part_count = 0) {
    Reply reply{};
    const int failure = channel.call(channel.context, request, parts, part_count, reply, nullptr);
    return failure != 0 ? failure : reply.error;
}

int Check(const FileIdentity& identity, const Channel& channel, unsigned long command) {
    Request request = MakeRequest(Operation::kCheck, identity);
    request.command = command;
    return Ask(channel, request);
}

void Rearm(const FileIdentity& identity, const Channel& channel, uint32_t what) {
    Request request = MakeRequest(Operation::kRearm, identity);
    request.flags = what;
    Ask(channel, request);
}

bool IsGone(const FileIdentity& identity, const CameraBoard& board) {
    return board.plug.load(std::memory_order_acquire) != identity.plug;
}

bool IsNonBlocking(int fd) {
    return (RawCall(SYS_fcntl, fd, F_GETFL) & O_NONBLOCK) != 0;
}

long Receive(int fd, Record& record, int flags) {
    return RawCall(SYS_recvfrom, fd, Word(&record), sizeof record, flags);
}

// Why a QBUF or DQBUF fails before it is tried: the camera is gone, or a fault counts this call and makes it
// fail. `slow` is the call's bit in the board. 0 otherwise.
int CheckFirst(const FileIdentity& identity, const CameraBoard& board, const Channel& channel, uint32_t slow,
               unsigned long command) {
    if (IsGone(identity, board)) {
        return ENODEV;
    }
    return (board.slow.load(std::memory_order_acquire) & slow) != 0 ? Check(identity, channel, command) : 0;
}

// Why DQBUF fails in this state of the stream; 0 if it may wait for a frame.
int DequeueError(const FileIdentity& identity, const CameraBoard& board, uint32_t stream,
                 const v4l2_buffer& asked) {
    const uint32_t owner = board.owner.load(std::memory_order_acquire);
    if (IsGone(identity, board)) {
        return ENODEV;
    }
    if (owner != 0 && owner != identity.file) {
        return EBUSY;
    }
    if (asked.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || asked.memory != V4L2_MEMORY_MMAP || owner == 0 ||
        (stream & CameraBoard::kStreaming) == 0) {
        return EINVAL;
    }
    return (stream & CameraBoard::kFailed) != 0 ? EIO : 0;
}

int Dequeue(int fd, const FileIdentity& identity, CameraBoard& board, const Channel& channel,
            v4l2_buffer& buffer) {
    if (const int error = CheckFirst(identity, board, channel, CameraBoard::kSlowDequeue, VIDIOC_DQBUF);
        error != 0) {
        return error;
    }
    bool took_mark = false;
    for (;;) {
        const uint32_t stream = board.stream.load(std::memory_order_acquire);
        if (const int error = DequeueError(identity, board, stream, buffer); error != 0) {
            if (took_mark && error != ENODEV) {
                Rearm(identity, channel, kRearmStopped);
            }
            return error;
        }
        Record record{};
        const long received = Receive(fd, record, 0);
        if (received == -EINTR || received == -EAGAIN) {
            return static_cast<int>(-received);
        }
        if (received != static_cast<long>(sizeof record) || record.magic != kWireMagic) {
            return ENODEV;
        }
        if (board.pending_events.load(std::memory_order_relaxed) != 0) {
            // A receive past the urgent byte of a pending event removes that byte.
            Rearm(identity, channel, kRearmEvent);
        }
        if (record.kind == RecordKind::kMark) {
            took_mark = true;
        } else if (record.stream != stream) {
            continue;
        } else if (record.kind == RecordKind::kFrame) {
            if (!board.Move(record.index, BufferState::kDone, BufferState::kDequeued)) {
                continue;
            }
            buffer = record.buffer;
            if ((board.mapped.load(std::memory_order_relaxed) >> record.index & 1) != 0) {
                buffer.flags |= V4L2_BUF_FLAG_MAPPED;
            }
            return 0;
        } else if (IsNonBlocking(fd)) {
            return EAGAIN;
        }
    }
}

int Queue(const FileIdentity& identity, CameraBoard& board, const Channel& channel, v4l2_buffer& buffer) {
    if (const int error = CheckFirst(identity, board, channel, CameraBoard::kSlowQueue, VIDIOC_QBUF);
        error != 0) {
        return error;
    }
    const uint32_t owner = board.owner.load(std::memory_order_acquire);
    if (owner != 0 && owner != identity.file) {
        return EBUSY;
    }
    const uint32_t index = buffer.index;
    if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer.memory != V4L2_MEMORY_MMAP || owner == 0 ||
        (buffer.flags & V4L2_BUF_FLAG_REQUEST_FD) != 0 ||
        index >= board.count.load(std::memory_order_acquire) || index >= kMaxBuffers ||
        !board.Move(index, BufferState::kDequeued, BufferState::kQueued)) {
        return EINVAL;
    }
    board.Describe(index, buffer);
    return 0;
}

int Carry(const FileIdentity& identity, const Channel& channel, unsigned long command, void* argument,
          uint32_t flags = 0) {
    Request request = MakeRequest(Operation::kIoctl, identity);
    request.command = command;
    request.flags = flags;
    // Without an argument the camera still tells whether it supports the request.
    iovec parts[2] = {{argument, argument == nullptr ? 0 : _IOC_SIZE(command)}, {nullptr, 0}};
    int part_count = 1;
    const bool has_array =
        command == VIDIOC_G_EXT_CTRLS || command == VIDIOC_S_EXT_CTRLS || command == VIDIOC_TRY_EXT_CTRLS;
    if (has_array && argument != nullptr) {
        const auto& controls = *static_cast<const v4l2_ext_controls*>(argument);
        if (controls.count > kMaxExtControls) {
            return EINVAL;
        }
        if (controls.count != 0) {
            if (controls.controls == nullptr) {
                return EFAULT;
            }
            parts[1] = {controls.controls, controls.count * sizeof(v4l2_ext_control)};
            part_count = 2;
        }
    }
    // The reply overwrites the arrays in place; the pointer to the second is returned unchanged.
    return Ask(channel, request, parts, part_count);
}

// Discards the records of earlier streams, so that the descriptor is readable only for the new one.
void DropStale(int fd, const CameraBoard& board) {
    Record record{};
    while (Receive(fd, record, MSG_PEEK | MSG_DONTWAIT) == static_cast<long>(sizeof record)) {
        if (record.kind != RecordKind::kMark &&
            record.stream == board.stream.load(std::memory_order_acquire)) {
            return;
        }
        Receive(fd, record, MSG_DONTWAIT);
    }
}

// Consumes the urgent byte that announces pending events, and the mark it leaves in the queue.
void TakeEventMark(int fd) {
    char byte = 0;
    RawCall(SYS_recvfrom, fd, Word(&byte), 1, MSG_OOB | MSG_DONTWAIT);
    Record record{};
    if (Receive(fd, record, MSG_PEEK | MSG_DONTWAIT) < 0) {
        Receive(fd, record, MSG_DONTWAIT);
    }
}

int DequeueEvent(int fd, const FileIdentity& identity, const Channel& channel, void* argument) {
    for (;;) {
        TakeEventMark(fd);
        const int error = Carry(identity, channel, VIDIOC_DQEVENT, argument, kRearmEvent);
        if (error != ENOENT || IsNonBlocking(fd)) {
            return error;
        }
        pollfd wait{fd, POLLPRI, 0};
        timespec* no_limit = nullptr;
        const long result = RawCall(SYS_ppoll, Word(&wait), 1, Word(no_limit));
        if (result == -EINTR) {
            return EINTR;
        }
    }
}

}  // namespace

Request MakeRequest(Operation operation, const FileIdentity& identity) {
    Request request{};
    request.magic = kWireMagic;
    request.version = kWireVersion;
    request.operation = operation;
    request.slot = identity.slot;
    request.file = identity.file;
    request.plug = identity.plug;
    return request;
}

int ClientIoctl(int fd, const FileIdentity& identity, CameraBoard& board, const Channel& channel,
                unsigned long command, void* argument) {
    command &= 0xffffffffUL;  // some callers sign-extend it
    switch (command) {
        case VIDIOC_DQBUF:
            return argument == nullptr
                       ? EFAULT
                       : Dequeue(fd, identity, board, channel, *static_cast<v4l2_buffer*>(argument));
        case VIDIOC_QBUF:
            return argument == nullptr
                       ? EFAULT
                       : Queue(identity, board, channel, *static_cast<v4l2_buffer*>(argument));
        case VIDIOC_DQEVENT:
            return DequeueEvent(fd, identity, channel, argument);
        case VIDIOC_STREAMON: {
            const int error = Carry(identity, channel, command, argument);
            if (error == 0) {
                DropStale(fd, board);
            }
            return error;
        }
        default:
            return Carry(identity, channel, command, argument);
    }
}

}  // namespace zumod::vcam
