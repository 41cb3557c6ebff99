// The module's runtime object: forwards to the host's runtime, the sink, while one is attached.
//
// Thread rule: every operation is [any thread].
#pragma once

#include "src/base/lock.h"
#include "src/base/singleton.h"
#include "zumod/runtime.h"

namespace zumod {

// Without a sink, log lines go to standard output and the other services return 0.
class CZUModRuntime final : public IZUModRuntime, public CSingleton_T<CZUModRuntime> {
public:
    CZUModRuntime() = default;
    CZUModRuntime(const CZUModRuntime&) = delete;
    CZUModRuntime& operator=(const CZUModRuntime&) = delete;

    int WriteLog(uint32_t level, const char* text) override;
    int32_t Service2(uint8_t flag, uint64_t a, uint64_t b, uint64_t c, uint64_t d) override;
    int32_t Service3(uint8_t flag, uint64_t a, uint64_t b, uint64_t c) override;
    IZUModData* GetEnvProperty(const char* key) override;

    // The sink is borrowed: the host keeps it alive until it detaches. Null detaches.
    void SetSink(IZUModRuntime* sink);
    IZUModRuntime* GetSink();

private:
    // Held while the sink is called, so that the sink cannot be replaced during a call. Recursive, so that it
    // may log again from inside.
    CMutexLock m_lock;
    IZUModRuntime* m_sink ZU_GUARDED_BY(m_lock) = nullptr;
    [[maybe_unused]] bool m_flag = false;
};

extern template class CSingleton_T<CZUModRuntime>;

}  // namespace zumod
