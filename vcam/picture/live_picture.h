// A picture that came from outside, in the layout that a program agreed on.
//
// Thread rule: immutable after construction; any thread.
#pragma once

#include <memory>

#include "vcam/picture/frame_source.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

// Writes a picture of the layout's size, compressed if the layout is, and returns the bytes used.
size_t WritePicture(const PlanarImage& image, const PictureLayout& layout, uint8_t* out);

class LivePicture final : public FrameSource {
public:
    // Null is black. A picture of another size is scaled.
    LivePicture(const PictureLayout& layout, std::shared_ptr<const PlanarImage> image)
        : m_layout(layout), m_image(std::move(image)) {}

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

private:
    const PictureLayout m_layout;
    const std::shared_ptr<const PlanarImage> m_image;
};

}  // namespace zumod::vcam
