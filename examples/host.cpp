// The smallest useful host: lends this machine's cameras over standard input and output.
//
//     example-host /usr/lib/zu/zu-client-camera.so
//
// The codec is looked for beside the module. Log lines go to standard error. Ends when the peer closes.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>

#include "zumod/zumod.h"

namespace {

// What the module asks its host for: a log, and the directory of the codec.
class Runtime final : public zumod::IZUModRuntime {
public:
    explicit Runtime(const std::string& directory)
        : m_directory(zumod::CZUModData::FromText(directory.c_str())) {}
    virtual ~Runtime() = default;

    int WriteLog(uint32_t, const char* text) override { return std::fprintf(stderr, "%s\n", text); }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    zumod::IZUModData* GetEnvProperty(const char* key) override {
        return key == std::string(zumod::kEnvModulesDir) ? m_directory.Get() : nullptr;
    }

private:
    const zumod::CRefPtr_T<zumod::IZUModData> m_directory;
};

class StandardStream final : public zumod::CCounted_T<zumod::IChannelStream> {
public:
    int Read(void* data, unsigned long size, unsigned long* done) override {
        const ssize_t count = read(STDIN_FILENO, data, size);
        *done = count > 0 ? static_cast<unsigned long>(count) : 0;
        return count > 0 ? 0 : -1;
    }

    // The thread of Run and the module's send thread both write, and each message must stay whole.
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        const std::lock_guard<std::mutex> guard(m_writing);
        for (*done = 0; *done < size;) {
            const ssize_t count = write(STDOUT_FILENO, static_cast<const char*>(data) + *done, size - *done);
            if (count <= 0) {
                return -1;
            }
            *done += static_cast<unsigned long>(count);
        }
        return 0;
    }

private:
    std::mutex m_writing;
};

int Serve(const zumod::ZUModDescriptor& module) {
    const zumod::CRefPtr_T<zumod::IZUModCreatePolicy> policy(new zumod::CZUModCreatePolicyAdapter(
        zumod::kClientCameraPluginName, zumod::kClientCameraPluginVersion));
    zumod::IZUModInterface* created = nullptr;
    if (module.create(policy.Get(), &created) != 1) {
        std::fprintf(stderr, "example-host: the module creates no plugin\n");
        return 1;
    }
    const auto plugin = zumod::TakeInterface<zumod::IClientCameraPlugin>(created);
    const zumod::CRefPtr_T<StandardStream> stream(new StandardStream);
    plugin->SetChannelStream(stream.Get());
    plugin->Run();  // until a read fails
    plugin->ExitInstance();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: example-host MODULE\n");
        return 2;
    }
    const std::string path = argv[1];
    void* library = dlopen(path.c_str(), RTLD_NOW);
    void* symbol = library != nullptr ? dlsym(library, zumod::kEntryPointName) : nullptr;
    if (symbol == nullptr) {
        std::fprintf(stderr, "example-host: %s\n", dlerror());
        return 1;
    }
    const zumod::ZUModDescriptor* module = reinterpret_cast<zumod::EntryPointFunction>(symbol)();
    const size_t slash = path.rfind('/');
    Runtime runtime(slash != std::string::npos ? path.substr(0, slash) : ".");
    module->attach_runtime(&runtime);
    const int status = Serve(*module);
    module->detach_runtime();
    dlclose(library);
    return status;
}
