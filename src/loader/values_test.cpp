#include "zumod/values.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using testing::CountedObject;
using testing::ReferenceLedger;
using Bytes = std::vector<uint8_t>;

static_assert(sizeof(CZUModData) == sizeof(IZUModData) + sizeof(CReference) + 8 + 24 + 8,
              "bases, tag, bytes, object");

CRefPtr_T<IZUModData> Value(uint32_t tag, const Bytes& bytes) {
    return CRefPtr_T<IZUModData>(new CZUModData(tag, bytes.data(), bytes.size()));
}

Bytes BytesOf(const CRefPtr_T<IZUModData>& value) {
    const auto* first = static_cast<const uint8_t*>(value->GetData());
    return first != nullptr ? Bytes(first, first + value->GetSize()) : Bytes();
}

TEST(ModData, ANewValueIsAnIntegerWithoutBytes) {
    const CRefPtr_T<IZUModData> value(new CZUModData);
    EXPECT_EQ(value->GetType(), 2U);
    EXPECT_EQ(value->GetData(), nullptr);
    EXPECT_EQ(value->GetSize(), 0U);
    EXPECT_EQ(value->GetInt64(), 0);
    EXPECT_EQ(value->GetObject(), nullptr);
}

uint64_t WordAt(const void* object, size_t offset) {
    uint64_t word = 0;
    std::memcpy(&word, static_cast<const char*>(object) + offset, sizeof word);
    return word;
}

TEST(ModData, StoresItsTagThenItsBytesThenItsObjectAfterItsBases) {
    // Its table pointer, then CReference's table pointer and two counts.
    constexpr size_t kTag = 32;
    constexpr size_t kBytes = 40;  // begin, end, capacity
    constexpr size_t kObject = 64;
    const CZUModData block(5, "abc", 3);
    EXPECT_EQ(WordAt(&block, kTag) & 0xFFFFFFFF, 5U);
    const auto* first = reinterpret_cast<const char*>(WordAt(&block, kBytes));
    EXPECT_EQ(std::string(first, 3), "abc");
    EXPECT_EQ(WordAt(&block, kBytes + 8), reinterpret_cast<uint64_t>(first + 3));
    EXPECT_GE(WordAt(&block, kBytes + 16), reinterpret_cast<uint64_t>(first + 3));
    EXPECT_EQ(WordAt(&block, kObject), 0U);
    ReferenceLedger ledger;
    auto* held = new CountedObject(ledger);
    const CZUModData object(held);
    EXPECT_EQ(WordAt(&object, kTag) & 0xFFFFFFFF, 7U);
    EXPECT_EQ(WordAt(&object, kBytes), 0U);
    EXPECT_EQ(WordAt(&object, kObject), reinterpret_cast<uint64_t>(held));
}

TEST(ModData, ANewValueHasACountOfZero) {
    auto* value = new CZUModData;
    EXPECT_EQ(value->AddRef(), 1U);
    EXPECT_EQ(value->Release(), 0);
}

TEST(ModData, ABooleanIsOneByte) {
    const auto yes = CZUModData::FromBool(true);
    EXPECT_EQ(yes->GetType(), 1U);
    EXPECT_EQ(BytesOf(yes), Bytes{1});
    EXPECT_TRUE(yes->GetBool());
    const auto no = CZUModData::FromBool(false);
    EXPECT_EQ(no->GetType(), 1U);
    EXPECT_EQ(BytesOf(no), Bytes{0});
    EXPECT_FALSE(no->GetBool());
}

TEST(ModData, AnIntegerIsEightBytesInNativeOrder) {
    const auto value = CZUModData::FromInt64(0x0102030405060708);
    EXPECT_EQ(value->GetType(), 2U);
    EXPECT_EQ(BytesOf(value), (Bytes{8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(value->GetInt64(), 0x0102030405060708);
    EXPECT_EQ(CZUModData::FromInt64(-2)->GetInt64(), -2);
}

TEST(ModData, ATextIsItsCharactersAndANul) {
    const auto value = CZUModData::FromText("abc");
    EXPECT_EQ(value->GetType(), 4U);
    EXPECT_EQ(BytesOf(value), (Bytes{'a', 'b', 'c', 0}));
    EXPECT_STREQ(value->GetString(), "abc");
}

TEST(ModData, AnEmptyTextIsOneNulAndNotNull) {
    const auto value = CZUModData::FromText("");
    EXPECT_EQ(BytesOf(value), Bytes{0});
    EXPECT_STREQ(value->GetString(), "");
}

TEST(ModData, ANullTextIsAnEmptyOne) {
    const auto value = CZUModData::FromText(nullptr);
    EXPECT_EQ(value->GetType(), 4U);
    EXPECT_EQ(BytesOf(value), Bytes{0});
}

TEST(ModData, AHandleIsEightBytes) {
    const auto value = CZUModData::FromPointer(0xfedcba9876543210);
    EXPECT_EQ(value->GetType(), 6U);
    EXPECT_EQ(BytesOf(value), (Bytes{0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe}));
    EXPECT_EQ(value->GetPointer(), 0xfedcba9876543210);
    EXPECT_EQ(BytesOf(CZUModData::FromPointer(0)), Bytes(8, 0));
}

TEST(ModData, AFloatIsReadFromItsFourBytes) {
    EXPECT_EQ(Value(3, {0, 0, 0xc0, 0x3f})->GetFloat(), 1.5F);
}

TEST(ModData, ABlockReturnsItsBytes) {
    const auto value = Value(5, {7, 0, 9});
    EXPECT_EQ(std::memcmp(value->GetBlock(), "\x07\x00\x09", 3), 0);
    EXPECT_EQ(value->GetBlock(), value->GetData());
}

TEST(ModData, GettersOfAnotherKindReturnNothing) {
    const Bytes ones(8, 1);
    for (uint32_t tag = 0; tag <= 8; ++tag) {
        SCOPED_TRACE(tag);
        const auto value = Value(tag, ones);
        EXPECT_NE(value->GetData(), nullptr);
        EXPECT_EQ(value->GetSize(), 8U);
        EXPECT_EQ(value->GetBool(), tag == 1);
        EXPECT_EQ(value->GetInt64() != 0, tag == 2);
        EXPECT_EQ(value->GetFloat() != 0.0F, tag == 3);
        EXPECT_EQ(value->GetString() != nullptr, tag == 4);
        EXPECT_EQ(value->GetBlock() != nullptr, tag == 5);
        EXPECT_EQ(value->GetPointer() != 0, tag == 6);
        EXPECT_EQ(value->GetObject(), nullptr);
    }
}

TEST(ModData, GettersOfTooFewBytesReturnNothing) {
    EXPECT_FALSE(Value(1, {})->GetBool());
    EXPECT_EQ(Value(2, Bytes(7, 1))->GetInt64(), 0);
    EXPECT_EQ(Value(3, Bytes(3, 1))->GetFloat(), 0.0F);
    EXPECT_EQ(Value(4, {})->GetString(), nullptr);
    EXPECT_EQ(Value(5, {})->GetBlock(), nullptr);
    EXPECT_EQ(Value(6, Bytes(7, 1))->GetPointer(), 0U);
}

TEST(ModData, GettersOfMoreBytesReadTheFirst) {
    EXPECT_TRUE(Value(1, {2, 0})->GetBool());
    EXPECT_FALSE(Value(1, {0, 1})->GetBool());
    EXPECT_EQ(Value(2, {1, 0, 0, 0, 0, 0, 0, 0, 9})->GetInt64(), 1);
    EXPECT_EQ(Value(3, {0, 0, 0xc0, 0x3f, 9})->GetFloat(), 1.5F);
    EXPECT_EQ(Value(6, {1, 0, 0, 0, 0, 0, 0, 0, 9})->GetPointer(), 1U);
}

TEST(ModData, AnObjectIsReferencedOnceUntilTheValueIsDestroyed) {
    ReferenceLedger ledger;
    auto* object = new CountedObject(ledger);
    {
        const CRefPtr_T<IZUModData> value(new CZUModData(object));
        EXPECT_EQ(value->GetType(), 7U);
        EXPECT_EQ(value->GetData(), nullptr);
        EXPECT_EQ(value->GetSize(), 0U);
        EXPECT_EQ(object->References(), 1);
        EXPECT_EQ(value->GetObject(), object);
        EXPECT_EQ(object->References(), 1);
    }
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(ledger.died, 1);
}

TEST(ModData, AnObjectValueMayHoldNull) {
    const CRefPtr_T<IZUModData> value(new CZUModData(static_cast<IReference*>(nullptr)));
    EXPECT_EQ(value->GetObject(), nullptr);
    const CRefPtr_T<IZUModData> copy(value->Clone());
    EXPECT_EQ(copy->GetType(), 7U);
    EXPECT_EQ(copy->GetObject(), nullptr);
}

TEST(ModData, ACloneIsANewValueWithACountOfZero) {
    const auto value = CZUModData::FromInt64(5);
    IZUModData* copy = value->Clone();
    EXPECT_NE(copy, value.Get());
    EXPECT_EQ(copy->AddRef(), 1U);
    EXPECT_EQ(copy->Release(), 0);
}

TEST(ModData, ACloneHasTheTagAndExactlyTheBytes) {
    for (const uint32_t tag : {1U, 2U, 3U, 4U, 5U, 6U, 99U}) {
        for (const Bytes& bytes : {Bytes{}, Bytes{1, 2, 3}, Bytes(8, 4), Bytes(5000, 5)}) {
            const auto value = Value(tag, bytes);
            const CRefPtr_T<IZUModData> copy(value->Clone());
            EXPECT_EQ(copy->GetType(), tag);
            EXPECT_EQ(BytesOf(copy), bytes);
            EXPECT_EQ(copy->GetSize(), bytes.size());
        }
    }
}

TEST(ModData, ACloneOfABlockOfThreeBytesHasThreeBytes) {
    const CRefPtr_T<IZUModData> copy(Value(5, {7, 8, 9})->Clone());
    EXPECT_EQ(copy->GetSize(), 3U);
    EXPECT_EQ(std::memcmp(copy->GetBlock(), "\x07\x08\x09", 3), 0);
}

TEST(ModData, ACloneDoesNotShareTheBytes) {
    const auto value = CZUModData::FromText("abc");
    const CRefPtr_T<IZUModData> copy(value->Clone());
    *const_cast<char*>(copy->GetString()) = 'X';
    EXPECT_STREQ(value->GetString(), "abc");
}

TEST(ModData, ACloneOfAnObjectSharesItAndAddsOneReference) {
    ReferenceLedger ledger;
    auto* object = new CountedObject(ledger);
    {
        CRefPtr_T<IZUModData> value(new CZUModData(object));
        const CRefPtr_T<IZUModData> copy(value->Clone());
        EXPECT_EQ(object->References(), 2);
        value = nullptr;
        EXPECT_EQ(object->References(), 1);
        EXPECT_EQ(copy->GetType(), 7U);
        EXPECT_EQ(copy->GetObject(), object);
    }
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(ledger.died, 1);
}

TEST(ModData, ACloneOfAnObjectCarriesEightZeroBytes) {
    ReferenceLedger ledger;
    const CRefPtr_T<IZUModData> value(new CZUModData(new CountedObject(ledger)));
    const CRefPtr_T<IZUModData> copy(value->Clone());
    EXPECT_EQ(value->GetSize(), 0U);
    EXPECT_EQ(BytesOf(copy), Bytes(8, 0));
    EXPECT_EQ(BytesOf(CRefPtr_T<IZUModData>(copy->Clone())), Bytes(8, 0));
}

TEST(ModData, ACloneOfAnObjectReleasesItIfMemoryIsShort) {
    ReferenceLedger ledger;
    {
        const CRefPtr_T<IZUModData> value(new CZUModData(new CountedObject(ledger)));
        CallWatch watch;
        watch.Fail(CallWatch::_Znwm, 8, 1);  // the eight zero bytes
        EXPECT_THROW(static_cast<void>(value->Clone()), std::bad_alloc);
    }
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(ledger.died, 1);
}

TEST(ValueReaders, ReturnTheContentOfTheirKind) {
    EXPECT_EQ(TextOf(CZUModData::FromText("abc").Get()), "abc");
    EXPECT_EQ(TextOf(CZUModData::FromText("").Get()), "");
    EXPECT_EQ(IntegerOf(CZUModData::FromInt64(-5).Get()), -5);
    EXPECT_EQ(PointerOf(CZUModData::FromPointer(~uint64_t{0}).Get()), ~uint64_t{0});
    EXPECT_TRUE(BoolOf(CZUModData::FromBool(true).Get()));
    EXPECT_FALSE(BoolOf(CZUModData::FromBool(false).Get()));
}

TEST(ValueReaders, ReturnNothingForNullAndATextWithoutBytes) {
    EXPECT_EQ(TextOf(nullptr), std::nullopt);
    EXPECT_EQ(TextOf(Value(4, {}).Get()), std::nullopt);
    EXPECT_EQ(IntegerOf(nullptr), 0);
    EXPECT_EQ(PointerOf(nullptr), 0U);
    EXPECT_FALSE(BoolOf(nullptr));
}

TEST(ValueReaders, ReturnNothingForAValueOfAnotherKindWhoseGettersDoNotCheck) {
    ReferenceLedger ledger;
    for (const uint32_t tag : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 99U}) {
        SCOPED_TRACE(tag);
        const CRefPtr_T<IZUModData> value(
            new testing::CountedData(ledger, tag, {'1', '2', '3', 0, 5, 6, 7, 8}));
        EXPECT_EQ(TextOf(value.Get()).has_value(), tag == 4);
        EXPECT_EQ(IntegerOf(value.Get()) != 0, tag == 2);
        EXPECT_EQ(PointerOf(value.Get()) != 0, tag == 6);
        EXPECT_EQ(BoolOf(value.Get()), tag == 1);
    }
}

TEST(ModData, TheTableHasItsOperationsInTheBindingOrder) {
    const auto number = CZUModData::FromInt64(-7);
    const void* raw = number.Get();
    EXPECT_EQ((CallSlot<uint64_t>(raw, 2)), 2U);
    EXPECT_EQ((CallSlot<int64_t>(raw, 3)), 1);
    EXPECT_EQ((CallSlot<uint32_t>(raw, 4)), 2U);
    EXPECT_EQ((CallSlot<const void*>(raw, 5)), number->GetData());
    EXPECT_EQ((CallSlot<uint64_t>(raw, 6)), 8U);
    EXPECT_EQ((CallSlot<int64_t>(raw, 10)), -7);
    EXPECT_STREQ((CallSlot<const char*>(CZUModData::FromText("t").Get(), 7)), "t");
    const auto block = Value(5, {1});
    EXPECT_EQ((CallSlot<const void*>(block.Get(), 8)), block->GetData());
    EXPECT_TRUE((CallSlot<bool>(CZUModData::FromBool(true).Get(), 9)));
    EXPECT_EQ((CallSlot<float>(Value(3, {0, 0, 0xc0, 0x3f}).Get(), 11)), 1.5F);
    EXPECT_EQ((CallSlot<uint64_t>(CZUModData::FromPointer(77).Get(), 14)), 77U);
    ReferenceLedger ledger;
    auto* inner = new CountedObject(ledger);
    const CRefPtr_T<IZUModData> object(new CZUModData(inner));
    EXPECT_EQ((CallSlot<IReference*>(object.Get(), 12)), inner);
    auto* copy = CallSlot<IZUModData*>(raw, 13);
    EXPECT_EQ((CallSlot<int64_t>(copy, 10)), -7);
    EXPECT_EQ((CallSlot<uint64_t>(copy, 2)), 1U);
    EXPECT_EQ((CallSlot<int64_t>(copy, 3)), 0);
}

}  // namespace
}  // namespace zumod
