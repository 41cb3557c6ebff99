// Random numbers and texts. SeedRandom reseeds the C library's generator for the whole process; the others
// keep nothing between calls and are safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zumod {

// Seeds rand() with the time plus four bytes of /dev/urandom. The device does not count where it is given
// descriptor 0: then the seed is the time alone and the descriptor stays open; kept as it is.
void SeedRandom();

// One of [low, high], each as likely; `low` must not be above `high`. Every call opens the random device anew
// and draws one number from a generator it seeds: slow, but nothing is shared.
int RandomInt(int low, int high);

// The kinds of characters that RandomString takes.
constexpr std::uint32_t kRandomDigits = 1;
constexpr std::uint32_t kRandomLowerCase = 2;
constexpr std::uint32_t kRandomUpperCase = 4;

// `length` characters of the given kinds, each kind as likely as another. With digits and letters both
// allowed, a text of two characters or more holds both: if all before the last one are of one class, the last
// is drawn from the other. With none of the kinds and a length above 0 it draws without end; kept as it is.
std::string RandomString(std::size_t length, std::uint32_t kinds);

}  // namespace zumod
