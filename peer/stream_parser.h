// A parser of encoded pictures: size, key frame and parameter sets, without decoding.
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

struct ParsedFrame {
    AvOwner<AVPacket> packet;  // a copy, padded because the libraries may read a little past the end
    bool key = false;
    PictureSize size;                     // 0x0 if the stream has not stated it yet
    std::vector<uint8_t> parameter_sets;  // of a key frame; empty if it has none
    AVRational stated_rate{};  // frames per second that the stream states; 0/1 or 0/0 if it does not

    // A recording has to start with a key frame that contains the parameter sets.
    bool CanBeFirst() const { return key && !parameter_sets.empty(); }
};

// Writes another frame rate into the parameter sets of a packet. A packet without them, or one that cannot be
// understood, stays as it is.
void StateRate(AVPacket& packet, AVRational rate);

class StreamParser {
public:
    static Expected<StreamParser> Create();

    Expected<ParsedFrame> Parse(std::span<const uint8_t> bytes);

private:
    struct Closer {
        void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
    };

    StreamParser() = default;

    std::unique_ptr<AVCodecParserContext, Closer> m_parser;
    AvOwner<AVCodecContext> m_context;
};

}  // namespace zumod::peer
