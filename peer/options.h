// The command line of zu-camera-peer.
//
// Thread rule: values and a pure function; any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/control_list.h"

namespace zumod::peer {

struct Command;

// What a command can be given: bits of Command::arguments.
enum Argument : unsigned {
    kCameraId = 1,        // CAMERA
    kPictureFile = 2,     // FILE
    kRecordingFiles = 4,  // FILE [CAMERA FILE]...
    kFormat = 8,          // --size and --fps
    kSizeRequired = 16,   // --size must be given
    kSeconds = 32,        // --seconds
    kJson = 64,           // --json
    kOverwrite = 128,     // --overwrite
    kSkip = 256,          // --skip and --after
    kSettings = 512,      // CONTROL=VALUE...
    kCameraIds = 1024,    // [CAMERA]...
    kLabel = 2048,        // --label
    kProgram = 4096,      // COMMAND [ARGUMENT]...
    kPage = 8192,         // --port, --open and --directory
};

// A camera and the file that it is recorded to.
struct RecordTarget {
    std::string camera;  // as in PeerOptions
    std::string path;
};

struct PeerOptions {
    const Command* command = nullptr;
    std::string socket;
    std::optional<uid_t> host_user;  // who may be the host besides this user and root
    std::string exec;
    std::string modules;  // empty: the directory that belongs to the program
    bool sandbox = true;  // for commands that decode
    Clock::duration limit = std::chrono::seconds(10);
    Clock::duration wait{};            // for a host
    std::string camera;                // id, name, or the beginning of the name
    std::vector<std::string> cameras;  // the same, several
    std::string label;                 // of the host, for people
    std::string path;
    std::vector<ControlSetting> settings;
    std::vector<RecordTarget> targets;  // the first one has `camera` and `path`
    std::optional<PictureSize> size;
    int fps = 30;
    std::optional<Clock::duration> seconds;
    int skip = 0;                          // pictures before the one to save
    std::optional<Clock::duration> after;  // the first picture: which one to save
    bool json = false;
    bool overwrite = false;
    std::optional<mode_t> mode;  // of files
    std::string container = "mkv";
    std::optional<Clock::duration> segment;
    bool split_on_format = false;
    bool arrival_times = false;
    bool reconnect = false;
    uint16_t port = 0;  // of the page; 0: any
    bool open_page = false;
    std::string directory;             // of recordings; empty: a temporary one
    std::vector<std::string> program;  // and its arguments
};

// The error is a mistake, or the text that --help or --version asks for.
Expected<PeerOptions> ParseOptions(int count, const char* const* words);

}  // namespace zumod::peer
