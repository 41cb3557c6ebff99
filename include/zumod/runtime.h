// The services of a host to the modules it loads: a log sink and a look-up of environment properties.
//
// Thread rule: [any thread], one call at a time per module.
#pragma once

#include <cstdint>

#include "zumod/mod_data.h"

namespace zumod {

// Log levels: one bit each. A module passes on every line; the sink decides which levels it shows.
enum LogLevel : uint32_t {
    kLogEvent = 1,    // lifecycle and protocol events
    kLogIgnored = 2,  // ignored, refused or recoverable conditions
    kLogFailure = 4,  // failures
    kLogTrace = 8,    // detailed tracing
};

// Text: the directory of the modules, without a trailing "/". The key with "_" and a module's name appended
// names the directory of that module only.
inline constexpr char kEnvModulesDir[] = "zu.env.modules.dir";

// Binary table: slots 0 to 3, and no destructor slot. The object is not counted: the host keeps it alive from
// attach to detach.
//
// The module holds a recursive lock during every call, so an operation may log again from inside, but must
// not wait for another thread that logs. An exception propagates to the caller of the module, after the lock
// is released. An operation must not throw on the module's own threads: nothing catches the exception there.
// An operation that runs on one of these threads (the capture threads log, the send thread logs) must not
// call the plugin's ExitInstance or drop the last reference to the plugin.
class IZUModRuntime {
public:
    // Slot 0. Receives one log line. `level` is one LogLevel bit; `text` is NUL-terminated, at most 4095
    // bytes, and valid during the call. The result is ignored.
    virtual int WriteLog(uint32_t level, const char* text) = 0;

    // Slot 1. A service of the host that the camera module forwards and never calls itself.
    virtual int32_t Service2(uint8_t flag, uint64_t a, uint64_t b, uint64_t c, uint64_t d) = 0;

    // Slot 2. Likewise.
    virtual int32_t Service3(uint8_t flag, uint64_t a, uint64_t b, uint64_t c) = 0;

    // Slot 3. Looks up an environment property by its NUL-terminated key. Returns null if the host has none.
    // The value is borrowed: the module adds one reference while it reads and then releases it.
    virtual IZUModData* GetEnvProperty(const char* key) = 0;

protected:
    IZUModRuntime() = default;
    IZUModRuntime(const IZUModRuntime&) = default;
    IZUModRuntime& operator=(const IZUModRuntime&) = default;
    ~IZUModRuntime() = default;
};

static_assert(sizeof(IZUModRuntime) == sizeof(void*), "a bare interface is one table pointer");

}  // namespace zumod
