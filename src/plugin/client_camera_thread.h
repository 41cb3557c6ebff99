// The plugin's send thread: runs one pass of the send loop again and again until it is stopped.
#pragma once

#include <functional>
#include <utility>

#include "src/base/base_thread.h"

namespace zumod {

// The owner sets the callable before the start and stops the thread before it destroys it.
class CClientCameraThread final : public CBaseThread {
public:
    // An empty callable ends the thread at its first pass.
    explicit CClientCameraThread(std::function<bool()> pass) : m_pass(std::move(pass)) {}

protected:
    bool Run() override { return m_pass && m_pass(); }

private:
    std::function<bool()> m_pass;
};

}  // namespace zumod
