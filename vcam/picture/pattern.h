// The test picture in an uncompressed format: the still part is prepared once and copied, the moving parts
// are drawn from prepared tiles. Immutable after construction; any thread.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "vcam/picture/frame_source.h"
#include "vcam/picture/scene.h"

namespace zumod::vcam {

class Pattern final : public FrameSource {
public:
    // The label is burnt into the picture, as far as it fits.
    Pattern(const PictureLayout& layout, const std::string& label);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

    // The picture before anything that moves is drawn on it: what one frame costs at the very least is
    // copying this.
    const std::vector<uint8_t>& Still() const { return still_; }

private:
    // Bytes of one tile's row in the first plane: luma, or whole pixels where the format packs them.
    static constexpr unsigned kMaxPixelBytes = 4;
    using TileRow = std::array<uint8_t, kTile * kMaxPixelBytes>;
    using Tile = std::array<TileRow, kTile>;

    void PutPixel(TileRow& row, unsigned column, Colour colour) const;
    void PaintStamp(uint8_t* out, const Stamp& stamp) const;
    void PaintLetters(uint8_t* out, const Stamp& stamp) const;
    void PaintSquare(uint8_t* out, const Stamp& stamp) const;

    PictureLayout layout_;
    Scene scene_;
    std::vector<uint8_t> still_;
    unsigned pixel_bytes_;
    std::vector<uint8_t> white_;  // one row of a white block of the stamp
    std::vector<Tile> glyphs_;    // by letter, from the blank on
    TileRow square_{};
    std::array<uint8_t, Scene::kGreatestSquare * kTile>
        chroma_row_{};  // of the square, where both samples are interleaved
};

}  // namespace zumod::vcam
