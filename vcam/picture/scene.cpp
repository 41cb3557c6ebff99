#include "vcam/picture/scene.h"

#include <algorithm>

namespace zumod::vcam {
namespace {

constexpr Colour kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};
constexpr uint8_t kLetterLuma = kStampWhite;

}  // namespace

Scene::Scene(unsigned width, unsigned height, const std::string& label)
    : background_(width, height),
      grid_(StampGrid::For(width, height)),
      columns_(width / kTile),
      rows_(height / kTile) {
    unsigned row = (grid_.rows * grid_.block + kTile - 1) / kTile;
    has_label_ = row + 3 <= rows_;
    if (has_label_) {
        label_row_ = row++;
    }
    has_letters_ = row < rows_;
    if (has_letters_) {
        letter_row_ = row++;
    }
    first_free_row_ = std::min(row, rows_);
    PaintBars();
    PaintLabel(label);
}

void Scene::PaintBars() {
    const unsigned top = first_free_row_ * kTile;
    const unsigned width = background_.width;
    const unsigned height = background_.height;
    if (top >= height) {
        return;
    }
    const unsigned ramp = top + (height - top) * 3 / 4 / 2 * 2;
    const unsigned bars = static_cast<unsigned>(std::size(kBars));
    for (unsigned bar = 0; bar < bars; ++bar) {
        const unsigned left = width * bar / bars / 2 * 2;
        const unsigned right = bar + 1 == bars ? width : width * (bar + 1) / bars / 2 * 2;
        background_.Fill(left, top, right - left, ramp - top, kBars[bar]);
    }
    for (unsigned x = 0; x < width; x += 2) {
        background_.Fill(x, ramp, 2, height - ramp, {static_cast<uint8_t>(16 + 219 * x / width), 128, 128});
    }
}

void Scene::PaintLabel(const std::string& label) {
    if (!has_label_) {
        return;
    }
    for (unsigned i = 0; i < label.size() && i < columns_; ++i) {
        const Glyph glyph = DrawGlyph(label[i]);
        for (unsigned y = 0; y < kTile; ++y) {
            for (unsigned x = 0; x < kTile; ++x) {
                if (glyph[y][x]) {
                    background_.y[size_t{label_row_ * kTile + y} * background_.width + i * kTile + x] =
                        kLetterLuma;
                }
            }
        }
    }
}

PlacedGlyphs Scene::Letters(const Stamp& stamp) const {
    PlacedGlyphs letters;
    if (!has_letters_) {
        return letters;
    }
    // The counter in ten digits, a blank, then seconds and milliseconds, written from the right.
    constexpr unsigned kCounterDigits = 10;
    char text[PlacedGlyphs::kMost];
    char* const end = text + sizeof text;
    char* next = end;
    uint64_t time = stamp.time_us / 1000;
    for (unsigned digits = 0; digits < 4 || time != 0; ++digits, time /= 10) {
        if (digits == 3) {
            *--next = '.';
        }
        *--next = static_cast<char>('0' + time % 10);
    }
    *--next = ' ';
    uint32_t counter = stamp.counter;
    for (unsigned digits = 0; digits < kCounterDigits; ++digits, counter /= 10) {
        *--next = static_cast<char>('0' + counter % 10);
    }
    // Where there is not room for everything, the last digits of the counter matter most.
    next += columns_ < kCounterDigits ? kCounterDigits - columns_ : 0;
    for (unsigned column = 0; next + column < end && column < columns_; ++column) {
        if (next[column] != ' ') {
            letters.Add({column, letter_row_, next[column]});
        }
    }
    return letters;
}

PlacedSquare Scene::Square(const Stamp& stamp) const {
    const unsigned free_rows = rows_ - first_free_row_;
    unsigned size = std::min({kGreatestSquare, free_rows, columns_});
    if (size == 0) {
        return {};
    }
    // It crosses the picture from left to right, one line of squares after the other.
    const unsigned steps = columns_ - size + 1;
    const unsigned lines = free_rows / size;
    const unsigned step = stamp.counter % (steps * lines);
    return {step % steps, first_free_row_ + step / steps * size, size};
}

}  // namespace zumod::vcam
