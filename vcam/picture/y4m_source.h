// Pictures from a Y4M file (8 bit, 4:2:0), shown in a loop. All are read and converted in advance.
//
// Thread rule: immutable after construction; any thread.
#pragma once

#include <string>
#include <vector>

#include "common/error.h"
#include "vcam/picture/frame_source.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

struct Y4mFile {
    unsigned width = 0;
    unsigned height = 0;
    // Frames per second, as a fraction; 0/0 if the file does not say.
    unsigned rate_numerator = 0;
    unsigned rate_denominator = 0;
    std::vector<PlanarImage> frames;

    // Each returns an error of a few words.
    static Expected<Y4mFile> Read(const std::string& path);
    // The file's first line: `frames` stays empty.
    static Expected<Y4mFile> ParseHeader(const std::string& line);
    // Reads only the file's header: `frames` stays empty.
    static Expected<Y4mFile> ReadSize(const std::string& path);
};

class Y4mSource final : public FrameSource {
public:
    Y4mSource(const PictureLayout& layout, const Y4mFile& file);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

private:
    std::vector<std::vector<uint8_t>> m_frames;
};

}  // namespace zumod::vcam
