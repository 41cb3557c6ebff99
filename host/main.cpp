// zu-camera-host: the reference host application. Loads the camera module, lends it a runtime and byte
// streams to peers, and closes everything when a signal arrives.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "common/module_directory.h"
#include "common/module_runtime.h"
#include "common/process_setup.h"
#include "common/sandbox.h"
#include "common/unix_socket.h"
#include "common/waiter.h"
#include "host/camera_gate.h"
#include "host/camera_module.h"
#include "host/helper.h"
#include "host/host_log.h"
#include "host/listener.h"
#include "host/options.h"
#include "host/peer_stream.h"
#include "host/serve.h"
#include "host/setting_check.h"
#include "host/video_devices.h"
#include "src/module/attach_runtime.h"

namespace zumod::host {
namespace {

constexpr char kProgram[] = "zu-camera-host";

// How long the end of the program waits for the reader of the log.
constexpr auto kPatienceWithLog = std::chrono::seconds(2);

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
    if (const auto found = CameraModule::FindIn(directory); !found) {
        return Fail(found.error());
    }
    return directory;
}

// `closed`: the first standard descriptor that the program was started without, or -1.
Expected<std::unique_ptr<PeerStream>> TakeStandardStreams(int closed) {
    if (closed == STDIN_FILENO || closed == STDOUT_FILENO) {
        return Fail(closed == STDIN_FILENO ? "standard input is closed" : "standard output is closed");
    }
    return PeerStream::FromStandardStreams();
}

// Where peers come from: the listener, or the one peer at the standard streams.
struct PeerSource {
    std::unique_ptr<Listener> listener;
    std::unique_ptr<PeerStream> standard_streams;
    bool passed = false;  // the listener's socket, by the service manager
};

// `closed`: as above.
Expected<PeerSource> OpenPeerSource(const HostOptions& options, int closed) {
    if (options.stdio) {
        return TakeStandardStreams(closed).map([](std::unique_ptr<PeerStream> streams) {
            return PeerSource{nullptr, std::move(streams)};
        });
    }
    // A path on the command line is the user's choice.
    if (options.listen == DefaultSocketPath()) {
        auto passed = Listener::FromServiceManager();
        if (!passed || *passed != nullptr) {
            return std::move(passed).map([](std::unique_ptr<Listener> listener) {
                return PeerSource{std::move(listener), nullptr, true};
            });
        }
    }
    return Listener::Open(options.listen).map([](std::unique_ptr<Listener> listener) {
        return PeerSource{std::move(listener), nullptr};
    });
}

// Returns what is in force, for the log.
Expected<std::string> RestrictProcess(const HostOptions& options, const PeerSource& source) {
    if (!options.sandbox) {
        return "sandbox: none, because of --no-sandbox";
    }
    SandboxPlan plan;
    plan.cameras = true;
    // Also the directories of single modules: their keys begin with the same words.
    for (const auto& [key, value] : options.properties) {
        if (key.starts_with(kEnvModulesDir)) {
            plan.modules.push_back(value);
        }
    }
    if (source.listener != nullptr && !source.passed) {
        const auto directory = std::filesystem::path(options.listen).parent_path();
        plan.socket_directory = directory.empty() ? "." : directory.string();
    }
    return EnterSandbox(plan);
}

Expected<void> Serve(const HostOptions& options, PeerSource source, HelperProcess* helper,
                     const CameraFiles& files, HostLog& log, Waiter& waiter) {
    CameraModule module;
    if (auto loaded = module.Load(); !loaded) {
        return loaded;
    }
    if (const auto loaded = LoadCodecLibrary(); !loaded) {
        log.Write(kLogIgnored, "[host] no video can be sent, because " + loaded.error().text);
    }
    for (const auto& [key, value] : options.properties) {
        if (const std::string mistake = SettingMistake(key, value); !mistake.empty()) {
            log.Write(kLogIgnored, "[host] " + mistake);
        }
    }
    CameraGate gate(options.lending, files,
                    [&log](const std::string& text) { log.Write(kLogIgnored, text); });
    gate.ReportProblems();
    if (auto started = log.Start(); !started) {
        return started;
    }
    const HostParts parts{module, gate, helper, log, waiter};
    if (source.listener == nullptr) {
        return ServeOnePeer(std::move(source.standard_streams), options.limits, parts);
    }
    log.Print(std::string(kProgram) + ": listening on " +
              (source.passed ? "the socket of the service manager" : options.listen) +
              ", cameras are listed on request");
    ServePeers(*source.listener, options.limits, parts);
    return {};
}

Expected<void> Run(HostOptions options, int closed, HostLog& log) {
    const StopSignals signals(StopSignals::Second::kEndsProcess);
    if (signals.Descriptor() < 0) {
        return Fail("signals cannot be received: " + ErrnoText(errno));
    }
    Waiter waiter(&signals);
    const auto directory = ChooseModuleDirectory(options);
    if (!directory) {
        return Fail(directory.error());
    }
    options.properties[kEnvModulesDir] = *directory;
    // Up to here with all rights of the user. Helper processes start here: they keep these rights.
    auto helper = HelperProcess::Start(options.commands);
    if (!helper && options.commands.HasAny()) {
        return Fail(helper.error());
    }
    if (!helper) {
        log.Write(kLogIgnored, "[host] no peer's command can be named: " + helper.error().text);
        helper = std::unique_ptr<HelperProcess>();
    }
    auto source = OpenPeerSource(options, closed);
    if (!source) {
        return Fail(source.error());
    }
    // From here on without them: modules are loaded and threads start.
    const auto restricted = RestrictProcess(options, *source);
    if (!restricted) {
        return Fail(restricted.error());
    }
    // Never destroyed: a loaded codec module keeps calling the runtime until the process exits.
    static CameraFiles& files = *new CameraFiles;
    static ModuleRuntime& runtime = *new ModuleRuntime(
        [&log](uint32_t level, const char* text) {
            files.OnLogLine(text);
            log.Write(ShownLevel(level, text), text);
        },
        options.properties);
    AttachRuntime(&runtime);
    log.Write(kLogEvent, "[host] " + *restricted);
    return Serve(options, std::move(*source), helper->get(), files, log, waiter);
}

int RunProgram(int count, const char* const* words) {
    const int closed = FillStandardDescriptors();
    const auto options = ParseOptions(count, words);
    if (!options) {
        return ReportError(kProgram, options.error());
    }
    // Never destroyed: the runtime writes to it.
    static HostLog& log = *new HostLog(STDERR_FILENO, options->log_levels);
    log.LimitSources();
    const auto result = Run(*options, closed, log);
    if (!result) {
        log.Print(std::string(kProgram) + ": " + result.error().text);
    }
    log.Flush(kPatienceWithLog);
    return result ? 0 : result.error().status;
}

}  // namespace
}  // namespace zumod::host

int main(int argc, char** argv) {
    // The only place that catches exceptions of this thread: the memory may be exhausted.
    try {
        return zumod::host::RunProgram(argc, argv);
    } catch (const std::exception& exception) {
        return zumod::ReportError(zumod::host::kProgram, {exception.what()});
    }
}
