// Start and stop of the module by a host that does not use the SDK: it knows only a descriptor, tables of
// functions and slot numbers.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/doubles/raw_host.h"
#include "tests/support/wire/peer_client.h"

namespace {

using namespace zumod::testing;
using namespace zumod::testing::raw;

TEST(RawHost, StartsServesAndStopsThroughSlotsOnly) {
    void* library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    ASSERT_NE(dlsym(library, "zumod_get_entrypoint"), nullptr);
    const Descriptor* module = EntryOf(library);

    Runtime runtime{kRuntimeTable, {}, {}, {}};
    EXPECT_EQ(module->attach_runtime(&runtime), 1);

    Policy policy = PluginPolicy();
    void* plugin = nullptr;
    EXPECT_EQ(module->create(&policy, &plugin), 1);
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(policy.count, 1);
    EXPECT_EQ(policy.name.count, 0);
    EXPECT_EQ(policy.version.count, 0);

    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    Stream stream{{kStreamTable}, ends[0]};
    stream.count = 1;
    EXPECT_EQ(Call<int>(plugin, 5, &stream), 0);
    EXPECT_EQ(stream.count, 2);
    {
        const PeerClient peer{zumod::UniqueFd(ends[1])};
        std::thread run([&] {
            const LeavesSomethingBehind of_the_open_request;
            EXPECT_EQ(Call<int>(plugin, 6), 1);
        });
        EXPECT_TRUE(peer.Send(kVersionRequestBytes));
        EXPECT_EQ(peer.ReceiveBytes(12), kVersionReplyBytes);
        EXPECT_TRUE(peer.Send(CloseBytes(9)));
        EXPECT_EQ(peer.ReceiveBytes(16), StateBytes(4, 9));
        // No machine has a camera of this id.
        EXPECT_TRUE(peer.Send(OpenBytes(254)));
        EXPECT_EQ(peer.ReceiveBytes(16), StateBytes(1, 254));
        peer.Hang();
        run.join();
    }
    EXPECT_EQ(Call<int>(plugin, 7), 0);
    EXPECT_EQ(Call<int64_t>(plugin, 3), 0);
    EXPECT_EQ(stream.count, 1);
    close(ends[0]);

    const std::vector<std::string> milestones = {
        "[camera_client] camera_client_create interface IClientCameraPlugin  version 562949953421312",
        "[cameraclient] create",
        "[cameraclient] Run start",
        "[cameraclient] version req",
        "[cameraclient] OnProtoCloseCamera id 9",
        "[cameraclient] OnProtoOpenCamera id 254 w 640 h 480 fps 30",
        "[cameraclient] Run return",
        "[cameraclient] ExitInstance",
        "[cameraclient] start to clear devs",
        "[cameraclient] finish to clear devs",
        "[cameraclient] start to stop send thread",
        "[cameraclient] ExitInstance finish",
        "[cameraclient] destroy",
        "[cameraclient] finish to clear devs",
    };
    size_t next = 0;
    for (const auto& [level, text] : runtime.lines) {
        next += next < milestones.size() && text == milestones[next] ? 1U : 0U;
    }
    EXPECT_EQ(next, milestones.size()) << "missing: " << milestones[next];

    module->detach_runtime();
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlopen(ZU_MODULE_FILE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still mapped";
}

}  // namespace
