#include "src/module/runtime.h"

#include <cstdio>

namespace zumod {

template class CSingleton_T<CZUModRuntime>;

int CZUModRuntime::WriteLog(uint32_t level, const char* text) {
    const LockGuard guard(m_lock);
    return m_sink != nullptr ? m_sink->WriteLog(level, text) : std::puts(text);
}

int32_t CZUModRuntime::Service2(uint8_t flag, uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
    const LockGuard guard(m_lock);
    return m_sink != nullptr ? m_sink->Service2(flag, a, b, c, d) : 0;
}

int32_t CZUModRuntime::Service3(uint8_t flag, uint64_t a, uint64_t b, uint64_t c) {
    const LockGuard guard(m_lock);
    return m_sink != nullptr ? m_sink->Service3(flag, a, b, c) : 0;
}

IZUModData* CZUModRuntime::GetEnvProperty(const char* key) {
    const LockGuard guard(m_lock);
    return m_sink != nullptr ? m_sink->GetEnvProperty(key) : nullptr;
}

void CZUModRuntime::SetSink(IZUModRuntime* sink) {
    const LockGuard guard(m_lock);
    m_sink = sink;
}

IZUModRuntime* CZUModRuntime::GetSink() {
    const LockGuard guard(m_lock);
    return m_sink;
}

}  // namespace zumod
