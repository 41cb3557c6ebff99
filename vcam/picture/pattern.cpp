#include "vcam/picture/pattern.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace zumod::vcam {
namespace {

constexpr char kFirstLetter = ' ';
constexpr char kLastLetter = 'Z';

// A copy of a size known at compile time is a few instructions. The cases are the sizes of the present
// formats.
void CopyRows(uint8_t* out, size_t out_stride, const uint8_t* from, size_t from_stride, unsigned rows,
              size_t bytes) {
    const auto copy = [&](auto size) {
        for (unsigned y = 0; y < rows; ++y) {
            std::memcpy(out + y * out_stride, from + y * from_stride, size);
        }
    };
    switch (bytes) {
        case 4:
            return copy(std::integral_constant<size_t, 4>());
        case 8:
            return copy(std::integral_constant<size_t, 8>());
        case 16:
            return copy(std::integral_constant<size_t, 16>());
        case 32:
            return copy(std::integral_constant<size_t, 32>());
        case 64:
            return copy(std::integral_constant<size_t, 64>());
        case 128:
            return copy(std::integral_constant<size_t, 128>());
        default:
            return copy(bytes);
    }
}

}  // namespace

Pattern::Pattern(const PictureLayout& layout, const std::string& label)
    : m_layout(layout),
      m_scene(layout.width, layout.height, label),
      m_still(layout.sizeimage),
      m_pixel_bytes(FindPixelFormat(layout.fourcc)->PixelBytes()),
      m_white(size_t{m_scene.Grid().block} * m_pixel_bytes) {
    const PixelFormat& format = *FindPixelFormat(layout.fourcc);
    m_scene.Background().WriteTo(layout, m_still.data());
    for (unsigned x = 0; x < m_scene.Grid().block; ++x) {
        PutPixel(format, &m_white[size_t{x} * m_pixel_bytes], 0, {kStampWhite, 128, 128});
    }
    for (char letter = kFirstLetter; letter <= kLastLetter; ++letter) {
        const Glyph glyph = DrawGlyph(letter);
        Tile& tile = m_glyphs.emplace_back();
        for (unsigned y = 0; y < kTile; ++y) {
            for (unsigned x = 0; x < kTile; ++x) {
                PutPixel(format, tile[y].data(), x, {glyph[y][x] ? kStampWhite : kStampBlack, 128, 128});
            }
        }
    }
    for (unsigned x = 0; x < kTile; ++x) {
        PutPixel(format, m_square.data(), x, Scene::kSquare);
    }
    const bool u_first = layout.u_offset < layout.v_offset;
    for (size_t i = 0; i < m_chroma_row.size(); ++i) {
        m_chroma_row[i] = (i % 2 == 0) == u_first ? Scene::kSquare.u : Scene::kSquare.v;
    }
}

size_t Pattern::Paint(uint8_t* out, const Stamp& stamp) const {
    std::memcpy(out, m_still.data(), m_still.size());
    PaintStamp(out, stamp);
    PaintText(out, stamp);
    PaintSquare(out, stamp);
    return m_still.size();
}

// The stamp and the text are drawn where the still picture is grey, so only luma changes.
void Pattern::PaintStamp(uint8_t* out, const Stamp& stamp) const {
    const StampGrid& grid = m_scene.Grid();
    if (grid.block == 0) {
        return;
    }
    const StampPattern bits = EncodeStamp(stamp);
    const size_t stride = m_layout.bytesperline;
    const size_t block_bytes = size_t{grid.block} * m_pixel_bytes;
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        if (!bits[bit]) {
            continue;  // the still picture is already black here
        }
        uint8_t* corner =
            out + size_t{bit / grid.columns} * grid.block * stride + bit % grid.columns * block_bytes;
        CopyRows(corner, stride, m_white.data(), 0, grid.block, block_bytes);
    }
}

void Pattern::PaintText(uint8_t* out, const Stamp& stamp) const {
    const size_t stride = m_layout.bytesperline;
    const size_t tile_bytes = size_t{kTile} * m_pixel_bytes;
    const PlacedText placed = m_scene.Text(stamp);
    uint8_t* corner = out + size_t{placed.row} * kTile * stride;
    for (const char* letter = placed.text; *letter != 0; ++letter, corner += tile_bytes) {
        const Tile& tile = m_glyphs[static_cast<size_t>(*letter - kFirstLetter)];
        CopyRows(corner, stride, tile[0].data(), sizeof(TileRow), kTile, tile_bytes);
    }
}

void Pattern::PaintSquare(uint8_t* out, const Stamp& stamp) const {
    const PlacedSquare square = m_scene.Square(stamp);
    const size_t stride = m_layout.bytesperline;
    const size_t tile_bytes = size_t{kTile} * m_pixel_bytes;
    for (unsigned column = square.column; column < square.column + square.size; ++column) {
        CopyRows(out + size_t{square.row} * kTile * stride + column * tile_bytes, stride, m_square.data(), 0,
                 square.size * kTile, tile_bytes);
    }
    if (m_layout.chroma_step == 0) {
        return;
    }
    const unsigned half = square.size * kTile / 2;
    const size_t corner = size_t{square.row} * kTile / 2 * m_layout.chroma_stride +
                          size_t{square.column} * kTile / 2 * m_layout.chroma_step;
    for (unsigned y = 0; y < half; ++y) {
        const size_t at = corner + size_t{y} * m_layout.chroma_stride;
        if (m_layout.chroma_step == 2) {
            std::memcpy(out + std::min(m_layout.u_offset, m_layout.v_offset) + at, m_chroma_row.data(),
                        size_t{half} * 2);
        } else {
            std::memset(out + m_layout.u_offset + at, Scene::kSquare.u, half);
            std::memset(out + m_layout.v_offset + at, Scene::kSquare.v, half);
        }
    }
}

}  // namespace zumod::vcam
