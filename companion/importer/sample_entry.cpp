// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/sample_entry.h"

namespace kestrel::importer {

namespace {

constexpr std::uint32_t kVideo = fourcc("vide");
constexpr std::uint32_t kSound = fourcc("soun");

constexpr std::uint32_t kVisualEntries[] = {fourcc("s263"), fourcc("h263"), fourcc("mp4v"),
                                            fourcc("avc1"), fourcc("avc3")};
constexpr std::uint32_t kSoundEntries[] = {fourcc("samr"), fourcc("sawb"), fourcc("sawp"),
                                           fourcc("mp4a")};
// The handlers of tracks with visual entries.
constexpr std::uint32_t kVisualHandlers[] = {kVideo, fourcc("auxv"), fourcc("pict")};
constexpr std::uint32_t kProtected[] = {
    fourcc("encv"), fourcc("enca"), fourcc("enct"), fourcc("encs"),
    fourcc("encm"), fourcc("drms"), fourcc("drmi"),
};
// PCM: one number per channel, with the bits of the entry or with 8 bits.
constexpr std::uint32_t kLinearSound[] = {
    fourcc("raw "), fourcc("twos"), fourcc("sowt"), fourcc("NONE"), fourcc("in24"), fourcc("in32"),
    fourcc("fl32"), fourcc("fl64"), fourcc("lpcm"), fourcc("ipcm"), fourcc("fpcm"),
};
constexpr std::uint32_t kLogarithmicSound[] = {fourcc("ulaw"), fourcc("alaw")};
// Number of PCM units in a sample.
constexpr std::uint32_t kJoinedTimes = 1024;

void read_visual(BoxReader& reader, SampleEntry& entry) {
    reader.skip(16);  // version and vendor in QuickTime
    entry.width = reader.u16();
    entry.height = reader.u16();
    reader.skip(50);  // resolution, frames a sample, compressor, depth
    entry.children = reader.at();
    entry.is_visual = true;
}

// The fields of version 1: units (uncompressed samples of all channels) and bytes of a packet.
void read_sound_version1(BoxReader& reader, SampleEntry& entry, bool constant_packets) {
    const std::uint32_t units = reader.u32();
    reader.skip(4);  // bytes of a packet of one channel
    const std::uint32_t bytes = reader.u32();
    reader.skip(4);  // bytes of a sample
    if (constant_packets && units > 0) entry.packing = {.units = units, .bytes = bytes};
}

void read_sound_version2(BoxReader& reader, SampleEntry& entry) {
    const std::uint32_t structure = reader.u32();  // from the entry's header on
    const std::uint64_t rate = reader.u64();       // an IEEE 754 double
    entry.channels = reader.u32();
    reader.skip(4);  // 0x7F000000
    entry.sample_bits = reader.u32();
    reader.skip(4);  // flags of the format
    const std::uint32_t bytes = reader.u32();
    const std::uint32_t units = reader.u32();
    if (units > 0) entry.packing = {.units = units, .bytes = bytes};
    // Whole hertz; an AudioSampleEntry has 16 bits for up to 65,535.
    constexpr int kFractionBits = 52;
    const int exponent = static_cast<int>(rate >> kFractionBits & 0x7FF) - 1023;
    const std::uint64_t fraction = (rate & ((1ULL << kFractionBits) - 1)) | 1ULL << kFractionBits;
    if (exponent >= 0 && exponent < 16) {
        entry.sample_rate = static_cast<std::uint32_t>(fraction >> (kFractionBits - exponent))
                            << 16;
    }
    const std::uint64_t read = reader.at() - entry.box.offset;
    if (structure > read) reader.skip(structure - read);
}

void set_pcm_packing(SampleEntry& entry) {
    const bool linear = contains(kLinearSound, entry.box.type);
    if (linear || contains(kLogarithmicSound, entry.box.type)) {
        const std::uint64_t width = linear ? (std::uint64_t{entry.sample_bits} + 7) / 8 : 1;
        const std::uint64_t bytes = entry.packing.units == 1 && entry.packing.bytes > 0
                                        ? entry.packing.bytes
                                        : entry.channels * width;
        entry.packing = {};
        constexpr std::uint64_t kMaxBytes = 1024;  // 32 channels of 256 bits
        if (bytes > 0 && bytes <= kMaxBytes) {
            entry.packing = {.units = kJoinedTimes,
                             .unit_bytes = static_cast<std::uint32_t>(bytes)};
        }
    } else if (entry.packing.bytes == 0) {
        entry.packing = {};
    }
}

void read_sound(BoxReader& reader, SampleEntry& entry, bool quicktime_versions) {
    constexpr std::uint16_t kVariablePackets = 0xFFFE;
    const std::uint16_t version = reader.u16();
    reader.skip(6);  // revision, vendor
    entry.channels = reader.u16();
    entry.sample_bits = reader.u16();
    const std::uint16_t compression = reader.u16();
    reader.skip(2);  // size of a packet
    entry.sample_rate = reader.u32();
    if (quicktime_versions && version == 1) {
        read_sound_version1(reader, entry, compression != kVariablePackets);
    }
    if (quicktime_versions && version == 2) read_sound_version2(reader, entry);
    entry.quicktime_sound = quicktime_versions && (version == 1 || version == 2);
    entry.children = reader.at();
    set_pcm_packing(entry);
}

// Version 0 of a QuickTime sound description has the layout of an AudioSampleEntry, but may have a
// `wave` like the others.
void find_wave(Source& source, SampleEntry& entry) {
    if (entry.is_visual) return;
    each_child(source, entry.children, entry.box.end,
               [&](const Box& child) { entry.quicktime_sound |= child.type == fourcc("wave"); });
}

}  // namespace

bool read_entry(Import& import, const Box& box, std::uint32_t handler, bool quicktime_versions,
                SampleEntry& entry) {
    entry.box = box;
    BoxReader reader(import.source, box);
    reader.skip(6);  // reserved
    entry.data_reference = reader.u16();
    entry.children = entry.box.end;
    if (handler == kVideo) read_visual(reader, entry);
    if (handler == kSound) read_sound(reader, entry, quicktime_versions);
    if (!import.whole(reader, box)) return false;
    find_wave(import.source, entry);
    return true;
}

std::uint32_t handler_of(std::uint32_t entry, std::uint32_t declared) {
    if (declared == fourcc("hint")) return declared;
    if (contains(kSoundEntries, entry)) return kSound;
    const bool is_wrong = contains(kVisualEntries, entry) && !contains(kVisualHandlers, declared);
    return is_wrong ? kVideo : declared;
}

bool is_protected_type(std::uint32_t type) {
    return contains(kProtected, type);
}

bool is_encrypted(Source& source, const SampleEntry& entry) {
    bool protection = is_protected_type(entry.box.type);
    each_child(source, entry.children, entry.box.end,
               [&](const Box& child) { protection |= child.type == fourcc("sinf"); });
    return protection;
}

}  // namespace kestrel::importer
