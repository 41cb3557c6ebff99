// HTTP for one page on this machine: reads the head of a request, decides who may ask, and writes the head of
// an answer. Knows GET and POST of HTTP/1.1 and nothing else.
//
// Any program of this machine, of any user, can connect to the port, and any page in the browser can send
// requests to it. So a request must show three things before anything is done for it:
// - The path begins with the token, 128 random bits. It is compared in constant time.
// - Host is 127.0.0.1 or localhost with our port. Otherwise a page of another site, whose name its owner has
//   pointed at 127.0.0.1, could use the token that it has seen in a log, for example.
// - Origin, if there is one, is our own. A POST must have one, and the type application/json, which a page of
//   another site cannot send without a request for permission, which is never granted.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zumod::peer {

inline constexpr size_t kHttpHeadLimit = 8192;
inline constexpr size_t kHttpBodyLimit = 4096;
inline constexpr size_t kHttpMostHeaders = 64;

// The status codes in use.
enum class HttpStatus : uint16_t {
    kOk = 200,
    kNoContent = 204,
    kBadRequest = 400,
    kForbidden = 403,
    kNotFound = 404,
    kWrongMethod = 405,
    kConflict = 409,
    kTooLarge = 413,
    kWrongType = 415,
    kHeadTooLarge = 431,
    kFailed = 500,
    kUnavailable = 503,
    kWrongVersion = 505,
};

struct HttpRequest {
    bool is_post = false;
    std::string target;                          // as received
    std::map<std::string, std::string> headers;  // names in lower case
    size_t body_size = 0;
    std::string body;

    // "" if there is none. `name` is in lower case.
    const std::string& Header(const std::string& name) const;
};

// `head`: from the request line to the empty line, which is included. The error is the status of the answer.
struct HttpHead {
    HttpStatus status = HttpStatus::kOk;
    HttpRequest request;
};
HttpHead ParseHttpHead(std::string_view head);

// Who may ask for what.
struct HttpAccess {
    uint16_t port = 0;
    std::string token;
};

// What the target means below "/TOKEN/".
struct HttpTarget {
    HttpStatus status = HttpStatus::kOk;  // anything else: the answer, without a body
    std::string path;                     // "events", for example; "" is the page
    // In the order of the query. Neither names nor values are decoded: ours need no escapes.
    std::vector<std::pair<std::string, std::string>> query;
};
HttpTarget CheckHttpRequest(const HttpRequest& request, const HttpAccess& access);

// 32 random digits of base 16.
std::string NewHttpToken();

// "http://127.0.0.1:PORT/TOKEN/"
std::string PageAddress(uint16_t port, const std::string& token);

struct HttpAnswerHead {
    HttpStatus status = HttpStatus::kOk;
    std::string type = {};                      // of the content; "" if there is none
    std::optional<size_t> size = std::nullopt;  // of the body; none: in chunks
    std::string file = {};                      // saved under this name; must need no escapes
};
// With the headers that every answer has.
std::string HttpHeadText(const HttpAnswerHead& head);

}  // namespace zumod::peer
