// The helper process of the host, which runs the user's commands.
//
// The host gives up most of its rights before it loads a module, among them to start programs. The commands
// of --ask, --on-open and --on-close therefore run in a process that is forked before that. It keeps the
// rights of the user, so it takes nothing from the host but records of a fixed size, and the host can choose
// only which of the commands runs, never its text. A host that was taken over can start the user's own
// commands with wrong variables, and no more.
//
// Protocol. A pair of Unix sockets of type SOCK_SEQPACKET, which keep records apart. Neither side waits for
// the other: a record that cannot be sent at once is not sent, and the host treats the helper as gone.
//
// - Host: {kind, number, who uses which camera}. The kind is kAsk, kOpen, kClose or kCancel, which ends the
//   question of that number.
// - Host: {kDescribe, peer, who}, for what the process of a peer is. The sandbox hides it from the host.
// - Helper: {number, result, text}, once for each kAsk; {0, kSaid, text} with a warning for the log; {peer,
//   kDescribed, text} with the command line of the peer, empty if it is not known.
//
// Commands. Each runs by "sh -c" in a separate process group, with /dev/null as its input and the host's
// standard error as its output. At most kMostQuestions questions run at once; further ones are not asked.
// Hooks run one after the other, in the order of their events. At most kMostHooks wait; further ones are left
// out with a warning. Peers that open and close without a pause must not fill that queue: while kManyHooks
// wait, a close whose open still waits leaves out both. So only opens of cameras that are in use can fill it.
//
// A command that runs longer than its limit is killed with its group. If it does not end by that (a driver
// holds it), it is reported and no more waited for. It still counts as a question; of hooks, the next one
// runs, up to kMostUnkilledHooks of them. When the host ends, the helper kills the questions that are open.
// It ends after the last hook; all hooks together then have the time of one.
//
// Thread rule: HelperProcess is [main thread]; Start before any other thread starts. The helper has one
// thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod::host {

// The commands; an empty one does not run.
struct HelperCommands {
    bool describes_peers = false;  // a helper is needed even without a command
    std::string ask;
    std::string on_open;
    std::string on_close;

    bool HasAny() const { return !ask.empty() || !on_open.empty() || !on_close.empty(); }

    std::chrono::milliseconds ask_limit = std::chrono::seconds(30);
    std::chrono::milliseconds hook_limit = std::chrono::seconds(60);
    std::chrono::milliseconds kill_limit = std::chrono::seconds(5);  // from the signal to the end
};

inline constexpr size_t kMostQuestions = 16;
inline constexpr size_t kMostHooks = 256;
inline constexpr size_t kManyHooks = 32;
inline constexpr size_t kMostUnkilledHooks = 16;

// Who uses which camera, for the environment of a command.
struct CameraUse {
    uint64_t peer = 0;  // its number
    pid_t pid = 0;      // of the peer; 0 if it is not known
    uid_t user = 0;     // likewise, if `pid` is known
    uint32_t camera = 0;
    int32_t width = 0;
    int32_t height = 0;
    int32_t fps = 0;
    char name[64] = {};  // of the camera, cut if it is longer
    char file[32] = {};  // of the camera
};

enum class HelperResult : uint32_t {
    kAllowed,
    kRefused,
    kNotAsked,  // the command could not run: the owner was not asked
    kSaid,
    kDescribed,
};

struct HelperReply {
    uint64_t number = 0;
    HelperResult result = HelperResult::kRefused;
    char text[160] = {};  // why not, or what else the result says
};

class HelperProcess {
public:
    // Forks. Null if it is not needed.
    static Expected<std::unique_ptr<HelperProcess>> Start(const HelperCommands& commands);

    // Readable when Receive returns something.
    int Descriptor() const { return m_socket.Get(); }

    // Each returns false if the helper is gone.
    bool Ask(uint64_t number, const CameraUse& use) const;
    // No answer to this question is needed any more; one may come.
    bool Cancel(uint64_t number) const;
    bool OnOpen(const CameraUse& use) const;
    bool OnClose(const CameraUse& use) const;
    // What the process of this peer is.
    bool Describe(uint64_t peer, pid_t pid) const;

    // The next reply; nothing if there is none. Fails once the helper is gone.
    Expected<std::optional<HelperReply>> Receive() const;

private:
    explicit HelperProcess(UniqueFd socket) : m_socket(std::move(socket)) {}

    const UniqueFd m_socket;
};

// The first words of a process's command line, made safe; empty if it is not known. The number may belong to
// another process by now.
std::string CommandOf(pid_t pid);

}  // namespace zumod::host
