// Interposed functions that list directories: in /dev the nodes of virtual cameras follow the real entries.
#include <dirent.h>
#include <dlfcn.h>
#include <glob.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "vcam/preload/preload.h"

namespace zumod::vcam {
namespace {

// An open listing of /dev. Like any directory stream it is used by one thread at a time.
struct Listing {
    std::atomic<DIR*> stream;
    bool at_end;
    unsigned next;
    unsigned count;
    uint32_t numbers[kMaxCameras];
    dirent entry;
};

constexpr unsigned kMaxListings = 32;
constinit Listing listings[kMaxListings] = {};
constinit std::atomic<unsigned> open_listings{0};
DIR* const kBeingFilled = reinterpret_cast<DIR*>(1);

bool IsDev(const char* path) {
    const size_t length = path == nullptr ? 0 : std::strspn(path, "/");
    if (length == 0 || std::strncmp(path + length, "dev", 3) != 0) {
        return false;
    }
    const char* rest = path + length + 3;
    return rest[std::strspn(rest, "/.")] == 0 && std::strstr(rest, "..") == nullptr;
}

Listing* FindListing(DIR* stream) {
    if (open_listings.load(std::memory_order_acquire) == 0) {
        return nullptr;
    }
    for (Listing& listing : listings) {
        if (listing.stream.load(std::memory_order_acquire) == stream) {
            return &listing;
        }
    }
    return nullptr;
}

void Restart(Listing& listing) {
    listing.at_end = false;
    listing.next = 0;
    listing.count = ListNodes(listing.numbers);
}

void BeginListing(DIR* stream) {
    for (Listing& listing : listings) {
        DIR* none = nullptr;
        if (listing.stream.compare_exchange_strong(none, kBeingFilled, std::memory_order_acq_rel)) {
            Restart(listing);
            open_listings.fetch_add(1, std::memory_order_acq_rel);
            listing.stream.store(stream, std::memory_order_release);
            return;
        }
    }
}

bool IsListed(const Listing& listing, const char* name) {
    const int number = ReadNodeName(name);
    return std::any_of(listing.numbers, listing.numbers + listing.count,
                       [number](uint32_t ours) { return static_cast<int>(ours) == number; });
}

static_assert(sizeof(dirent) == sizeof(dirent64), "one listing serves readdir and readdir64");

template <class Entry>
Entry* ReadEntry(DIR* stream, Entry* (*real)(DIR*)) {
    Listing* listing = FindListing(stream);
    if (listing == nullptr) {
        return real(stream);
    }
    while (!listing->at_end) {
        Entry* entry = real(stream);
        if (entry == nullptr) {
            listing->at_end = true;
        } else if (!IsListed(*listing, entry->d_name)) {
            return entry;
        }
    }
    if (listing->next >= listing->count) {
        return nullptr;
    }
    const uint32_t number = listing->numbers[listing->next++];
    dirent& entry = listing->entry;
    entry = {};
    entry.d_ino = kFirstInode + number;
    entry.d_reclen = sizeof entry;
    entry.d_type = DT_CHR;
    *PutNumber(PutText(entry.d_name, "video"), number) = 0;
    return reinterpret_cast<Entry*>(&entry);
}

void EndListing(DIR* stream) {
    if (Listing* listing = FindListing(stream)) {
        listing->stream.store(nullptr, std::memory_order_release);
        open_listings.fetch_sub(1, std::memory_order_acq_rel);
    }
}

// The C library's scandir does not call the interposed readdir, so a scan of /dev is done here.
int Scan(const char* path, dirent*** list, int (*filter)(const dirent*),
         int (*compare)(const dirent**, const dirent**)) {
    DIR* stream = opendir(path);
    if (stream == nullptr) {
        return -1;
    }
    dirent** found = nullptr;
    size_t count = 0;
    bool failed = false;
    while (dirent* entry = readdir(stream)) {  // NOLINT(concurrency-mt-unsafe): our own stream
        if (filter != nullptr && filter(entry) == 0) {
            continue;
        }
        // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers
        auto** grown = static_cast<dirent**>(std::realloc(found, (count + 1) * sizeof *found));
        auto* copy = grown == nullptr ? nullptr : static_cast<dirent*>(std::malloc(sizeof(dirent)));
        if (grown != nullptr) {
            found = grown;
        }
        if (copy == nullptr) {
            failed = true;
            break;
        }
        std::memcpy(copy, entry, entry->d_reclen < sizeof *copy ? entry->d_reclen : sizeof *copy);
        found[count++] = copy;
    }
    closedir(stream);
    if (failed) {
        while (count != 0) {
            std::free(found[--count]);
        }
        std::free(found);
        errno = ENOMEM;
        return -1;
    }
    if (compare != nullptr && count > 1) {
        using Compare = int (*)(const void*, const void*);
        // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers
        std::qsort(found, count, sizeof *found, reinterpret_cast<Compare>(compare));
    }
    *list = found;
    return static_cast<int>(count);
}

bool ListsDev(const char* pattern) {
    return pattern != nullptr && std::strncmp(pattern, "/dev/", 5) == 0 && ServerName() != nullptr;
}

}  // namespace
}  // namespace zumod::vcam

using namespace zumod::vcam;

ZU_VCAM_EXPORT DIR* opendir(const char* path) {
    DIR* stream = ZU_VCAM_REAL(opendir)(path);
    if (stream != nullptr && IsDev(path) && ServerName() != nullptr) {
        BeginListing(stream);
    }
    return stream;
}

ZU_VCAM_EXPORT DIR* fdopendir(int directory) {
    DIR* stream = ZU_VCAM_REAL(fdopendir)(directory);
    if (stream != nullptr && ServerName() != nullptr && IsDevDirectory(directory)) {
        BeginListing(stream);
    }
    return stream;
}

ZU_VCAM_EXPORT dirent* readdir(DIR* stream) {
    return ReadEntry(stream, ZU_VCAM_REAL(readdir));
}

ZU_VCAM_EXPORT dirent64* readdir64(DIR* stream) {
    return ReadEntry(stream, ZU_VCAM_REAL(readdir64));
}

ZU_VCAM_EXPORT void rewinddir(DIR* stream) __THROW {
    if (Listing* listing = FindListing(stream)) {
        Restart(*listing);
    }
    ZU_VCAM_REAL(rewinddir)(stream);
}

ZU_VCAM_EXPORT int closedir(DIR* stream) {
    EndListing(stream);
    return ZU_VCAM_REAL(closedir)(stream);
}

ZU_VCAM_EXPORT int scandir(const char* path, dirent*** list, int (*filter)(const dirent*),
                           int (*compare)(const dirent**, const dirent**)) {
    return IsDev(path) && ServerName() != nullptr ? Scan(path, list, filter, compare)
                                                  : ZU_VCAM_REAL(scandir)(path, list, filter, compare);
}

ZU_VCAM_EXPORT int scandir64(const char* path, dirent64*** list, int (*filter)(const dirent64*),
                             int (*compare)(const dirent64**, const dirent64**)) {
    using Filter = int (*)(const dirent*);
    using Compare = int (*)(const dirent**, const dirent**);
    return IsDev(path) && ServerName() != nullptr
               ? Scan(path, reinterpret_cast<dirent***>(list), reinterpret_cast<Filter>(filter),
                      reinterpret_cast<Compare>(compare))
               : ZU_VCAM_REAL(scandir64)(path, list, filter, compare);
}

// The C library's glob does not call the interposed functions either, but it can be told which to call.
// NOLINTBEGIN(concurrency-mt-unsafe): glob's own stream
#define ZU_VCAM_GLOB(bits)                                                                              \
    ZU_VCAM_EXPORT int glob##bits(const char* pattern, int flags, int (*error)(const char*, int),       \
                                  glob##bits##_t* result) __THROW {                                     \
        if (ListsDev(pattern) && (flags & GLOB_ALTDIRFUNC) == 0) {                                      \
            result->gl_opendir = [](const char* path) -> void* { return opendir(path); };               \
            result->gl_readdir = [](void* stream) { return readdir##bits(static_cast<DIR*>(stream)); }; \
            result->gl_closedir = [](void* stream) { closedir(static_cast<DIR*>(stream)); };            \
            result->gl_lstat = &lstat##bits;                                                            \
            result->gl_stat = &stat##bits;                                                              \
            flags |= GLOB_ALTDIRFUNC;                                                                   \
        }                                                                                               \
        return ZU_VCAM_REAL(glob##bits)(pattern, flags, error, result);                                 \
    }

ZU_VCAM_GLOB()
ZU_VCAM_GLOB(64)
// NOLINTEND(concurrency-mt-unsafe)
