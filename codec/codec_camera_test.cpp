// What the encoder does to cameras while it looks for a hardware encoder: this program's cameras are virtual.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "codec/video_encoder.h"
#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/picture_pattern.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/work_directory.h"
#include "vcam/testing/preloaded_cameras.h"

namespace zumod::testing {
namespace {

class HardwareLookTest : public LoggingTest {
protected:
    void SetUp() override {
        if (access("/dev/dri/renderD128", F_OK) == 0) {
            GTEST_SKIP() << "this machine may have a hardware encoder";
        }
    }
    void Inject() { cameras.At(0).Inject(vcam::ParseFault("open-busy/1").value()); }
    // Whether nobody has opened the camera since the fault was injected.
    static bool IsStillBusy() {
        const int descriptor = open("/dev/video0", O_RDWR);
        if (descriptor >= 0) {
            close(descriptor);
        }
        return descriptor == -1 && errno == EBUSY;
    }

    // The next open of the camera, by anybody, takes the fault away.
    vcam::PreloadedCameras cameras{"fault=open-busy/1"};
};

TEST_F(HardwareLookTest, DoesNotOpenAnyCameraOnAMachineThatHasOnlyCameras) {
    if (std::filesystem::exists("/sys/class/video4linux")) {
        GTEST_SKIP() << "this machine has V4L2 devices";
    }
    ReferenceLedger ledger;
    const CRefPtr_T<CVideoEncoder> encoder(new CVideoEncoder({}));
    const CRefPtr_T<IZUModData> yes(new CountedData(ledger, kZUModDataBool, {1}));
    ASSERT_TRUE(encoder->SetProperty("zu.codec.property.hardware", yes.Get()));
    const TestPicture picture = Paint(kNv12, {320, 240});
    EXPECT_FALSE(Encoded(*encoder, picture.record, picture.bytes).empty());
    EXPECT_TRUE(IsStillBusy());
}

TEST_F(HardwareLookTest, OpensTheCamerasOnlyForTheFirstEncoderOfTheProcess) {
    // A machine with a device that may be an encoder.
    const WorkDirectory classes;
    std::filesystem::create_directories(classes / "video0/device");
    std::filesystem::create_symlink("../../bus/platform", classes / "video0/device/subsystem");
    V4l2Look look(classes.Path());
    const EncoderSettings settings = ReadEncoderSettings(320, 240);
    const EncoderShape shape{320, 240, AV_PIX_FMT_NV12, 300};
    H264Encoder first;
    EXPECT_FALSE(first.OpenHardware(shape, settings, {}, look));
    EXPECT_FALSE(IsStillBusy()) << "the first encoder looked at every device";
    Inject();
    H264Encoder second;
    EXPECT_FALSE(second.OpenHardware(shape, settings, {}, look));
    EXPECT_TRUE(IsStillBusy());
}

}  // namespace
}  // namespace zumod::testing
