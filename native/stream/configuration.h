// SPDX-License-Identifier: Apache-2.0
// Whether a video has what a decoder needs before its first picture.
#ifndef KESTREL_NATIVE_STREAM_CONFIGURATION_H
#define KESTREL_NATIVE_STREAM_CONFIGURATION_H

#include <cstdint>
#include <span>

#include "native/stream/native_walk.h"

namespace kestrel::stream {

enum class ConfigurationFault : uint64_t { kNone, kNoParameterSets, kNoConfiguration, kNoLayer };

// Of streams without it.
inline constexpr const char* kNoParameterSetsText = "it has no parameter sets";
inline constexpr const char* kNoConfigurationText = "it has no decoder configuration";

// A sentence without a full stop; empty for kNone.
const char* text_of(ConfigurationFault fault);

// Looks for it in the decoder configuration, and in the samples: of H.264 a parameter set of each
// kind (ITU-T H.264, 7.4.1.2.1), of MPEG-4 Visual the header of a video object layer (ISO/IEC
// 14496-2, 6.2.3) or pictures with short headers, which need none. Other media need nothing.
class ConfigurationTest {
  public:
    ConfigurationTest() = default;
    // Of a track: its codec, one of kestrel/isoff.h, and its `avcC` or decoder-specific
    // information.
    ConfigurationTest(int32_t codec, std::span<const uint8_t> configuration);
    // Of a native stream.
    explicit ConfigurationTest(const StreamHeader& header);

    // A sample of the track; `length_size` is that of H.264.
    void take_sample(std::span<const uint8_t> sample, int length_size);

    // A picture in pieces: of H.264 its NAL units that are not empty, of which the first bytes do;
    // of MPEG-4 Visual begin_picture(), then its bytes.
    void take_unit(std::span<const uint8_t> unit);
    void begin_picture();
    void take(std::span<const uint8_t> bytes);

    bool is_complete() const { return fault() == ConfigurationFault::kNone; }
    ConfigurationFault fault() const;

  private:
    enum class Needs { kNothing, kParameterSets, kLayer };

    Needs needs_ = Needs::kNothing;
    bool is_empty_ = true;  // the configuration
    bool has_sequence_set_ = false, has_picture_set_ = false;
    bool has_layer_ = false;
    // The bytes of MPEG-4 Visual that were taken last, and whether the headers of the picture
    // ended.
    uint32_t last_ = 0;
    uint32_t taken_ = 0;
    bool is_after_headers_ = false;
};

}  // namespace kestrel::stream

#endif
