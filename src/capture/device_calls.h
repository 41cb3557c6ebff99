// Link seam for all system calls of the capture layer: tests link a double in its place.
//
// Thread rule: [any thread]. Each function is the system call itself, with its result and its errno.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <cstddef>

struct timeval;

namespace zumod::device {

// Returns the descriptor, or -1 with errno.
int Open(const char* path, int flags);
int Close(int descriptor);
int Ioctl(int descriptor, unsigned long request, void* argument);
// Maps `length` bytes at an address that the system chooses. Returns it, or MAP_FAILED with errno.
void* Map(size_t length, int protection, int flags, int descriptor, off_t offset);
int Unmap(void* address, size_t length);
// Waits until a descriptor of the set is readable. `count` is the highest descriptor plus one; the set may be
// longer than an fd_set. Returns the number of readable descriptors, 0 on timeout, or -1 with errno and the
// set unchanged.
int Select(int count, fd_set* readable, timeval* timeout);

}  // namespace zumod::device
