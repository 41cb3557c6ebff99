// zu-camera-host: the reference host application. Loads the camera module, lends it a runtime and byte
// streams to peers, and takes everything down again when it is told to.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "host/camera_module.h"
#include "host/host_log.h"
#include "host/host_runtime.h"
#include "host/listener.h"
#include "host/module_place.h"
#include "host/options.h"
#include "host/peer_stream.h"
#include "host/serve.h"
#include "host/signals.h"
#include "host/standard_descriptors.h"
#include "src/module/attach_runtime.h"

namespace zumod::host {
namespace {

int Fail(const std::string& text) {
    std::fprintf(stderr, "zu-camera-host: %s\n", text.c_str());
    return kExitFailure;
}

// Settles the module directory in the properties, where the loader looks for it.
bool SettleModuleDirectory(HostOptions& options, std::string& error) {
    std::string& directory = options.properties[kEnvModulesDir];
    if (directory.empty()) {
        directory = options.modules.empty() ? FindModuleDirectory() : WithoutTrailingSlash(options.modules);
    }
    if (directory.empty()) {
        error = "there is no module directory beside the program; give one with --modules";
        return false;
    }
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        error = "the module directory is not there: " + directory;
        return false;
    }
    return true;
}

int Serve(const HostOptions& options, UniqueFd in, UniqueFd out, HostLog& log, int signals) {
    CameraModule module;
    std::string error;
    if (!module.Load(error)) {
        return Fail(error);
    }
    if (const std::string complaint = LoadCodecLibrary(); !complaint.empty()) {
        log.Write(kLogIgnored, "[host] no video can be sent, because " + complaint);
    }
    if (options.stdio) {
        ServeOnePeer(CRefPtr_T<PeerStream>(new PeerStream(std::move(in), std::move(out))), module, signals);
        return 0;
    }
    const auto listener = Listener::Open(options.listen, error);
    if (!listener) {
        return Fail(error);
    }
    std::fprintf(stderr, "zu-camera-host: listening on %s, cameras are listed on request\n",
                 options.listen.c_str());
    ServePeers(*listener, module, log, signals);
    return 0;
}

int Main(int count, const char* const* words) {
    HostOptions options;
    if (const auto status = ParseOptions(count, words, options, std::cout, std::cerr)) {
        return *status;
    }
    const UniqueFd signals = TakeSignals();
    UniqueFd in;
    UniqueFd out;
    std::string error;
    if (options.stdio && !TakeStandardChannel(in, out, error)) {
        return Fail(error);
    }
    FillStandardDescriptors();
    if (!SettleModuleDirectory(options, error)) {
        return Fail(error);
    }
    // Never destroyed: a codec module, once loaded, stays attached until the process has ended.
    static HostLog& log = *new HostLog(STDERR_FILENO, options.log_levels);
    static HostRuntime& runtime = *new HostRuntime(log, options.properties);
    AttachRuntime(&runtime);
    return Serve(options, std::move(in), std::move(out), log, signals.Get());
}

}  // namespace
}  // namespace zumod::host

int main(int argc, char** argv) {
    return zumod::host::Main(argc, argv);
}
