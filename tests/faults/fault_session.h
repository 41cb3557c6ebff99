// One whole session with the built module, from loading to unloading, whatever of it fails: the peer's
// requests are given one by one, each when the one before it has been handled, and all that comes back is
// kept.
//
// Thread rule: one session at a time, from one thread; Run is on a thread of its own.
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

namespace zumod::testing {

class FaultSession {
public:
    using Bytes = raw::Bytes;

    // Frames that are waited for while the camera is open, before and after the change of format.
    explicit FaultSession(int wanted_frames = 3) : m_wanted_frames(wanted_frames) {}

    // Everything, in order. False when the module was not loaded or the plugin not created, which `what` then
    // says; the rest of it was undone all the same.
    bool Go() {
        m_runtime.session = this;
        void* library = nullptr;
        {
            const InModule inside;
            library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
        }
        if (library == nullptr) {
            what = "not loaded";
            return false;
        }
        module_loaded = true;
        const auto entry =
            reinterpret_cast<const raw::Descriptor* (*)()>(dlsym(library, "zumod_get_entrypoint"));
        const raw::Descriptor* module = entry();
        raw::Policy policy{{kPolicyTable, 1},
                           {{raw::kValueTable, 1}, 4, "IClientCameraPlugin", 0},
                           {{raw::kValueTable, 1}, 2, nullptr, 0x0002000000000000}};
        void* plugin = nullptr;
        {
            const InModule inside;
            module->attach_runtime(&m_runtime);
            created = module->create(&policy, &plugin);
        }
        if (policy.count != 1 || policy.name.count != 1 || policy.version.count != 1) {
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
        if (created != 1) {
            what = "not created";
        }
        return created == 1;
    }

    // The whole messages that came back, frames apart; and what is wrong, empty when nothing is.
    std::vector<Bytes> replies;
    int frames = 0;
    std::string what;
    std::string complaint;
    bool module_loaded = false;
    int created = 0;
    int run_result = 0;
    int requests_read = 0;
    // Whether a capture has said a word. Written by any thread while the session runs.
    std::atomic<bool> has_capture{false};

    static constexpr int kRequests = 5;

private:
    struct Runtime {
        void* const* table;
        FaultSession* session;
        raw::Value directory;
    };
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

    static int WriteLog(Runtime* self, uint32_t /*level*/, const char* text) {
        const InHost outside;
        if (std::strncmp(text, "[LinuxV4L2CameraCapture]", 24) == 0) {
            self->session->has_capture = true;
        }
        return 0;
    }
    static void* GetProperty(Runtime* self, const char* key) {
        return std::strcmp(key, "zu.env.modules.dir") == 0 ? &self->directory : nullptr;
    }
    static void* GetPolicy(raw::Policy* self, const char* key) { return raw::GetPolicy(self, key); }

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

    // A request begins when the one before it has been handled: its bytes are read only then.
    int Read(void* data, unsigned long size, unsigned long* done) {
        static const Bytes kScript[kRequests] = {
            {0, 0, 0, 0, 10, 0, 0, 0},
            {0, 0, 0, 0, 1, 0, 0, 0},
            {16, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 160, 0, 0, 0, 120, 0, 0, 0, 200, 0, 0, 0},
            {16, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 128, 0, 0, 0, 96, 0, 0, 0, 200, 0, 0, 0},
            {4, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0},
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

    // So many frames more; none when the camera is not open; no longer than a moment once a call has failed,
    // since what fails may be just that which frames need.
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
            static const Bytes kFrame = {12, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 'c', 'o', 'd', 'e'};
            if (message == kFrame) {
                ++frames;
            } else {
                replies.push_back(message);
            }
        }
    }

    static constexpr std::chrono::milliseconds kPatience{300};
    static inline void* const kRuntimeTable[] = {raw::Slot(&WriteLog), nullptr, nullptr,
                                                 raw::Slot(&GetProperty)};
    static inline void* const kPolicyTable[] = {nullptr, nullptr, raw::Slot(&raw::CountUp),
                                                raw::Slot(&raw::CountDown), raw::Slot(&GetPolicy)};
    static inline void* const kStreamTable[] = {nullptr,
                                                nullptr,
                                                raw::Slot(&raw::CountUp),
                                                raw::Slot(&raw::CountDown),
                                                raw::Slot(&ReadStream),
                                                raw::Slot(&WriteStream)};

    const int m_wanted_frames;
    Runtime m_runtime{kRuntimeTable, nullptr, {{raw::kValueTable, 1}, 4, ZU_TEST_MODULES_DIR "/plain", 0}};
    Stream m_stream{{kStreamTable, 1}, this};
    size_t m_at = 0;
    std::mutex m_mutex;
    Bytes m_written;
};

}  // namespace zumod::testing
