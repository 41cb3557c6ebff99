#include "src/loader/load_module.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/module/log.h"
#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"
#include "tests/support/process/test_modules.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/mappings.h"
#include "zumod/policies.h"
#include "zumod/values.h"

namespace zumod {
namespace {

using testing::CallWatch;
using testing::CodecProbe;
using testing::CodecRecord;
using testing::CountedData;
using testing::CountedPolicy;
using testing::LogLine;
using testing::ReferenceLedger;
using testing::TestModuleDir;
using testing::TestModulePath;
using testing::TimesMapped;
using Lines = std::vector<LogLine>;
using Policy = CRefPtr_T<IZUModCreatePolicy>;

const LogLine kNoDirectory{2, "[zumod] get module dir fail"};
const LogLine kNoFile{4, "[zumod] module file is not exist"};
const LogLine kLoadFails{4, "[client_plugin] load module(zu-codec) fail"};
const LogLine kCreateFails{4, "[client_plugin] create module_name(zu-codec) fail"};

Policy EncoderPolicy() {
    return Policy(new CZUModCreatePolicyAdapter("IVEncoder", 0x0001000000000002));
}

// The log lines of a recording codec that creates an encoder from EncoderPolicy.
Lines EncoderLines() {
    Lines lines{{1, "[codec] attach"},
                {1, "[codec] policy zu.module.interface.name 4 IVEncoder"},
                {1, "[codec] policy zu.module.version 2 281474976710658"}};
    for (const char* key : {"zu.codec.policy.imagetype", "zu.codec.policy.enc.rapid.sub",
                            "zu.codec.policy.enc.no.stream.header", "zu.codec.policy.enc.file.record",
                            "zu.codec.policy.enc.source.rgb", "zu.codec.policy.dec.screenbuffer",
                            "zu.codec.policy.dec.target.avformat"}) {
        lines.push_back({1, "[codec] policy " + std::string(key) + " null"});
    }
    lines.push_back({1, "[codec] create IVEncoder"});
    return lines;
}

// The dynamic loader's message for a file, when it is called directly with the same errno.
struct LoaderVerdict {
    explicit LoaderVerdict(const std::string& path) {
        errno = EXDEV;
        EXPECT_EQ(dlopen(path.c_str(), RTLD_LAZY), nullptr);
        error = errno;
        message = dlerror();
        errno = EXDEV;
    }
    int error;
    std::string message;
};

class LoadModuleTest : public testing::LoggingTest {
protected:
    ~LoadModuleTest() override { std::filesystem::current_path(start_directory); }

    void UseDirectory(const std::string& directory) {
        host.SetProperty("zu.env.modules.dir", CZUModData::FromText(directory.c_str()));
    }
    void UseModule(const std::string& kind) { UseDirectory(TestModuleDir(kind)); }

    // Loads a module; stores the printed text in `output` and the handle, if there is one, in `handle`.
    CRefPtr_T<IZUModInterface> Load(const Policy& policy, bool per_module_dir = false) {
        auto* out = reinterpret_cast<IZUModInterface*>(&untouched);
        handle = &untouched;
        const testing::CapturedStdout captured;
        ZuModLoadModule(&out, "zu-codec", policy, &handle, per_module_dir);
        output = captured.Text();
        return CRefPtr_T<IZUModInterface>::Adopt(out);
    }

    // Checks that nothing is created, no handle is stored and nothing is left mapped.
    void ExpectFailure(const std::string& kind, const Lines& lines, const std::string& printed) {
        UseModule(kind);
        EXPECT_EQ(Load(EncoderPolicy()), nullptr);
        EXPECT_EQ(handle, &untouched);
        EXPECT_EQ(host.Lines(), lines);
        EXPECT_EQ(output, printed);
        EXPECT_EQ(TimesMapped(TestModulePath(kind)), 0);
    }

    int untouched = 0;
    void* handle = nullptr;
    std::string output;
    std::filesystem::path start_directory = std::filesystem::current_path();
};

TEST_F(LoadModuleTest, WithoutADirectoryTheFileIsSearchedInTheCurrentOne) {
    std::filesystem::current_path("/");
    EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    EXPECT_EQ(host.Lines(), (Lines{kNoDirectory, kNoFile, kLoadFails}));
    EXPECT_EQ(output, "");
}

TEST_F(LoadModuleTest, AFileOnlyOnTheSearchPathDoesNotExist) {
    std::filesystem::current_path("/");
    EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    EXPECT_EQ(host.Lines(), (Lines{kNoDirectory, kNoFile, kLoadFails}));
    EXPECT_EQ(TimesMapped(TestModulePath("on_search_path")), 0);

    // The dynamic loader itself finds it.
    void* library = dlopen("zu-codec.so", RTLD_LAZY);
    ASSERT_NE(library, nullptr) << dlerror();
    EXPECT_EQ(TimesMapped(TestModulePath("on_search_path")), 1);
    dlclose(library);
}

TEST_F(LoadModuleTest, AFileInTheCurrentDirectoryIsOpenedByItsBareName) {
    // The existing file passes the check; the dynamic loader then searches its path for the name.
    std::filesystem::current_path(TestModuleDir("refusing"));
    auto object = Load(EncoderPolicy());
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(host.Lines().front(), kNoDirectory);
    EXPECT_EQ(TimesMapped(TestModulePath("on_search_path")), 1);
    EXPECT_EQ(TimesMapped(TestModulePath("refusing")), 0);
    object = nullptr;
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, WithoutAHostTheLinesArePrinted) {
    DetachRuntime();
    std::filesystem::current_path("/");
    EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    EXPECT_EQ(output,
              "[zumod] get module dir fail\n"
              "[zumod] module file is not exist\n"
              "[client_plugin] load module(zu-codec) fail\n");
}

TEST_F(LoadModuleTest, AMissingFileIsReported) {
    ExpectFailure("missing", {kNoFile, kLoadFails}, "");
}

TEST_F(LoadModuleTest, ADirectoryThatIsANumberIsIgnored) {
    std::filesystem::current_path("/");
    host.SetProperty("zu.env.modules.dir", CZUModData::FromInt64(1));
    EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    EXPECT_EQ(host.Lines(), (Lines{kNoDirectory, kNoFile, kLoadFails}));
}

// While it exists, root is an ordinary user: one who cannot read a file of mode 0.
class OrdinaryUser {
public:
    OrdinaryUser() {
        if (m_was_root) {
            EXPECT_EQ(setresuid(kNobody, kNobody, 0), 0);
        }
    }
    ~OrdinaryUser() {
        if (m_was_root) {
            EXPECT_EQ(setresuid(0, 0, 0), 0);
            prctl(PR_SET_DUMPABLE, 1);
        }
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    static constexpr uid_t kNobody = 65534;
    const bool m_was_root = geteuid() == 0;
};

TEST_F(LoadModuleTest, AFileThatMayNotBeReadExistsAndIsRefusedByTheDynamicLoader) {
    const testing::WorkDirectory directory;
    std::filesystem::copy_file(TestModulePath("refusing"), directory / "zu-codec.so");
    std::filesystem::permissions(directory / "zu-codec.so", std::filesystem::perms::none);
    std::filesystem::permissions(directory.Path(), static_cast<std::filesystem::perms>(0755));
    UseDirectory(directory.Path());
    {
        const OrdinaryUser user;
        EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    }
    const Lines lines = host.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text.rfind("[zumod] dlopen file fail with ", 0), 0U) << lines[0].text;
    EXPECT_EQ(lines[1], kLoadFails);
}

TEST_F(LoadModuleTest, AFileThatIsNotASharedObjectIsReportedAndPrinted) {
    const std::string path = TestModulePath("text");
    const LoaderVerdict verdict(path);
    const std::string error = std::to_string(verdict.error);
    ExpectFailure("text",
                  {{4, "[zumod] dlopen file fail with " + error + ", msg is " + verdict.message}, kLoadFails},
                  "load " + path + " err " + error + ", err msg is " + verdict.message + "\n");
    EXPECT_NE(verdict.message.find("zu-codec.so"), std::string::npos);
}

TEST_F(LoadModuleTest, AnObjectWithUnresolvedDataIsReportedAndPrinted) {
    const std::string path = TestModulePath("unresolved_data");
    const LoaderVerdict verdict(path);
    const std::string error = std::to_string(verdict.error);
    ExpectFailure("unresolved_data",
                  {{4, "[zumod] dlopen file fail with " + error + ", msg is " + verdict.message}, kLoadFails},
                  "load " + path + " err " + error + ", err msg is " + verdict.message + "\n");
    EXPECT_NE(verdict.message.find("undefined symbol: zu_test_missing_data"), std::string::npos);
}

TEST_F(LoadModuleTest, AnObjectWithAnUnresolvedFunctionIsLoaded) {
    UseModule("unresolved_function");
    EXPECT_EQ(Load(Policy()), nullptr);
    EXPECT_EQ(host.Lines(), Lines{kCreateFails});  // not dlopen's failure: its create function was called
    EXPECT_EQ(output, "");
    EXPECT_EQ(TimesMapped(TestModulePath("unresolved_function")), 0);
}

TEST_F(LoadModuleTest, AnObjectWithoutAnEntryPointIsClosed) {
    ExpectFailure("without_entry_point", {kLoadFails}, "");
}

TEST_F(LoadModuleTest, AModuleWithoutADescriptorIsClosed) {
    ExpectFailure("null_entry_point", {kLoadFails}, "");
}

TEST_F(LoadModuleTest, AModuleIsClosedBeforeItsFailureIsLogged) {
    const struct {
        const char* kind;
        LogLine line;
    } cases[] = {{"without_entry_point", kLoadFails},
                 {"null_entry_point", kLoadFails},
                 {"without_detach", kCreateFails}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        const CallWatch watch;
        int closed = -1;
        host.OnLine([&](uint32_t, const char* text) {
            if (text == c.line.text) {
                closed = watch.Count(CallWatch::dlclose);
            }
        });
        UseModule(c.kind);
        EXPECT_EQ(Load(EncoderPolicy()), nullptr);
        host.OnLine(nullptr);
        EXPECT_EQ(closed, 1);
    }
}

TEST_F(LoadModuleTest, AModuleThatSucceedsWithoutAnObjectIsNoFailureAndStaysLoaded) {
    UseModule("succeeding_without_object");
    EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    EXPECT_EQ(host.Lines(), Lines{});
    EXPECT_EQ(output, "");
    EXPECT_EQ(TimesMapped(TestModulePath("succeeding_without_object")), 1);
    ASSERT_NE(handle, &untouched);
    ZuModUnloadModule(handle);
    EXPECT_EQ(TimesMapped(TestModulePath("succeeding_without_object")), 0);
}

TEST_F(LoadModuleTest, AFileIsOpenedOnceWithLazyBindingAndLocalSymbols) {
    const CallWatch watch;
    UseModule("closable");
    auto object = Load(EncoderPolicy());
    EXPECT_EQ(watch.Count(CallWatch::dlopen), 1);
    EXPECT_EQ(watch.LastValue(CallWatch::dlopen), 1U) << "RTLD_LAZY and no other flag";
    object = nullptr;
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, NoMutexIsLockedWhileAModuleIsOpenedAttachedAndCreates) {
    CallWatch watch;
    std::vector<std::string> seen;
    const auto note = [&](const std::string& step) {
        seen.push_back(step + " " + std::to_string(watch.LockedMutexes()));
    };
    watch.OnNext(CallWatch::dlopen, CallWatch::kAny, [&] { note("open"); });
    // The module logs to its host directly, not through this module's lock.
    host.OnLine([&](uint32_t, const char* text) {
        for (const char* step : {"[codec] attach", "[codec] create IVEncoder"}) {
            if (std::string(text) == step) {
                note(step);
            }
        }
    });
    UseModule("closable");
    auto object = Load(EncoderPolicy());
    host.OnLine(nullptr);
    EXPECT_EQ(seen, (std::vector<std::string>{"open 0", "[codec] attach 0", "[codec] create IVEncoder 0"}));
    object = nullptr;
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, AModuleThatRefusesIsDetachedAndClosed) {
    ExpectFailure("refusing",
                  {{1, "[codec] attach"}, {1, "[codec] refuse"}, {1, "[codec] detach"}, kCreateFails}, "");
}

TEST_F(LoadModuleTest, AModuleThatRefusesAndCannotBeDetachedIsClosed) {
    ExpectFailure("without_detach", {kCreateFails}, "");
}

TEST_F(LoadModuleTest, AnObjectLeftByARefusingModuleIsReleasedLast) {
    ExpectFailure("refusing_with_object", {{1, "[codec] detach"}, kCreateFails, {1, "[codec] destroy"}}, "");
}

TEST_F(LoadModuleTest, AModuleIsAttachedBeforeItCreatesTheObjectOfThePolicy) {
    UseModule("closable");
    auto object = Load(EncoderPolicy());
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(host.TakeLines(), EncoderLines());
    EXPECT_EQ(output, "");
    object = nullptr;
    EXPECT_EQ(host.TakeLines(), (Lines{{1, "[codec] destroy"}}));
    ZuModUnloadModule(handle);
    EXPECT_EQ(host.Lines(), (Lines{{1, "[codec] detach"}}));
}

TEST_F(LoadModuleTest, TheCallerGetsOneReference) {
    const CodecProbe probe("closable");
    UseModule("closable");
    auto object = Load(EncoderPolicy());
    EXPECT_EQ(probe.Record().objects, 1);
    EXPECT_EQ(probe.Record().references, 1);
    object = nullptr;
    EXPECT_EQ(probe.Record().objects, 0);
    EXPECT_EQ(probe.Record().references, 0);
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, TheDirectoryOfOneModuleIsUsedWhenWanted) {
    UseModule("refusing");
    host.SetProperty("zu.env.modules.dir_zu-codec", CZUModData::FromText(TestModuleDir("closable").c_str()));
    auto object = Load(EncoderPolicy(), true);
    EXPECT_NE(object, nullptr);
    object = nullptr;
    ZuModUnloadModule(handle);
    EXPECT_EQ(Load(EncoderPolicy(), false), nullptr);
}

TEST_F(LoadModuleTest, TheModuleIsAttachedToTheSameHost) {
    const CodecProbe probe("closable");
    UseModule("closable");
    auto object = Load(EncoderPolicy());
    EXPECT_EQ(probe.Record().host, &host);
    object = nullptr;
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, WithoutAHostTheModuleIsAttachedToNull) {
    const CodecProbe probe("on_search_path");
    const int attaches = probe.Record().attaches;
    DetachRuntime();
    std::filesystem::current_path(TestModuleDir("on_search_path"));
    auto object = Load(EncoderPolicy());
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(probe.Record().attaches, attaches + 1);
    EXPECT_EQ(probe.Record().host, nullptr);
    object = nullptr;
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, AnEmptyPolicyReachesTheModuleAsNull) {
    UseModule("closable");
    EXPECT_EQ(Load(Policy()), nullptr);
    EXPECT_EQ(host.Lines(), (Lines{{1, "[codec] attach"},
                                   {1, "[codec] create without a policy"},
                                   {1, "[codec] detach"},
                                   kCreateFails}));
    EXPECT_EQ(TimesMapped(TestModulePath("closable")), 0);
}

TEST_F(LoadModuleTest, TwoLoadsAttachTwiceAndMapOnce) {
    const std::string path = TestModulePath("closable");
    UseModule("closable");
    auto first = Load(EncoderPolicy());
    void* const first_handle = handle;
    auto second = Load(EncoderPolicy());
    void* const second_handle = handle;
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first.Get(), second.Get());
    EXPECT_EQ(TimesMapped(path), 1);
    int attaches = 0;
    for (const LogLine& line : host.TakeLines()) {
        attaches += line.text == "[codec] attach" ? 1 : 0;
    }
    EXPECT_EQ(attaches, 2);

    second = nullptr;
    ZuModUnloadModule(second_handle);
    EXPECT_EQ(TimesMapped(path), 1);
    first = nullptr;
    ZuModUnloadModule(first_handle);
    EXPECT_EQ(TimesMapped(path), 0);
}

TEST_F(LoadModuleTest, WithoutAHandleSlotTheModuleStaysLoaded) {
    UseModule("recording");
    IZUModInterface* out = nullptr;
    ZuModLoadModule(&out, "zu-codec", EncoderPolicy(), nullptr, false);
    ASSERT_NE(out, nullptr);
    out->Release();
    EXPECT_EQ(TimesMapped(TestModulePath("recording")), 1);
}

TEST_F(LoadModuleTest, UnloadingNullDoesNothing) {
    ZuModUnloadModule(nullptr);
    EXPECT_EQ(host.Lines(), Lines{});
}

TEST_F(LoadModuleTest, UnloadingClosesALibraryThatIsNotAModule) {
    for (const char* kind : {"without_entry_point", "null_entry_point", "without_detach"}) {
        const std::string path = TestModulePath(kind);
        void* library = dlopen(path.c_str(), RTLD_LAZY);
        ASSERT_EQ(TimesMapped(path), 1);
        ZuModUnloadModule(library);
        EXPECT_EQ(TimesMapped(path), 0) << kind;
    }
}

TEST_F(LoadModuleTest, APathOfFiveThousandCharactersDoesNotExist) {
    UseDirectory("/" + std::string(4987, 'd'));
    EXPECT_EQ(Load(EncoderPolicy()), nullptr);
    EXPECT_EQ(host.Lines(), (Lines{kNoFile, kLoadFails}));
}

TEST_F(LoadModuleTest, APathAsLongAsTheKernelAcceptsIsLoaded) {
    std::string directory = TestModuleDir("closable");
    while (directory.size() < 4000) {
        directory += "/.";
    }
    UseDirectory(directory);
    auto object = Load(EncoderPolicy());
    EXPECT_NE(object, nullptr);
    object = nullptr;
    ZuModUnloadModule(handle);
}

TEST_F(LoadModuleTest, AllValuesOfThePolicyAreReleased) {
    ReferenceLedger ledger;
    {
        const CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
        policy->SetText("zu.module.interface.name", "IVEncoder");
        policy->SetInt64("zu.module.version", 0x0001000000000002);
        UseModule("closable");
        auto object = Load(policy);
        EXPECT_NE(object, nullptr);
        EXPECT_EQ(policy->References(), 1);
        EXPECT_EQ(ledger.born, 3);
        object = nullptr;
        ZuModUnloadModule(handle);
    }
    EXPECT_TRUE(ledger.Balanced());
}

TEST_F(LoadModuleTest, AnEmptyPolicyIsRefusedAndReleased) {
    ReferenceLedger ledger;
    {
        const CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
        UseModule("closable");
        EXPECT_EQ(Load(policy), nullptr);
        EXPECT_EQ(policy->References(), 1);
    }
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(host.Lines().back(), kCreateFails);
    EXPECT_EQ(TimesMapped(TestModulePath("closable")), 0);
}

TEST_F(LoadModuleTest, APolicyOfWrongTagsAndShortValuesIsRefusedAndReleased) {
    ReferenceLedger ledger;
    {
        const CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
        policy->Set("zu.module.interface.name", 4, {});
        policy->Set("zu.module.version", 2, {1, 2, 3});
        policy->SetText("zu.codec.policy.imagetype", "nine");
        policy->Set("zu.codec.policy.enc.source.rgb", 1, {});
        policy->Set("zu.codec.policy.enc.file.record", 99, {1});
        UseModule("closable");
        EXPECT_EQ(Load(policy), nullptr);
        EXPECT_EQ(policy->References(), 1);
        EXPECT_EQ(ledger.born, 6);
    }
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(host.Lines().back(), kCreateFails);
}

TEST_F(LoadModuleTest, APolicyThatThrowsAfterSomeValuesIsReleased) {
    const CodecProbe probe("recording");
    const int objects = probe.Record().objects;
    ReferenceLedger ledger;
    {
        const CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
        policy->SetText("zu.module.interface.name", "IVEncoder");
        policy->SetInt64("zu.module.version", 1);
        policy->SetInt64("zu.codec.policy.imagetype", 9);
        policy->ThrowAfter(2);
        UseModule("recording");
        auto* out = reinterpret_cast<IZUModInterface*>(&untouched);
        handle = &untouched;
        EXPECT_THROW(ZuModLoadModule(&out, "zu-codec", policy, &handle, false), std::runtime_error);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(handle, &untouched);
        EXPECT_EQ(policy->References(), 1);
        EXPECT_EQ(ledger.born, 3);
    }
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(probe.Record().objects, objects);
    EXPECT_EQ(TimesMapped(TestModulePath("recording")), 1);
}

TEST(LoadModule, NoLockIsHeldWhileAModuleIsAttached) {
    testing::RecordingHost host;
    std::thread other;
    bool could_log = false;
    // While a module is attached, lets another thread log and waits until it has done so.
    host.OnLine([&](uint32_t, const char* text) {
        if (std::string(text) == "[codec] attach") {
            std::promise<void> logged;
            std::future<void> done = logged.get_future();
            other = std::thread([logged = std::move(logged)]() mutable {
                ZuModLog(kLogEvent, "elsewhere");
                logged.set_value();
            });
            could_log = done.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
        }
    });
    host.SetProperty("zu.env.modules.dir", CZUModData::FromText(TestModuleDir("closable").c_str()));
    AttachRuntime(&host);
    IZUModInterface* out = nullptr;
    void* handle = nullptr;
    ZuModLoadModule(&out, "zu-codec", EncoderPolicy(), &handle, false);
    EXPECT_TRUE(could_log);
    ASSERT_TRUE(other.joinable());
    other.join();
    ASSERT_NE(out, nullptr);
    out->Release();
    ZuModUnloadModule(handle);
    DetachRuntime();
}

TEST_F(LoadModuleTest, EightThreadsMayLoadAtOnce) {
    UseModule("closable");
    std::vector<std::thread> threads;
    std::atomic<int> made{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&made] {
            for (int round = 0; round < 20; ++round) {
                IZUModInterface* out = nullptr;
                void* handle_of_round = nullptr;
                ZuModLoadModule(&out, "zu-codec", EncoderPolicy(), &handle_of_round, false);
                if (out != nullptr) {
                    ++made;
                    out->Release();
                    ZuModUnloadModule(handle_of_round);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(made, 160);
    EXPECT_EQ(TimesMapped(TestModulePath("closable")), 0);
}

}  // namespace
}  // namespace zumod
