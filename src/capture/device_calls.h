// Every call of the capture floor to the system, in one place, so that a test can link a double instead.
//
// Thread rule: every function is [any thread]. Each is the system's own call: same result, same errno.
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
// Maps `length` bytes at an address of the system's choice. Returns the address, or MAP_FAILED with errno.
void* Map(size_t length, int protection, int flags, int descriptor, off_t offset);
int Unmap(void* address, size_t length);
// Waits until a descriptor of the set, which holds at least `count` bits, can be read. Returns how many can,
// 0 after the timeout, or -1 with errno and the set as it was.
int Select(int count, fd_set* readable, timeval* timeout);

}  // namespace zumod::device
