#include "peer/options.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>

#include "common/command_line.h"
#include "peer/commands.h"
#include "peer/recorder.h"
#include "peer/recording_name.h"

namespace zumod::peer {
namespace {

constexpr char kDescription[] =
    "Uses the cameras of another machine, through the program there that lends them.";
constexpr char kFooter[] =
    "Sizes: without --size the largest one that fits into 1280x720.\n"
    "Exit status: 0 done, 1 a failure, 2 wrong options.";
constexpr double kMostSeconds = 1e6;

// Numbers are read as CLI11 reads them, so that every number of a command line has the same form.
std::optional<double> ParseNumber(const std::string& text) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    return text.empty() || *end != '\0' ? std::nullopt : std::optional(number);
}

std::optional<uint32_t> ParseId(const std::string& text) {
    char* end = nullptr;
    const auto id = std::strtoull(text.c_str(), &end, 0);
    const bool valid = !text.empty() && *end == '\0' && id <= std::numeric_limits<uint32_t>::max();
    return valid ? std::optional(static_cast<uint32_t>(id)) : std::nullopt;
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

std::string CheckSeconds(const std::string& text) {
    const auto seconds = ParseNumber(text);
    return seconds && *seconds > 0 && *seconds <= kMostSeconds
               ? ""
               : "takes seconds above 0, not \"" + text + "\"";
}

void AddSeconds(CLI::App& app, const std::string& name, const std::string& help,
                const std::function<void(Clock::duration)>& set) {
    app.add_option_function<double>(
           name,
           [set](double seconds) {
               set(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
           },
           help)
        ->type_name("SECONDS")
        ->check(CLI::Validator(CheckSeconds, ""));
}

// Whether both can be recorded at the same time.
Expected<void> CheckTwo(const RecordTarget& one, const RecordTarget& other) {
    if (one.id == other.id) {
        return FailUsage("ID: " + std::to_string(one.id) + " is given twice");
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
        return ParseCommandLine(m_app, count, words)
            .and_then([this] { return AddTargets(); })
            .and_then([this] { return CheckConnection(); })
            .map([this] { return m_options; });
    }

private:
    Expected<void> CheckConnection() const {
        if (m_options.socket.empty() == m_options.exec.empty()) {
            return FailUsage(m_options.socket.empty() ? "give --socket PATH or --exec COMMAND"
                                                      : "--socket and --exec exclude each other");
        }
        return {};
    }

    Expected<void> AddTargets() {
        std::vector<RecordTarget>& targets = m_options.targets;
        targets = {{m_options.id, m_options.path}};
        for (size_t i = 0; i < m_further.size(); i += 2) {
            const auto id = ParseId(m_further[i]);
            if (!id) {
                return FailUsage("ID: takes a number, not \"" + m_further[i] + "\"");
            }
            if (i + 1 == m_further.size()) {
                return FailUsage("FILE: is missing after ID " + m_further[i]);
            }
            const RecordTarget target{*id, m_further[i + 1]};
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
        AddSeconds(m_app, "--timeout", "How long to wait for anything (default 10)",
                   [this](Clock::duration limit) { m_options.limit = limit; });
        AddModulesOption(m_app, m_options.modules, "zu-codec.so");
    }

    void AddCommand(const Command& command) {
        CLI::App* const app = m_app.add_subcommand(command.name, command.help);
        app->callback([this, &command] { m_options.command = &command; });
        const auto has = [&](Argument argument) { return (command.arguments & argument) != 0; };
        if (has(kCameraId)) {
            app->add_option("ID", m_options.id, "The camera's id in the list")->required();
        }
        if (has(kPictureFile)) {
            app->add_option("FILE", m_options.path, "The file to write")->required()->check(NotEmpty("name"));
        }
        if (has(kRecordingFiles)) {
            AddRecordingFiles(app);
        }
        if (has(kFormat)) {
            AddFormat(app, has(kSizeRequired));
        }
        if (has(kSeconds)) {
            AddSeconds(*app, "--seconds", "Stop after this time (default: on SIGINT, SIGTERM or SIGHUP)",
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
        AddSeconds(*app, "--segment", "Begin another file at the first key frame after this time",
                   [this](Clock::duration time) { m_options.segment = time; });
        app->add_flag("--split-on-format", m_options.split_on_format,
                      "Begin another file when the size of the pictures changes");
        app->add_flag("--arrival-times", m_options.arrival_times,
                      "Stamp frames with the times at which they arrived, without smoothing");
        app->add_option("ID FILE", m_further, "Further cameras, recorded at the same time")->type_name("...");
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
