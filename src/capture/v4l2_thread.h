// The work thread of a capture: runs one piece of work once.
//
// Thread rule: that of CBaseThread; SetWork comes before Start, from the owner.
#pragma once

#include <functional>

#include "src/base/base_thread.h"

namespace zumod {

class CV4L2Thread final : public CBaseThread {
public:
    CV4L2Thread() = default;
    ~CV4L2Thread() override;

    void SetWork(std::function<bool()> work);

protected:
    // Returns false whatever the work returns: it is not repeated.
    bool Run() override;

private:
    // Written by the owner before the thread is created, which orders it before the thread's reads.
    std::function<bool()> m_work;
};

}  // namespace zumod
