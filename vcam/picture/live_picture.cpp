#include "vcam/picture/live_picture.h"

#include <vector>

#include "vcam/picture/jpeg_pattern.h"

namespace zumod::vcam {

size_t WritePicture(const PlanarImage& image, const PictureLayout& layout, uint8_t* out) {
    if (!FindPixelFormat(layout.fourcc)->compressed) {
        image.WriteTo(layout, out);
        return layout.sizeimage;
    }
    const PictureLayout plain = JpegInputLayout(layout.width, layout.height);
    std::vector<uint8_t> picture(plain.sizeimage);
    image.WriteTo(plain, picture.data());
    return CompressJpeg(plain, picture.data(), out, layout.sizeimage);
}

size_t LivePicture::Paint(uint8_t* out, const Stamp& /*stamp*/) const {
    if (!m_image) {
        return WritePicture(PlanarImage(m_layout.width, m_layout.height), m_layout, out);
    }
    if (m_image->width == m_layout.width && m_image->height == m_layout.height) {
        return WritePicture(*m_image, m_layout, out);
    }
    return WritePicture(m_image->FitInto(m_layout.width, m_layout.height), m_layout, out);
}

}  // namespace zumod::vcam
