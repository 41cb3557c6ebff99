// Pictures from a Y4M file (8 bit, 4:2:0), shown in a loop. All are read and converted in advance.
//
// Thread rule: immutable after construction; any thread.
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

    // On failure `error` holds the reason, in a few words.
    static bool Read(const std::string& path, Y4mFile& file, std::string& error);
    // Reads only the size, from the file's header.
    static bool ReadSize(const std::string& path, Y4mFile& file, std::string& error);
};

class Y4mSource final : public FrameSource {
public:
    Y4mSource(const PictureLayout& layout, const Y4mFile& file);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

private:
    std::vector<std::vector<uint8_t>> m_frames;
};

}  // namespace zumod::vcam
