// A decoder for a camera's frames, from the codec module.
//
// Thread rule: the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "common/error.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/ref_ptr.h"

namespace zumod::peer {

class PictureDecoder {
public:
    using OnPicture = std::function<void(const VideoDecodedPicture&)>;

    // Loads zu-codec.so from the directory; if that is empty, from the one that belongs to the program.
    static Expected<PictureDecoder> Create(std::string module_directory, VideoTargetFormat target);

    // Calls `on_picture` for each picture in the frame, which is not empty. The planes are valid during the
    // call; what it throws is thrown from here. Returns false if there is no picture: the frame is damaged,
    // or depends on one that was not seen.
    bool Decode(std::span<const uint8_t> frame, const OnPicture& on_picture);

    // Forgets the stream: the next frame belongs to another one.
    Expected<void> Restart();

private:
    PictureDecoder(std::string directory, VideoTargetFormat target)
        : m_directory(std::move(directory)), m_target(target) {}

    std::string m_directory;
    VideoTargetFormat m_target;
    CRefPtr_T<IVDecoder> m_decoder;
};

}  // namespace zumod::peer
