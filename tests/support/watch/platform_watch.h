// The C heap and the POSIX thread calls of a test program, watched and made to fail. A program that links
// zu_platform_watch has these calls of its own objects (not those of shared libraries) sent through here.
//
// Thread rule: one watch at a time; the calls it watches come from [any thread].
#pragma once

#include <cstddef>
#include <cstdint>

namespace zumod::testing {

class PlatformWatch {
public:
    // Counting starts, nothing fails.
    PlatformWatch();
    ~PlatformWatch();
    PlatformWatch(const PlatformWatch&) = delete;
    PlatformWatch& operator=(const PlatformWatch&) = delete;

    // The next `times` requests of exactly `size` bytes give null.
    void FailMalloc(size_t size, int times);
    void FailCalloc(size_t size, int times);
    void FailRealloc(size_t size, int times);
    // The next `times` calls of the global operator new for exactly `size` bytes throw.
    void FailNew(size_t size, int times);
    // The next `times` threads are not created.
    void FailThreadCreation(int times);

    // Requests of exactly `size` bytes, failed ones included.
    int Mallocs(size_t size) const;
    int Callocs(size_t size) const;
    // The first block that malloc gave out.
    void* FirstMalloc() const;
    // How often this block was given back with free.
    int Frees(const void* block) const;
    int ThreadsCreated() const;
    int Joins() const;
    int Detaches() const;
    int MutexesDestroyed() const;
};

}  // namespace zumod::testing
