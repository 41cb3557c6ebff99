// What a camera can do and is set to: capabilities, formats, sizes, rates, inputs.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "vcam/model/camera.h"
#include "vcam/picture/jpeg_pattern.h"
#include "vcam/picture/pattern.h"

namespace zumod::vcam {
namespace {

constexpr uint32_t kLeastSide = 16;
constexpr uint32_t kGreatestSide = 8192;

template <class T>
T& As(void* argument) {
    return *static_cast<T*>(argument);
}

template <size_t kSize>
void PutText(uint8_t (&to)[kSize], const std::string& from) {
    std::fill(std::begin(to), std::end(to), uint8_t{0});
    std::copy_n(from.begin(), std::min(from.size(), kSize - 1), to);
}

uint32_t Distance(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

v4l2_fract Interval(Rate rate) {
    return {rate.denominator, rate.numerator};
}

std::string RateText(Rate rate) {
    return rate.denominator == 1 ? std::to_string(rate.numerator)
                                 : std::to_string(rate.numerator) + "/" + std::to_string(rate.denominator);
}

}  // namespace

int Camera::QueryCapability(OpenFile& /*file*/, void* argument) {
    auto& capability = As<v4l2_capability>(argument);
    capability = {};
    PutText(capability.driver, "zu-vcam");
    PutText(capability.card, config_.card);
    PutText(capability.bus_info,
            config_.bus.empty() ? "usb-zu-vcam-" + std::to_string(number_) : config_.bus);
    capability.version = 6U << 16 | 1U << 8;
    capability.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_STREAMING;
    capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int Camera::EnumFormat(OpenFile& /*file*/, void* argument) {
    auto& format = As<v4l2_fmtdesc>(argument);
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || format.index >= config_.formats.size() ||
        format.mbus_code != 0) {
        return EINVAL;
    }
    const uint32_t index = format.index;
    const PixelFormat& pixel_format = *FindPixelFormat(config_.formats[index]);
    format = {};
    format.index = index;
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.flags = pixel_format.compressed ? V4L2_FMT_FLAG_COMPRESSED : 0;
    PutText(format.description, pixel_format.description);
    format.pixelformat = pixel_format.fourcc;
    return 0;
}

Size Camera::AdjustSize(Size asked) const {
    if (config_.size_policy == SizePolicy::kExact) {
        const auto even = [](uint32_t side) { return std::clamp(side, kLeastSide, kGreatestSide) & ~1U; };
        return {even(asked.width), even(asked.height)};
    }
    const auto distance = [&](Size size) {
        const uint64_t in_width = Distance(size.width, asked.width);
        return config_.size_policy == SizePolicy::kWidth ? in_width
                                                         : in_width + Distance(size.height, asked.height);
    };
    return *std::min_element(config_.sizes.begin(), config_.sizes.end(),
                             [&](Size a, Size b) { return distance(a) < distance(b); });
}

PictureLayout Camera::AdjustLayout(const v4l2_pix_format& asked) const {
    const bool known =
        std::find(config_.formats.begin(), config_.formats.end(), asked.pixelformat) != config_.formats.end();
    const uint32_t fourcc = known ? asked.pixelformat : config_.formats[0];
    const Size size = AdjustSize({asked.width, asked.height});
    const uint32_t least = LayOut(fourcc, size.width, size.height).bytesperline;
    uint32_t bytesperline = least + config_.padding;
    if (config_.keeps_stride) {
        bytesperline = std::clamp(asked.bytesperline, bytesperline, 2 * bytesperline);
    }
    return LayOut(fourcc, size.width, size.height, bytesperline);
}

void Camera::DescribeLayout(const PictureLayout& layout, v4l2_pix_format& pix) const {
    pix = {};
    pix.width = layout.width;
    pix.height = layout.height;
    pix.pixelformat = layout.fourcc;
    pix.field = V4L2_FIELD_NONE;
    pix.bytesperline = layout.bytesperline;
    pix.sizeimage = layout.sizeimage;
    pix.colorspace =
        FindPixelFormat(layout.fourcc)->compressed ? V4L2_COLORSPACE_JPEG : V4L2_COLORSPACE_SMPTE170M;
    pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;
}

void Camera::UseLayout(const PictureLayout& layout) {
    if (source_ && layout == layout_) {
        return;
    }
    layout_ = layout;
    if (!y4m_.frames.empty() && y4m_.width == layout.width && y4m_.height == layout.height) {
        source_ = std::make_shared<Y4mSource>(layout, y4m_);
        return;
    }
    const std::string label = config_.card + " " + FourccText(layout.fourcc) + " " + RateText(rate_);
    if (layout.fourcc == V4L2_PIX_FMT_MJPEG) {
        source_ = std::make_shared<JpegPattern>(layout, label);
    } else {
        source_ = std::make_shared<Pattern>(layout, label);
    }
}

int Camera::GetFormat(OpenFile& /*file*/, void* argument) {
    auto& format = As<v4l2_format>(argument);
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    format = {};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    DescribeLayout(layout_, format.fmt.pix);
    return 0;
}

int Camera::TryFormat(OpenFile& /*file*/, void* argument) {
    auto& format = As<v4l2_format>(argument);
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    DescribeLayout(AdjustLayout(format.fmt.pix), format.fmt.pix);
    return 0;
}

int Camera::SetFormat(OpenFile& /*file*/, void* argument) {
    auto& format = As<v4l2_format>(argument);
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    if (pool_) {
        return EBUSY;
    }
    PictureLayout layout = AdjustLayout(format.fmt.pix);
    if (const ActiveFault* change = FindFault(FaultKind::kSizeChange)) {
        const auto width = static_cast<uint32_t>(change->fault.value);
        const auto height = static_cast<uint32_t>(change->fault.value2);
        layout = LayOut(layout.fourcc, std::clamp(width, kLeastSide, kGreatestSide) & ~1U,
                        std::clamp(height, kLeastSide, kGreatestSide) & ~1U);
    }
    if (const ActiveFault* change = FindFault(FaultKind::kStrideChange)) {
        const auto more = static_cast<uint32_t>(std::min<uint64_t>(change->fault.value, 4096));
        layout = LayOut(layout.fourcc, layout.width, layout.height, layout.bytesperline + more);
    }
    UseLayout(layout);
    DescribeLayout(layout_, format.fmt.pix);
    return 0;
}

int Camera::EnumSizes(OpenFile& /*file*/, void* argument) {
    auto& sizes = As<v4l2_frmsizeenum>(argument);
    const uint32_t index = sizes.index;
    const uint32_t fourcc = sizes.pixel_format;
    const bool known =
        std::find(config_.formats.begin(), config_.formats.end(), fourcc) != config_.formats.end();
    const bool any = config_.size_policy == SizePolicy::kExact;
    if (!known || index >= (any ? 1 : config_.sizes.size())) {
        return EINVAL;
    }
    sizes = {};
    sizes.index = index;
    sizes.pixel_format = fourcc;
    if (any) {
        sizes.type = V4L2_FRMSIZE_TYPE_STEPWISE;
        sizes.stepwise = {kLeastSide, kGreatestSide, 2, kLeastSide, kGreatestSide, 2};
    } else {
        sizes.type = V4L2_FRMSIZE_TYPE_DISCRETE;
        sizes.discrete = {config_.sizes[index].width, config_.sizes[index].height};
    }
    return 0;
}

int Camera::EnumIntervals(OpenFile& /*file*/, void* argument) {
    auto& intervals = As<v4l2_frmivalenum>(argument);
    const v4l2_frmivalenum asked = intervals;
    if (config_.rate_support != RateSupport::kSettable) {
        return ENOTTY;
    }
    const Size size{asked.width, asked.height};
    const bool known = std::find(config_.formats.begin(), config_.formats.end(), asked.pixel_format) !=
                       config_.formats.end();
    if (!known || AdjustSize(size) != size || asked.index >= config_.rates.size()) {
        return EINVAL;
    }
    intervals = {};
    intervals.index = asked.index;
    intervals.pixel_format = asked.pixel_format;
    intervals.width = asked.width;
    intervals.height = asked.height;
    intervals.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    intervals.discrete = Interval(config_.rates[asked.index]);
    return 0;
}

int Camera::GetParm(OpenFile& /*file*/, void* argument) {
    auto& parm = As<v4l2_streamparm>(argument);
    if (config_.rate_support == RateSupport::kNone) {
        return ENOTTY;
    }
    if (parm.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.capability = config_.rate_support == RateSupport::kSettable ? V4L2_CAP_TIMEPERFRAME : 0;
    parm.parm.capture.timeperframe = Interval(rate_);
    return 0;
}

int Camera::SetParm(OpenFile& file, void* argument) {
    auto& parm = As<v4l2_streamparm>(argument);
    if (config_.rate_support == RateSupport::kNone) {
        return ENOTTY;
    }
    if (parm.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    if (IsStreaming()) {
        return EBUSY;
    }
    if (config_.rate_support == RateSupport::kSettable) {
        const v4l2_fract asked = parm.parm.capture.timeperframe;
        Rate chosen = config_.rates[0];
        if (asked.numerator != 0 && asked.denominator != 0) {
            const auto distance = [&](Rate rate) {
                return std::abs(double{1} * rate.denominator / rate.numerator -
                                double{1} * asked.numerator / asked.denominator);
            };
            chosen = *std::min_element(config_.rates.begin(), config_.rates.end(),
                                       [&](Rate a, Rate b) { return distance(a) < distance(b); });
        }
        if (!(chosen == rate_)) {
            rate_ = chosen;
            source_.reset();  // the rate is burnt into the picture
            UseLayout(layout_);
        }
    }
    return GetParm(file, argument);
}

int Camera::EnumInput(OpenFile& /*file*/, void* argument) {
    auto& input = As<v4l2_input>(argument);
    if (input.index != 0) {
        return EINVAL;
    }
    input = {};
    PutText(input.name, "Camera 1");
    input.type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

int Camera::GetInput(OpenFile& /*file*/, void* argument) {
    As<uint32_t>(argument) = 0;
    return 0;
}

int Camera::SetInput(OpenFile& /*file*/, void* argument) {
    return As<uint32_t>(argument) == 0 ? 0 : EINVAL;
}

}  // namespace zumod::vcam
