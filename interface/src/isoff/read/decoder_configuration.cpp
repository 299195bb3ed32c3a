// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <vector>

#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/read/decoder_configuration.h"
#include "native/codec/avcc.h"
#include "native/codec/mpeg4_visual.h"

// Decoder configuration in the sample entries, and the forms in which callers get it.

namespace kestrel {
namespace {

// --- 3GPP configuration boxes (3GPP TS 26.244, clause 6) ---

template <typename Columns>
int read_columns(BoxReader& box, Columns columns) {
    ColumnReader reader(box);
    columns(reader, *box.track());
    return 0;
}

// --- esds (ISO/IEC 14496-1, 7.2.6) ---

enum DescriptorTag : uint8_t {
    kEsDescriptor = 3,
    kDecoderConfigDescriptor = 4,
    kDecoderSpecificInfo = 5,
};

// Reads descriptors while bytes remain, and calls `read_body(tag)` for each with the view limited
// to its body. Returns 0, or -1 for a length of more than is left.
template <typename ReadBody>
int walk_descriptors(BoxReader& box, ReadBody read_body) {
    while (box.left() > 0) {
        const uint8_t tag = box.u8();
        uint32_t length = 0;
        if (!box.descriptor_length(length) || length > box.left()) return -1;
        const MovieLimit limit(box.file(), length);
        const int result = read_body(tag);
        if (result != 0) return result;
    }
    return 0;
}

// The profile and level follow the start code of a visual object sequence (14496-2, 6.2.2).
void keep_visual_level(iso_track* track) {
    constexpr uint32_t kStart = 0x00000100 | kVisualObjectSequence;
    const bool has_level = track->dsi_length > 4 && load_be32(track->dsi) == kStart;
    track->level = has_level ? track->dsi[4] : uint8_t{0};
}

int read_specific_info(BoxReader& box, iso_track* track) {
    if (!keep_dsi(track, {box.data(), box.left()})) return -1;
    keep_visual_level(track);
    return 0;
}

int read_decoder_config(BoxReader& box, iso_track* track) {
    track->object_type = box.u8();
    track->stream_type = box.u8() >> 2;
    track->buffer_size = box.u24();
    track->max_bitrate = box.u32();
    track->avg_bitrate = box.u32();
    return walk_descriptors(box, [&](uint8_t tag) {
        return tag == kDecoderSpecificInfo ? read_specific_info(box, track) : 0;
    });
}

int read_es_descriptor(BoxReader& box, iso_track* track) {
    if (box.left() < 3) return -1;
    box.skip(3);  // ES ID and flags
    return walk_descriptors(box, [&](uint8_t tag) {
        return tag == kDecoderConfigDescriptor ? read_decoder_config(box, track) : 0;
    });
}

// --- avcC (ISO/IEC 14496-15, 5.2.4.1) ---

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

// Removes the track's configuration: one that cannot be read counts as none.
void refuse_config(iso_track* track) {
    forget_param_sets(track);
    track->dsi = nullptr;
    track->dsi_length = track->own->dsi_capacity = 0;
    keep_avcc_header(track, {});
    track->own->has_bad_config = 1;
}

// Writes the sets to `block`, which is long enough.
void keep_param_sets(iso_track* track, const ParamSets& sets, uint8_t* block) {
    std::copy(sets.bytes.begin(), sets.bytes.end(), block);
    track->sps_count = sets.sps_count;
    track->pps_count = sets.pps_count;
    track->param_sets = track->sps_block = block;
    track->pps_block = block + sets.sps_length;
    track->param_sets_length = static_cast<uint32_t>(sets.bytes.size());
}

// Makes `avcc` the configuration of a track that is being written. Returns false, with nothing
// changed, for a malformed record and without memory.
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

}  // namespace

bool keep_dsi(iso_track* track, std::span<const uint8_t> bytes) {
    if (bytes.size() > track->own->dsi_capacity || track->dsi == nullptr) {
        // The arena frees nothing, so a configuration that grows repeatedly must not allocate each
        // time.
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

int read_damr(BoxReader& box) {
    return read_columns(box, [](auto& f, auto& track) { damr_columns(f, track); });
}

int read_dawp(BoxReader& box) {
    return read_columns(box, [](auto& f, auto& track) { vendor_columns(f, track); });
}

int read_d263(BoxReader& box) {
    return read_columns(box, [](auto& f, auto& track) { d263_columns(f, track); });
}

int read_esds(BoxReader& box) {
    iso_track* track = box.track();
    box.u32();  // version and flags
    return walk_descriptors(box, [&](uint8_t tag) {
        if (tag == kEsDescriptor) return read_es_descriptor(box, track);
        remark(box.file(), "esds: skipping tag %d\n", tag);
        return 0;
    });
}

int read_avcC(BoxReader& box) try {
    iso_track* track = box.track();
    if (!keep_dsi(track, {box.data(), box.left()})) return -1;
    forget_param_sets(track);
    AvccHeader header{};
    ParamSets sets;
    if (!take_param_sets({track->dsi, track->dsi_length}, header, sets)) {
        const size_t needed = avcc_length({track->dsi, track->dsi_length});
        if (needed > track->dsi_length) {
            remark_end_of_buffer(box.file(), "read_buf", needed);
        } else {
            remark(box.file(), "avcC: a parameter set is too long for its length field\n");
        }
        refuse_config(track);
        return 0;
    }
    track->own->has_bad_config = 0;
    keep_avcc_header(track, header);
    auto* block = arena_array<uint8_t>(track->file, sets.bytes.size());
    if (block == nullptr) return -1;
    keep_param_sets(track, sets, block);
    return 0;
} catch (const std::bad_alloc&) {
    box.file()->own->lacked_memory = 1;
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
    const size_t length = put_start_coded_sets({track->dsi, track->dsi_length}, {});
    *out = static_cast<unsigned char*>(systemmalloc(std::max<size_t>(length, 1)));
    if (*out == nullptr) return -1;
    put_start_coded_sets({track->dsi, track->dsi_length}, {*out, length});
    return static_cast<int>(length);
}

int convertDCI_3gpp_to_ISO(const unsigned char* in, unsigned length, unsigned char** out,
                           int* out_length) try {
    const std::vector<uint8_t> record = make_avcc({in, length});
    if (record.empty()) return 0;
    *out = static_cast<unsigned char*>(systemmalloc(kMaxAvccBytes));
    if (*out == nullptr) return 0;
    std::memset(*out, 0, kMaxAvccBytes);
    std::copy(record.begin(), record.end(), *out);
    *out_length = static_cast<int>(record.size());
    return 1;
} catch (const std::bad_alloc&) {
    return 0;
}
