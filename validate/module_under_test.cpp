#include "validate/module_under_test.h"

#include <dlfcn.h>

namespace zumod::validate {

void* LoadFile(const std::string& file, std::string& error) {
    // With a "/" it is a path, not a name to look for.
    const std::string path = file.find('/') == std::string::npos ? "./" + file : file;
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* const reason =
            dlerror();  // NOLINT(concurrency-mt-unsafe): the text is kept for each thread
        error = reason != nullptr ? reason : "dlopen fails without a reason";
    }
    return library;
}

EntryPointFunction FindEntryPoint(void* library) {
    return reinterpret_cast<EntryPointFunction>(dlsym(library, kEntryPointName));
}

Module::Module(const Context& context) : m_context(context) {
    std::string error;
    m_library = LoadFile(context.file, error);
    if (m_library == nullptr) {
        throw NotApplicable{"the module does not load"};
    }
    m_entry = FindEntryPoint(m_library);
    m_descriptor = m_entry != nullptr ? m_entry() : nullptr;
    if (m_descriptor == nullptr) {
        throw NotApplicable{"the module has no descriptor"};
    }
}

int Module::Attach(IZUModRuntime* host) const {
    if (m_descriptor->attach_runtime == nullptr) {
        throw NotApplicable{"the descriptor has no attach function"};
    }
    return m_descriptor->attach_runtime(host);
}

void Module::Detach() const {
    if (m_descriptor->detach_runtime != nullptr) {
        m_descriptor->detach_runtime();
    }
}

int Module::Create(IZUModCreatePolicy* policy, IZUModInterface** out) const {
    if (m_descriptor->create == nullptr) {
        throw NotApplicable{"the descriptor has no create function"};
    }
    return m_descriptor->create(policy, out);
}

void Module::Unload() {
    dlclose(m_library);
    m_descriptor = nullptr;
}

const char* InterfaceName(ModuleKind kind) {
    return kind == ModuleKind::kCamera ? kClientCameraPluginName : kVideoEncoderName;
}

uint64_t InterfaceVersion(ModuleKind kind) {
    return kind == ModuleKind::kCamera ? kClientCameraPluginVersion : kCodecInterfaceVersion;
}

CRefPtr_T<PolicyDouble> UsualPolicy(ModuleKind kind) {
    if (kind == ModuleKind::kUnknown) {
        throw NotApplicable{"the module creates neither a camera plugin nor an encoder"};
    }
    CRefPtr_T<PolicyDouble> policy(new PolicyDouble);
    policy->Set(kPolicyInterfaceName, CZUModData::FromText(InterfaceName(kind)));
    policy->Set(kPolicyVersion, CZUModData::FromInt64(static_cast<int64_t>(InterfaceVersion(kind))));
    if (kind == ModuleKind::kCodec) {
        policy->Set(kPolicyImageType, CZUModData::FromInt64(kImageTypeH264));
        // As the camera module asks for it.
        policy->Set(kPolicyEncRapidSub, CZUModData::FromBool(false));
        policy->Set(kPolicyEncNoStreamHeader, CZUModData::FromBool(false));
        policy->Set(kPolicyEncFileRecord, CZUModData::FromBool(false));
        policy->Set(kPolicyEncSourceRgb, CZUModData::FromBool(true));
    }
    return policy;
}

Object::Object(const Module& module, IZUModCreatePolicy* policy) {
    IZUModInterface* created = nullptr;
    ExpectEqual("the result of create", 1, module.Create(policy, &created));
    Expect(created != nullptr, "an object", "none, although create returned 1");
    if (module.GetContext().kind == ModuleKind::kCamera) {
        m_plugin = TakeInterface<IClientCameraPlugin>(created);
    } else {
        m_encoder = TakeInterface<IVEncoder>(created);
    }
}

Object::Object(const Module& module) : Object(module, UsualPolicy(module.GetContext().kind).Get()) {}

IZUModInterface* Object::Interface() const {
    return m_plugin ? static_cast<IZUModInterface*>(m_plugin.Get())
                    : static_cast<IZUModInterface*>(m_encoder.Get());
}

uint64_t Object::AddRef() const {
    return m_plugin ? m_plugin->AddRef() : m_encoder->AddRef();
}

int64_t Object::Release() const {
    return m_plugin ? m_plugin->Release() : m_encoder->Release();
}

int64_t Object::Reset() {
    return m_plugin ? m_plugin.Detach()->Release() : m_encoder.Detach()->Release();
}

void AskForUnknown(const Module& module) {
    const CRefPtr_T<PolicyDouble> policy = UsualPolicy(module.GetContext().kind);
    policy->Set(kPolicyInterfaceName, CZUModData::FromText("IValidatorUnknown"));
    IZUModInterface* created = nullptr;
    module.Create(policy.Get(), &created);
}

void UseBriefly(const Module& module) {
    AskForUnknown(module);
    Object(module).Reset();
}

}  // namespace zumod::validate
