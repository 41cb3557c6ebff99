// The messages between a program (the preload library inside it) and its virtual cameras.
//
// Thread rule: plain data; any thread of any process.
//
// The protocol. A program must be able to poll() a camera's descriptor, pass it to another process, and
// queue and dequeue buffers at 1000 frames per second. So there are three channels:
//
// 1. Requests. Every ioctl but QBUF and DQBUF is a round trip: the program connects to the server's socket,
//    sends one Request and receives one Reply. Each call has its own connection, so a fork or a signal
//    cannot mix up two calls.
//
// 2. The board (camera_board.h): shared memory with the state of the stream and one word per buffer. QBUF
//    and DQBUF only change that word, with a compare-and-swap. The program moves a buffer from dequeued to
//    queued, the camera from queued to done, the program from done to dequeued. Only one side can make each
//    move, so neither needs a lock. All other words are written by the camera only. The exception to "no
//    round trip" is the board's `slow` word: while a fault counts the calls of QBUF or DQBUF, the program
//    asks the camera first (kCheck).
//
// 3. The descriptor: the program's half of a stream socket pair. Its address holds the FileIdentity, so the
//    descriptor stays recognisable through dup, fork, exec and SCM_RIGHTS. The kernel provides what poll()
//    must show:
//    - Readable: the camera sends one Record per frame. DQBUF receives it and then takes the buffer that it
//      names. A record whose `stream` is not the board's is left over from an earlier stream and is
//      discarded.
//    - Readable without a frame: a record of kind kMark. A driver does not let poll() wait on a stream that
//      is not running, and a DQBUF that blocks must return when the stream stops. The mark does both.
//    - POLLPRI: one urgent byte while events are pending. A second byte would turn the first into ordinary
//      data, so there is never more than one.
//    - Never writable: the socket's other direction is filled at open, with bytes that are never read.
//    - Error and hang-up: the camera closes its half when it is unplugged. The board's `plug` counts
//      unplugs; a program whose FileIdentity has another value gets ENODEV, also after the camera came back.
//
// Rearm. Receiving a record can remove a wake-up that must stay: DQBUF on a stopped stream has consumed its
// mark, and a receive beyond the urgent byte removes that byte. The program then sends kRearm, and the
// camera puts the mark or the byte back if its cause still exists. Rearm is idempotent: the worst case of
// two at once is a superfluous wake-up.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>

namespace zumod::vcam {

inline constexpr unsigned kMaxCameras = 64;
inline constexpr unsigned kMaxBuffers = 32;
inline constexpr unsigned kServerNameSize = 32;
inline constexpr uint32_t kWireMagic = 0x5a56434d;
inline constexpr uint32_t kWireVersion = 3;
// The largest array an extended-controls request may carry, as the kernel limits it.
inline constexpr uint32_t kMaxExtControls = 1024;

// Abstract socket addresses: of the server "<prefix>@<server name>", of a descriptor "<prefix>:" and a
// FileIdentity.
inline constexpr char kAddressPrefix[] = "zu-vcam";
// The environment variable that names the server for the command and every program it starts.
inline constexpr char kServerVariable[] = "ZU_VCAM";

// Identity of an open device file. It is the address of the program's socket.
struct FileIdentity {
    char server[kServerNameSize];
    uint32_t slot;    // the camera, in the order the cameras were given
    uint32_t file;    // the open file, never 0
    uint32_t plug;    // the board's `plug` when the file was opened
    uint32_t flags;   // of open(2)
    uint32_t number;  // of /dev/videoN
};
static_assert(sizeof(FileIdentity) == 52);

enum class Operation : uint32_t {
    kOpen,     // value: number, flags: of open(2) -> descriptor, delay_ms
    kStat,     // value: number -> error: 0, ENOENT or kNotVirtual
    kList,     // -> payload: the numbers of the cameras that are plugged in, uint32_t each
    kBoards,   // -> descriptor: the memory of all boards
    kIoctl,    // command, payload -> payload
    kCheck,    // command -> error: of a fault that applies to this call
    kMap,      // value: offset, argument: length, flags: 1 to write -> descriptor: the buffers' memory
    kRearm,    // flags: kRearmStopped, kRearmEvent
    kControl,  // payload: a line of text -> payload: the answer
    kFeed,     // slot -> payload and descriptors as feed.h says; the connection stays
};

inline constexpr uint32_t kRearmStopped = 1;  // the mark of a stopped stream was consumed
inline constexpr uint32_t kRearmEvent = 2;    // the urgent byte of a pending event was consumed

struct Request {
    uint32_t magic;
    uint32_t version;
    Operation operation;
    uint32_t slot;
    uint32_t file;
    uint32_t plug;
    uint32_t flags;
    uint64_t command;
    uint64_t value;
    uint64_t argument;
};

struct Reply {
    int32_t error;      // errno, 0 for success
    uint32_t size;      // of the payload that follows
    uint32_t delay_ms;  // the program waits this long before its call returns
};

// Error of kOpen and kStat: the number was never a virtual camera's.
inline constexpr int kNotVirtual = -1;

enum class RecordKind : uint32_t {
    kFrame,
    kEmpty,  // a fault: readable, with nothing to dequeue
    kMark,   // the stream is not running or has failed
};

// All records have the same size, so that each can be received whole from a stream socket. A stream socket
// is needed because only its urgent byte raises POLLPRI.
struct Record {
    uint32_t magic;
    RecordKind kind;
    uint32_t stream;  // the board's `stream` when it was sent
    uint32_t index;   // the buffer; buffer.index differs from it under a fault
    v4l2_buffer buffer;
};

}  // namespace zumod::vcam
