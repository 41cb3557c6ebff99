// The plugin's send thread: repeats one pass of the send loop until it is stopped.
//
// Thread rule: that of CBaseThread. The owner stops the thread before it destroys it.
#pragma once

#include <functional>
#include <utility>

#include "src/base/base_thread.h"

namespace zumod {

class CClientCameraThread final : public CBaseThread {
public:
    // The thread ends when a pass returns false, or at once if the callable is empty.
    explicit CClientCameraThread(std::function<bool()> pass) : m_pass(std::move(pass)) {}

protected:
    bool Run() override { return m_pass && m_pass(); }

private:
    std::function<bool()> m_pass;
};

}  // namespace zumod
