// SPDX-License-Identifier: Apache-2.0
#include "native/codec/avcc.h"

#include <algorithm>

#include "common/byte_reader.h"
#include "native/codec/nal_unit.h"

namespace kestrel {
namespace {

// The fixed part before the sequence parameter sets.
AvccHeader read_avcc_header(ByteReader& reader) {
    AvccHeader header{};
    reader.u8();  // version
    header.profile = reader.u8();
    header.compatibility = reader.u8();
    header.level = reader.u8();
    header.nal_length_size = static_cast<uint8_t>((reader.u8() & 3) + 1);
    return header;
}

// Visits the sets of one kind. Only the low five bits of the count are used, for picture parameter
// sets too, so more than 31 of them are not supported: kept on purpose.
template <typename Visit>
void visit_sets(ByteReader& reader, Visit visit) {
    const uint32_t count = reader.u8() & 0x1F;
    for (uint32_t i = 0; i < count; ++i) {
        const auto set = reader.take(reader.u16());
        if (reader.ok()) visit(set);
    }
}

// Visits the sequence parameter sets of a record, and then the picture parameter sets.
template <typename Visit>
void visit_all_sets(std::span<const uint8_t> avcc, Visit visit) {
    ByteReader reader(avcc);
    read_avcc_header(reader);
    visit_sets(reader, visit);
    visit_sets(reader, visit);
}

// Appends the parameter sets of one kind, empty ones too. Returns their number.
uint32_t append_prefixed_sets(ByteReader& reader, int width, std::vector<uint8_t>& to, bool& fits) {
    uint32_t count = 0;
    visit_sets(reader, [&](std::span<const uint8_t> set) {
        if (width == 1 && set.size() > 0xFF) fits = false;
        ++count;
        append_be(to, set.size(), static_cast<unsigned>(std::max(width, 0)));
        append(to, set);
    });
    return count;
}

struct ParameterSets {
    std::vector<NalUnit> sequence;
    std::vector<NalUnit> picture;

    void add(NalUnit unit) {
        constexpr size_t kMaxSequenceSets = 32;
        constexpr size_t kMaxPictureSets = 128;
        if (unit.empty()) return;
        const uint8_t type = nal_type(unit);
        if (type == kSequenceSet && sequence.size() < kMaxSequenceSets) sequence.push_back(unit);
        if (type == kPictureSet && picture.size() < kMaxPictureSets) picture.push_back(unit);
    }
};

// Splits at each 00 00 01. A unit ends four bytes before the byte that completes the code, so units
// must be separated by four-byte start codes.
ParameterSets cut_units(std::span<const uint8_t> in) {
    ParameterSets sets;
    if (in.size() >= 4 && std::equal(std::begin(kStartCode), std::end(kStartCode), in.begin())) {
        in = in.subspan(4);
    }
    size_t start = 0;
    for (size_t i = 2; i < in.size(); ++i) {
        if (in[i - 2] != 0 || in[i - 1] != 0 || in[i] != 1) continue;
        const size_t counted = i + 1 - start;
        if (counted > 4) sets.add(in.subspan(start, counted - 4));
        start = i + 1;
    }
    sets.add(in.subspan(start));
    return sets;
}

void append_sets(std::vector<uint8_t>& to, std::span<const NalUnit> sets) {
    for (const NalUnit& set : sets) {
        append_be(to, set.size(), 2);
        append(to, set);
    }
}

// Returns nothing when the sets make no record.
std::vector<uint8_t> make_record(std::span<const NalUnit> sequence_sets,
                                 std::span<const NalUnit> picture_sets, int length_size) {
    constexpr size_t kProfileCompatibilityLevel = 4;  // bytes of the first set that are used
    constexpr int kReservedLengthBits = 0xFC;
    constexpr size_t kReservedCountBits = 0xE0;
    if (sequence_sets.empty() || sequence_sets[0].size() < kProfileCompatibilityLevel) return {};
    const NalUnit first = sequence_sets[0];
    std::vector<uint8_t> record = {1, first[1], first[2], first[3]};
    record.push_back(static_cast<uint8_t>(kReservedLengthBits | (length_size - 1)));
    record.push_back(static_cast<uint8_t>(kReservedCountBits | sequence_sets.size()));
    append_sets(record, sequence_sets);
    record.push_back(static_cast<uint8_t>(picture_sets.size()));
    append_sets(record, picture_sets);
    return record;
}

}  // namespace

bool take_param_sets(std::span<const uint8_t> avcc, AvccHeader& header, ParamSets& sets) {
    ByteReader reader(avcc);
    header = read_avcc_header(reader);
    bool fits = true;
    sets.sps_count = append_prefixed_sets(reader, header.nal_length_size, sets.bytes, fits);
    sets.sps_length = sets.bytes.size();
    sets.pps_count = append_prefixed_sets(reader, header.nal_length_size, sets.bytes, fits);
    return reader.ok() && fits;
}

std::vector<NalUnit> parameter_sets(std::span<const uint8_t> avcc) {
    std::vector<NalUnit> sets;
    visit_all_sets(avcc, [&](NalUnit set) { sets.push_back(set); });
    return sets;
}

size_t avcc_length(std::span<const uint8_t> avcc) {
    constexpr size_t kFixedPart = 5;
    constexpr size_t kSetLength = 2;
    ByteReader reader(avcc);
    reader.skip(kFixedPart);
    size_t length = kFixedPart;
    for (int kind = 0; kind < 2; ++kind) {
        ++length;
        for (int left = reader.u8() & 0x1F; left > 0; --left) {
            const uint16_t set = reader.u16();
            reader.skip(set);
            length += kSetLength + set;
        }
    }
    return length;
}

size_t put_start_coded_sets(std::span<const uint8_t> avcc, std::span<uint8_t> to) {
    size_t length = 0;
    const auto put = [&](std::span<const uint8_t> bytes) {
        const auto room = to.subspan(std::min(length, to.size()));
        std::copy_n(bytes.begin(), std::min(bytes.size(), room.size()), room.begin());
        length += bytes.size();
    };
    visit_all_sets(avcc, [&](NalUnit set) {
        put(kStartCode);
        put(set);
    });
    return length;
}

std::vector<uint8_t> make_avcc(std::span<const NalUnit> sequence_sets,
                               std::span<const NalUnit> picture_sets, int length_size) {
    const auto is_too_long = [](NalUnit set) { return set.size() > UINT16_MAX; };
    if (sequence_sets.size() > kMaxAvccSets || picture_sets.size() > kMaxAvccSets ||
        std::any_of(sequence_sets.begin(), sequence_sets.end(), is_too_long) ||
        std::any_of(picture_sets.begin(), picture_sets.end(), is_too_long)) {
        return {};
    }
    return make_record(sequence_sets, picture_sets, length_size);
}

std::vector<uint8_t> make_avcc(std::span<const uint8_t> units) {
    constexpr int kLengthSize = 2;
    const ParameterSets sets = cut_units(units);
    std::vector<uint8_t> record = make_record(sets.sequence, sets.picture, kLengthSize);
    if (record.size() > kMaxAvccBytes) record.clear();
    return record;
}

}  // namespace kestrel
