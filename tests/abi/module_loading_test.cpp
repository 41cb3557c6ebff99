// Loads the module as a host does, with nothing of the SDK: the record, the host's table and the numbers are
// declared here by hand.
#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <thread>

namespace {

// What was taken and what has been given back, each with the address that tells whose it is.
//
// Thread rule: every operation is [any thread]; nothing here allocates.
class Ledger {
public:
    void Clear() {
        const Guard guard(m_busy);
        m_count = 0;
        m_overflown = false;
    }
    void Take(const void* subject, const void* owner) {
        const Guard guard(m_busy);
        if (m_count == m_entries.size()) {
            m_overflown = true;
            return;
        }
        m_entries[m_count++] = {subject, reinterpret_cast<uintptr_t>(owner), true};
    }
    void GiveBack(const void* subject) {
        const Guard guard(m_busy);
        for (size_t i = m_count; i-- > 0;) {
            if (m_entries[i].open && m_entries[i].subject == subject) {
                m_entries[i].open = false;
                return;
            }
        }
    }
    struct Sum {
        int taken = 0;
        int still_open = 0;
        bool complete = true;
    };
    // Over what belongs to addresses in [begin, end).
    Sum Within(uintptr_t begin, uintptr_t end) {
        const Guard guard(m_busy);
        Sum sum;
        sum.complete = !m_overflown;
        for (size_t i = 0; i < m_count; ++i) {
            if (m_entries[i].owner >= begin && m_entries[i].owner < end) {
                ++sum.taken;
                sum.still_open += m_entries[i].open ? 1 : 0;
            }
        }
        return sum;
    }

private:
    struct Guard {
        explicit Guard(std::atomic_flag& flag) : busy(flag) {
            while (busy.test_and_set(std::memory_order_acquire)) {
            }
        }
        ~Guard() { busy.clear(std::memory_order_release); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;
        std::atomic_flag& busy;
    };
    struct Entry {
        const void* subject;
        uintptr_t owner;
        bool open;
    };

    std::atomic_flag m_busy;
    size_t m_count = 0;
    bool m_overflown = false;
    std::array<Entry, 65536> m_entries{};
};

// Blocks belong to the code that asked for them; mutexes to the memory they stand in.
constinit Ledger blocks;
constinit Ledger mutexes;

void* Allocate(size_t size, const void* caller) noexcept {
    void* block = std::malloc(size != 0 ? size : 1);
    blocks.Take(block, caller);
    return block;
}

void* AllocateOrThrow(size_t size, const void* caller) {
    void* block = Allocate(size, caller);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void Deallocate(void* block) noexcept {
    if (block != nullptr) {
        blocks.GiveBack(block);
    }
    std::free(block);
}

}  // namespace

void* operator new(size_t size) {
    return AllocateOrThrow(size, __builtin_return_address(0));
}
void* operator new[](size_t size) {
    return AllocateOrThrow(size, __builtin_return_address(0));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size, __builtin_return_address(0));
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size, __builtin_return_address(0));
}
void operator delete(void* block) noexcept {
    Deallocate(block);
}
void operator delete[](void* block) noexcept {
    Deallocate(block);
}
void operator delete(void* block, size_t) noexcept {
    Deallocate(block);
}
void operator delete[](void* block, size_t) noexcept {
    Deallocate(block);
}

// The program stands before the C library and before a sanitizer: the next one in line does the work.
extern "C" [[gnu::visibility("default")]] int pthread_mutex_init(
    pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    using Function = int (*)(pthread_mutex_t*, const pthread_mutexattr_t*);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_init"));
    mutexes.Take(mutex, mutex);
    return next(mutex, attributes);
}

extern "C" [[gnu::visibility("default")]] int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
    using Function = int (*)(pthread_mutex_t*);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_destroy"));
    mutexes.GiveBack(mutex);
    return next(mutex);
}

namespace {

struct Descriptor {
    uint64_t version;
    const char* name;
    int (*attach_runtime)(void* host);
    void (*detach_runtime)();
    int (*create)(void* policy, void** out);
    const char* build_stamp;
};

// The host's runtime object: a pointer to a table of four functions.
struct Host {
    struct Table {
        int (*write_log)(Host*, uint32_t, const char*);
        int32_t (*service2)(Host*, uint8_t, uint64_t, uint64_t, uint64_t, uint64_t);
        int32_t (*service3)(Host*, uint8_t, uint64_t, uint64_t, uint64_t);
        void* (*get_env_property)(Host*, const char*);
    };
    static const Table kTable;

    const Table* table = &kTable;
    std::atomic<int> lines{0};
};

const Host::Table Host::kTable = {
    [](Host* self, uint32_t, const char*) {
        ++self->lines;
        return 0;
    },
    [](Host*, uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) -> int32_t { return 0; },
    [](Host*, uint8_t, uint64_t, uint64_t, uint64_t) -> int32_t { return 0; },
    [](Host*, const char*) -> void* { return nullptr; },
};

// Whether the process has this file mapped.
bool IsMapped(const std::string& path) {
    const std::string file = path.substr(path.rfind('/'));
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(file) != std::string::npos) {
            return true;
        }
    }
    return false;
}

struct Range {
    uintptr_t begin = 0;
    uintptr_t end = 0;
};

// The addresses that a loaded object takes, its zero-initialised data included.
Range RangeOf(const std::string& path) {
    struct Search {
        const std::string& path;
        Range range;
    } search{path, {}};
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            auto* wanted = static_cast<Search*>(data);
            if (wanted->path != info->dlpi_name) {
                return 0;
            }
            wanted->range.begin = UINTPTR_MAX;
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const auto& segment = info->dlpi_phdr[i];
                if (segment.p_type == PT_LOAD) {
                    const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
                    wanted->range.begin = std::min(wanted->range.begin, begin);
                    wanted->range.end = std::max(wanted->range.end, begin + segment.p_memsz);
                }
            }
            return 1;
        },
        &search);
    EXPECT_NE(search.range.end, 0U) << path << " is not loaded";
    return search.range;
}

class Library {
public:
    explicit Library(const char* path) : m_path(path), m_handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(m_handle, nullptr) << dlerror();
        EXPECT_TRUE(IsMapped(path));
    }
    ~Library() {
        if (m_handle != nullptr) {
            Close();
        }
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    template <class Function>
    Function Find(const char* name) {
        void* address = dlsym(m_handle, name);
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<Function>(address);
    }
    const Descriptor* Entry() { return Find<const Descriptor* (*)()>("zumod_get_entrypoint")(); }
    void Close() {
        EXPECT_EQ(dlclose(m_handle), 0);
        m_handle = nullptr;
        EXPECT_FALSE(IsMapped(m_path)) << "still mapped after the last close";
        EXPECT_EQ(dlopen(m_path, RTLD_NOW | RTLD_NOLOAD), nullptr);
    }

private:
    const char* m_path;
    void* m_handle;
};

class ModuleLoading : public ::testing::Test {
protected:
    ModuleLoading() { ForgetAll(); }

    static void ForgetAll() {
        blocks.Clear();
        mutexes.Clear();
    }
    // What the module made at load and in use, it has given back through its exit handlers.
    static void ExpectNothingLeftBehind(const Range& range) {
        const Ledger::Sum made = blocks.Within(range.begin, range.end);
        EXPECT_TRUE(made.complete);
        EXPECT_GT(made.taken, 0) << "the default allocator at least";
        EXPECT_EQ(made.still_open, 0) << "blocks";
        const Ledger::Sum locks = mutexes.Within(range.begin, range.end);
        EXPECT_TRUE(locks.complete);
        EXPECT_GT(locks.taken, 0) << "the singleton's lock at least";
        EXPECT_EQ(locks.still_open, 0) << "locks";
    }
};

TEST_F(ModuleLoading, TheDescriptorIsRightInEveryField) {
    Library library(ZU_MODULE_FILE);
    const Descriptor* descriptor = library.Entry();
    ASSERT_NE(descriptor, nullptr);
    EXPECT_EQ(descriptor->version, 0x0002000000000000U);
    EXPECT_STREQ(descriptor->name, "zu-client-camera");
    EXPECT_NE(descriptor->attach_runtime, nullptr);
    EXPECT_NE(descriptor->detach_runtime, nullptr);
    EXPECT_NE(descriptor->create, nullptr);
    EXPECT_THAT(
        descriptor->build_stamp,
        ::testing::MatchesRegex("(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3][0-9] 20[0-9]{2} "
                                "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]"));
    EXPECT_EQ(library.Entry(), descriptor) << "one static record";
}

TEST_F(ModuleLoading, AttachTakesAHostAndRefusesANullOne) {
    Library library(ZU_MODULE_FILE);
    const Descriptor* descriptor = library.Entry();
    Host host;
    EXPECT_EQ(descriptor->attach_runtime(nullptr), 0);
    EXPECT_EQ(descriptor->attach_runtime(&host), 1);
    EXPECT_EQ(descriptor->attach_runtime(&host), 1);
    descriptor->detach_runtime();
    descriptor->detach_runtime();
}

TEST_F(ModuleLoading, CreateRefusesARequestWithoutAPolicyOrASlot) {
    Library library(ZU_MODULE_FILE);
    const Descriptor* descriptor = library.Entry();
    Host host;
    EXPECT_EQ(descriptor->attach_runtime(&host), 1);
    void* const untouched = &host;
    void* out = untouched;
    EXPECT_EQ(descriptor->create(nullptr, nullptr), 0);
    EXPECT_EQ(descriptor->create(nullptr, &out), 0);
    EXPECT_EQ(out, untouched);
    descriptor->detach_runtime();
}

TEST_F(ModuleLoading, ALoadWithoutAnyUseLeavesNothingBehind) {
    Library library(ZU_MODULE_FILE);
    const Range range = RangeOf(ZU_MODULE_FILE);
    library.Close();
    ExpectNothingLeftBehind(range);
}

TEST_F(ModuleLoading, TheObjectStaysUntilItsLastClose) {
    Library first(ZU_MODULE_FILE);
    void* second = dlopen(ZU_MODULE_FILE, RTLD_NOW);
    EXPECT_EQ(dlclose(second), 0);
    EXPECT_TRUE(IsMapped(ZU_MODULE_FILE));
    EXPECT_EQ(first.Entry()->version, 0x0002000000000000U);
    first.Close();
}

TEST_F(ModuleLoading, LoadsUsedAndGoesAHundredTimesOver) {
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        ForgetAll();
        Library library(ZU_MODULE_FILE);
        const Range range = RangeOf(ZU_MODULE_FILE);
        const Descriptor* descriptor = library.Entry();
        EXPECT_EQ(descriptor->version, 0x0002000000000000U);
        Host host;
        EXPECT_EQ(descriptor->attach_runtime(&host), 1);
        std::thread([descriptor] { EXPECT_EQ(descriptor->create(nullptr, nullptr), 0); }).join();
        descriptor->detach_runtime();
        library.Close();
        ExpectNothingLeftBehind(range);
    }
}

TEST_F(ModuleLoading, AModuleWhoseThreadsLoggedGoesAHundredTimesOver) {
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        ForgetAll();
        Library library(ZU_PROBE_FILE);
        const Range range = RangeOf(ZU_PROBE_FILE);
        const auto probe = library.Find<int64_t (*)(void*)>("load_probe");
        Host host;
        EXPECT_EQ(probe(&host), 2) << "two classes are registered, afresh with each load";
        EXPECT_EQ(probe(&host), 2);
        EXPECT_EQ(host.lines, 2 * 7);
        library.Close();
        ExpectNothingLeftBehind(range);
    }
}

TEST_F(ModuleLoading, TwoModulesAtOnceShareNothing) {
    Library module(ZU_MODULE_FILE);
    Library probe(ZU_PROBE_FILE);
    Host module_host;
    Host probe_host;
    EXPECT_EQ(module.Entry()->attach_runtime(&module_host), 1);
    EXPECT_EQ(probe.Find<int64_t (*)(void*)>("load_probe")(&probe_host), 2);
    EXPECT_EQ(probe_host.lines, 7);
    EXPECT_EQ(module_host.lines, 0);
    module.Entry()->detach_runtime();
}

}  // namespace
