#include "vcam/picture/pattern.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>

namespace zumod::vcam {
namespace {

constexpr char kFirstLetter = ' ';
constexpr char kLastLetter = 'Z';

unsigned PixelBytes(uint32_t fourcc) {
    switch (fourcc) {
        case V4L2_PIX_FMT_YUYV:
            return 2;
        case V4L2_PIX_FMT_BGR32:
            return 4;
        default:
            return 1;
    }
}

template <unsigned kBytes>
void CopyRows(uint8_t* out, size_t out_stride, const uint8_t* from, size_t from_stride, unsigned rows) {
    for (unsigned y = 0; y < rows; ++y) {
        std::memcpy(out + y * out_stride, from + y * from_stride, kBytes);
    }
}

// Copies of a size known at compile time are a handful of instructions; these are the sizes there are.
void CopyRows(uint8_t* out, size_t out_stride, const uint8_t* from, size_t from_stride, unsigned rows,
              size_t bytes) {
    switch (bytes) {
        case 4:
            return CopyRows<4>(out, out_stride, from, from_stride, rows);
        case 8:
            return CopyRows<8>(out, out_stride, from, from_stride, rows);
        case 16:
            return CopyRows<16>(out, out_stride, from, from_stride, rows);
        case 32:
            return CopyRows<32>(out, out_stride, from, from_stride, rows);
        case 64:
            return CopyRows<64>(out, out_stride, from, from_stride, rows);
        default:
            return CopyRows<128>(out, out_stride, from, from_stride, rows);
    }
}

}  // namespace

Pattern::Pattern(const PictureLayout& layout, const std::string& label)
    : layout_(layout),
      scene_(layout.width, layout.height, label),
      still_(layout.sizeimage),
      pixel_bytes_(PixelBytes(layout.fourcc)) {
    scene_.Background().WriteTo(layout, still_.data());
    const auto block_row = [this](uint8_t luma) {
        std::vector<uint8_t> bytes;
        for (unsigned x = 0; x < scene_.Grid().block; ++x) {
            TileRow row{};
            PutPixel(row, 0, {luma, 128, 128});
            bytes.insert(bytes.end(), row.begin(), row.begin() + pixel_bytes_);
        }
        return bytes;
    };
    white_ = block_row(kStampWhite);
    for (char letter = kFirstLetter; letter <= kLastLetter; ++letter) {
        const Glyph glyph = DrawGlyph(letter);
        Tile& tile = glyphs_.emplace_back();
        for (unsigned y = 0; y < kTile; ++y) {
            for (unsigned x = 0; x < kTile; ++x) {
                PutPixel(tile[y], x, {glyph[y][x] ? kStampWhite : kStampBlack, 128, 128});
            }
        }
    }
    for (unsigned x = 0; x < kTile; ++x) {
        PutPixel(square_, x, Scene::kSquare);
    }
    const bool u_first = layout.u_offset < layout.v_offset;
    for (size_t i = 0; i < chroma_row_.size(); ++i) {
        chroma_row_[i] = (i % 2 == 0) == u_first ? Scene::kSquare.u : Scene::kSquare.v;
    }
}

void Pattern::PutPixel(TileRow& row, unsigned column, Colour colour) const {
    switch (layout_.fourcc) {
        case V4L2_PIX_FMT_YUYV:
            row[column * 2] = colour.y;
            row[column * 2 + 1] = column % 2 == 0 ? colour.u : colour.v;
            break;
        case V4L2_PIX_FMT_BGR32: {
            const Bgr pixel = ToBgr(colour);
            row[column * 4] = pixel.b;
            row[column * 4 + 1] = pixel.g;
            row[column * 4 + 2] = pixel.r;
            row[column * 4 + 3] = 255;
            break;
        }
        default:
            row[column] = colour.y;
            break;
    }
}

size_t Pattern::Paint(uint8_t* out, const Stamp& stamp) const {
    std::memcpy(out, still_.data(), still_.size());
    PaintStamp(out, stamp);
    PaintLetters(out, stamp);
    PaintSquare(out, stamp);
    return still_.size();
}

// The stamp and the letters stand on a grey part of the still picture: only luma changes there.
void Pattern::PaintStamp(uint8_t* out, const Stamp& stamp) const {
    const StampGrid& grid = scene_.Grid();
    if (grid.block == 0) {
        return;
    }
    const StampPattern bits = EncodeStamp(stamp);
    const size_t stride = layout_.bytesperline;
    const size_t block_bytes = size_t{grid.block} * pixel_bytes_;
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        if (!bits[bit]) {
            continue;  // the still picture is black there
        }
        uint8_t* corner = out + bit / grid.columns * grid.block * stride + bit % grid.columns * block_bytes;
        CopyRows(corner, stride, white_.data(), 0, grid.block, block_bytes);
    }
}

void Pattern::PaintLetters(uint8_t* out, const Stamp& stamp) const {
    const size_t stride = layout_.bytesperline;
    const size_t tile_bytes = size_t{kTile} * pixel_bytes_;
    for (const PlacedGlyph& placed : scene_.Letters(stamp)) {
        const Tile& tile = glyphs_[static_cast<size_t>(placed.letter - kFirstLetter)];
        uint8_t* corner = out + size_t{placed.row} * kTile * stride + placed.column * tile_bytes;
        CopyRows(corner, stride, tile[0].data(), sizeof(TileRow), kTile, tile_bytes);
    }
}

void Pattern::PaintSquare(uint8_t* out, const Stamp& stamp) const {
    const PlacedSquare square = scene_.Square(stamp);
    const size_t stride = layout_.bytesperline;
    const size_t tile_bytes = size_t{kTile} * pixel_bytes_;
    for (unsigned column = square.column; column < square.column + square.size; ++column) {
        CopyRows(out + size_t{square.row} * kTile * stride + column * tile_bytes, stride, square_.data(), 0,
                 square.size * kTile, tile_bytes);
    }
    if (layout_.chroma_step == 0) {
        return;
    }
    const unsigned half = square.size * kTile / 2;
    const size_t corner = size_t{square.row} * kTile / 2 * layout_.chroma_stride +
                          size_t{square.column} * kTile / 2 * layout_.chroma_step;
    for (unsigned y = 0; y < half; ++y) {
        const size_t at = corner + size_t{y} * layout_.chroma_stride;
        if (layout_.chroma_step == 2) {
            std::memcpy(out + std::min(layout_.u_offset, layout_.v_offset) + at, chroma_row_.data(),
                        size_t{half} * 2);
        } else {
            std::memset(out + layout_.u_offset + at, Scene::kSquare.u, half);
            std::memset(out + layout_.v_offset + at, Scene::kSquare.v, half);
        }
    }
}

}  // namespace zumod::vcam
