// Checks from the include lines which directory includes which.
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
using Paths = std::vector<std::string>;

const fs::path kRoot = ZU_SOURCE_DIR;

// A layer is defined by the beginnings of its files' paths. It may include itself and the paths listed.
struct Layer {
    Paths paths;
    Paths may_include;
};

const Paths kSdk = {"zumod/"};
const Paths kBase = {"src/base/"};
const Paths kRuntime = {"src/module/runtime", "src/module/log", "src/module/attach_runtime"};
const Paths kLoader = {"src/loader/"};
const Paths kCapture = {"src/capture/"};
const Paths kBridge = {"src/bridge/"};
const Paths kPlugin = {"src/plugin/"};
const Paths kCommon = {"common/"};

Paths Join(std::initializer_list<Paths> lists) {
    Paths all;
    for (const Paths& list : lists) {
        all.insert(all.end(), list.begin(), list.end());
    }
    return all;
}

// From the lowest layer up.
const std::vector<Layer>& Layers() {
    static const std::vector<Layer> layers = {
        {{"include/zumod/"}, kSdk},
        {kBase, kSdk},
        {kRuntime, Join({kSdk, kBase})},
        {kLoader, Join({kSdk, kBase, kRuntime})},
        {kCapture, Join({kSdk, kBase, kRuntime})},
        {kBridge, Join({kSdk, kBase, kRuntime, kLoader, kCapture})},
        // The plugin knows the cameras of the platform only through the bridge.
        {kPlugin, Join({kSdk, kBase, kRuntime, kBridge})},
        {{"src/module/factory", "src/module/entrypoint"},
         Join({kSdk, kBase, kRuntime, kLoader, kCapture, kBridge, kPlugin})},
        // Everything around the module uses only the SDK and the loader.
        {kCommon, Join({kSdk, kBase})},
        {{"codec/"}, Join({kSdk, kBase, kRuntime, kLoader, kCommon})},
        // The host knows the codec's settings, to check them when it starts.
        {{"host/"}, Join({kSdk, kBase, kRuntime, kLoader, kCommon, {"codec/setting_keys"}})},
        // The peer feeds virtual cameras, whose server is another program.
        {{"peer/"}, Join({kSdk, kBase, kRuntime, kLoader, kCommon, {"vcam/cli/feeder"}})},
        // The validator meets modules as any host does.
        {{"validate/"}, Join({kSdk, kCommon})},
        {{"vcam/"}, kCommon},
    };
    return layers;
}

bool StartsWithAny(const std::string& path, const Paths& starts) {
    return std::any_of(starts.begin(), starts.end(),
                       [&](const std::string& start) { return path.rfind(start, 0) == 0; });
}

const Layer* LayerOf(const std::string& file) {
    for (const Layer& layer : Layers()) {
        if (StartsWithAny(file, layer.paths)) {
            return &layer;
        }
    }
    return nullptr;
}

bool IsTest(const std::string& file) {
    return file.find("_test.") != std::string::npos || StartsWithAny(file, {"vcam/testing/"});
}

// What is wrong with `file` including `include` in quotes; empty if nothing is.
std::string Complaint(const std::string& file, const std::string& include) {
    const Layer* layer = LayerOf(file);
    if (layer == nullptr) {
        return "is in no layer";
    }
    if (StartsWithAny(include, layer->paths) || StartsWithAny(include, layer->may_include)) {
        return "";
    }
    if (StartsWithAny(include, {"tests/support/", "vcam/"}) && IsTest(file)) {
        return "";
    }
    return "may not be included there";
}

// The X of a line #include "X", with blanks where the language allows them.
std::optional<std::string> QuotedInclude(const std::string& line) {
    std::string rest = line;
    for (const std::string part : {"#", "include", "\""}) {
        rest.erase(0, rest.find_first_not_of(" \t"));
        if (rest.rfind(part, 0) != 0) {
            return std::nullopt;
        }
        rest.erase(0, part.size());
    }
    return rest.substr(0, rest.find('"'));
}

Paths QuotedIncludesOf(const fs::path& file) {
    Paths includes;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (const auto include = QuotedInclude(line)) {
            includes.push_back(*include);
        }
    }
    return includes;
}

// Relative to the root of the tree.
Paths SourcesBelow(const std::string& directory) {
    Paths files;
    for (const auto& entry : fs::recursive_directory_iterator(kRoot / directory)) {
        const auto extension = entry.path().extension();
        if (entry.is_regular_file() && (extension == ".h" || extension == ".cpp" || extension == ".c")) {
            files.push_back(fs::relative(entry.path(), kRoot).string());
        }
    }
    return files;
}

class IncludeLayers : public ::testing::TestWithParam<const char*> {};

TEST_P(IncludeLayers, EverySourceIncludesOnlyWhatItsLayerMay) {
    int checked = 0;
    for (const std::string& file : SourcesBelow(GetParam())) {
        for (const std::string& include : QuotedIncludesOf(kRoot / file)) {
            EXPECT_EQ(Complaint(file, include), "") << file << " includes \"" << include << '"';
            ++checked;
        }
    }
    EXPECT_GT(checked, 0) << "no include line was found";
}

INSTANTIATE_TEST_SUITE_P(Tree, IncludeLayers,
                         ::testing::Values("include", "src", "common", "codec", "host", "peer", "validate",
                                           "vcam"),
                         [](const auto& directory) { return std::string(directory.param); });

TEST(IncludeLines, TheWholeSdkHeaderNamesEveryOther) {
    const Paths named = QuotedIncludesOf(kRoot / "include/zumod/zumod.h");
    for (const std::string& header : SourcesBelow("include/zumod")) {
        const std::string name = header.substr(std::string("include/").size());
        if (name != "zumod/zumod.h") {
            EXPECT_NE(std::find(named.begin(), named.end(), name), named.end()) << name;
        }
    }
}

TEST(IncludeLines, AreFoundWithAnySpacing) {
    EXPECT_EQ(QuotedInclude("#include \"src/base/x.h\""), "src/base/x.h");
    EXPECT_EQ(QuotedInclude(" #  include\t\"src/base/x.h\"  // why"), "src/base/x.h");
    EXPECT_EQ(QuotedInclude("#include <vector>"), std::nullopt);
    EXPECT_EQ(QuotedInclude("// #include \"src/base/x.h\""), std::nullopt);
    EXPECT_EQ(QuotedInclude(""), std::nullopt);
}

TEST(IncludeLines, TheRulesTellRightFromWrong) {
    const struct {
        const char* file;
        const char* include;
        bool allowed;
    } cases[] = {
        {"src/base/base_thread.cpp", "src/base/singleton.h", true},
        {"src/module/log.cpp", "src/module/runtime.h", true},
        {"src/capture/v4l2_thread.h", "src/base/base_thread.h", true},
        {"src/bridge/x.cpp", "src/capture/x.h", true},
        {"src/module/factory.cpp", "src/plugin/client_camera.h", true},
        {"src/base/mem_buffer_test.cpp", "tests/support/doubles/raw_slots.h", true},
        {"host/x.cpp", "common/unique_fd.h", true},
        {"vcam/testing/x.h", "tests/support/process/work_directory.h", true},
        {"src/base/base_thread.cpp", "src/module/log.h", false},
        {"src/module/log.cpp", "src/loader/load_module.h", false},
        {"src/module/attach_runtime.cpp", "src/module/factory.h", false},
        {"src/loader/x.cpp", "src/capture/x.h", false},
        {"src/capture/x.cpp", "src/loader/x.h", false},
        {"src/capture/x.cpp", "src/bridge/x.h", false},
        {"src/bridge/x.cpp", "src/plugin/client_camera.h", false},
        {"src/plugin/x.cpp", "src/capture/x.h", false},
        {"src/plugin/x.cpp", "src/module/entrypoint.h", false},
        {"src/base/x.cpp", "tests/support/doubles/raw_slots.h", false},
        {"src/base/x.cpp", "../plugin/client_camera.h", false},
        {"src/base/x.cpp", "common/unique_fd.h", false},
        {"src/attic/x.cpp", "src/base/lock.h", false},
        {"include/zumod/x.h", "src/base/x.h", false},
        {"host/x.cpp", "src/bridge/x.h", false},
        {"host/x.cpp", "codec/x.h", false},
        {"validate/x.cpp", "zumod/codec.h", true},
        {"validate/x.cpp", "src/loader/load_module.h", false},
        {"validate/x.cpp", "src/plugin/client_camera.h", false},
        {"peer/x.cpp", "codec/x.h", false},
        {"codec/x.cpp", "src/capture/x.h", false},
        {"vcam/x.cpp", "src/base/x.h", false},
        {"common/x.cpp", "host/x.h", false},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(Complaint(test.file, test.include).empty(), test.allowed)
            << test.file << " includes " << test.include;
    }
}

}  // namespace
}  // namespace zumod::testing
