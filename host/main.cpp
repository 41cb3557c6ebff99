// zu-camera-host: the reference host application. Loads the camera module, lends it a runtime and byte
// streams to peers, and closes everything when a signal arrives.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "common/module_directory.h"
#include "common/module_runtime.h"
#include "common/process_setup.h"
#include "common/waiter.h"
#include "host/camera_module.h"
#include "host/host_log.h"
#include "host/listener.h"
#include "host/options.h"
#include "host/peer_stream.h"
#include "host/serve.h"
#include "src/module/attach_runtime.h"

namespace zumod::host {
namespace {

constexpr char kProgram[] = "zu-camera-host";

// The directory where the loader looks for modules: the property's, that of --modules, or the one beside the
// program.
Expected<std::string> ChooseModuleDirectory(const HostOptions& options) {
    const auto property = options.properties.find(kEnvModulesDir);
    std::string directory = property != options.properties.end() ? property->second : "";
    if (directory.empty()) {
        // The parent of "DIR/" is DIR: without a "/" at its end.
        directory = options.modules.empty()
                        ? FindModuleDirectory()
                        : (std::filesystem::path(options.modules) / "").parent_path().string();
    }
    if (directory.empty()) {
        return Fail("no module directory belongs to the program; give one with --modules");
    }
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        return Fail("the module directory is missing: " + directory);
    }
    return directory;
}

Expected<void> Serve(const HostOptions& options, CRefPtr_T<PeerStream> standard_streams, HostLog& log,
                     Waiter& waiter) {
    CameraModule module;
    if (auto loaded = module.Load(); !loaded) {
        return loaded;
    }
    if (const auto loaded = LoadCodecLibrary(); !loaded) {
        log.Write(kLogIgnored, "[host] no video can be sent, because " + loaded.error().text);
    }
    if (options.stdio) {
        ServeOnePeer(std::move(standard_streams), module, waiter);
        return {};
    }
    const auto listener = Listener::Open(options.listen);
    if (!listener) {
        return Fail(listener.error());
    }
    std::fprintf(stderr, "%s: listening on %s, cameras are listed on request\n", kProgram,
                 options.listen.c_str());
    ServePeers(**listener, module, log, waiter);
    return {};
}

Expected<void> Run(HostOptions options) {
    const StopSignals signals;
    Waiter waiter(&signals);
    CRefPtr_T<PeerStream> standard_streams;
    if (options.stdio) {
        auto taken = PeerStream::FromStandardStreams();
        if (!taken) {
            return Fail(taken.error());
        }
        standard_streams = std::move(*taken);
    }
    FillStandardDescriptors();
    const auto directory = ChooseModuleDirectory(options);
    if (!directory) {
        return Fail(directory.error());
    }
    options.properties[kEnvModulesDir] = *directory;
    // Never destroyed: a loaded codec module keeps calling the runtime until the process exits.
    static HostLog& log = *new HostLog(STDERR_FILENO, options.log_levels);
    static ModuleRuntime& runtime = *new ModuleRuntime(
        [](uint32_t level, const char* text) { log.Write(level, text); }, options.properties);
    AttachRuntime(&runtime);
    return Serve(options, std::move(standard_streams), log, waiter);
}

}  // namespace
}  // namespace zumod::host

int main(int argc, char** argv) {
    const auto result = zumod::host::ParseOptions(argc, argv).and_then(zumod::host::Run);
    return result ? 0 : zumod::ReportError(zumod::host::kProgram, result.error());
}
