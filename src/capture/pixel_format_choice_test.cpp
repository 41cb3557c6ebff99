#include "src/capture/pixel_format_choice.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <string>

namespace zumod {
namespace {

constexpr char kNames[][5] = {"NV12", "YV12", "NV21", "YU12", "YUYV", "BGR4", "MJPG"};
constexpr size_t kFormatCount = 7;

uint32_t CodeOf(const std::string& name) {
    uint32_t code = 0;
    for (size_t place = 4; place-- > 0;) {
        code = code << 8 | static_cast<uint8_t>(name[place]);
    }
    return code;
}

// Down: what would be chosen of the list so far ("-": nothing). Across: the next format in the list. Inside:
// what is chosen then.
struct Row {
    const char* so_far;
    const char* next[kFormatCount];
};
constexpr Row kChoice[] = {
    // clang-format off
    //          NV12    YV12    NV21    YU12    YUYV    BGR4    MJPG
    {"-",     {"NV12", "YV12", "NV21", "YU12", "YUYV", "-",    "-"   }},
    {"NV12",  {"NV12", "NV12", "NV12", "NV12", "NV12", "NV12", "NV12"}},
    {"YV12",  {"YV12", "YV12", "YV12", "YV12", "YV12", "YV12", "YV12"}},
    {"NV21",  {"NV21", "NV21", "NV21", "NV21", "NV21", "NV21", "NV21"}},
    {"YU12",  {"YU12", "YU12", "YU12", "YU12", "YU12", "YU12", "YU12"}},
    {"YUYV",  {"NV12", "YV12", "NV21", "YU12", "YUYV", "YUYV", "YUYV"}},
    // clang-format on
};

std::string ExpectedChoice(const std::vector<size_t>& list) {
    std::string chosen = "-";
    for (const size_t format : list) {
        for (const Row& row : kChoice) {
            if (chosen == row.so_far) {
                chosen = row.next[format];
                break;
            }
        }
    }
    return chosen;
}

std::string Choice(const std::vector<SupportedFormat>& entries) {
    const std::optional<uint32_t> chosen = ChoosePixelFormat(entries, 640, 480);
    if (!chosen) {
        return "-";
    }
    for (const char* name : kNames) {
        if (CodeOf(name) == *chosen) {
            return name;
        }
    }
    return "?";
}

// Every list without repetition that begins with `list`.
template <class Check>
int ForEveryList(std::vector<size_t>& list, const Check& check) {
    check(list);
    int lists = 1;
    for (size_t format = 0; format < kFormatCount; ++format) {
        if (std::find(list.begin(), list.end(), format) == list.end()) {
            list.push_back(format);
            lists += ForEveryList(list, check);
            list.pop_back();
        }
    }
    return lists;
}

std::string TextOf(const std::vector<size_t>& list) {
    std::string text;
    for (const size_t format : list) {
        text += std::string(kNames[format]) + ' ';
    }
    return text;
}

TEST(PixelFormatChoiceTest, EveryCombinationInEveryOrderIsChosenFromByTheTable) {
    std::vector<size_t> list;
    const int lists = ForEveryList(list, [](const std::vector<size_t>& formats) {
        std::vector<SupportedFormat> entries;
        for (const size_t format : formats) {
            entries.push_back({640, 480, CodeOf(kNames[format])});
        }
        EXPECT_EQ(Choice(entries), ExpectedChoice(formats)) << TextOf(formats);
    });
    // 1 + 7 + 7*6 + ... + 7!
    EXPECT_EQ(lists, 13700);
}

TEST(PixelFormatChoiceTest, EntriesOfOtherSizesMakeNoDifference) {
    std::vector<size_t> list;
    ForEveryList(list, [](const std::vector<size_t>& formats) {
        std::vector<SupportedFormat> entries = {
            {1280, 720, V4L2_PIX_FMT_NV21}, {640, 360, V4L2_PIX_FMT_YUV420}, {800, 480, V4L2_PIX_FMT_NV12}};
        for (const size_t format : formats) {
            entries.push_back({640, 480, CodeOf(kNames[format])});
            entries.push_back({480, 640, V4L2_PIX_FMT_YVU420});
            entries.push_back({640, 488, V4L2_PIX_FMT_YUYV});
        }
        EXPECT_EQ(Choice(entries), ExpectedChoice(formats)) << TextOf(formats);
    });
}

TEST(PixelFormatChoiceTest, OneSizeInAForeignFormatAndAnotherInAGoodOneGiveNothing) {
    EXPECT_EQ(ChoosePixelFormat({{640, 480, V4L2_PIX_FMT_YUYV}, {1280, 720, V4L2_PIX_FMT_MJPEG}}, 1280, 720),
              std::nullopt);
}

TEST(PixelFormatChoiceTest, SixFormatsCanBeCapturedIfTheDeviceInsists) {
    for (const char* name : {"NV12", "NV21", "YU12", "BGR4", "YUYV", "YV12"}) {
        EXPECT_TRUE(IsCapturable(CodeOf(name))) << name;
    }
    for (const char* name : {"MJPG", "H264", "RGB3", "BGR3", "AR24", "UYVY", "NV16", "GREY"}) {
        EXPECT_FALSE(IsCapturable(CodeOf(name))) << name;
    }
    EXPECT_FALSE(IsCapturable(0));
}

}  // namespace
}  // namespace zumod
