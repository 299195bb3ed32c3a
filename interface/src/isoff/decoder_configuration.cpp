#include <algorithm>
#include <vector>

#include "interface/src/isoff/isoff.h"
#include "kestrel/native.h"
#include "native/orb_native.h"

// Decoder configuration of the sample entries, and the forms in which callers get it.

namespace kestrel {
namespace {

constexpr uint8_t kSequenceSet = 7;  // NAL unit types (ITU-T H.264, table 7-1)
constexpr uint8_t kPictureSet = 8;
constexpr uint8_t kNalType = 0x1F;
constexpr uint8_t kStartCode[] = {0, 0, 0, 1};

// --- 3GPP configuration boxes (3GPP TS 26.244, clause 6) ---

// Vendor and decoder version begin each of them.
iso_track* read_vendor(iso_file* file) {
    iso_track* track = file->current_track;
    if (track == nullptr) return nullptr;
    getID(file, track->vendor);
    track->decoder_version = getbyte(file);
    return track;
}

// --- esds (ISO/IEC 14496-1, 7.2.6) ---

enum DescriptorTag : uint8_t {
    kEsDescriptor = 3,
    kDecoderConfigDescriptor = 4,
    kDecoderSpecificInfo = 5,
};

// Reads descriptors while bytes remain, and hands each body to `read_body(tag)` with the view
// limited to it. 0, or -1 when one claims more than there is.
template <typename ReadBody>
int walk_descriptors(iso_file* file, ReadBody read_body) {
    while (file->moov_left > 0) {
        const uint8_t tag = getbyte(file);
        uint32_t length = 0;
        if (getxlen(file, length) < 0 || length > file->moov_left) return -1;
        const uint32_t behind = file->moov_left - length;
        uint8_t* const end = file->moov_buffer + length;
        file->moov_left = length;
        const int result = read_body(tag);
        file->moov_buffer = end;
        file->moov_left = behind;
        if (result != 0) return result;
    }
    return 0;
}

// The profile and level follow the start code of a visual object sequence (14496-2, 6.2.2).
void keep_visual_level(iso_track* track) {
    constexpr uint32_t kVisualObjectSequence = 0x000001B0;
    const bool has_level = track->dsi_length > 4 && load_be32(track->dsi) == kVisualObjectSequence;
    track->level = has_level ? track->dsi[4] : uint8_t{0};
}

int read_specific_info(iso_file* file, iso_track* track) {
    if (!keep_dsi(track, {file->moov_buffer, file->moov_left})) return -1;
    keep_visual_level(track);
    return 0;
}

int read_decoder_config(iso_file* file, iso_track* track) {
    track->object_type = getbyte(file);
    track->stream_type = getbyte(file) >> 2;
    track->buffer_size = getint24(file);
    track->max_bitrate = getint32(file);
    track->avg_bitrate = getint32(file);
    return walk_descriptors(file, [&](uint8_t tag) {
        return tag == kDecoderSpecificInfo ? read_specific_info(file, track) : 0;
    });
}

int read_es_descriptor(iso_file* file, iso_track* track) {
    if (file->moov_left < 3) return -1;
    skip(file, 3);  // ES ID and flags
    return walk_descriptors(file, [&](uint8_t tag) {
        return tag == kDecoderConfigDescriptor ? read_decoder_config(file, track) : 0;
    });
}

// --- avcC (ISO/IEC 14496-15, 5.2.4.1) ---

struct AvccHeader {
    uint8_t profile, compatibility, level, nal_length_size;
};

// The fixed part in front of the sequence parameter sets.
AvccHeader read_avcc_header(ByteReader& reader) {
    AvccHeader header{};
    reader.u8();  // version
    header.profile = reader.u8();
    header.compatibility = reader.u8();
    header.level = reader.u8();
    header.nal_length_size = static_cast<uint8_t>((reader.u8() & 3) + 1);
    return header;
}

// Visits the sets of one kind. Only the low five bits of the count are taken, for picture parameter
// sets as well, so more than 31 of them are not supported: kept on purpose.
template <typename Visit>
void visit_sets(ByteReader& reader, Visit visit) {
    const uint32_t count = reader.u8() & 0x1F;
    for (uint32_t i = 0; i < count; ++i) {
        const auto set = reader.take(reader.be16());
        if (reader.ok()) visit(set);
    }
}

// The parameter sets of one kind that are not empty, each behind a length as wide as those of the
// stream. Returns how many.
uint32_t append_prefixed_sets(ByteReader& reader, int width, std::vector<uint8_t>& to, bool& fits) {
    uint32_t count = 0;
    visit_sets(reader, [&](std::span<const uint8_t> set) {
        if (set.empty()) return;
        if (width == 1 && set.size() > 0xFF) fits = false;
        ++count;
        for (int i = width - 1; i >= 0; --i) {
            to.push_back(static_cast<uint8_t>(i < 2 ? set.size() >> (8 * i) : 0));
        }
        to.insert(to.end(), set.begin(), set.end());
    });
    return count;
}

void forget_param_sets(iso_track* track) {
    track->sps_count = track->pps_count = 0;
    track->sps_block = track->pps_block = track->param_sets = nullptr;
    track->param_sets_length = 0;
}

void keep_avcc_header(iso_track* track, const AvccHeader& header) {
    track->profile = header.profile;
    track->profile_compat = header.compatibility;
    track->level = header.level;
    track->nal_length_size = header.nal_length_size;
}

// The parameter sets of an `avcC` as a track holds them: the sequence sets, then the picture sets.
struct ParamSets {
    std::vector<uint8_t> bytes;
    size_t sps_length = 0;
    uint32_t sps_count = 0, pps_count = 0;
};

// False when the record does not keep to its length, or a set not to the width of the lengths.
bool take_param_sets(std::span<const uint8_t> avcc, AvccHeader& header, ParamSets& sets) {
    ByteReader reader(avcc);
    header = read_avcc_header(reader);
    bool fits = true;
    sets.sps_count = append_prefixed_sets(reader, header.nal_length_size, sets.bytes, fits);
    sets.sps_length = sets.bytes.size();
    sets.pps_count = append_prefixed_sets(reader, header.nal_length_size, sets.bytes, fits);
    return reader.ok() && fits;
}

// Puts the sets into `block`, which has room for them.
void keep_param_sets(iso_track* track, const ParamSets& sets, uint8_t* block) {
    std::copy(sets.bytes.begin(), sets.bytes.end(), block);
    track->sps_count = sets.sps_count;
    track->pps_count = sets.pps_count;
    track->param_sets = track->sps_block = block;
    track->pps_block = block + sets.sps_length;
    track->param_sets_length = static_cast<uint32_t>(sets.bytes.size());
}

// Makes `avcc` the configuration of a track that is being written; false, and nothing changed, when
// it makes no sense or there is no memory.
bool replace_avcc(iso_track* track, std::span<const uint8_t> avcc) {
    AvccHeader header{};
    ParamSets sets;
    if (!take_param_sets(avcc, header, sets)) return false;
    auto* block = arena_array<uint8_t>(track->file, sets.bytes.size());
    if (block == nullptr || !keep_dsi(track, avcc)) return false;
    keep_avcc_header(track, header);
    keep_param_sets(track, sets, block);
    return true;
}

// A system-allocated copy; null without memory.
unsigned char* hand_over(const std::vector<uint8_t>& bytes) {
    auto* copy = static_cast<unsigned char*>(systemmalloc(std::max<size_t>(bytes.size(), 1)));
    if (copy != nullptr) std::copy(bytes.begin(), bytes.end(), copy);
    return copy;
}

// --- parameter sets with start codes to `avcC` ---

using NalUnit = std::span<const uint8_t>;

struct ParameterSets {
    std::vector<NalUnit> sequence;
    std::vector<NalUnit> picture;

    void add(NalUnit unit) {
        constexpr size_t kMostSequenceSets = 32;
        constexpr size_t kMostPictureSets = 128;
        if (unit.empty()) return;
        const uint8_t type = unit[0] & kNalType;
        if (type == kSequenceSet && sequence.size() < kMostSequenceSets) sequence.push_back(unit);
        if (type == kPictureSet && picture.size() < kMostPictureSets) picture.push_back(unit);
    }
};

// Cuts at each 00 00 01. A unit ends four bytes before the byte that completes the code, so units
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

void append_sets(std::vector<uint8_t>& to, const std::vector<NalUnit>& sets) {
    for (const NalUnit& set : sets) {
        to.push_back(static_cast<uint8_t>(set.size() >> 8));
        to.push_back(static_cast<uint8_t>(set.size()));
        to.insert(to.end(), set.begin(), set.end());
    }
}

// Empty when the sets make no record.
std::vector<uint8_t> make_avcc(const ParameterSets& sets) {
    constexpr size_t kProfileCompatibilityLevel = 4;  // bytes of the first set that are looked at
    constexpr size_t kMostBytes = 256;
    constexpr uint8_t kTwoByteLengths = 0xFD;
    constexpr uint8_t kReservedBits = 0xE0;
    if (sets.sequence.empty() || sets.sequence[0].size() < kProfileCompatibilityLevel) return {};
    const NalUnit first = sets.sequence[0];
    std::vector<uint8_t> record = {1, first[1], first[2], first[3], kTwoByteLengths};
    record.push_back(static_cast<uint8_t>(kReservedBits | sets.sequence.size()));
    append_sets(record, sets.sequence);
    record.push_back(static_cast<uint8_t>(sets.picture.size()));
    append_sets(record, sets.picture);
    if (record.size() > kMostBytes) record.clear();
    return record;
}

}  // namespace

size_t put_start_coded_sets(const iso_track* track, std::span<uint8_t> to) {
    ByteReader reader({track->dsi, track->dsi_length});
    read_avcc_header(reader);
    size_t length = 0;
    const auto put = [&](std::span<const uint8_t> bytes) {
        const auto room = to.subspan(std::min(length, to.size()));
        std::copy_n(bytes.begin(), std::min(bytes.size(), room.size()), room.begin());
        length += bytes.size();
    };
    const auto put_set = [&](std::span<const uint8_t> set) {
        put(kStartCode);
        put(set);
    };
    visit_sets(reader, put_set);
    visit_sets(reader, put_set);
    return length;
}

bool keep_dsi(iso_track* track, std::span<const uint8_t> bytes) {
    if (bytes.size() > track->own->dsi_capacity || track->dsi == nullptr) {
        // The arena takes nothing back, so a configuration that keeps growing must not take a new
        // block each time.
        const size_t capacity =
            std::max<size_t>(bytes.size(), size_t{2} * track->own->dsi_capacity);
        auto* memory = arena_array<uint8_t>(track->file, capacity);
        if (memory == nullptr) return false;
        track->dsi = memory;
        track->own->dsi_capacity = static_cast<uint32_t>(capacity);
    }
    std::copy(bytes.begin(), bytes.end(), track->dsi);
    track->dsi_length = static_cast<uint32_t>(bytes.size());
    return true;
}

int read_damr(iso_file* file, uint32_t) {
    iso_track* track = read_vendor(file);
    if (track == nullptr) return 0;
    track->mode_set = getint16(file);
    track->mode_change_period = getbyte(file);
    track->frames_per_sample = getbyte(file);
    return 0;
}

int read_dawp(iso_file* file, uint32_t) {
    read_vendor(file);
    return 0;
}

int read_d263(iso_file* file, uint32_t) {
    iso_track* track = read_vendor(file);
    if (track == nullptr) return 0;
    track->level = getbyte(file);
    track->profile = getbyte(file);
    return 0;
}

int read_esds(iso_file* file, uint32_t) {
    iso_track* track = file->current_track;
    if (track == nullptr) return 0;
    getint32(file);  // version and flags
    return walk_descriptors(file, [&](uint8_t tag) {
        if (tag == kEsDescriptor) return read_es_descriptor(file, track);
        diagnose("esds: skipping tag %d\n", tag);
        return 0;
    });
}

int read_avcC(iso_file* file, uint32_t) try {
    iso_track* track = file->current_track;
    if (track == nullptr) return 0;
    if (!keep_dsi(track, {file->moov_buffer, file->moov_left})) return -1;
    forget_param_sets(track);
    AvccHeader header{};
    ParamSets sets;
    const bool whole = take_param_sets({track->dsi, track->dsi_length}, header, sets);
    keep_avcc_header(track, header);
    if (!whole) return -1;
    auto* block = arena_array<uint8_t>(track->file, sets.bytes.size());
    if (block == nullptr) return -1;
    keep_param_sets(track, sets, block);
    return 0;
} catch (const std::bad_alloc&) {
    file->own->lacked_memory = 1;
    return -1;
}

}  // namespace kestrel

using namespace kestrel;

uint8_t* isoFFgetDecoderSpecificInfo(iso_track* track, int* length, int prepend) {
    if (track == nullptr) return nullptr;
    if (length != nullptr) *length = static_cast<int>(track->dsi_length);
    if (prepend != 0) {
        track->flags |= iso_track_prepends_dsi;
    } else {
        track->flags &= ~iso_track_prepends_dsi;
    }
    return track->dsi;
}

int isoFFsetDecoderSpecificInfo(iso_track* track, const void* dsi, int length) try {
    if (track == nullptr || dsi == nullptr || length < 1) return -1;
    const std::span bytes(static_cast<const uint8_t*>(dsi), static_cast<size_t>(length));
    if (track->codec == ISO_CODEC_AVC1) return replace_avcc(track, bytes) ? 0 : -1;
    if (!keep_dsi(track, bytes)) return -1;
    keep_visual_level(track);
    return 0;
} catch (const std::bad_alloc&) {
    return -1;
}

int isoFFGetDSIin3GPP(iso_track* track, int, unsigned char** out) {
    if (track == nullptr || track->dsi == nullptr) return -1;
    const size_t length = put_start_coded_sets(track, {});
    *out = static_cast<unsigned char*>(systemmalloc(std::max<size_t>(length, 1)));
    if (*out == nullptr) return -1;
    put_start_coded_sets(track, {*out, length});
    return static_cast<int>(length);
}

void isoFFgetAvccDsi(iso_track* hint, iso_track* media, int payload_type, unsigned char* buffer,
                     int* length) {
    constexpr uint32_t kVideoClock = 90000;
    const bool packets_produced = hint->seq_rebase == 2;
    tel_native state{};
    state.hdr.time = packets_produced ? hint->last_timestamp : hint->rtp_ts_offset;
    state.hdr.seq = packets_produced ? hint->last_seq : hint->rtp_seq_offset & 0xFFFF;
    state.hdr.clock = kVideoClock;
    state.hdr.type = static_cast<uint32_t>(payload_type);
    state.hdr.magic = native_magic;
    state.nal_len_size = media->nal_length_size;
    state.dsi = media->param_sets;
    state.dsi_len = static_cast<int32_t>(media->param_sets_length);
    *length = tel_h264_packetise_dsi(buffer, &state);
    hint->rtp_seq_offset += media->sps_count + media->pps_count;
    if (hint->seq_rebase == 0) hint->seq_rebase = 1;
}

int convertDCI_3gpp_to_ISO(const unsigned char* in, unsigned length, unsigned char** out,
                           int* out_length) try {
    const std::vector<uint8_t> record = make_avcc(cut_units({in, length}));
    if (record.empty()) return 0;
    *out = hand_over(record);
    if (*out == nullptr) return 0;
    *out_length = static_cast<int>(record.size());
    return 1;
} catch (const std::bad_alloc&) {
    return 0;
}
