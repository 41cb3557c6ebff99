#include "peer/view_http.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <utility>

#include "common/parse_number.h"

namespace zumod::peer {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr size_t kTokenDigits = 32;

struct StatusName {
    HttpStatus status;
    const char* name;
};
constexpr StatusName kStatusNames[] = {
    {HttpStatus::kOk, "OK"},
    {HttpStatus::kNoContent, "No Content"},
    {HttpStatus::kBadRequest, "Bad Request"},
    {HttpStatus::kForbidden, "Forbidden"},
    {HttpStatus::kNotFound, "Not Found"},
    {HttpStatus::kWrongMethod, "Method Not Allowed"},
    {HttpStatus::kConflict, "Conflict"},
    {HttpStatus::kTooLarge, "Content Too Large"},
    {HttpStatus::kWrongType, "Unsupported Media Type"},
    {HttpStatus::kHeadTooLarge, "Request Header Fields Too Large"},
    {HttpStatus::kFailed, "Internal Server Error"},
    {HttpStatus::kUnavailable, "Service Unavailable"},
    {HttpStatus::kWrongVersion, "HTTP Version Not Supported"},
};

constexpr char kEveryAnswer[] =
    "Connection: close\r\n"
    "Cache-Control: no-store\r\n"
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; "
    "media-src 'self' blob:; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors "
    "'none'\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "X-Content-Type-Options: nosniff\r\n";

bool IsNameLetter(char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || letter == '-' || letter == '_';
}

bool IsVisible(char letter) {
    return letter > ' ' && letter <= '~';
}

// Removes and returns the text before `separator`, which is removed, too; everything if it is not there.
std::string_view TakeUntil(std::string_view& text, std::string_view separator) {
    const size_t at = text.find(separator);
    const std::string_view taken = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + separator.size());
    return taken;
}

std::string_view Trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

HttpStatus ParseRequestLine(std::string_view line, HttpRequest& request) {
    const std::string_view method = TakeUntil(line, " ");
    const std::string_view target = TakeUntil(line, " ");
    if (line.substr(0, 5) != "HTTP/" || target.empty() || !std::ranges::all_of(target, IsVisible)) {
        return HttpStatus::kBadRequest;
    }
    if (line != "HTTP/1.1") {
        return HttpStatus::kWrongVersion;
    }
    if (method != "GET" && method != "POST") {
        return HttpStatus::kWrongMethod;
    }
    request.is_post = method == "POST";
    request.target = target;
    return HttpStatus::kOk;
}

bool ParseHeader(std::string_view line, HttpRequest& request) {
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0 ||
        !std::ranges::all_of(line.substr(0, colon), IsNameLetter)) {
        return false;
    }
    std::string name(line.substr(0, colon));
    for (char& letter : name) {
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    const std::string_view value = Trimmed(line.substr(colon + 1));
    const bool is_text = std::ranges::none_of(value, [](char letter) {
        // A char is unsigned on some processors.
        const auto code = static_cast<unsigned char>(letter);
        return (code < ' ' && code != '\t') || code == 127;
    });
    // Two of one name: which one counts is what attacks on servers play with.
    return is_text && request.headers.emplace(std::move(name), value).second;
}

// Without a look at where the first difference is.
bool IsSame(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (size_t i = 0; i < other.size(); ++i) {
        const char letter = i < one.size() ? one[i] : '\0';
        difference |=
            static_cast<unsigned>(static_cast<unsigned char>(letter) ^ static_cast<unsigned char>(other[i]));
    }
    return difference == 0;
}

bool IsOurs(std::string_view host, uint16_t port) {
    const std::string number = std::to_string(port);
    return host == "127.0.0.1:" + number || host == "localhost:" + number;
}

HttpStatus CheckSender(const HttpRequest& request, uint16_t port) {
    constexpr std::string_view kScheme = "http://";
    const std::string& host = request.Header("host");
    const std::string& origin = request.Header("origin");
    const bool is_own = origin.starts_with(kScheme) && origin.substr(kScheme.size()) == host;
    const bool needs_origin = request.is_post || !origin.empty();
    return IsOurs(host, port) && (is_own || !needs_origin) ? HttpStatus::kOk : HttpStatus::kForbidden;
}

}  // namespace

const std::string& HttpRequest::Header(const std::string& name) const {
    static const std::string none;
    const auto found = headers.find(name);
    return found != headers.end() ? found->second : none;
}

HttpHead ParseHttpHead(std::string_view head) {
    HttpHead parsed;
    HttpRequest& request = parsed.request;
    parsed.status = ParseRequestLine(TakeUntil(head, kLineEnd), request);
    if (parsed.status != HttpStatus::kOk) {
        return parsed;
    }
    for (size_t count = 0;; ++count) {
        const std::string_view line = TakeUntil(head, kLineEnd);
        if (line.empty()) {
            break;
        }
        if (count == kHttpMostHeaders) {
            parsed.status = HttpStatus::kHeadTooLarge;
            return parsed;
        }
        if (!ParseHeader(line, request)) {
            parsed.status = HttpStatus::kBadRequest;
            return parsed;
        }
    }
    const auto size = ParseNumber<uint32_t>(request.is_post ? request.Header("content-length") : "0");
    if (!size || request.headers.contains("transfer-encoding") || !head.empty()) {
        parsed.status = HttpStatus::kBadRequest;
    } else if (*size > kHttpBodyLimit) {
        parsed.status = HttpStatus::kTooLarge;
    } else {
        request.body_size = *size;
    }
    return parsed;
}

HttpTarget CheckHttpRequest(const HttpRequest& request, const HttpAccess& access) {
    HttpTarget target;
    target.status = CheckSender(request, access.port);
    if (target.status != HttpStatus::kOk) {
        return target;
    }
    std::string_view rest = request.target;
    const std::string root = std::string("/").append(access.token).append("/");
    const bool is_known = IsSame(rest.substr(0, root.size()), root);
    rest.remove_prefix(std::min(root.size(), rest.size()));
    std::string_view path = TakeUntil(rest, "?");
    if (!is_known) {
        target.status = HttpStatus::kNotFound;
        return target;
    }
    if (request.is_post && request.Header("content-type") != "application/json") {
        target.status = HttpStatus::kWrongType;
        return target;
    }
    target.path = path;
    while (!rest.empty()) {
        std::string_view value = TakeUntil(rest, "&");
        const std::string name(TakeUntil(value, "="));
        target.query.emplace_back(name, value);
    }
    return target;
}

std::string NewHttpToken() {
    std::random_device random;
    std::string token;
    while (token.size() < kTokenDigits) {
        std::array<char, 9> digits{};
        std::snprintf(digits.data(), digits.size(), "%08x", static_cast<unsigned>(random()));
        token += digits.data();
    }
    return token;
}

std::string PageAddress(uint16_t port, const std::string& token) {
    return "http://127.0.0.1:" + std::to_string(port) + "/" + token + "/";
}

std::string HttpHeadText(const HttpAnswerHead& head) {
    const StatusName* const name = std::ranges::find(kStatusNames, head.status, &StatusName::status);
    std::string text =
        "HTTP/1.1 " + std::to_string(static_cast<int>(head.status)) + " " + name->name + "\r\n";
    if (!head.type.empty()) {
        text += "Content-Type: " + head.type + "\r\n";
    }
    if (!head.file.empty()) {
        text += "Content-Disposition: attachment; filename=\"" + head.file + "\"\r\n";
    }
    if (!head.size) {
        text += "Transfer-Encoding: chunked\r\n";
    } else if (head.status != HttpStatus::kNoContent) {
        text += "Content-Length: " + std::to_string(*head.size) + "\r\n";
    }
    return text + kEveryAnswer + "\r\n";
}

}  // namespace zumod::peer
