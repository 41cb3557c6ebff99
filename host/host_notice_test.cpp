#include "host/host_notice.h"

#include <gtest/gtest.h>

#include <string>

namespace zumod::host {
namespace {

TEST(HostNotice, IsAMessageOfType128WithTheTextAsItsBody) {
    EXPECT_EQ(HostNotice("busy"), std::string("\x04\0\0\0\x80\0\0\0busy", 12));
}

TEST(HostNotice, ALongTextIsCutAt256Bytes) {
    EXPECT_EQ(HostNotice(std::string(300, 'a')),
              std::string("\0\x01\0\0\x80\0\0\0", 8) + std::string(256, 'a'));
    EXPECT_EQ(HostNotice(std::string(256, 'a')).size(), 8U + 256);
}

TEST(HostNotice, NoCharacterIsCutInTwo) {
    EXPECT_EQ(HostNotice(std::string(255, 'a') + "\xC3\xA9"),
              std::string("\xFF\0\0\0\x80\0\0\0", 8) + std::string(255, 'a'));
    EXPECT_EQ(HostNotice(std::string(254, 'a') + "\xC3\xA9"),
              std::string("\0\x01\0\0\x80\0\0\0", 8) + std::string(254, 'a') + "\xC3\xA9");
}

}  // namespace
}  // namespace zumod::host
