// The work thread of a capture: calls a function once.
//
// Thread rule: that of CBaseThread; the owner calls SetWork before Start.
#pragma once

#include <functional>
#include <utility>

#include "src/base/base_thread.h"

namespace zumod {

class CV4L2Thread final : public CBaseThread {
public:
    void SetWork(std::function<bool()> work) { m_work = std::move(work); }

protected:
    // Returns false so that the work runs only once, even if it returns true itself.
    bool Run() override {
        if (m_work) {
            m_work();
        }
        return false;
    }

private:
    // Written before Start creates the thread, which orders the write before the thread's reads.
    std::function<bool()> m_work;
};

}  // namespace zumod
