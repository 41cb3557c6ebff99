// The reference host and the reference peer as processes, connected by a real socket.
//
// Thread rule: one test thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/host_process.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"

namespace zumod::testing {

// One zu-camera-peer process and its output.
class PeerRun {
public:
    // `words` is the whole command line; the files in the work directory begin with `name`.
    PeerRun(const WorkDirectory& work, const std::string& name, std::vector<std::string> words)
        : m_out(work / (name + ".out")) {
        const UniqueFd out(open(m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
        m_process =
            std::make_unique<ChildProcess>(std::move(words), work / (name + ".errors"), -1, out.Get());
    }

    ChildProcess& Process() { return *m_process; }
    std::string Printed() const { return FileContent(m_out); }

    // Waits until it has printed the text after position `from`, or has ended. Returns the position after the
    // text, or npos.
    size_t Prints(const std::string& text, size_t from = 0) {
        const auto find = [&] { return Printed().find(text, from); };
        WaitUntil([&] { return find() != std::string::npos || m_process->HasEnded(); });
        const size_t found = find();
        EXPECT_NE(found, std::string::npos) << "\"" << text << "\" is not in:\n"
                                            << Printed() << m_process->Errors();
        return found == std::string::npos ? found : found + text.size();
    }

    void ExpectEnd(int status, const std::string& errors) {
        EXPECT_EQ(m_process->Wait(), status) << m_process->Errors();
        EXPECT_EQ(m_process->Errors(), errors);
    }

    // Ends it by a signal, which is not a failure.
    void Stop() {
        m_process->Signal(SIGINT);
        ExpectEnd(0, "");
    }

private:
    const std::string m_out;
    std::unique_ptr<ChildProcess> m_process;
};

class BothEnds : public HostProcess {
protected:
    explicit BothEnds(std::initializer_list<const char*> with) : HostProcess(with) {}

    PeerRun Peer(std::vector<std::string> words, const std::string& name = "peer") const {
        words.insert(words.begin(), {ZU_PEER_FILE, "--socket", socket});
        return {work, name, std::move(words)};
    }

    // A peer that starts a separate host with --exec. The shell between them runs without the preloaded
    // libraries: a shell does not work with a sanitizer's.
    PeerRun PeerWithHost(std::vector<std::string> words, const std::string& name = "peer") const {
        const char* preload = std::getenv("LD_PRELOAD");  // NOLINT(concurrency-mt-unsafe): nobody sets it
        words.insert(words.begin(), {"/usr/bin/env", "-u", "LD_PRELOAD", ZU_PEER_FILE, "--exec",
                                     "exec env LD_PRELOAD=" + std::string(preload == nullptr ? "" : preload) +
                                         " " ZU_HOST_FILE " --stdio 2>>" + (work / "errors")});
        return {work, name, std::move(words)};
    }

    // Its output; it must succeed.
    std::string PrintedBy(PeerRun peer) const {
        peer.ExpectEnd(0, "");
        return peer.Printed();
    }

    void ExpectCameraFree(size_t index = 0) {
        EXPECT_TRUE(WaitUntil([&] {
            const vcam::CameraStatus status = cameras.At(index).Status();
            return !status.streaming && status.open_files == 0;
        })) << "the camera is still in use";
    }

    // Whether there is a recording that is not complete.
    bool HasTemporaryFile() const {
        for (const auto& entry : std::filesystem::directory_iterator(work.Path())) {
            if (entry.path().string().find(".part-") != std::string::npos) {
                return true;
            }
        }
        return false;
    }
};

}  // namespace zumod::testing
