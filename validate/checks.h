// The functions of all checks. check_table.cpp says what each is for.
//
// Thread rule: see check.h.
#pragma once

#include "validate/check.h"

namespace zumod::validate {

// file_checks.cpp
void OneExport(const Context& context);
void NoUniqueSymbol(const Context& context);
void NoTextRelocations(const Context& context);
void NoExecutableStack(const Context& context);
void ReadOnlyRelocations(const Context& context);
void NoRunPath(const Context& context);
void ResolvesNow(const Context& context);
void NoSideEffects(const Context& context);
void ManyLoads(const Context& context);
void UnloadsHarmlessly(const Context& context);

// entry_checks.cpp
void HasDescriptor(const Context& context);
void SameDescriptor(const Context& context);
void DescriptorOnAnyThread(const Context& context);
void ModuleName(const Context& context);
void ModuleVersion(const Context& context);
void DescriptorFunctions(const Context& context);
void DescriptorDetach(const Context& context);
void BuildStamp(const Context& context);
void DescriptorConstant(const Context& context);
void AttachReturnsOne(const Context& context);
void AttachNull(const Context& context);
void AttachReplaces(const Context& context);
void AttachOften(const Context& context);
void DetachSilences(const Context& context);
void LogLevels(const Context& context);
void LogTexts(const Context& context);
void LogFromInside(const Context& context);
void LogThrows(const Context& context);
void PropertiesReleased(const Context& context);
void PropertiesOfAnyKind(const Context& context);

// create_checks.cpp
void CreateNullPolicy(const Context& context);
void CreateNullOut(const Context& context);
void CreateNoName(const Context& context);
void CreateUnknownName(const Context& context);
void CreateAnyCase(const Context& context);
void CreateWrongMajor(const Context& context);
void CreateAnyMinor(const Context& context);
void CreateWrongKinds(const Context& context);
void CreateSlotUnchanged(const Context& context);
void CreateOneReference(const Context& context);
void CreateReleasesValues(const Context& context);
void CreateReleasesPolicy(const Context& context);
void CreateManyObjects(const Context& context);
void CreateLeaksNothing(const Context& context);
void PoliciesOfAnyKind(const Context& context);

// object_checks.cpp
void CountsAreReturned(const Context& context);
void CountsOnManyThreads(const Context& context);
void SlotsAreCode(const Context& context);
void ReservedSlots(const Context& context);
void QueryUnknown(const Context& context);
void QueryCounts(const Context& context);
void UnknownProperty(const Context& context);
void PropertyValueCount(const Context& context);
void NullProperty(const Context& context);

// encoder_checks.cpp
void EncodesOneFormat(const Context& context);
void EncodesAllFormats(const Context& context);
void DecodesAlone(const Context& context);
void FollowsTheSize(const Context& context);
void TwoEncoders(const Context& context);
void EncodesOnAnyThread(const Context& context);
void ShortOutput(const Context& context);
void ReadsInsideTheInput(const Context& context);
void AnySize(const Context& context);
void InputNotKept(const Context& context);
void ArgumentsReleased(const Context& context);
void WithoutFormat(const Context& context);
void OnePerPicture(const Context& context);

}  // namespace zumod::validate
