#include "peer/recorder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

#include "peer/peer_error.h"
#include "peer/picture_size.h"

namespace zumod::peer {

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

Recorder::Recorder(const std::string& path, const char* format, int fps) : m_fps(fps) {
    Check(avformat_alloc_output_context2(&m_file, nullptr, format, nullptr), "format");
    m_stream = avformat_new_stream(m_file, nullptr);
    const int opened = m_stream == nullptr
                           ? AVERROR(ENOMEM)
                           : avio_open(&m_file->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE);
    if (opened < 0) {
        avformat_free_context(std::exchange(m_file, nullptr));
        Check(opened, "opening");
    }
}

Recorder::~Recorder() {
    avio_closep(&m_file->pb);
    avformat_free_context(m_file);
}

bool Recorder::Add(std::span<const uint8_t> frame, Clock::time_point arrival) {
    const AvOwner<AVPacket> packet = MakePacket(frame);
    const StreamParser::Picture picture = m_parser.Parse(*packet);
    if (!m_begun) {
        if (!picture.key || picture.size.width == 0) {
            return false;
        }
        Begin(*packet, picture.size, arrival);
        if (!m_begun) {
            return false;
        }
    } else if (picture.size.width != 0 && picture.size != m_size) {
        throw PeerError("the size of the pictures changed from " + SizeText(m_size) + " to " +
                        SizeText(picture.size) + ": the recording ends there");
    }
    m_last = arrival;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(arrival - m_first).count();
    // Two frames that came at once still follow one another.
    m_last_stamp = std::max(av_rescale_q(us, {1, 1000000}, m_stream->time_base), m_last_stamp + 1);
    packet->pts = packet->dts = m_last_stamp;
    packet->duration = av_rescale_q(1, {1, m_fps}, m_stream->time_base);
    packet->stream_index = m_stream->index;
    packet->flags = picture.key ? AV_PKT_FLAG_KEY : 0;
    Check(av_write_frame(m_file, packet.get()), "writing");
    ++m_frames;
    m_bytes += frame.size();
    return true;
}

void Recorder::Begin(const AVPacket& key_frame, PictureSize size, Clock::time_point arrival) {
    const std::vector<uint8_t> parameter_sets = ParameterSets(key_frame);
    if (parameter_sets.empty()) {
        return;
    }
    AVCodecParameters& parameters = *m_stream->codecpar;
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = AV_CODEC_ID_H264;
    parameters.width = static_cast<int>(size.width);
    parameters.height = static_cast<int>(size.height);
    parameters.extradata =
        static_cast<uint8_t*>(av_mallocz(parameter_sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (parameters.extradata == nullptr) {
        Check(AVERROR(ENOMEM), "header");
    }
    std::memcpy(parameters.extradata, parameter_sets.data(), parameter_sets.size());
    parameters.extradata_size = static_cast<int>(parameter_sets.size());
    // Finer than any distance between frames, where the format lets one choose.
    m_stream->time_base = {1, 90000};
    Check(avformat_write_header(m_file, nullptr), "header");
    m_begun = true;
    m_size = size;
    m_first = arrival;
}

void Recorder::Finish() {
    if (m_begun) {
        Check(av_write_trailer(m_file), "end");
        Check(avio_closep(&m_file->pb), "closing");
    }
}

void Recorder::Check(int result, const char* what) const {
    if (result < 0) {
        throw PeerError("the recording cannot be written: " + std::string(what) + ": " +
                        AvErrorText(result).text);
    }
}

}  // namespace zumod::peer
