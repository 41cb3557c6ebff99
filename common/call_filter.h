// The filter of system calls (seccomp, by libseccomp).
//
// A filter can be a list of what is refused or a list of what is permitted. A list of refused calls is easy
// to live with, but every new system call is a hole until somebody adds it. This one permits: about 150 calls
// that the C library, threads, the codec's libraries and the programs use. Three answers for the rest:
//
// - A call in no list: ENOSYS, as if the kernel were older. The C library and drivers have a fallback for
// that
//   (clone3 then clone, epoll_pwait2 then epoll_pwait). EPERM would be a hard error for them.
// - A call that libraries may try and can do without (connect, to reach a name service or a display; mkdir,
//   for a shader cache; sched_setscheduler, for a thread of low priority): EPERM, and the codec goes on.
// - A call that no program here makes, nor a library on the way to a codec, but one that was taken over does:
//   to become another program (execve), to reach into another process (ptrace, process_vm_writev), to change
//   what is mounted or what the kernel runs (mount, finit_module): the process is killed with SIGSYS. The
//   kernel then closes the cameras, and the service manager starts a new host. A library that starts a helper
//   program is not killed: the new process is refused (fork, vfork: EPERM) before anything is executed.
//
// The filter sees numbers, not memory. It decides about flags (a new thread, but not a new process), the type
// of an ioctl (video and graphics devices, but not sound, keyboards, consoles or terminals), the type of a
// socket and the process that a signal is for. It cannot see a path: that is for Landlock. Neither of the two
// hides that a file exists, or its size. mprotect stays permitted: modules and their drivers are loaded while
// the filter is in force.
//
// Thread rule: main thread, before any other thread starts; threads inherit the filter.
#pragma once

#include <sys/types.h>

#include "common/error.h"

namespace zumod {

struct CallFilterNeeds {
    bool cameras = false;          // ioctls of cameras, not only of the codec's devices
    bool virtual_cameras = false;  // connects to Unix sockets of type SOCK_SEQPACKET
    bool output_files = false;     // which are renamed when they are complete
    pid_t command = -1;            // a child that may be waited for and signalled
};

// The error is why the kernel has no such filter.
Expected<void> FindCallFilter();

// Needs no_new_privs.
Expected<void> FilterCalls(const CallFilterNeeds& needs);

}  // namespace zumod
