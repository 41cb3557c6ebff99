#include "src/capture/pixel_formats.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "src/capture/device_calls.h"
#include "tests/support/doubles/device_double.h"

namespace zumod {
namespace {

using testing::CameraModel;
using testing::DeviceCall;
using testing::DeviceDouble;
using Formats = std::vector<SupportedFormat>;

class SupportedFormats : public ::testing::Test {
protected:
    ~SupportedFormats() override { EXPECT_TRUE(devices.Misuse().empty()); }

    Formats FormatsOf(CameraModel model) {
        devices.SetCamera(0, std::move(model));
        const int descriptor = device::Open("/dev/video0", O_RDONLY);
        devices.TakeCalls();
        Formats entries;
        EXPECT_TRUE(enumSupportedFormats(descriptor, entries));
        calls = devices.TakeCalls();
        device::Close(descriptor);
        return entries;
    }

    DeviceDouble devices;
    std::vector<std::string> calls;
};

TEST_F(SupportedFormats, ADeviceWithoutFormatsIsAskedForTheFirstOnly) {
    EXPECT_TRUE(FormatsOf({}).empty());
    EXPECT_EQ(calls, std::vector<std::string>{"ENUM_FMT video0 type=1 index=0 0"});
}

TEST_F(SupportedFormats, OneFormatIsTriedAtAllSizesAndFieldsAreCarriedFromCallToCall) {
    const Formats entries = FormatsOf({.formats = {{V4L2_PIX_FMT_YUYV, {{320, 240}, {1280, 720}}}}});

    EXPECT_EQ(entries, (Formats{{320, 240, V4L2_PIX_FMT_YUYV}, {1280, 720, V4L2_PIX_FMT_YUYV}}));
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "ENUM_FMT video0 type=1 index=0 0",
                         "ENUM_FMT video0 type=1 index=1 YUYV flags=2",
                         "TRY_FMT video0 type=1 128x96 YUYV",
                         "TRY_FMT video0 type=1 160x120 YUYV",
                         "TRY_FMT video0 type=1 176x144 YUYV",
                         "TRY_FMT video0 type=1 320x240 YUYV",
                         "TRY_FMT video0 type=1 352x288 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 640x480 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 704x576 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 800x600 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 960x720 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 1024x768 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 1152x864 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 1280x600 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 1280x720 YUYV field=1 stride=640 size=153600 colorspace=8",
                         "TRY_FMT video0 type=1 1440x900 YUYV field=1 stride=2560 size=1843200 colorspace=8",
                         "TRY_FMT video0 type=1 1440x1080 YUYV field=1 stride=2560 size=1843200 colorspace=8",
                         "TRY_FMT video0 type=1 1920x1080 YUYV field=1 stride=2560 size=1843200 colorspace=8",
                     }));
}

TEST_F(SupportedFormats, TheOrderIsBySizeFirstAndByTheDevicesFormatsSecond) {
    const Formats entries = FormatsOf({.formats = {{V4L2_PIX_FMT_MJPEG, {{1280, 720}, {640, 480}}},
                                                   {V4L2_PIX_FMT_NV12, {{640, 480}, {128, 96}}},
                                                   {V4L2_PIX_FMT_YUYV, {{1280, 720}, {640, 480}}}}});

    EXPECT_EQ(entries, (Formats{{128, 96, V4L2_PIX_FMT_NV12},
                                {640, 480, V4L2_PIX_FMT_MJPEG},
                                {640, 480, V4L2_PIX_FMT_NV12},
                                {640, 480, V4L2_PIX_FMT_YUYV},
                                {1280, 720, V4L2_PIX_FMT_MJPEG},
                                {1280, 720, V4L2_PIX_FMT_YUYV}}));
    // Each size is tried with every format before the next size.
    ASSERT_EQ(calls.size(), 4u + 16 * 3);
    EXPECT_EQ(calls[4], "TRY_FMT video0 type=1 128x96 MJPG");
    EXPECT_EQ(calls[5], "TRY_FMT video0 type=1 128x96 NV12");
    EXPECT_EQ(calls[6], "TRY_FMT video0 type=1 128x96 YUYV field=1 stride=256 size=24576 colorspace=8");
    EXPECT_EQ(calls[7], "TRY_FMT video0 type=1 160x120 MJPG field=1 stride=256 size=24576 colorspace=8");
}

TEST_F(SupportedFormats, AWidthThatMatchesIsEnough) {
    EXPECT_EQ(FormatsOf({.formats = {{V4L2_PIX_FMT_NV12, {}, {{{1920, 1080}, {1920, 1088}}}}}}),
              (Formats{{1920, 1088, V4L2_PIX_FMT_NV12}}));
}

TEST_F(SupportedFormats, AHeightThatMatchesIsEnough) {
    EXPECT_EQ(FormatsOf({.formats = {{V4L2_PIX_FMT_NV12, {}, {{{640, 480}, {720, 480}}}}}}),
              (Formats{{720, 480, V4L2_PIX_FMT_NV12}}));
}

TEST_F(SupportedFormats, ASizeThatMatchesInNeitherDimensionIsNotTaken) {
    EXPECT_EQ(FormatsOf({.formats = {{V4L2_PIX_FMT_NV12, {}, {{{640, 480}, {480, 640}}}}}}), Formats{});
}

TEST_F(SupportedFormats, ARefusedTryIsPassedOver) {
    devices.Fail(DeviceCall::kTryFmt, EIO, 6);
    EXPECT_EQ(FormatsOf({.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}, {704, 576}}}}}),
              (Formats{{704, 576, V4L2_PIX_FMT_NV12}}));
}

TEST_F(SupportedFormats, AnyAnswerOtherThanZeroEndsTheListOfFormats) {
    devices.Answer(DeviceCall::kEnumFmt, 1, 0, 2);
    EXPECT_EQ(FormatsOf({.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}}, {V4L2_PIX_FMT_YUYV, {{640, 480}}}}}),
              (Formats{{640, 480, V4L2_PIX_FMT_NV12}}));
    EXPECT_EQ(devices.CallCount(DeviceCall::kEnumFmt), 2);
}

TEST_F(SupportedFormats, APositiveAnswerToATryIsNotARefusal) {
    // The structure stays as asked, so both dimensions match.
    devices.Answer(DeviceCall::kTryFmt, 1, 0, 3);
    EXPECT_EQ(FormatsOf({.formats = {{V4L2_PIX_FMT_NV12, {}}}}), (Formats{{176, 144, V4L2_PIX_FMT_NV12}}));
}

TEST_F(SupportedFormats, EntriesAreAppendedToWhatIsThere) {
    devices.SetCamera(0, {.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}}}});
    const int descriptor = device::Open("/dev/video0", O_RDONLY);
    Formats entries = {{1, 2, 3}};
    EXPECT_TRUE(enumSupportedFormats(descriptor, entries));
    EXPECT_EQ(entries, (Formats{{1, 2, 3}, {640, 480, V4L2_PIX_FMT_NV12}}));
    device::Close(descriptor);
}

// ---- The choice

constexpr char kNames[][5] = {"NV12", "YV12", "NV21", "YU12", "YUYV", "BGR4", "MJPG"};
constexpr size_t kFormatCount = 7;

uint32_t CodeOf(const std::string& name) {
    uint32_t code = 0;
    for (size_t i = 4; i-- > 0;) {
        code = code << 8 | static_cast<uint8_t>(name[i]);
    }
    return code;
}

// Rows: the choice from the list so far ("-": none). Columns: the next format. Cells: the new choice.
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

// Calls `check` with every list without repetition that begins with `list`. Returns the number of lists.
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

TEST(PixelFormatChoice, EveryListOfFormatsIsChosenFromAccordingToTheTable) {
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

TEST(PixelFormatChoice, EntriesOfOtherSizesAreIgnored) {
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

TEST(PixelFormatChoice, ASizeThatIsOnlyOfferedInAnUnusableFormatIsNotChosen) {
    EXPECT_EQ(ChoosePixelFormat({{640, 480, V4L2_PIX_FMT_YUYV}, {1280, 720, V4L2_PIX_FMT_MJPEG}}, 1280, 720),
              std::nullopt);
}

TEST(PixelFormatChoice, SixFormatsCanBeCapturedIfTheDeviceKeepsThem) {
    for (const char* name : {"NV12", "NV21", "YU12", "BGR4", "YUYV", "YV12"}) {
        EXPECT_TRUE(IsCapturable(CodeOf(name))) << name;
    }
    for (const char* name : {"MJPG", "H264", "RGB3", "BGR3", "AR24", "UYVY", "NV16", "GREY"}) {
        EXPECT_FALSE(IsCapturable(CodeOf(name))) << name;
    }
    EXPECT_FALSE(IsCapturable(0));
}

// ---- The text

TEST(FourCcText, ACodeIsItsFourCharacters) {
    EXPECT_STREQ(FourCcText(V4L2_PIX_FMT_NV12).Get(), "NV12");
    EXPECT_STREQ(FourCcText(V4L2_PIX_FMT_MJPEG).Get(), "MJPG");
    EXPECT_STREQ(FourCcText(0x20203859).Get(), "Y8  ");
}

TEST(FourCcText, BytesThatDoNotPrintAreUnchanged) {
    EXPECT_EQ(std::memcmp(FourCcText(0xFF800107).Get(), "\x07\x01\x80\xFF", 5), 0);
    EXPECT_STREQ(FourCcText(0).Get(), "");
}

}  // namespace
}  // namespace zumod
