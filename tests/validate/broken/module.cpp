// Modules that are broken on purpose, for the tests of zu-module-validate: a good module, and one defect that
// ZU_BROKEN names. Without it the module is good. ZU_BROKEN_CAMERA decides at compile time whether it is a
// camera module or a codec: the first is the camera module of this tree, loaded by this one, and the second
// the example's codec. Every call passes through here on its way.
//
// A defect has the name of the check that finds it, followed by a "/" and a word where there are several.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zumod/zumod.h"

#ifdef ZU_BROKEN_CAMERA
#define ZU_BROKEN_NAME zumod::kClientCameraPluginName
#define ZU_BROKEN_VERSION zumod::kClientCameraPluginVersion
#define ZU_BROKEN_MODULE "zu-client-camera"
#else
#define ZU_BROKEN_NAME zumod::kVideoEncoderName
#define ZU_BROKEN_VERSION zumod::kCodecInterfaceVersion
#define ZU_BROKEN_MODULE zumod::kCodecModuleName
#define zumod_get_entrypoint good_entrypoint
#include "examples/codec.cpp"
#undef zumod_get_entrypoint
#endif

#ifdef ZU_BROKEN_EXPORT
extern "C" [[gnu::visibility("default")]] int zu_broken_export() {
    return 0;
}
#endif
#ifdef ZU_BROKEN_UNIQUE
asm(".data\n.globl zu_broken_unique\n.type zu_broken_unique, @gnu_unique_object\n.size zu_broken_unique, 8\n"
    "zu_broken_unique: .quad 0\n.text\n");
#endif
#ifdef ZU_BROKEN_TEXT
asm(".text\n.quad zumod_get_entrypoint\n");
#endif
#ifdef ZU_BROKEN_UNDEFINED
extern "C" int zu_broken_undefined();
#endif

namespace broken {
namespace {

using namespace zumod;

// Whether the module has this defect.
bool Has(const char* defect) {
    const char* const chosen = std::getenv("ZU_BROKEN");
    return chosen != nullptr && std::strcmp(chosen, defect) == 0;
}

// ---- Loading ----

void StayLoaded() {
    static const char here = 0;
    Dl_info self{};
    dladdr(&here, &self);
    dlopen(self.dli_fname, RTLD_NOW | RTLD_NODELETE);
}

__attribute__((constructor)) void OnLoad() {
    static char variable[] = "ZU_BROKEN_VARIABLE=1";
    if (Has("load.no-side-effects/thread")) {
        StayLoaded();  // the code that the thread runs
        std::thread([] { pause(); }).detach();
    } else if (Has("load.no-side-effects/descriptor")) {
        static_cast<void>(open("/dev/null", O_RDONLY));
    } else if (Has("load.no-side-effects/output")) {
        std::puts("hello");
    } else if (Has("load.no-side-effects/signal")) {
        std::signal(SIGPIPE, SIG_IGN);
    } else if (Has("load.no-side-effects/umask")) {
        umask(077);
    } else if (Has("load.no-side-effects/locale")) {
        std::setlocale(LC_ALL, "C.UTF-8");
    } else if (Has("load.no-side-effects/directory")) {
        static_cast<void>(!chdir("/"));
    } else if (Has("load.no-side-effects/environment")) {
        putenv(variable);
    } else if (Has("load.many-times")) {
        static_cast<void>(!std::malloc(32 * 1024));
    } else if (Has("unload.harmless")) {
        StayLoaded();  // its destructor runs at the end of the process
    }
}

__attribute__((destructor)) void OnUnload() {
    if (Has("unload.harmless")) {
        std::abort();
    }
}

#ifdef ZU_BROKEN_UNDEFINED
int g_undefined = zu_broken_undefined();
#endif

// ---- The good module ----

const ZUModDescriptor& Good() {
#ifdef ZU_BROKEN_CAMERA
    static const ZUModDescriptor* const good = [] {
        void* const library = dlopen(ZU_BROKEN_CAMERA, RTLD_NOW);
        return library != nullptr ? reinterpret_cast<EntryPointFunction>(dlsym(library, kEntryPointName))()
                                  : nullptr;
    }();
    if (good == nullptr) {
        std::abort();
    }
    return *good;
#else
    return *good_entrypoint();
#endif
}

// ---- The host ----

std::recursive_mutex g_lock;
std::mutex g_plain_lock;
IZUModRuntime* g_host = nullptr;
IZUModRuntime* g_first_host = nullptr;

void Log(uint32_t level, const std::string& text) {
    IZUModRuntime* const host = Has("attach.replaces") ? g_first_host : g_host;
    if (host == nullptr) {
        return;
    }
    if (Has("log.from-inside")) {
        const std::lock_guard lock(g_plain_lock);
        host->WriteLog(level, text.c_str());
    } else if (Has("log.throws/lock")) {
        g_lock.lock();
        host->WriteLog(level, text.c_str());
        g_lock.unlock();
    } else {
        const std::lock_guard lock(g_lock);
        host->WriteLog(Has("log.level") ? 3 : level, text.c_str());
    }
}

int Attach(IZUModRuntime* host) {
    if (Has("attach.every-time")) {
        static_cast<void>(!std::malloc(1000));
    }
    if (host == nullptr) {
        return Has("attach.null") ? 1 : 0;
    }
    g_first_host = g_first_host == nullptr ? host : g_first_host;
    g_host = host;
    return Has("attach.returns-1") ? 2 : 1;
}

void Detach() {
    if (!Has("detach.silent")) {
        g_host = nullptr;
        g_first_host = nullptr;
    }
}

// ---- The objects ----

// Written by the thread that creates or releases.
std::atomic<int> g_objects{0};

// What both kinds of object have in common.
template <class Interface>
class Broken : public CCounted_T<Interface> {
public:
    Broken() { ++g_objects; }
    ~Broken() override { --g_objects; }

    uint64_t AddRef() override {
        if (Has("ref.values")) {
            return CCounted_T<Interface>::AddRef() - 1;
        }
        if (Has("ref.threads")) {
            // What another thread does in between makes this one lose its reference.
            ++m_adds;
            int64_t count = m_torn;
            std::this_thread::sleep_for(std::chrono::microseconds(1));
            m_torn.compare_exchange_strong(count, count + 1);
            return static_cast<uint64_t>(count) + 1;
        }
        return CCounted_T<Interface>::AddRef();
    }
    int64_t Release() override {
        if (Has("create.one-reference")) {
            const int64_t count = CCounted_T<Interface>::Release();
            return count == 0 ? 1 : count;
        }
        if (Has("ref.threads")) {
            // So that the count of the others is not the same all the time.
            std::this_thread::sleep_for(std::chrono::microseconds(1));
            const int64_t left = --m_torn;
            if (left == 0 && m_adds == 1) {
                delete this;
            }
            return left;
        }
        return CCounted_T<Interface>::Release();
    }
    bool QueryInterface(const char* name, void** out) override {
        if (Has("query.unknown")) {
            *out = nullptr;
        }
        if (Has("query.counted")) {
            *out = IsSameInterfaceName(name, kVideoEncoderName) ? this : *out;
            return IsSameInterfaceName(name, kVideoEncoderName);
        }
        return false;
    }
    bool SetProperty(const char* key, IZUModData* value) override {
        if (Has("prop.released") && value != nullptr) {
            value->AddRef();
        }
        if (Has("prop.null")) {
            return value->GetBool() && false;
        }
        return Has("prop.unknown") || (std::strcmp(key, kPropertyHardware) == 0 && value != nullptr);
    }
    IZUModData* GetProperty(const char*) override { return nullptr; }

private:
    std::atomic<int64_t> m_torn{0};
    std::atomic<int> m_adds{0};
};

CRefPtr_T<IZUModCreatePolicy> g_kept_policy;

#ifndef ZU_BROKEN_CAMERA

// The arguments of a call with a defect.
class Arguments final : public CCounted_T<IVEncArgs> {
public:
    explicit Arguments(IVEncArgs& args) : m_args(args) {
        const auto* const bytes = static_cast<const uint8_t*>(args.GetInputData());
        m_input.assign(bytes, bytes + args.GetInputSize());
    }
    std::vector<uint8_t>& Input() { return m_input; }

    uint64_t GetArgOption() override { return m_args.GetArgOption(); }
    const void* GetInputData() override { return m_input.data(); }
    uint64_t GetInputSize() override { return m_input.size(); }
    uint64_t GetArgFlags() override { return m_args.GetArgFlags(); }
    void ResetArgs() override { m_args.ResetArgs(); }
    uint64_t PrepareOutput(uint32_t size) override {
        const uint64_t granted = m_args.PrepareOutput(size);
        return Has("enc.short-output") ? size : granted;
    }
    void* GetOutputData() override { return m_args.GetOutputData(); }
    uint64_t GetOutputSize() override { return m_args.GetOutputSize(); }

private:
    IVEncArgs& m_args;
    std::vector<uint8_t> m_input;
};

VideoInputFormat g_format{};

class Encoder final : public Broken<IVEncoder> {
public:
    explicit Encoder(CRefPtr_T<IVEncoder> good) : m_good(std::move(good)) {}
    int ReservedEncoder12() override { return Has("slot.reserved") ? 5 : 0; }
    int SetInputFormat(const VideoInputFormat* format) override {
        if (!Has("enc.follows-size") || m_format.width == 0) {
            m_format = *format;
        }
        g_format = *format;
        return 1;
    }
    bool Encode(IVEncArgs* args) override {
        ++m_pictures;
        if (Has("enc.two")) {
            m_format = g_format;
        }
        const CRefPtr_T<Arguments> arguments(new Arguments(*args));
        std::vector<uint8_t>& input = arguments->Input();
        if (Has("enc.encodes") || (Has("enc.any-thread") && m_creator != std::this_thread::get_id()) ||
            (Has("enc.one-per-picture") && m_pictures == 1)) {
            return false;
        }
        if (Has("enc.any-size") && m_format.width == 17) {
            std::abort();
        }
        if (Has("enc.args-released")) {
            args->AddRef();
        }
        if (Has("enc.no-format") && m_format.width == 0) {
            return args->PrepareOutput(4) == 4;
        }
        if (Has("enc.decodes-alone") && m_format.width == 160) {
            for (size_t i = size_t{160} * 128; i + 1 < input.size(); i += 2) {
                std::swap(input[i], input[i + 1]);
            }
        }
        const auto* const bytes = static_cast<const volatile uint8_t*>(args->GetInputData());
        const bool usual = m_format.width == 64 && m_format.height == 48;
        if (Has("enc.reads-inside") && usual && m_format.stride >= 64 && m_format.stride < 100) {
            static_cast<void>(bytes[m_format.stride * m_format.height * 3 / 2 - 1]);
        }
        if (Has("enc.input-not-kept") && usual && m_format.stride == 64 && m_pictures == 6) {
            static_cast<void>(*m_last);
        }
        m_last = bytes;
        m_good->SetInputFormat(&m_format);
        return m_good->Encode(arguments.Get());
    }

private:
    const CRefPtr_T<IVEncoder> m_good;
    const std::thread::id m_creator = std::this_thread::get_id();
    VideoInputFormat m_format{};
    const volatile uint8_t* m_last = nullptr;
    int m_pictures = 0;
};

using Interface = IVEncoder;
using Object = Encoder;

#endif

// A table like the object's, with a slot that points at data.
void BreakSlot(void* object) {
    constexpr size_t kBefore = 16;  // offsets to virtual bases, type information
    constexpr size_t kAfter = 21;
    void**& table = *static_cast<void***>(object);
    static void* copy[kBefore + kAfter];
    std::memcpy(copy, table - kBefore, sizeof copy);
    copy[kBefore + 15] = copy;
    table = copy + kBefore;
}

// ---- Create ----

int Refuse(IZUModInterface** out, const std::string& why) {
    if (Has("create.slot-unchanged") && out != nullptr) {
        *out = nullptr;
    }
    Log(kLogFailure, why);
    return 0;
}

int CreateChecked(IZUModCreatePolicy* policy, IZUModInterface** out) {
    if (policy == nullptr || out == nullptr) {
        if ((policy == nullptr && out != nullptr && Has("create.null-policy")) ||
            (out == nullptr && Has("create.null-out"))) {
            return 1;
        }
        return Refuse(out, "null");
    }
    const char* const expected = ZU_BROKEN_NAME;
    std::string name = PolicyText(*policy, kPolicyInterfaceName);
    const uint64_t version = PolicyInteger(*policy, kPolicyVersion);
    if (Has("create.no-name") && name.empty()) {
        name = expected;
    }
    if (Has("create.unknown-name") && name.rfind(expected, 0) == 0) {
        name = expected;
    }
    if (Has("create.wrong-kinds")) {
        const CRefPtr_T<IZUModData> value(policy->GetPolicy(kPolicyInterfaceName));
        name = value && value->GetType() != kZUModDataText && value->GetSize() > 0 ? expected : name;
    }
    if (Has("create.any-case") ? name != expected : !IsSameInterfaceName(name, expected)) {
        // As one buffer of a fixed size that is too large.
        return Refuse(out, Has("log.text") ? "unknown " + name : ("unknown " + name).substr(0, 4000));
    }
    const uint64_t major = version >> 48;
    if (Has("create.wrong-major") ? major == 0 : major != ZU_BROKEN_VERSION >> 48) {
        return Refuse(out, "version");
    }
    if (Has("create.any-minor") && version != ZU_BROKEN_VERSION) {
        return Refuse(out, "minor version");
    }
    if (Has("create.any-policies")) {
        const CRefPtr_T<IZUModData> value(policy->GetPolicy(kPolicyImageType));
        static_cast<void>(*static_cast<const volatile int64_t*>(value->GetData()));
    }
    if (Has("env.any-kind") || Has("env.released")) {
        IZUModData* const value = g_host != nullptr ? g_host->GetEnvProperty("zu.broken") : nullptr;
        if (value != nullptr && Has("env.released")) {
            value->AddRef();
        } else if (value != nullptr) {
            static_cast<void>(*static_cast<const volatile char*>(value->GetString()));
        }
    }
    if (Has("create.many-objects") && g_objects > 50) {
        return Refuse(out, "too many");
    }
    if (Has("create.leaks-nothing")) {
        static_cast<void>(!std::malloc(1000));
    }
    static bool created_before = false;
    if (Has("create.releases-values") && !created_before) {
        policy->GetPolicy(kPolicyInterfaceName)->AddRef();
    }
    created_before = true;
    if (Has("create.releases-policy")) {
        g_kept_policy = CRefPtr_T<IZUModCreatePolicy>(policy);
    }
    const CRefPtr_T<CZUModCreatePolicyAdapter> accepted(
        new CZUModCreatePolicyAdapter(ZU_BROKEN_NAME, ZU_BROKEN_VERSION));
    accepted->SetPolicy(kPolicyImageType, CZUModData::FromInt64(kImageTypeH264));
    IZUModInterface* good = nullptr;
    if (Good().create(accepted.Get(), &good) != 1) {
        return Refuse(out, "the good module refuses");
    }
    auto* const object = new Object(TakeInterface<Interface>(good));
    StoreInterface<Interface>(object, out);
    if (Has("slot.code")) {
        BreakSlot(*out);
    }
    Log(kLogEvent, "created");
    return 1;
}

extern ZUModDescriptor g_descriptor;

int Create(IZUModCreatePolicy* policy, IZUModInterface** out) {
    if (Has("desc.constant")) {
        g_descriptor.version += 1;
    }
    if (Has("log.throws/terminate")) {
        return [&]() noexcept { return CreateChecked(policy, out); }();
    }
    return CreateChecked(policy, out);
}

ZUModDescriptor g_descriptor = {ZU_BROKEN_VERSION, ZU_BROKEN_MODULE, &Attach, &Detach, &Create, "today"};

const ZUModDescriptor* Descriptor() {
    static thread_local ZUModDescriptor of_thread = g_descriptor;
    if (Has("entry.any-thread")) {
        return &of_thread;
    }
    if (Has("entry.same-descriptor")) {
        static std::vector<std::unique_ptr<ZUModDescriptor>> all;
        all.push_back(std::make_unique<ZUModDescriptor>(g_descriptor));
        return all.back().get();
    }
    if (Has("entry.descriptor")) {
        return nullptr;
    }
    g_descriptor.version = Has("desc.version") ? 5 : g_descriptor.version;
    g_descriptor.name = Has("desc.name") ? "not zu-codec" : g_descriptor.name;
    g_descriptor.create = Has("desc.functions") ? nullptr : g_descriptor.create;
    g_descriptor.detach_runtime = Has("desc.detach") ? nullptr : g_descriptor.detach_runtime;
    g_descriptor.build_stamp = Has("desc.build-stamp") ? "" : g_descriptor.build_stamp;
    return &g_descriptor;
}

}  // namespace
}  // namespace broken

extern "C" [[gnu::visibility("default")]] const zumod::ZUModDescriptor* zumod_get_entrypoint() {
    return broken::Descriptor();
}
