// What is known of an encoded picture without decoding it.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "common/av_objects.h"
#include "peer/camera_list.h"

extern "C" {
#include <libavcodec/bsf.h>
}

namespace zumod::peer {

// A packet with a copy of the bytes, which the libraries may read a little past. Throws PeerError.
AvOwner<AVPacket> MakePacket(std::span<const uint8_t> bytes);

class StreamParser {
public:
    struct Picture {
        bool key = false;
        PictureSize size;  // 0x0 when the stream has not told yet
    };

    StreamParser();
    ~StreamParser();
    StreamParser(const StreamParser&) = delete;
    StreamParser& operator=(const StreamParser&) = delete;

    Picture Parse(const AVPacket& packet);

private:
    AVCodecParserContext* const m_parser;
    const AvOwner<AVCodecContext> m_context;
};

// The parameter sets in a picture; empty when it has none.
std::vector<uint8_t> ParameterSets(const AVPacket& packet);

}  // namespace zumod::peer
