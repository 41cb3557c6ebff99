// A module that uses all of base and the runtime: threads, buffers, the singleton, the log, and an
// exception.
#include <cstdint>
#include <stdexcept>

#include "src/base/base_thread.h"
#include "src/base/create_buffer.h"
#include "src/base/object_monitor.h"
#include "src/base/singleton.h"
#include "src/module/attach_runtime.h"
#include "src/module/log.h"
#include "src/module/runtime.h"

namespace zumod {
namespace {

struct Once : CSingleton_T<Once> {
    std::string text = "longer than what a string keeps inside itself";
};

class LoggingThread : public CBaseThread {
    bool Run() override {
        ZuModLog(kLogTrace, "on the thread: %s", Once::GetInstance()->text.c_str());
        try {
            const CRefPtr_T<IBuffer> buffer = CreateBuffer("bytes", 5);
            throw std::runtime_error("passes");
        } catch (const std::runtime_error& error) {
            ZuModLog(kLogTrace, "%s", error.what());
        }
        return ++m_passes < 3;
    }

    int m_passes = 0;
};

}  // namespace
}  // namespace zumod

// Returns the number of registered classes, or a negative number if a check failed.
extern "C" [[gnu::visibility("default")]] int64_t load_probe(zumod::IZUModRuntime* host) {
    using namespace zumod;
    if (AttachRuntime(host) != 1) {
        return -1;
    }
    ZuModLog(kLogEvent, "on the host's thread");
    LoggingThread thread;
    if (!thread.Start() || !thread.Join() || !thread.Stop()) {
        return -2;
    }
    std::string report;
    DumpObjectTable(report);
    if (report.find("CBaseThread") == std::string::npos) {
        return -3;
    }
    DetachRuntime();
    return g_ObjectRegistry.count.load();
}
