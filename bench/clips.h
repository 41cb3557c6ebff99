// Clips to encode, made and not recorded, so that every run has the same ones: the pattern of the virtual
// cameras, which costs an encoder hardly anything, and a noisy natural scene.
//
// Thread rule: one thread at a time.
#pragma once

#include <linux/videodev2.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "vcam/picture/pattern.h"

namespace zumod::bench {

class Clip {
public:
    virtual ~Clip() = default;
    // Writes picture number `number` in NV12, without padding.
    virtual void Paint(uint8_t* out, uint32_t number) = 0;
};

class PatternClip final : public Clip {
public:
    PatternClip(unsigned width, unsigned height)
        : m_pattern(vcam::LayOut(V4L2_PIX_FMT_NV12, width, height), "Pattern") {}
    void Paint(uint8_t* out, uint32_t number) override { m_pattern.Paint(out, {number, 33'333ULL * number}); }

private:
    vcam::Pattern m_pattern;
};

// A texture with detail of every scale, as foliage or cloth have it, that a slowly swaying camera sees, and
// the noise of a sensor, which is new in every picture.
class NaturalClip final : public Clip {
public:
    NaturalClip(int width, int height)
        : m_width(width), m_height(height), m_texture(size_t{kSide} * kSide), m_noise(1U << 20) {
        std::vector<float> sum(m_texture.size(), 128.0F);
        // Value noise: random values on a grid, interpolated in between; each finer grid adds less.
        float strength = 48;
        for (unsigned cell = 256; cell >= 2; cell /= 2, strength *= 0.68F) {
            AddOctave(sum, cell, strength);
        }
        for (size_t i = 0; i < sum.size(); ++i) {
            m_texture[i] = static_cast<uint8_t>(std::fmin(std::fmax(sum[i], 16.0F), 235.0F));
        }
        // The sum of four even numbers is nearly a normal distribution: a standard deviation of 2.9.
        for (int8_t& noise : m_noise) {
            int value = -10;
            for (int part = 0; part < 4; ++part) {
                value += static_cast<int>(Random() % 6);
            }
            noise = static_cast<int8_t>(value);
        }
    }

    void Paint(uint8_t* out, uint32_t number) override {
        const auto sway = [&](double period, double size) {
            return static_cast<unsigned>(size * (1 + std::sin(number * 6.2832 / period)));
        };
        const unsigned left = sway(170, 150);
        const unsigned top = sway(110, 60);
        size_t noise = Random() % m_noise.size();
        for (int y = 0; y < m_height; ++y) {
            const uint8_t* row = &m_texture[(top + static_cast<unsigned>(y)) % kSide * kSide];
            for (int x = 0; x < m_width; ++x) {
                const int value = row[(left + static_cast<unsigned>(x)) % kSide] + m_noise[noise];
                noise = noise + 1 == m_noise.size() ? 0 : noise + 1;
                *out++ = static_cast<uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
            }
        }
        // Colours of a lower resolution and with less noise.
        for (int i = 0; i < m_width * m_height / 2; ++i) {
            const int column = i % m_width / 2;
            const int row = i / m_width;
            const unsigned at = ((top / 2 + static_cast<unsigned>(row)) % kSide) * kSide +
                                (left / 2 + static_cast<unsigned>(column) + (i % 2 == 0 ? 0 : 700)) % kSide;
            *out++ = static_cast<uint8_t>(96 + m_texture[at] / 4 +
                                          m_noise[(noise + static_cast<size_t>(i)) % m_noise.size()] / 2);
        }
    }

private:
    static constexpr unsigned kSide = 2048;

    uint32_t Random() {
        m_random ^= m_random << 13;
        m_random ^= m_random >> 17;
        m_random ^= m_random << 5;
        return m_random;
    }

    void AddOctave(std::vector<float>& sum, unsigned cell, float strength) {
        const unsigned count = kSide / cell;
        std::vector<float> grid(size_t{count} * count);
        for (float& value : grid) {
            value = strength * (static_cast<float>(Random() % 2001) / 1000.0F - 1);
        }
        for (unsigned y = 0; y < kSide; ++y) {
            for (unsigned x = 0; x < kSide; ++x) {
                const float down = static_cast<float>(y % cell) / static_cast<float>(cell);
                const float right = static_cast<float>(x % cell) / static_cast<float>(cell);
                const auto at = [&](unsigned row, unsigned column) {
                    return grid[size_t{row % count} * count + column % count];
                };
                const unsigned row = y / cell;
                const unsigned column = x / cell;
                const float above = at(row, column) * (1 - right) + at(row, column + 1) * right;
                const float below = at(row + 1, column) * (1 - right) + at(row + 1, column + 1) * right;
                sum[size_t{y} * kSide + x] += above * (1 - down) + below * down;
            }
        }
    }

    const int m_width;
    const int m_height;
    uint32_t m_random = 2463534242;
    std::vector<uint8_t> m_texture;
    std::vector<int8_t> m_noise;
};

}  // namespace zumod::bench
