// Pictures for an encoder, and the memory that they and the encoded bytes lie in.
//
// Thread rule: one thread at a time.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "zumod/zumod.h"

namespace zumod::validate {

// Memory that ends where a page begins that cannot be touched.
class GuardedMemory {
public:
    explicit GuardedMemory(size_t size) : m_size(size) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        m_usable = (size + page - 1) / page * page;
        m_mapped = m_usable + page;
        void* const memory = mmap(nullptr, m_mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        m_memory = static_cast<uint8_t*>(memory);
        if (m_usable > 0 && mprotect(m_memory, m_usable, PROT_READ | PROT_WRITE) != 0) {
            throw std::bad_alloc();
        }
    }
    ~GuardedMemory() { munmap(m_memory, m_mapped); }
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    uint8_t* Data() const { return m_memory + (m_usable - m_size); }
    size_t Size() const { return m_size; }
    // From now on the memory can only be read (PROT_READ), or not be touched at all (PROT_NONE).
    void Protect(int protection) const {
        if (m_usable > 0) {
            mprotect(m_memory, m_usable, protection);
        }
    }

private:
    const size_t m_size;
    size_t m_usable = 0;
    size_t m_mapped = 0;
    uint8_t* m_memory = nullptr;
};

// The arguments of an encode call. Its output moves on every PrepareOutput, and what is behind it cannot be
// touched.
class EncodeArguments final : public CCounted_T<IVEncArgs> {
public:
    // The input ends at a page that cannot be touched, and is read-only. `most`: PrepareOutput grants no more
    // bytes.
    EncodeArguments(std::span<const uint8_t> input, uint64_t most) : m_input(input.size()), m_most(most) {
        if (!input.empty()) {
            std::memcpy(m_input.Data(), input.data(), input.size());
        }
        m_input.Protect(PROT_READ);
    }

    uint64_t GetArgOption() override { return 0; }
    const void* GetInputData() override { return m_input.Data(); }
    uint64_t GetInputSize() override { return m_input.Size(); }
    uint64_t GetArgFlags() override { return 0; }
    void ResetArgs() override {}
    uint64_t PrepareOutput(uint32_t size) override {
        m_prepared = true;
        auto moved = std::make_unique<GuardedMemory>(size < m_most ? size : m_most);
        if (m_output != nullptr) {
            const size_t kept = moved->Size() < m_output->Size() ? moved->Size() : m_output->Size();
            if (kept > 0) {
                std::memcpy(moved->Data(), m_output->Data(), kept);
            }
        }
        m_output = std::move(moved);
        return m_output->Size();
    }
    void* GetOutputData() override { return m_output != nullptr ? m_output->Data() : nullptr; }
    uint64_t GetOutputSize() override { return m_output != nullptr ? m_output->Size() : 0; }

    // From now on the input cannot be read either.
    void ForbidInput() const { m_input.Protect(PROT_NONE); }
    bool IsPrepared() const { return m_prepared; }
    std::vector<uint8_t> Output() const {
        return m_output != nullptr
                   ? std::vector<uint8_t>(m_output->Data(), m_output->Data() + m_output->Size())
                   : std::vector<uint8_t>();
    }

private:
    const GuardedMemory m_input;
    const uint64_t m_most;
    std::unique_ptr<GuardedMemory> m_output;
    bool m_prepared = false;
};

// What an encoder may be given: the named formats, and "BGR4" for BGR with 32 bits per pixel.
inline constexpr const char* kFormats[] = {"NV12", "NV21", "I420", "YV12", "YUY2", "BGR4"};

struct Picture {
    VideoInputFormat format;
    std::vector<uint8_t> bytes;
};

// The planes of a picture as I420.
struct Planes {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> planes[3];
};

// The test picture: three gradients, different in each plane, that move with `index`. Even sizes.
inline Planes TestPlanes(int32_t width, int32_t height, int index) {
    Planes result{width, height, {}};
    for (int plane = 0; plane < 3; ++plane) {
        const int32_t step = plane == 0 ? 1 : 2;
        for (int32_t y = 0; y < height; y += step) {
            for (int32_t x = 0; x < width; x += step) {
                const int32_t value = plane == 0   ? 40 + (x + index) * 160 / width
                                      : plane == 1 ? 60 + y * 130 / height
                                                   : 200 - x * 130 / width;
                result.planes[plane].push_back(static_cast<uint8_t>(value));
            }
        }
    }
    return result;
}

// The test picture in a format, with `padding` more bytes in each row of the first plane. Even padding.
inline Picture TestPicture(std::string_view name, int32_t width, int32_t height, int index = 0,
                           int32_t padding = 0) {
    const Planes planes = TestPlanes(width, height, index);
    const bool packed = name == "YUY2" || name == "BGR4";
    const int32_t bytes_per_pixel = name == "YUY2" ? 2 : name == "BGR4" ? 4 : 1;
    uint32_t code = 0;
    std::memcpy(&code, name.data(), name == "BGR4" ? 0 : sizeof code);
    Picture picture{{width, height, width * bytes_per_pixel + padding, 8 * bytes_per_pixel, code}, {}};
    const auto sample = [&](int plane, int32_t x, int32_t y) {
        const int32_t step = plane == 0 ? 1 : 2;
        return planes.planes[plane][static_cast<size_t>(y / step * ((width + step - 1) / step) + x / step)];
    };
    const auto pad = [&](int32_t count) {
        picture.bytes.resize(picture.bytes.size() + static_cast<size_t>(count));
    };
    for (int32_t y = 0; y < height; ++y) {
        for (int32_t x = 0; x < width; ++x) {
            picture.bytes.push_back(sample(0, x, y));
            if (name == "YUY2") {
                picture.bytes.push_back(sample(x % 2 == 0 ? 1 : 2, x, y));
            } else if (name == "BGR4") {
                picture.bytes.insert(picture.bytes.end(), {sample(1, x, y), sample(2, x, y), 255});
            }
        }
        pad(padding);
    }
    if (packed) {
        return picture;
    }
    // A Fourcc with "NV" has one plane of pairs, the others two planes; "21" and "YV" begin with V.
    const bool pairs = name.substr(0, 2) == "NV";
    const int first = name == "NV21" || name == "YV12" ? 2 : 1;
    for (int part = 0; part < (pairs ? 1 : 2); ++part) {
        for (int32_t y = 0; y < height; y += 2) {
            for (int32_t x = 0; x < width; x += 2) {
                picture.bytes.push_back(sample(part == 0 ? first : 3 - first, x, y));
                if (pairs) {
                    picture.bytes.push_back(sample(3 - first, x, y));
                }
            }
            pad(pairs ? padding : padding / 2);
        }
    }
    return picture;
}

}  // namespace zumod::validate
