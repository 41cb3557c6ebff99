// Checks of the entry point, the descriptor, and the attach and detach functions.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "validate/checks.h"
#include "validate/module_under_test.h"
#include "validate/process_look.h"

namespace zumod::validate {
namespace {

constexpr size_t kMostText = 64;
constexpr size_t kMostLine = 4095;

// Throws Finding unless the text is readable ASCII of 1 to 64 characters.
void ExpectReadable(const std::string& what, const char* text) {
    Expect(text != nullptr, what + " is a text", "null");
    const size_t length = strnlen(text, kMostText + 1);
    Expect(length > 0 && length <= kMostText, what + " has 1 to 64 characters",
           length == 0 ? "an empty text" : "a longer one");
    Expect(std::all_of(text, text + length, [](unsigned char c) { return std::isprint(c) != 0; }),
           what + " is printable", "another character");
}

void ExpectCode(const std::string& what, const void* function) {
    Expect(function != nullptr, what + " is a function", "null");
    Expect(IsExecutable(function), what + " points at code", "an address that cannot be executed");
}

// The lines that the host gets from a brief use of the module. Throws NotApplicable if there are none.
size_t LinesOfBriefUse(const Module& module, HostDouble& host) {
    UseBriefly(module);
    const size_t lines = host.Lines().size();
    if (lines == 0) {
        throw NotApplicable{"the module logs nothing when it creates and refuses"};
    }
    return lines;
}

}  // namespace

void HasDescriptor(const Context& context) {
    std::string error;
    void* const library = LoadFile(context.file, error);
    if (library == nullptr) {
        throw NotApplicable{"the module does not load"};
    }
    const EntryPointFunction entry = FindEntryPoint(library);
    Expect(entry != nullptr, std::string("the export ") + kEntryPointName, "none");
    Expect(entry() != nullptr, "a descriptor", "null");
}

void SameDescriptor(const Context& context) {
    const Module module(context);
    for (int i = 0; i < 3; ++i) {
        Expect(module.Entry()() == &module.Descriptor(), "the same pointer on every call", "another one");
    }
}

void DescriptorOnAnyThread(const Context& context) {
    const Module module(context);
    std::array<const ZUModDescriptor*, 8> results{};
    std::vector<std::thread> threads;
    threads.reserve(results.size());
    for (const ZUModDescriptor*& result : results) {
        threads.emplace_back([&] { result = module.Entry()(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const ZUModDescriptor* const result : results) {
        Expect(result == &module.Descriptor(), "the same pointer on eight threads", "another one");
    }
}

void ModuleName(const Context& context) {
    const Module module(context);
    ExpectReadable("the name", module.Descriptor().name);
    if (context.kind == ModuleKind::kCodec) {
        Expect(std::string(module.Descriptor().name) == kCodecModuleName, kCodecModuleName,
               module.Descriptor().name);
    }
}

void ModuleVersion(const Context& context) {
    const uint64_t version = Module(context).Descriptor().version;
    Expect(version >> 48 != 0, "a major version, in the top 16 bits, that is not 0", std::to_string(version));
}

void DescriptorFunctions(const Context& context) {
    const Module module(context);
    ExpectCode("attach_runtime", reinterpret_cast<const void*>(module.Descriptor().attach_runtime));
    ExpectCode("create", reinterpret_cast<const void*>(module.Descriptor().create));
}

void DescriptorDetach(const Context& context) {
    const Module module(context);
    ExpectCode("detach_runtime", reinterpret_cast<const void*>(module.Descriptor().detach_runtime));
}

void BuildStamp(const Context& context) {
    ExpectReadable("the build stamp", Module(context).Descriptor().build_stamp);
}

void DescriptorConstant(const Context& context) {
    const Module module(context);
    const ZUModDescriptor before = module.Descriptor();
    HostDouble host;
    module.Attach(&host);
    UseBriefly(module);
    module.Detach();
    Expect(std::memcmp(&before, &module.Descriptor(), sizeof before) == 0,
           "the same 48 bytes after attach, create and detach", "others");
}

void AttachReturnsOne(const Context& context) {
    const Module module(context);
    HostDouble host;
    ExpectEqual("the result of attach", 1, module.Attach(&host));
    ExpectEqual("the result of a second attach", 1, module.Attach(&host));
}

void AttachNull(const Context& context) {
    const Module module(context);
    ExpectEqual("the result of attach with null", 0, module.Attach(nullptr));
    HostDouble host;
    module.Attach(&host);
    ExpectEqual("the result of attach with null after a host", 0, module.Attach(nullptr));
    UseBriefly(module);
}

void AttachReplaces(const Context& context) {
    const Module module(context);
    HostDouble first;
    HostDouble second;
    module.Attach(&first);
    const size_t lines = LinesOfBriefUse(module, first);
    module.Attach(&second);
    UseBriefly(module);
    ExpectEqual("the number of lines of the first host", lines, first.Lines().size());
    Expect(!second.Lines().empty(), "lines for the host that was attached last", "none");
}

void AttachOften(const Context& context) {
    const Module module(context);
    HostDouble host;
    module.Attach(&host);
    const size_t before = HeapInUse();
    for (int i = 0; i < 1000; ++i) {
        module.Attach(&host);
    }
    const size_t after = HeapInUse();
    Expect(after < before + 16'384, "no more memory in use after 1000 calls",
           std::to_string(after - before) + " bytes more");
}

void DetachSilences(const Context& context) {
    const Module module(context);
    if (module.Descriptor().detach_runtime == nullptr) {
        throw NotApplicable{"the descriptor has no detach function"};
    }
    HostDouble host;
    module.Attach(&host);
    Object object(module);
    module.Detach();
    const size_t calls = host.Calls();
    UseBriefly(module);
    object.Reset();
    ExpectEqual("the number of calls of the runtime after detach", 0, host.Calls() - calls);
}

void LogLevels(const Context& context) {
    const Module module(context);
    HostDouble host;
    module.Attach(&host);
    LinesOfBriefUse(module, host);
    for (const HostDouble::Line& line : host.Lines()) {
        Expect(line.level == kLogEvent || line.level == kLogIgnored || line.level == kLogFailure ||
                   line.level == kLogTrace,
               "a level of 1, 2, 4 or 8", std::to_string(line.level));
    }
}

void LogTexts(const Context& context) {
    const Module module(context);
    HostDouble host;
    module.Attach(&host);
    // The name of the wanted interface is part of most lines about a refusal.
    const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
    policy->Set(kPolicyInterfaceName, CZUModData::FromText(std::string(3 * kMostLine, 'x').c_str()));
    IZUModInterface* created = nullptr;
    module.Create(policy.Get(), &created);
    LinesOfBriefUse(module, host);
    for (const HostDouble::Line& line : host.Lines()) {
        Expect(line.has_text, "a text", "null");
        Expect(line.length <= kMostLine, "at most 4095 bytes", std::to_string(line.length));
    }
}

void LogFromInside(const Context& context) {
    const Module module(context);
    HostDouble host;
    bool inside = false;
    host.on_line = [&] {
        if (!inside) {
            inside = true;
            AskForUnknown(module);
            inside = false;
        }
    };
    module.Attach(&host);
    LinesOfBriefUse(module, host);
}

void LogThrows(const Context& context) {
    const Module module(context);
    HostDouble host;
    bool throws = true;
    host.on_line = [&] {
        if (throws) {
            throw std::runtime_error("thrown by the host");
        }
    };
    module.Attach(&host);
    const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
    policy->Set(kPolicyInterfaceName, CZUModData::FromText("IValidatorUnknown"));
    IZUModInterface* created = nullptr;
    try {
        module.Create(policy.Get(), &created);
    } catch (const std::runtime_error&) {
        // Where it should arrive.
    }
    ExpectEqual("the number of values kept after the exception", 0, policy->LiveValues());
    ExpectEqual("the number of references to the policy", 1, CountOf(*policy));
    throws = false;
    // A lock that is still held stops another thread.
    std::thread([&module] { UseBriefly(module); }).join();
}

void PropertiesReleased(const Context& context) {
    const Module module(context);
    HostDouble host;
    std::atomic<int> live{0};
    const CRefPtr_T<TrackedValue> value(new TrackedValue(CZUModData::FromText(""), live));
    host.on_property = [&](const char*) { return value.Get(); };
    module.Attach(&host);
    UseBriefly(module);
    module.Detach();
    ExpectEqual("the number of references to the host's value", 1, CountOf(*value));
}

void PropertiesOfAnyKind(const Context& context) {
    const Module module(context);
    const std::string long_text(1 << 20, 'x');
    const int64_t number = -1;
    std::atomic<int> live{0};
    std::vector<CRefPtr_T<IZUModData>> values;
    for (uint32_t tag = 0; tag <= kZUModDataPointer + 2; ++tag) {
        values.emplace_back(new CZUModData(tag, &number, tag == kZUModDataText ? 0 : sizeof number));
        values.emplace_back(new CZUModData(tag, nullptr, 0));
    }
    values.emplace_back(new CZUModData(static_cast<IReference*>(nullptr)));
    values.push_back(CZUModData::FromText(long_text.c_str()));
    for (const CRefPtr_T<IZUModData>& content : values) {
        const CRefPtr_T<TrackedValue> value(new TrackedValue(content, live));
        HostDouble host;
        host.on_property = [&](const char*) { return value.Get(); };
        module.Attach(&host);
        UseBriefly(module);
        module.Detach();
    }
}

}  // namespace zumod::validate
