// The paths of the test modules, and access to the record of one.
//
// Thread rule: the test's thread.
#pragma once

#include <dlfcn.h>

#include <memory>
#include <string>

#include "tests/modules/test_module.h"

namespace zumod::testing {

inline std::string TestModuleDir(const std::string& kind) {
    return std::string(ZU_TEST_MODULES_DIR) + "/" + kind;
}

inline std::string TestModulePath(const std::string& kind) {
    return TestModuleDir(kind) + "/zu-codec.so";
}

// Keeps a recording codec mapped and reads its record.
class CodecProbe {
public:
    explicit CodecProbe(const std::string& kind)
        : m_library(dlopen(TestModulePath(kind).c_str(), RTLD_LAZY), &dlclose) {}

    CodecRecord& Record() const {
        const auto record = reinterpret_cast<CodecRecordFunction>(dlsym(m_library.get(), kCodecRecordName));
        return *record();
    }

private:
    std::unique_ptr<void, int (*)(void*)> m_library;
};

}  // namespace zumod::testing
