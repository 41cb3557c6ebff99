// A program's side of a camera that it feeds with pictures (model/feed.h). Such a camera is one of
// "zu-vcam --camera source=feed".
//
// Thread rule: one thread at a time. After Connect() it needs no further descriptors and no file names.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "common/error.h"
#include "common/unique_fd.h"
#include "vcam/model/feed.h"

namespace zumod::vcam {

class Feeder {
public:
    // Planes of a 4:2:0 picture with even sides.
    struct Picture {
        uint32_t width = 0;
        uint32_t height = 0;
        std::array<const uint8_t*, 3> planes{};
        std::array<size_t, 3> strides{};
    };

    // `camera` counts from 0 in the order of the --camera options.
    static Expected<Feeder> Connect(const std::string& server_name, unsigned camera);
    Feeder(Feeder&& other) noexcept;
    Feeder& operator=(Feeder&&) = delete;
    ~Feeder();

    // Readable when Receive() has something to return.
    int Descriptor() const { return m_socket.Get(); }
    // The next notice, or nothing. Fails if the server is gone.
    Expected<std::optional<FeedNotice>> Receive();
    // Returns false if a picture of this size does not fit.
    bool Put(const Picture& picture);
    Expected<void> SetPlugged(bool is_plugged);

private:
    Feeder() = default;

    UniqueFd m_socket;
    FeedMemory* m_header = nullptr;  // null: not mapped
    uint32_t m_slot_size = 0;
    uint32_t m_slot = FeedMemory::kFirstOfFeeder;
};

}  // namespace zumod::vcam
