// The commands of the program, in one table: help, the command line's parser and main follow it. A new
// command is a function and a row.
//
// Thread rule: the main thread.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/camera_watch.h"
#include "peer/host_calls.h"
#include "peer/options.h"
#include "peer/picture_decoder.h"
#include "peer/session.h"
#include "peer/standard_output.h"

namespace zumod::peer {

struct CommandContext {
    const PeerOptions& options;
    Waiter& waiter;
    StandardOutput& output;
    StandardOutput& messages;  // on standard error

    // With --wait a failed attempt is repeated until that time is over.
    Expected<Session> Connect() const;
    Expected<Session> ConnectOnce() const;

    // At `size`. If that is not what --size asks for and the host refuses it, at a smaller one, which is
    // stored in `size` and told to the user.
    Expected<OpenedCamera> Open(Session& session, const CameraEntry& camera, PictureSize& size) const;

    // A line on standard error; does not wait for its reader.
    void Say(const std::string& text) const;
};

struct Command {
    const char* name;
    unsigned arguments;  // Argument bits
    const char* help;
    Expected<void> (*run)(const CommandContext& context);
};

// In the order of the help text.
std::span<const Command> Commands();

// The size of --size, otherwise the default for the camera.
PictureSize RequestedSize(const PeerOptions& options, const CameraEntry& camera);

// What people call the host: the label, or the machine of ssh; empty if neither is known.
std::string HostLabel(const PeerOptions& options);

// When a camera counts as stalled.
CameraWatch::Limits WatchLimits(const PeerOptions& options);

// The most pixels of a picture that are decoded. A host may choose another size than the requested one, up to
// four times its pixels, and always up to 1920x1088; without --size at most 3840x2176.
uint64_t MostPixels(const PeerOptions& options, PictureSize requested);

// Enters the sandbox, unless --no-sandbox is given. Before the decoder is loaded: what this process cannot do
// any more a codec cannot do that a host has taken over with its pictures. `command`: the process behind
// --exec. `read`: directories that can be read besides that of the modules. `write`: one in which files can
// be created, renamed and removed; empty: none.
Expected<void> RestrictProcess(const PeerOptions& options, pid_t command,
                               const std::vector<std::string>& read = {}, const std::string& write = {});

// The camera of the command line, open, and a decoder for its frames. It is closed with the object.
struct CameraView {
    PictureDecoder decoder;
    Session session;
    std::vector<CameraEntry> listed;
    CameraEntry camera;
    PictureSize size;  // requested
    std::optional<OpenedCamera> opened;
};

// `choose_size` returns the size to request. Connects, enters the sandbox, loads the decoder, and then opens
// the camera: without a decoder, none is opened. Call before any other thread starts, and once.
Expected<std::unique_ptr<CameraView>> OpenView(
    const CommandContext& context, VideoTargetFormat target,
    PictureSize (*choose_size)(const PeerOptions&, const CameraEntry&) = RequestedSize);

// Each in the file named after its command; controls_command.cpp has two.
Expected<void> TakeSnapshot(const CommandContext& context);
Expected<void> RecordCameras(const CommandContext& context);
Expected<void> ShowStats(const CommandContext& context);
Expected<void> ChangeFormat(const CommandContext& context);
Expected<void> ListControls(const CommandContext& context);
Expected<void> SetControls(const CommandContext& context);
Expected<void> PublishCameras(const CommandContext& context);
Expected<void> ViewCameras(const CommandContext& context);
Expected<void> RunProgram(const CommandContext& context);

}  // namespace zumod::peer
