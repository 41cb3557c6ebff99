#include "src/module/factory.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/turkish_strcasecmp.h"
#include "zumod/client_camera_plugin.h"
#include "zumod/policies.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CountedPolicy;
using testing::LogLine;
using testing::ReferenceLedger;

const LogLine kCreate = {1, "[cameraclient] create"};

class CameraClientCreate : public testing::LoggingTest {
protected:
    // A policy with these two values; a null name and a version of -1 are omitted.
    CRefPtr_T<CountedPolicy> Policy(const char* name, int64_t version) {
        CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
        if (name != nullptr) {
            policy->SetText("zu.module.interface.name", name);
        }
        if (version != -1) {
            policy->SetInt64("zu.module.version", version);
        }
        return policy;
    }

    // The log lines of a refusal of this policy. Checks that the slot is unchanged and nothing leaks.
    std::vector<LogLine> RefusalOf(CRefPtr_T<CountedPolicy> policy) {
        host.TakeLines();
        auto* const untouched = reinterpret_cast<IZUModInterface*>(this);
        IZUModInterface* out = untouched;
        EXPECT_EQ(camera_client_create(policy.Get(), &out), 0);
        EXPECT_EQ(out, untouched);
        policy = nullptr;
        EXPECT_TRUE(ledger.Balanced());
        return host.TakeLines();
    }

    void ExpectCreated(const CRefPtr_T<CountedPolicy>& policy) {
        IZUModInterface* out = nullptr;
        EXPECT_EQ(camera_client_create(policy.Get(), &out), 1);
        ASSERT_NE(out, nullptr);
        // One reference, through the table of IClientCameraPlugin.
        EXPECT_EQ(CallSlot<uint64_t>(out, 2), 2u);
        EXPECT_EQ(CallSlot<int64_t>(out, 3), 1);
        EXPECT_EQ(CallSlot<int>(out, 7), 0);  // ExitInstance
        EXPECT_EQ(CallSlot<int64_t>(out, 3), 0);
    }

    ReferenceLedger ledger;
};

TEST_F(CameraClientCreate, CreatesAPluginWithOneReferenceForTheCaller) {
    ExpectCreated(Policy("IClientCameraPlugin", 0x0002000000000000));
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(
        host.Lines(),
        (std::vector<LogLine>{
            {8,
             "[camera_client] camera_client_create interface IClientCameraPlugin  version 562949953421312"},
            kCreate,
            {1, "[cameraclient] ExitInstance"},
            {8, "[cameraclient] start to clear devs"},
            {8, "[cameraclient] finish to clear devs"},
            {8, "[cameraclient] start to stop send thread"},
            {8, "[cameraclient] ExitInstance finish"},
            {1, "[cameraclient] destroy"},
            {8, "[cameraclient] finish to clear devs"}}));
}

TEST_F(CameraClientCreate, TheNameIsComparedWithoutRegardToCaseAndTheVersionByItsTopSixteenBits) {
    ExpectCreated(Policy("iclientcameraplugin", 0x0002000000000001));
    ExpectCreated(Policy("ICLIENTCAMERAPLUGIN", 0x0002FFFFFFFFFFFF));
}

TEST_F(CameraClientCreate, AcceptsTheReadyMadePolicy) {
    const CRefPtr_T<IZUModCreatePolicy> policy(
        new CZUModCreatePolicyAdapter("IClientCameraPlugin", 0x0002000000000000));
    IZUModInterface* out = nullptr;
    EXPECT_EQ(camera_client_create(policy.Get(), &out), 1);
    EXPECT_EQ(CallSlot<int64_t>(out, 3), 0);
}

TEST_F(CameraClientCreate, RefusesWithoutAPolicyOrWithoutASlot) {
    IZUModInterface* out = nullptr;
    EXPECT_EQ(camera_client_create(nullptr, &out), 0);
    EXPECT_EQ(camera_client_create(Policy("IClientCameraPlugin", 0x0002000000000000).Get(), nullptr), 0);
    EXPECT_EQ(out, nullptr);
    const LogLine line = {8, "[camera_client] camera_client_create invalid param"};
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{line, line}));
    EXPECT_EQ(ledger.taken, 1) << "only the test's own reference";
}

TEST_F(CameraClientCreate, RefusesAPolicyWithNeitherNameNorVersion) {
    const std::vector<LogLine> lines = {{8, "[camera_client] camera_client_create interface   version 0"},
                                        {4, "[camera_client] camera_client_create invalid property!"}};
    EXPECT_EQ(RefusalOf(Policy(nullptr, -1)), lines);
    EXPECT_EQ(RefusalOf(Policy("", 0)), lines);
}

TEST_F(CameraClientCreate, RefusesAnotherInterface) {
    EXPECT_EQ(
        RefusalOf(Policy("IClientCamera", 0x0002000000000000)),
        (std::vector<LogLine>{
            {8, "[camera_client] camera_client_create interface IClientCamera  version 562949953421312"},
            {8, "[camera_client] camera_client_create invalid interface IClientCamera"}}));
    EXPECT_EQ(RefusalOf(Policy("IClientCameraPlugins", 0)).back(),
              (LogLine{8, "[camera_client] camera_client_create invalid interface IClientCameraPlugins"}));
}

TEST_F(CameraClientCreate, AVersionWithoutANameIsRefusedForItsEmptyInterface) {
    EXPECT_EQ(
        RefusalOf(Policy(nullptr, 0x0002000000000000)),
        (std::vector<LogLine>{{8, "[camera_client] camera_client_create interface   version 562949953421312"},
                              {8, "[camera_client] camera_client_create invalid interface "}}));
}

TEST_F(CameraClientCreate, RefusesAnotherMajorVersion) {
    EXPECT_EQ(
        RefusalOf(Policy("IClientCameraPlugin", 0x0001000000000000)),
        (std::vector<LogLine>{
            {8,
             "[camera_client] camera_client_create interface IClientCameraPlugin  version 281474976710656"},
            {4,
             "[camera_client] camera_client_create version 281474976710656 not compactible with "
             "562949953421312"}}));
    EXPECT_EQ(RefusalOf(Policy("IClientCameraPlugin", 0x0003000000000000)).back(),
              (LogLine{4,
                       "[camera_client] camera_client_create version 844424930131968 not compactible with "
                       "562949953421312"}));
    EXPECT_EQ(RefusalOf(Policy("IClientCameraPlugin", 0x0102000000000000)).size(), 2u);
    EXPECT_EQ(
        RefusalOf(Policy("IClientCameraPlugin", 0)).back(),
        (LogLine{4, "[camera_client] camera_client_create version 0 not compactible with 562949953421312"}));
    EXPECT_EQ(
        RefusalOf(Policy("IClientCameraPlugin", static_cast<int64_t>(0xFFFF000000000000))).back(),
        (LogLine{4,
                 "[camera_client] camera_client_create version 18446462598732840960 not compactible with "
                 "562949953421312"}));
}

TEST_F(CameraClientCreate, TheCaseOfTheNameIsIgnoredInATurkishLocaleToo) {
    ASSERT_NE(strcasecmp("iclientcameraplugin", "IClientCameraPlugin"), 0);
    const auto policy = Policy("iclientcameraplugin", 0x0002000000000000);
    IZUModInterface* out = nullptr;
    ASSERT_EQ(camera_client_create(policy.Get(), &out), 1);
    CallSlot<int64_t>(out, 3);
}

TEST_F(CameraClientCreate, ANameThatDiffersInMoreThanTheCaseOfALetterIsRefused) {
    for (const char* name : {"IClientCameraPlugi", "IClientCameraPluginn",
                             "\xC9"
                             "ClientCameraPlugin",
                             "IClientCameraPlug\x0En",
                             "\x09"
                             "ClientCameraPlugin"}) {
        EXPECT_EQ(RefusalOf(Policy(name, 0x0002000000000000)).size(), 2U) << name;
    }
}

TEST_F(CameraClientCreate, ANameThatIsNotTextCountsAsMissing) {
    auto policy = Policy(nullptr, 0x0002000000000000);
    policy->SetInt64("zu.module.interface.name", 7);
    EXPECT_EQ(RefusalOf(std::move(policy)).back(),
              (LogLine{8, "[camera_client] camera_client_create invalid interface "}));
}

TEST_F(CameraClientCreate, AVersionThatIsNotAnIntegerCountsAsMissing) {
    auto policy = Policy("IClientCameraPlugin", -1);
    policy->SetText("zu.module.version", "\1\1\1\1\1\1\2");
    EXPECT_EQ(
        RefusalOf(std::move(policy)).back(),
        (LogLine{4, "[camera_client] camera_client_create version 0 not compactible with 562949953421312"}));
}

TEST_F(CameraClientCreate, ValuesWithoutBytesCountAsMissing) {
    auto policy = Policy(nullptr, -1);
    policy->Set("zu.module.interface.name", kZUModDataText, {});
    policy->Set("zu.module.version", kZUModDataInt64, {0, 0, 2});
    EXPECT_EQ(RefusalOf(std::move(policy)).back(),
              (LogLine{4, "[camera_client] camera_client_create invalid property!"}));
}

TEST_F(CameraClientCreate, APolicyThatThrowsIsReleased) {
    for (int good = 0; good < 2; ++good) {
        {
            const auto policy = Policy("IClientCameraPlugin", 0x0002000000000000);
            policy->ThrowAfter(good);
            IZUModInterface* out = nullptr;
            EXPECT_THROW(camera_client_create(policy.Get(), &out), std::runtime_error);
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(policy->References(), 1);
        }
        EXPECT_TRUE(ledger.Balanced());
    }
}

TEST_F(CameraClientCreate, ThePolicyIsReferencedDuringTheWholeCall) {
    const auto held_during = [&](const CRefPtr_T<CountedPolicy>& policy) {
        std::vector<int64_t> held;
        host.OnLine([&](uint32_t, const char*) { held.push_back(policy->References()); });
        IZUModInterface* out = nullptr;
        const int created = camera_client_create(policy.Get(), &out);
        host.OnLine(nullptr);
        EXPECT_EQ(policy->References(), 1);
        if (created == 1) {
            CallSlot<int64_t>(out, 3);
        }
        return held;
    };
    // Besides the caller's reference: when the values are logged, and when the plugin is created or refused.
    EXPECT_EQ(held_during(Policy("IClientCameraPlugin", 0x0002000000000000)), (std::vector<int64_t>{2, 2}));
    EXPECT_EQ(held_during(Policy(nullptr, -1)), (std::vector<int64_t>{2, 2}));
    EXPECT_EQ(held_during(Policy("IClientCamera", 1)), (std::vector<int64_t>{2, 2}));
    EXPECT_EQ(held_during(Policy("IClientCameraPlugin", 1)), (std::vector<int64_t>{2, 2}));
}

// Records the requested keys and its reference count at each request; has no values.
class AskedPolicy final : public testing::Counted<IZUModCreatePolicy> {
public:
    using Counted::Counted;
    IZUModData* GetPolicy(const char* key) override {
        asked.emplace_back(key, References());
        return nullptr;
    }
    std::vector<std::pair<std::string, int64_t>> asked;
};

TEST_F(CameraClientCreate, TheNameIsRequestedBeforeTheVersion) {
    const CRefPtr_T<AskedPolicy> policy(new AskedPolicy(ledger));
    IZUModInterface* out = nullptr;
    EXPECT_EQ(camera_client_create(policy.Get(), &out), 0);
    EXPECT_EQ(policy->asked, (std::vector<std::pair<std::string, int64_t>>{{"zu.module.interface.name", 2},
                                                                           {"zu.module.version", 2}}));
}

// A policy whose value throws while it is read.
class ThrowingValuePolicy final : public testing::Counted<IZUModCreatePolicy> {
public:
    using Counted::Counted;
    IZUModData* GetPolicy(const char*) override { return new testing::ThrowingData(Ledger()); }
};

TEST_F(CameraClientCreate, AValueThatThrowsIsReleased) {
    {
        const CRefPtr_T<ThrowingValuePolicy> policy(new ThrowingValuePolicy(ledger));
        IZUModInterface* out = nullptr;
        EXPECT_THROW(camera_client_create(policy.Get(), &out), std::runtime_error);
    }
    EXPECT_TRUE(ledger.Balanced());
}

// Lack of memory of the host, which the module tells from its own.
struct HostFailure : std::bad_alloc {};

// A valid policy, except that one operation of it or of its values throws.
class FailingPolicy final : public testing::Counted<IZUModCreatePolicy> {
public:
    FailingPolicy(ReferenceLedger& ledger, std::string failing) : Counted(ledger), m_failing(failing) {}

    IZUModData* GetPolicy(const char* key) override {
        if (m_failing == key) {
            throw HostFailure();
        }
        const bool is_name = std::string("zu.module.interface.name") == key;
        return is_name ? new Value(*this, kZUModDataText, Value::TextBytes("IClientCameraPlugin"))
                       : new Value(*this, kZUModDataInt64, Value::Int64Bytes(0x0002000000000000));
    }

private:
    class Value final : public testing::CountedData {
    public:
        Value(FailingPolicy& policy, uint32_t tag, std::vector<uint8_t> bytes)
            : CountedData(policy.Ledger(), tag, std::move(bytes)), m_failing(policy.m_failing) {}

        uint32_t GetType() override { return Unless("GetType", CountedData::GetType()); }
        const char* GetString() override { return Unless("GetString", CountedData::GetString()); }
        int64_t GetInt64() override { return Unless("GetInt64", CountedData::GetInt64()); }

    private:
        template <class Result>
        Result Unless(const char* operation, Result result) const {
            if (m_failing == operation) {
                throw HostFailure();
            }
            return result;
        }

        const std::string m_failing;
    };

    const std::string m_failing;
};

TEST_F(CameraClientCreate, TheBadAllocOfAPolicyAndOfAValueGoesOnToTheHost) {
    for (const char* failing :
         {"zu.module.interface.name", "zu.module.version", "GetType", "GetString", "GetInt64"}) {
        {
            const CRefPtr_T<FailingPolicy> policy(new FailingPolicy(ledger, failing));
            IZUModInterface* out = nullptr;
            EXPECT_THROW(camera_client_create(policy.Get(), &out), HostFailure) << failing;
            EXPECT_EQ(out, nullptr);
        }
        EXPECT_TRUE(ledger.Balanced()) << failing;
    }
}

TEST_F(CameraClientCreate, TheBadAllocOfTheSinkGoesOnToTheHost) {
    for (const char* line : {"camera_client_create interface", "[cameraclient] create"}) {
        {
            const auto policy = Policy("IClientCameraPlugin", 0x0002000000000000);
            host.OnLineWith(line, [] { throw HostFailure(); });
            IZUModInterface* out = nullptr;
            EXPECT_THROW(camera_client_create(policy.Get(), &out), HostFailure) << line;
            EXPECT_EQ(out, nullptr);
        }
        EXPECT_TRUE(ledger.Balanced()) << line;
    }
}

TEST_F(CameraClientCreate, AnInterfaceNameOfAnyLengthIsRefusedInOneTruncatedLine) {
    const std::string name(5000, 'n');
    const std::vector<LogLine> lines = RefusalOf(Policy(name.c_str(), 0x0002000000000000));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text.size(), 4095u);
}

TEST_F(CameraClientCreate, EightThreadsAtOnceGetAPluginEach) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            const CRefPtr_T<IZUModCreatePolicy> policy(
                new CZUModCreatePolicyAdapter("IClientCameraPlugin", 0x0002000000000000));
            IZUModInterface* out = nullptr;
            EXPECT_EQ(camera_client_create(policy.Get(), &out), 1);
            EXPECT_EQ(CallSlot<int64_t>(out, 3), 0);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(host.Lines().size(), 8u * 4);
}

}  // namespace
}  // namespace zumod
