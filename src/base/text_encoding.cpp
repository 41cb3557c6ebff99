#include "src/base/text_encoding.h"

#include <cstdint>
#include <cstdlib>

namespace zumod {
namespace {

constexpr std::size_t kLongest = 6;

// Indexed by the length of a sequence: the bits that mark its lead byte, and those that carry the code point.
struct Lead {
    std::uint32_t mark;
    std::uint32_t bits;
};
constexpr Lead kLeads[kLongest + 1] = {{0, 0},       {0x00, 0x7F}, {0xC0, 0x1F}, {0xE0, 0x0F},
                                       {0xF0, 0x07}, {0xF8, 0x03}, {0xFC, 0x01}};

std::size_t EncodedLength(std::uint32_t code_point) {
    if (code_point < 0x80) {
        return 1;
    }
    if (code_point < 0x800) {
        return 2;
    }
    if (code_point < 0x10000) {
        return 3;
    }
    if (code_point < 0x200000) {
        return 4;
    }
    return code_point < 0x4000000 ? 5 : kLongest;
}

char* Encode(std::uint32_t code_point, char* out) {
    const std::size_t length = EncodedLength(code_point);
    for (std::size_t i = length - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (code_point & 0x3F));
        code_point >>= 6;
    }
    out[0] = static_cast<char>(kLeads[length].mark | (code_point & kLeads[length].bits));
    return out + length;
}

// A byte that is not a lead byte counts as the lead of the longest sequence.
std::size_t LengthFromLead(unsigned char lead) {
    for (std::size_t length = 1; length < kLongest; ++length) {
        if ((lead & ~kLeads[length].bits & 0xFF) == kLeads[length].mark) {
            return length;
        }
    }
    return kLongest;
}

std::uint32_t Decode(const unsigned char*& at) {
    const unsigned char lead = *at++;
    const std::size_t length = LengthFromLead(lead);
    std::uint32_t code_point = lead & kLeads[length].bits;
    for (std::size_t i = 1; i < length; ++i) {
        // If bytes are missing, the terminating zero is read in place of each.
        code_point = code_point << 6 | (*at & 0x3F);
        if (*at != 0) {
            ++at;
        }
    }
    return code_point;
}

const unsigned char* AsBytes(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

}  // namespace

std::string WideToUtf8(const std::wstring& text) {
    std::unique_ptr<char[]> bytes;
    std::size_t length = 0;
    if (EncodeUtf8(text.c_str(), bytes, length) == 0) {
        return {};
    }
    return {bytes.get(), length};
}

std::string WideToMultiByte(const std::wstring& text) {
    const auto bytes = std::make_unique<char[]>(text.size() + 1);
    // The check is wrong here: wcstombs starts from the initial conversion state.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (std::wcstombs(bytes.get(), text.c_str(), text.size()) == static_cast<std::size_t>(-1)) {
        return {};
    }
    return bytes.get();
}

std::wstring MultiByteToWide(const std::string& text) {
    if (IsUtf8(text.c_str())) {
        std::unique_ptr<wchar_t[]> wide;
        std::size_t length = 0;
        DecodeUtf8(text.c_str(), wide, length);
        return {wide.get(), length};
    }
    // Every character is at least one byte long.
    const auto wide = std::make_unique<wchar_t[]>(text.size() + 1);
    if (std::mbstowcs(wide.get(), text.c_str(), text.size()) == static_cast<std::size_t>(-1)) {
        return {};
    }
    return wide.get();
}

int EncodeUtf8(const wchar_t* wide, std::unique_ptr<char[]>& out, std::size_t& outLength) {
    if (wide == nullptr) {
        return 0;
    }
    std::size_t length = 0;
    for (const wchar_t* at = wide; *at != 0; ++at) {
        length += EncodedLength(static_cast<std::uint32_t>(*at));
    }
    out = std::make_unique<char[]>(length + 1);
    char* end = out.get();
    for (const wchar_t* at = wide; *at != 0; ++at) {
        end = Encode(static_cast<std::uint32_t>(*at), end);
    }
    outLength = length;
    return 1;
}

int DecodeUtf8(const char* bytes, std::unique_ptr<wchar_t[]>& out, std::size_t& outLength) {
    if (bytes == nullptr) {
        return 0;
    }
    std::size_t length = 0;
    for (const unsigned char* at = AsBytes(bytes); *at != 0; ++length) {
        Decode(at);
    }
    out = std::make_unique<wchar_t[]>(length + 1);
    const unsigned char* at = AsBytes(bytes);
    for (std::size_t i = 0; i < length; ++i) {
        out[i] = static_cast<wchar_t>(Decode(at));
    }
    outLength = length;
    return 1;
}

bool IsUtf8(const char* bytes) {
    if (bytes == nullptr) {
        return false;
    }
    for (const unsigned char* at = AsBytes(bytes); *at != 0;) {
        const unsigned char lead = *at++;
        if (lead >= 0x80 && (lead < 0xC0 || lead > 0xFD)) {
            return false;
        }
        for (std::size_t left = LengthFromLead(lead) - 1; left > 0; --left) {
            if ((*at & 0xC0) != 0x80) {
                return false;
            }
            ++at;
        }
    }
    return true;
}

bool IsGbk(const char* bytes) {
    if (bytes == nullptr) {
        return false;
    }
    for (const unsigned char* at = AsBytes(bytes); *at != 0; ++at) {
        if (*at < 0x80) {
            continue;
        }
        if (*at < 0x81 || *at > 0xFE) {
            return false;
        }
        ++at;
        if (*at < 0x40 || *at > 0xFE) {
            return false;
        }
    }
    return true;
}

}  // namespace zumod
