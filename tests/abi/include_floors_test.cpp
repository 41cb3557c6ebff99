// Who includes whom, read from the include lines: a lower floor never includes a higher one.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace zumod::testing {
namespace {

namespace fs = std::filesystem;
using Includes = std::vector<std::string>;

bool StartsWith(const std::string& text, const std::string& start) {
    return text.rfind(start, 0) == 0;
}

// The rooms of the module from the ground up. Those of one floor do not know each other.
struct Room {
    const char* path;
    int floor;
};
constexpr Room kRooms[] = {
    {"base/", 0},          {"module/runtime", 1},    {"module/log", 1}, {"module/attach_runtime", 1},
    {"loader/", 2},        {"capture/", 2},          {"bridge/", 3},    {"plugin/", 4},
    {"module/factory", 5}, {"module/entrypoint", 5},
};

// The room of a file of src/, given its path below src/.
std::optional<Room> RoomOf(const std::string& file) {
    for (const Room& room : kRooms) {
        if (StartsWith(file, room.path)) {
            return room;
        }
    }
    return std::nullopt;
}

bool IsTest(const std::string& file) {
    return file.find("_test.") != std::string::npos;
}

// What is wrong with `file` (below src/) including `include` in quotes; empty when nothing is.
std::string Complaint(const std::string& file, const std::string& include) {
    const auto room = RoomOf(file);
    if (!room) {
        return "stands on no floor";
    }
    if (include.find("..") != std::string::npos) {
        return "climbs out of its folder";
    }
    if (StartsWith(include, "zumod/")) {
        return "";
    }
    if (StartsWith(include, "tests/")) {
        return IsTest(file) ? "" : "is no test and includes test code";
    }
    const auto other = RoomOf(include);
    if (!other) {
        return "includes what stands on no floor";
    }
    const bool same_room = std::string(room->path) == other->path;
    const bool both_in_module = StartsWith(room->path, "module/") && room->floor == other->floor;
    if (other->floor > room->floor) {
        return "includes a higher floor";
    }
    if (other->floor == room->floor && !same_room && !both_in_module) {
        return "includes its neighbour on the same floor";
    }
    return "";
}

// The X of a line #include "X", with blanks wherever the language allows them.
std::optional<std::string> QuotedInclude(const std::string& line) {
    std::string rest = line;
    for (const char* part : {"#", "include", "\""}) {
        rest.erase(0, rest.find_first_not_of(" \t"));
        if (!StartsWith(rest, part)) {
            return std::nullopt;
        }
        rest.erase(0, std::string(part).size());
    }
    return rest.substr(0, rest.find('"'));
}

Includes QuotedIncludesOf(const fs::path& file) {
    Includes includes;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (const auto include = QuotedInclude(line)) {
            includes.push_back(*include);
        }
    }
    return includes;
}

std::vector<fs::path> SourcesBelow(const fs::path& folder) {
    std::vector<fs::path> files;
    if (!fs::exists(folder)) {
        return files;
    }
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const auto extension = entry.path().extension();
        if (entry.is_regular_file() && (extension == ".h" || extension == ".cpp" || extension == ".c")) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

const fs::path kRoot = ZU_SOURCE_DIR;

TEST(IncludeFloors, TheModulesSourcesKeepToThem) {
    int checked = 0;
    for (const fs::path& file : SourcesBelow(kRoot / "src")) {
        const std::string name = fs::relative(file, kRoot / "src").string();
        EXPECT_TRUE(RoomOf(name).has_value()) << name << " stands on no floor";
        for (const std::string& include : QuotedIncludesOf(file)) {
            EXPECT_EQ(Complaint(name, include), "") << "src/" << name << " includes \"" << include << '"';
            ++checked;
        }
    }
    EXPECT_GT(checked, 50) << "the include lines were not found";
}

TEST(IncludeFloors, TheSdkIncludesNothingButItself) {
    const auto headers = SourcesBelow(kRoot / "include");
    EXPECT_GE(headers.size(), 11U);
    for (const fs::path& header : headers) {
        for (const std::string& include : QuotedIncludesOf(header)) {
            EXPECT_TRUE(StartsWith(include, "zumod/") && fs::exists(kRoot / "include" / include))
                << header << " includes \"" << include << '"';
        }
    }
}

TEST(IncludeFloors, TheWholeSdkHeaderNamesEveryOther) {
    const Includes named = QuotedIncludesOf(kRoot / "include/zumod/zumod.h");
    for (const fs::path& header : SourcesBelow(kRoot / "include/zumod")) {
        const std::string name = "zumod/" + header.filename().string();
        if (name != "zumod/zumod.h") {
            EXPECT_NE(std::find(named.begin(), named.end(), name), named.end()) << name;
        }
    }
}

TEST(IncludeFloors, TheProgramsAroundTheModuleNeverIncludeItsUpperRooms) {
    for (const char* program : {"codec", "host", "peer", "vcam"}) {
        for (const fs::path& file : SourcesBelow(kRoot / program)) {
            for (const std::string& include : QuotedIncludesOf(file)) {
                for (const char* room : {"plugin/", "bridge/", "capture/"}) {
                    EXPECT_FALSE(StartsWith(include, room) ||
                                 include.find(std::string("src/") + room) != std::string::npos ||
                                 include.find(std::string("../") + room) != std::string::npos)
                        << file << " includes \"" << include << '"';
                }
            }
        }
    }
}

TEST(IncludeFloors, TheHostIsMadeOfTheSdkTheBaseTheRuntimeAndTheLoader) {
    const auto files = SourcesBelow(kRoot / "host");
    EXPECT_GT(files.size(), 10U);
    for (const fs::path& file : files) {
        for (const std::string& include : QuotedIncludesOf(file)) {
            bool allowed = IsTest(file.filename().string()) && StartsWith(include, "tests/support/");
            for (const char* room : {"host/", "zumod/", "base/", "module/runtime", "module/log",
                                     "module/attach_runtime", "loader/"}) {
                allowed = allowed || StartsWith(include, room);
            }
            EXPECT_TRUE(allowed) << file << " includes \"" << include << '"';
        }
    }
}

TEST(IncludeFloors, ThePeerIsMadeOfTheSameAndOfTwoReadersOfPictures) {
    const auto files = SourcesBelow(kRoot / "peer");
    EXPECT_GT(files.size(), 10U);
    for (const fs::path& file : files) {
        for (const std::string& include : QuotedIncludesOf(file)) {
            bool allowed = IsTest(file.filename().string()) && StartsWith(include, "tests/support/");
            for (const char* room :
                 {"peer/", "zumod/", "base/", "module/runtime", "module/log", "module/attach_runtime",
                  "loader/", "codec/av_objects.h", "vcam/pattern_reader.h"}) {
                allowed = allowed || StartsWith(include, room);
            }
            EXPECT_TRUE(allowed) << file << " includes \"" << include << '"';
        }
    }
}

TEST(IncludeFloors, AnIncludeLineIsFoundHoweverItIsSpaced) {
    EXPECT_EQ(QuotedInclude("#include \"base/x.h\""), "base/x.h");
    EXPECT_EQ(QuotedInclude(" #  include\t\"base/x.h\"  // why"), "base/x.h");
    EXPECT_EQ(QuotedInclude("#include <vector>"), std::nullopt);
    EXPECT_EQ(QuotedInclude("// #include \"base/x.h\""), std::nullopt);
    EXPECT_EQ(QuotedInclude(""), std::nullopt);
}

TEST(IncludeFloors, TheRulesTellRightFromWrong) {
    EXPECT_EQ(Complaint("base/base_thread.cpp", "base/object_monitor.h"), "");
    EXPECT_EQ(Complaint("module/log.cpp", "module/runtime.h"), "");
    EXPECT_EQ(Complaint("module/runtime.h", "base/singleton.h"), "");
    EXPECT_EQ(Complaint("capture/v4l2_thread.h", "base/base_thread.h"), "");
    EXPECT_EQ(Complaint("bridge/camera_client.cpp", "capture/x.h"), "");
    EXPECT_EQ(Complaint("plugin/client_camera.cpp", "bridge/camera_client.h"), "");
    EXPECT_EQ(Complaint("module/factory.cpp", "plugin/client_camera.h"), "");
    EXPECT_EQ(Complaint("module/entrypoint.cpp", "module/factory.h"), "");
    EXPECT_EQ(Complaint("base/mem_buffer_test.cpp", "tests/support/raw_slots.h"), "");

    EXPECT_NE(Complaint("base/base_thread.cpp", "module/log.h"), "");
    EXPECT_NE(Complaint("module/log.cpp", "loader/module_loader.h"), "");
    EXPECT_NE(Complaint("module/attach_runtime.cpp", "module/factory.h"), "");
    EXPECT_NE(Complaint("loader/module_loader.cpp", "capture/x.h"), "");
    EXPECT_NE(Complaint("capture/x.cpp", "loader/module_loader.h"), "");
    EXPECT_NE(Complaint("capture/x.cpp", "bridge/camera_client.h"), "");
    EXPECT_NE(Complaint("bridge/x.cpp", "plugin/client_camera.h"), "");
    EXPECT_NE(Complaint("plugin/x.cpp", "module/entrypoint.h"), "");
    EXPECT_NE(Complaint("base/x.cpp", "tests/support/raw_slots.h"), "");
    EXPECT_NE(Complaint("base/x.cpp", "../plugin/client_camera.h"), "");
    EXPECT_NE(Complaint("base/x.cpp", "somewhere/else.h"), "");
    EXPECT_NE(Complaint("attic/x.cpp", "base/mutex_lock.h"), "");
}

}  // namespace
}  // namespace zumod::testing
