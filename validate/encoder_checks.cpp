// Checks of a codec's encoder.
#include <dlfcn.h>

#include <climits>
#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/module_directory.h"
#include "validate/checks.h"
#include "validate/module_under_test.h"
#include "validate/pictures.h"

namespace zumod::validate {
namespace {

constexpr int32_t kWidth = 64;
constexpr int32_t kHeight = 48;
constexpr uint64_t kAnySize = UINT32_MAX;
// An encoder may keep so many pictures before its first output.
constexpr int kMostPictures = 3;
// The least peak signal-to-noise ratio of a plane. Two planes that were exchanged have less than 15.
constexpr double kLeastDecibels = 30;

using Bytes = std::vector<uint8_t>;

// An encoder as the camera module creates it.
class EncoderUnderTest {
public:
    explicit EncoderUnderTest(const Module& module) : m_object(module) {
        const CRefPtr_T<IZUModData> yes = CZUModData::FromBool(true);
        m_object.Interface()->SetProperty(kPropertyHardware, yes.Get());
    }

    IVEncoder& operator*() { return *m_object.Encoder(); }

    // One picture; nothing if the encoder has no output for it. Throws Finding if it says otherwise than it
    // does.
    std::optional<Bytes> Encode(const Picture& picture) {
        const CRefPtr_T<EncodeArguments> arguments(new EncodeArguments(picture.bytes, kAnySize));
        m_object.Encoder()->SetInputFormat(&picture.format);
        if (!m_object.Encoder()->Encode(arguments.Get())) {
            return std::nullopt;
        }
        Expect(arguments->IsPrepared(), "a call of PrepareOutput before Encode returns true", "none");
        return arguments->Output();
    }

    // The first output that is not empty, of the test pictures.
    std::optional<Bytes> FirstOutput(std::string_view format, int32_t width, int32_t height) {
        for (int i = 0; i < kMostPictures; ++i) {
            auto output = Encode(TestPicture(format, width, height, i));
            if (output && !output->empty()) {
                m_index = i;
                return output;
            }
        }
        return std::nullopt;
    }
    // Which picture that was.
    int Index() const { return m_index; }

    int64_t Release() { return m_object.Reset(); }

private:
    Object m_object;
    int m_index = 0;
};

struct CodecAtHost {
    explicit CodecAtHost(const Context& context) : module(context) { module.Attach(&host); }

    HostDouble host;
    Module module;
};

// A format that the codec takes. Throws NotApplicable if there is none: enc.encodes reports it.
const char* UsableFormat(const Module& module) {
    for (const char* const format : kFormats) {
        if (EncoderUnderTest(module).FirstOutput(format, kWidth, kHeight)) {
            return format;
        }
    }
    throw NotApplicable{"the encoder takes none of the formats"};
}

// The reference codec's decoder, which is installed with this program.
class ReferenceDecoder {
public:
    ReferenceDecoder() {
        const std::string directory = FindModuleDirectory();
        std::string error;
        void* const library = directory.empty() ? nullptr : LoadFile(directory + "/zu-codec.so", error);
        const EntryPointFunction entry = library != nullptr ? FindEntryPoint(library) : nullptr;
        if (entry == nullptr) {
            throw NotApplicable{"the reference codec, which decodes, is missing"};
        }
        const CRefPtr_T<PolicyDouble> policy(new PolicyDouble);
        policy->Set(kPolicyInterfaceName, CZUModData::FromText(kVideoDecoderName));
        policy->Set(kPolicyVersion, CZUModData::FromInt64(static_cast<int64_t>(kCodecInterfaceVersion)));
        policy->Set(kPolicyImageType, CZUModData::FromInt64(kImageTypeH264));
        policy->Set(kPolicyDecTargetAvFormat, CZUModData::FromInt64(kVideoTargetI420));
        IZUModInterface* created = nullptr;
        if (entry()->create(policy.Get(), &created) != 1) {
            throw NotApplicable{"the reference codec has no decoder"};
        }
        m_decoder = TakeInterface<IVDecoder>(created);
    }

    // The first picture of these bytes. Throws Finding if they cannot be decoded.
    Planes Decode(const Bytes& bytes) {
        const CRefPtr_T<Arguments> arguments(new Arguments);
        arguments->bytes = bytes;
        m_decoder->Decode(arguments.Get());
        // What the decoder still holds.
        arguments->bytes.clear();
        m_decoder->Decode(arguments.Get());
        Expect(arguments->picture.has_value(), "a first output that can be decoded without others",
               "no picture");
        return *arguments->picture;
    }

private:
    struct Arguments final : CCounted_T<IVDecArgs> {
        const void* GetInputData() override { return bytes.data(); }
        uint64_t GetInputSize() override { return bytes.size(); }
        void OnPicture(const VideoDecodedPicture* decoded) override {
            if (picture) {
                return;
            }
            picture.emplace(Planes{decoded->width, decoded->height, {}});
            for (int plane = 0; plane < 3; ++plane) {
                const int32_t step = plane == 0 ? 1 : 2;
                for (int32_t y = 0; y < (decoded->height + step - 1) / step; ++y) {
                    const uint8_t* const row =
                        decoded->planes[plane] + ptrdiff_t{y} * decoded->strides[plane];
                    picture->planes[plane].insert(picture->planes[plane].end(), row,
                                                  row + (decoded->width + step - 1) / step);
                }
            }
        }

        Bytes bytes;
        std::optional<Planes> picture;
    };

    CRefPtr_T<IVDecoder> m_decoder;
};

double Decibels(const Bytes& one, const Bytes& other) {
    double sum = 0;
    for (size_t i = 0; i < one.size(); ++i) {
        const double difference = double{static_cast<double>(one[i])} - static_cast<double>(other[i]);
        sum += difference * difference;
    }
    constexpr double kPeak = 255;
    return sum == 0 ? INFINITY : 10 * std::log10(kPeak * kPeak * static_cast<double>(one.size()) / sum);
}

void ExpectSize(const Planes& planes, int32_t width, int32_t height) {
    const auto text = [](int32_t w, int32_t h) { return std::to_string(w) + "x" + std::to_string(h); };
    Expect(planes.width == width && planes.height == height, "a picture of " + text(width, height),
           text(planes.width, planes.height));
}

}  // namespace

void EncodesOneFormat(const Context& context) {
    const CodecAtHost codec(context);
    for (const char* const format : kFormats) {
        if (EncoderUnderTest(codec.module).FirstOutput(format, kWidth, kHeight)) {
            return;
        }
    }
    throw Finding{"bytes for one of the first three pictures in one of the six formats", "none"};
}

void EncodesAllFormats(const Context& context) {
    const CodecAtHost codec(context);
    for (const char* const format : kFormats) {
        Expect(EncoderUnderTest(codec.module).FirstOutput(format, kWidth, kHeight).has_value(),
               std::string("bytes for pictures in the format ") + format, "none");
    }
}

void DecodesAlone(const Context& context) {
    const CodecAtHost codec(context);
    constexpr const char* kNames[] = {"Y", "U", "V"};
    constexpr int32_t kLargeWidth = 160;
    constexpr int32_t kLargeHeight = 128;
    for (const std::string_view format : kFormats) {
        EncoderUnderTest encoder(codec.module);
        const auto output = encoder.FirstOutput(format, kLargeWidth, kLargeHeight);
        if (!output) {
            continue;
        }
        const Planes decoded = ReferenceDecoder().Decode(*output);
        ExpectSize(decoded, kLargeWidth, kLargeHeight);
        const Planes wanted = TestPlanes(kLargeWidth, kLargeHeight, encoder.Index());
        // The colours of a BGR picture depend on a matrix that the encoder chooses.
        for (size_t plane = 0; plane < 3 && format != "BGR4"; ++plane) {
            const double decibels = Decibels(wanted.planes[plane], decoded.planes[plane]);
            Expect(decibels >= kLeastDecibels,
                   std::string("plane ") + kNames[plane] + " of the " + std::string(format) +
                       " picture with at least 30 dB",
                   std::to_string(decibels) + " dB");
        }
    }
}

void FollowsTheSize(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    EncoderUnderTest encoder(codec.module);
    encoder.FirstOutput(format, kWidth, kHeight);
    const auto output = encoder.FirstOutput(format, kWidth + 32, kHeight + 16);
    Expect(output.has_value(), "bytes for a picture of another size", "none");
    ExpectSize(ReferenceDecoder().Decode(*output), kWidth + 32, kHeight + 16);
}

void TwoEncoders(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    struct Stream {
        explicit Stream(const Module& module) : encoder(module) {}
        EncoderUnderTest encoder;
        int32_t width = kWidth;
        int32_t height = kHeight;
        Bytes output;
    };
    Stream streams[] = {Stream(codec.module), Stream(codec.module)};
    streams[1].width += 32;
    streams[1].height += 16;
    for (int i = 0; i < kMostPictures; ++i) {
        const Picture pictures[] = {TestPicture(format, streams[0].width, streams[0].height, i),
                                    TestPicture(format, streams[1].width, streams[1].height, i)};
        for (size_t one = 0; one < 2; ++one) {
            (*streams[one].encoder).SetInputFormat(&pictures[one].format);
        }
        for (size_t one = 0; one < 2; ++one) {
            const CRefPtr_T<EncodeArguments> arguments(new EncodeArguments(pictures[one].bytes, kAnySize));
            const bool encoded = (*streams[one].encoder).Encode(arguments.Get());
            if (encoded && streams[one].output.empty()) {
                streams[one].output = arguments->Output();
            }
        }
    }
    for (const Stream& stream : streams) {
        Expect(!stream.output.empty(), "bytes from both encoders", "none from one");
        ExpectSize(ReferenceDecoder().Decode(stream.output), stream.width, stream.height);
    }
}

void EncodesOnAnyThread(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    EncoderUnderTest encoder(codec.module);
    for (int thread = 0; thread < 2; ++thread) {
        std::optional<Bytes> output;
        std::thread([&] { output = encoder.FirstOutput(format, kWidth, kHeight); }).join();
        Expect(output.has_value(), "bytes on every thread that encodes", "none on another thread");
    }
}

void ShortOutput(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    size_t size = 0;
    {
        EncoderUnderTest encoder(codec.module);
        size = encoder.FirstOutput(format, kWidth, kHeight)->size();
    }
    // Not more than the smallest picture takes: an encoder need not produce the same bytes each time.
    for (const uint64_t granted : {uint64_t{0}, uint64_t{1}, uint64_t{5}}) {
        EncoderUnderTest encoder(codec.module);
        for (int i = 0; i < kMostPictures && size > granted; ++i) {
            const Picture picture = TestPicture(format, kWidth, kHeight, i);
            const CRefPtr_T<EncodeArguments> arguments(new EncodeArguments(picture.bytes, granted));
            (*encoder).SetInputFormat(&picture.format);
            const bool encoded = (*encoder).Encode(arguments.Get());
            Expect(!encoded, "false if PrepareOutput grants only " + std::to_string(granted) + " bytes",
                   "true");
        }
    }
}

void ReadsInsideTheInput(const Context& context) {
    const CodecAtHost codec(context);
    for (const char* const format : kFormats) {
        for (const int32_t padding : {0, 2, 34}) {
            const Picture whole = TestPicture(format, kWidth, kHeight, 0, padding);
            for (const size_t size :
                 {whole.bytes.size(), whole.bytes.size() - 1, whole.bytes.size() / 2, size_t{1}, size_t{0}}) {
                EncoderUnderTest encoder(codec.module);
                Picture cut = whole;
                cut.bytes.resize(size);
                encoder.Encode(cut);
            }
        }
    }
}

void AnySize(const Context& context) {
    const CodecAtHost codec(context);
    const struct {
        int32_t width, height, stride, bits;
    } records[] = {{0, 0, 0, 8},
                   {1, 1, 1, 8},
                   {1, 48, 1, 8},
                   {3, 3, 3, 8},
                   {17, 9, 17, 8},
                   {64, 48, 0, 0},
                   {64, 48, -64, 8},
                   {-64, 48, 64, 8},
                   {64, -48, 64, 8},
                   {64, 48, INT_MAX, 8},
                   {INT_MAX, INT_MAX, INT_MAX, INT_MAX},
                   {INT_MIN, INT_MIN, INT_MIN, INT_MIN},
                   {65536, 65536, 65536, 8}};
    for (const char* const format : kFormats) {
        const Picture usual = TestPicture(format, kWidth, kHeight);
        EncoderUnderTest encoder(codec.module);
        for (const auto& record : records) {
            Picture picture = usual;
            picture.format = {record.width, record.height, record.stride, record.bits, usual.format.format};
            encoder.Encode(picture);
        }
    }
    // A format that nobody has.
    Picture unknown = TestPicture("NV12", kWidth, kHeight);
    unknown.format.format = VideoFormatCode("zzzz");
    EncoderUnderTest(codec.module).Encode(unknown);
}

void InputNotKept(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    EncoderUnderTest encoder(codec.module);
    // All of them exist until the end, so that no memory gets the address of another.
    std::vector<CRefPtr_T<EncodeArguments>> calls;
    for (int i = 0; i < 2 * kMostPictures; ++i) {
        const Picture picture = TestPicture(format, kWidth, kHeight, i);
        calls.emplace_back(new EncodeArguments(picture.bytes, kAnySize));
        (*encoder).SetInputFormat(&picture.format);
        (*encoder).Encode(calls.back().Get());
        calls.back()->ForbidInput();
    }
}

void ArgumentsReleased(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    EncoderUnderTest encoder(codec.module);
    const Picture picture = TestPicture(format, kWidth, kHeight);
    const CRefPtr_T<EncodeArguments> arguments(new EncodeArguments(picture.bytes, kAnySize));
    (*encoder).SetInputFormat(&picture.format);
    (*encoder).Encode(arguments.Get());
    encoder.Release();
    ExpectEqual("the number of references to the arguments after the encoder's end", 1, CountOf(*arguments));
}

void WithoutFormat(const Context& context) {
    const CodecAtHost codec(context);
    EncoderUnderTest encoder(codec.module);
    const CRefPtr_T<EncodeArguments> arguments(new EncodeArguments(Bytes(64, 1), kAnySize));
    Expect(!(*encoder).Encode(arguments.Get()), "false for a picture without a format", "true");
}

void OnePerPicture(const Context& context) {
    const CodecAtHost codec(context);
    const char* const format = UsableFormat(codec.module);
    EncoderUnderTest encoder(codec.module);
    for (int i = 0; i < 5; ++i) {
        const auto output = encoder.Encode(TestPicture(format, kWidth, kHeight, i));
        Expect(output && !output->empty(), "bytes for each picture at once",
               "none for picture " + std::to_string(i));
    }
}

}  // namespace zumod::validate
