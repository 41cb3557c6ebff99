#include "bridge/venc_args.h"

#include <strings.h>

#include "base/create_buffer.h"

namespace zumod {

uint64_t CVEncArgs::PrepareOutput(uint32_t size) {
    if (m_output != nullptr) {
        m_output->Resize(size);
    } else {
        m_output = (m_alloctor != nullptr ? m_alloctor : g_pDefaultAlloctor)->Alloc(size);
    }
    return m_output != nullptr ? m_output->SetSize(size) : 0;
}

bool CVEncArgs::QueryInterface(const char* name, void** out) {
    if (name == nullptr || out == nullptr || strcasecmp(name, kEncArgsName) != 0) {
        return false;
    }
    AddRef();
    *out = static_cast<IVEncArgs*>(this);
    return true;
}

}  // namespace zumod
