// The plug state of a camera: whether it is plugged in, and its device number. A planned replug takes effect
// at the first query after its time. Nothing can happen to an unplugged camera in between, so no timer is
// needed.
//
// A camera that is held stays unplugged until it is released, even if a replug is planned.
//
// Thread rule: the camera's lock guards it.
#pragma once

#include <chrono>

#include "vcam/model/faults.h"

namespace zumod::vcam {

class PlugState {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit PlugState(int number) : m_number(number) {}

    bool IsPresent(Time now) {
        if (!m_is_present && !m_is_held && now >= m_replug_at) {
            m_is_present = true;
            m_number = m_replug_number;
        }
        return m_is_present;
    }

    // The number it has, or had last.
    int Number() const { return m_number; }

    void Unplug() {
        m_is_present = false;
        m_replug_at = Time::max();
    }

    // While it is unplugged.
    void Hold(bool is_held) { m_is_held = is_held; }
    bool IsReplugPlanned() const { return m_replug_at != Time::max(); }
    // While it is unplugged: lets it come back as the fault (kReplug or kReplugAs) says.
    void Plan(const Fault& replug, Time now) {
        m_replug_at = now + std::chrono::milliseconds(replug.value);
        m_replug_number = replug.kind == FaultKind::kReplug ? m_number : static_cast<int>(replug.value2);
    }

private:
    bool m_is_present = true;
    bool m_is_held = false;
    int m_number;
    Time m_replug_at = Time::max();  // max: nothing is planned
    int m_replug_number = 0;
};

}  // namespace zumod::vcam
