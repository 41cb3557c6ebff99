// A host built only from the SDK's headers, in C++17: loads the module, attaches a runtime, creates the
// plugin, runs it on a stream that closes, and unloads everything again, in each cycle.
//
// Usage: sdk_host MODULE CYCLES PROCESSES. Each process runs the cycles; exits with 0 if no process left a
// mapping, a thread, a descriptor or a heap block behind.
#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "zumod/zumod.h"

namespace {

#define CHECK(condition)                                                                       \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::exit(1);                                                                      \
        }                                                                                      \
    } while (false)

class Runtime final : public zumod::IZUModRuntime {
public:
    virtual ~Runtime() = default;
    int WriteLog(uint32_t level, const char* text) override {
        CHECK(level != 4);
        CHECK(text[0] == '[');
        ++lines;
        return 0;
    }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    zumod::IZUModData* GetEnvProperty(const char*) override { return nullptr; }

    int lines = 0;
};

// Requests the version and closes.
class Stream final : public zumod::CCounted_T<zumod::IChannelStream> {
public:
    int Read(void* data, unsigned long size, unsigned long* done) override {
        static constexpr unsigned char kVersionRequest[8] = {0, 0, 0, 0, 10, 0, 0, 0};
        if (m_read || size < sizeof kVersionRequest) {
            return -1;
        }
        m_read = true;
        std::memcpy(data, kVersionRequest, sizeof kVersionRequest);
        *done = sizeof kVersionRequest;
        return 0;
    }
    int Write(const void*, unsigned long size, unsigned long* done) override {
        written += size;
        *done = size;
        return 0;
    }

    unsigned long written = 0;

private:
    bool m_read = false;
};

void OneCycle(const char* path) {
    void* library = dlopen(path, RTLD_NOW);
    CHECK(library != nullptr);
    const auto entry = reinterpret_cast<zumod::EntryPointFunction>(dlsym(library, zumod::kEntryPointName));
    CHECK(entry != nullptr);
    const zumod::ZUModDescriptor* module = entry();
    Runtime runtime;
    CHECK(module->attach_runtime(&runtime) == 1);
    {
        const zumod::CRefPtr_T<zumod::IZUModCreatePolicy> policy(new zumod::CZUModCreatePolicyAdapter(
            zumod::kClientCameraPluginName, zumod::kClientCameraPluginVersion));
        zumod::IZUModInterface* created = nullptr;
        CHECK(module->create(policy.Get(), &created) == 1);
        const auto plugin = zumod::TakeInterface<zumod::IClientCameraPlugin>(created);
        const zumod::CRefPtr_T<Stream> stream(new Stream);
        CHECK(plugin->SetChannelStream(stream.Get()) == 0);
        CHECK(plugin->Run() == 1);
        CHECK(stream->written == 12);
        CHECK(plugin->ExitInstance() == 0);
    }
    CHECK(runtime.lines == 12);
    module->detach_runtime();
    CHECK(dlclose(library) == 0);
}

int CountEntries(const char* directory) {
    DIR* entries = opendir(directory);
    CHECK(entries != nullptr);
    int count = 0;
    while (readdir(entries) != nullptr) {
        ++count;
    }
    closedir(entries);
    return count;
}

bool IsMapped(const char* path) {
    const char* name = std::strrchr(path, '/');
    std::FILE* maps = std::fopen("/proc/self/maps", "r");
    CHECK(maps != nullptr);
    char line[4096];
    bool mapped = false;
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        mapped = mapped || std::strstr(line, name) != nullptr;
    }
    std::fclose(maps);
    return mapped;
}

// The kernel lists a joined thread for a moment longer.
bool ThreadsComeTo(int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (CountEntries("/proc/self/task") != count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The number of threads before the module creates any. With the first thread of a program a sanitizer creates
// another one, which stays.
int CountThreadsAtStart() {
    std::string first;
    std::thread([&first] { first = "/proc/self/task/" + std::to_string(gettid()); }).join();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (access(first.c_str(), F_OK) == 0) {
        CHECK(std::chrono::steady_clock::now() < deadline);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return CountEntries("/proc/self/task");
}

struct Holdings {
    int descriptors = CountEntries("/proc/self/fd");
    size_t heap_bytes = mallinfo2().uordblks;
};

void ManyCycles(const char* path, int cycles) {
    const int threads = CountThreadsAtStart();
    // In the first cycles the C library allocates memory that it keeps.
    constexpr int kWarmUpCycles = 3;
    const auto run = [path](int count) {
        for (int cycle = 0; cycle < count; ++cycle) {
            OneCycle(path);
            CHECK(!IsMapped(path));
        }
    };
    run(kWarmUpCycles);
    const Holdings before;
    run(cycles);
    const Holdings after;
    CHECK(ThreadsComeTo(threads));
    CHECK(after.descriptors == before.descriptors);
    CHECK(after.heap_bytes == before.heap_bytes);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: sdk_host MODULE CYCLES PROCESSES\n");
        return 2;
    }
    const int processes = std::atoi(argv[3]);
    for (int i = 0; i < processes; ++i) {
        const pid_t child = fork();
        CHECK(child >= 0);
        if (child == 0) {
            ManyCycles(argv[1], std::atoi(argv[2]));
            return 0;
        }
    }
    for (int i = 0; i < processes; ++i) {
        int status = 0;
        CHECK(wait(&status) > 0);
        CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    return 0;
}
