// SPDX-License-Identifier: Apache-2.0
#include "native/stream/configuration.h"

#include <algorithm>

#include "kestrel/isoff.h"
#include "native/codec/avcc.h"
#include "native/codec/h264_units.h"
#include "native/codec/mpeg4_visual.h"
#include "native/stream/plausible.h"

namespace kestrel::stream {
namespace {

// Calls visit(unit) for what follows each start code, up to the end of the bytes.
template <typename Visit>
void for_each_start(std::span<const uint8_t> bytes, Visit visit) {
    for (size_t at = 0; at + kStartCode.size() < bytes.size(); ++at) {
        if (std::equal(kStartCode.begin(), kStartCode.end(), &bytes[at]))
            visit(bytes.subspan(at + kStartCode.size()));
    }
}

}  // namespace

const char* text_of(ConfigurationFault fault) {
    switch (fault) {
        case ConfigurationFault::kNoParameterSets:
            return kNoParameterSetsText;
        case ConfigurationFault::kNoConfiguration:
            return kNoConfigurationText;
        case ConfigurationFault::kNoLayer:
            return "its decoder configuration has no video object layer";
        default:
            return "";
    }
}

ConfigurationTest::ConfigurationTest(int32_t codec, std::span<const uint8_t> configuration)
    : is_empty_(configuration.empty()) {
    if (codec == ISO_CODEC_AVC1) {
        needs_ = Needs::kParameterSets;
        for (const NalUnit set : parameter_sets(configuration)) {
            if (!set.empty()) take_unit(set);
        }
    } else if (codec == ISO_CODEC_MP4V) {
        needs_ = Needs::kLayer;
        begin_picture();
        take(configuration);
    }
}

ConfigurationTest::ConfigurationTest(const StreamHeader& header)
    : is_empty_(header.config.empty()) {
    if (header.medium == Medium::kH264) {
        needs_ = Needs::kParameterSets;
        for_each_start(header.config, [this](auto unit) { take_unit(unit); });
    } else if (header.medium == Medium::kMpeg4) {
        needs_ = Needs::kLayer;
        begin_picture();
        take(header.config);
    }
}

void ConfigurationTest::take_sample(std::span<const uint8_t> sample, int length_size) {
    if (is_complete()) return;
    if (needs_ == Needs::kLayer) {
        begin_picture();
        take(sample);
        return;
    }
    NalUnits units(sample, length_size);
    for (NalUnit unit; units.next(unit);)
        take_unit(unit);
}

void ConfigurationTest::take_unit(std::span<const uint8_t> unit) {
    if (!is_nal_unit(unit)) return;
    has_sequence_set_ = has_sequence_set_ || nal_type(unit) == kSequenceSet;
    has_picture_set_ = has_picture_set_ || nal_type(unit) == kPictureSet;
}

void ConfigurationTest::begin_picture() {
    last_ = ~0U;
    taken_ = 0;
    is_after_headers_ = false;
}

void ConfigurationTest::take(std::span<const uint8_t> bytes) {
    constexpr uint32_t kCode = 3, kCodeBits = 0xFF'FFFF;
    constexpr uint32_t kShortHeader = 0x80, kShortHeaderBits = 0xFF'FFFC;
    for (const uint8_t byte : bytes) {
        if (is_after_headers_ || has_layer_) return;
        last_ = last_ << 8 | byte;
        if (++taken_ == kCode) has_layer_ = (last_ & kShortHeaderBits) == kShortHeader;
        if ((last_ >> 8 & kCodeBits) != 1) continue;
        has_layer_ = byte >= kFirstLayer && byte <= kLastLayer;
        is_after_headers_ = byte == kVop;
    }
}

ConfigurationFault ConfigurationTest::fault() const {
    switch (needs_) {
        case Needs::kParameterSets:
            return has_sequence_set_ && has_picture_set_ ? ConfigurationFault::kNone
                                                         : ConfigurationFault::kNoParameterSets;
        case Needs::kLayer:
            if (has_layer_) return ConfigurationFault::kNone;
            return is_empty_ ? ConfigurationFault::kNoConfiguration : ConfigurationFault::kNoLayer;
        default:
            return ConfigurationFault::kNone;
    }
}

}  // namespace kestrel::stream
