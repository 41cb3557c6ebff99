#include "vcam/picture/jpeg_pattern.h"

#include <algorithm>
#include <cstring>

namespace zumod::vcam {
namespace {

std::vector<uint8_t> CompressTile(const PlanarImage& tile) {
    return CompressJpeg(tile).blocks.at(0);
}

}  // namespace

JpegPattern::JpegPattern(const PictureLayout& layout, const std::string& label)
    : layout_(layout),
      scene_(layout.width, layout.height, label),
      block_columns_((layout.width + kTile - 1) / kTile) {
    const JpegPicture picture = CompressJpeg(scene_.Background());
    still_ = picture.header;
    for (size_t i = 0; i < picture.blocks.size(); ++i) {
        starts_.push_back(still_.size());
        still_.insert(still_.end(), picture.blocks[i].begin(), picture.blocks[i].end());
        if (i + 1 < picture.blocks.size()) {
            AppendJpegMark(still_, i);
        }
    }
    starts_.push_back(still_.size() + kJpegMarkSize);
    AppendJpegEnd(still_);

    for (unsigned quarters = 0; quarters < 16; ++quarters) {
        PlanarImage tile(kTile, kTile);
        for (unsigned quarter = 0; quarter < 4; ++quarter) {
            const uint8_t luma = (quarters >> (3 - quarter) & 1) != 0 ? kStampWhite : kStampBlack;
            tile.Fill(quarter % 2 * kTile / 2, quarter / 2 * kTile / 2, kTile / 2, kTile / 2,
                      {luma, 128, 128});
        }
        stamp_blocks_.push_back(CompressTile(tile));
    }
    for (const char letter : std::string("0123456789.")) {
        PlanarImage tile(kTile, kTile);
        const Glyph glyph = DrawGlyph(letter);
        for (unsigned i = 0; i < kTile * kTile; ++i) {
            tile.y[i] = glyph[i / kTile][i % kTile] ? kStampWhite : kStampBlack;
        }
        letters_[letter] = CompressTile(tile);
    }
    PlanarImage tile(kTile, kTile);
    tile.Fill(0, 0, kTile, kTile, Scene::kSquare);
    square_ = CompressTile(tile);
}

void JpegPattern::PlaceStamp(std::vector<Change>& changes, const Stamp& stamp) const {
    const StampGrid& grid = scene_.Grid();
    if (grid.block < kTile / 2) {
        return;  // too fine for blocks of this size: small pictures carry no stamp as Motion-JPEG
    }
    const StampPattern bits = EncodeStamp(stamp);
    const auto is_white = [&](size_t x, size_t y) {
        const size_t column = x / grid.block;
        const size_t bit = y / grid.block * grid.columns + column;
        return column < grid.columns && bit < kStampBits && bits[bit];
    };
    const size_t rows = (size_t{grid.rows} * grid.block + kTile - 1) / kTile;
    for (size_t row = 0; row < rows; ++row) {
        for (size_t column = 0; column < block_columns_; ++column) {
            unsigned quarters = 0;
            for (unsigned quarter = 0; quarter < 4; ++quarter) {
                const bool white =
                    is_white(column * kTile + quarter % 2 * kTile / 2, row * kTile + quarter / 2 * kTile / 2);
                quarters = quarters << 1 | (white ? 1U : 0U);
            }
            if (quarters != 0) {
                changes.push_back({row * block_columns_ + column, &stamp_blocks_[quarters]});
            }
        }
    }
}

size_t JpegPattern::Paint(uint8_t* out, const Stamp& stamp) const {
    // Stamp, letters and square lie below each other, so the changes come in the order of the blocks.
    std::vector<Change> changes;
    changes.reserve(starts_.size());
    PlaceStamp(changes, stamp);
    for (const PlacedGlyph& placed : scene_.Letters(stamp)) {
        changes.push_back({placed.row * block_columns_ + placed.column, &letters_.at(placed.letter)});
    }
    const PlacedSquare square = scene_.Square(stamp);
    for (unsigned i = 0; i < square.size * square.size; ++i) {
        changes.push_back(
            {(square.row + i / square.size) * block_columns_ + square.column + i % square.size, &square_});
    }
    uint8_t* next = out;
    size_t copied = 0;
    const auto put = [&next](const uint8_t* from, size_t size) {
        std::memcpy(next, from, size);
        next += size;
    };
    for (const auto& [index, block] : changes) {
        put(&still_[copied], starts_[index] - copied);
        put(block->data(), block->size());
        copied = starts_[index + 1] - kJpegMarkSize;
    }
    put(&still_[copied], still_.size() - copied);
    return static_cast<size_t>(next - out);
}

}  // namespace zumod::vcam
