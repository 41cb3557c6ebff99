// The faults a camera has at the moment, and the calls they make fail.
#include <algorithm>
#include <cerrno>

#include "vcam/model/camera.h"

namespace zumod::vcam {

void Camera::Inject(const Fault& fault) {
    {
        const Lock lock(mutex_);
        if (fault.kind == FaultKind::kUnplug && fault.first == 0) {
            UnplugLocked();
        } else if (!present_ && (fault.kind == FaultKind::kReplug || fault.kind == FaultKind::kReplugAs)) {
            const int number = fault.kind == FaultKind::kReplug ? number_ : static_cast<int>(fault.value2);
            if (fault.value == 0) {
                PlugLocked(number);
            } else {
                replug_at_ = Clock::now() + std::chrono::milliseconds(fault.value);
                replug_number_ = number;
            }
        } else {
            faults_.push_back({fault});
            const bool of_clock = fault.kind == FaultKind::kTooFast ||
                                  fault.kind == FaultKind::kSequenceWrap ||
                                  fault.kind == FaultKind::kTimeWrap;
            if (of_clock && IsStreaming()) {
                StartClock();
            }
        }
        UpdateSlowCalls();
    }
    changed_.notify_all();
}

void Camera::ClearFaults() {
    {
        const Lock lock(mutex_);
        const bool was_fast = FindFault(FaultKind::kTooFast) != nullptr;
        faults_.clear();
        UpdateSlowCalls();
        if (was_fast && IsStreaming()) {
            StartClock();
        }
    }
    changed_.notify_all();
}

Camera::ActiveFault* Camera::FindFault(FaultKind kind) {
    const auto found = std::find_if(faults_.begin(), faults_.end(),
                                    [kind](const ActiveFault& active) { return active.fault.kind == kind; });
    return found == faults_.end() ? nullptr : &*found;
}

void Camera::RemoveFault(const ActiveFault* fault) {
    faults_.erase(faults_.begin() + (fault - faults_.data()));
}

// Counts a call against every fault of the kind; the error if one of them covers it.
int Camera::FailCall(FaultKind kind, unsigned long command, int error) {
    int result = 0;
    for (ActiveFault& active : faults_) {
        if (active.fault.kind != kind || (kind == FaultKind::kErrno && active.fault.request != command)) {
            continue;
        }
        if (active.fault.Covers(++active.calls) && result == 0) {
            result = kind == FaultKind::kErrno ? static_cast<int>(active.fault.error) : error;
        }
    }
    return result;
}

int Camera::FailIoctl(unsigned long command) {
    int error = FailCall(FaultKind::kErrno, command, 0);
    const auto also = [&](FaultKind kind, int its_error) {
        if (const int result = FailCall(kind, command, its_error); error == 0) {
            error = result;
        }
    };
    switch (command) {
        case VIDIOC_S_FMT:
            also(FaultKind::kFormatBusy, EBUSY);
            break;
        case VIDIOC_REQBUFS:
            also(FaultKind::kBuffersBusy, EBUSY);
            break;
        case VIDIOC_STREAMON:
            also(FaultKind::kStreamBusy, EBUSY);
            break;
        case VIDIOC_DQBUF:
            also(FaultKind::kEintrStorm, EINTR);
            also(FaultKind::kEagainStorm, EAGAIN);
            break;
        default:
            break;
    }
    return error;
}

// Tells programs which of the calls they make on the board have to be counted here.
void Camera::UpdateSlowCalls() {
    uint32_t slow = 0;
    for (const ActiveFault& active : faults_) {
        switch (active.fault.kind) {
            case FaultKind::kEintrStorm:
            case FaultKind::kEagainStorm:
                slow |= CameraBoard::kSlowDequeue;
                break;
            case FaultKind::kErrno:
                slow |= active.fault.request == VIDIOC_DQBUF  ? CameraBoard::kSlowDequeue
                        : active.fault.request == VIDIOC_QBUF ? CameraBoard::kSlowQueue
                                                              : 0;
                break;
            default:
                break;
        }
    }
    board_.slow.store(slow, std::memory_order_release);
}

}  // namespace zumod::vcam
