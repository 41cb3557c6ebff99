// A model of the plugin: its answers to any bytes of a peer, written from the protocol's tables without
// the plugin's code. The receive loop's fuzzer compares the two.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

class CameraChannelModel {
public:
    // A machine with one camera "Cam" of 640x480 and 1280x720. Messages above `limit` bytes get no memory.
    CameraChannelModel(bool built_in, bool opens, uint64_t limit)
        : m_opens(built_in && opens), m_limit(limit) {}

    Bytes AnswersTo(const Bytes& input) {
        Bytes answers;
        for (size_t at = 0; input.size() - at >= 8;) {
            const uint64_t length = NumberAt(input, at, 4);
            if (8 + length > m_limit || input.size() - at - 8 < length) {
                break;
            }
            const auto body = input.begin() + static_cast<std::ptrdiff_t>(at + 8);
            answers =
                answers + AnswerTo(input[at + 4], Bytes(body, body + static_cast<std::ptrdiff_t>(length)));
            at += 8 + length;
        }
        return answers;
    }

private:
    // Missing bytes of a number count as 0.
    static uint32_t NumberAt(const Bytes& bytes, size_t at, size_t size) {
        uint32_t number = 0;
        for (size_t i = 0; i < size && at + i < bytes.size(); ++i) {
            number |= uint32_t{bytes[at + i]} << (8 * i);
        }
        return number;
    }

    static Bytes State(uint8_t state, uint32_t id) {
        return {8,
                0,
                0,
                0,
                5,
                0,
                0,
                0,
                state,
                0,
                0,
                0,
                static_cast<uint8_t>(id),
                static_cast<uint8_t>(id >> 8),
                static_cast<uint8_t>(id >> 16),
                static_cast<uint8_t>(id >> 24)};
    }

    static Bytes List() {
        const Bytes name = {'C', 'a', 'm'};
        return Bytes{0x2C, 5, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0} + Bytes(6, 0) + name + Bytes(517, 0) + name +
               Bytes(771, 0) + Bytes{2, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 0, 5, 0, 0, 0xD0, 2, 0, 0};
    }

    Bytes AnswerTo(uint8_t type, const Bytes& body) {
        const uint32_t id = NumberAt(body, 0, 4);
        switch (type) {
            case 1:
                return List();
            case 3:
                if (body.size() != 16) {
                    return {};
                }
                if (m_opens) {
                    m_open.insert(id);
                }
                return State(m_open.count(id) != 0 ? 2 : 1, id);
            case 4:
                m_open.erase(id);
                return State(4, id);
            case 10:
                return {4, 0, 0, 0, 11, 0, 0, 0, 5, 0, 0, 0};
            default:
                return {};
        }
    }

    const bool m_opens;
    const uint64_t m_limit;
    std::set<uint32_t> m_open;
};

}  // namespace zumod::testing
