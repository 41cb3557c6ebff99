// A host made of tables of functions and slot numbers, with nothing of the SDK: what someone else would write
// in C.
//
// Thread rule: each object belongs to the test; the runtime may be called by any thread.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Of the leak checker, where there is one.
extern "C" [[gnu::weak]] void __lsan_disable();  // NOLINT(bugprone-reserved-identifier)
extern "C" [[gnu::weak]] void __lsan_enable();   // NOLINT(bugprone-reserved-identifier)

namespace zumod::testing::raw {

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

inline uint64_t CountUp(Counted* object) {
    return static_cast<uint64_t>(++object->count);
}
inline int64_t CountDown(Counted* object) {
    return --object->count;
}

// ---- Values.

struct Value : Counted {
    uint32_t tag;
    const char* text;
    int64_t number;
};
inline uint32_t TagOf(Value* self) {
    return self->tag;
}
inline const char* TextOf(Value* self) {
    return self->text;
}
inline int64_t NumberOf(Value* self) {
    return self->number;
}
inline void* const kValueTable[] = {nullptr,         nullptr, Slot(&CountUp), Slot(&CountDown), Slot(&TagOf),
                                    nullptr,         nullptr, Slot(&TextOf),  nullptr,          nullptr,
                                    Slot(&NumberOf), nullptr, nullptr,        nullptr,          nullptr};

// ---- The runtime: four slots, no destructor.

struct Runtime {
    void* const* table;
    std::mutex mutex;
    Lines lines;
    std::map<std::string, Value> properties;

    bool Has(const std::string& text) {
        const std::lock_guard guard(mutex);
        for (const auto& [level, line] : lines) {
            if (line == text) {
                return true;
            }
        }
        return false;
    }
};

inline int WriteLog(Runtime* self, uint32_t level, const char* text) {
    const std::lock_guard guard(self->mutex);
    self->lines.emplace_back(level, text);
    return 0;
}
inline void* GetProperty(Runtime* self, const char* key) {
    const auto found = self->properties.find(key);
    if (found == self->properties.end()) {
        return nullptr;
    }
    return &found->second;
}
inline void* const kRuntimeTable[] = {Slot(&WriteLog), nullptr, nullptr, Slot(&GetProperty)};

// ---- The policy.

struct Policy : Counted {
    Value name;
    Value version;
};
inline void* GetPolicy(Policy* self, const char* key) {
    if (std::strcmp(key, "zu.module.interface.name") == 0) {
        return &self->name;
    }
    return std::strcmp(key, "zu.module.version") == 0 ? &self->version : nullptr;
}
inline void* const kPolicyTable[] = {nullptr, nullptr, Slot(&CountUp), Slot(&CountDown), Slot(&GetPolicy)};

// ---- The stream.

struct Stream : Counted {
    int fd;
};
inline int ReadStream(Stream* self, void* data, unsigned long size, unsigned long* done) {
    const ssize_t count = recv(self->fd, data, size, 0);
    *done = static_cast<unsigned long>(count);
    return count > 0 ? 0 : -1;
}
inline int WriteStream(Stream* self, const void* data, unsigned long size, unsigned long* done) {
    const ssize_t count = send(self->fd, data, size, MSG_NOSIGNAL);
    *done = static_cast<unsigned long>(count);
    return count > 0 ? 0 : -1;
}
inline void* const kStreamTable[] = {nullptr,          nullptr,           Slot(&CountUp),
                                     Slot(&CountDown), Slot(&ReadStream), Slot(&WriteStream)};

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

}  // namespace zumod::testing::raw
