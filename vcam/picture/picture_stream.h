// Pictures from bytes that arrive in pieces: a Y4M stream (8 bit, 4:2:0), or raw pictures of one format and
// size. The bytes come from any program that can write to a FIFO, so nothing in them is trusted.
//
// Memory: two pictures of at most kMostLivePixels, allocated once a header is accepted. Time: each byte is
// copied once, and only the newest complete picture of each piece is converted, so that a writer of many tiny
// pictures costs no more than one of large ones.
//
// Writers: when one has gone, Restart() forgets the incomplete picture. Two writers may follow each other so
// quickly that nobody sees the gap, so a Y4M stream may begin again where the next frame would. Bytes that
// are neither are refused, with all that follow, until Restart().
//
// Thread rule: one thread at a time. No input or output, no clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/error.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

// 4096x2304, for example: 14 MB of memory.
inline constexpr size_t kMostLivePixels = size_t{4096} * 2304;

class PictureStream {
public:
    // Gets a picture and the number of pictures that were completed, this one included.
    using OnPicture = std::function<void(PlanarImage, uint64_t)>;

    // Without a layout the stream is Y4M.
    explicit PictureStream(std::optional<PictureLayout> raw = {}) : m_raw(raw) { Restart(); }

    // Calls `on_picture` once, with the newest picture, if the bytes complete any. Fails once for a malformed
    // stream, with a few words, and then ignores bytes until Restart().
    Expected<void> Feed(std::span<const uint8_t> bytes, const OnPicture& on_picture);
    void Restart();

private:
    enum class State {
        kLine,     // within the line of a header or a frame
        kPicture,  // within the bytes of a picture
        kRefused,
    };

    // As Feed, and leaves the newest complete picture in m_newest.
    Expected<void> Collect(std::span<const uint8_t> bytes);
    Expected<void> OnLine();

    const std::optional<PictureLayout> m_raw;
    State m_state = State::kLine;
    std::string m_line;
    std::optional<PictureLayout> m_layout;  // once the header is there
    std::vector<uint8_t> m_picture;
    std::vector<uint8_t> m_newest;  // complete
    PictureLayout m_newest_layout{};
    uint64_t m_completed = 0;  // by the bytes of this call
};

}  // namespace zumod::vcam
