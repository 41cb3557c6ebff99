// Decodes any bytes as UTF-8 and GBK: decoding ends at the terminating zero, and the result survives a
// round trip.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "src/base/text_encoding.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/exact_text.h"

using zumod::DecodeUtf8;
using zumod::EncodeUtf8;
using zumod::IsGbk;
using zumod::IsUtf8;
using zumod::testing::ExactText;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ExactText text(std::string(data, data + size));
    IsGbk(text.Get());

    std::unique_ptr<wchar_t[]> wide;
    std::size_t count = 0;
    FUZZ_CHECK(DecodeUtf8(text.Get(), wide, count) == 1);
    FUZZ_CHECK(count <= text.Size());
    FUZZ_CHECK(wide[count] == 0);

    // A code point 0 ends a wide text.
    const std::wstring whole(wide.get());
    FUZZ_CHECK(whole.size() <= count);
    std::unique_ptr<char[]> bytes;
    std::size_t length = 0;
    FUZZ_CHECK(EncodeUtf8(whole.c_str(), bytes, length) == 1);
    FUZZ_CHECK(bytes[length] == 0);
    FUZZ_CHECK(IsUtf8(bytes.get()));
    // Overlong forms become shorter; a sequence cut off by the end of the text can become longer.
    if (IsUtf8(text.Get())) {
        FUZZ_CHECK(length <= text.Size());
    }

    FUZZ_CHECK(DecodeUtf8(bytes.get(), wide, count) == 1);
    FUZZ_CHECK(std::wstring(wide.get(), count) == whole);
    return 0;
}
