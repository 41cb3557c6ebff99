// Keeps libavcodec loaded when the module that brought it goes.
//
// Thread rule: [any thread].
#pragma once

namespace zumod {

// Among the many libraries that libavcodec needs are some that leak memory with each load; left loaded they
// cost it once. False when the library is not found, which changes nothing else.
bool KeepLibavcodecLoaded();

}  // namespace zumod
