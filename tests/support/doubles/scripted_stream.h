// A channel stream in memory. It reads the bytes it was constructed with and keeps what the plugin writes;
// either direction can be made slow or made to fail.
//
// Thread rule: set the options before the stream is used. Read is [run thread]; the rest is [any thread].
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/wire/camera_messages.h"
#include "zumod/channel_stream.h"

namespace zumod::testing {

class ScriptedStream final : public CCounted_T<IChannelStream> {
public:
    static constexpr uint64_t kUnlimited = std::numeric_limits<uint64_t>::max();

    explicit ScriptedStream(Bytes input = {}) : m_input(std::move(input)) { ++s_alive; }
    ~ScriptedStream() override { --s_alive; }

    // The most bytes per call.
    uint64_t read_chunk = kUnlimited;
    uint64_t write_chunk = kUnlimited;
    // Writes fail after this many bytes in total.
    uint64_t fail_write_after = kUnlimited;
    // Called before each read and each write, on its thread.
    std::function<void()> on_read;
    std::function<void()> on_write;

    uint64_t AddRef() override {
        ++m_add_refs;
        return CCounted_T::AddRef();
    }

    // The end of the input is a failed read.
    int Read(void* data, unsigned long size, unsigned long* done) override {
        if (on_read) {
            on_read();
        }
        const uint64_t left = m_input.size() - m_read;
        if (left == 0) {
            return -1;
        }
        *done = std::min<uint64_t>({size, left, read_chunk});
        m_read_sizes.push_back(size);
        std::memcpy(data, m_input.data() + m_read, *done);
        m_read += *done;
        return 0;
    }

    int Write(const void* data, unsigned long size, unsigned long* done) override {
        if (on_write) {
            on_write();
        }
        const std::lock_guard guard(m_mutex);
        ++m_write_calls;
        if (m_written.size() >= fail_write_after) {
            return -1;
        }
        *done = std::min<uint64_t>({size, write_chunk, fail_write_after - m_written.size()});
        const auto* bytes = static_cast<const uint8_t*>(data);
        m_written.insert(m_written.end(), bytes, bytes + *done);
        return 0;
    }

    Bytes Written() const {
        const std::lock_guard guard(m_mutex);
        return m_written;
    }
    uint64_t WriteCalls() const {
        const std::lock_guard guard(m_mutex);
        return m_write_calls;
    }
    // The size that each successful read asked for.
    const std::vector<uint64_t>& ReadSizes() const { return m_read_sizes; }
    uint64_t AddRefs() const { return m_add_refs; }

    static int Alive() { return s_alive; }

private:
    const Bytes m_input;
    uint64_t m_read = 0;
    std::vector<uint64_t> m_read_sizes;
    mutable std::mutex m_mutex;
    Bytes m_written;
    uint64_t m_write_calls = 0;
    std::atomic<uint64_t> m_add_refs{0};
    static inline std::atomic<int> s_alive{0};
};

}  // namespace zumod::testing
