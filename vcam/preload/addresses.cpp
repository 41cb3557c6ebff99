#include "vcam/preload/addresses.h"

#include <sys/socket.h>

#include <cstddef>
#include <cstring>

namespace zumod::vcam {
namespace {

// An abstract address begins with a NUL and is not in the file system.
char* BeginAddress(sockaddr_un& address, char separator) {
    address = {};
    address.sun_family = AF_UNIX;
    char* next = address.sun_path + 1;
    std::memcpy(next, kAddressPrefix, sizeof kAddressPrefix - 1);
    next += sizeof kAddressPrefix - 1;
    *next++ = separator;
    return next;
}

unsigned LengthUpTo(const sockaddr_un& address, const char* end) {
    return static_cast<unsigned>(offsetof(sockaddr_un, sun_path)) +
           static_cast<unsigned>(end - address.sun_path);
}

}  // namespace

unsigned DescriptorAddress(const FileIdentity& identity, sockaddr_un& address) {
    char* next = BeginAddress(address, ':');
    std::memcpy(next, &identity, sizeof identity);
    return LengthUpTo(address, next + sizeof identity);
}

unsigned ServerAddress(const char* server_name, sockaddr_un& address) {
    char* next = BeginAddress(address, '@');
    for (unsigned i = 0; i < kServerNameSize && server_name[i] != 0; ++i) {
        *next++ = server_name[i];
    }
    return LengthUpTo(address, next);
}

bool ReadDescriptorAddress(const sockaddr_un& address, unsigned length, FileIdentity& identity) {
    sockaddr_un expected;
    const char* body = BeginAddress(expected, ':');
    const auto prefix_size = static_cast<unsigned>(body - expected.sun_path);
    if (address.sun_family != AF_UNIX ||
        length != offsetof(sockaddr_un, sun_path) + prefix_size + sizeof identity ||
        std::memcmp(address.sun_path, expected.sun_path, prefix_size) != 0) {
        return false;
    }
    std::memcpy(&identity, address.sun_path + prefix_size, sizeof identity);
    return true;
}

}  // namespace zumod::vcam
