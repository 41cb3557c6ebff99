// The kernel requests of a start, a frame and a stop, in the order in which strace saw them.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "tests/vm/device_requests.h"
#include "tests/vm/driver_session.h"
#include "tests/vm/vivid_cameras.h"

namespace zumod::testing {
namespace {

// The session that the other test traces: opens a camera, receives three pictures and closes it.
using OneSession = DriverSession;

TEST_F(OneSession, OpensACameraTakesThreePicturesAndClosesIt) {
    // One format instead of 83, each of which would be tried at 16 sizes: tracing is slow.
    const FormatFilter filter = FormatFilter::Only(V4L2_PIX_FMT_YUV420);
    ASSERT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
}

struct TracedCall {
    std::string thread;
    std::string text;
};

// The calls in the order in which they returned. Joins the two parts of a call that another thread
// interrupted.
std::vector<TracedCall> ReadTrace(const std::string& file) {
    std::vector<TracedCall> calls;
    std::map<std::string, std::string> begun;
    std::ifstream stream(file);
    const std::regex line_shape("([0-9]+) +(.*)");
    const std::regex resumed("<\\.\\.\\. [a-z0-9_]+ resumed>(.*)");
    const std::string unfinished = " <unfinished ...>";
    for (std::string line; std::getline(stream, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, line_shape)) {
            continue;
        }
        const std::string thread = parts[1];
        std::string text = parts[2];
        std::smatch rest;
        if (text.size() > unfinished.size() &&
            text.compare(text.size() - unfinished.size(), unfinished.size(), unfinished) == 0) {
            begun[thread] = text.substr(0, text.size() - unfinished.size());
            continue;
        }
        if (std::regex_match(text, rest, resumed)) {
            text = begun[thread] + rest[1].str();
        }
        calls.push_back({thread, text});
    }
    return calls;
}

// The descriptors of /dev/video0 that are not the module's. The codec library looks once at every video
// device for a hardware encoder, on the thread that encodes.
class OthersDescriptors {
public:
    // Whether the call uses one of them.
    bool Holds(const TracedCall& call) {
        std::smatch found;
        if (call.text.rfind("openat(", 0) == 0 && call.text.find("\"/dev/video0\"") != std::string::npos) {
            m_opener = m_opener.empty() ? call.thread : m_opener;
            const bool others = call.thread != m_opener;
            if (others && std::regex_search(call.text, found, std::regex("= ([0-9]+)</dev/video0>$"))) {
                m_descriptors.insert(found[1]);
            }
            return others;
        }
        if (!std::regex_search(call.text, found, std::regex("^[a-z]+\\(([0-9]+)</dev/video0>")) ||
            m_descriptors.count(found[1]) == 0) {
            return false;
        }
        if (call.text.rfind("close(", 0) == 0) {
            m_descriptors.erase(found[1]);
        }
        return true;
    }

private:
    std::string m_opener;
    std::set<std::string> m_descriptors;
};

// The module's calls for /dev/video0, one word per call. Repetitions of a word are merged.
std::vector<std::string> WordsOf(const std::vector<TracedCall>& calls) {
    std::vector<std::string> words;
    std::set<std::string> buffers;
    std::string starter;
    const std::regex request("ioctl\\([0-9]+</dev/video0>, (VIDIOC_[A-Z_]+)");
    const std::regex address("= (0x[0-9a-f]+)$");
    const std::regex first_argument("munmap\\((0x[0-9a-f]+)");
    OthersDescriptors others;
    const auto add = [&](const std::string& word) {
        if (words.empty() || words.back() != word) {
            words.push_back(word);
        }
    };
    for (const TracedCall& call : calls) {
        const auto& [thread, text] = call;
        std::smatch found;
        if (others.Holds(call)) {
            continue;
        }
        if (std::regex_search(text, found, request)) {
            add(found[1].str().substr(7));
            if (found[1] == "VIDIOC_STREAMON") {
                starter = thread;
            }
        } else if (text.rfind("openat(", 0) == 0 && text.find("\"/dev/video0\"") != std::string::npos) {
            add(text.find("O_RDWR|O_NONBLOCK") != std::string::npos ? "open read-write non-blocking"
                : text.find("O_RDONLY)") != std::string::npos       ? "open read-only"
                                                                    : text);
        } else if (text.rfind("close(", 0) == 0 && text.find("</dev/video0>") != std::string::npos) {
            add("close");
        } else if (text.rfind("mmap(", 0) == 0 && text.find("</dev/video0>") != std::string::npos &&
                   std::regex_search(text, found, address)) {
            EXPECT_NE(text.find("PROT_READ|PROT_WRITE, MAP_SHARED"), std::string::npos) << text;
            buffers.insert(found[1]);
            words.emplace_back("mmap");
        } else if (std::regex_search(text, found, first_argument) && buffers.erase(found[1]) != 0) {
            words.emplace_back("munmap");
        } else if (text.rfind("clone", 0) == 0 && thread == starter) {
            add("thread");
            starter.clear();
        } else if (text.rfind("pselect6(", 0) == 0 && text.find("</dev/video0>") != std::string::npos) {
            EXPECT_NE(text.find("{tv_sec=1, tv_nsec=0}"), std::string::npos) << text;
            add("select");
        }
    }
    EXPECT_TRUE(buffers.empty()) << buffers.size() << " buffers stayed mapped";
    return words;
}

// The only call that contains this text.
std::string CallWith(const std::vector<TracedCall>& calls, const std::string& text) {
    std::string found;
    for (const TracedCall& call : calls) {
        if (call.text.find("</dev/video0>") != std::string::npos &&
            call.text.find(text) != std::string::npos) {
            EXPECT_EQ(found, "") << "a second " << text;
            found = call.text;
        }
    }
    return found;
}

TEST(CallOrder, StartFrameAndStopMakeTheDocumentedCalls) {
    // A different format from the one requested below.
    OutputOf("v4l2-ctl -d /dev/video0 --set-fmt-video=width=1280,height=720,pixelformat=NV12");
    const std::string trace = "/dev/shm/trace";
    OutputOf(std::string(kCamerasAreSetUp) + "=1 strace -f -y -o " + trace +
             " -e trace=openat,close,ioctl,mmap,munmap,pselect6,clone,clone3 " +
             OutputOf("readlink /proc/$PPID/exe | tr -d '\\n'") +
             " --gtest_filter=OneSession.OpensACameraTakesThreePicturesAndClosesIt");
    const auto calls = ReadTrace(trace);
    auto words = WordsOf(calls);

    // Each picture is waited for, dequeued and queued again. Their number varies.
    const std::vector<std::string> picture = {"select", "DQBUF", "QBUF"};
    int pictures = 0;
    for (auto at = std::search(words.begin(), words.end(), picture.begin(), picture.end()); at != words.end();
         at = std::search(words.begin(), words.end(), picture.begin(), picture.end())) {
        words.erase(at, at + 3);
        ++pictures;
    }
    EXPECT_GE(pictures, 3);
    // The stop interrupts a wait, or comes after a picture was dequeued.
    for (const char* last : {"DQBUF", "select"}) {
        const auto stop = std::find(words.begin(), words.end(), "munmap");
        if (stop != words.begin() && stop != words.end() && *(stop - 1) == last) {
            words.erase(stop - 1);
        }
    }
    EXPECT_EQ(words,
              (std::vector<std::string>{// Which cameras are there?
                                        "open read-only", "ENUM_FMT", "TRY_FMT", "QUERYCAP", "close",
                                        // The start.
                                        "open read-write non-blocking", "ENUM_FMT", "TRY_FMT", "G_FMT",
                                        "S_FMT", "G_PARM", "S_PARM", "REQBUFS",                  //
                                        "QUERYBUF", "mmap", "QBUF", "QUERYBUF", "mmap", "QBUF",  //
                                        "QUERYBUF", "mmap", "QBUF", "QUERYBUF", "mmap", "QBUF",  //
                                        "STREAMON", "thread",                                    //
                                                                                                 // The stop.
                                        "munmap", "munmap", "munmap", "munmap", "STREAMOFF", "close"}));

    const std::string format = CallWith(calls, "VIDIOC_S_FMT");
    EXPECT_NE(format.find("width=640, height=480, pixelformat=v4l2_fourcc('Y', 'U', '1', '2')"),
              std::string::npos)
        << format;
    const std::string rate = CallWith(calls, "VIDIOC_S_PARM");
    EXPECT_NE(rate.find("timeperframe=1/15"), std::string::npos) << rate;
    const std::string buffers = CallWith(calls, "VIDIOC_REQBUFS");
    EXPECT_NE(buffers.find("memory=V4L2_MEMORY_MMAP, count=4"), std::string::npos) << buffers;
}

}  // namespace
}  // namespace zumod::testing
