// Landlock: which files the calling thread, and every thread and process that it starts, may still use. By
// the kernel's system calls; the C library has no functions for them.
//
// Thread rule: main thread, before any other thread starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/error.h"

namespace zumod {

// Rights on a path and on everything beneath it. The kernel defines the bits.
enum LandlockRights : uint64_t {
    kLandlockWriteFile = 1U << 1U,
    kLandlockReadFile = 1U << 2U,
    kLandlockReadDirectory = 1U << 3U,
    kLandlockRemoveFile = 1U << 5U,
    kLandlockMakeFile = 1U << 8U,
    kLandlockTruncate = 1U << 14U,    // version 3
    kLandlockDeviceIoctl = 1U << 15U  // version 5
};

struct LandlockRule {
    std::string path;
    uint64_t rights = 0;
};

// The version of the kernel's Landlock. The error is why there is none.
Expected<int> LandlockVersion();

// Takes every right away that no rule grants, as far as this version knows it: rights on files, TCP (version
// 4), abstract sockets and signals beyond this process and its future children (version 6). `may_connect`
// leaves abstract sockets, `may_signal` signals. A rule for a path that does not exist is left out. Needs
// no_new_privs.
Expected<void> RestrictByLandlock(int version, const std::vector<LandlockRule>& rules, bool may_connect,
                                  bool may_signal);

}  // namespace zumod
