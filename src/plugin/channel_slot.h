// Holder of the host's stream, shared by the host's threads and the send thread.
//
// Required by the contract: the send thread takes no reference for a write. A stream that the host replaces
// during such a write is therefore kept here (m_retired) and released when the write has returned.
//
// Thread rule: Set and Get are [run thread]; Borrow and Return are [send thread], in pairs.
#pragma once

#include <utility>

#include "src/base/lock.h"
#include "zumod/channel_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod {

class ChannelSlot {
public:
    void Set(CRefPtr_T<IChannelStream> stream) {
        // Declared before the guard, so that the host's destructor runs after the unlock.
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

    // Valid until Return. Null if no stream is set.
    IChannelStream* Borrow() {
        const LockGuard guard(m_lock);
        m_borrowed = m_stream.Get();
        return m_borrowed;
    }

    void Return() {
        CRefPtr_T<IChannelStream> released;
        const LockGuard guard(m_lock);
        m_borrowed = nullptr;
        released = std::move(m_retired);
    }

private:
    CMutexLock m_lock;
    CRefPtr_T<IChannelStream> m_stream ZU_GUARDED_BY(m_lock);
    // The stream that the send thread is writing to, and its reference once it has been replaced.
    IChannelStream* m_borrowed ZU_GUARDED_BY(m_lock) = nullptr;
    CRefPtr_T<IChannelStream> m_retired ZU_GUARDED_BY(m_lock);
};

}  // namespace zumod
