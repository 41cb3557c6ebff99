// The test picture in an uncompressed format. The still part is prepared once and copied for each frame; the
// moving parts are drawn from prepared tiles.
//
// Thread rule: immutable after construction; any thread.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "vcam/picture/frame_source.h"
#include "vcam/picture/scene.h"

namespace zumod::vcam {

class Pattern final : public FrameSource {
public:
    // The label is drawn into the picture, as far as it fits.
    Pattern(const PictureLayout& layout, const std::string& label);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

    // The picture without its moving parts. Copying it is the minimum cost of a frame.
    const std::vector<uint8_t>& Still() const { return m_still; }

private:
    // Bytes of one row of a tile in the first plane.
    static constexpr unsigned kMaxPixelBytes = 4;
    using TileRow = std::array<uint8_t, size_t{kTile} * kMaxPixelBytes>;
    using Tile = std::array<TileRow, kTile>;

    void PaintStamp(uint8_t* out, const Stamp& stamp) const;
    void PaintText(uint8_t* out, const Stamp& stamp) const;
    void PaintSquare(uint8_t* out, const Stamp& stamp) const;

    PictureLayout m_layout;
    Scene m_scene;
    std::vector<uint8_t> m_still;
    unsigned m_pixel_bytes;
    std::vector<uint8_t> m_white;  // one row of a white block of the stamp
    std::vector<Tile> m_glyphs;    // by letter, from the space on
    TileRow m_square{};
    // A row of the square's chroma for formats that interleave both samples.
    std::array<uint8_t, size_t{Scene::kGreatestSquare} * kTile> m_chroma_row{};
};

}  // namespace zumod::vcam
