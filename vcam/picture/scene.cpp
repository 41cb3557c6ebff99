#include "vcam/picture/scene.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string_view>

namespace zumod::vcam {
namespace {

constexpr Colour kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};

}  // namespace

Scene::Scene(unsigned width, unsigned height, const std::string& label)
    : m_background(width, height),
      m_grid(StampGrid::For(width, height)),
      m_columns(width / kTile),
      m_rows(height / kTile) {
    unsigned row = (m_grid.rows * m_grid.block + kTile - 1) / kTile;
    if (row + 3 <= m_rows) {
        m_label_row = row++;
    }
    if (row < m_rows) {
        m_text_row = row++;
    }
    m_first_free_row = std::min(row, m_rows);
    PaintBars();
    PaintLabel(label);
}

void Scene::PaintBars() {
    const unsigned top = m_first_free_row * kTile;
    const unsigned width = m_background.width;
    const unsigned height = m_background.height;
    if (top >= height) {
        return;
    }
    const unsigned ramp = top + (height - top) * 3 / 4 / 2 * 2;
    const unsigned bars = static_cast<unsigned>(std::size(kBars));
    for (unsigned bar = 0; bar < bars; ++bar) {
        const unsigned left = width * bar / bars / 2 * 2;
        const unsigned right = bar + 1 == bars ? width : width * (bar + 1) / bars / 2 * 2;
        m_background.Fill(left, top, right - left, ramp - top, kBars[bar]);
    }
    for (unsigned x = 0; x < width; x += 2) {
        m_background.Fill(x, ramp, 2, height - ramp, {static_cast<uint8_t>(16 + 219 * x / width), 128, 128});
    }
}

void Scene::PaintLabel(const std::string& label) {
    if (!m_label_row) {
        return;
    }
    const unsigned top = *m_label_row * kTile;
    for (unsigned i = 0; i < label.size() && i < m_columns; ++i) {
        const Glyph glyph = DrawGlyph(label[i]);
        for (unsigned y = 0; y < kTile; ++y) {
            for (unsigned x = 0; x < kTile; ++x) {
                if (glyph[y][x]) {
                    m_background.y[size_t{top + y} * m_background.width + size_t{i} * kTile + x] =
                        kStampWhite;
                }
            }
        }
    }
}

PlacedText Scene::Text(const Stamp& stamp) const {
    if (!m_text_row) {
        return {};
    }
    PlacedText placed{*m_text_row};
    constexpr unsigned kCounterDigits = 10;
    char text[sizeof placed.text];
    const uint64_t ms = stamp.time_us / 1000;
    std::snprintf(text, sizeof text, "%010" PRIu32 " %" PRIu64 ".%03" PRIu64, stamp.counter, ms / 1000,
                  ms % 1000);
    // If not everything fits, keep the last digits of the counter.
    const unsigned skipped = m_columns < kCounterDigits ? kCounterDigits - m_columns : 0;
    std::string_view(text + skipped).substr(0, m_columns).copy(placed.text, sizeof placed.text - 1);
    return placed;
}

PlacedSquare Scene::Square(const Stamp& stamp) const {
    const unsigned free_rows = m_rows - m_first_free_row;
    unsigned size = std::min({kGreatestSquare, free_rows, m_columns});
    if (size == 0) {
        return {};
    }
    // It crosses the picture from left to right, one row of squares after another.
    const unsigned steps = m_columns - size + 1;
    const unsigned lines = free_rows / size;
    const unsigned step = stamp.counter % (steps * lines);
    return {step % steps, m_first_free_row + step / steps * size, size};
}

}  // namespace zumod::vcam
