#include "common/picture_stamp.h"

namespace zumod {
namespace {

constexpr std::array<bool, 4> kReference = {true, false, true, true};
constexpr unsigned kCounterBits = 32;
constexpr unsigned kTimeBits = 48;
constexpr unsigned kCheckBits = 16;

uint16_t CheckSum(const Stamp& stamp) {
    uint32_t sum = 0xffff;
    const auto add = [&sum](uint64_t value, unsigned bytes) {
        for (unsigned i = 0; i < bytes; ++i) {
            sum ^= static_cast<uint32_t>(value >> (8 * i) & 0xff) << 8;
            for (int bit = 0; bit < 8; ++bit) {
                sum = (sum & 0x8000) != 0 ? (sum << 1) ^ 0x1021 : sum << 1;
            }
            sum &= 0xffff;
        }
    };
    add(stamp.counter, kCounterBits / 8);
    add(stamp.time_us, kTimeBits / 8);
    return static_cast<uint16_t>(sum);
}

}  // namespace

StampGrid StampGrid::For(unsigned width, unsigned height) {
    // The largest block that leaves most of the picture free. In a small picture the stamp takes a larger
    // part of the height.
    struct Choice {
        unsigned block;
        unsigned of_height;  // the stamp takes at most this many twelfths of the height
    };
    for (const Choice choice : {Choice{32, 3}, {16, 3}, {8, 3}, {8, 6}, {8, 8}, {4, 12}}) {
        const unsigned columns = width / choice.block;
        if (columns == 0) {
            continue;
        }
        const unsigned rows = (kStampBits + columns - 1) / columns;
        if (rows * choice.block * 12 <= height * choice.of_height) {
            return {choice.block, columns, rows};
        }
    }
    return {};
}

StampPattern EncodeStamp(const Stamp& stamp) {
    StampPattern bits{};
    size_t next = 0;
    const auto put = [&](uint64_t value, unsigned count) {
        for (unsigned i = count; i-- > 0;) {
            bits[next++] = (value >> i & 1) != 0;
        }
    };
    const Stamp kept{stamp.counter, stamp.time_us & ((uint64_t{1} << kTimeBits) - 1)};
    for (const bool bit : kReference) {
        bits[next++] = bit;
    }
    put(kept.counter, kCounterBits);
    put(kept.time_us, kTimeBits);
    put(CheckSum(kept), kCheckBits);
    return bits;
}

std::optional<Stamp> DecodeStamp(const StampPattern& bits) {
    size_t next = 0;
    const auto get = [&](unsigned count) {
        uint64_t value = 0;
        for (unsigned i = 0; i < count; ++i) {
            value = value << 1 | (bits[next++] ? 1U : 0U);
        }
        return value;
    };
    for (const bool bit : kReference) {
        if (bits[next++] != bit) {
            return std::nullopt;
        }
    }
    Stamp stamp;
    stamp.counter = static_cast<uint32_t>(get(kCounterBits));
    stamp.time_us = get(kTimeBits);
    if (get(kCheckBits) != CheckSum(stamp)) {
        return std::nullopt;
    }
    return stamp;
}

std::optional<Stamp> ReadStamp(const uint8_t* luma, size_t stride, unsigned width, unsigned height,
                               unsigned step) {
    const StampGrid grid = StampGrid::For(width, height);
    if (grid.block == 0) {
        return std::nullopt;
    }
    // Compression blurs a block's edges: only its middle half is read.
    const unsigned margin = grid.block / 4;
    const unsigned side = grid.block - 2 * margin;
    std::array<unsigned, kStampBits> level{};
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        const unsigned left = bit % grid.columns * grid.block;
        const unsigned top = bit / grid.columns * grid.block;
        unsigned sum = 0;
        for (unsigned y = top + margin; y < top + margin + side; ++y) {
            const uint8_t* row = luma + y * stride;
            for (unsigned x = left + margin; x < left + margin + side; ++x) {
                sum += row[size_t{x} * step];
            }
        }
        level[bit] = sum / (side * side);
    }
    // The first two blocks are white and black.
    if (level[0] < level[1] + 32) {
        return std::nullopt;
    }
    const unsigned threshold = (level[0] + level[1]) / 2;
    StampPattern bits{};
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        bits[bit] = level[bit] > threshold;
    }
    return DecodeStamp(bits);
}

}  // namespace zumod
