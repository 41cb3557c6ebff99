#include "src/module/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "src/module/runtime.h"

namespace zumod {
namespace {

constexpr size_t kLineSize = 4096;

struct HeapBlockDeleter {
    void operator()(char* block) const { std::free(block); }
};

}  // namespace

void ZuModLog(uint32_t level, const char* format, ...) {
    const std::unique_ptr<char, HeapBlockDeleter> line(static_cast<char*>(std::calloc(1, kLineSize)));
    if (line == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is on the line above
    std::vsnprintf(line.get(), kLineSize, format, arguments);
    va_end(arguments);
    CZUModRuntime::GetInstance()->WriteLog(level, line.get());
}

}  // namespace zumod
