#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "vcam/preload/addresses.h"
#include "vcam/preload/preload.h"
#include "vcam/preload/raw_system.h"
#include "vcam/preload/rpc_client.h"

namespace zumod::vcam {
namespace {

constexpr char kDirectory[] = "/dev";

constexpr unsigned kMarkedDescriptors = 1U << 16;
constinit std::atomic<uint64_t> marks[kMarkedDescriptors / 64] = {};

constexpr size_t kBoardsSize = sizeof(CameraBoard) * kMaxCameras;

// The boards of each server that this process has used. Entries are only added.
struct KnownServer {
    std::atomic<bool> taken;
    std::atomic<CameraBoard*> boards;
    char name[kServerNameSize];
};
constexpr unsigned kMaxServers = 1024;
constinit KnownServer known_servers[kMaxServers] = {};
constinit std::atomic<unsigned> last_server{0};

bool IsServer(const KnownServer& known, const FileIdentity& identity) {
    return std::memcmp(known.name, identity.server, sizeof known.name) == 0;
}

CameraBoard* MapBoards(const FileIdentity& identity) {
    Reply reply{};
    int fd = -1;
    const Request request = MakeRequest(Operation::kBoards, identity);
    if (CallServer(identity.server, request, nullptr, 0, reply, &fd) != 0 || fd < 0) {
        return nullptr;
    }
    const long address =
        RawCall(SYS_mmap, 0, static_cast<long>(kBoardsSize), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    RawClose(fd);
    return address < 0 && address > -4096 ? nullptr : reinterpret_cast<CameraBoard*>(address);
}

}  // namespace

const char* ServerName() {
    return std::getenv(kServerVariable);  // NOLINT(concurrency-mt-unsafe): set before the program started
}

bool IsDevDirectory(int directory) {
    char link[40] = "/proc/self/cwd";
    if (directory != AT_FDCWD) {
        char* next = link + sizeof "/proc/self/" - 1;
        *PutNumber(PutText(next, "fd/"), static_cast<unsigned>(directory)) = 0;
    }
    char target[sizeof kDirectory];
    const long length = RawCall(SYS_readlinkat, AT_FDCWD, Word(link), Word(target), sizeof target);
    return length == static_cast<long>(sizeof kDirectory - 1) &&
           std::memcmp(target, kDirectory, static_cast<size_t>(length)) == 0;
}

int ReadNodeName(const char* name) {
    if (!SkipPrefix(name, "video")) {
        return -1;
    }
    const int number = TakeNumber(name);
    return *name == 0 ? number : -1;
}

int NodeNumber(int directory, const char* path) {
    if (path == nullptr) {
        return -1;
    }
    if (path[0] == '/') {
        return SkipPrefix(path, kDirectory) && SkipPrefix(path, "/") ? ReadNodeName(path) : -1;
    }
    const int number = ReadNodeName(path);
    return number >= 0 && IsDevDirectory(directory) ? number : -1;
}

bool Identify(int fd, FileIdentity& identity) {
    sockaddr_un address;
    socklen_t length = sizeof address;
    return RawCall(SYS_getsockname, fd, Word(&address), Word(&length)) == 0 &&
           ReadDescriptorAddress(address, length, identity);
}

void MarkDescriptor(int fd, bool is_ours) {
    if (fd < 0 || static_cast<unsigned>(fd) >= kMarkedDescriptors) {
        return;
    }
    std::atomic<uint64_t>& word = marks[static_cast<unsigned>(fd) / 64];
    const uint64_t bit = uint64_t{1} << (static_cast<unsigned>(fd) % 64);
    if (((word.load(std::memory_order_relaxed) & bit) != 0) == is_ours) {
        return;
    }
    if (is_ours) {
        word.fetch_or(bit, std::memory_order_relaxed);
    } else {
        word.fetch_and(~bit, std::memory_order_relaxed);
    }
}

bool IsMarked(int fd) {
    if (fd < 0) {
        return false;
    }
    if (static_cast<unsigned>(fd) >= kMarkedDescriptors) {
        return true;  // outside the table: may be ours; callers confirm with Identify
    }
    return (marks[static_cast<unsigned>(fd) / 64].load(std::memory_order_relaxed) >>
                (static_cast<unsigned>(fd) % 64) &
            1) != 0;
}

CameraBoard* BoardOf(const FileIdentity& identity) {
    if (identity.slot >= kMaxCameras) {
        return nullptr;
    }
    const unsigned last = last_server.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < kMaxServers; ++i) {
        const unsigned index = (last + i) % kMaxServers;
        KnownServer& known = known_servers[index];
        CameraBoard* boards = known.boards.load(std::memory_order_acquire);
        if (boards != nullptr && IsServer(known, identity)) {
            last_server.store(index, std::memory_order_relaxed);
            return boards + identity.slot;
        }
    }
    CameraBoard* boards = MapBoards(identity);
    if (boards == nullptr) {
        return nullptr;
    }
    for (KnownServer& known : known_servers) {
        if (!known.taken.exchange(true, std::memory_order_relaxed)) {
            std::memcpy(known.name, identity.server, sizeof known.name);
            known.boards.store(boards, std::memory_order_release);
            return boards + identity.slot;
        }
    }
    RawCall(SYS_munmap, Word(boards), static_cast<long>(kBoardsSize));
    return nullptr;
}

int StatNode(int number) {
    const char* server = ServerName();
    if (server == nullptr) {
        return kNotVirtual;
    }
    Request request = MakeRequest(Operation::kStat);
    request.value = static_cast<uint64_t>(number);
    Reply reply{};
    return CallServer(server, request, nullptr, 0, reply, nullptr) != 0 ? kNotVirtual : reply.error;
}

unsigned ListNodes(uint32_t (&numbers)[kMaxCameras]) {
    const char* server = ServerName();
    if (server == nullptr) {
        return 0;
    }
    const Request request = MakeRequest(Operation::kList);
    // The reply is received into the same memory.
    std::memset(numbers, 0, sizeof numbers);
    const iovec part{numbers, sizeof numbers};
    Reply reply{};
    if (CallServer(server, request, &part, 1, reply, nullptr) != 0) {
        return 0;
    }
    return reply.size / sizeof numbers[0];
}

void* FindReal(const char* name) {
    const int kept = errno;
    void* function = dlsym(RTLD_NEXT, name);
    errno = kept;
    return function;
}

}  // namespace zumod::vcam
