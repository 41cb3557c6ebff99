// The look for a V4L2 memory-to-memory encoder: at most one in vain per process, and none on a machine that
// has only cameras.
//
// The problem. libavcodec looks for such an encoder by opening every /dev/videoN, cameras included, on the
// thread that encodes. An open wakes a USB camera up, which takes time and may light its lamp.
//
// The rule. The kernel says in /sys what each device is attached to. A memory-to-memory encoder is part of
// the machine; what is attached by USB, or to nothing, is a camera or a virtual device. If there is nothing
// else, the library does not look. Otherwise it does, until it has found nothing once. If it does find an
// encoder, each further encoder looks again, because the library cannot be told where the device is.
//
// Thread rule: any thread. m_mutex serialises the looks: of two threads that open their first encoder at the
// same time, one looks, and the other waits for what it finds.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "common/mutex.h"

namespace zumod {

class V4l2Look {
public:
    // `classes` is the kernel's directory of V4L2 devices.
    explicit V4l2Look(std::string classes) : m_classes(std::move(classes)) {}

    static V4l2Look& OfProcess();

    // Calls `look`, which returns what it found or null, unless there is nothing to find.
    template <class Look>
    auto Run(const Look& look) -> decltype(look()) {
        const MutexLock lock(m_mutex);
        if (!m_may_find) {
            m_may_find = HasDeviceOfTheMachine();
        }
        if (!*m_may_find) {
            return nullptr;
        }
        auto found = look();
        m_may_find = found != nullptr;
        return found;
    }

private:
    bool HasDeviceOfTheMachine() const;

    const std::string m_classes;
    Mutex m_mutex;
    std::optional<bool> m_may_find ZU_GUARDED_BY(m_mutex);  // none before the first look
};

}  // namespace zumod
