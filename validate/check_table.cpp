// The table of all checks.
#include <algorithm>
#include <iterator>

#include "validate/check.h"
#include "validate/checks.h"

namespace zumod::validate {
namespace {

using enum Target;
using enum Severity;

constexpr Check kChecks[] = {
    // File and loading.
    {"elf.one-export", kBoth, kMust, "exports zumod_get_entrypoint and nothing else",
     "descriptor.h: kEntryPointName", &OneExport},
    {"elf.no-unique-symbol", kBoth, kMust,
     "exports no symbol of the kind that keeps a file mapped after dlclose",
     "descriptor.h: CreateFunction, a module that refuses is closed", &NoUniqueSymbol},
    {"elf.no-text-relocations", kBoth, kShould, "has code that need not be changed when it is loaded",
     "hardening: code stays read-only and shared", &NoTextRelocations},
    {"elf.no-executable-stack", kBoth, kShould, "does not need an executable stack",
     "hardening: dlopen would make the host's stack executable", &NoExecutableStack},
    {"elf.read-only-relocations", kBoth, kShould, "is linked with -z relro and -z now",
     "hardening: function pointers become read-only", &ReadOnlyRelocations},
    {"elf.no-run-path", kBoth, kShould, "names no directory in which libraries are looked for",
     "hardening: a user who can write there could replace a library", &NoRunPath},
    {"load.resolves-now", kBoth, kMust, "can be loaded with RTLD_NOW", "descriptor.h: the example at its top",
     &ResolvesNow},
    {"load.no-side-effects", kBoth, kMust, "changes nothing in the process when it is loaded",
     "descriptor.h: a module acts when its functions are called", &NoSideEffects},
    {"load.many-times", kBoth, kShould,
     "can be loaded, used and unloaded without using more memory each time",
     "descriptor.h: CreateFunction, a module that refuses is closed", &ManyLoads},
    {"unload.harmless", kBoth, kMust, "lets the process end normally after dlclose",
     "codec.h: a codec stays loaded until the process ends", &UnloadsHarmlessly, Cameras::kNone,
     End::kNormal},
    // Entry point and descriptor.
    {"entry.descriptor", kBoth, kMust, "returns a descriptor", "descriptor.h: EntryPointFunction",
     &HasDescriptor},
    {"entry.same-descriptor", kBoth, kMust, "returns the same descriptor on every call",
     "descriptor.h: one static record per module", &SameDescriptor},
    {"entry.any-thread", kBoth, kMust, "returns the same descriptor on every thread",
     "descriptor.h: every function is [any thread]", &DescriptorOnAnyThread},
    {"desc.name", kBoth, kMust, "has a readable name, and a codec the name zu-codec",
     "descriptor.h: ZUModDescriptor::name; codec.h: kCodecModuleName", &ModuleName},
    {"desc.version", kBoth, kMust, "has a version whose top 16 bits are not 0",
     "descriptor.h: ZUModDescriptor::version", &ModuleVersion},
    {"desc.functions", kBoth, kMust, "has functions to attach and to create", "descriptor.h: ZUModDescriptor",
     &DescriptorFunctions},
    {"desc.detach", kBoth, kShould, "has a function to detach",
     "descriptor.h: ZUModDescriptor::detach_runtime", &DescriptorDetach},
    {"desc.build-stamp", kBoth, kShould, "has a readable build stamp",
     "descriptor.h: ZUModDescriptor::build_stamp", &BuildStamp},
    {"desc.constant", kBoth, kMust, "never changes its descriptor",
     "descriptor.h: one static record per module", &DescriptorConstant},
    // Attach, detach and the host's runtime.
    {"attach.returns-1", kBoth, kMust, "accepts a host, and the same host again",
     "descriptor.h: AttachRuntimeFunction", &AttachReturnsOne},
    {"attach.null", kBoth, kMust, "refuses a null host and stays usable",
     "descriptor.h: AttachRuntimeFunction", &AttachNull},
    {"attach.replaces", kBoth, kMust, "logs to the host that was attached last, and only to it",
     "descriptor.h: AttachRuntimeFunction", &AttachReplaces},
    {"attach.every-time", kBoth, kMust, "can be attached before each creation without using more memory",
     "descriptor.h: AttachRuntimeFunction", &AttachOften},
    {"detach.silent", kBoth, kMust, "does not call the host's runtime after it was detached",
     "descriptor.h: DetachRuntimeFunction", &DetachSilences},
    {"log.level", kBoth, kMust, "logs with exactly one of the four levels",
     "runtime.h: IZUModRuntime::WriteLog", &LogLevels},
    {"log.text", kBoth, kMust, "logs texts of at most 4095 bytes", "runtime.h: IZUModRuntime::WriteLog",
     &LogTexts},
    {"log.from-inside", kBoth, kMust, "lets a log function call the module again",
     "runtime.h: an operation may log again from inside", &LogFromInside},
    {"log.throws", kBoth, kMust, "passes on an exception of the log function and stays usable",
     "runtime.h: an exception propagates to the caller", &LogThrows},
    {"env.released", kBoth, kMust, "releases the host's property values",
     "runtime.h: IZUModRuntime::GetEnvProperty", &PropertiesReleased},
    {"env.any-kind", kBoth, kShould, "survives property values of every kind",
     "values.h: readers check the kind of a value from elsewhere", &PropertiesOfAnyKind},
    // Create.
    {"create.null-policy", kBoth, kMust, "refuses a null policy", "descriptor.h: CreateFunction",
     &CreateNullPolicy},
    {"create.null-out", kBoth, kShould, "refuses a null slot", "descriptor.h: CreateFunction",
     &CreateNullOut},
    {"create.no-name", kBoth, kMust, "refuses a policy without an interface name",
     "create_policy.h: kPolicyInterfaceName", &CreateNoName},
    {"create.unknown-name", kBoth, kMust, "refuses the name of another interface",
     "create_policy.h: kPolicyInterfaceName", &CreateUnknownName},
    {"create.any-case", kBoth, kMust, "accepts the interface name in any case of letters",
     "create_policy.h: kPolicyInterfaceName", &CreateAnyCase},
    {"create.wrong-major", kBoth, kMust, "refuses another major version", "create_policy.h: kPolicyVersion",
     &CreateWrongMajor},
    {"create.any-minor", kBoth, kMust, "accepts every version with its major version",
     "create_policy.h: kPolicyVersion", &CreateAnyMinor},
    {"create.wrong-kinds", kBoth, kMust, "refuses a name or version of another kind",
     "mod_data.h: a typed getter never fails", &CreateWrongKinds},
    {"create.slot-unchanged", kBoth, kMust, "leaves the slot unchanged when it refuses",
     "descriptor.h: CreateFunction", &CreateSlotUnchanged},
    {"create.one-reference", kBoth, kMust, "creates an object with one reference",
     "descriptor.h: CreateFunction", &CreateOneReference},
    {"create.releases-values", kBoth, kMust, "releases the values that it reads from the policy",
     "create_policy.h: IZUModCreatePolicy::GetPolicy", &CreateReleasesValues},
    {"create.releases-policy", kBoth, kMust, "releases the policy, at the latest with the object",
     "create_policy.h: the thread rule", &CreateReleasesPolicy},
    {"create.many-objects", kBoth, kShould, "creates a hundred objects at once",
     "descriptor.h: CreateFunction", &CreateManyObjects},
    {"create.leaks-nothing", kBoth, kShould, "uses no more memory after each object",
     "reference.h: IReference::Release destroys", &CreateLeaksNothing},
    {"create.any-policies", kCodec, kMust, "survives codec policies that are missing or of any kind",
     "values.h: readers check the kind of a value from elsewhere", &PoliciesOfAnyKind},
    // References, table and properties of the object.
    {"ref.values", kBoth, kMust, "returns the new count from AddRef and Release", "reference.h: IReference",
     &CountsAreReturned},
    {"ref.threads", kBoth, kMust, "counts references on several threads at once",
     "reference.h: AddRef and Release are [any thread]", &CountsOnManyThreads},
    {"slot.code", kBoth, kMust, "has code in every slot of the object's table",
     "client_camera_plugin.h and codec.h: the slots", &SlotsAreCode},
    {"slot.reserved", kBoth, kMust, "has reserved slots that return 0 or an empty reference",
     "client_camera_plugin.h and codec.h: the reserved slots", &ReservedSlots},
    {"query.unknown", kBoth, kMust, "refuses to return an unknown interface and leaves the slot unchanged",
     "mod_interface.h: IZUModInterface::QueryInterface", &QueryUnknown},
    {"query.counted", kBoth, kMust, "adds a reference for an interface that it returns",
     "mod_interface.h: IZUModInterface::QueryInterface", &QueryCounts},
    {"prop.unknown", kBoth, kMust, "refuses an unknown property and has no value for it",
     "mod_interface.h: SetProperty and GetProperty", &UnknownProperty},
    {"prop.released", kBoth, kMust, "releases the property values that it is given",
     "mod_interface.h: IZUModInterface::SetProperty", &PropertyValueCount},
    {"prop.null", kBoth, kShould, "survives a null property value",
     "mod_interface.h: IZUModInterface::SetProperty", &NullProperty},
    // The encoder of a codec.
    {"enc.encodes", kCodec, kMust, "encodes pictures of at least one of the six formats",
     "codec.h: IVEncoder::Encode", &EncodesOneFormat},
    {"enc.all-formats", kCodec, kNote, "encodes pictures of all six formats",
     "codec.h: VideoInputFormat::format", &EncodesAllFormats},
    {"enc.decodes-alone", kCodec, kMust,
     "begins with a picture that can be decoded and shows the input in its colours",
     "codec.h: VideoInputFormat::format; a peer decodes from the first picture on", &DecodesAlone},
    {"enc.follows-size", kCodec, kMust, "begins anew when the size of the pictures changes",
     "codec.h: IVEncoder::SetInputFormat", &FollowsTheSize},
    {"enc.two", kCodec, kMust, "encodes with two encoders in turn",
     "codec.h: one thread at a time uses an encoder", &TwoEncoders},
    {"enc.any-thread", kCodec, kMust, "encodes on another thread than the one that created the encoder",
     "codec.h: one thread at a time uses an encoder", &EncodesOnAnyThread},
    {"enc.short-output", kCodec, kMust,
     "writes nothing and returns false if the output cannot be as large as it asks",
     "enc_args.h: IVEncArgs::PrepareOutput", &ShortOutput},
    {"enc.reads-inside", kCodec, kMust, "reads only the bytes that the input has",
     "enc_args.h: IVEncArgs::GetInputSize", &ReadsInsideTheInput},
    {"enc.any-size", kCodec, kMust, "survives every size, stride and format",
     "codec.h: VideoInputFormat, whose numbers come from a driver", &AnySize},
    {"enc.input-not-kept", kCodec, kMust, "does not use the input after the call",
     "enc_args.h: the input bytes are valid only during the call", &InputNotKept},
    {"enc.args-released", kCodec, kMust, "releases the arguments, at the latest with the encoder",
     "enc_args.h: IVEncArgs", &ArgumentsReleased},
    {"enc.no-format", kCodec, kShould, "encodes nothing before it knows a format",
     "codec.h: IVEncoder::SetInputFormat", &WithoutFormat},
    {"enc.one-per-picture", kCodec, kNote, "has bytes for each picture at once",
     "codec.h: IVEncoder::Encode; a delay adds to that of the line", &OnePerPicture},
};

}  // namespace

std::span<const Check> Checks() {
    return kChecks;
}

const Check* FindCheck(const std::string& name) {
    const auto* const found = std::ranges::find(kChecks, name, &Check::name);
    return found != std::end(kChecks) ? found : nullptr;
}

const char* SeverityName(Severity severity) {
    return severity == kMust ? "must" : severity == kShould ? "should" : "note";
}

const char* KindName(ModuleKind kind) {
    return kind == ModuleKind::kCamera ? "camera" : kind == ModuleKind::kCodec ? "codec" : "unknown";
}

const char* TargetName(Target target) {
    return target == kBoth ? "both" : target == kCamera ? "camera" : "codec";
}

}  // namespace zumod::validate
