#include "peer/commands.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>

#include "common/module_directory.h"
#include "common/parse_number.h"
#include "common/sandbox.h"
#include "common/terminal_text.h"
#include "peer/printed_text.h"

namespace zumod::peer {
namespace {

Expected<void> ListCameras(const CommandContext& context) {
    return context.Connect()
        .and_then([](Session&& session) {
            auto cameras = AskCameras(session);
            session.PrintInformation();
            return cameras;
        })
        .and_then([&](const std::vector<CameraEntry>& cameras) {
            return context.output.Write(context.options.json
                                            ? CameraJson(cameras)
                                            : CameraTable(cameras, TerminalColumns(STDOUT_FILENO)));
        });
}

// The machine in a command such as "ssh -p 22 me@desk zu-camera-host --stdio"; empty if it is not one of ssh.
std::string MachineOfSsh(const std::string& command) {
    constexpr std::string_view kOptionsWithValue = "BbcDEeFIiJLlmOopQRSWw";
    std::istringstream stream(command);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    if (words.empty() || std::filesystem::path(words.front()).filename() != "ssh") {
        return {};
    }
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.front() != '-') {
            return word.substr(word.find('@') + 1);
        }
        i += word.size() == 2 && kOptionsWithValue.find(word[1]) != std::string_view::npos ? 1U : 0U;
    }
    return {};
}

constexpr auto kRetryInterval = std::chrono::milliseconds(500);

const char* StateName(CameraState state) {
    return state == kCameraOpen ? "open" : state == kCameraClosed ? "closed" : "failed";
}

Expected<void> CloseOneCamera(const CommandContext& context) {
    auto session = context.Connect();
    if (!session) {
        return Fail(session.error());
    }
    // A number needs no list: the host may have a camera open that it does not list any more.
    auto id = ParseNumber<uint32_t>(context.options.camera);
    if (!id) {
        const auto camera = AskCameras(*session).and_then([&](const std::vector<CameraEntry>& cameras) {
            return FindCamera(cameras, context.options.camera);
        });
        if (!camera) {
            return Fail(camera.error());
        }
        id = camera->id;
    }
    return CloseCamera(*session, *id).and_then([&](CameraState state) {
        return context.output.Write("camera " + std::to_string(*id) + ": " + StateName(state) + "\n");
    });
}

Expected<void> ShowVersion(const CommandContext& context) {
    return context.Connect()
        .and_then([](Session&& session) { return AskVersion(session); })
        .and_then([&](uint32_t version) { return context.output.Write(std::to_string(version) + "\n"); });
}

constexpr Command kCommands[] = {
    {"list", kJson, "List the cameras", ListCameras},
    {"snapshot", kCameraId | kPictureFile | kFormat | kSkip | kOverwrite,
     "Write one picture of a camera as PNG or JPEG", TakeSnapshot},
    {"record", kCameraId | kRecordingFiles | kFormat | kSeconds | kOverwrite,
     "Record what a camera sends, as it is, or write it to standard output", RecordCameras},
    {"stats", kCameraId | kFormat | kSeconds | kJson,
     "Print each second what arrives of a camera; look for it when it goes away", ShowStats},
    {"format", kCameraId | kFormat | kSizeRequired,
     "Change a camera's format while it streams and print the size that arrives", ChangeFormat},
    {"controls", kCameraId | kJson, "List the controls of a camera: brightness, focus and so on",
     ListControls},
    {"set", kCameraId | kSettings, "Change controls of a camera, as in brightness=128 focus=auto",
     SetControls},
    {"camera", kCameraIds | kFormat | kLabel,
     "Offer cameras to the programs of this machine, by PipeWire, until it is stopped", PublishCameras},
    {"view", kFormat | kLabel | kPage, "Show the cameras live on a page in the browser of this machine",
     ViewCameras},
    {"run", kFormat | kProgram, "Run a program that finds the host's cameras at /dev/videoN", RunProgram},
    {"close", kCameraId, "Close a camera and print the host's answer", CloseOneCamera},
    {"version", 0, "Print the version of the protocol that the host speaks", ShowVersion},
};

}  // namespace

std::span<const Command> Commands() {
    return kCommands;
}

Expected<Session> CommandContext::Connect() const {
    const auto deadline = Clock::now() + options.wait;
    for (;;) {
        auto session = ConnectOnce();
        if (options.wait == Clock::duration::zero()) {
            return session;
        }
        // A host that is busy accepts a connection, and says so in place of the first answer.
        const auto served = session.and_then([](Session& connected) { return AskVersion(connected); });
        if (served) {
            return session;
        }
        if (served.error() == Interrupted() || Clock::now() >= deadline) {
            return Fail(served.error());
        }
        session = Fail("");  // disconnects
        if (const auto waited = waiter.Wait(std::min(deadline, Clock::now() + kRetryInterval)); !waited) {
            return Fail(waited.error());
        }
    }
}

Expected<Session> CommandContext::ConnectOnce() const {
    auto connection = options.exec.empty()
                          ? Connection::ToSocket(options.socket, options.host_user, waiter, options.limit)
                          : Connection::ToCommand(options.exec);
    return std::move(connection).map([this](Connection&& made) {
        return Session(std::move(made), waiter, options.limit,
                       [this](const std::string& notice) { Say(notice); });
    });
}

Expected<OpenedCamera> CommandContext::Open(Session& session, const CameraEntry& camera,
                                            PictureSize& size) const {
    if (size == options.size) {
        return OpenedCamera::Open(session, camera, size, options.fps);
    }
    const PictureSize wanted = size;
    return OpenedCamera::OpenOrSmaller(session, camera, size, options.fps).map([&](OpenedCamera&& opened) {
        if (size != wanted) {
            Say(CameraLabel(camera) + " could not be opened at " + SizeText(wanted) + "; it is open at " +
                SizeText(size));
        }
        return std::move(opened);
    });
}

void CommandContext::Say(const std::string& text) const {
    // There may be a line that is overwritten again and again.
    messages.Offer((messages.IsTerminal() ? kClearLine : "") + ("zu-camera-peer: " + text + "\n"));
}

uint64_t MostPixels(const PeerOptions& options, PictureSize requested) {
    constexpr uint64_t kAlways = uint64_t{1920} * 1088;
    constexpr uint64_t kWithoutSize = uint64_t{3840} * 2176;
    const auto four_times = [](PictureSize size) { return 4 * uint64_t{size.width} * size.height; };
    // A default size comes from the host's list.
    const uint64_t pixels = std::min(four_times(requested), kWithoutSize);
    return std::max({pixels, options.size ? four_times(*options.size) : 0, kAlways});
}

Expected<void> RestrictProcess(const PeerOptions& options, pid_t command,
                               const std::vector<std::string>& read, const std::string& write) {
    if (!options.sandbox) {
        return {};
    }
    std::vector<std::string> directories = read;
    directories.push_back(options.modules.empty() ? FindModuleDirectory() : options.modules);
    return EnterSandbox({.modules = directories, .output_directory = write, .command = command})
        .map([](const std::string&) {});
}

std::string HostLabel(const PeerOptions& options) {
    return !options.label.empty() ? options.label : MachineOfSsh(options.exec);
}

PictureSize RequestedSize(const PeerOptions& options, const CameraEntry& camera) {
    return options.size ? *options.size : DefaultSize(camera.sizes);
}

// With a low frame rate, the time between two frames is not a stall.
CameraWatch::Limits WatchLimits(const PeerOptions& options) {
    CameraWatch::Limits limits;
    limits.quiet = std::max<Clock::duration>(limits.quiet, std::chrono::milliseconds(2500) / options.fps);
    limits.answer = options.limit;
    return limits;
}

Expected<std::unique_ptr<CameraView>> OpenView(const CommandContext& context, VideoTargetFormat target,
                                               PictureSize (*choose_size)(const PeerOptions&,
                                                                          const CameraEntry&)) {
    const PeerOptions& options = context.options;
    auto session = context.Connect();
    if (!session) {
        return Fail(session.error());
    }
    if (auto restricted = RestrictProcess(options, session->Command()); !restricted) {
        return Fail(restricted.error());
    }
    auto decoder = PictureDecoder::Create(options.modules, target, context.waiter, options.limit);
    if (!decoder) {
        return Fail(decoder.error());
    }
    auto listed = AskCameras(*session);
    if (!listed) {
        return Fail(listed.error());
    }
    auto camera = FindCamera(*listed, options.camera);
    if (!camera) {
        session->PrintInformation();
        return Fail(camera.error());
    }
    const PictureSize size = choose_size(options, *camera);
    if (auto limited = decoder->LimitPixels(MostPixels(options, size)); !limited) {
        return Fail(limited.error());
    }
    auto view = std::make_unique<CameraView>(CameraView{
        std::move(*decoder), std::move(*session), std::move(*listed), std::move(*camera), size, {}});
    auto opened = context.Open(view->session, view->camera, view->size);
    if (!opened) {
        return Fail(opened.error());
    }
    view->opened.emplace(std::move(*opened));
    return view;
}

}  // namespace zumod::peer
