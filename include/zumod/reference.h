// The counted object: the contract every object that crosses a module boundary keeps, and a ready-made
// implementation of it for whoever writes a host or a codec module.
//
// Thread rule: both operations are [any thread].
#pragma once

#include <atomic>
#include <cstdint>

namespace zumod {

// Binary table: slots 0 and 1 the destructor pair, 2 AddRef, 3 Release.
//
// A new object has a count of 0; whoever receives it adds the first reference. The release that brings the
// count back to 0 destroys the object.
class IReference {
public:
    // Slots 0 and 1. Never called across a module boundary: Release destroys.
    virtual ~IReference() = default;

    // Slot 2 [any thread]. Adds one reference. Returns the count after the increment.
    virtual uint64_t AddRef() = 0;

    // Slot 3 [any thread]. Drops one reference. Returns the count after the decrement; 0 means that the
    // object is gone and the caller's pointer with it.
    virtual int64_t Release() = 0;

protected:
    IReference() = default;
    IReference(const IReference&) = default;
    IReference& operator=(const IReference&) = default;
};

// The one implementation of counting. Derive from it (non-publicly) beside an interface and forward the
// interface's AddRef and Release to it, so that all faces of an object share one pair of counters.
class CReference : public IReference {
public:
    CReference() = default;
    CReference(const CReference&) = delete;
    CReference& operator=(const CReference&) = delete;

    uint64_t AddRef() override { return static_cast<uint64_t>(m_references.fetch_add(1) + 1); }

    // A Release on a fresh object (count 0) only drives the count to -1: nothing is deleted. Kept as it is.
    int64_t Release() override {
        bool last = false;
        const int64_t left = DropReference(last);
        if (last) {
            delete this;
        }
        return left;
    }

protected:
    // Release without the destruction, for a final class whose own Release destroys without going through the
    // table. Returns the count that is left, and tells whether the object's life is over.
    int64_t DropReference(bool& last) {
        const int64_t before = m_references.fetch_sub(1);
        last = before == 1 && m_lives.fetch_sub(1) == 1;
        return before - 1;
    }

private:
    // Both counters are written and read by any thread that holds a reference; every access is a sequentially
    // consistent read-modify-write, which also orders the last user's writes before the destruction.
    std::atomic<int64_t> m_references{0};
    std::atomic<int64_t> m_lives{1};
};

static_assert(sizeof(void*) == 8, "the binary tables are those of a 64-bit machine");
static_assert(sizeof(IReference) == sizeof(void*), "a bare interface is one table pointer");
static_assert(sizeof(CReference) == 24, "table pointer, reference count, life count");

}  // namespace zumod
