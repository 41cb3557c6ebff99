// The least that lending a camera can cost: one loop in one process that waits for a picture, encodes it by
// libx264 and writes it to standard output. Ends when the reader does.
//
//     peers_limit DEVICE NV12|YUYV WIDTH HEIGHT RATE KEY_INTERVAL BIT_RATE
//
// Thread rule: one thread.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "bench/bare_camera.h"
#include "bench/bare_encoder.h"

namespace zumod::bench {
namespace {

void WriteAll(const uint8_t* bytes, size_t size) {
    while (size > 0) {
        const ssize_t count = write(STDOUT_FILENO, bytes, size);
        if (count < 0 && errno == EPIPE) {
            std::exit(0);
        }
        Require(count > 0, "standard output cannot be written");
        bytes += count;
        size -= static_cast<size_t>(count);
    }
}

// libx264 has no packed 4:2:2 input, and the codec's stream is 4:2:0.
class YuyvConverter {
public:
    YuyvConverter(int width, int height)
        : m_width(width),
          m_height(height),
          m_picture(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2),
          m_scaler(sws_getContext(width, height, AV_PIX_FMT_YUYV422, width, height, AV_PIX_FMT_YUV420P,
                                  SWS_POINT, nullptr, nullptr, nullptr)) {
        Require(m_scaler != nullptr, "there is no conversion from YUYV");
    }

    const uint8_t* Convert(const uint8_t* yuyv) {
        const int stride = 2 * m_width;
        uint8_t* const luma = m_picture.data();
        uint8_t* const planes[] = {luma, luma + m_width * m_height, luma + m_width * m_height * 5 / 4};
        const int strides[] = {m_width, m_width / 2, m_width / 2};
        sws_scale(m_scaler.get(), &yuyv, &stride, 0, m_height, planes, strides);
        return m_picture.data();
    }

private:
    const int m_width;
    const int m_height;
    std::vector<uint8_t> m_picture;
    const AvOwner<SwsContext> m_scaler;
};

void Run(const char* device, bool yuyv, const BareEncoder::Settings& settings) {
    BareEncoder encoder(settings);
    YuyvConverter converter(settings.width, settings.height);
    BareCamera camera(device, {settings.width, settings.height, settings.rate},
                      yuyv ? V4L2_PIX_FMT_YUYV : V4L2_PIX_FMT_NV12);
    for (;;) {
        camera.OneFrame([&](const uint8_t* picture) {
            const AVPacket& packet = encoder.Encode(yuyv ? converter.Convert(picture) : picture);
            WriteAll(packet.data, static_cast<size_t>(packet.size));
        });
    }
}

}  // namespace
}  // namespace zumod::bench

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    if (argc != 8) {
        std::fprintf(stderr, "peers_limit: needs seven arguments\n");
        return 2;
    }
    try {
        const bool yuyv = std::string(argv[2]) == "YUYV";
        zumod::bench::Run(argv[1], yuyv,
                          {std::stoi(argv[3]), std::stoi(argv[4]), std::stoi(argv[5]), std::stoi(argv[6]),
                           std::stol(argv[7]), yuyv ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_NV12});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "peers_limit: %s\n", error.what());
        return 1;
    }
}
