// A host made of tables of functions and slot numbers, without the SDK, as a third party would write it in C.
//
// Thread rule: each object belongs to the test; the runtime may be called from any thread.
#pragma once

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Functions of the leak checker; null in builds without it.
extern "C" [[gnu::weak]] void __lsan_disable();  // NOLINT(bugprone-reserved-identifier)
extern "C" [[gnu::weak]] void __lsan_enable();   // NOLINT(bugprone-reserved-identifier)

namespace zumod::testing::raw {

using Lines = std::vector<std::pair<uint32_t, std::string>>;

struct Descriptor {
    uint64_t version;
    const char* name;
    int (*attach_runtime)(void* host);
    void (*detach_runtime)();
    int (*create)(void* policy, void** out);
    const char* build_stamp;
};

inline const Descriptor* EntryOf(void* library) {
    return reinterpret_cast<const Descriptor* (*)()>(dlsym(library, "zumod_get_entrypoint"))();
}

template <class Function>
void* Slot(Function function) {
    return reinterpret_cast<void*>(function);
}

template <class Result, class... Arguments>
Result Call(void* object, size_t slot, Arguments... arguments) {
    auto** table = *static_cast<void***>(object);
    return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

// An object of the host: a pointer to its table, then its fields.
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
    std::map<std::string, Value, std::less<>> properties;
    // If set, called for each line instead of keeping it.
    std::function<void(uint32_t level, const char* text)> on_line{};

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
    if (self->on_line) {
        self->on_line(level, text);
        return 0;
    }
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

// The policy that requests the plugin from the module. The host holds one reference.
inline Policy PluginPolicy() {
    return {{kPolicyTable, 1},
            {{kValueTable}, 4, "IClientCameraPlugin", 0},
            {{kValueTable}, 2, nullptr, 0x0002000000000000}};
}

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

// Hides from the leak checker what a camera client leaks on purpose. A suppression would need the name of a
// function, which is no longer mapped when the checker runs, after the module was unloaded.
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

}  // namespace zumod::testing::raw
