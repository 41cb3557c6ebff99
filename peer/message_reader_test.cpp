#include "peer/message_reader.h"

#include <gtest/gtest.h>

#include "tests/support/wire/camera_messages.h"

namespace zumod::peer {
namespace {

using testing::operator+;
using testing::Bytes;
using testing::CameraBytes;
using testing::FrameBytes;
using testing::ListBytes;
using testing::MessageBytes;
using testing::Number32;
using testing::StateBytes;

struct Read {
    std::vector<Message> messages;
    std::string error;  // empty if there was none
};

// Feeds the bytes in two pieces.
Read ReadSplit(const Bytes& bytes, size_t first) {
    MessageReader reader;
    Read read;
    const std::span<const uint8_t> all(bytes);
    const auto fed = reader.Feed(all.first(first), read.messages).and_then([&] {
        return reader.Feed(all.subspan(first), read.messages);
    });
    read.error = fed ? "" : fed.error().text;
    return read;
}

Read ReadAll(const Bytes& bytes) {
    return ReadSplit(bytes, 0);
}

const Bytes kConversation = testing::kVersionReplyBytes + ListBytes({CameraBytes(0, "Cam", {{640, 480}})}) +
                            StateBytes(2, 7) + MessageBytes(99, {1, 2, 3}) + FrameBytes(7, {9, 8, 7}) +
                            FrameBytes(7, {}) + testing::NoticeBytes("busy") +
                            testing::InformationBytes("hi") + StateBytes(4, 7) +
                            MessageBytes(130, Number32(3) + Number32(1));

const std::vector<Message> kItsMessages = {VersionMessage{5},
                                           CameraListMessage{{{0, false, "Cam", "Cam", {{640, 480}}}}},
                                           StateMessage{kCameraOpen, 7},
                                           FrameMessage{7, {9, 8, 7}},
                                           FrameMessage{7, {}},
                                           NoticeMessage{"busy"},
                                           InformationMessage{"hi"},
                                           StateMessage{kCameraClosed, 7},
                                           ControlsMessage{3, false, {}}};

TEST(MessageReader, ReadsAConversationSplitAtAnyByte) {
    for (size_t first = 0; first <= kConversation.size(); ++first) {
        const Read read = ReadSplit(kConversation, first);
        ASSERT_EQ(read.error, "") << "at " << first;
        ASSERT_EQ(read.messages, kItsMessages) << "at " << first;
    }
}

std::string GreetingIn(const std::string& text) {
    return Greeting(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

TEST(Greeting, IsTheFirstLineOfText) {
    EXPECT_EQ(GreetingIn("\r\n  Welcome to desk\r\nToday: rain\n"), "'Welcome to desk'");
    EXPECT_EQ(GreetingIn("no"), "'no'");
    EXPECT_EQ(GreetingIn("\x1b[2Jred alert"), "'\\x1b[2Jred alert'");
    EXPECT_EQ(GreetingIn(std::string(61, 'x')), "'" + std::string(60, 'x') + "\u2026'");
    EXPECT_EQ(GreetingIn("\n\n"), "''");
}

TEST(Greeting, IsNotInTheBeginningOfAMessage) {
    for (size_t size = 0; size <= kConversation.size(); ++size) {
        EXPECT_EQ(Greeting(std::span(kConversation).first(size)), "") << size;
    }
    EXPECT_EQ(Greeting(Bytes{255, 255, 255, 255, 2, 0, 0, 0}), "");
}

TEST(MessageReader, ReadsAConversationByteByByte) {
    MessageReader reader;
    std::vector<Message> messages;
    for (const uint8_t byte : kConversation) {
        ASSERT_TRUE(reader.Feed({&byte, 1}, messages));
    }
    EXPECT_EQ(messages, kItsMessages);
    EXPECT_FALSE(reader.InMessage());
}

TEST(MessageReader, KnowsWhetherAMessageHasBegun) {
    MessageReader reader;
    std::vector<Message> messages;
    EXPECT_FALSE(reader.InMessage());
    (void)reader.Feed(std::span(kConversation).first(1), messages);
    EXPECT_TRUE(reader.InMessage());
    (void)reader.Feed(std::span(kConversation).subspan(1, 10), messages);
    EXPECT_TRUE(reader.InMessage());
    (void)reader.Feed(std::span(kConversation).subspan(11, 1), messages);
    EXPECT_FALSE(reader.InMessage());
}

TEST(MessageReader, IgnoresTheReservedBytesOfAHeader) {
    const Read read = ReadAll({4, 0, 0, 0, 11, 1, 2, 3, 5, 0, 0, 0});
    EXPECT_EQ(read.error, "");
    EXPECT_EQ(read.messages, std::vector<Message>{VersionMessage{5}});
}

TEST(MessageReader, SkipsRequestsAndMessagesOfUnknownTypes) {
    const Read read = ReadAll(MessageBytes(1, {}) + MessageBytes(0, {}) + MessageBytes(255, Bytes(70000, 7)) +
                              testing::kVersionReplyBytes);
    EXPECT_EQ(read.error, "");
    EXPECT_EQ(read.messages, std::vector<Message>{VersionMessage{5}});
}

TEST(MessageReader, AcceptsTheLongestNotice) {
    const std::string longest(256, 'x');
    EXPECT_EQ(ReadAll(testing::NoticeBytes(longest)).messages, std::vector<Message>{NoticeMessage{longest}});
}

struct Malformed {
    const char* name;
    Bytes bytes;
    const char* error;
};

class MessageReaderRefuses : public ::testing::TestWithParam<Malformed> {};

TEST_P(MessageReaderRefuses, AndReadsNothingAfterIt) {
    const Bytes bytes = testing::kVersionReplyBytes + GetParam().bytes;
    for (size_t first = 0; first <= bytes.size(); ++first) {
        MessageReader reader;
        std::vector<Message> messages;
        (void)reader.Feed(std::span(bytes).first(first), messages);
        const auto fed = reader.Feed(std::span(bytes).subspan(first), messages);
        ASSERT_FALSE(fed) << "split at " << first;
        ASSERT_EQ(fed.error().text, GetParam().error) << "split at " << first;
        ASSERT_EQ(messages, std::vector<Message>{VersionMessage{5}});
        EXPECT_EQ(reader.Feed(testing::kVersionReplyBytes, messages).error(), fed.error());
        ASSERT_EQ(messages.size(), 1U);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Malformed, MessageReaderRefuses,
    ::testing::Values(
        Malformed{"ShortVersion", {3, 0, 0, 0, 11, 0, 0, 0, 5, 0, 0}, "a version message of 3 bytes"},
        Malformed{"LongVersion", {5, 0, 0, 0, 11, 0, 0, 0, 5, 0, 0, 0, 0}, "a version message of 5 bytes"},
        Malformed{"ShortState", {4, 0, 0, 0, 5, 0, 0, 0, 2, 0, 0, 0}, "a camera state message of 4 bytes"},
        Malformed{"LongState", {9, 0, 0, 0, 5, 0, 0, 0}, "a camera state message of 9 bytes"},
        Malformed{"UnknownState", StateBytes(3, 0), "the unknown camera state 3"},
        Malformed{"StateZero", StateBytes(0, 0), "the unknown camera state 0"},
        Malformed{"ShortFrame", {7, 0, 0, 0, 7, 0, 0, 0}, "a video frame message of 7 bytes"},
        Malformed{"FrameThatStatesLess",
                  {11, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1, 2, 3},
                  "a video frame of 2 bytes in a message with 3"},
        Malformed{"FrameThatStatesMore",
                  {8, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0},
                  "a video frame of 1 bytes in a message with 0"},
        Malformed{"FrameTooLarge", {9, 0, 0, 4, 7, 0, 0, 0}, "a video frame message of 67108873 bytes"},
        Malformed{
            "GreatestLength", {255, 255, 255, 255, 7, 0, 0, 0}, "a video frame message of 4294967295 bytes"},
        Malformed{"EmptyList", {0, 0, 0, 0, 2, 0, 0, 0}, "a camera list message of 0 bytes"},
        Malformed{"ListTooLong", {0, 0, 0, 1, 2, 0, 0, 0}, "a camera list message of 16777216 bytes"},
        Malformed{"ListWithoutItsCamera",
                  {4, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0},
                  "a camera list whose records and sizes do not fill its 4 bytes"},
        Malformed{"LongNotice", {1, 1, 0, 0, 128, 0, 0, 0}, "a notice message of 257 bytes"},
        Malformed{"UnknownTooLong", {9, 0, 0, 4, 77, 0, 0, 0}, "a message of type 77 and 67108873 bytes"}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace zumod::peer
