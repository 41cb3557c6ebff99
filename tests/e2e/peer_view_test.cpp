// zu-camera-peer view: the page's server, with a camera of the reference host, and with a host that the test
// plays.
#include <csignal>
#include <filesystem>

#include "tests/e2e/both_ends.h"
#include "tests/e2e/page_client.h"
#include "tests/e2e/peer_process.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::testing {
namespace {

using nlohmann::json;

class PeerView : public BothEnds {
protected:
    PeerView() : BothEnds({"card=Front Camera,formats=NV12,sizes=320x240:640x480,fps=30"}) {}

    PeerRun StartView(std::vector<std::string> more = {}) const {
        more.insert(more.begin(), "view");
        return Peer(std::move(more));
    }
    static PageClient ClientOf(PeerRun& view) {
        EXPECT_NE(view.Prints("/\n"), std::string::npos);
        return PageClient(view.Printed());
    }
    static void ExpectKeyPicture(const std::optional<PageRecord>& picture) {
        ASSERT_TRUE(picture.has_value());
        EXPECT_TRUE(picture->is_key);
        EXPECT_EQ(picture->index, 0);
        // The sequence parameter set.
        EXPECT_EQ(picture->text.substr(0, 4), std::string("\0\0\0\1", 4));
        EXPECT_EQ(picture->text.at(4) & 0x1f, 7);
    }
};

TEST_F(PeerView, ServesOnlyItsOwnPage) {
    const auto host = Start();
    PeerRun view = StartView();
    const PageClient page = ClientOf(view);
    const auto status = [&](const std::string& line, const std::string& headers,
                            const std::string& body = "") {
        return StatusOf(page.Ask(line + " HTTP/1.1\r\n" + headers + "\r\n" + body));
    };
    const std::string get = "GET " + page.Root();
    const std::string index = page.Ask(get + " HTTP/1.1\r\n" + page.Host() + "\r\n");
    EXPECT_EQ(StatusOf(index), "HTTP/1.1 200 OK");
    EXPECT_NE(index.find("Content-Security-Policy: default-src 'none'; script-src 'self';"),
              std::string::npos);
    EXPECT_EQ(BodyOf(index).substr(0, 15), "<!doctype html>");
    EXPECT_EQ(status(get + "nothing", page.Host()), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(status(get + "../../etc/passwd", page.Host()), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(status(get + "recording/..%2fsocket", page.Host()), "HTTP/1.1 404 Not Found");

    std::string wrong = page.Root();
    wrong[5] = wrong[5] == '0' ? '1' : '0';
    const std::string refused = page.Ask("GET " + wrong + " HTTP/1.1\r\n" + page.Host() + "\r\n");
    EXPECT_EQ(StatusOf(refused), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(BodyOf(refused), "");
    EXPECT_EQ(status("GET /", page.Host()), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(status(get, "Host: evil.example:" + std::to_string(page.Port()) + "\r\n"),
              "HTTP/1.1 403 Forbidden");
    EXPECT_EQ(status(get, page.Host() + "Origin: http://evil.example\r\n"), "HTTP/1.1 403 Forbidden");

    const std::string json_type = "Content-Type: application/json\r\n";
    EXPECT_EQ(
        status("POST " + page.Root() + "record", page.Host() + json_type + "Content-Length: 2\r\n", "{}"),
        "HTTP/1.1 403 Forbidden");
    EXPECT_EQ(status("POST " + page.Root() + "record",
                     page.Host() + page.Origin() + json_type + "Content-Length: 4097\r\n"),
              "HTTP/1.1 413 Content Too Large");
    EXPECT_EQ(BodyOf(page.Post("record", {{"camera", 7}, {"on", true}})),
              R"({"error":"there is no such camera"})");
    EXPECT_EQ(StatusOf(page.Ask(get + std::string(9000, 'a'))),
              "HTTP/1.1 431 Request Header Fields Too Large");
    view.Stop();
}

TEST_F(PeerView, ShowsACameraToTwoViewersAndClosesItAfterThem) {
    const auto host = Start();
    PeerRun view = StartView({"--size", "320x240"});
    const PageClient page = ClientOf(view);
    const json idle = page.WaitForCamera("state", "idle");
    EXPECT_EQ(idle["host"]["state"], "connected");
    EXPECT_EQ(idle["cameras"][0]["name"], "Front Camera");
    EXPECT_EQ(idle["cameras"][0]["sizes"][0]["width"], 320);
    EXPECT_FALSE(cameras.At(0).Status().streaming) << "nobody views it";
    {
        PageConnection first = page.Get("video?camera=0");
        ExpectKeyPicture(NextPicture(first));
        PageConnection second = page.Get("video?camera=0");
        ExpectKeyPicture(NextPicture(second));
        EXPECT_TRUE(NextPicture(first).has_value());
        EXPECT_TRUE(NextPicture(second).has_value());
        const json live = page.WaitForCamera("viewers", 2);
        EXPECT_EQ(live["cameras"][0]["state"], "live");
        EXPECT_EQ(live["cameras"][0]["size"], (json{{"width", 320}, {"height", 240}, {"rate", 30}}));
    }
    ExpectCameraFree();
    EXPECT_EQ(page.WaitForCamera("state", "idle")["cameras"][0]["viewers"], 0);
    view.Stop();
}

TEST_F(PeerView, ChangesFormatAndControlsAndRecords) {
    const auto host = Start();
    std::filesystem::create_directory(work / "films");
    PeerRun view = StartView({"--size", "320x240", "--directory", work / "films"});
    const PageClient page = ClientOf(view);
    PageConnection video = page.Get("video?camera=0");
    ExpectKeyPicture(NextPicture(video));

    EXPECT_EQ(StatusOf(page.Post("format", {{"camera", 0}, {"width", 640}, {"height", 480}, {"rate", 15}})),
              "HTTP/1.1 204 No Content");
    page.WaitForCamera("size", json{{"width", 640}, {"height", 480}, {"rate", 15}});
    EXPECT_EQ(StatusOf(page.Post("format", {{"camera", 0}, {"width", 641}, {"height", 480}, {"rate", 15}})),
              "HTTP/1.1 400 Bad Request");

    page.WaitFor([](const json& state) { return state["cameras"][0]["controls"].is_array(); });
    EXPECT_EQ(StatusOf(page.Post("control", {{"camera", 0}, {"name", "brightness"}, {"value", 200}})),
              "HTTP/1.1 204 No Content");
    const json changed = page.WaitFor([](const json& state) {
        const json& controls = state["cameras"][0]["controls"];
        return std::any_of(controls.begin(), controls.end(), [](const json& control) {
            return control["name"] == "brightness" && control["value"] == 200;
        });
    });
    EXPECT_EQ(StatusOf(page.Post("control", {{"camera", 0}, {"name", "brightness"}, {"value", 70000}})),
              "HTTP/1.1 400 Bad Request");

    const json started = json::parse(BodyOf(page.Post("record", {{"camera", 0}, {"on", true}})));
    const std::string file = started["file"];
    EXPECT_EQ(file.substr(0, 13), "front-camera-");
    EXPECT_EQ(StatusOf(page.Post("format", {{"camera", 0}, {"width", 320}, {"height", 240}, {"rate", 15}})),
              "HTTP/1.1 409 Conflict");
    page.WaitFor([](const json& state) {
        const json& recording = state["cameras"][0]["recording"];
        return recording.is_object() && recording["bytes"] > 0;
    });
    EXPECT_EQ(BodyOf(page.Post("record", {{"camera", 0}, {"on", false}})), "{\"file\":\"" + file + "\"}");
    const std::string download = page.Get("recording/" + file).Answer();
    EXPECT_NE(download.find("Content-Disposition: attachment; filename=\"" + file + "\"\r\n"),
              std::string::npos);
    EXPECT_EQ(BodyOf(download), FileContent(work / ("films/" + file)));
    EXPECT_EQ(BodyOf(download).substr(4, 4), "ftyp");
    view.Stop();
}

TEST_F(PeerView, GoesOnWhenTheHostIsBack) {
    auto host = Start();
    PeerRun view = StartView();
    const PageClient page = ClientOf(view);
    PageConnection video = page.Get("video?camera=0");
    ExpectKeyPicture(NextPicture(video));
    host->Signal(SIGKILL);
    EXPECT_EQ(host->Wait(), 128 + SIGKILL);
    const json away =
        page.WaitFor([](const json& state) { return state["host"]["state"] == "reconnecting"; });
    EXPECT_EQ(away["cameras"][0]["state"], "gone");
    const uint64_t frames = away["cameras"][0]["stats"]["frames"];
    host = Start();
    page.WaitFor([&](const json& state) {
        return state["host"]["state"] == "connected" && state["cameras"][0]["state"] == "live" &&
               state["cameras"][0]["stats"]["frames"] > frames;
    });
    EXPECT_TRUE(NextPicture(video).has_value());
    view.Process().Signal(SIGINT);
    EXPECT_EQ(view.Process().Wait(), 0) << view.Process().Errors();
}

class PeerViewOfAScriptedHost : public PeerProcess {};

TEST_F(PeerViewOfAScriptedHost, LosesPicturesOfAViewerThatDoesNotRead) {
    // 12 MB in all, by filler data behind each picture: what queue and sockets hold is less than half of it.
    // Encoded before, because a camera that sends nothing for a second counts as stalled.
    constexpr uint32_t kPictures = 60;
    Bytes filler = {0, 0, 0, 1, 12};
    filler.resize(200'000, 0xff);
    filler.push_back(0x80);
    EncodedStream stream(640, 480);
    Bytes frames;
    for (uint32_t i = 0; i < kPictures; ++i) {
        frames = std::move(frames) + FrameBytes(0, stream.Next(i, i) + filler);
    }
    Start({"--timeout", "60", "view"});
    AnswerList(kOneCamera);
    ASSERT_TRUE(Prints("/\n"));
    const PageClient page(Printed());
    const PageConnection lazy = page.Get("video?camera=0");
    host.ExpectAfterLists(OpenBytes(0));
    EXPECT_TRUE(host.Send(StateBytes(2, 0)));
    EXPECT_TRUE(host.Send(frames)) << "a viewer must not hold the host back";
    const json state =
        page.WaitFor([](const json& now) { return now["cameras"][0]["stats"]["lost"] > kPictures / 4; });
    EXPECT_EQ(state["cameras"][0]["viewers"], 1) << "it is still a viewer";
    peer->Signal(SIGINT);
    EXPECT_EQ(peer->Wait(), 0) << peer->Errors();
}

TEST_F(PeerViewOfAScriptedHost, EndsIfThereIsNoHost) {
    host.Close();
    StartWith({"--socket", work / "none", "view"});
    ExpectEnd(1, "zu-camera-peer: no connection to " + (work / "none") + ": No such file or directory\n");
}

}  // namespace
}  // namespace zumod::testing
