#include "src/plugin/stream_io.h"

#include <gtest/gtest.h>

#include "tests/support/doubles/scripted_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::ScriptedStream;

class WriteAllTest : public ::testing::Test {
protected:
    CRefPtr_T<ScriptedStream> stream{new ScriptedStream};
    const Bytes bytes = {1, 2, 3, 4, 5};
};

TEST_F(WriteAllTest, WritesEverythingInOneCallWhereTheStreamTakesIt) {
    EXPECT_TRUE(WriteAll(*stream, bytes.data(), bytes.size()));
    EXPECT_EQ(stream->Written(), bytes);
    EXPECT_EQ(stream->WriteCalls(), 1u);
}

TEST_F(WriteAllTest, RepeatsPartialWritesFromWhereTheyEnded) {
    stream->write_chunk = 2;
    EXPECT_TRUE(WriteAll(*stream, bytes.data(), bytes.size()));
    EXPECT_EQ(stream->Written(), bytes);
    EXPECT_EQ(stream->WriteCalls(), 3u);
}

TEST_F(WriteAllTest, StopsAtTheFirstFailedWrite) {
    stream->write_chunk = 2;
    stream->fail_write_after = 2;
    EXPECT_FALSE(WriteAll(*stream, bytes.data(), bytes.size()));
    EXPECT_EQ(stream->Written(), (Bytes{1, 2}));
    EXPECT_EQ(stream->WriteCalls(), 2u);
}

TEST_F(WriteAllTest, NothingToWriteIsNoCall) {
    EXPECT_TRUE(WriteAll(*stream, nullptr, 0));
    EXPECT_EQ(stream->WriteCalls(), 0u);
}

class BoastfulStream final : public IChannelStream, private CReference {
public:
    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void*, unsigned long size, unsigned long* done) override {
        *done = size + 100;
        return 0;
    }
};

TEST(WriteAll, ACountBeyondTheSizeEndsTheWrite) {
    const CRefPtr_T<BoastfulStream> stream(new BoastfulStream);
    EXPECT_TRUE(WriteAll(*stream, "abc", 3));
}

}  // namespace
}  // namespace zumod
