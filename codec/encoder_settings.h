// Parameters for opening an encoder: the flags of the creation policy, and numbers that depend on the
// picture's size unless the host's environment properties set them.
//
// Thread rule: plain values; the functions are [any thread].
#pragma once

#include <cstdint>
#include <string>

namespace zumod {

// The flags of the creation policy.
struct EncoderPolicy {
    bool fast_conversion = false;   // enc.rapid.sub: convert colours faster and more coarsely
    bool no_stream_header = false;  // enc.no.stream.header: parameter sets beside the stream, not in it
    bool file_record = false;       // enc.file.record: constant quality instead of a constant bit rate
    bool source_rgb = false;        // enc.source.rgb: accept BGR pictures
};

struct EncoderSettings {
    int64_t bit_rate;  // bits per second, of a stream of 30 pictures per second or more
    int key_interval;  // pictures
    std::string preset;
    int buffer_ms;  // the bit rate is the limit for any time of this length
    int threads;    // that encode slices of one picture at the same time
};

// 0.15 bits per pixel, which the fast presets need for a picture without visible blocks.
int64_t DefaultBitRate(int width, int height);

// 100 ms, and up to a second where the bit rate is below 1.6 Mbit/s.
int64_t DefaultBufferMs(int64_t bit_rate);

// The host's values of kSettingKeys. A property that is not text, or out of range, is logged in one line and
// the default is used.
EncoderSettings ReadEncoderSettings(int width, int height);

}  // namespace zumod
