#include "src/plugin/message_separation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/doubles/raw_slots.h"
#include "zumod/camera_channel.h"

namespace zumod {
namespace {

using Separation = CMessageSeparation_T<_MESSAGE_HEADER, int, 2, unsigned long, bool>;
using Bytes = std::vector<uint8_t>;

// Has a dispatch table made from rows, with entries of any size, and records the calls.
class TableUnderTest : public Separation {
public:
    struct Row {
        std::vector<uint8_t> keys;
        uint64_t key_count;
        bool handled = true;
    };

    explicit TableUnderTest(const std::vector<Row>& rows, uint64_t entry_size = 32)
        : m_entry_size(entry_size), m_memory((rows.size() + 1) * entry_size) {
        for (size_t i = 0; i <= rows.size(); ++i) {
            Entry entry{};
            if (i < rows.size()) {
                std::copy(rows[i].keys.begin(), rows[i].keys.end(), entry.keys);
                entry.key_count = rows[i].key_count;
                entry.handler = rows[i].handled ? static_cast<Handler>(&TableUnderTest::Handle) : nullptr;
            }
            std::memcpy(m_memory.data() + i * entry_size, &entry, sizeof entry);
        }
    }

    const Entry* GetDispatchTable(uint64_t* entry_size) override {
        *entry_size = m_entry_size;
        return reinterpret_cast<const Entry*>(m_memory.data());
    }
    bool CallEntry(uint64_t index, const uint8_t* body, unsigned long length, int context) override {
        calls.push_back({index, body, length, context});
        return result;
    }

    struct Call {
        uint64_t index;
        const uint8_t* body;
        unsigned long length;
        int context;
    };
    std::vector<Call> calls;
    bool result = true;

private:
    bool Handle(const uint8_t*, unsigned long, int) { return true; }

    const uint64_t m_entry_size;
    std::vector<uint8_t> m_memory;
};

bool Dispatch(TableUnderTest& table, const Bytes& message) {
    return table.OnMessage(message.data(), message.size(), 77);
}

TEST(MessageSeparation, TheBaseClassHasNoTableAndHandlesNothing) {
    Separation separation;
    uint64_t entry_size = 0;
    EXPECT_EQ(separation.GetDispatchTable(&entry_size), nullptr);
    EXPECT_FALSE(separation.CallEntry(0, nullptr, 0, 0));
    const Bytes message = {0, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_FALSE(separation.OnMessage(message.data(), message.size(), 0));
}

TEST(MessageSeparation, NullDataIsRefused) {
    TableUnderTest table({{{0}, 1}});
    EXPECT_FALSE(table.OnMessage(nullptr, 8, 0));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, AMessageShorterThanAHeaderIsRefused) {
    TableUnderTest table({{{7}, 1}});
    EXPECT_FALSE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0}));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, AnEmptyTableMatchesNothing) {
    TableUnderTest table({});
    EXPECT_FALSE(Dispatch(table, {0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(MessageSeparation, AMessageOfLengthZeroIsCalledWithAnEmptyBody) {
    TableUnderTest table({{{7}, 1}});
    const Bytes message = {0, 0, 0, 0, 7, 0, 0, 0};
    EXPECT_TRUE(table.OnMessage(message.data(), message.size(), 77));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].index, 0u);
    EXPECT_EQ(table.calls[0].body, message.data() + 8);
    EXPECT_EQ(table.calls[0].length, 0u);
    EXPECT_EQ(table.calls[0].context, 77);
}

TEST(MessageSeparation, TheBodyLengthIsTheHeadersEvenIfMoreBytesFollow) {
    TableUnderTest table({{{7}, 1}});
    EXPECT_TRUE(Dispatch(table, {2, 0, 0, 0, 7, 0, 0, 0, 0xAA, 0xBB, 0xCC}));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].length, 2u);
}

TEST(MessageSeparation, ReservedBytesAreIgnored) {
    TableUnderTest table({{{7}, 1}});
    EXPECT_TRUE(Dispatch(table, {0, 0, 0, 0, 7, 1, 2, 3}));
}

TEST(MessageSeparation, ABodyShorterThanItsHeaderStatesIsNotDispatched) {
    TableUnderTest table({{{7}, 1}});
    EXPECT_FALSE(Dispatch(table, {3, 0, 0, 0, 7, 0, 0, 0, 1, 2}));
    EXPECT_FALSE(Dispatch(table, {0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0, 1, 2}));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, TheResultOfTheCalledEntryIsReturned) {
    TableUnderTest table({{{7}, 1}});
    table.result = false;
    EXPECT_FALSE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0, 0}));
    EXPECT_EQ(table.calls.size(), 1u);
}

TEST(MessageSeparation, TheFirstEntryThatMatchesWins) {
    TableUnderTest table({{{6}, 1}, {{7}, 1}, {{7}, 1}});
    EXPECT_TRUE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0, 0}));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].index, 1u);
}

TEST(MessageSeparation, AnUnknownTypeMatchesNothing) {
    TableUnderTest table({{{6}, 1}, {{7}, 1}});
    EXPECT_FALSE(Dispatch(table, {0, 0, 0, 0, 8, 0, 0, 0}));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, AKeyCountOfZeroEndsTheSearch) {
    TableUnderTest table({{{6}, 0}, {{7}, 1}});
    // The bytes before the message would pass as the header of an entry without keys.
    const Bytes stream = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0};
    EXPECT_FALSE(table.OnMessage(stream.data() + 8, 8, 77));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, AKeyCountOfThreeEndsTheSearch) {
    TableUnderTest table({{{6}, 3}, {{7}, 1}});
    EXPECT_FALSE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0, 0}));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, AnEntryBeforeABadKeyCountStillMatches) {
    TableUnderTest table({{{7}, 1}, {{6}, 3}});
    EXPECT_TRUE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0, 0}));
}

TEST(MessageSeparation, AnEmptyHandlerEndsTheTable) {
    TableUnderTest table({{{6}, 1, false}, {{7}, 1}});
    EXPECT_FALSE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0, 0}));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, TwoKeysMatchTwoHeadersAndTheInnerOneStatesTheBody) {
    TableUnderTest table({{{7, 9}, 2}});
    const Bytes message = {9, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 0xEE};
    EXPECT_TRUE(table.OnMessage(message.data(), message.size(), 0));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].body, message.data() + 16);
    EXPECT_EQ(table.calls[0].length, 1u);
}

TEST(MessageSeparation, AnIncompleteSecondHeaderDoesNotMatch) {
    TableUnderTest table({{{7, 9}, 2}, {{7}, 1}});
    // The second type byte is there but its header is incomplete, so the entry with one key gets the message.
    EXPECT_TRUE(Dispatch(table, {7, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0}));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].index, 1u);
}

TEST(MessageSeparation, AnInnerBodyShorterThanItsHeaderStatesIsNotDispatched) {
    TableUnderTest table({{{7, 9}, 2}});
    EXPECT_FALSE(Dispatch(table, {9, 0, 0, 0, 7, 0, 0, 0, 2, 0, 0, 0, 9, 0, 0, 0, 0xEE}));
    EXPECT_TRUE(table.calls.empty());
}

TEST(MessageSeparation, EntriesMayBeLargerThanTheirFields) {
    TableUnderTest table({{{6}, 1}, {{7}, 1}}, 48);
    EXPECT_TRUE(Dispatch(table, {0, 0, 0, 0, 7, 0, 0, 0}));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].index, 1u);
}

TEST(MessageSeparation, TheSlotsOfTheTable) {
    TableUnderTest table({{{7}, 1}});
    uint64_t entry_size = 0;
    EXPECT_NE(testing::CallSlot<const void*>(&table, 2, &entry_size), nullptr);
    EXPECT_EQ(entry_size, 32u);
    EXPECT_TRUE(
        (testing::CallSlot<bool>(&table, 3, uint64_t{5}, static_cast<const uint8_t*>(nullptr), 6ul, 3)));
    ASSERT_EQ(table.calls.size(), 1u);
    EXPECT_EQ(table.calls[0].index, 5u);
    const Bytes message = {0, 0, 0, 0, 7, 0, 0, 0};
    EXPECT_TRUE(testing::CallSlot<bool>(&table, 4, message.data(), 8ul, 1));
    EXPECT_EQ(table.calls.size(), 2u);
}

}  // namespace
}  // namespace zumod
