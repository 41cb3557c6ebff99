#include "vcam/model/fault_set.h"

#include <algorithm>

namespace zumod::vcam {
namespace {

void SetTime(v4l2_buffer& buffer, int64_t microseconds) {
    buffer.timestamp.tv_sec = static_cast<time_t>(microseconds / 1000000);
    buffer.timestamp.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
}

int64_t TimeOf(const v4l2_buffer& buffer) {
    return int64_t{buffer.timestamp.tv_sec} * 1000000 + buffer.timestamp.tv_usec;
}

}  // namespace

const Fault* FaultSet::Find(FaultKind kind) const {
    const auto found =
        std::ranges::find_if(m_active, [kind](const Active& active) { return active.fault.kind == kind; });
    return found == m_active.end() ? nullptr : &found->fault;
}

template <class Condition>
std::optional<Fault> FaultSet::TakeIf(FaultKind kind, Condition condition) {
    const auto found = std::ranges::find_if(
        m_active, [&](const Active& active) { return active.fault.kind == kind && condition(active.fault); });
    if (found == m_active.end()) {
        return std::nullopt;
    }
    const Fault fault = found->fault;
    m_active.erase(found);
    return fault;
}

std::optional<Fault> FaultSet::Take(FaultKind kind) {
    return TakeIf(kind, [](const Fault&) { return true; });
}

bool FaultSet::CountsCallsOf(uint64_t request) const {
    return std::ranges::any_of(m_active, [request](const Active& active) {
        return active.fault.FailsCalls() && active.fault.request == request;
    });
}

// Every fault of the call counts it, also those behind the one that decides. Of several, the kind that
// stands first in the table decides.
int FaultSet::FailsCall(uint64_t request) {
    const Fault* decides = nullptr;
    for (Active& active : m_active) {
        const Fault& fault = active.fault;
        if (fault.FailsCalls() && fault.request == request && fault.Covers(++active.calls) &&
            (decides == nullptr || fault.kind < decides->kind)) {
            decides = &fault;
        }
    }
    return decides == nullptr ? 0 : static_cast<int>(decides->error);
}

const Fault* FaultSet::FindFor(FaultKind kind, uint64_t frame) const {
    const auto found = std::ranges::find_if(m_active, [&](const Active& active) {
        return active.fault.kind == kind && active.fault.Covers(frame);
    });
    return found == m_active.end() ? nullptr : &found->fault;
}

std::optional<std::chrono::milliseconds> FaultSet::TakeStall(uint64_t frame) {
    const auto stall =
        TakeIf(FaultKind::kStall, [frame](const Fault& fault) { return frame >= fault.first; });
    return stall ? std::optional(std::chrono::milliseconds(stall->value)) : std::nullopt;
}

FrameFate FaultSet::OnFrame(uint64_t frame) {
    if (TakeIf(FaultKind::kUnplug, [frame](const Fault& fault) { return frame >= fault.first; })) {
        return FrameFate::kUnplugged;
    }
    if (TakeIf(FaultKind::kFatal, [frame](const Fault& fault) { return frame >= fault.first; })) {
        return FrameFate::kFailed;
    }
    const Fault* every = Find(FaultKind::kDropEvery);
    if (FindFor(FaultKind::kDrop, frame) != nullptr ||
        (every != nullptr && every->value != 0 && (frame + 1) % every->value == 0)) {
        return FrameFate::kDropped;
    }
    return FindFor(FaultKind::kReadableEmpty, frame) != nullptr ? FrameFate::kEmpty : FrameFate::kDelivered;
}

void FaultSet::Spoil(uint64_t frame, v4l2_buffer& buffer) const {
    if (const Fault* fault = FindFor(FaultKind::kShort, frame)) {
        buffer.bytesused =
            static_cast<uint32_t>(buffer.bytesused * std::min<uint64_t>(fault->value, 100) / 100);
    }
    if (FindFor(FaultKind::kZero, frame) != nullptr) {
        buffer.bytesused = 0;
    }
    if (const Fault* fault = FindFor(FaultKind::kLong, frame)) {
        buffer.bytesused = buffer.length + static_cast<uint32_t>(fault->value);
    }
    if (FindFor(FaultKind::kErrorFlag, frame) != nullptr) {
        buffer.flags |= V4L2_BUF_FLAG_ERROR;
    }
    if (const Fault* fault = FindFor(FaultKind::kBadIndex, frame)) {
        buffer.index = static_cast<uint32_t>(fault->value);
    }
    if (FindFor(FaultKind::kRepeat, frame) != nullptr) {
        --buffer.sequence;
    }
    if (const Fault* fault = FindFor(FaultKind::kTimeBack, frame)) {
        SetTime(buffer, TimeOf(buffer) - static_cast<int64_t>(fault->value) * 1000);
    }
    if (Has(FaultKind::kTimeWrap)) {
        buffer.timestamp.tv_sec &= 0xffffffff;
    }
}

}  // namespace zumod::vcam
