#include "src/capture/pixel_formats.h"

#include <linux/videodev2.h>

#include <iterator>

#include "src/capture/device_calls.h"

namespace zumod {
namespace {

struct CandidateSize {
    uint32_t width;
    uint32_t height;
};

constexpr CandidateSize kCandidateSizes[] = {
    {128, 96},  {160, 120},  {176, 144},  {320, 240},  {352, 288},  {640, 480},  {704, 576},   {800, 600},
    {960, 720}, {1024, 768}, {1152, 864}, {1280, 600}, {1280, 720}, {1440, 900}, {1440, 1080}, {1920, 1080},
};

std::vector<uint32_t> PixelFormatsOf(int descriptor) {
    std::vector<uint32_t> formats;
    formats.reserve(8);
    // Zeroed only once: the requests differ in the index.
    v4l2_fmtdesc description{};
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    while (device::Ioctl(descriptor, VIDIOC_ENUM_FMT, &description) == 0) {
        formats.push_back(description.pixelformat);
        ++description.index;
    }
    return formats;
}

bool IsPlanar420(uint32_t pixel_format) {
    switch (pixel_format) {
        case V4L2_PIX_FMT_NV12:
        case V4L2_PIX_FMT_YVU420:
        case V4L2_PIX_FMT_NV21:
        case V4L2_PIX_FMT_YUV420:
            return true;
        default:
            return false;
    }
}

}  // namespace

bool enumSupportedFormats(int descriptor, std::vector<SupportedFormat>& entries) {
    const std::vector<uint32_t> pixel_formats = PixelFormatsOf(descriptor);
    entries.reserve(entries.size() + std::size(kCandidateSizes) * pixel_formats.size());
    // Required by the contract: zeroed only once, so each try starts from the previous one's fields.
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    v4l2_pix_format& picture = format.fmt.pix;
    for (const CandidateSize& candidate : kCandidateSizes) {
        for (const uint32_t pixel_format : pixel_formats) {
            picture.width = candidate.width;
            picture.height = candidate.height;
            picture.pixelformat = pixel_format;
            if (device::Ioctl(descriptor, VIDIOC_TRY_FMT, &format) < 0) {
                continue;
            }
            // Required by the contract: one matching dimension is enough. Many drivers round the other one.
            if (picture.width == candidate.width || picture.height == candidate.height) {
                entries.push_back({static_cast<int32_t>(picture.width), static_cast<int32_t>(picture.height),
                                   pixel_format});
            }
        }
    }
    return true;
}

std::optional<uint32_t> ChoosePixelFormat(const std::vector<SupportedFormat>& entries, int32_t width,
                                          int32_t height) {
    std::optional<uint32_t> second_choice;
    for (const SupportedFormat& entry : entries) {
        if (entry.width != width || entry.height != height) {
            continue;
        }
        if (IsPlanar420(entry.pixel_format)) {
            return entry.pixel_format;
        }
        if (entry.pixel_format == V4L2_PIX_FMT_YUYV) {
            second_choice = entry.pixel_format;
        }
    }
    return second_choice;
}

bool IsCapturable(uint32_t pixel_format) {
    return IsPlanar420(pixel_format) || pixel_format == V4L2_PIX_FMT_YUYV ||
           pixel_format == V4L2_PIX_FMT_BGR32;
}

}  // namespace zumod
