#include "src/capture/v4l2_thread.h"

#include <utility>

namespace zumod {

CV4L2Thread::~CV4L2Thread() = default;

void CV4L2Thread::SetWork(std::function<bool()> work) {
    m_work = std::move(work);
}

bool CV4L2Thread::Run() {
    if (m_work) {
        m_work();
    }
    return false;
}

}  // namespace zumod
