// Standard input, output and error of a program that was started with some of them closed.
#pragma once

namespace zumod {

// [main thread, before any other thread starts]. Opens /dev/null for each standard descriptor that is closed,
// so that no other file gets its number. Reading from such an input and writing to such an output still fail.
void FillStandardDescriptors();

}  // namespace zumod
