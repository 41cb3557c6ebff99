#include "peer/options.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

#include "common/command_line.h"
#include "common/safe_text.h"
#include "common/word_distance.h"
#include "peer/commands.h"
#include "peer/picture_writer.h"
#include "peer/recorder.h"
#include "peer/recording_name.h"

namespace zumod::peer {
namespace {

constexpr char kDescription[] =
    "Uses the cameras of another machine, through the program there that lends them.";
constexpr char kFooter[] =
    "Sizes: without --size the largest that fits into 1280x720 and can be opened.\n"
    "Exit status: 0 done, 1 a failure, 2 wrong options.";

// The command that somebody who typed `word` most likely meant.
const Command& NearestCommand(std::string_view word) {
    return *std::ranges::min_element(
        Commands(), {}, [word](const Command& command) { return WordDistance(word, command.name); });
}

std::string CheckSettingText(const std::string& text) {
    const auto setting = ParseSetting(text);
    return setting ? "" : setting.error().text;
}

std::string CheckSize(const std::string& text) {
    return ParseSize(text) ? "" : "takes WIDTHxHEIGHT, not \"" + text + "\"";
}

std::string CheckContainer(const std::string& name) {
    return ContainerFormat(name) != nullptr ? "" : "takes mkv, ts or h264, not \"" + name + "\"";
}

std::optional<mode_t> ParseMode(const std::string& text) {
    const bool octal =
        !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
    const auto mode = octal ? std::strtoul(text.c_str(), nullptr, 8) : 0;
    return octal && mode <= 0777 ? std::optional(static_cast<mode_t>(mode)) : std::nullopt;
}

std::string CheckMode(const std::string& text) {
    return ParseMode(text) ? "" : "takes octal permissions such as 640, not \"" + text + "\"";
}

std::string CheckRecording(const std::string& path) {
    const bool expands = !path.empty() && !ExpandName(path, 0).empty();
    return path == "-" || (RecordingFormat(path) != nullptr && expands)
               ? ""
               : "takes a name that ends in .mp4, .mkv or .h264, or -, not \"" + path + "\"";
}

std::string CheckPicture(const std::string& path) {
    return PictureFormatOf(path) != nullptr
               ? ""
               : "takes a name that ends in .png, .jpg or .jpeg, or -, not \"" + path + "\"";
}

// Whether both can be recorded at the same time.
Expected<void> CheckTwo(const RecordTarget& one, const RecordTarget& other) {
    if (one.camera == other.camera) {
        return FailUsage("CAMERA: " + one.camera + " is given twice");
    }
    const bool same = std::filesystem::path(one.path).lexically_normal() ==
                      std::filesystem::path(other.path).lexically_normal();
    if (same || one.path == "-" || other.path == "-") {
        return FailUsage("FILE: each camera needs a separate file");
    }
    return {};
}

class CommandLine {
public:
    CommandLine() {
        m_app.footer(kFooter);
        AddHelpAndVersion(m_app);
        m_app.fallthrough();
        m_app.require_subcommand(1);
        AddConnection();
        for (const Command& command : Commands()) {
            AddCommand(command);
        }
    }

    Expected<PeerOptions> Parse(int count, const char* const* words) {
        return CheckCommand(count, words)
            .and_then([&] { return ParseCommandLine(m_app, count, words); })
            .and_then([&] { return TakeProgram(count, words); })
            .and_then([this] { return AddTargets(); })
            .and_then([this] { return CheckSettings(); })
            .and_then([this] { return CheckConnection(); })
            .map([this] { return m_options; });
    }

private:
    // The first word that is not an option nor its value is a command.
    Expected<void> CheckCommand(int count, const char* const* words) const {
        for (int i = 1; i < count; ++i) {
            const std::string word = words[i];
            if (word.substr(0, 1) == "-") {
                const CLI::Option* const option = m_app.get_option_no_throw(word);
                i += option != nullptr && option->get_expected_max() > 0 ? 1 : 0;
                continue;
            }
            if (std::ranges::find(Commands(), word, &Command::name) == Commands().end()) {
                return FailUsage("there is no command \"" + SafeText(word) + "\"; did you mean " +
                                 NearestCommand(word).name + "?");
            }
            break;
        }
        return {};
    }

    // As it was written: CLI11 takes a word such as "[a,b]" for a list.
    Expected<void> TakeProgram(int count, const char* const* words) {
        std::vector<std::string>& program = m_options.program;
        if (program.empty()) {
            return {};
        }
        const auto* const end = words + count;
        const auto* const dashes = std::find(words, end, std::string_view("--"));
        if (end - dashes < 2 || program.front() != dashes[1]) {
            return FailUsage("COMMAND must follow --");
        }
        program.assign(dashes + 1, end);
        return {};
    }

    Expected<void> CheckConnection() const {
        if (m_options.socket.empty() == m_options.exec.empty()) {
            return FailUsage(m_options.socket.empty() ? "give --socket PATH or --exec COMMAND"
                                                      : "--socket and --exec exclude each other");
        }
        return {};
    }

    Expected<void> CheckSettings() const {
        std::set<const CameraControl*> controls;
        for (const ControlSetting& setting : m_options.settings) {
            if (!controls.insert(setting.control).second) {
                return FailUsage("CONTROL=VALUE: " + std::string(setting.control->name) + " is given twice");
            }
        }
        return {};
    }

    Expected<void> AddTargets() {
        std::vector<RecordTarget>& targets = m_options.targets;
        targets = {{m_options.camera, m_options.path}};
        for (size_t i = 0; i < m_further.size(); i += 2) {
            if (i + 1 == m_further.size()) {
                return FailUsage("FILE: is missing after CAMERA " + m_further[i]);
            }
            const RecordTarget target{m_further[i], m_further[i + 1]};
            if (const std::string mistake = CheckRecording(target.path); !mistake.empty()) {
                return FailUsage("FILE: " + mistake);
            }
            for (const RecordTarget& earlier : targets) {
                if (auto checked = CheckTwo(target, earlier); !checked) {
                    return checked;
                }
            }
            targets.push_back(target);
        }
        return {};
    }

    void AddConnection() {
        m_app.add_option("--socket", m_options.socket, "The Unix socket of zu-camera-host")
            ->type_name("PATH")
            ->check(NotEmpty("name"));
        m_app
            .add_option("--host-uid", m_options.host_user,
                        "Trust a host of this user at the socket (default: only this user and root)")
            ->type_name("UID");
        m_app
            .add_option("--exec", m_options.exec,
                        "Run this by sh -c and use its standard input and output, as in "
                        "'ssh desk zu-camera-host --stdio'")
            ->type_name("COMMAND")
            ->check(NotEmpty("name"));
        AddTimeOption(m_app, "--timeout", "How long to wait for anything (default 10)",
                      [this](Clock::duration limit) { m_options.limit = limit; });
        AddTimeOption(m_app, "--wait",
                      "How long to wait for a host that is busy or not up yet (default: not)",
                      [this](Clock::duration wait) { m_options.wait = wait; });
        AddModulesOption(m_app, m_options.modules, "zu-codec.so");
        m_app.add_flag_callback(
            "--no-sandbox", [this] { m_options.sandbox = false; },
            "Decode with every right of the user: for debuggers, and for codec modules that need more than "
            "the sandbox permits");
    }

    void AddCommand(const Command& command) {
        CLI::App* const app = m_app.add_subcommand(command.name, command.help);
        app->callback([this, &command] { m_options.command = &command; });
        const auto has = [&](Argument argument) { return (command.arguments & argument) != 0; };
        if (has(kCameraId)) {
            app->add_option("CAMERA", m_options.camera,
                            "The camera's id in the list, its name, or the beginning of its name")
                ->required()
                ->type_name("")
                ->check(NotEmpty("camera"));
        }
        if (has(kCameraIds)) {
            app->add_option("CAMERA", m_options.cameras,
                            "Ids, names, or beginnings of names (default: every camera of the host)")
                ->type_name("")
                ->check(NotEmpty("camera"));
        }
        if (has(kLabel)) {
            app->add_option("--label", m_options.label,
                            "What stands behind a camera's name, as in \"Front Camera (desk)\" (default: the "
                            "machine of ssh, or lent)")
                ->type_name("TEXT")
                ->check(NotEmpty("label"));
        }
        if (has(kPage)) {
            AddPage(app);
        }
        if (has(kProgram)) {
            // Options of the program are not ours.
            app->fallthrough(false);
            app->add_option("COMMAND", m_options.program, "The program, after --, and its arguments")
                ->required()
                ->type_name("");
        }
        if (has(kSettings)) {
            app->add_option_function<std::vector<std::string>>(
                   "CONTROL=VALUE",
                   [this](const std::vector<std::string>& words) {
                       for (const std::string& word : words) {
                           m_options.settings.push_back(*ParseSetting(word));
                       }
                   },
                   "A control and its value, which may also be auto or default")
                ->required()
                ->type_name("")
                ->check(CLI::Validator(CheckSettingText, ""));
        }
        if (has(kPictureFile)) {
            app->add_option("FILE", m_options.path,
                            "A name that ends in .png, .jpg or .jpeg; - for PNG to standard output")
                ->required()
                ->check(CLI::Validator(CheckPicture, ""));
        }
        if (has(kRecordingFiles)) {
            AddRecordingFiles(app);
        }
        if (has(kFormat)) {
            AddFormat(app, has(kSizeRequired));
        }
        if (has(kSkip)) {
            app->add_option("--skip", m_options.skip, "Leave out as many pictures first: cameras start dark")
                ->type_name("NUMBER")
                ->check(CLI::Range(0, 100000));
            AddTimeOption(*app, "--after", "Take the picture that is shown this time after the first one",
                          [this](Clock::duration after) { m_options.after = after; });
        }
        if (has(kSeconds)) {
            AddTimeOption(*app, "--seconds", "Stop after this time (default: on SIGINT, SIGTERM or SIGHUP)",
                          [this](Clock::duration seconds) { m_options.seconds = seconds; });
        }
        if (has(kJson)) {
            app->add_flag("--json", m_options.json, "Print JSON");
        }
        if (has(kOverwrite)) {
            app->add_flag("--overwrite", m_options.overwrite, "Replace a file that exists");
            app->add_option_function<std::string>(
                   "--mode", [this](const std::string& text) { m_options.mode = ParseMode(text); },
                   "The permissions of a file, in octal (default 600, or less by the umask)")
                ->type_name("MODE")
                ->check(CLI::Validator(CheckMode, ""));
        }
    }

    void AddRecordingFiles(CLI::App* app) {
        app->add_option("FILE", m_options.path,
                        "A name that ends in .mp4, .mkv or .h264, in which %H and so on are replaced "
                        "as by date; - for standard output, as in \"| ffplay -\"")
            ->required()
            ->check(CLI::Validator(CheckRecording, ""));
        app->add_option("--container", m_options.container,
                        "What goes to standard output: mkv (default), ts or h264")
            ->type_name("NAME")
            ->check(CLI::Validator(CheckContainer, ""));
        AddTimeOption(*app, "--segment", "Begin another file at the first key frame after this time",
                      [this](Clock::duration time) { m_options.segment = time; });
        app->add_flag("--split-on-format", m_options.split_on_format,
                      "Begin another file when the size of the pictures changes");
        app->add_flag("--arrival-times", m_options.arrival_times,
                      "Stamp frames with the times at which they arrived, without smoothing");
        app->add_flag("--reconnect", m_options.reconnect,
                      "Go on in another file when a camera or the host was away and is back");
        app->add_option("CAMERA FILE", m_further, "Further cameras, recorded at the same time")
            ->type_name("...");
    }

    void AddPage(CLI::App* app) {
        app->add_option("--port", m_options.port, "The port of the page at 127.0.0.1 (default: any free one)")
            ->type_name("NUMBER");
        app->add_flag("--open", m_options.open_page, "Show the page in the user's browser, by xdg-open");
        app->add_option(
               "--directory", m_options.directory,
               "Where the page's recordings are kept (default: a temporary directory, removed at the "
               "end)")
            ->type_name("PATH")
            ->check(CLI::ExistingDirectory);
    }

    void AddFormat(CLI::App* app, bool size_required) {
        app->add_option_function<std::string>(
               "--size", [this](const std::string& text) { m_options.size = ParseSize(text); },
               "The size of the pictures")
            ->type_name("WIDTHxHEIGHT")
            ->required(size_required)
            ->check(CLI::Validator(CheckSize, ""));
        app->add_option("--fps", m_options.fps, "Frames per second to request (default 30)")
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 1000));
    }

    CLI::App m_app{kDescription, "zu-camera-peer"};
    PeerOptions m_options;
    std::vector<std::string> m_further;
};

}  // namespace

Expected<PeerOptions> ParseOptions(int count, const char* const* words) {
    return CommandLine().Parse(count, words);
}

}  // namespace zumod::peer
