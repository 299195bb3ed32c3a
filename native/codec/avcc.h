// SPDX-License-Identifier: Apache-2.0
// The decoder configuration record of H.264, `avcC` (ISO/IEC 14496-15, 5.2.4.1).
#ifndef KESTREL_CODEC_AVCC_H
#define KESTREL_CODEC_AVCC_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "native/codec/nal_unit.h"

namespace kestrel {

struct AvccHeader {
    uint8_t profile, compatibility, level, nal_length_size;
};

// The parameter sets of an `avcC` as a track stores them: the sequence sets, then the picture sets,
// each after a length that is as wide as the lengths in the stream.
struct ParamSets {
    std::vector<uint8_t> bytes;
    size_t sps_length = 0;
    uint32_t sps_count = 0, pps_count = 0;
};

// False when the record is malformed or a set does not fit the width of the lengths.
bool take_param_sets(std::span<const uint8_t> avcc, AvccHeader& header, ParamSets& sets);

// Returns the sequence sets and then the picture sets of a record, as far as they are present.
std::vector<NalUnit> parameter_sets(std::span<const uint8_t> avcc);

// Returns the length of a record by its counts and lengths, as far as they are present.
size_t avcc_length(std::span<const uint8_t> avcc);

// Writes the parameter sets of a record to `to`, each after a start code, as far as they fit.
// Returns the length of all.
size_t put_start_coded_sets(std::span<const uint8_t> avcc, std::span<uint8_t> to);

// Sequence sets, or picture sets, of a record; readers count them in five bits.
inline constexpr size_t kMaxAvccSets = 31;

// Makes a record of parameter sets for NAL unit lengths of `length_size` bytes. Returns nothing
// without a sequence parameter set that has profile and level, and for too many or too long sets.
std::vector<uint8_t> make_avcc(std::span<const NalUnit> sequence_sets,
                               std::span<const NalUnit> picture_sets, int length_size);

// Limit of a record made of start-coded sets.
inline constexpr size_t kMaxAvccBytes = 256;

// Makes a record of parameter sets that are separated by start codes 00 00 00 01. Returns nothing
// when they make none, or one of more than kMaxAvccBytes.
std::vector<uint8_t> make_avcc(std::span<const uint8_t> units);

}  // namespace kestrel

#endif
