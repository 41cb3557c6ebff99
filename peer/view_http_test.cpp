#include "peer/view_http.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zumod::peer {
namespace {

const HttpAccess kAccess{4711, "00112233445566778899aabbccddeeff"};
const std::string kRoot = "/00112233445566778899aabbccddeeff/";

HttpHead Parse(const std::string& line, const std::string& headers = "") {
    return ParseHttpHead(line + "\r\n" + headers + "\r\n");
}

HttpTarget Check(const std::string& target, const std::string& headers = "Host: 127.0.0.1:4711\r\n") {
    const HttpHead head = Parse("GET " + target + " HTTP/1.1", headers);
    EXPECT_EQ(head.status, HttpStatus::kOk);
    return CheckHttpRequest(head.request, kAccess);
}

HttpTarget CheckPost(const std::string& headers) {
    const HttpHead head = Parse("POST " + kRoot + "record HTTP/1.1", "Content-Length: 2\r\n" + headers);
    EXPECT_EQ(head.status, HttpStatus::kOk);
    return CheckHttpRequest(head.request, kAccess);
}

TEST(ViewHttp, ARequestIsRead) {
    const HttpHead head =
        Parse("POST /a/b?c HTTP/1.1", "Host: here\r\nCONTENT-Length:  12 \r\nx-y: a, b: c\r\n");
    EXPECT_EQ(head.status, HttpStatus::kOk);
    EXPECT_TRUE(head.request.is_post);
    EXPECT_EQ(head.request.target, "/a/b?c");
    EXPECT_EQ(head.request.Header("host"), "here");
    EXPECT_EQ(head.request.Header("x-y"), "a, b: c");
    EXPECT_EQ(head.request.Header("none"), "");
    EXPECT_EQ(head.request.body_size, 12U);
}

TEST(ViewHttp, AMalformedRequestIsRefused) {
    EXPECT_EQ(Parse("GET / HTTP/1.0").status, HttpStatus::kWrongVersion);
    EXPECT_EQ(Parse("GET / HTTP/2").status, HttpStatus::kWrongVersion);
    EXPECT_EQ(Parse("PUT / HTTP/1.1").status, HttpStatus::kWrongMethod);
    EXPECT_EQ(Parse("HEAD / HTTP/1.1").status, HttpStatus::kWrongMethod);
    for (const char* const line : {"", "GET", "GET /", "GET  HTTP/1.1", "GET / HTTP/1.1 x",
                                   "GET /\x01 HTTP/1.1", "GET /\xc3\xa4 HTTP/1.1", "GET / /x HTTP/1.1"}) {
        EXPECT_NE(Parse(line).status, HttpStatus::kOk) << line;
    }
    for (const char* const header :
         {"Host\r\n", ": x\r\n", "Ho st: x\r\n", " folded\r\n", "Host: a\r\nHost: a\r\n", "Host: a\x01\r\n",
          "Transfer-Encoding: chunked\r\n"}) {
        EXPECT_EQ(Parse("GET / HTTP/1.1", header).status, HttpStatus::kBadRequest) << header;
    }
}

TEST(ViewHttp, SizesAreLimited) {
    const auto post = [](const std::string& size) {
        return Parse("POST / HTTP/1.1", "Content-Length: " + size + "\r\n").status;
    };
    EXPECT_EQ(post("4096"), HttpStatus::kOk);
    EXPECT_EQ(post("4097"), HttpStatus::kTooLarge);
    EXPECT_EQ(post("-1"), HttpStatus::kBadRequest);
    EXPECT_EQ(post("99999999999"), HttpStatus::kBadRequest);
    EXPECT_EQ(post("1 2"), HttpStatus::kBadRequest);
    EXPECT_EQ(Parse("POST / HTTP/1.1").status, HttpStatus::kBadRequest);
    std::string headers;
    for (int i = 0; i < 64; ++i) {
        headers += "h" + std::to_string(i) + ": x\r\n";
    }
    EXPECT_EQ(Parse("GET / HTTP/1.1", headers).status, HttpStatus::kOk);
    EXPECT_EQ(Parse("GET / HTTP/1.1", headers + "more: x\r\n").status, HttpStatus::kHeadTooLarge);
}

TEST(ViewHttp, ThePathBeginsWithTheToken) {
    EXPECT_EQ(Check(kRoot).status, HttpStatus::kOk);
    EXPECT_EQ(Check(kRoot).path, "");
    EXPECT_EQ(Check(kRoot + "app.js").path, "app.js");
    for (const char* const target :
         {"/", "*", "/00112233445566778899aabbccddeefe/", "/10112233445566778899aabbccddeeff/",
          "/00112233445566778899aabbccddeef/", "/00112233445566778899aabbccddeeff", "/app.js",
          "//00112233445566778899aabbccddeeff/", "/00112233445566778899aabbccddeeff0/",
          "http://127.0.0.1:4711/00112233445566778899aabbccddeeff/"}) {
        EXPECT_EQ(Check(target).status, HttpStatus::kNotFound) << target;
    }
}

TEST(ViewHttp, TheQueryIsSplit) {
    const HttpTarget target = Check(kRoot + "video?camera=1&camera=2&width=&x");
    EXPECT_EQ(target.path, "video");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"camera", "1"}, {"camera", "2"}, {"width", ""}, {"x", ""}};
    EXPECT_EQ(target.query, expected);
}

TEST(ViewHttp, OnlyOurNamesAreAccepted) {
    EXPECT_EQ(Check(kRoot, "Host: localhost:4711\r\n").status, HttpStatus::kOk);
    for (const char* const headers :
         {"", "Host: 127.0.0.1\r\n", "Host: 127.0.0.1:4712\r\n", "Host: evil.example:4711\r\n",
          "Host: 127.0.0.1:4711.evil.example\r\n", "Host: [::1]:4711\r\n"}) {
        EXPECT_EQ(Check(kRoot, headers).status, HttpStatus::kForbidden) << headers;
    }
}

TEST(ViewHttp, OnlyOurPageIsAccepted) {
    const std::string host = "Host: 127.0.0.1:4711\r\n";
    EXPECT_EQ(Check(kRoot, host + "Origin: http://127.0.0.1:4711\r\n").status, HttpStatus::kOk);
    for (const char* const origin : {"null", "https://127.0.0.1:4711", "http://127.0.0.1:80",
                                     "http://evil.example", "http://127.0.0.1:4711/"}) {
        EXPECT_EQ(Check(kRoot, host + "Origin: " + origin + "\r\n").status, HttpStatus::kForbidden) << origin;
    }
}

TEST(ViewHttp, APostNeedsAnOriginAndJson) {
    const std::string host = "Host: localhost:4711\r\n";
    const std::string origin = "Origin: http://localhost:4711\r\n";
    EXPECT_EQ(CheckPost(host + origin + "Content-Type: application/json\r\n").status, HttpStatus::kOk);
    EXPECT_EQ(CheckPost(host + "Content-Type: application/json\r\n").status, HttpStatus::kForbidden);
    EXPECT_EQ(CheckPost(host + origin).status, HttpStatus::kWrongType);
    EXPECT_EQ(CheckPost(host + origin + "Content-Type: text/plain\r\n").status, HttpStatus::kWrongType);
}

TEST(ViewHttp, TokensAreLongAndDiffer) {
    const std::string token = NewHttpToken();
    EXPECT_EQ(token.size(), 32U);
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(token, NewHttpToken());
}

TEST(ViewHttp, AnAnswerSaysWhatABrowserMayDo) {
    const std::string text = HttpHeadText({.status = HttpStatus::kOk, .type = "text/css", .size = 3});
    EXPECT_EQ(
        text,
        "HTTP/1.1 200 OK\r\nContent-Type: text/css\r\nContent-Length: 3\r\nConnection: close\r\n"
        "Cache-Control: no-store\r\nContent-Security-Policy: default-src 'none'; script-src 'self'; "
        "style-src 'self'; img-src 'self' blob:; media-src 'self' blob:; connect-src 'self'; base-uri "
        "'none'; form-action 'none'; frame-ancestors 'none'\r\nCross-Origin-Opener-Policy: same-origin\r\n"
        "Cross-Origin-Resource-Policy: same-origin\r\nReferrer-Policy: no-referrer\r\n"
        "X-Content-Type-Options: nosniff\r\n\r\n");
    const std::string chunked = HttpHeadText({.type = "x/y", .file = "a.mp4"});
    EXPECT_NE(chunked.find("Transfer-Encoding: chunked\r\n"), std::string::npos);
    EXPECT_NE(chunked.find("Content-Disposition: attachment; filename=\"a.mp4\"\r\n"), std::string::npos);
    EXPECT_EQ(HttpHeadText({.status = HttpStatus::kNoContent, .size = 0}).find("Content-Length"),
              std::string::npos);
}

}  // namespace
}  // namespace zumod::peer
