#include "vcam/picture/picture_stream.h"

#include <linux/videodev2.h>

#include <algorithm>

#include "vcam/picture/y4m_source.h"

namespace zumod::vcam {
namespace {

constexpr size_t kLongestLine = 256;

}  // namespace

void PictureStream::Restart() {
    m_line.clear();
    m_picture.clear();
    m_layout = m_raw;
    m_state = m_raw ? State::kPicture : State::kLine;
}

Expected<void> PictureStream::Feed(std::span<const uint8_t> bytes, const OnPicture& on_picture) {
    m_completed = 0;
    auto collected = Collect(bytes);
    if (m_completed > 0) {
        on_picture(PlanarImage::ReadFrom(m_newest_layout, m_newest.data()), m_completed);
    }
    return collected;
}

Expected<void> PictureStream::Collect(std::span<const uint8_t> bytes) {
    while (!bytes.empty() && m_state != State::kRefused) {
        if (m_state == State::kLine) {
            const char byte = static_cast<char>(bytes.front());
            bytes = bytes.subspan(1);
            if (byte != '\n' && m_line.size() < kLongestLine) {
                m_line += byte;
                continue;
            }
            if (auto line = byte == '\n' ? OnLine() : Fail("a line has no end"); !line) {
                m_state = State::kRefused;
                return line;
            }
            m_line.clear();
            continue;
        }
        const size_t count = std::min(bytes.size(), m_layout->sizeimage - m_picture.size());
        m_picture.insert(m_picture.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
        bytes = bytes.subspan(count);
        if (m_picture.size() == m_layout->sizeimage) {
            m_newest.swap(m_picture);
            m_newest_layout = *m_layout;
            ++m_completed;
            m_picture.clear();
            m_state = m_raw ? State::kPicture : State::kLine;
        }
    }
    return {};
}

Expected<void> PictureStream::OnLine() {
    if (m_layout && (m_line == "FRAME" || m_line.starts_with("FRAME "))) {
        m_state = State::kPicture;
        return {};
    }
    if (m_layout && !m_line.starts_with("YUV4MPEG2")) {
        return Fail("no frame where one should begin");
    }
    const auto header = Y4mFile::ParseHeader(m_line);
    if (!header) {
        return Fail(header.error());
    }
    if (size_t{header->width} * header->height > kMostLivePixels) {
        return Fail("a picture of " + std::to_string(header->width) + "x" + std::to_string(header->height) +
                    " is too large");
    }
    m_layout = LayOut(V4L2_PIX_FMT_YUV420, header->width, header->height);
    m_picture.reserve(m_layout->sizeimage);
    return {};
}

}  // namespace zumod::vcam
