#include "peer/recorder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

namespace zumod::peer {
namespace {

// Fails if `result`, of a libav function, is an error.
Expected<void> Check(int result, const char* step) {
    if (result < 0) {
        return Fail("the recording cannot be written: " + std::string(step) + ": " +
                    AvErrorText(result).text);
    }
    return {};
}

}  // namespace

const char* RecordingFormat(const std::string& path) {
    static constexpr std::array<std::pair<const char*, const char*>, 3> kFormats = {
        {{".mp4", "mp4"}, {".mkv", "matroska"}, {".h264", "h264"}}};
    const std::string extension = std::filesystem::path(path).extension().string();
    for (const auto& [known, format] : kFormats) {
        if (extension == known) {
            return format;
        }
    }
    return nullptr;
}

Expected<std::unique_ptr<Recorder>> Recorder::Create(const std::string& path, const char* format, int fps) {
    auto parser = StreamParser::Create();
    if (!parser) {
        return Fail(parser.error());
    }
    AVFormatContext* file = nullptr;
    if (const auto made = Check(avformat_alloc_output_context2(&file, nullptr, format, nullptr), "format");
        !made) {
        return Fail(made.error());
    }
    const int opened = avformat_new_stream(file, nullptr) == nullptr
                           ? AVERROR(ENOMEM)
                           : avio_open(&file->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE);
    if (const auto checked = Check(opened, "opening"); !checked) {
        avformat_free_context(file);
        return Fail(checked.error());
    }
    return std::unique_ptr<Recorder>(new Recorder(std::move(*parser), file, fps));
}

Recorder::Recorder(StreamParser parser, AVFormatContext* file, int fps)
    : m_parser(std::move(parser)), m_file(file), m_stream(file->streams[0]), m_fps(fps) {}

Recorder::~Recorder() {
    avio_closep(&m_file->pb);
    avformat_free_context(m_file);
}

Expected<bool> Recorder::Add(std::span<const uint8_t> frame, Clock::time_point arrival) {
    const auto parsed = m_parser.Parse(frame);
    if (!parsed) {
        return Fail(parsed.error());
    }
    const PictureSize size = parsed->size;
    if (!m_begun) {
        if (!parsed->CanBeFirst() || size.width == 0) {
            return false;
        }
        if (const auto begun = Begin(*parsed, arrival); !begun) {
            return Fail(begun.error());
        }
    } else if (size.width != 0 && size != m_size) {
        return Fail("the size of the pictures changed from " + SizeText(m_size) + " to " + SizeText(size) +
                    ": the recording ends there");
    }
    AVPacket& packet = *parsed->packet;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(arrival - m_first).count();
    // Time stamps must increase, also of frames that arrived at once.
    m_last_stamp = std::max(av_rescale_q(us, {1, 1000000}, m_stream->time_base), m_last_stamp + 1);
    packet.pts = packet.dts = m_last_stamp;
    packet.duration = av_rescale_q(1, {1, m_fps}, m_stream->time_base);
    packet.stream_index = m_stream->index;
    packet.flags = parsed->key ? AV_PKT_FLAG_KEY : 0;
    return Check(av_write_frame(m_file, &packet), "writing").map([] { return true; });
}

Expected<void> Recorder::Begin(const ParsedFrame& first, Clock::time_point arrival) {
    const std::vector<uint8_t>& sets = first.parameter_sets;
    AVCodecParameters& parameters = *m_stream->codecpar;
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = AV_CODEC_ID_H264;
    parameters.width = static_cast<int>(first.size.width);
    parameters.height = static_cast<int>(first.size.height);
    parameters.extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    int result = AVERROR(ENOMEM);
    if (parameters.extradata != nullptr) {
        std::memcpy(parameters.extradata, sets.data(), sets.size());
        parameters.extradata_size = static_cast<int>(sets.size());
        // Finer than any distance between frames, where the format allows a choice.
        m_stream->time_base = {1, 90000};
        result = avformat_write_header(m_file, nullptr);
    }
    m_begun = result >= 0;
    m_size = first.size;
    m_first = arrival;
    return Check(result, "header");
}

Expected<void> Recorder::Finish() {
    if (!m_begun) {
        return {};
    }
    if (auto ended = Check(av_write_trailer(m_file), "end"); !ended) {
        return ended;
    }
    return Check(avio_closep(&m_file->pb), "closing");
}

}  // namespace zumod::peer
