// The place that holds the host's stream, shared by the host's thread and the send thread.
//
// Thread rule: Set and Get are [run thread]; Borrow and GiveBack are [send thread], in pairs.
#pragma once

#include <utility>

#include "src/base/mutex_lock.h"
#include "zumod/channel_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod {

// The send thread writes to the stream as it stands, without a reference of its own. A stream that is
// replaced in the middle of such a write is released when the write is over.
class ChannelSlot {
public:
    void Set(CRefPtr_T<IChannelStream> stream) {
        // Declared before the guard: a stream is released after the lock, since its destruction is the host's
        // code.
        CRefPtr_T<IChannelStream> released;
        const LockGuard guard(m_lock);
        released = std::exchange(m_stream, std::move(stream));
        if (released != nullptr && released.Get() == m_borrowed) {
            m_retired = std::move(released);
        }
    }

    CRefPtr_T<IChannelStream> Get() {
        const LockGuard guard(m_lock);
        return m_stream;
    }

    // Valid until GiveBack; null when no stream is set.
    IChannelStream* Borrow() {
        const LockGuard guard(m_lock);
        m_borrowed = m_stream.Get();
        return m_borrowed;
    }

    void GiveBack() {
        CRefPtr_T<IChannelStream> released;
        const LockGuard guard(m_lock);
        m_borrowed = nullptr;
        released = std::move(m_retired);
    }

private:
    CMutexLock m_lock;
    CRefPtr_T<IChannelStream> m_stream ZU_GUARDED_BY(m_lock);
    // What the send thread is writing to, and that stream's reference once it was replaced.
    IChannelStream* m_borrowed ZU_GUARDED_BY(m_lock) = nullptr;
    CRefPtr_T<IChannelStream> m_retired ZU_GUARDED_BY(m_lock);
};

}  // namespace zumod
