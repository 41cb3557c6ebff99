#include "src/base/random.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <random>

namespace zumod {
namespace {

constexpr std::uint32_t kLetters = kRandomLowerCase | kRandomUpperCase;

std::uint32_t Draw() {
    return static_cast<std::uint32_t>(RandomInt(0, std::numeric_limits<std::int32_t>::max()));
}

// Does not return if no kind is allowed.
std::uint32_t DrawKind(std::uint32_t allowed) {
    for (;;) {
        const std::uint32_t kind = 1U << (Draw() % 3);
        if ((kind & allowed) != 0) {
            return kind;
        }
    }
}

char DrawCharacter(std::uint32_t kind) {
    if (kind == kRandomDigits) {
        return static_cast<char>('0' + Draw() % 10);
    }
    return static_cast<char>((kind == kRandomLowerCase ? 'a' : 'A') + Draw() % 26);
}

}  // namespace

void SeedRandom() {
    auto seed = static_cast<std::uint32_t>(std::time(nullptr));
    const int device = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (device > 0) {
        std::uint32_t noise = 0;
        if (read(device, &noise, sizeof noise) > 0) {
            seed += noise;
        }
        close(device);
    }
    std::srand(seed);
}

int RandomInt(int low, int high) {
    std::random_device device("default");
    std::mt19937 generator(device());
    return std::uniform_int_distribution<int>(low, high)(generator);
}

std::string RandomString(std::size_t length, std::uint32_t kinds) {
    const bool both_classes = (kinds & kRandomDigits) != 0 && (kinds & kLetters) != 0;
    std::uint32_t produced = 0;
    std::string text;
    while (text.size() < length) {
        std::uint32_t allowed = kinds;
        if (both_classes && text.size() + 1 == length) {
            if (produced == kRandomDigits) {
                allowed &= kLetters;
            } else if ((produced & kRandomDigits) == 0 && produced != 0) {
                allowed = kRandomDigits;
            }
        }
        const std::uint32_t kind = DrawKind(allowed);
        produced |= kind;
        text.push_back(DrawCharacter(kind));
    }
    return text;
}

}  // namespace zumod
