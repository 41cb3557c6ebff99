// The built module with a host made of tables, and the peer's end of its stream.
//
// Thread rule: one test thread; Run has a separate thread.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <thread>

#include "tests/support/doubles/raw_host.h"
#include "tests/support/wire/peer_client.h"

namespace zumod::testing::raw {

class WholeSystem : public ::testing::Test {
protected:
    // Starts a session with the codec module in this directory.
    void Start(const char* modules) {
        m_library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
        ASSERT_NE(m_library, nullptr) << dlerror();
        module = EntryOf(m_library);
        runtime.properties["zu.env.modules.dir"] = {{kValueTable, 1}, 4, modules, 0};
        ASSERT_EQ(module->attach_runtime(&runtime), 1);
        ASSERT_EQ(module->create(&m_policy, &plugin), 1);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0);
        m_stream.fd = m_ends[0];
        ASSERT_EQ(Call<int>(plugin, 5, &m_stream), 0);
        peer.emplace(UniqueFd(m_ends[1]));
        m_run = std::thread([this] {
            const LeavesSomethingBehind of_the_open_requests;
            EXPECT_EQ(Call<int>(plugin, 6), 1);
        });
    }

    // Ends the session and unloads the module.
    void Finish() {
        peer->Hang();
        m_run.join();
        EXPECT_EQ(Call<int>(plugin, 7), 0);
        EXPECT_EQ(Call<int64_t>(plugin, 3), 0);
        EXPECT_EQ(m_stream.count, 0);
        close(m_ends[0]);
        peer.reset();
        module->detach_runtime();
        EXPECT_EQ(dlclose(m_library), 0);
    }

    const Descriptor* module = nullptr;
    void* plugin = nullptr;
    Runtime runtime{kRuntimeTable, {}, {}, {}};
    std::optional<PeerClient> peer;

private:
    void* m_library = nullptr;
    Policy m_policy = PluginPolicy();
    Stream m_stream{{kStreamTable}, -1};
    int m_ends[2] = {-1, -1};
    std::thread m_run;
};

}  // namespace zumod::testing::raw
