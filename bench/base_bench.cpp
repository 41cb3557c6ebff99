// The base layer against hand-written minimums. Each pair runs alternately on the same heap.
#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "bench/paired.h"
#include "src/base/create_buffer.h"
#include "src/base/mem_alloctor_ex.h"
#include "src/base/mem_buffer.h"
#include "src/base/singleton.h"
#include "src/module/attach_runtime.h"
#include "src/module/log.h"
#include "tests/support/doubles/quiet_host.h"

namespace zumod::bench {
namespace {

using ::benchmark::DoNotOptimize;

// The fields of a buffer in an object of the same size, without vtable, reference counts and allocator.
struct PlainBuffer {
    PlainBuffer(void* block, uint64_t block_size) : data(block), capacity(block_size) {}
    uint64_t user_word = 0;
    void* data;
    uint64_t size = 0;
    uint64_t capacity;
    unsigned char rest[sizeof(CMemBuffer) - 32];
};
static_assert(sizeof(PlainBuffer) == sizeof(CMemBuffer));

struct CountedPlainBuffer : PlainBuffer {
    using PlainBuffer::PlainBuffer;
    std::atomic<int64_t> references{0};
    std::atomic<int64_t> lives{1};
};

void AllocAndRelease(::benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    const auto rounds = static_cast<int>(state.range(1));
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    RunPaired(
        state, 1.15,
        [&] {
            for (int i = 0; i < rounds; ++i) {
                CRefPtr_T<IBuffer> buffer = alloctor->Alloc(size);
                DoNotOptimize(buffer.Get());
            }
        },
        [&] {
            for (int i = 0; i < rounds; ++i) {
                void* block = std::malloc(size);
                auto* object = new PlainBuffer(block, size);
                DoNotOptimize(object);
                std::free(object->data);
                delete object;
            }
        });
}
// The second number is the rounds per iteration, enough for 20 microseconds.
BENCHMARK(AllocAndRelease)
    ->UseManualTime()
    ->Args({64, 2000})
    ->Args({64 * 1024, 2000})
    ->Args({4 * 1024 * 1024, 500});

// The same against a minimum that also maintains the counts that a buffer's contract requires. Each change is
// a locked instruction: two on the allocator, three on the buffer.
void AllocAndReleaseCounted(::benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    const auto rounds = static_cast<int>(state.range(1));
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    std::atomic<int64_t> alloctor_references{1};
    RunPaired(
        state, 1.15,
        [&] {
            for (int i = 0; i < rounds; ++i) {
                CRefPtr_T<IBuffer> buffer = alloctor->Alloc(size);
                DoNotOptimize(buffer.Get());
            }
        },
        [&] {
            for (int i = 0; i < rounds; ++i) {
                void* block = std::malloc(size);
                auto* object = new CountedPlainBuffer(block, size);
                alloctor_references.fetch_add(1);
                object->references.fetch_add(1);
                DoNotOptimize(object);
                if (object->references.fetch_sub(1) == 1 && object->lives.fetch_sub(1) == 1) {
                    std::free(object->data);
                    alloctor_references.fetch_sub(1);
                    delete object;
                }
            }
        });
}
BENCHMARK(AllocAndReleaseCounted)
    ->UseManualTime()
    ->Args({64, 2000})
    ->Args({64 * 1024, 2000})
    ->Args({4 * 1024 * 1024, 500});

// A counted pointer to the concrete class, so the calls are direct. The copies are not const: GCC 12 keeps a
// const object in memory, and a load after a locked instruction has to wait for it.
void CopyAndDrop(::benchmark::State& state) {
    const CRefPtr_T<CMemBuffer> buffer(new CMemBuffer(nullptr, nullptr, 0));
    std::atomic<int64_t> count{1};
    RunPaired(
        state, 1.05,
        [&] {
            for (int i = 0; i < 2000; ++i) {
                CRefPtr_T<CMemBuffer> copy = buffer;
                DoNotOptimize(copy.Get());
            }
        },
        [&] {
            for (int i = 0; i < 2000; ++i) {
                count.fetch_add(1);
                DoNotOptimize(&count);
                count.fetch_sub(1);
            }
        });
}
BENCHMARK(CopyAndDrop)->UseManualTime();

// The same through the interface, as the module holds its buffers: the calls are virtual.
void CopyAndDropThroughInterface(::benchmark::State& state) {
    const CRefPtr_T<IBuffer> buffer(new CMemBuffer(nullptr, nullptr, 0));
    std::atomic<int64_t> count{1};
    RunPaired(
        state, 1.05,
        [&] {
            for (int i = 0; i < 2000; ++i) {
                CRefPtr_T<IBuffer> copy = buffer;
                DoNotOptimize(copy.Get());
            }
        },
        [&] {
            for (int i = 0; i < 2000; ++i) {
                count.fetch_add(1);
                DoNotOptimize(&count);
                count.fetch_sub(1);
            }
        });
}
BENCHMARK(CopyAndDropThroughInterface)->UseManualTime();

[[gnu::format(printf, 4, 5), gnu::noinline]] void PlainLog(pthread_mutex_t& mutex, IZUModRuntime* sink,
                                                           uint32_t level, const char* format, ...) {
    char* line = static_cast<char*>(std::calloc(1, 4096));
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, 4096, format, arguments);
    va_end(arguments);
    pthread_mutex_lock(&mutex);
    sink->WriteLog(level, line);
    pthread_mutex_unlock(&mutex);
    std::free(line);
}

constexpr char kLineFormat[] =
    "[cameraclient] a line of one hundred characters with its tag, a number %d and a text %s at the end";
constexpr int kLineNumber = 17;
constexpr const char* kLineText = "abcd";

void LogALine(::benchmark::State& state) {
    if (std::snprintf(nullptr, 0, kLineFormat, kLineNumber, kLineText) != 100) {
        state.SkipWithError("the line does not have 100 characters");
        return;
    }
    testing::QuietHost host;
    IZUModRuntime* sink = &host;
    DoNotOptimize(sink);
    pthread_mutex_t mutex;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    AttachRuntime(sink);
    RunPaired(
        state, 1.10,
        [&] {
            for (int i = 0; i < 500; ++i) {
                ZuModLog(kLogEvent, kLineFormat, kLineNumber, kLineText);
            }
        },
        [&] {
            for (int i = 0; i < 500; ++i) {
                PlainLog(mutex, sink, kLogEvent, kLineFormat, kLineNumber, kLineText);
            }
        });
    DetachRuntime();
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(LogALine)->UseManualTime();

struct Single : CSingleton_T<Single> {
    int64_t value = 1;
};

std::atomic<Single*> g_plain_instance{nullptr};

// A call and a use of the returned object, as in the callers.
void GetInstanceAndUse(::benchmark::State& state) {
    g_plain_instance = Single::GetInstance();
    RunPaired(
        state, 1.10,
        [] {
            for (int i = 0; i < 20000; ++i) {
                Single* instance = Single::GetInstance();
                instance->value += i;
                DoNotOptimize(instance);
            }
        },
        [] {
            for (int i = 0; i < 20000; ++i) {
                Single* instance = g_plain_instance.load(std::memory_order_acquire);
                instance->value += i;
                DoNotOptimize(instance);
            }
        });
}
BENCHMARK(GetInstanceAndUse)->UseManualTime();

// Calls only, sixteen in a row so that the loop around them costs little. This measures how many loads, and
// how many tests of a pointer, the processor executes per cycle.
template <class Call>
void SixteenTimes(Call call) {
    const auto four = [&] { call(), call(), call(), call(); };
    four(), four(), four(), four();
}

void GetInstanceBackToBack(::benchmark::State& state) {
    g_plain_instance = Single::GetInstance();
    RunPaired(
        state, 1.10,
        [] {
            for (int i = 0; i < 20000; ++i) {
                SixteenTimes([] { DoNotOptimize(Single::GetInstance()); });
            }
        },
        [] {
            for (int i = 0; i < 20000; ++i) {
                SixteenTimes([] { DoNotOptimize(g_plain_instance.load(std::memory_order_acquire)); });
            }
        });
}
BENCHMARK(GetInstanceBackToBack)->UseManualTime();

}  // namespace
}  // namespace zumod::bench
