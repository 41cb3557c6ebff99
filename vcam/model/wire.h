// What travels between a program and its virtual cameras: the name a descriptor carries, a request with its
// reply, and the record that makes a descriptor readable. Plain data; shared by the preload library, which
// has no C++ runtime, and the camera side.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>

namespace zumod::vcam {

inline constexpr unsigned kMaxCameras = 64;
inline constexpr unsigned kMaxBuffers = 32;
inline constexpr unsigned kServerNameSize = 32;
inline constexpr uint32_t kWireMagic = 0x5a56434d;
inline constexpr uint32_t kWireVersion = 1;
// The largest array an extended-controls request may carry, as the kernel limits it.
inline constexpr uint32_t kMaxExtControls = 1024;

// Abstract socket addresses: of the server "<prefix>@<server name>", of a descriptor "<prefix>:" and a
// FileIdentity.
inline constexpr char kAddressPrefix[] = "zu-vcam";
// Names the server for every program below it.
inline constexpr char kServerVariable[] = "ZU_VCAM";

// Who an open device file is. Bound to the descriptor itself, so it survives dup, fork, exec and being passed
// on.
struct FileIdentity {
    char server[kServerNameSize];
    uint32_t slot;    // the camera, in the order the cameras were given
    uint32_t file;    // the open file, never 0
    uint32_t plug;    // which of the camera's plug-ins it belongs to
    uint32_t flags;   // as given to open
    uint32_t number;  // of /dev/videoN
};
static_assert(sizeof(FileIdentity) == 52);

enum class Operation : uint32_t {
    kOpen,     // value: number; argument: flags -> value: slot, descriptor
    kStat,     // value: number
    kList,     // -> payload: the numbers present, uint32_t each
    kBoards,   // -> descriptor: the boards' memory
    kIoctl,    // command, payload in and out
    kCheck,    // command -> error: what a fault makes of a call that is otherwise served in the program
    kMap,      // value: offset, argument: length, flags: 1 = writing -> descriptor: the buffers' memory
    kRemind,   // flags: kRemindStopped, kRemindEvent
    kControl,  // payload: text -> payload: text
};

inline constexpr uint32_t kRemindStopped = 1;  // the mark of a stopped stream was taken from the descriptor
inline constexpr uint32_t kRemindEvent = 2;    // the mark of a pending event was taken from the descriptor

struct Request {
    uint32_t magic;
    uint32_t version;
    Operation operation;
    uint32_t slot;
    uint32_t file;
    uint32_t plug;
    uint32_t flags;
    uint32_t size;  // of the payload that follows
    uint64_t command;
    uint64_t value;
    uint64_t argument;
};

struct Reply {
    int32_t error;  // errno, 0 for success
    uint32_t size;  // of the payload that follows
    uint64_t value;
    uint32_t delay_ms;  // the program waits so long before it goes on
    uint32_t reserved;
};

// Error of kOpen and kStat for a number that never was a virtual camera's.
inline constexpr int kNotVirtual = -1;

enum class RecordKind : uint32_t {
    kFrame,
    kEmpty,  // readable, and nothing to dequeue
    kMark,   // the stream stopped or failed: whoever waits looks again
};

// Records have one size, so that a stream socket keeps them whole; a stream socket is needed because only its
// urgent byte raises POLLPRI.
struct Record {
    uint32_t magic;
    RecordKind kind;
    uint32_t stream;  // the stream it belongs to; an older one is stale
    uint32_t index;   // the buffer, whatever index the program is shown
    v4l2_buffer buffer;
};

}  // namespace zumod::vcam
