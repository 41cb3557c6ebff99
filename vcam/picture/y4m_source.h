// Pictures from a Y4M file (8 bit, 4:2:0), shown in order and from the start again. Everything is read and
// laid out ahead. Immutable after construction; any thread.
#pragma once

#include <string>
#include <vector>

#include "vcam/picture/frame_source.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

struct Y4mFile {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<PlanarImage> frames;

    // On failure `error` says why, in a few words.
    static bool Read(const std::string& path, Y4mFile& file, std::string& error);
    // The size alone, from the file's head.
    static bool ReadSize(const std::string& path, Y4mFile& file, std::string& error);
};

class Y4mSource final : public FrameSource {
public:
    Y4mSource(const PictureLayout& layout, const Y4mFile& file);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

private:
    std::vector<std::vector<uint8_t>> frames_;
};

}  // namespace zumod::vcam
