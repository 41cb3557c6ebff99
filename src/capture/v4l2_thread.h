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
    // Returns false so that the work is not repeated, whatever the work itself returns.
    bool Run() override {
        if (m_work) {
            m_work();
        }
        return false;
    }

private:
    // Written by the owner before Start creates the thread; the creation orders the write before the thread's
    // reads.
    std::function<bool()> m_work;
};

}  // namespace zumod
