#include "vcam/picture/y4m_source.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/parse_number.h"
#include "vcam/picture/live_picture.h"

namespace zumod::vcam {
namespace {

constexpr unsigned kMaxSide = 16384;
constexpr size_t kMaxBytes = size_t{1} << 30;

Expected<Y4mFile> ReadHeader(std::istream& in) {
    if (!in) {
        return Fail("cannot be opened");
    }
    std::string line;
    std::getline(in, line);
    return Y4mFile::ParseHeader(line);
}

bool ReadPlane(std::istream& in, std::vector<uint8_t>& plane) {
    // A stream reads char, not uint8_t.
    return static_cast<bool>(
        in.read(reinterpret_cast<char*>(plane.data()), static_cast<std::streamsize>(plane.size())));
}

}  // namespace

Expected<Y4mFile> Y4mFile::ParseHeader(const std::string& line) {
    if (!line.starts_with("YUV4MPEG2")) {
        return Fail("not a Y4M file");
    }
    Y4mFile file;
    std::istringstream fields(line);
    std::string field;
    fields >> field;
    std::string chroma = "420";
    while (fields >> field) {
        const std::string value = field.substr(1);
        if (field[0] == 'W') {
            file.width = ParseNumber<unsigned>(value).value_or(0);
        } else if (field[0] == 'H') {
            file.height = ParseNumber<unsigned>(value).value_or(0);
        } else if (field[0] == 'F') {
            const size_t colon = std::min(value.find(':'), value.size());
            file.rate_numerator = ParseNumber<unsigned>(value.substr(0, colon)).value_or(0);
            file.rate_denominator =
                colon < value.size() ? ParseNumber<unsigned>(value.substr(colon + 1)).value_or(0) : 0;
        } else if (field[0] == 'C') {
            chroma = value;
        }
    }
    if (file.width == 0 || file.height == 0 || file.width > kMaxSide || file.height > kMaxSide ||
        file.width % 2 != 0 || file.height % 2 != 0) {
        return Fail("no size, or one that is not even");
    }
    if (!chroma.starts_with("420") || chroma.find("p1") != std::string::npos) {
        return Fail("only 8-bit 4:2:0 pictures are supported, this is " + chroma);
    }
    return file;
}

Expected<Y4mFile> Y4mFile::ReadSize(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return ReadHeader(in);
}

Expected<Y4mFile> Y4mFile::Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    auto file = ReadHeader(in);
    if (!file) {
        return file;
    }
    std::string line;
    while (std::getline(in, line)) {
        if (!line.starts_with("FRAME")) {
            return Fail("no frame where one should begin");
        }
        PlanarImage& image = file->frames.emplace_back(file->width, file->height);
        if (!ReadPlane(in, image.y) || !ReadPlane(in, image.u) || !ReadPlane(in, image.v)) {
            return Fail("ends within a frame");
        }
        if (file->frames.size() * file->width * file->height * 3 / 2 > kMaxBytes) {
            return Fail("holds more than a gigabyte of pictures");
        }
    }
    if (file->frames.empty()) {
        return Fail("holds no frame");
    }
    return file;
}

Y4mSource::Y4mSource(const PictureLayout& layout, const Y4mFile& file) {
    for (const PlanarImage& image : file.frames) {
        std::vector<uint8_t>& picture = m_frames.emplace_back(layout.sizeimage);
        picture.resize(WritePicture(image, layout, picture.data()));
        picture.shrink_to_fit();
    }
}

size_t Y4mSource::Paint(uint8_t* out, const Stamp& stamp) const {
    const std::vector<uint8_t>& frame = m_frames[stamp.counter % m_frames.size()];
    std::memcpy(out, frame.data(), frame.size());
    return frame.size();
}

}  // namespace zumod::vcam
