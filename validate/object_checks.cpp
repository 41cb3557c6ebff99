// Checks of the object that a module creates: its references, its table and its properties.
#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

#include "validate/checks.h"
#include "validate/module_under_test.h"
#include "validate/process_look.h"

namespace zumod::validate {
namespace {

constexpr size_t kPluginSlots = 12;
constexpr size_t kEncoderSlots = 21;

struct ObjectAtHost {
    explicit ObjectAtHost(const Context& context) : module(context) {
        module.Attach(&host);
        object.emplace(module);
    }

    HostDouble host;
    Module module;
    std::optional<Object> object;
};

const void* PointerOfObject(const Object& object) {
    return object.Plugin() != nullptr ? static_cast<const void*>(object.Plugin())
                                      : static_cast<const void*>(object.Encoder());
}

}  // namespace

void CountsAreReturned(const Context& context) {
    const ObjectAtHost at(context);
    ExpectEqual("the result of AddRef on an object with one reference", 2, at.object->AddRef());
    ExpectEqual("the result of a second AddRef", 3, at.object->AddRef());
    ExpectEqual("the result of Release on an object with three references", 2, at.object->Release());
    ExpectEqual("the result of a second Release", 1, at.object->Release());
}

void CountsOnManyThreads(const Context& context) {
    const ObjectAtHost at(context);
    constexpr int kThreads = 4;
    constexpr int kPairs = 2000;
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        // One more reference for each thread, so that a lost one does not destroy the object at once.
        at.object->AddRef();
        threads.emplace_back([&] {
            // All at once: a thread that starts late would find the others at their end.
            ++started;
            while (started < kThreads) {
                std::this_thread::yield();
            }
            for (int pair = 0; pair < kPairs; ++pair) {
                at.object->AddRef();
                at.object->Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ExpectEqual("the result of Release after four threads added and released", 4, at.object->Release());
}

void SlotsAreCode(const Context& context) {
    const ObjectAtHost at(context);
    const void* const* const table = *static_cast<const void* const* const*>(PointerOfObject(*at.object));
    const size_t count = context.kind == ModuleKind::kCamera ? kPluginSlots : kEncoderSlots;
    // Slots 0 and 1 are never called across a module boundary.
    for (size_t slot = 2; slot < count; ++slot) {
        Expect(IsExecutable(table[slot]), "code in slot " + std::to_string(slot),
               "an address that cannot be executed");
    }
}

void ReservedSlots(const Context& context) {
    const ObjectAtHost at(context);
    if (IClientCameraPlugin* const plugin = at.object->Plugin()) {
        ExpectEqual("the result of slot 4", 0, plugin->ReservedAutoConfig());
        ExpectEqual("the result of slot 8", 0, plugin->ReservedPlugin8());
        ExpectEqual("the result of slot 9", 0, plugin->ReservedPlugin9());
        Expect(!plugin->ReservedPlugin10(), "an empty reference from slot 10", "another one");
        plugin->ReservedPlugin11();
        return;
    }
    using Slot = int (IVEncoder::*)();
    constexpr std::array<Slot, 12> kSlots = {
        &IVEncoder::ReservedEncoder7,  &IVEncoder::ReservedEncoder8,  &IVEncoder::ReservedEncoder9,
        &IVEncoder::ReservedEncoder11, &IVEncoder::ReservedEncoder12, &IVEncoder::ReservedEncoder13,
        &IVEncoder::ReservedEncoder14, &IVEncoder::ReservedEncoder15, &IVEncoder::ReservedEncoder16,
        &IVEncoder::ReservedEncoder17, &IVEncoder::ReservedEncoder18, &IVEncoder::ReservedEncoder19};
    for (size_t i = 0; i < kSlots.size(); ++i) {
        const size_t slot = i < 3 ? 7 + i : 8 + i;
        ExpectEqual("the result of slot " + std::to_string(slot), 0, (at.object->Encoder()->*kSlots[i])());
    }
}

void QueryUnknown(const Context& context) {
    const ObjectAtHost at(context);
    for (const char* const name : {"", "IValidatorUnknown", "IVEncoderx", "IClientCameraPluginx"}) {
        void* const pattern = reinterpret_cast<void*>(0x5A5A5A5A5A5A5A5A);
        void* out = pattern;
        Expect(!at.object->Interface()->QueryInterface(name, &out),
               std::string("false for the interface \"") + name + "\"", "true");
        Expect(out == pattern, "an unchanged slot", "another pointer");
    }
}

void QueryCounts(const Context& context) {
    const ObjectAtHost at(context);
    void* out = nullptr;
    if (!at.object->Interface()->QueryInterface(InterfaceName(context.kind), &out)) {
        throw NotApplicable{"the object does not return its own interface"};
    }
    ExpectEqual("the result of AddRef after QueryInterface", 3, at.object->AddRef());
}

void UnknownProperty(const Context& context) {
    const ObjectAtHost at(context);
    constexpr char kKey[] = "zu.validate.unknown";
    const CRefPtr_T<IZUModData> value = CZUModData::FromBool(true);
    Expect(!at.object->Interface()->SetProperty(kKey, value.Get()), "false for an unknown property", "true");
    Expect(at.object->Interface()->GetProperty(kKey) == nullptr, "null for an unknown property", "a value");
}

void PropertyValueCount(const Context& context) {
    ObjectAtHost at(context);
    std::atomic<int> live{0};
    const CRefPtr_T<TrackedValue> value(new TrackedValue(CZUModData::FromBool(true), live));
    at.object->Interface()->SetProperty(kPropertyHardware, value.Get());
    at.object->Interface()->SetProperty("zu.validate.unknown", value.Get());
    at.object->Reset();
    ExpectEqual("the number of references to the value after the object's end", 1, CountOf(*value));
}

void NullProperty(const Context& context) {
    const ObjectAtHost at(context);
    IZUModInterface& object = *at.object->Interface();
    object.SetProperty("zu.validate.unknown", nullptr);
    object.SetProperty(kPropertyHardware, nullptr);
}

}  // namespace zumod::validate
