// Random numbers and texts.
//
// Thread rule: SeedRandom reseeds the C library's generator for the whole process; the others have no state
// and are [any thread].
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zumod {

// Seeds rand() with the time plus four bytes of /dev/urandom. Required by the contract: if the device is
// opened as descriptor 0, only the time is used and the descriptor stays open.
void SeedRandom();

// Uniformly distributed over [low, high]; `low` must not be above `high`. Every call opens the random device
// and seeds a new generator for one number: slow, but no state is shared.
int RandomInt(int low, int high);

// The kinds of characters of RandomString.
constexpr std::uint32_t kRandomDigits = 1;
constexpr std::uint32_t kRandomLowerCase = 2;
constexpr std::uint32_t kRandomUpperCase = 4;

// `length` characters of the given kinds, all equally likely. If digits and letters are both allowed, a text
// of two or more characters has both: if all characters before the last are of one class, the last is drawn
// from the other. Required by the contract: with no kind and a length above 0 it does not return.
std::string RandomString(std::size_t length, std::uint32_t kinds);

}  // namespace zumod
