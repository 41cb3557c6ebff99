// The composition of the test picture: a still background, and the parts that change from frame to frame. All
// parts lie on a grid of 16-pixel tiles, so that the moving parts can be prepared in any pixel format.
//
// Thread rule: immutable; any thread.
#pragma once

#include <optional>
#include <string>

#include "common/picture_stamp.h"
#include "vcam/picture/glyphs.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

// A line of text. Written for each frame, so it allocates nothing.
struct PlacedText {
    unsigned row = 0;  // in tiles; the text begins at the left
    char text[36] = {};
};

struct PlacedSquare {
    unsigned column;  // in tiles; size is 0 if the picture is too small for it
    unsigned row;
    unsigned size;
};

class Scene {
public:
    static constexpr unsigned kGreatestSquare = 4;  // tiles

    Scene(unsigned width, unsigned height, const std::string& label);

    static constexpr Colour kSquare{170, 60, 190};

    const PlanarImage& Background() const { return m_background; }
    const StampGrid& Grid() const { return m_grid; }

    // The counter, and the time in seconds, as far as they fit.
    PlacedText Text(const Stamp& stamp) const;
    PlacedSquare Square(const Stamp& stamp) const;

private:
    void PaintBars();
    void PaintLabel(const std::string& label);

    PlanarImage m_background;
    StampGrid m_grid;
    unsigned m_columns;
    unsigned m_rows;
    // Rows of tiles from the top: the stamp, the label, the text, then the bars over which the square moves.
    // A small picture has no label or no text.
    std::optional<unsigned> m_label_row;
    std::optional<unsigned> m_text_row;
    unsigned m_first_free_row = 0;
};

}  // namespace zumod::vcam
