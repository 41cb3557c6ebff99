// The test picture as Motion-JPEG: everything is compressed ahead, and a frame is put together from the still
// picture's blocks and those of the moving parts. Immutable after construction; any thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "vcam/picture/frame_source.h"
#include "vcam/picture/jpeg_picture.h"
#include "vcam/picture/scene.h"

namespace zumod::vcam {

class JpegPattern final : public FrameSource {
public:
    JpegPattern(const PictureLayout& layout, const std::string& label);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

private:
    using Block = std::vector<uint8_t>;

    struct Change {
        size_t index;
        const Block* block;
    };

    void PlaceStamp(std::vector<Change>& changes, const Stamp& stamp) const;

    PictureLayout layout_;
    Scene scene_;
    size_t block_columns_;
    std::vector<uint8_t> still_;
    std::vector<size_t> starts_;       // of each block in still_, and where the last one ends
    std::vector<Block> stamp_blocks_;  // by the four quarters' bits, the top left one highest
    std::map<char, Block> letters_;
    Block square_;
};

}  // namespace zumod::vcam
