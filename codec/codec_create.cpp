#include "codec/codec_create.h"

#include <dlfcn.h>

#include <new>
#include <string>

#include "codec/video_decoder.h"
#include "codec/video_encoder.h"
#include "common/av_objects.h"
#include "src/module/log.h"
#include "zumod/codec.h"
#include "zumod/policies.h"

namespace zumod {
namespace {

// Keeps libavcodec loaded for the rest of the process. Some libraries that it needs leak memory on every
// load; this way they leak once. A failure changes nothing else.
void KeepLibavcodecLoaded() {
    static const bool kept = [] {
        Dl_info library{};
        if (dladdr(reinterpret_cast<const void*>(&avcodec_version), &library) == 0) {
            return false;
        }
        void* const handle = dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
        return handle != nullptr && dlclose(handle) == 0;
    }();
    static_cast<void>(kept);
}

int CreateEncoder(IZUModCreatePolicy& policy, IZUModInterface** out) {
    EncoderPolicy wanted;
    wanted.fast_conversion = PolicyBool(policy, kPolicyEncRapidSub);
    wanted.no_stream_header = PolicyBool(policy, kPolicyEncNoStreamHeader);
    wanted.file_record = PolicyBool(policy, kPolicyEncFileRecord);
    wanted.source_rgb = PolicyBool(policy, kPolicyEncSourceRgb);
    StoreInterface<IVEncoder>(new CVideoEncoder(wanted), out);
    return 1;
}

int CreateDecoder(IZUModCreatePolicy& policy, IZUModInterface** out) {
    const uint64_t target = PolicyInteger(policy, kPolicyDecTargetAvFormat);
    if (target > kVideoTargetBgr32) {
        ZuModLog(kLogFailure, "[zu-codec] create refused, unknown target format %lu", target);
        return 0;
    }
    auto* screen_buffer = reinterpret_cast<uint8_t*>(PolicyPointer(policy, kPolicyDecScreenBuffer));
    StoreInterface<IVDecoder>(new CVideoDecoder(static_cast<VideoTargetFormat>(target), screen_buffer), out);
    return 1;
}

int Create(IZUModCreatePolicy* policy, IZUModInterface** out) {
    if (policy == nullptr || out == nullptr) {
        ZuModLog(kLogFailure, "[zu-codec] create refused, invalid parameter");
        return 0;
    }
    const std::string name = PolicyText(*policy, kPolicyInterfaceName);
    const bool encoder = IsSameInterfaceName(name, kVideoEncoderName);
    const bool decoder = IsSameInterfaceName(name, kVideoDecoderName);
    if (!encoder && !decoder) {
        ZuModLog(kLogFailure, "[zu-codec] create refused, unknown interface %s", name.c_str());
        return 0;
    }
    const uint64_t version = PolicyInteger(*policy, kPolicyVersion);
    constexpr unsigned kMajorShift = 48;
    if (version >> kMajorShift != kCodecInterfaceVersion >> kMajorShift) {
        ZuModLog(kLogFailure, "[zu-codec] create refused, version %lu of %s is not compatible with %lu",
                 version, name.c_str(), kCodecInterfaceVersion);
        return 0;
    }
    const uint64_t image_type = PolicyInteger(*policy, kPolicyImageType);
    if (image_type != kImageTypeH264) {
        ZuModLog(kLogFailure, "[zu-codec] create refused, unknown image type %lu", image_type);
        return 0;
    }
    KeepLibavcodecLoaded();
    return encoder ? CreateEncoder(*policy, out) : CreateDecoder(*policy, out);
}

}  // namespace

int codec_create(IZUModCreatePolicy* policy, IZUModInterface** out) {
    try {
        return Create(policy, out);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

}  // namespace zumod
