// Reference counting: the interface that every object crossing a module boundary implements, and a ready-made
// implementation of it for hosts and codec modules.
//
// Thread rule: AddRef and Release are [any thread].
#pragma once

#include <atomic>
#include <cstdint>

namespace zumod {

// Binary table: slots 0 and 1 the destructor pair, 2 AddRef, 3 Release.
//
// A new object has a count of 0; the receiver adds the first reference. The release that brings the count
// back to 0 destroys the object.
//
// Each interface redeclares AddRef and Release so that slots 2 and 3 exist in its own vtable: a call through
// the interface then needs no virtual-base offset, which an object not written in C++ does not have.
class IReference {
public:
    // Slots 0 and 1. Never called across a module boundary: Release destroys.
    virtual ~IReference() = default;

    // Slot 2 [any thread]. Adds one reference. Returns the count after the increment.
    virtual uint64_t AddRef() = 0;

    // Slot 3 [any thread]. Drops one reference. Returns the count after the decrement; 0 means that the
    // object has been destroyed and the caller's pointer dangles.
    virtual int64_t Release() = 0;

protected:
    IReference() = default;
    IReference(const IReference&) = default;
    IReference& operator=(const IReference&) = default;
};

// Implements AddRef and Release of an interface. Derive from it and write the interface's own operations:
//
//     class Stream final : public zumod::CCounted_T<zumod::IChannelStream> { ... };
template <class Interface>
class CCounted_T : public Interface {
public:
    CCounted_T() = default;
    CCounted_T(const CCounted_T&) = delete;
    CCounted_T& operator=(const CCounted_T&) = delete;

    uint64_t AddRef() override { return static_cast<uint64_t>(m_references.fetch_add(1) + 1); }

    // Required by the contract: a Release of a new object (count 0) takes the count to -1 and deletes
    // nothing.
    int64_t Release() override {
        const int64_t before = m_references.fetch_sub(1);
        if (before == 1 && m_lives.fetch_sub(1) == 1) {
            delete this;
        }
        return before - 1;
    }

private:
    // Any thread that holds a reference reads and writes both counters. Every access is a sequentially
    // consistent read-modify-write, so the last user's writes happen before the destruction. The life count
    // keeps a reference that is added and dropped during the destruction from destroying the object twice.
    std::atomic<int64_t> m_references{0};
    std::atomic<int64_t> m_lives{1};
};

// A counted object without further operations. Classes of the camera module whose layout the contract fixes
// have it as a non-public base beside their interface; new code derives from CCounted_T<Interface>.
using CReference = CCounted_T<IReference>;

static_assert(sizeof(void*) == 8, "the binary tables are those of a 64-bit machine");
static_assert(sizeof(IReference) == sizeof(void*), "a bare interface is one table pointer");
static_assert(sizeof(CReference) == 24, "table pointer, reference count, life count");
static_assert(std::atomic<int64_t>::is_always_lock_free, "a counter is a plain 64-bit number");

}  // namespace zumod
