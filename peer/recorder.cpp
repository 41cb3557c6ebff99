#include "peer/recorder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <utility>

namespace zumod::peer {
namespace {

constexpr int kBufferSize = 65536;
// Limits of what is held back while the rate of bare H.264 is measured.
constexpr size_t kMostHeldFrames = 256;
constexpr size_t kMostHeldBytes = size_t{4} << 20;

struct Options {
    AVDictionary* entries = nullptr;

    Options() = default;
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;
    ~Options() { av_dict_free(&entries); }
};

std::string CreationTime() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text{};
    const size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return {text.data(), size};
}

// The usual rate that the measured one means, or the measured one if it is none.
AVRational UsualRate(double measured, int requested) {
    constexpr double kTolerance = 0.05;
    const std::array<AVRational, 15> usual = {{{requested, 1},
                                               {1, 1},
                                               {2, 1},
                                               {3, 1},
                                               {5, 1},
                                               {15, 2},
                                               {10, 1},
                                               {25, 2},
                                               {15, 1},
                                               {20, 1},
                                               {25, 1},
                                               {30, 1},
                                               {50, 1},
                                               {60, 1},
                                               {120, 1}}};
    for (const AVRational& rate : usual) {
        if (std::abs(measured / av_q2d(rate) - 1) < kTolerance) {
            return rate;
        }
    }
    return av_d2q(measured, 1000000);
}

const char* Format(const std::array<std::pair<const char*, const char*>, 3>& formats,
                   const std::string& name) {
    const auto found = std::ranges::find(formats, name, [](const auto& format) { return format.first; });
    return found != formats.end() ? found->second : nullptr;
}

}  // namespace

const char* RecordingFormat(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension().string();
    return Format({{{".mp4", "mp4"}, {".mkv", "matroska"}, {".h264", "h264"}}}, extension);
}

const char* ContainerFormat(const std::string& name) {
    return Format({{{"mkv", "matroska"}, {"h264", "h264"}, {"ts", "mpegts"}}}, name);
}

Expected<std::unique_ptr<Recorder>> Recorder::Create(const RecordingSettings& settings,
                                                     RecordingOutput& output) {
    AVFormatContext* file = nullptr;
    const int made = avformat_alloc_output_context2(&file, nullptr, settings.format, nullptr);
    if (made < 0 || avformat_new_stream(file, nullptr) == nullptr) {
        avformat_free_context(file);
        return Fail("the recording cannot be written: " +
                    std::string(AvErrorText(made < 0 ? made : AVERROR(ENOMEM)).text));
    }
    std::unique_ptr<Recorder> recorder(new Recorder(settings, output, file));
    auto* const buffer = static_cast<uint8_t*>(av_malloc(kBufferSize));
    if (buffer != nullptr) {
        file->pb = avio_alloc_context(buffer, kBufferSize, 1, recorder.get(), nullptr, OnWrite,
                                      output.CanSeek() ? OnSeek : nullptr);
    }
    if (file->pb == nullptr) {
        av_free(buffer);
        return Fail("the recording cannot be written: no memory");
    }
    file->flags |= AVFMT_FLAG_CUSTOM_IO;
    return recorder;
}

Recorder::Recorder(RecordingSettings settings, RecordingOutput& output, AVFormatContext* file)
    : m_settings(std::move(settings)),
      m_output(output),
      m_file(file),
      m_stream(file->streams[0]),
      m_bare(IsFormat("h264")) {}

Recorder::~Recorder() {
    // Without a trailer, nothing is written here: the buffers are freed.
    AVIOContext* const bytes = m_file->pb;
    avformat_free_context(m_file);
    if (bytes != nullptr) {
        av_freep(&bytes->buffer);
        av_free(bytes);
    }
}

bool Recorder::IsFormat(const char* format) const {
    return std::strcmp(m_settings.format, format) == 0;
}

int Recorder::OnWrite(void* recorder, uint8_t* bytes, int size) {
    auto& self = *static_cast<Recorder*>(recorder);
    if (self.m_write_error == 0) {
        self.m_write_error =
            self.m_output.WriteAt(self.m_position, std::span(bytes, static_cast<size_t>(size)));
    }
    if (self.m_write_error != 0) {
        return AVERROR(self.m_write_error);
    }
    self.m_position += size;
    return size;
}

int64_t Recorder::OnSeek(void* recorder, int64_t offset, int whence) {
    auto& self = *static_cast<Recorder*>(recorder);
    // The muxers seek only from the start of the file.
    if (whence != SEEK_SET || offset < 0) {
        return AVERROR(ENOSYS);
    }
    self.m_position = offset;
    return offset;
}

Expected<void> Recorder::Check(int result, const char* step) const {
    if (m_write_error != 0) {
        return Fail("the recording cannot be written: " + ErrnoText(m_write_error));
    }
    if (result < 0) {
        return Fail("the recording cannot be written: " + std::string(step) + ": " +
                    AvErrorText(result).text);
    }
    return {};
}

Expected<bool> Recorder::Add(ParsedFrame frame, Clock::time_point time) {
    const PictureSize size = frame.size;
    if (!m_begun) {
        if (!frame.CanBeFirst() || size.width == 0) {
            return false;
        }
        if (const auto begun = Begin(frame, time); !begun) {
            return Fail(begun.error());
        }
    } else if (size.width != 0 && size != m_size && !(m_bare && m_settings.live)) {
        return Fail("the size of the pictures changed from " + SizeText(m_size) + " to " + SizeText(size) +
                    ": the recording ends there");
    }
    if (m_bare && !m_settings.live && !m_rate) {
        m_held_bytes += static_cast<size_t>(frame.packet->size);
        m_held.push_back({std::move(frame), time});
        const bool enough = time - m_first >= kMeasuredTime || m_held.size() == kMostHeldFrames ||
                            m_held_bytes >= kMostHeldBytes;
        return (enough ? WriteHeld() : Expected<void>()).map([] { return true; });
    }
    return Write(frame, time).map([] { return true; });
}

Expected<void> Recorder::Begin(const ParsedFrame& first, Clock::time_point time) {
    const std::vector<uint8_t>& sets = first.parameter_sets;
    AVCodecParameters& parameters = *m_stream->codecpar;
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = AV_CODEC_ID_H264;
    parameters.width = static_cast<int>(first.size.width);
    parameters.height = static_cast<int>(first.size.height);
    parameters.extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (parameters.extradata == nullptr) {
        return Check(AVERROR(ENOMEM), "header");
    }
    std::memcpy(parameters.extradata, sets.data(), sets.size());
    parameters.extradata_size = static_cast<int>(sets.size());
    // Finer than any distance between frames, where the format allows a choice.
    m_stream->time_base = {1, 90000};
    m_begun = true;
    m_size = first.size;
    m_first = time;
    return WriteHeader();
}

Expected<void> Recorder::WriteHeader() {
    Options options;
    const auto piece_limit = std::chrono::milliseconds(kLongestPiece).count();
    if (IsFormat("mp4")) {
        av_dict_set(&options.entries, "movflags", "+empty_moov+default_base_moof+frag_keyframe", 0);
        av_dict_set_int(&options.entries, "frag_duration", piece_limit * 1000, 0);
    } else if (IsFormat("matroska")) {
        av_dict_set_int(&options.entries, "cluster_time_limit", piece_limit, 0);
    }
    if (m_settings.live) {
        // Stated in the header, so that players need not look at many frames before they show the first one.
        m_stream->avg_frame_rate = {m_settings.fps, 1};
    }
    av_dict_set(&m_file->metadata, "creation_time", CreationTime().c_str(), 0);
    if (!m_settings.title.empty()) {
        av_dict_set(&m_file->metadata, "title", m_settings.title.c_str(), 0);
    }
    const int result = avformat_write_header(m_file, &options.entries);
    if (result >= 0 && IsFormat("mp4") && m_output.CanSeek()) {
        m_index_position = avio_tell(m_file->pb);
        const auto placeholder = SidxBox::Placeholder();
        avio_write(m_file->pb, placeholder.data(), static_cast<int>(placeholder.size()));
    }
    m_frame_duration = av_rescale_q(1, {1, m_settings.fps}, m_stream->time_base);
    return Check(result, "header").and_then([this] { return WriteOut(0); });
}

// Hands everything that libavformat has written on to the output. The recording is playable up to
// `end_stamp`.
Expected<void> Recorder::WriteOut(int64_t end_stamp) {
    avio_flush(m_file->pb);
    auto checked = Check(m_file->pb->error, "writing");
    if (checked) {
        m_playable_bytes = avio_tell(m_file->pb);
        m_playable_time =
            std::chrono::microseconds(av_rescale_q(end_stamp, m_stream->time_base, {1, 1000000}));
    }
    return checked;
}

Expected<void> Recorder::Write(ParsedFrame& frame, Clock::time_point time) {
    AVPacket& packet = *frame.packet;
    if (m_rate && frame.CanBeFirst() && av_cmp_q(frame.stated_rate, *m_rate) != 0) {
        StateRate(packet, *m_rate);
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(time - m_first).count();
    // Time stamps must increase, also of frames that arrived at once.
    const int64_t stamp = std::max(av_rescale_q(us, {1, 1000000}, m_stream->time_base), m_last_stamp + 1);
    if (m_last_stamp >= 0) {
        const int64_t second = av_rescale_q(1, {1, 1}, m_stream->time_base);
        m_frame_duration = std::min(stamp - m_last_stamp, second);
    }
    m_last_stamp = stamp;
    packet.pts = packet.dts = stamp;
    packet.duration = m_frame_duration;
    packet.stream_index = m_stream->index;
    packet.flags = frame.key ? AV_PKT_FLAG_KEY : 0;
    const int64_t begin = avio_tell(m_file->pb);
    if (auto written = Check(av_write_frame(m_file, &packet), "writing"); !written) {
        return written;
    }
    const int64_t end = avio_tell(m_file->pb);
    if (!HasPieces()) {
        return WriteOut(stamp + m_frame_duration);
    }
    auto result = Expected<void>();
    if (end > begin) {
        EndPiece(begin, end);
        result = WriteOut(stamp);
    }
    if (!m_open) {
        m_open = Piece{stamp, frame.key, time};
    }
    return m_settings.live && result ? Flush() : result;
}

// The pieces are written as a whole, so `begin` is where the piece before this one ends.
void Recorder::EndPiece(int64_t begin, int64_t end) {
    if (!m_open) {
        return;
    }
    if (m_written) {
        m_index.Add(static_cast<uint64_t>(m_written->bytes),
                    static_cast<uint64_t>(m_open->stamp - m_written->stamp), m_written->key);
    }
    m_written = std::exchange(m_open, std::nullopt);
    m_written->bytes = end - begin;
}

Expected<void> Recorder::WriteHeld() {
    const double count = static_cast<double>(m_held.size());
    const auto span = std::chrono::duration<double>(m_held.back().time - m_held.front().time).count();
    m_rate = span > 0 ? UsualRate((count - 1) / span, m_settings.fps) : AVRational{m_settings.fps, 1};
    for (Held& held : std::exchange(m_held, {})) {
        if (auto written = Write(held.frame, held.time); !written) {
            return written;
        }
    }
    return {};
}

Clock::time_point Recorder::FlushDue() const {
    constexpr auto kLongestHeld = std::chrono::seconds(1);
    if (!m_held.empty()) {
        return m_held.front().time + kLongestHeld;
    }
    return m_open ? m_open->time + kLongestHeld : Clock::time_point::max();
}

Expected<void> Recorder::Flush() {
    if (!m_begun || m_write_error != 0) {
        return {};
    }
    if (!m_held.empty()) {
        return WriteHeld();
    }
    if (!m_open) {
        return {};
    }
    const int64_t begin = avio_tell(m_file->pb);
    return Check(av_write_frame(m_file, nullptr), "writing").and_then([&] {
        EndPiece(begin, avio_tell(m_file->pb));
        return WriteOut(m_last_stamp + m_frame_duration);
    });
}

Expected<void> Recorder::Finish() {
    if (!m_begun) {
        return {};
    }
    return Flush().and_then([this] { return Check(av_write_trailer(m_file), "end"); }).and_then([this] {
        avio_flush(m_file->pb);
        return Check(m_file->pb->error, "end").and_then([this] { return WriteIndex(); });
    });
}

Expected<void> Recorder::WriteIndex() {
    if (m_index_position < 0 || !m_written) {
        return {};
    }
    m_index.Add(static_cast<uint64_t>(m_written->bytes),
                static_cast<uint64_t>(m_last_stamp + m_frame_duration - m_written->stamp), m_written->key);
    const auto index = m_index.Bytes(static_cast<uint32_t>(m_stream->time_base.den));
    if (index.empty()) {
        return {};
    }
    // Size and type of the box come last: until then it is one that players skip.
    constexpr size_t kBoxHeader = 8;
    const auto bytes = std::span(index);
    m_write_error =
        m_output.WriteAt(m_index_position + static_cast<int64_t>(kBoxHeader), bytes.subspan(kBoxHeader));
    if (m_write_error == 0) {
        m_write_error = m_output.WriteAt(m_index_position, bytes.first(kBoxHeader));
    }
    return Check(0, "index");
}

}  // namespace zumod::peer
