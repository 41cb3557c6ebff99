// What the encoder does to cameras while it looks for a hardware encoder: this program's cameras are virtual.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "codec/video_encoder.h"
#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/picture_pattern.h"
#include "tests/support/doubles/recording_host.h"
#include "vcam/testing/preloaded_cameras.h"

namespace zumod::testing {
namespace {

// Opens an encoder that may use hardware.
void EncodeOnePicture() {
    ReferenceLedger ledger;
    const CRefPtr_T<CVideoEncoder> encoder(new CVideoEncoder({}));
    const CRefPtr_T<IZUModData> yes(new CountedData(ledger, kZUModDataBool, {1}));
    ASSERT_TRUE(encoder->SetProperty("zu.codec.property.hardware", yes.Get()));
    const TestPicture picture = Paint(kNv12, {320, 240});
    EXPECT_FALSE(Encoded(*encoder, picture.record, picture.bytes).empty());
}

class HardwareLookTest : public LoggingTest {};

TEST_F(HardwareLookTest, OpensTheCamerasOnlyForTheFirstEncoderOfTheProcess) {
    if (access("/dev/dri/renderD128", F_OK) == 0) {
        GTEST_SKIP() << "this machine may have a hardware encoder";
    }
    // The next open of the camera, by anybody, takes the fault away.
    vcam::PreloadedCameras cameras{"fault=open-busy/1"};
    EncodeOnePicture();
    const int free = open("/dev/video0", O_RDWR);
    EXPECT_GE(free, 0) << "the first encoder looked at every device";
    close(free);
    cameras.At(0).Inject(vcam::ParseFault("open-busy/1").value());
    EncodeOnePicture();
    EXPECT_EQ(open("/dev/video0", O_RDWR), -1) << "nobody has opened the camera since";
    EXPECT_EQ(errno, EBUSY);
}

}  // namespace
}  // namespace zumod::testing
