// The sandbox of the programs: what a process gives up before it touches what others control.
//
// The host runs a codec module and answers a peer's requests; the peer decodes video that a host sends. An
// error in either of them must not hand over the user's account. So each program first does what needs more
// rights (options, listening or connecting, starting the command behind --exec, creating output files), then
// enters the sandbox, and only then loads modules and starts threads.
//
// What is given up: new privileges (a set-uid program would have no effect), capabilities, the memory image
// (not dumpable: no core file, and no other process of the user can attach), files but for those of the plan
// (Landlock), system calls but for those of call_filter.h. The kernel may lack Landlock or the filter; then
// the report says so, and the rest is still in force. If the kernel has it and refuses, the program ends.
//
// Camera devices. A Landlock rule names a file that exists; a camera that is plugged in later is a new file.
// So the host's plan permits /dev as a whole, for reading, writing and ioctl, but not for creating anything.
// Most of what else the user may open there stays useless: the filter lets only ioctls of video and graphics
// devices pass, without which most sound devices deliver nothing. What remains open is what works by read and
// write only: the user's terminals, /dev/shm, and the input devices, security keys, raw MIDI ports and old
// sound devices (/dev/dsp) that this user may open.
//
// Virtual cameras (zu-vcam). The library that is preloaded connects to the server of the cameras for each
// open and each ioctl. The host itself connects to nothing, so this is permitted only if the variable
// ZU_VCAM was set when the program started, and only for Unix sockets of type SOCK_SEQPACKET, which no bus,
// display or log daemon uses. The report says so.
//
// Sanitizers (builds for tests only). Their run time stops the process's threads by ptrace at the end and
// reads /proc and the program's files: kIsSanitized permits that and leaves the process dumpable. Everything
// else, Landlock included, is as in a build for users.
//
// Thread rule: main thread, before any other thread starts: Landlock and capabilities belong to a thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/error.h"

namespace zumod {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

// A path that does not exist is left out.
struct SandboxPlan {
    std::vector<std::string> modules = {};  // directories, read
    bool cameras = false;                   // /dev/video*, also those that are plugged in later
    std::string socket_directory = {};      // where the listener removes its socket
    std::string output_directory = {};      // where files are created, renamed and removed
    pid_t command = -1;                     // a child that may be waited for and signalled
};

// Returns one line on what is in force and what the kernel does not have.
Expected<std::string> EnterSandbox(const SandboxPlan& plan);

}  // namespace zumod
