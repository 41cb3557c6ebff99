// Decodes a camera's frames with the decoder of the codec module.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "peer/module_services.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/ref_ptr.h"

namespace zumod::peer {

class PictureDecoder {
public:
    using Taker = std::function<void(const VideoDecodedPicture&)>;

    // Loads zu-codec.so from the directory. Throws PeerError.
    PictureDecoder(const std::string& module_directory, VideoTargetFormat target);

    // Gives each picture that comes of the frame, which is not empty, to `taker`; what its planes point at is
    // valid during the call, and what it throws comes back from here. Returns false when there is none: the
    // frame is damaged, or needs one that was not seen.
    bool Decode(std::span<const uint8_t> frame, const Taker& taker);

    // Forgets the stream: the next frame is of another one.
    void Restart();

private:
    void Create();

    const std::string m_directory;
    const VideoTargetFormat m_target;
    ModuleServices& m_services;
    CRefPtr_T<IVDecoder> m_decoder;
};

}  // namespace zumod::peer
