#include "peer/host_calls.h"

#include <gtest/gtest.h>

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(Requests, AreTheBytesOfTheProtocol) {
    EXPECT_EQ(ListRequest(), (Bytes{0, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(VersionRequest(), (Bytes{0, 0, 0, 0, 10, 0, 0, 0}));
    EXPECT_EQ(OpenRequest(1, {640, 480}, 30),
              (Bytes{16, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 30, 0, 0, 0}));
    EXPECT_EQ(SetFormatRequest(258, {1280, 720}, 25),
              (Bytes{16, 0, 0, 0, 9, 0, 0, 0, 2, 1, 0, 0, 0, 5, 0, 0, 0xD0, 2, 0, 0, 25, 0, 0, 0}));
    EXPECT_EQ(CloseRequest(7), (Bytes{4, 0, 0, 0, 4, 0, 0, 0, 7, 0, 0, 0}));
}

}  // namespace
}  // namespace zumod::peer
