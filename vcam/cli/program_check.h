// Finds out whether the preload library can be loaded into a program.
//
// Thread rule: any thread.
#pragma once

#include <sys/types.h>

#include <string>

namespace zumod::vcam {

// Whose rights a program is started with.
struct ProgramUser {
    uid_t user;
    gid_t group;
};

// The file that execvp would run; empty if there is none.
std::string FindProgram(const std::string& name);

// Why the dynamic loader does not load the preload library into this program, or into the interpreter of a
// script: one line, such as `"busybox" is statically linked`. Empty if it does, or if that cannot be found
// out.
std::string WhyWithoutCameras(const std::string& file, ProgramUser starter);

}  // namespace zumod::vcam
