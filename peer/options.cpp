#include "peer/options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>
#include <ostream>

#include "peer/picture_size.h"
#include "peer/recorder.h"

namespace zumod::peer {
namespace {

constexpr char kDescription[] =
    "Uses the cameras of another machine, through the program there that lends them.";
constexpr char kFooter[] =
    "Sizes: without --size the largest one that fits into 1280x720.\n"
    "Exit status: 0 done, 1 a failure, 2 wrong options.";
constexpr double kLongest = 1e6;  // seconds

std::string CheckSize(const std::string& text) {
    return ParseSize(text) ? "" : "takes WIDTHxHEIGHT, not \"" + text + "\"";
}

std::string CheckRecording(const std::string& path) {
    return path == "-" || RecordingFormat(path) != nullptr
               ? ""
               : "takes a name that ends in .mp4, .mkv or .h264, or -, not \"" + path + "\"";
}

std::string CheckNotEmpty(const std::string& text) {
    return text.empty() ? "takes a name" : "";
}

std::string CheckSeconds(const std::string& text) {
    double seconds = 0;
    return CLI::detail::lexical_cast(text, seconds) && seconds > 0 && seconds <= kLongest
               ? ""
               : "takes seconds above 0, not \"" + text + "\"";
}

Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// The words of the command line, and where each goes.
class Grammar {
public:
    Grammar() : m_app(kDescription, "zu-camera-peer") {
        m_app.footer(kFooter);
        m_app.set_version_flag("--version", "zu-camera-peer " ZU_VERSION);
        m_app.set_help_flag("--help", "Print this text and exit");
        m_app.fallthrough();
        m_app.require_subcommand(1);
        AddConnection();
        AddCommands();
    }

    void Parse(int count, const char* const* words) { m_app.parse(count, words); }
    CLI::App& App() { return m_app; }

    // Throws CLI::ParseError.
    PeerOptions Options() const {
        PeerOptions options = m_options;
        options.more = FurtherRecordings();
        options.command = m_commands.at(m_app.get_subcommands().front());
        options.limit = Seconds(m_limit);
        options.size = ParseSize(m_size);
        if (m_seconds > 0) {
            options.seconds = Seconds(m_seconds);
        }
        return options;
    }

private:
    std::vector<Recording> FurtherRecordings() const {
        std::vector<Recording> recordings;
        for (size_t i = 0; i < m_further.size(); i += 2) {
            Recording& recording = recordings.emplace_back();
            if (!CLI::detail::lexical_cast(m_further[i], recording.id)) {
                throw CLI::ValidationError("ID", "takes a number, not \"" + m_further[i] + "\"");
            }
            if (i + 1 == m_further.size()) {
                throw CLI::ValidationError("FILE", "is missing after ID " + m_further[i]);
            }
            recording.path = m_further[i + 1];
            const std::string complaint = CheckRecording(recording.path);
            if (!complaint.empty()) {
                throw CLI::ValidationError("FILE", complaint);
            }
            RequireAnother(m_options.id, m_options.path, recording);
            for (size_t earlier = 0; earlier + 1 < recordings.size(); ++earlier) {
                RequireAnother(recordings[earlier].id, recordings[earlier].path, recording);
            }
        }
        return recordings;
    }

    static void RequireAnother(uint32_t id, const std::string& path, const Recording& recording) {
        if (recording.id == id) {
            throw CLI::ValidationError("ID", std::to_string(id) + " is given twice");
        }
        const bool same = std::filesystem::path(recording.path).lexically_normal() ==
                          std::filesystem::path(path).lexically_normal();
        if (same || recording.path == "-" || path == "-") {
            throw CLI::ValidationError("FILE", "each camera takes a file of its own");
        }
    }

    void AddConnection() {
        const CLI::Validator not_empty(CheckNotEmpty, "");
        m_app.add_option("--socket", m_options.socket, "The Unix socket of zu-camera-host")
            ->type_name("PATH")
            ->check(not_empty);
        m_app
            .add_option("--exec", m_options.exec,
                        "Run this by sh -c and speak with its standard input and output, as in "
                        "'ssh desk zu-camera-host --stdio'")
            ->type_name("COMMAND")
            ->check(not_empty);
        m_app.add_option("--timeout", m_limit, "How long to wait for anything (default 10)")
            ->type_name("SECONDS")
            ->check(CLI::Validator(CheckSeconds, ""));
        m_app
            .add_option("--modules", m_options.modules,
                        "The directory of zu-codec.so (default: beside the program)")
            ->type_name("DIR")
            ->check(not_empty);
    }

    void AddCommands() {
        AddJson(Add(Command::kList, "list", "List the cameras"));

        auto* snapshot = AddWithId(Command::kSnapshot, "snapshot", "Write one picture of a camera as PNG");
        snapshot->add_option("FILE", m_options.path, "The file to write")
            ->required()
            ->check(CLI::Validator(CheckNotEmpty, ""));
        AddFormat(snapshot, false);
        AddOverwrite(snapshot);

        auto* record = AddWithId(Command::kRecord, "record",
                                 "Record what a camera sends, as it is, or write it to standard output");
        record
            ->add_option("FILE", m_options.path,
                         "A name that ends in .mp4, .mkv or .h264; - for H.264 to "
                         "standard output, as in \"| ffplay -\"")
            ->required()
            ->check(CLI::Validator(CheckRecording, ""));
        record->add_option("ID FILE", m_further, "Further cameras, recorded at the same time")
            ->type_name("...");
        AddFormat(record, false);
        AddSeconds(record, "Stop after this time (default: on SIGINT, SIGTERM or SIGHUP)");
        AddOverwrite(record);

        auto* stats = AddWithId(Command::kStats, "stats",
                                "Print each second what arrives of a camera; look for it when it goes away");
        AddFormat(stats, false);
        AddSeconds(stats, "Stop after this time (default: on SIGINT, SIGTERM or SIGHUP)");
        AddJson(stats);

        AddFormat(AddWithId(Command::kFormat, "format",
                            "Change a camera's format while it streams and print the size that arrives"),
                  true);
        AddWithId(Command::kClose, "close", "Close a camera and print the host's answer");
        Add(Command::kVersion, "version", "Print the version of the protocol that the host speaks");
    }

    CLI::App* Add(Command command, const std::string& name, const std::string& description) {
        CLI::App* const added = m_app.add_subcommand(name, description);
        m_commands[added] = command;
        return added;
    }

    CLI::App* AddWithId(Command command, const std::string& name, const std::string& description) {
        CLI::App* const added = Add(command, name, description);
        added->add_option("ID", m_options.id, "The camera's id in the list")->required();
        return added;
    }

    void AddFormat(CLI::App* command, bool size_required) {
        command->add_option("--size", m_size, "The size of the pictures")
            ->type_name("WIDTHxHEIGHT")
            ->required(size_required)
            ->check(CLI::Validator(CheckSize, ""));
        command->add_option("--fps", m_options.fps, "Frames a second to ask for (default 30)")
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 1000));
    }

    void AddSeconds(CLI::App* command, const std::string& description) {
        command->add_option("--seconds", m_seconds, description)
            ->type_name("SECONDS")
            ->check(CLI::Validator(CheckSeconds, ""));
    }

    void AddJson(CLI::App* command) { command->add_flag("--json", m_options.json, "Print JSON"); }
    void AddOverwrite(CLI::App* command) {
        command->add_flag("--overwrite", m_options.overwrite, "Replace a file that exists");
    }

    CLI::App m_app;
    std::map<const CLI::App*, Command> m_commands;
    PeerOptions m_options;
    double m_limit = 10;
    double m_seconds = 0;
    std::string m_size;
    std::vector<std::string> m_further;
};

// One line, whatever the library put into its text.
int WrongOptions(std::ostream& err, std::string text) {
    for (char& c : text) {
        c = c == '\n' ? ' ' : c;
    }
    err << "zu-camera-peer: " << text << " (see --help)\n";
    return kExitWrongOptions;
}

}  // namespace

std::optional<int> ParseOptions(int count, const char* const* words, PeerOptions& options, std::ostream& out,
                                std::ostream& err) {
    Grammar grammar;
    try {
        grammar.Parse(count, words);
        options = grammar.Options();
    } catch (const CLI::Success& wanted) {
        return grammar.App().exit(wanted, out, err);
    } catch (const CLI::ParseError& error) {
        return WrongOptions(err, error.what());
    }
    if (options.socket.empty() == options.exec.empty()) {
        return WrongOptions(err, options.socket.empty() ? "give --socket PATH or --exec COMMAND"
                                                        : "--socket and --exec exclude each other");
    }
    return std::nullopt;
}

}  // namespace zumod::peer
