// The test picture: what stands still in it and what changes from frame to frame, all of it on a grid of
// tiles of 16 pixels, so that every pixel format can have the moving parts prepared. Immutable; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "common/picture_stamp.h"
#include "vcam/picture/glyphs.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

struct PlacedGlyph {
    unsigned column;  // in tiles
    unsigned row;
    char letter;
};

struct PlacedSquare {
    unsigned column;  // in tiles; size 0 when the picture has no room for it
    unsigned row;
    unsigned size;
};

// A line of letters; made for each frame, so it lives on the stack.
class PlacedGlyphs {
public:
    static constexpr size_t kMost = 32;

    void Add(PlacedGlyph glyph) { glyphs_[count_++] = glyph; }
    const PlacedGlyph* begin() const { return glyphs_.data(); }
    const PlacedGlyph* end() const { return glyphs_.data() + count_; }

private:
    std::array<PlacedGlyph, kMost> glyphs_;
    size_t count_ = 0;
};

class Scene {
public:
    static constexpr unsigned kGreatestSquare = 4;  // tiles

    Scene(unsigned width, unsigned height, const std::string& label);

    static constexpr Colour kSquare{170, 60, 190};

    const PlanarImage& Background() const { return background_; }
    const StampGrid& Grid() const { return grid_; }

    // The counter and the time in letters.
    PlacedGlyphs Letters(const Stamp& stamp) const;
    PlacedSquare Square(const Stamp& stamp) const;

private:
    void PaintBars();
    void PaintLabel(const std::string& label);

    PlanarImage background_;
    StampGrid grid_;
    unsigned columns_;
    unsigned rows_;
    // Rows of tiles from the top: the stamp, the label, the letters, then the bars the square moves over.
    unsigned label_row_ = 0;
    unsigned letter_row_ = 0;
    unsigned first_free_row_ = 0;
    bool has_label_ = false;
    bool has_letters_ = false;
};

}  // namespace zumod::vcam
