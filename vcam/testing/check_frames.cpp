// Checks pictures that another program took from a virtual camera: their number, their order, their rate, and
// that each is the model's picture byte for byte.
#include <linux/videodev2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vcam/picture/jpeg_pattern.h"
#include "vcam/picture/live_picture.h"
#include "vcam/picture/pattern.h"
#include "vcam/picture/pattern_reader.h"
#include "vcam/testing/decode_luma.h"

namespace zumod::vcam {
namespace {

using Picture = std::vector<uint8_t>;

constexpr char kUsage[] =
    "Usage: check_frames FORMAT WIDTH HEIGHT FPS COUNT LABEL [LOST [live]] < PICTURES\n"
    "FORMAT is a camera's format, or GREY for luma planes, of which only the stamps are checked.\n"
    "LOST: how many may be missing between the COUNT pictures, COUNT unless given.\n"
    "live: a live camera may show black first and repeat pictures; at least a quarter of COUNT must be "
    "new.\n";

struct Expected {
    std::string format;
    unsigned width;
    unsigned height;
    uint64_t fps;
    size_t count;
    std::string label;
    uint64_t lost;
    bool is_live;
};

bool IsBlack(const Picture& picture, const PictureLayout& layout) {
    Picture black(layout.sizeimage);
    LivePicture(layout, nullptr).Paint(black.data(), {});
    return picture == black;
}

// Splits a sequence of pictures of one size, or of JPEG pictures at their end markers.
std::vector<Picture> Split(const Picture& all, size_t size, bool is_jpeg) {
    std::vector<Picture> pictures;
    size_t begin = 0;
    while (begin < all.size()) {
        size_t end = begin + size;
        if (is_jpeg) {
            end = begin + 2;
            while (end < all.size() && !(all[end - 2] == 0xff && all[end - 1] == 0xd9)) {
                ++end;
            }
        }
        end = end < all.size() ? end : all.size();
        pictures.emplace_back(all.begin() + static_cast<std::ptrdiff_t>(begin),
                              all.begin() + static_cast<std::ptrdiff_t>(end));
        begin = end;
    }
    return pictures;
}

bool Check(const Expected& expected, const Picture& all) {
    const bool grey = expected.format == "GREY";
    const uint32_t fourcc = grey ? 0 : ParseFourcc(expected.format).value_or(0);
    const bool is_jpeg = fourcc == V4L2_PIX_FMT_MJPEG;
    const PictureLayout layout = LayOut(fourcc, expected.width, expected.height);
    std::unique_ptr<FrameSource> source;
    if (is_jpeg) {
        source = std::make_unique<JpegPattern>(layout, expected.label);
    } else if (!grey) {
        source = std::make_unique<Pattern>(layout, expected.label);
    }
    const size_t size = grey ? size_t{expected.width} * expected.height : layout.sizeimage;
    const std::vector<Picture> pictures = Split(all, size, is_jpeg);
    if (pictures.size() != expected.count) {
        std::fprintf(stderr, "%zu pictures, not %zu\n", pictures.size(), expected.count);
        return false;
    }
    std::optional<Stamp> last;
    uint64_t lost = 0;
    size_t distinct = 0;
    for (const Picture& picture : pictures) {
        const size_t number = static_cast<size_t>(&picture - pictures.data());
        std::optional<Stamp> stamp;
        if (is_jpeg || grey) {
            const Picture luma = is_jpeg ? DecodeLuma(picture, expected.width, expected.height) : picture;
            if (luma.size() == size_t{expected.width} * expected.height) {
                stamp = ReadStamp(luma.data(), expected.width, expected.width, expected.height);
            }
        } else if (picture.size() == size) {
            stamp = ReadStamp(picture.data(), layout);
        }
        if (expected.is_live && (last ? stamp == last : IsBlack(picture, layout))) {
            continue;
        }
        ++distinct;
        if (!stamp) {
            std::fprintf(stderr, "picture %zu has no stamp\n", number);
            return false;
        }
        if (source) {
            Picture model(layout.sizeimage);
            model.resize(source->Paint(model.data(), *stamp));
            if (model != picture) {
                std::fprintf(stderr, "picture %zu is not the model's\n", number);
                return false;
            }
        }
        if (last) {
            const int64_t frames = int64_t{stamp->counter} - last->counter;
            const auto passed = static_cast<int64_t>(stamp->time_us - last->time_us);
            if (frames < 1 || std::abs(passed - frames * 1000000 / static_cast<int64_t>(expected.fps)) > 2) {
                std::fprintf(stderr, "picture %zu is %lld frames and %lld us after the previous one\n",
                             number, static_cast<long long>(frames), static_cast<long long>(passed));
                return false;
            }
            lost += static_cast<uint64_t>(frames - 1);
        }
        last = stamp;
    }
    std::printf("%zu pictures at %llu a second, %llu lost\n", pictures.size(),
                static_cast<unsigned long long>(expected.fps), static_cast<unsigned long long>(lost));
    if (expected.is_live && distinct < expected.count / 4) {
        std::fprintf(stderr, "only %zu are different\n", distinct);
        return false;
    }
    if (lost > expected.lost) {
        std::fprintf(stderr, "too many are lost\n");
        return false;
    }
    return true;
}

}  // namespace
}  // namespace zumod::vcam

int main(int argc, char** argv) {
    using namespace zumod::vcam;
    if (argc < 7 || argc > 9) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const Expected expected{
        argv[1], static_cast<unsigned>(std::atoi(argv[2])), static_cast<unsigned>(std::atoi(argv[3])),
        static_cast<uint64_t>(std::atoi(argv[4])), static_cast<size_t>(std::atoi(argv[5])), argv[6],
        // On a busy machine a program loses frames of any camera, but not more than it takes.
        static_cast<uint64_t>(std::atoi(argv[argc > 7 ? 7 : 5])), argc == 9};
    std::ifstream in("/dev/stdin", std::ios::binary);
    const Picture all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return Check(expected, all) ? 0 : 1;
}
