#include "vcam/model/format_state.h"

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "vcam/picture/jpeg_pattern.h"
#include "vcam/picture/pattern.h"

namespace zumod::vcam {
namespace {

// Writes into a field that is all zero. Text in UTF-8 that is too long ends with a whole character.
template <size_t kSize>
void PutText(uint8_t (&to)[kSize], std::string_view from) {
    size_t length = std::min(from.size(), kSize - 1);
    while (length > 0 && length < from.size() && (from[length] & 0xc0) == 0x80) {
        --length;
    }
    from.copy(reinterpret_cast<char*>(to), length);
}

uint32_t EvenSide(uint32_t side) {
    return std::clamp(side, kLeastSide, kGreatestSide) & ~1U;
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

std::vector<uint32_t> FormatsOf(const std::vector<Mode>& modes) {
    std::vector<uint32_t> formats;
    for (const Mode& mode : modes) {
        if (std::ranges::find(formats, mode.fourcc) == formats.end()) {
            formats.push_back(mode.fourcc);
        }
    }
    return formats;
}

void Describe(const PictureLayout& layout, v4l2_pix_format& pix) {
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

}  // namespace

FormatState::FormatState(CameraConfig config, const FaultSet& faults)
    : m_config([&config] {
          config.Complete();
          return std::move(config);
      }()),
      m_formats(FormatsOf(m_config.modes)),
      m_faults(faults),
      m_rate(m_config.modes[0].rates[0]) {
    if (!m_config.y4m.empty()) {
        m_y4m = Y4mFile::Read(m_config.y4m).value_or(Y4mFile{});
    }
    v4l2_pix_format first{};
    first.width = m_config.modes[0].size.width;
    first.height = m_config.modes[0].size.height;
    first.pixelformat = m_config.modes[0].fourcc;
    UseLayout(AdjustLayout(first));
}

bool FormatState::Offers(uint32_t fourcc) const {
    return std::ranges::find(m_formats, fourcc) != m_formats.end();
}

std::vector<Size> FormatState::SizesOf(uint32_t fourcc) const {
    std::vector<Size> sizes;
    for (const Mode& mode : m_config.modes) {
        if (mode.fourcc == fourcc) {
            sizes.push_back(mode.size);
        }
    }
    return sizes;
}

const std::vector<Rate>& FormatState::RatesOf(uint32_t fourcc, Size size) const {
    const auto& modes = m_config.modes;
    const auto exact = std::ranges::find_if(
        modes, [&](const Mode& mode) { return mode.fourcc == fourcc && mode.size == size; });
    return exact != modes.end() ? exact->rates : std::ranges::find(modes, fourcc, &Mode::fourcc)->rates;
}

int FormatState::QueryCapability(v4l2_capability& capability, int number) const {
    capability = {};
    PutText(capability.driver, "zu-vcam");
    PutText(capability.card, m_config.card);
    PutText(capability.bus_info,
            m_config.bus.empty() ? "usb-zu-vcam-" + std::to_string(number) : m_config.bus);
    capability.version = 6U << 16 | 1U << 8;
    capability.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_STREAMING;
    capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int FormatState::EnumFormat(v4l2_fmtdesc& format) const {
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || format.index >= m_formats.size() ||
        format.mbus_code != 0) {
        return EINVAL;
    }
    const uint32_t index = format.index;
    const PixelFormat& pixel_format = *FindPixelFormat(m_formats[index]);
    format = {};
    format.index = index;
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.flags = pixel_format.compressed ? V4L2_FMT_FLAG_COMPRESSED : 0;
    PutText(format.description, pixel_format.description);
    format.pixelformat = pixel_format.fourcc;
    return 0;
}

Size FormatState::AdjustSize(uint32_t fourcc, Size asked) const {
    if (m_config.size_policy == SizePolicy::kExact) {
        return {EvenSide(asked.width), EvenSide(asked.height)};
    }
    const auto distance = [&](Size size) {
        const uint64_t in_width = Distance(size.width, asked.width);
        return m_config.size_policy == SizePolicy::kWidth ? in_width
                                                          : in_width + Distance(size.height, asked.height);
    };
    return std::ranges::min(SizesOf(fourcc), {}, distance);
}

PictureLayout FormatState::AdjustLayout(const v4l2_pix_format& asked) const {
    const uint32_t fourcc = Offers(asked.pixelformat) ? asked.pixelformat : m_formats[0];
    const Size size = AdjustSize(fourcc, {asked.width, asked.height});
    const uint32_t least = LayOut(fourcc, size.width, size.height).bytesperline;
    uint32_t bytesperline = least + m_config.padding;
    if (m_config.keeps_stride) {
        bytesperline = std::clamp(asked.bytesperline, bytesperline, 2 * bytesperline);
    }
    return LayOut(fourcc, size.width, size.height, bytesperline);
}

void FormatState::UseLayout(const PictureLayout& layout) {
    if (m_source && layout == m_layout) {
        return;
    }
    m_layout = layout;
    const std::vector<Rate>& rates = RatesOf(layout.fourcc, {layout.width, layout.height});
    if (std::ranges::find(rates, m_rate) == rates.end()) {
        m_rate = rates[0];
    }
    if (!m_y4m.frames.empty() && m_y4m.width == layout.width && m_y4m.height == layout.height) {
        m_source = std::make_shared<Y4mSource>(layout, m_y4m);
        return;
    }
    const std::string label = m_config.card + " " + FourccText(layout.fourcc) + " " + RateText(m_rate);
    if (layout.fourcc == V4L2_PIX_FMT_MJPEG) {
        m_source = std::make_shared<JpegPattern>(layout, label);
    } else {
        m_source = std::make_shared<Pattern>(layout, label);
    }
}

int FormatState::GetFormat(v4l2_format& format) const {
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    format = {};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    Describe(m_layout, format.fmt.pix);
    return 0;
}

int FormatState::TryFormat(v4l2_format& format) const {
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    Describe(AdjustLayout(format.fmt.pix), format.fmt.pix);
    return 0;
}

int FormatState::SetFormat(v4l2_format& format, bool has_buffers) {
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    if (has_buffers) {
        return EBUSY;
    }
    PictureLayout layout = AdjustLayout(format.fmt.pix);
    if (const Fault* change = m_faults.Find(FaultKind::kSizeChange)) {
        layout = LayOut(layout.fourcc, EvenSide(static_cast<uint32_t>(change->value)),
                        EvenSide(static_cast<uint32_t>(change->value2)));
    }
    if (const Fault* change = m_faults.Find(FaultKind::kStrideChange)) {
        const auto more = static_cast<uint32_t>(std::min<uint64_t>(change->value, 4096));
        layout = LayOut(layout.fourcc, layout.width, layout.height, layout.bytesperline + more);
    }
    UseLayout(layout);
    Describe(m_layout, format.fmt.pix);
    return 0;
}

int FormatState::EnumSizes(v4l2_frmsizeenum& sizes) const {
    const uint32_t index = sizes.index;
    const uint32_t fourcc = sizes.pixel_format;
    const bool any = m_config.size_policy == SizePolicy::kExact;
    const std::vector<Size> listed = SizesOf(fourcc);
    if (index >= (any && !listed.empty() ? 1 : listed.size())) {
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
        sizes.discrete = {listed[index].width, listed[index].height};
    }
    return 0;
}

int FormatState::EnumIntervals(v4l2_frmivalenum& intervals) const {
    const v4l2_frmivalenum asked = intervals;
    if (m_config.rate_support != RateSupport::kSettable) {
        return ENOTTY;
    }
    const Size size{asked.width, asked.height};
    if (!Offers(asked.pixel_format) || AdjustSize(asked.pixel_format, size) != size ||
        asked.index >= RatesOf(asked.pixel_format, size).size()) {
        return EINVAL;
    }
    intervals = {};
    intervals.index = asked.index;
    intervals.pixel_format = asked.pixel_format;
    intervals.width = asked.width;
    intervals.height = asked.height;
    intervals.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    intervals.discrete = Interval(RatesOf(asked.pixel_format, size)[asked.index]);
    return 0;
}

int FormatState::GetParm(v4l2_streamparm& parm) const {
    if (m_config.rate_support == RateSupport::kNone) {
        return ENOTTY;
    }
    if (parm.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.capability =
        m_config.rate_support == RateSupport::kSettable ? V4L2_CAP_TIMEPERFRAME : 0;
    parm.parm.capture.timeperframe = Interval(m_rate);
    return 0;
}

int FormatState::SetParm(v4l2_streamparm& parm, bool is_streaming) {
    if (m_config.rate_support == RateSupport::kNone) {
        return ENOTTY;
    }
    if (parm.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    if (is_streaming) {
        return EBUSY;
    }
    if (m_config.rate_support == RateSupport::kSettable) {
        const v4l2_fract asked = parm.parm.capture.timeperframe;
        const std::vector<Rate>& rates = RatesOf(m_layout.fourcc, {m_layout.width, m_layout.height});
        Rate chosen = rates[0];
        if (asked.numerator != 0 && asked.denominator != 0) {
            const auto distance = [&](Rate rate) {
                return std::abs(double{1} * rate.denominator / rate.numerator -
                                double{1} * asked.numerator / asked.denominator);
            };
            chosen = *std::ranges::min_element(rates, {}, distance);
        }
        if (chosen != m_rate) {
            m_rate = chosen;
            m_source.reset();  // the picture shows the rate
            UseLayout(m_layout);
        }
    }
    return GetParm(parm);
}

int FormatState::EnumInput(v4l2_input& input) const {
    if (input.index != 0) {
        return EINVAL;
    }
    input = {};
    PutText(input.name, "Camera 1");
    input.type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

int FormatState::GetInput(uint32_t& index) const {
    index = 0;
    return 0;
}

int FormatState::SetInput(uint32_t& index) const {
    return index == 0 ? 0 : EINVAL;
}

}  // namespace zumod::vcam
