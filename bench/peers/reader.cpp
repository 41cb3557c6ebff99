// Reads a camera's stream from standard input and tells when the last byte of each picture arrived.
//
//     peers_reader annexb|channel|mjpeg SKIP PICTURES [STALL_MS EVERY]
//
// Prints "begin" after SKIP pictures and "end" PICTURES later; between the two it only reads. Then it decodes
// each of these pictures, reads the stamp in it and prints one line for it: counter, time of painting, time
// of arrival, time to decode, all in microseconds, and the size in bytes. A picture without a stamp has "-"
// for counter and time. With STALL_MS it stops reading for that time after every EVERY pictures.
//
// Where a picture ends, the channel states before it, and so does MJPEG over HTTP. In Annex B the next
// picture tells. That does not make it older: its time is that of the read which returned its last byte.
//
// Thread rule: one thread.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/require.h"
#include "common/av_objects.h"
#include "common/picture_stamp.h"
#include "zumod/camera_channel.h"

namespace zumod::bench {
namespace {

using Clock = std::chrono::steady_clock;

uint64_t Now() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count());
}

struct Picture {
    std::vector<uint8_t> bytes;
    uint64_t arrived_us = 0;
};

// The bytes that are not part of a picture yet, and when each arrived.
class Input {
public:
    // Waits for bytes. Returns false at the end.
    bool Read() {
        const size_t held = m_bytes.size();
        m_bytes.resize(held + (1 << 16));
        ssize_t count;
        do {
            count = read(STDIN_FILENO, m_bytes.data() + held, 1 << 16);
        } while (count < 0 && errno == EINTR);
        m_bytes.resize(held + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        m_arrived[m_dropped + m_bytes.size()] = Now();
        return count > 0;
    }
    const std::vector<uint8_t>& Bytes() const { return m_bytes; }
    std::string_view Text() const { return {reinterpret_cast<const char*>(m_bytes.data()), m_bytes.size()}; }
    // Removes `size` bytes from the front. The last `picture_size` of them are the picture.
    Picture Take(size_t size, size_t picture_size) {
        const auto end = m_bytes.begin() + static_cast<std::ptrdiff_t>(size);
        Picture picture{{end - static_cast<std::ptrdiff_t>(picture_size), end},
                        m_arrived.lower_bound(m_dropped + size)->second};
        m_bytes.erase(m_bytes.begin(), end);
        m_dropped += size;
        m_arrived.erase(m_arrived.begin(), m_arrived.upper_bound(m_dropped));
        return picture;
    }

private:
    std::vector<uint8_t> m_bytes;
    uint64_t m_dropped = 0;
    std::map<uint64_t, uint64_t> m_arrived;  // by the number of bytes that had arrived by then
};

class Splitter {
public:
    virtual ~Splitter() = default;
    // The next picture, if all of it is there.
    virtual std::optional<Picture> Next(Input& input) = 0;
};

// A picture begins with its parameter sets, or else with its first slice.
class AnnexB final : public Splitter {
public:
    std::optional<Picture> Next(Input& input) override {
        const std::string_view text = input.Text();
        using std::literals::operator""sv;
        for (size_t at; (at = text.find("\0\0\1"sv, m_searched)) + 4 < text.size() && at != text.npos;) {
            m_searched = at + 3;
            const int type = text[at + 3] & 31;
            const bool is_slice = type == 1 || type == 5;
            const bool begins = is_slice ? (text[at + 4] & 0x80) != 0 : type >= 6 && type <= 9;
            if (m_has_slice && begins) {
                const size_t size = at > 0 && text[at - 1] == 0 ? at - 1 : at;
                m_searched -= size;
                m_has_slice = is_slice;
                return input.Take(size, size);
            }
            m_has_slice = m_has_slice || is_slice;
        }
        return std::nullopt;
    }

private:
    size_t m_searched = 0;
    bool m_has_slice = false;  // in the bytes before m_searched
};

class Channel final : public Splitter {
public:
    std::optional<Picture> Next(Input& input) override {
        while (input.Bytes().size() >= sizeof(_MESSAGE_HEADER)) {
            const _MESSAGE_HEADER header = ReadHeader(input.Bytes().data());
            const size_t size = sizeof header + header.length;
            if (input.Bytes().size() < size) {
                break;
            }
            const bool is_frame = header.type == kVideoFrame && header.length >= sizeof(VideoFrameHeader);
            Picture picture = input.Take(size, is_frame ? header.length - sizeof(VideoFrameHeader) : 0);
            if (is_frame) {
                return picture;
            }
        }
        return std::nullopt;
    }
};

class Mjpeg final : public Splitter {
public:
    std::optional<Picture> Next(Input& input) override {
        constexpr std::string_view kLength = "Content-Length: ";
        const std::string_view text = input.Text();
        const size_t field = text.find(kLength);
        const size_t end = field == text.npos ? field : text.find("\r\n\r\n", field);
        if (end == text.npos) {
            return std::nullopt;
        }
        const size_t size = std::stoul(std::string(text.substr(field + kLength.size(), 12)));
        return text.size() < end + 4 + size ? std::nullopt : std::optional(input.Take(end + 4 + size, size));
    }
};

class Decoder {
public:
    explicit Decoder(AVCodecID codec) {
        m_context.reset(avcodec_alloc_context3(avcodec_find_decoder(codec)));
        m_context->thread_count = 1;
        m_context->flags |= AV_CODEC_FLAG_LOW_DELAY;
        Silence(*m_context);
        Require(avcodec_open2(m_context.get(), nullptr, nullptr) >= 0, "the decoder does not open");
    }

    // Decodes a picture, and reads its stamp.
    std::optional<Stamp> Decode(Picture& picture, uint64_t& decode_us) {
        const size_t size = picture.bytes.size();
        picture.bytes.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
        m_packet->data = picture.bytes.data();
        m_packet->size = static_cast<int>(size);
        const uint64_t start = Now();
        const bool decoded = avcodec_send_packet(m_context.get(), m_packet.get()) >= 0 &&
                             avcodec_receive_frame(m_context.get(), m_frame.get()) >= 0;
        decode_us = Now() - start;
        picture.bytes.resize(size);
        if (!decoded) {
            return std::nullopt;
        }
        return ReadStamp(m_frame->data[0], static_cast<size_t>(m_frame->linesize[0]),
                         static_cast<unsigned>(m_frame->width), static_cast<unsigned>(m_frame->height));
    }

private:
    AvOwner<AVCodecContext> m_context;
    const AvOwner<AVPacket> m_packet{av_packet_alloc()};
    const AvOwner<AVFrame> m_frame{av_frame_alloc()};
};

void Say(const char* word) {
    std::printf("%s\n", word);
    std::fflush(stdout);
}

void Run(Splitter& splitter, AVCodecID codec, size_t skip, size_t wanted, unsigned stall_ms, size_t every) {
    Input input;
    std::vector<Picture> pictures;
    while (pictures.size() < skip + wanted) {
        auto picture = splitter.Next(input);
        if (!picture) {
            Require(input.Read(), "the stream ended");
            continue;
        }
        pictures.push_back(std::move(*picture));
        if (pictures.size() == skip) {
            Say("begin");
        }
        if (every != 0 && pictures.size() % every == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(stall_ms));
        }
    }
    Say("end");
    Decoder decoder(codec);
    for (size_t number = 0; number < pictures.size(); ++number) {
        Picture& picture = pictures[number];
        uint64_t decode_us = 0;
        const auto stamp = decoder.Decode(picture, decode_us);
        if (number < skip) {
            continue;
        }
        const std::string read =
            stamp ? std::to_string(stamp->counter) + " " + std::to_string(stamp->time_us) : "- -";
        std::printf("%s %ju %ju %zu\n", read.c_str(), static_cast<uintmax_t>(picture.arrived_us),
                    static_cast<uintmax_t>(decode_us), picture.bytes.size());
    }
}

}  // namespace
}  // namespace zumod::bench

int main(int argc, char** argv) {
    using namespace zumod::bench;
    const std::string format = argc > 1 ? argv[1] : "";
    AnnexB annex_b;
    Channel channel;
    Mjpeg mjpeg;
    const std::map<std::string, Splitter*> splitters{
        {"annexb", &annex_b}, {"channel", &channel}, {"mjpeg", &mjpeg}};
    const auto splitter = splitters.find(format);
    if (splitter == splitters.end() || (argc != 4 && argc != 6)) {
        std::fprintf(stderr, "peers_reader: annexb|channel|mjpeg SKIP PICTURES [STALL_MS EVERY]\n");
        return 2;
    }
    try {
        Run(*splitter->second, format == "mjpeg" ? AV_CODEC_ID_MJPEG : AV_CODEC_ID_H264, std::stoul(argv[2]),
            std::stoul(argv[3]), argc > 4 ? static_cast<unsigned>(std::stoul(argv[4])) : 0,
            argc > 4 ? std::stoul(argv[5]) : 0);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "peers_reader: %s\n", error.what());
        return 1;
    }
}
