// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string_view>

#include "common/bytes.h"
#include "interface/src/isoff/record/box_columns.h"
#include "interface/src/isoff/write/boxes.h"
#include "interface/src/isoff/write/copied_boxes.h"
#include "interface/src/isoff/write/sample_provider.h"
#include "interface/src/isoff/write/writer.h"

// The boxes that the writer makes (ISO/IEC 14496-12; 3GPP TS 26.244 for the sample entries). Each
// is described once: the same lines count its bytes and write them.

namespace kestrel {
namespace {

constexpr uint32_t kBoxHeader = 8;
constexpr uint32_t kPlainText = 72;  // dots per inch

// A box as it is put together. Bytes that do not fit are counted only.
class BoxBody {
  public:
    BoxBody(Pass pass, std::span<uint8_t> to, const char* type) : pass_(pass), to_(to) {
        u32(0);  // the size, known at the end
        id(type);
    }

    void u8(uint32_t value) {
        if (fits(1)) *here() = static_cast<uint8_t>(value);
        position_ += 1;
    }
    void u16(uint32_t value) {
        u8(value >> 8);
        u8(value);
    }
    void u24(uint32_t value) {
        u8(value >> 16);
        u16(value);
    }
    void u32(uint32_t value) {
        if (fits(4)) store_be32(here(), value);
        position_ += 4;
    }
    void u64(uint64_t value) {
        u32(static_cast<uint32_t>(value >> 32));
        u32(static_cast<uint32_t>(value));
    }
    // Four characters; a shorter code, as of a record that was never filled, ends in zeros.
    void id(const char* code) {
        const size_t length = strnlen(code, 4);
        for (size_t i = 0; i < 4; ++i)
            u8(i < length ? static_cast<uint8_t>(code[i]) : 0);
    }
    void bytes(const void* data, size_t count) {
        if (fits(count) && count != 0) std::memcpy(here(), data, count);
        position_ += count;
    }
    void zeros(size_t count) {
        for (size_t i = 0; i < count; ++i)
            u8(0);
    }
    void version_and_flags(uint32_t version, uint32_t flags) { u32(version << 24 | flags); }

    // A box inside this one.
    template <typename Writer, typename Record>
    void child(Writer writer, Record* record) {
        position_ += writer(pass_, rest(), record);
    }

    uint64_t finish() {
        if (pass_ == kWritePass && to_.size() >= kBoxHeader) {
            store_be32(to_.data(), static_cast<uint32_t>(position_));
        }
        return position_;
    }

  private:
    bool fits(size_t count) const {
        return pass_ == kWritePass && position_ <= to_.size() && count <= to_.size() - position_;
    }
    uint8_t* here() const { return to_.data() + static_cast<size_t>(position_); }
    std::span<uint8_t> rest() const {
        return position_ <= to_.size() ? to_.subspan(static_cast<size_t>(position_))
                                       : std::span<uint8_t>();
    }

    Pass pass_;
    std::span<uint8_t> to_;
    uint64_t position_ = 0;
};

// Puts the columns of a box (record/box_columns.h).
class ColumnWriter {
  public:
    explicit ColumnWriter(BoxBody& box) : box_(box) {}

    void u8(uint32_t value) { box_.u8(value); }
    void u16(uint32_t value) { box_.u16(value); }
    void u16(int32_t value) { box_.u16(static_cast<uint32_t>(value)); }
    void u32(uint32_t value) { box_.u32(value); }
    void u32(int32_t value) { box_.u32(static_cast<uint32_t>(value)); }
    void time(uint64_t value, bool wide) {
        wide ? box_.u64(value) : box_.u32(static_cast<uint32_t>(value));
    }
    void time(int64_t value, bool wide) { time(static_cast<uint64_t>(value), wide); }
    void id(const char* code) { box_.id(code); }
    void reserved(uint32_t count) { box_.zeros(count); }
    void constant16(uint32_t value) { box_.u16(value); }
    void constant32(uint32_t value) { box_.u32(value); }

  private:
    BoxBody& box_;
};

// Puts an entry of a table.
template <typename Entry>
void put(BoxBody& box, const Entry& entry) {
    ColumnWriter writer(box);
    columns(writer, entry);
}

// A box that is written as it was read.
uint64_t write_copied(Pass pass, std::span<uint8_t> to, const std::span<const uint8_t>* box) {
    if (pass == kWritePass && box->size() <= to.size()) {
        std::copy(box->begin(), box->end(), to.begin());
    }
    return box->size();
}

bool is_hint(const iso_track* track) {
    return track->codec == ISO_CODEC_RTP || track->codec == ISO_CODEC_SRTP;
}

// --- the check of the two passes ---

enum Table { kSttsTable, kCttsTable, kStszTable, kStssTable, kSbgpTable };

// Keeps what the first pass measured; false when the second came to something else.
bool passes_agree(Pass pass, iso_track* track, Table table, uint64_t size) {
    if (pass == kCountPass) track->own->counted_sizes[table] = size;
    return track->own->counted_sizes[table] == size;
}

int shown(uint64_t number) {
    return static_cast<int>(number);
}

// --- decoder configuration (3GPP TS 26.244, clause 6; ISO/IEC 14496-14 and -15) ---

uint64_t write_damr(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "damr");
    ColumnWriter writer(box);
    damr_columns(writer, *track);
    return box.finish();
}

uint64_t write_dawp(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "dawp");
    ColumnWriter writer(box);
    vendor_columns(writer, *track);
    return box.finish();
}

uint64_t write_d263(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "d263");
    ColumnWriter writer(box);
    d263_columns(writer, *track);
    return box.finish();
}

uint64_t write_avcC(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "avcC");
    box.bytes(track->dsi, track->dsi_length);
    return box.finish();
}

// Tag and length of a descriptor (ISO/IEC 14496-1, 8.3.3); the length takes four bytes always.
constexpr uint32_t kDescriptorHeader = 5;

void put_descriptor(BoxBody& box, uint8_t tag, uint32_t length) {
    box.u8(tag);
    for (const unsigned shift : {21U, 14U, 7U})
        box.u8((length >> shift & 0x7F) | 0x80);
    box.u8(length & 0x7F);
}

uint64_t write_esds(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    constexpr uint8_t kEs = 3, kDecoderConfig = 4, kSpecificInfo = 5, kSyncLayer = 6;
    constexpr uint8_t kForMp4 = 2;  // predefined sync layer configuration
    const uint32_t info = track->dsi_length == 0 ? 0 : kDescriptorHeader + track->dsi_length;
    const uint32_t config = 13 + info;
    const uint32_t sync = 1;
    BoxBody box(pass, to, "esds");
    box.version_and_flags(0, 0);
    put_descriptor(box, kEs, 3 + kDescriptorHeader + config + kDescriptorHeader + sync);
    box.u16(0);  // ES ID: that of the track stands for it
    box.u8(0);   // flags and priority
    put_descriptor(box, kDecoderConfig, config);
    box.u8(track->object_type);
    box.u8(static_cast<uint32_t>(track->stream_type) << 2 | 1);  // not upstream, reserved
    box.u24(track->buffer_size);
    box.u32(track->max_bitrate);
    box.u32(track->avg_bitrate);
    if (info != 0) {
        put_descriptor(box, kSpecificInfo, track->dsi_length);
        box.bytes(track->dsi, track->dsi_length);
    }
    put_descriptor(box, kSyncLayer, sync);
    box.u8(kForMp4);
    return box.finish();
}

// --- sample entries ---

// Puts what every entry begins with; and all of one that was read, in which case it is true.
bool begin_entry(BoxBody& box, const iso_track* track) {
    constexpr uint32_t kReserved = 6, kCommonPart = 8;
    box.zeros(kReserved);
    box.u16(1);  // data reference index
    if (track->own->entry == nullptr || track->own->entry_length < kCommonPart) return false;
    box.bytes(track->own->entry + kCommonPart, track->own->entry_length - kCommonPart);
    return true;
}

using ConfigWriter = uint64_t (*)(Pass, std::span<uint8_t>, const iso_track*);

uint64_t write_visual_entry(Pass pass, std::span<uint8_t> to, const iso_track* track,
                            const char* type, ConfigWriter config) {
    constexpr uint32_t kNoColourTable = 0xFFFF;
    constexpr uint32_t kColour = 24;
    constexpr size_t kCompressorName = 32;
    BoxBody box(pass, to, type);
    if (begin_entry(box, track)) return box.finish();
    box.zeros(16);  // pre-defined and reserved
    box.u16(track->width);
    box.u16(track->height);
    box.u32(track->horiz_resolution != 0 ? track->horiz_resolution : kPlainText << 16);
    box.u32(track->vert_resolution != 0 ? track->vert_resolution : kPlainText << 16);
    box.u32(0);
    box.u16(track->own->frame_count != 0 ? track->own->frame_count : 1);
    box.zeros(kCompressorName);
    box.u16(track->own->depth != 0 ? track->own->depth : kColour);
    box.u16(kNoColourTable);
    box.child(config, track);
    return box.finish();
}

uint64_t write_audio_entry(Pass pass, std::span<uint8_t> to, const iso_track* track,
                           const char* type, ConfigWriter config) {
    constexpr uint32_t kChannels = 2, kSampleBits = 16;  // whatever is coded (26.244, 6.5)
    BoxBody box(pass, to, type);
    if (begin_entry(box, track)) return box.finish();
    box.zeros(8);
    box.u16(track->channel_count != 0 ? track->channel_count : kChannels);
    box.u16(track->sample_bits != 0 ? track->sample_bits : kSampleBits);
    box.u32(0);
    box.u16(track->timescale <= UINT16_MAX ? track->timescale : 0);
    box.u16(0);
    box.child(config, track);
    return box.finish();
}

uint64_t write_tims(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "tims");
    ColumnWriter writer(box);
    tims_columns(writer, *track);
    return box.finish();
}

void put_value_box(BoxBody& box, const char* type, uint32_t value) {
    box.u32(kBoxHeader + 4);
    box.id(type);
    box.u32(value);
}

// ISO/IEC 14496-12, 9.1.2; the protected one is not given by its reader, nor here, what its
// `schm` and `schi` hold.
uint64_t write_hint_entry(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const bool is_srtp = track->codec == ISO_CODEC_SRTP;
    BoxBody box(pass, to, is_srtp ? "srtp" : "rtp ");
    if (begin_entry(box, track)) return box.finish();
    box.u16(track->rtp_hint_version != 0 ? track->rtp_hint_version : 1);
    box.u16(track->rtp_highest_compat != 0 ? track->rtp_highest_compat : 1);
    box.u32(track->rtp_max_packet);
    box.child(write_tims, track);
    if (track->has_ts_offset) put_value_box(box, "tsro", track->rtp_ts_offset);
    if (track->has_seq_offset) put_value_box(box, "snro", track->rtp_seq_offset);
    return box.finish();
}

uint64_t write_entry(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    switch (track->codec) {
        case ISO_CODEC_MP4V:
            return write_visual_entry(pass, to, track, "mp4v", write_esds);
        case ISO_CODEC_MP4A:
            return write_audio_entry(pass, to, track, "mp4a", write_esds);
        case ISO_CODEC_S263:
            return write_visual_entry(pass, to, track, "s263", write_d263);
        case ISO_CODEC_SAMR:
            return write_audio_entry(pass, to, track, "samr", write_damr);
        case ISO_CODEC_AVC1:
            return write_visual_entry(pass, to, track, "avc1", write_avcC);
        case ISO_CODEC_SAWB:
            return write_audio_entry(pass, to, track, "sawb", write_damr);
        case ISO_CODEC_SAWP:
            return write_audio_entry(pass, to, track, "sawp", write_dawp);
        case ISO_CODEC_RTP:
        case ISO_CODEC_SRTP:
            return write_hint_entry(pass, to, track);
        default:
            return 0;
    }
}

uint64_t write_copied_entry(Pass pass, std::span<uint8_t> to,
                            const std::span<const uint8_t>* entry) {
    constexpr size_t kDataReference = 14;  // where its index is (8.5.2.2)
    constexpr uint16_t kThisFile = 1;
    const uint64_t size = write_copied(pass, to, entry);
    if (pass == kWritePass && size <= to.size() && size >= kDataReference + 2) {
        store_be16(to.data() + kDataReference, kThisFile);
    }
    return size;
}

uint64_t write_copied_stsd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const auto& entries = track->own->copied->sample_entries;
    BoxBody box(pass, to, "stsd");
    box.version_and_flags(0, 0);
    box.u32(static_cast<uint32_t>(entries.size()));
    for (const std::span<const uint8_t>& entry : entries)
        box.child(write_copied_entry, &entry);
    return box.finish();
}

uint64_t write_stsd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr && !copied->sample_entries.empty()) {
        return write_copied_stsd(pass, to, track);
    }
    const bool has_entry = write_entry(kCountPass, {}, track) != 0;
    BoxBody box(pass, to, "stsd");
    box.version_and_flags(0, 0);
    box.u32(has_entry ? 1 : 0);
    box.child(write_entry, track);
    return box.finish();
}

// --- sample tables ---

// Puts a pair of run length and value for each run of samples with the same value.
template <typename Entry, typename Value>
void put_value_runs(BoxBody& box, const iso_track* track, Value value) {
    for (SampleWalk sample(track); !sample.at_end();) {
        const auto first = value(sample.figures());
        uint32_t count = 0;
        for (; !sample.at_end() && value(sample.figures()) == first; sample.next())
            ++count;
        put(box, Entry{count, first});
    }
}

bool has_cts_offsets(const iso_track* track) {
    const SampleWalk first(track);
    return track->ctts_count > 1 || (!first.at_end() && first.figures().cts_offset != 0);
}

// Visits the runs whose chunks hold another number of samples than the chunk before, or samples of
// another description.
template <typename Visit>
void visit_chunk_kinds(const iso_track* track, Visit visit) {
    uint32_t chunk = 0;
    const iso_run* last = nullptr;
    for (const iso_run* run = track->own->first_run; run != nullptr; run = run->next) {
        ++chunk;
        const bool is_alike = last != nullptr && run->samples == last->samples &&
                              run->description == last->description;
        if (!is_alike) visit(chunk, *run);
        last = run;
    }
}

uint64_t write_stsc(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    uint32_t kinds = 0;
    visit_chunk_kinds(track, [&](uint32_t, const iso_run&) { ++kinds; });
    BoxBody box(pass, to, "stsc");
    box.version_and_flags(0, 0);
    box.u32(kinds);
    visit_chunk_kinds(track, [&](uint32_t first_chunk, const iso_run& run) {
        put(box, iso_stsc_entry{first_chunk, run.samples, run.description});
    });
    return box.finish();
}

uint64_t write_stco(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "stco");
    box.version_and_flags(0, 0);
    box.u32(track->own->run_count);
    for (const iso_run* run = track->own->first_run; run != nullptr; run = run->next)
        put(box, iso_chunk{track->file->own->media_base + run->start, 0});
    return box.finish();
}

uint64_t write_sgpd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "sgpd");
    box.version_and_flags(0, 0);
    box.id(track->sgpd_type);
    box.u32(track->sgpd_count);
    for (const iso_sgpd_entry* entry = track->sgpd_list; entry != nullptr; entry = entry->next) {
        box.u16(entry->count);
        for (const iso_sgpd_record& record : std::span(entry->records, entry->count)) {
            for (const uint32_t word : record.words)
                box.u32(word);
        }
    }
    return box.finish();
}

uint64_t write_stbl(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stbl");
    box.child(write_stts, track);
    box.child(write_stsd, track);
    if (has_cts_offsets(track)) box.child(write_ctts, track);
    box.child(write_stsz, track);
    box.child(write_stsc, track);
    box.child(write_stco, track);
    if (track->sync_samples != nullptr) box.child(write_stss, track);
    // Groups of no type could not be distinguished from others.
    const bool has_groups = track->sgpd_type[0] != '\0';
    if (has_groups && track->sbgp_list != nullptr) box.child(write_sbgp, track);
    if (has_groups && track->sgpd_list != nullptr) box.child(write_sgpd, track);
    if (track->own->copied != nullptr) {
        for (const std::span<const uint8_t>& group : track->own->copied->groups)
            box.child(write_copied, &group);
    }
    return box.finish();
}

// --- media ---

uint64_t write_dref(Pass pass, std::span<uint8_t> to, const iso_track*) {
    constexpr uint32_t kSameFile = 1;
    BoxBody box(pass, to, "dref");
    box.version_and_flags(0, 0);
    box.u32(1);
    box.u32(kBoxHeader + 4);
    box.id("url ");
    box.version_and_flags(0, kSameFile);
    return box.finish();
}

uint64_t write_dinf(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "dinf");
    box.child(write_dref, track);
    return box.finish();
}

uint64_t write_hmhd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "hmhd");
    box.version_and_flags(0, 0);
    box.u16(std::min<uint32_t>(track->own->max_pdu, UINT16_MAX));
    box.u16(std::min<uint32_t>(track->own->avg_pdu, UINT16_MAX));
    box.u32(track->max_bitrate);
    box.u32(track->avg_bitrate);
    box.u32(0);
    return box.finish();
}

// The header that goes with the handler's first letter; none for other media.
uint64_t write_media_header(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr && !copied->media_header.empty()) {
        return write_copied(pass, to, &copied->media_header);
    }
    const char handler = track->handler[0];
    if (handler == 'h') return write_hmhd(pass, to, track);
    if (handler != 's' && handler != 't' && handler != 'v') return 0;
    BoxBody box(pass, to, handler == 's' ? "smhd" : handler == 't' ? "nmhd" : "vmhd");
    box.version_and_flags(0, handler == 'v' ? 1 : 0);
    if (handler == 's') box.u32(0);    // balance
    if (handler == 'v') box.zeros(8);  // graphics mode and colour
    return box.finish();
}

uint64_t write_minf(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "minf");
    box.child(write_media_header, track);
    box.child(write_dinf, track);
    box.child(write_stbl, track);
    return box.finish();
}

uint64_t write_mdhd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "mdhd");
    box.version_and_flags(0, 0);
    ColumnWriter writer(box);
    mdhd_columns(writer, *track);
    return box.finish();
}

uint64_t write_hdlr(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "hdlr");
    box.version_and_flags(0, 0);
    ColumnWriter writer(box);
    hdlr_columns(writer, *track);
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr) box.bytes(copied->name.data(), copied->name.size());
    box.u8(0);  // ends the name
    return box.finish();
}

uint64_t write_mdia(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "mdia");
    box.child(write_mdhd, track);
    box.child(write_hdlr, track);
    box.child(write_minf, track);
    return box.finish();
}

// --- track ---

struct DisplaySize {
    uint32_t width, height;  // pixels, 16.16
};

// Pictures are displayed in their size, where nothing else is declared.
DisplaySize display_size(const iso_track* track) {
    const iso_track_private& own = *track->own;
    const bool declared = own.display_width != 0 || own.display_height != 0;
    if (declared || own.copied != nullptr) return {own.display_width, own.display_height};
    constexpr uint32_t kMaxPixels = 0xFFFF;
    return {std::min(track->width, kMaxPixels) << 16, std::min(track->height, kMaxPixels) << 16};
}

uint64_t write_tkhd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "tkhd");
    box.version_and_flags(0, track->own->header_flags);
    const uint32_t duration = movie_duration(track);
    const DisplaySize display = display_size(track);
    ColumnWriter writer(box);
    tkhd_times(writer, *track, duration);
    tkhd_rest(writer, *track, display.width, display.height);
    return box.finish();
}

uint64_t write_reference(Pass pass, std::span<uint8_t> to, const CopiedReference* reference) {
    char type[4];
    store_be32(reinterpret_cast<uint8_t*>(type), reference->type);
    BoxBody box(pass, to, type);
    for (const uint32_t id : reference->track_ids)
        box.u32(id);
    return box.finish();
}

uint64_t write_tref(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const CopiedReference hint = {fourcc("hint"), {track->hint_track_ref}};
    BoxBody box(pass, to, "tref");
    if (is_hint(track)) box.child(write_reference, &hint);
    if (track->own->copied != nullptr) {
        for (const CopiedReference& reference : track->own->copied->references)
            box.child(write_reference, &reference);
    }
    return box.finish();
}

bool has_references(const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    return is_hint(track) || (copied != nullptr && !copied->references.empty());
}

uint64_t write_elst(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const std::span edits(track->own->edits, static_cast<size_t>(track->own->edit_count));
    const bool wide = std::any_of(edits.begin(), edits.end(), [](const iso_elst_entry& edit) {
        return edit.segment_duration > UINT32_MAX || edit.media_time > INT32_MAX ||
               edit.media_time < INT32_MIN;
    });
    BoxBody box(pass, to, "elst");
    box.version_and_flags(wide ? 1 : 0, 0);
    box.u32(static_cast<uint32_t>(edits.size()));
    ColumnWriter writer(box);
    for (const iso_elst_entry& edit : edits)
        columns(writer, edit, wide);
    return box.finish();
}

uint64_t write_edts(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "edts");
    box.child(write_elst, track);
    return box.finish();
}

uint64_t write_track_sdp(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "sdp ");
    box.bytes(track->sdp_text, std::strlen(track->sdp_text));
    return box.finish();
}

uint64_t write_movie_sdp(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "rtp ");
    box.id("sdp ");  // description format
    box.bytes(file->sdp_text, std::strlen(file->sdp_text));
    return box.finish();
}

uint64_t write_track_hnti(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "hnti");
    box.child(write_track_sdp, track);
    return box.finish();
}

uint64_t write_movie_hnti(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "hnti");
    box.child(write_movie_sdp, file);
    return box.finish();
}

uint64_t write_track_udta(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "udta");
    box.child(write_track_hnti, track);
    return box.finish();
}

uint64_t write_movie_udta(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "udta");
    box.child(write_movie_hnti, file);
    return box.finish();
}

// `meta` would stand before `udta`; the record has nothing for it.
uint64_t write_trak(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "trak");
    box.child(write_tkhd, track);
    if (has_references(track)) box.child(write_tref, track);
    if (track->own->edit_count > 0) box.child(write_edts, track);
    box.child(write_mdia, track);
    if (track->sdp_text != nullptr) box.child(write_track_udta, track);
    return box.finish();
}

// --- movie ---

uint64_t write_mvhd(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "mvhd");
    box.version_and_flags(0, 0);
    ColumnWriter writer(box);
    mvhd_times(writer, *file);
    mvhd_rest(writer, *file);
    return box.finish();
}

// Initial object descriptor (ISO/IEC 14496-14, 5.1).
uint64_t write_iods(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    constexpr uint8_t kInitialObjectDescriptor = 0x10;
    constexpr uint32_t kReservedBits = 0x0F;
    constexpr uint32_t kLength = 7;
    constexpr uint32_t kNoCapability = 0xFF, kNotTold = 0xFE;  // 14496-1, table 5
    const bool untold = file->own->has_visual && file->visual_profile == kNoCapability;
    BoxBody box(pass, to, "iods");
    box.version_and_flags(0, 0);
    put_descriptor(box, kInitialObjectDescriptor, kLength);
    box.u16(file->od_id << 6 | kReservedBits);
    box.u8(file->od_profile);
    box.u8(file->scene_profile);
    box.u8(file->audio_profile);
    box.u8(untold ? kNotTold : file->visual_profile);
    box.u8(file->graphics_profile);
    return box.finish();
}

}  // namespace

uint64_t write_stts(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stts");
    box.version_and_flags(0, 0);
    box.u32(static_cast<uint32_t>(track->stts_count));
    put_value_runs<iso_stts_entry>(box, track,
                                   [](const SampleFigures& sample) { return sample.duration; });
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kSttsTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- dtd count %d\n",
               shown(track->own->counted_sizes[kSttsTable]), shown(size), track->stts_count);
    }
    return size;
}

uint64_t write_ctts(Pass pass, std::span<uint8_t> to, iso_track* track) {
    bool negative = false;
    for (SampleWalk sample(track); !sample.at_end() && !negative; sample.next())
        negative = sample.figures().cts_offset < 0;
    BoxBody box(pass, to, "ctts");
    box.version_and_flags(negative ? 1 : 0, 0);
    box.u32(static_cast<uint32_t>(track->ctts_count));
    put_value_runs<iso_ctts_entry>(box, track,
                                   [](const SampleFigures& sample) { return sample.cts_offset; });
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kCttsTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- cto count %d\n",
               shown(track->own->counted_sizes[kCttsTable]), shown(size), track->ctts_count);
    }
    return size;
}

uint64_t write_stsz(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stsz");
    box.version_and_flags(0, 0);
    box.u32(track->sample_size);
    box.u32(static_cast<uint32_t>(track->sample_count));
    for (SampleWalk sample(track); !sample.at_end() && track->sample_size == 0; sample.next())
        put(box, sample.figures().size);
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kStszTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- sample size = %d sample count = %d\n",
               shown(track->own->counted_sizes[kStszTable]), shown(size), shown(track->sample_size),
               track->sample_count);
    }
    return size;
}

uint64_t write_stss(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stss");
    box.version_and_flags(0, 0);
    box.u32(track->sync_count);
    for (const uint32_t sample : std::span(track->sync_samples, track->sync_count))
        put(box, sample);
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kStssTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- sample count = %d\n",
               shown(track->own->counted_sizes[kStssTable]), shown(size), shown(track->sync_count));
    }
    return size;
}

uint64_t write_sbgp(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "sbgp");
    box.version_and_flags(0, 0);
    box.id(track->sgpd_type);
    box.u32(track->sbgp_count);
    for (const iso_sbgp_entry* entry = track->sbgp_list; entry != nullptr; entry = entry->next)
        put(box, *entry);
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kSbgpTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- sbgp count %d\n",
               shown(track->own->counted_sizes[kSbgpTable]), shown(size), shown(track->sbgp_count));
    }
    return size;
}

uint64_t write_ftyp(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    constexpr size_t kCode = 4;
    BoxBody box(pass, to, "ftyp");
    box.id(file->major_brand);
    box.u32(static_cast<uint32_t>(file->minor_version));
    const std::string_view brands =
        file->compatible_brands == nullptr ? "" : file->compatible_brands;
    for (size_t at = 0; at + kCode <= brands.size(); at += kCode + 1)
        box.bytes(brands.data() + at, kCode);
    return box.finish();
}

uint64_t write_moov(Pass pass, std::span<uint8_t> to, iso_file* file) {
    BoxBody box(pass, to, "moov");
    box.child(write_mvhd, file);
    const std::span<const uint8_t> iods = file->own->copied_iods;
    iods.empty() ? box.child(write_iods, file) : box.child(write_copied, &iods);
    for (iso_track* track = file->first_track; track != nullptr; track = track->next)
        box.child(write_trak, track);
    if (file->sdp_text != nullptr) box.child(write_movie_udta, file);
    return box.finish();
}

uint32_t movie_duration(const iso_track* track) {
    uint64_t units = 0;
    if (track->own->edit_count > 0) {
        for (const iso_elst_entry& edit :
             std::span(track->own->edits, static_cast<size_t>(track->own->edit_count)))
            units += std::min<uint64_t>(edit.segment_duration, UINT32_MAX);
    } else if (track->timescale != 0) {
        const uint64_t scaled = uint64_t{track->duration} * track->file->timescale;
        units = (scaled + track->timescale / 2) / track->timescale;
    }
    return static_cast<uint32_t>(std::min<uint64_t>(units, UINT32_MAX));
}

}  // namespace kestrel
