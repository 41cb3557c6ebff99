// The whole start and stop of the module as a host written by someone else makes it: a descriptor, tables of
// functions, slot numbers, and nothing of the SDK.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Of the leak checker, where there is one.
extern "C" [[gnu::weak]] void __lsan_disable();  // NOLINT(bugprone-reserved-identifier)
extern "C" [[gnu::weak]] void __lsan_enable();   // NOLINT(bugprone-reserved-identifier)

namespace {

// What a camera client deliberately leaves behind is named in a suppression, by a function that is no longer
// mapped when the checker looks, after this module's unload.
class LeavesSomethingBehind {
public:
    LeavesSomethingBehind() {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
    }
    ~LeavesSomethingBehind() {
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
    }
    LeavesSomethingBehind(const LeavesSomethingBehind&) = delete;
    LeavesSomethingBehind& operator=(const LeavesSomethingBehind&) = delete;
};

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::pair<uint32_t, std::string>>;

struct Descriptor {
    uint64_t version;
    const char* name;
    int (*attach_runtime)(void* host);
    void (*detach_runtime)();
    int (*create)(void* policy, void** out);
    const char* build_stamp;
};

template <class Function>
void* Slot(Function function) {
    return reinterpret_cast<void*>(function);
}

template <class Result, class... Arguments>
Result Call(void* object, size_t slot, Arguments... arguments) {
    auto** table = *static_cast<void***>(object);
    return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

// An object of the host's: a pointer to its table, then what it needs.
struct Counted {
    void* const* table;
    int64_t count = 0;
};

uint64_t CountUp(Counted* object) {
    return static_cast<uint64_t>(++object->count);
}
int64_t CountDown(Counted* object) {
    return --object->count;
}

// ---- The runtime: four slots, no destructor.

struct Runtime {
    void* const* table;
    std::mutex mutex;
    Lines lines;
};

int WriteLog(Runtime* self, uint32_t level, const char* text) {
    const std::lock_guard guard(self->mutex);
    self->lines.emplace_back(level, text);
    return 0;
}
void* NoProperty(Runtime*, const char*) {
    return nullptr;
}
void* const kRuntimeTable[] = {Slot(&WriteLog), nullptr, nullptr, Slot(&NoProperty)};

// ---- Values and the policy that holds them.

struct Value : Counted {
    uint32_t tag;
    const char* text;
    int64_t number;
};
uint32_t TagOf(Value* self) {
    return self->tag;
}
const char* TextOf(Value* self) {
    return self->text;
}
int64_t NumberOf(Value* self) {
    return self->number;
}
void* const kValueTable[] = {nullptr,         nullptr, Slot(&CountUp), Slot(&CountDown), Slot(&TagOf),
                             nullptr,         nullptr, Slot(&TextOf),  nullptr,          nullptr,
                             Slot(&NumberOf), nullptr, nullptr,        nullptr,          nullptr};

struct Policy : Counted {
    Value name;
    Value version;
};
void* GetPolicy(Policy* self, const char* key) {
    if (std::strcmp(key, "zu.module.interface.name") == 0) {
        return &self->name;
    }
    return std::strcmp(key, "zu.module.version") == 0 ? &self->version : nullptr;
}
void* const kPolicyTable[] = {nullptr, nullptr, Slot(&CountUp), Slot(&CountDown), Slot(&GetPolicy)};

// ---- The stream.

struct Stream : Counted {
    int fd;
};
int ReadStream(Stream* self, void* data, unsigned long size, unsigned long* done) {
    const ssize_t count = recv(self->fd, data, size, 0);
    *done = static_cast<unsigned long>(count);
    return count > 0 ? 0 : -1;
}
int WriteStream(Stream* self, const void* data, unsigned long size, unsigned long* done) {
    const ssize_t count = send(self->fd, data, size, MSG_NOSIGNAL);
    *done = static_cast<unsigned long>(count);
    return count > 0 ? 0 : -1;
}
void* const kStreamTable[] = {nullptr,          nullptr,           Slot(&CountUp),
                              Slot(&CountDown), Slot(&ReadStream), Slot(&WriteStream)};

class Peer {
public:
    explicit Peer(int fd) : m_fd(fd) {}
    ~Peer() { close(m_fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void Send(const Bytes& bytes) const {
        EXPECT_EQ(send(m_fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    Bytes Receive(size_t size) const {
        Bytes bytes(size);
        EXPECT_EQ(recv(m_fd, bytes.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
        return bytes;
    }
    void Hang() const { shutdown(m_fd, SHUT_RDWR); }

private:
    const int m_fd;
};

TEST(RawHost, StartsServesAndStopsThroughSlotsAlone) {
    void* library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto entry = reinterpret_cast<const Descriptor* (*)()>(dlsym(library, "zumod_get_entrypoint"));
    ASSERT_NE(entry, nullptr);
    const Descriptor* module = entry();

    Runtime runtime{kRuntimeTable, {}, {}};
    EXPECT_EQ(module->attach_runtime(&runtime), 1);

    Policy policy{{kPolicyTable},
                  {{kValueTable}, 4, "IClientCameraPlugin", 0},
                  {{kValueTable}, 2, nullptr, 0x0002000000000000}};
    policy.count = 1;
    void* plugin = nullptr;
    EXPECT_EQ(module->create(&policy, &plugin), 1);
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(policy.count, 1);
    EXPECT_EQ(policy.name.count, 0);
    EXPECT_EQ(policy.version.count, 0);

    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    Stream stream{{kStreamTable}, ends[0]};
    stream.count = 1;
    EXPECT_EQ(Call<int>(plugin, 5, &stream), 0);
    EXPECT_EQ(stream.count, 2);
    {
        const Peer peer(ends[1]);
        std::thread run([&] {
            const LeavesSomethingBehind of_the_open_request;
            EXPECT_EQ(Call<int>(plugin, 6), 1);
        });
        peer.Send({0, 0, 0, 0, 0x0A, 0, 0, 0});
        EXPECT_EQ(peer.Receive(12), (Bytes{4, 0, 0, 0, 0x0B, 0, 0, 0, 5, 0, 0, 0}));
        peer.Send({4, 0, 0, 0, 4, 0, 0, 0, 9, 0, 0, 0});
        EXPECT_EQ(peer.Receive(16), (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 4, 0, 0, 0, 9, 0, 0, 0}));
        // No machine has a camera of this id.
        peer.Send({16, 0, 0, 0, 3, 0, 0, 0, 0xFE, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 30, 0, 0, 0});
        EXPECT_EQ(peer.Receive(16), (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0, 0xFE, 0, 0, 0}));
        peer.Hang();
        run.join();
    }
    EXPECT_EQ(Call<int>(plugin, 7), 0);
    EXPECT_EQ(Call<int64_t>(plugin, 3), 0);
    EXPECT_EQ(stream.count, 1);
    close(ends[0]);

    const std::vector<std::string> milestones = {
        "[camera_client] camera_client_create interface IClientCameraPlugin  version 562949953421312",
        "[cameraclient] create",
        "[cameraclient] Run start",
        "[cameraclient] version req",
        "[cameraclient] OnProtoCloseCamera id 9",
        "[cameraclient] OnProtoOpenCamera id 254 w 640 h 480 fps 30",
        "[cameraclient] Run return",
        "[cameraclient] ExitInstance",
        "[cameraclient] start to clear devs",
        "[cameraclient] finish to clear devs",
        "[cameraclient] start to stop send thread",
        "[cameraclient] ExitInstance finish",
        "[cameraclient] destroy",
        "[cameraclient] finish to clear devs",
    };
    size_t next = 0;
    for (const auto& [level, text] : runtime.lines) {
        next += next < milestones.size() && text == milestones[next] ? 1U : 0U;
    }
    EXPECT_EQ(next, milestones.size()) << "missing: " << milestones[next];

    module->detach_runtime();
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlopen(ZU_MODULE_FILE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still mapped";
}

}  // namespace
