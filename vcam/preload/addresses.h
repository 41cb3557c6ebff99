// The abstract socket addresses of servers and of device files' descriptors.
//
// Thread rule: pure functions without the C++ runtime library; any thread.
#pragma once

#include <sys/un.h>

#include "vcam/model/wire.h"

namespace zumod::vcam {

// Each writes the address and returns its length.
unsigned DescriptorAddress(const FileIdentity& identity, sockaddr_un& address);
unsigned ServerAddress(const char* server_name, sockaddr_un& address);
// False if the address is not that of a device file.
bool ReadDescriptorAddress(const sockaddr_un& address, unsigned length, FileIdentity& identity);

}  // namespace zumod::vcam
