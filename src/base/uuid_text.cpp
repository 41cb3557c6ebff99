#include "src/base/uuid_text.h"

#include <uuid/uuid.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zumod {
namespace {

struct UuidRecord {
    std::uint64_t first;
    std::uint16_t second;
    std::uint16_t third;
    unsigned char tail[8];
};
static_assert(offsetof(UuidRecord, second) == 8 && offsetof(UuidRecord, third) == 10 &&
              offsetof(UuidRecord, tail) == 12);
static_assert(sizeof(uuid_t) == 16);

}  // namespace

std::string NewUuidString() {
    uuid_t bytes;
    uuid_generate(bytes);
    return UuidText(bytes);
}

std::string UuidText(const unsigned char (&bytes)[16]) {
    // The 16 bytes fill only half of the tail; the other half is 0.
    UuidRecord record{};
    std::memcpy(&record, bytes, sizeof bytes);
    char text[64];
    std::snprintf(text, sizeof text, "%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", record.first,
                  record.second, record.third, record.tail[0], record.tail[1], record.tail[2], record.tail[3],
                  record.tail[4], record.tail[5], record.tail[6], record.tail[7]);
    return text;
}

}  // namespace zumod
