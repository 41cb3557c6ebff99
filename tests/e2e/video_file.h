// A recording as read by programs that are not part of this project.
//
// Thread rule: one test thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"
#include "vcam/picture/pattern_reader.h"

namespace zumod::testing {

// What a tool prints. It must succeed without a warning.
inline std::string ToolOutput(const WorkDirectory& work, std::vector<std::string> words) {
    // Without the libraries that the test is started with.
    words.insert(words.begin(), {"/usr/bin/env", "-u", "LD_PRELOAD"});
    const std::string out = work / "tool.out";
    const UniqueFd file(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ChildProcess tool(std::move(words), work / "tool.errors", -1, file.Get());
    EXPECT_EQ(tool.Wait(), 0);
    EXPECT_EQ(tool.Errors(), "");
    return FileContent(out);
}

inline std::string DecodedBytes(const WorkDirectory& work, const std::string& path,
                                const std::string& pixel_format) {
    return ToolOutput(work, {"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-fps_mode", "passthrough",
                             "-enc_time_base", "-1", "-f", "rawvideo", "-pix_fmt", pixel_format, "-"});
}

// The stamps in the decoded pictures of a file; the pictures have this size.
inline std::vector<Stamp> StampsIn(const WorkDirectory& work, const std::string& path, unsigned width,
                                   unsigned height) {
    const std::string bytes = DecodedBytes(work, path, "gray");
    const size_t size = size_t{width} * height;
    EXPECT_EQ(bytes.size() % size, 0U);
    std::vector<Stamp> stamps;
    for (size_t at = 0; at + size <= bytes.size(); at += size) {
        const auto stamp =
            ReadStamp(reinterpret_cast<const uint8_t*>(bytes.data()) + at, width, width, height);
        EXPECT_TRUE(stamp) << "picture " << stamps.size();
        stamps.push_back(stamp.value_or(Stamp{}));
    }
    return stamps;
}

struct VideoFile {
    unsigned width = 0;
    unsigned height = 0;
    size_t frames = 0;
    std::vector<double> times;  // of the frames; none in bare H.264

    // Frames per second, from their times.
    double Rate() const {
        return times.size() < 2 ? 0 : static_cast<double>(times.size() - 1) / (times.back() - times.front());
    }
};

inline VideoFile Probe(const WorkDirectory& work, const std::string& path) {
    const auto found = nlohmann::json::parse(
        ToolOutput(work, {"ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height",
                          "-show_entries", "packet=pts_time", "-of", "json", path}));
    if (!found.contains("streams") || found["streams"].size() != 1) {
        ADD_FAILURE() << found;
        return {};
    }
    const auto& stream = found["streams"][0];
    EXPECT_EQ(stream["codec_name"], "h264");
    VideoFile file{stream["width"], stream["height"], found["packets"].size(), {}};
    for (const auto& packet : found["packets"]) {
        if (packet.contains("pts_time")) {
            file.times.push_back(std::stod(packet["pts_time"].get<std::string>()));
        }
    }
    return file;
}

}  // namespace zumod::testing
