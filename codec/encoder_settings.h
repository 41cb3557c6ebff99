// How the encoder is to be opened: what the policy asked for, and the numbers that follow from the picture's
// size unless the host's environment properties say otherwise.
//
// Thread rule: a plain value; the functions are [any thread].
#pragma once

#include <cstdint>
#include <string>

namespace zumod {

// Environment properties of the host, all text; read whenever an encoder is opened.
inline constexpr char kEnvBitRate[] = "zu.codec.bitrate";     // bits a second
inline constexpr char kEnvPreset[] = "zu.codec.preset";       // one of the software encoder's presets
inline constexpr char kEnvKeyInterval[] = "zu.codec.keyint";  // pictures from one key frame to the next

// The record does not tell how many pictures a second come: the numbers below are for this many.
inline constexpr int kAssumedRate = 30;

// What the creation policy said.
struct EncoderPolicy {
    bool fast_conversion = false;   // enc.rapid.sub: speed before quality where colours are converted
    bool no_stream_header = false;  // enc.no.stream.header: parameter sets beside the stream, not in it
    bool file_record = false;       // enc.file.record: even quality instead of an even bit rate
    bool source_rgb = false;        // enc.source.rgb: BGR pictures are allowed
};

struct EncoderSettings {
    int64_t bit_rate;  // bits a second
    int key_interval;  // pictures
    std::string preset;
};

// 0.15 bits a pixel: what the fast presets need for a clean picture.
int64_t DefaultBitRate(int width, int height);

// One log line for each property that is no text or a wrong one; the default stands then.
EncoderSettings ReadEncoderSettings(int width, int height);

}  // namespace zumod
