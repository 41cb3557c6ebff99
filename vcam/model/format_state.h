// The formats, sizes and rates of a camera: what it offers, how it adjusts a request, and what it is set
// to, with the source that draws pictures of that format.
//
// Thread rule: the camera's lock guards it. The source may be used by any thread.
#pragma once

#include <linux/videodev2.h>

#include <memory>
#include <vector>

#include "vcam/model/camera_config.h"
#include "vcam/model/fault_set.h"
#include "vcam/picture/frame_source.h"
#include "vcam/picture/y4m_source.h"

namespace zumod::vcam {

class FormatState {
public:
    // A Y4M file that cannot be read is replaced by the test pattern.
    FormatState(CameraConfig config, const FaultSet& faults);

    // Each is the request of that name, and returns 0 or errno.
    int QueryCapability(v4l2_capability& capability, int number) const;
    int EnumFormat(v4l2_fmtdesc& format) const;
    int GetFormat(v4l2_format& format) const;
    int TryFormat(v4l2_format& format) const;
    int SetFormat(v4l2_format& format, bool has_buffers);
    int EnumSizes(v4l2_frmsizeenum& sizes) const;
    int EnumIntervals(v4l2_frmivalenum& intervals) const;
    int GetParm(v4l2_streamparm& parm) const;
    int SetParm(v4l2_streamparm& parm, bool is_streaming);
    int EnumInput(v4l2_input& input) const;
    int GetInput(uint32_t& index) const;
    int SetInput(uint32_t& index) const;

    const CameraConfig& Config() const { return m_config; }
    const PictureLayout& Layout() const { return m_layout; }
    Rate CurrentRate() const { return m_rate; }
    std::shared_ptr<const FrameSource> Source() const { return m_source; }

private:
    bool Offers(uint32_t fourcc) const;
    // What follows is for a format that is offered.
    std::vector<Size> SizesOf(uint32_t fourcc) const;
    Size AdjustSize(uint32_t fourcc, Size asked) const;
    // A size that is not listed has the rates of the format's first.
    const std::vector<Rate>& RatesOf(uint32_t fourcc, Size size) const;
    PictureLayout AdjustLayout(const v4l2_pix_format& asked) const;
    void UseLayout(const PictureLayout& layout);

    const CameraConfig m_config;
    const std::vector<uint32_t> m_formats;  // each once, in the order of the modes
    const FaultSet& m_faults;
    Y4mFile m_y4m;
    PictureLayout m_layout;
    Rate m_rate;
    std::shared_ptr<const FrameSource> m_source;
};

}  // namespace zumod::vcam
