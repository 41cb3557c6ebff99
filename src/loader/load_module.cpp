#include "src/loader/load_module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "src/loader/module_path.h"
#include "src/module/log.h"
#include "src/module/runtime.h"
#include "zumod/descriptor.h"

namespace zumod {
namespace {

struct LibraryCloser {
    void operator()(void* library) const { dlclose(library); }
};
using LibraryHold = std::unique_ptr<void, LibraryCloser>;

// The out slot of a module's create function; releases the new object at the end of the block.
class CreatedSlot {
public:
    CreatedSlot() = default;
    ~CreatedSlot() {
        if (m_object != nullptr) {
            m_object->Release();
        }
    }
    CreatedSlot(const CreatedSlot&) = delete;
    CreatedSlot& operator=(const CreatedSlot&) = delete;

    IZUModInterface** Address() { return &m_object; }
    bool IsEmpty() const { return m_object == nullptr; }

    // Adds a reference for the caller; returns null if the slot is empty.
    IZUModInterface* Share() {
        if (m_object != nullptr) {
            m_object->AddRef();
        }
        return m_object;
    }

private:
    IZUModInterface* m_object = nullptr;
};

void* OpenLibrary(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0) {
        ZuModLog(kLogFailure, "[zumod] module file is not exist");
        return nullptr;
    }
    void* library = dlopen(path.c_str(), RTLD_LAZY);
    if (library == nullptr) {
        const int error = errno;
        const char* message = dlerror();  // NOLINT(concurrency-mt-unsafe): the text is per thread
        std::printf("load %s err %d, err msg is %s\n", path.c_str(), error, message);
        ZuModLog(kLogFailure, "[zumod] dlopen file fail with %d, msg is %s", error, message);
    }
    return library;
}

const ZUModDescriptor* FindDescriptor(void* library) {
    const auto entry = reinterpret_cast<EntryPointFunction>(dlsym(library, kEntryPointName));
    return entry != nullptr ? entry() : nullptr;
}

// Opens the library and returns its descriptor, or returns null with nothing left open.
const ZUModDescriptor* OpenModule(const char* name, const std::string& path, void** library) {
    *library = OpenLibrary(path);
    const ZUModDescriptor* module = nullptr;
    if (*library != nullptr) {
        module = FindDescriptor(*library);
        if (module == nullptr) {
            dlclose(*library);
        }
    }
    if (module == nullptr) {
        ZuModLog(kLogFailure, "[client_plugin] load module(%s) fail", name);
    }
    return module;
}

}  // namespace

void ZuModLoadModule(IZUModInterface** out, const char* name, const CRefPtr_T<IZUModCreatePolicy>& policy,
                     void** handleOut, bool usePerModuleDir) {
    *out = nullptr;
    const std::string path = ZuModGetModulePath(name, usePerModuleDir);
    void* library = nullptr;
    const ZUModDescriptor* module = OpenModule(name, path, &library);
    if (module == nullptr) {
        return;
    }
    module->attach_runtime(CZUModRuntime::GetInstance()->GetSink());

    LibraryHold code_of_leftover;
    CreatedSlot created;
    if (module->create(policy.Get(), created.Address()) == 0) {
        if (!created.IsEmpty()) {
            // This object is released after its module is closed, and its code must still be mapped then.
            code_of_leftover.reset(dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD));
        }
        ZuModUnloadModule(library);
        ZuModLog(kLogFailure, "[client_plugin] create module_name(%s) fail", name);
        return;
    }
    if (handleOut != nullptr) {
        *handleOut = library;
    }
    *out = created.Share();
}

void ZuModUnloadModule(void* handle) {
    if (handle == nullptr) {
        return;
    }
    const ZUModDescriptor* module = FindDescriptor(handle);
    if (module != nullptr && module->detach_runtime != nullptr) {
        module->detach_runtime();
    }
    dlclose(handle);
}

}  // namespace zumod
