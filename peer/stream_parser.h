// What an encoded picture tells without being decoded.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "common/av_objects.h"
#include "common/error.h"
#include "peer/camera_list.h"

namespace zumod::peer {

// A packet with a copy of the bytes, padded because the libraries may read a little past the end.
Expected<AvOwner<AVPacket>> MakePacket(std::span<const uint8_t> bytes);

class StreamParser {
public:
    struct Picture {
        bool key = false;
        PictureSize size;  // 0x0 if the stream has not stated it yet
    };

    static Expected<StreamParser> Create();

    Picture Parse(const AVPacket& packet);

private:
    struct Closer {
        void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
    };

    StreamParser() = default;

    std::unique_ptr<AVCodecParserContext, Closer> m_parser;
    AvOwner<AVCodecContext> m_context;
};

// The parameter sets in a picture; empty if it has none.
Expected<std::vector<uint8_t>> ParameterSets(const AVPacket& packet);

}  // namespace zumod::peer
