#include "peer/stream_parser.h"

#include <climits>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavutil/opt.h>
}

namespace zumod::peer {
namespace {

struct FilterDeleter {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};
using Filter = std::unique_ptr<AVBSFContext, FilterDeleter>;

// Null on failure.
Filter OpenFilter(const char* name, std::optional<AVRational> tick_rate = {}) {
    AVBSFContext* filter = nullptr;
    const AVBitStreamFilter* kind = av_bsf_get_by_name(name);
    if (kind == nullptr || av_bsf_alloc(kind, &filter) < 0) {
        return nullptr;
    }
    Filter owner(filter);
    owner->par_in->codec_type = AVMEDIA_TYPE_VIDEO;
    owner->par_in->codec_id = AV_CODEC_ID_H264;
    const bool set = !tick_rate || av_opt_set_q(filter, "tick_rate", *tick_rate, AV_OPT_SEARCH_CHILDREN) >= 0;
    return !set || av_bsf_init(owner.get()) < 0 ? nullptr : std::move(owner);
}

// A copy that went through the filter; null if the filter refuses it.
AvOwner<AVPacket> Filtered(const Filter& filter, const AVPacket& packet) {
    AvOwner<AVPacket> copy(av_packet_clone(&packet));
    const bool done = copy != nullptr && av_bsf_send_packet(filter.get(), copy.get()) >= 0 &&
                      av_bsf_receive_packet(filter.get(), copy.get()) >= 0;
    return done ? std::move(copy) : nullptr;
}

// Empty if the picture has none.
Expected<std::vector<uint8_t>> ParameterSets(const AVPacket& packet) {
    const Filter filter = OpenFilter("extract_extradata");
    if (filter == nullptr) {
        return Fail("libavcodec cannot look for parameter sets");
    }
    const auto copy = Filtered(filter, packet);
    if (copy == nullptr) {
        return std::vector<uint8_t>{};
    }
    size_t size = 0;
    const uint8_t* data = av_packet_get_side_data(copy.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
    return data != nullptr ? std::vector<uint8_t>(data, data + size) : std::vector<uint8_t>{};
}

}  // namespace

void StateRate(AVPacket& packet, AVRational rate) {
    // A frame is two ticks.
    const Filter filter = OpenFilter("h264_metadata", av_mul_q(rate, {2, 1}));
    const auto changed = filter != nullptr ? Filtered(filter, packet) : nullptr;
    if (changed != nullptr) {
        av_packet_unref(&packet);
        av_packet_move_ref(&packet, changed.get());
    }
}

Expected<StreamParser> StreamParser::Create() {
    StreamParser parser;
    parser.m_parser.reset(av_parser_init(AV_CODEC_ID_H264));
    parser.m_context.reset(avcodec_alloc_context3(nullptr));
    if (parser.m_parser == nullptr || parser.m_context == nullptr) {
        return Fail("libavcodec cannot parse H.264");
    }
    parser.m_context->codec_id = AV_CODEC_ID_H264;
    Silence(*parser.m_context);
    parser.m_parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    return parser;
}

Expected<ParsedFrame> StreamParser::Parse(std::span<const uint8_t> bytes) {
    ParsedFrame frame;
    frame.packet.reset(av_packet_alloc());
    if (frame.packet == nullptr || bytes.size() > INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE ||
        av_new_packet(frame.packet.get(), static_cast<int>(bytes.size())) < 0) {
        return Fail("no memory for a frame of " + std::to_string(bytes.size()) + " bytes");
    }
    std::memcpy(frame.packet->data, bytes.data(), bytes.size());
    uint8_t* data = nullptr;
    int size = 0;
    av_parser_parse2(m_parser.get(), m_context.get(), &data, &size, frame.packet->data, frame.packet->size,
                     AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (m_parser->width > 0 && m_parser->height > 0) {
        frame.size = {static_cast<uint32_t>(m_parser->width), static_cast<uint32_t>(m_parser->height)};
    }
    frame.key = m_parser->key_frame == 1;
    frame.stated_rate = m_context->framerate;
    if (frame.key) {
        auto parameter_sets = ParameterSets(*frame.packet);
        if (!parameter_sets) {
            return Fail(parameter_sets.error());
        }
        frame.parameter_sets = std::move(*parameter_sets);
    }
    return frame;
}

}  // namespace zumod::peer
