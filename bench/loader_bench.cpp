// The codec factory against the dynamic loader and the codec called by hand, and the arguments of an encode
// call against their allocations.
#include <dlfcn.h>
#include <unistd.h>

#include <string>

#include "bench/paired.h"
#include "src/base/create_buffer.h"
#include "src/bridge/venc_args.h"
#include "src/loader/codec_factory.h"
#include "src/module/attach_runtime.h"
#include "tests/support/doubles/quiet_host.h"
#include "zumod/descriptor.h"
#include "zumod/policies.h"
#include "zumod/values.h"

namespace {

using namespace zumod;

constexpr char kModulesDir[] = ZU_BENCH_MODULES_DIR;
constexpr int kRounds = 50;

void MakeByFactory() {
    for (int i = 0; i < kRounds; ++i) {
        bench::Require(CreateVideoEncoder(kImageTypeH264, false, false, false, true) != nullptr,
                       "the factory creates no encoder");
    }
}

CRefPtr_T<IZUModCreatePolicy> MakePolicy() {
    const CRefPtr_T<CZUModCreatePolicyAdapter> policy(
        new CZUModCreatePolicyAdapter(kVideoEncoderName, kCodecInterfaceVersion));
    policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(kImageTypeH264));
    for (const char* key : {kPolicyEncRapidSub, kPolicyEncNoStreamHeader, kPolicyEncFileRecord}) {
        policy->SetPolicy(key, CZUModData::FromBool(false));
    }
    policy->SetPolicy(kPolicyEncSourceRgb, CZUModData::FromBool(true));
    return policy;
}

// Drops the library handle, as the factory does.
CRefPtr_T<IVEncoder> MakeByHand(const char* path, IZUModRuntime* host, IZUModCreatePolicy* policy) {
    void* library = dlopen(path, RTLD_LAZY);
    const auto entry = reinterpret_cast<EntryPointFunction>(dlsym(library, kEntryPointName));
    const ZUModDescriptor* module = entry();
    module->attach_runtime(host);
    IZUModInterface* created = nullptr;
    bench::Require(module->create(policy, &created) != 0, "the codec creates no encoder");
    return TakeInterface<IVEncoder>(created);
}

// From the second call on, the codec is mapped already.
class AttachedHost {
public:
    AttachedHost() {
        host.SetProperty(kEnvModulesDir, CZUModData::FromText(kModulesDir));
        AttachRuntime(&host);
    }
    ~AttachedHost() { DetachRuntime(); }
    AttachedHost(const AttachedHost&) = delete;
    AttachedHost& operator=(const AttachedHost&) = delete;

    testing::QuietHost host;
    const std::string path = std::string(kModulesDir) + "/zu-codec.so";
};

// Against the dynamic loader and the codec only, with a policy created beforehand and no check that the file
// exists. That check is a system call, which takes longer than everything that is done by hand here.
void CreateVideoEncoder(benchmark::State& state) {
    AttachedHost attached;
    const CRefPtr_T<IZUModCreatePolicy> policy = MakePolicy();
    bench::RunPaired(state, 1.2, MakeByFactory, [&] {
        for (int i = 0; i < kRounds; ++i) {
            MakeByHand(attached.path.c_str(), &attached.host, policy.Get());
        }
    });
}
BENCHMARK(CreateVideoEncoder)->UseManualTime();

// Against the same steps by hand, including the check of the file, and a policy and a property for each
// encoder.
void CreateVideoEncoderInTheSameSteps(benchmark::State& state) {
    AttachedHost attached;
    bench::RunPaired(state, 1.2, MakeByFactory, [&] {
        for (int i = 0; i < kRounds; ++i) {
            bench::Require(access(attached.path.c_str(), F_OK) == 0, "there is no codec");
            const auto encoder = MakeByHand(attached.path.c_str(), &attached.host, MakePolicy().Get());
            encoder->SetProperty(kPropertyHardware, CZUModData::FromBool(true).Get());
        }
    });
}
BENCHMARK(CreateVideoEncoderInTheSameSteps)->UseManualTime();

constexpr uint32_t kOutputSize = 20 * 1024;
constexpr int kFrames = 500;

void PrepareOutputOfOneFrame(const void* picture) {
    const CRefPtr_T<CVEncArgs> args(new CVEncArgs(picture, 1));
    args->PrepareOutput(kOutputSize);
    benchmark::DoNotOptimize(args->GetOutputData());
}

void AllocateByHand() {
    void* args = ::operator new(sizeof(CVEncArgs));
    benchmark::DoNotOptimize(args);
    const CRefPtr_T<IBuffer> output = g_pDefaultAlloctor->Alloc(kOutputSize);
    output->SetSize(kOutputSize);
    benchmark::DoNotOptimize(output->GetData());
    ::operator delete(args);
}

// Against the two allocations it makes: the object and the output buffer.
void PrepareOutput(benchmark::State& state) {
    const char picture = 0;
    bench::RunPaired(
        state, 1.15,
        [&] {
            for (int i = 0; i < kFrames; ++i) {
                PrepareOutputOfOneFrame(&picture);
            }
        },
        [] {
            for (int i = 0; i < kFrames; ++i) {
                AllocateByHand();
            }
        });
}
BENCHMARK(PrepareOutput)->UseManualTime();

}  // namespace
