// The built module with a host of tables around it, and a peer's end of its stream: what an end-to-end test
// has to do with.
//
// Thread rule: one test thread; Run is on a thread of its own.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "tests/support/doubles/raw_host.h"

namespace zumod::testing::raw {

class WholeSystem : public ::testing::Test {
protected:
    // Starts everything with the codec module of this directory.
    void Start(const char* modules) {
        m_library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
        ASSERT_NE(m_library, nullptr) << dlerror();
        module = reinterpret_cast<const Descriptor* (*)()>(dlsym(m_library, "zumod_get_entrypoint"))();
        runtime.properties["zu.env.modules.dir"] = {{kValueTable, 1}, 4, modules, 0};
        ASSERT_EQ(module->attach_runtime(&runtime), 1);
        ASSERT_EQ(module->create(&m_policy, &plugin), 1);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0);
        m_stream.fd = m_ends[0];
        ASSERT_EQ(Call<int>(plugin, 5, &m_stream), 0);
        m_run = std::thread([this] {
            const LeavesSomethingBehind of_the_open_requests;
            EXPECT_EQ(Call<int>(plugin, 6), 1);
        });
    }

    // Ends the session and everything with it.
    void Finish(const Peer& peer) {
        peer.Hang();
        m_run.join();
        EXPECT_EQ(Call<int>(plugin, 7), 0);
        EXPECT_EQ(Call<int64_t>(plugin, 3), 0);
        EXPECT_EQ(m_stream.count, 0);
        close(m_ends[0]);
        module->detach_runtime();
        EXPECT_EQ(dlclose(m_library), 0);
    }

    int PeerEnd() const { return m_ends[1]; }

    const Descriptor* module = nullptr;
    void* plugin = nullptr;
    Runtime runtime{kRuntimeTable, {}, {}, {}};

private:
    void* m_library = nullptr;
    Policy m_policy{{kPolicyTable, 1},
                    {{kValueTable}, 4, "IClientCameraPlugin", 0},
                    {{kValueTable}, 2, nullptr, 0x0002000000000000}};
    Stream m_stream{{kStreamTable}, -1};
    int m_ends[2] = {-1, -1};
    std::thread m_run;
};

}  // namespace zumod::testing::raw
