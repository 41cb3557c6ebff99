// One session with the built module, from load to unload, while calls in it may fail. The module reads the
// peer's requests one by one, each after the one before it was handled; all its replies are kept.
//
// Thread rule: one session at a time, from one thread; Run has a separate thread.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/doubles/raw_host.h"
#include "tests/support/watch/module_calls.h"
#include "tests/support/watch/wait_until.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

class FaultSession {
public:
    // How many frames to wait for while the camera is open, before and after the change of format.
    explicit FaultSession(int wanted_frames = 3) : m_wanted_frames(wanted_frames) {}

    // Loads the module, serves the peer and unloads. Returns false if the module was not loaded or the plugin
    // not created. In both cases everything is released.
    bool Go() {
        m_runtime.on_line = [this](uint32_t, const char* text) {
            const InHost outside;
            if (std::strncmp(text, "[LinuxV4L2CameraCapture]", 24) == 0) {
                has_capture = true;
            }
        };
        m_runtime.properties["zu.env.modules.dir"] = {
            {raw::kValueTable, 1}, 4, ZU_TEST_MODULES_DIR "/plain", 0};
        void* library = nullptr;
        {
            const InModule inside;
            library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
        }
        if (library == nullptr) {
            return false;
        }
        const raw::Descriptor* module = raw::EntryOf(library);
        raw::Policy policy = raw::PluginPolicy();
        void* plugin = nullptr;
        {
            const InModule inside;
            module->attach_runtime(&m_runtime);
            created = module->create(&policy, &plugin);
        }
        if (policy.count != 1 || policy.name.count != 0 || policy.version.count != 0) {
            Complain("the policy's references are not balanced");
        }
        if (created == 1) {
            Serve(plugin);
        } else if (plugin != nullptr) {
            Complain("a refused create has written to the slot");
        }
        {
            const InModule inside;
            module->detach_runtime();
            dlclose(library);
        }
        if (dlopen(ZU_MODULE_FILE, RTLD_NOW | RTLD_NOLOAD) != nullptr) {
            Complain("the module is still mapped");
        }
        return created == 1;
    }

    // The messages from the module, without frames.
    std::vector<Bytes> replies;
    int frames = 0;
    // What is wrong; empty if nothing is.
    std::string complaint;
    int created = 0;
    int run_result = 0;
    int requests_read = 0;
    // Whether a capture has logged a line. Written by any thread while the session runs.
    std::atomic<bool> has_capture{false};

    static constexpr int kRequests = 5;

private:
    struct Stream : raw::Counted {
        FaultSession* session;
    };

    void Complain(const std::string& text) {
        if (complaint.empty()) {
            complaint = text;
        }
    }

    void Serve(void* plugin) {
        {
            const InModule inside;
            raw::Call<int>(plugin, 5, &m_stream);
        }
        std::thread run([this, plugin] {
            const InModule inside;
            run_result = raw::Call<int>(plugin, 6);
        });
        run.join();
        {
            const InModule inside;
            if (raw::Call<int>(plugin, 7) != 0) {
                Complain("ExitInstance does not return 0");
            }
            if (raw::Call<int64_t>(plugin, 3) != 0) {
                Complain("a reference on the plugin is left");
            }
        }
        if (m_stream.count != 1) {
            Complain("a reference on the stream is left");
        }
        const std::lock_guard guard(m_mutex);
        if (!m_written.empty()) {
            Complain("half a message was written");
        }
    }

    // ---- What the module calls.

    static int ReadStream(Stream* self, void* data, unsigned long size, unsigned long* done) {
        const InHost outside;
        return self->session->Read(data, size, done);
    }
    static int WriteStream(Stream* self, const void* data, unsigned long size, unsigned long* done) {
        const InHost outside;
        self->session->Write(static_cast<const uint8_t*>(data), size);
        *done = size;
        return 0;
    }

    // The module reads the next request only after it has handled the one before.
    int Read(void* data, unsigned long size, unsigned long* done) {
        static const Bytes kScript[kRequests] = {
            kVersionRequestBytes, kGetListBytes, OpenBytes(0, 160, 120, 200), SetFormatBytes(0, 128, 96, 200),
            CloseBytes(0),
        };
        if (m_at == 0) {
            // Before the change of format, and before the close.
            if (requests_read == 3 || requests_read == 4) {
                WaitForFrames();
            }
            if (requests_read == kRequests) {
                return -1;
            }
        }
        const Bytes& request = kScript[requests_read];
        *done = std::min<unsigned long>(size, request.size() - m_at);
        std::memcpy(data, request.data() + m_at, *done);
        m_at += *done;
        if (m_at == request.size()) {
            ++requests_read;
            m_at = 0;
        }
        return 0;
    }

    // Waits for m_wanted_frames more frames. Does not wait if the camera is not open, and gives up after
    // kPatience without a frame once a call has failed: frames may need just that call.
    void WaitForFrames() {
        const auto now = [this] {
            const std::lock_guard guard(m_mutex);
            return std::pair(frames, !replies.empty() && replies.back()[4] == 5 && replies.back()[8] == 2);
        };
        const int first = now().first;
        if (!now().second) {
            return;
        }
        auto last_news = std::chrono::steady_clock::now();
        int last = first;
        const bool came = WaitUntil([&] {
            const int count = now().first;
            const auto time = std::chrono::steady_clock::now();
            if (count != last || !HasFailed()) {
                last = count;
                last_news = time;
            }
            return count - first >= m_wanted_frames || time - last_news > kPatience;
        });
        if (!came) {
            Complain("no frames come");
        }
    }

    void Write(const uint8_t* data, unsigned long size) {
        const std::lock_guard guard(m_mutex);
        m_written.insert(m_written.end(), data, data + size);
        uint32_t length = 0;
        while (m_written.size() >= 8 && (std::memcpy(&length, m_written.data(), sizeof length),
                                         m_written.size() >= 8 + size_t{length})) {
            const auto end = m_written.begin() + 8 + length;
            const Bytes message(m_written.begin(), end);
            m_written.erase(m_written.begin(), end);
            static const Bytes kFrame = FrameBytes(0, {'c', 'o', 'd', 'e'});
            if (message == kFrame) {
                ++frames;
            } else {
                replies.push_back(message);
            }
        }
    }

    static constexpr std::chrono::milliseconds kPatience{300};
    static inline void* const kStreamTable[] = {nullptr,
                                                nullptr,
                                                raw::Slot(&raw::CountUp),
                                                raw::Slot(&raw::CountDown),
                                                raw::Slot(&ReadStream),
                                                raw::Slot(&WriteStream)};

    const int m_wanted_frames;
    raw::Runtime m_runtime{raw::kRuntimeTable, {}, {}, {}};
    Stream m_stream{{kStreamTable, 1}, this};
    size_t m_at = 0;
    std::mutex m_mutex;
    Bytes m_written;
};

}  // namespace zumod::testing
