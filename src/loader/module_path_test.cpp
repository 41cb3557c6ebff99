#include "src/loader/module_path.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"
#include "zumod/values.h"

namespace zumod {
namespace {

using testing::CountedData;
using testing::LogLine;
using testing::ReferenceLedger;
using testing::ThrowingData;
using Lines = std::vector<LogLine>;
using Keys = std::vector<std::string>;

const LogLine kNoModuleDirectory{2, "[zumod] get module dir fail"};

class ModulePathTest : public testing::LoggingTest {
protected:
    // The host outlives the ledger, but a counted value must not.
    ~ModulePathTest() override { host.SetProperty("zu.env.modules.dir", nullptr); }

    void SetText(const char* key, const std::string& text) {
        host.SetProperty(key, CZUModData::FromText(text.c_str()));
    }

    ReferenceLedger ledger;
};

TEST_F(ModulePathTest, TheFileIsInTheHostsModuleDirectory) {
    SetText("zu.env.modules.dir", "/opt/m");
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "/opt/m/zu-codec.so");
    EXPECT_EQ(host.Lines(), Lines{});
    EXPECT_EQ(host.AskedKeys(), Keys{"zu.env.modules.dir"});
}

TEST_F(ModulePathTest, ASlashIsAppendedToADirectoryThatEndsWithOne) {
    SetText("zu.env.modules.dir", "/opt/m/");
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "/opt/m//zu-codec.so");
}

TEST_F(ModulePathTest, WithoutADirectoryThePathIsTheBareFileName) {
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "zu-codec.so");
    EXPECT_EQ(host.Lines(), Lines{kNoModuleDirectory});
}

TEST_F(ModulePathTest, WithoutAHostThePathIsTheBareFileName) {
    DetachRuntime();
    const testing::CapturedStdout captured;
    EXPECT_EQ(ZuModGetModulePath("zu-codec", true), "zu-codec.so");
    EXPECT_EQ(captured.Text(), "[zumod] get module dir fail\n");
}

TEST_F(ModulePathTest, AnEmptyDirectoryIsIgnored) {
    SetText("zu.env.modules.dir", "");
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "zu-codec.so");
    EXPECT_EQ(host.Lines(), Lines{kNoModuleDirectory});
}

TEST_F(ModulePathTest, TheDirectoryOfOneModuleReplacesTheGeneralOne) {
    SetText("zu.env.modules.dir", "/opt/m");
    SetText("zu.env.modules.dir_zu-codec", "/opt/codec");
    EXPECT_EQ(ZuModGetModulePath("zu-codec", true), "/opt/codec/zu-codec.so");
    EXPECT_EQ(host.AskedKeys(), (Keys{"zu.env.modules.dir", "zu.env.modules.dir_zu-codec"}));
}

TEST_F(ModulePathTest, TheDirectoryOfOneModuleIsNotLookedUpUnlessWanted) {
    SetText("zu.env.modules.dir", "/opt/m");
    SetText("zu.env.modules.dir_zu-codec", "/opt/codec");
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "/opt/m/zu-codec.so");
}

TEST_F(ModulePathTest, AMissingDirectoryOfOneModuleDoesNotFallBackToTheGeneralOne) {
    SetText("zu.env.modules.dir", "/opt/m");
    EXPECT_EQ(ZuModGetModulePath("zu-codec", true), "zu-codec.so");
    EXPECT_EQ(host.Lines(), Lines{kNoModuleDirectory});
}

TEST_F(ModulePathTest, ADirectoryOfOneModuleOfAnotherKindDoesNotFallBackEither) {
    SetText("zu.env.modules.dir", "/opt/m");
    host.SetProperty("zu.env.modules.dir_zu-codec", CZUModData::FromInt64(1));
    EXPECT_EQ(ZuModGetModulePath("zu-codec", true), "zu-codec.so");
    EXPECT_EQ(host.Lines(), Lines{kNoModuleDirectory});
}

TEST_F(ModulePathTest, ADirectoryThatIsNotTextCountsAsMissing) {
    for (const uint32_t tag : {0U, 1U, 2U, 3U, 5U, 6U, 7U, 8U}) {
        SCOPED_TRACE(tag);
        host.SetProperty("zu.env.modules.dir", CRefPtr_T<IZUModData>(new CountedData(
                                                   ledger, tag, CountedData::TextBytes("/opt/m"))));
        EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "zu-codec.so");
        EXPECT_EQ(host.TakeLines(), Lines{kNoModuleDirectory});
        host.SetProperty("zu.env.modules.dir", nullptr);
        EXPECT_TRUE(ledger.Balanced());
    }
}

TEST_F(ModulePathTest, ATextWithoutBytesCountsAsMissing) {
    host.SetProperty("zu.env.modules.dir", CRefPtr_T<IZUModData>(new CountedData(ledger, 4, {})));
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), "zu-codec.so");
    EXPECT_EQ(host.Lines(), Lines{kNoModuleDirectory});
}

TEST_F(ModulePathTest, ALongDirectoryIsKeptWhole) {
    const std::string directory = "/" + std::string(4999, 'd');
    SetText("zu.env.modules.dir", directory);
    EXPECT_EQ(ZuModGetModulePath("zu-codec", false), directory + "/zu-codec.so");
}

TEST_F(ModulePathTest, AValueIsBorrowedWithOneReferenceWhileItIsRead) {
    const CRefPtr_T<CountedData> value(new CountedData(ledger, 4, CountedData::TextBytes("/opt/m")));
    host.SetProperty("zu.env.modules.dir", value);
    ASSERT_EQ(value->References(), 2);
    const int taken = ledger.taken;
    ZuModGetModulePath("zu-codec", false);
    EXPECT_EQ(value->References(), 2);
    EXPECT_EQ(ledger.taken, taken + 1);
}

// Returns a new value each time and keeps no reference to it.
class FreshValueHost final : public testing::RecordingHost {
public:
    explicit FreshValueHost(ReferenceLedger& ledger) : m_ledger(ledger) {}
    IZUModData* GetEnvProperty(const char*) override {
        return new CountedData(m_ledger, 4, CountedData::TextBytes("/opt/m"));
    }

private:
    ReferenceLedger& m_ledger;
};

TEST(ModulePath, ANewValueIsDestroyedAfterReading) {
    ReferenceLedger ledger;
    FreshValueHost host(ledger);
    AttachRuntime(&host);
    EXPECT_EQ(ZuModGetModulePath("zu-codec", true), "/opt/m/zu-codec.so");
    DetachRuntime();
    EXPECT_EQ(ledger.born, 2);
    EXPECT_TRUE(ledger.Balanced());
}

TEST_F(ModulePathTest, AValueThatThrowsIsReleased) {
    const CRefPtr_T<ThrowingData> value(new ThrowingData(ledger));
    host.SetProperty("zu.env.modules.dir", value);
    EXPECT_THROW(ZuModGetModulePath("zu-codec", false), std::runtime_error);
    EXPECT_EQ(value->References(), 2);
}

}  // namespace
}  // namespace zumod
