// H.264 frames that no camera sends, written by hand.
//
// Thread rule: constants; any thread.
#pragma once

#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

// The parameter set of a picture of 16000x16000 pixels.
inline const Bytes kHugePicture = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x33, 0xDA, 0, 0x3E, 0x80, 7, 0xD1, 0x90};
// The same, of which 640x480 pixels are shown.
inline const Bytes kHugePictureCropped = {0,    0, 0,    1,    0x67, 0x42, 0xC0, 0x33, 0xDA, 0,   0x3E,
                                          0x80, 7, 0xD1, 0xE0, 1,    0xE0, 0x18, 0,    0x79, 0x45};
// The parameter set of a picture of 640x480 pixels.
inline const Bytes kUsualPicture = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x33, 0xDA, 2, 0x80, 0xF6, 0x40};
// A second parameter set, and the first 20 grey macroblocks of a key picture. The rest is missing.
inline const Bytes kFirstMacroblocks = {0,    0,    0,    1,    0x68, 0xCE, 0x38, 0x80, 0,
                                        0,    0,    1,    0x65, 0x88, 0x84, 0x93, 0x93, 0x93,
                                        0x93, 0x93, 0x93, 0x93, 0x93, 0x93, 0x93, 0x93, 0x93,
                                        0x93, 0x93, 0x93, 0x93, 0x93, 0x93, 0x93, 0x93, 0xC0};

}  // namespace zumod::testing
