// The module that a check loads, and the objects that it creates.
//
// Thread rule: one thread at a time, except where a check says otherwise.
#pragma once

#include <cstdint>
#include <string>

#include "validate/check.h"
#include "validate/doubles.h"
#include "zumod/zumod.h"

namespace zumod::validate {

// Null, and the reason in `error`, if the file cannot be loaded.
void* LoadFile(const std::string& file, std::string& error);

// The entry point; null if the library has none.
EntryPointFunction FindEntryPoint(void* library);

class Module {
public:
    // Loads the file and calls its entry point. Throws NotApplicable if that fails: load.resolves-now and
    // entry.descriptor report it.
    explicit Module(const Context& context);
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const Context& GetContext() const { return m_context; }
    EntryPointFunction Entry() const { return m_entry; }
    const ZUModDescriptor& Descriptor() const { return *m_descriptor; }

    // Each throws NotApplicable if the descriptor lacks the function: desc.functions reports it.
    int Attach(IZUModRuntime* host) const;
    void Detach() const;  // does nothing if there is none: the descriptor may leave it out
    int Create(IZUModCreatePolicy* policy, IZUModInterface** out) const;

    // dlclose. The object must not be used afterwards.
    void Unload();

private:
    const Context m_context;
    void* m_library = nullptr;
    EntryPointFunction m_entry = nullptr;
    const ZUModDescriptor* m_descriptor = nullptr;
};

// The policy with which a host asks for the object of this kind of module: a camera plugin or a video
// encoder.
CRefPtr_T<PolicyDouble> UsualPolicy(ModuleKind kind);

const char* InterfaceName(ModuleKind kind);
uint64_t InterfaceVersion(ModuleKind kind);

// A camera plugin or an encoder, with one reference.
class Object {
public:
    // Throws Finding if the module refuses the policy or stores no object.
    Object(const Module& module, IZUModCreatePolicy* policy);
    // With the usual policy.
    explicit Object(const Module& module);

    IClientCameraPlugin* Plugin() const { return m_plugin.Get(); }
    IVEncoder* Encoder() const { return m_encoder.Get(); }
    IZUModInterface* Interface() const;

    uint64_t AddRef() const;
    int64_t Release() const;
    // Releases the reference of this owner. Returns the count.
    int64_t Reset();

private:
    CRefPtr_T<IClientCameraPlugin> m_plugin;
    CRefPtr_T<IVEncoder> m_encoder;
};

// Makes a module log, if it logs at all: a create call for an unknown interface, then the creation and the
// release of an object.
void UseBriefly(const Module& module);
// Only the refused create call.
void AskForUnknown(const Module& module);

}  // namespace zumod::validate
