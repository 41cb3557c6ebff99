#include "src/bridge/venc_args.h"

#include <new>

#include "src/base/create_buffer.h"
#include "zumod/mod_interface.h"

namespace zumod {

uint64_t CVEncArgs::PrepareOutput(uint32_t size) {
    if (m_output != nullptr) {
        m_output->Resize(size);
    } else if (IMemAlloctor* alloctor = m_alloctor != nullptr ? m_alloctor.Get() : g_pDefaultAlloctor.Get()) {
        try {
            m_output = alloctor->Alloc(size);
        } catch (const std::bad_alloc&) {
            // No exception may cross into the encoder's module. It sees the failure as a size of 0.
        }
    }
    return m_output != nullptr ? m_output->SetSize(size) : 0;
}

bool CVEncArgs::QueryInterface(const char* name, void** out) {
    if (name == nullptr || out == nullptr || !IsSameInterfaceName(name, kEncArgsName)) {
        return false;
    }
    AddRef();
    *out = static_cast<IVEncArgs*>(this);
    return true;
}

}  // namespace zumod
