// stsd: the sample entries, in their ISO form (ISO/IEC 14496-12, 8.5.2 and 12) and that of
// QuickTime.
#include <algorithm>
#include <map>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

constexpr std::uint32_t kVideo = fourcc("vide");
constexpr std::uint32_t kSound = fourcc("soun");

template <std::size_t kCount>
bool contains(const std::uint32_t (&types)[kCount], std::uint32_t type) {
    return std::find(std::begin(types), std::end(types), type) != std::end(types);
}

constexpr std::uint32_t kProtected[] = {
    fourcc("encv"), fourcc("enca"), fourcc("enct"), fourcc("encs"),
    fourcc("encm"), fourcc("drms"), fourcc("drmi"),
};
// PCM: one number a channel, of the bits that the entry says or of 8.
constexpr std::uint32_t kLinearSound[] = {
    fourcc("raw "), fourcc("twos"), fourcc("sowt"), fourcc("NONE"), fourcc("in24"), fourcc("in32"),
    fourcc("fl32"), fourcc("fl64"), fourcc("lpcm"), fourcc("ipcm"), fourcc("fpcm"),
};
constexpr std::uint32_t kLogarithmicSound[] = {fourcc("ulaw"), fourcc("alaw")};
// So many times of PCM are joined to a sample.
constexpr std::uint32_t kJoinedTimes = 1024;
// Codecs with an AudioSampleEntry, and the boxes with their configuration.
constexpr std::uint32_t kIsoSound[] = {
    fourcc("mp4a"),
    fourcc("samr"),
    fourcc("sawb"),
    fourcc("sawp"),
};
constexpr std::uint32_t kSoundConfiguration[] = {
    fourcc("esds"),
    fourcc("damr"),
    fourcc("dawp"),
    fourcc("sinf"),
};
// Children of an entry that change neither decoding nor display.
constexpr std::uint32_t kInformative[] = {fourcc("btrt"), fourcc("free"), fourcc("skip")};

// An entry as far as it is understood.
struct Entry {
    Box box;
    std::uint16_t data_reference = 0;
    std::uint64_t children = 0;  // their offset; the entry's end where they are not known
    std::uint16_t width = 0, height = 0;
    bool quicktime_sound = false;                                  // of version 1 or 2
    std::uint32_t channels = 0, sample_bits = 0, sample_rate = 0;  // of sound; the rate is 16.16
    SoundPacking packing;
};

void read_visual(BoxReader& reader, Entry& entry) {
    reader.skip(16);  // version and vendor in QuickTime
    entry.width = reader.u16();
    entry.height = reader.u16();
    reader.skip(50);  // resolution, frames a sample, compressor, depth
    entry.children = reader.at();
}

// What version 1 adds: units (uncompressed samples of all channels) and bytes of a packet.
void read_sound_version1(BoxReader& reader, Entry& entry, bool constant_packets) {
    const std::uint32_t units = reader.u32();
    reader.skip(4);  // bytes of a packet of one channel
    const std::uint32_t bytes = reader.u32();
    reader.skip(4);  // bytes of a sample
    if (constant_packets && units > 0) entry.packing = {.units = units, .bytes = bytes};
}

void read_sound_version2(BoxReader& reader, Entry& entry) {
    const std::uint32_t structure = reader.u32();  // from the entry's header on
    const std::uint64_t rate = reader.u64();       // an IEEE 754 double
    entry.channels = reader.u32();
    reader.skip(4);  // 0x7F000000
    entry.sample_bits = reader.u32();
    reader.skip(4);  // flags of the format
    const std::uint32_t bytes = reader.u32();
    const std::uint32_t units = reader.u32();
    if (units > 0) entry.packing = {.units = units, .bytes = bytes};
    // The whole hertz, which the 16 bits of an AudioSampleEntry hold up to 65,535.
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

void set_pcm_packing(Entry& entry) {
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

void read_sound(BoxReader& reader, Entry& entry, bool quicktime_versions) {
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

bool read_entry(Import& import, std::uint32_t handler, bool quicktime_versions, Entry& entry) {
    BoxReader reader(import.source, entry.box);
    reader.skip(6);  // reserved
    entry.data_reference = reader.u16();
    entry.children = entry.box.end;
    if (handler == kVideo) read_visual(reader, entry);
    if (handler == kSound) read_sound(reader, entry, quicktime_versions);
    return import.whole(reader, entry.box);
}

// Calls visit(child) for the boxes of a stretch. Returns false where bytes that are no box end it,
// as in some entries.
template <typename Visit>
bool each_child(Source& source, std::uint64_t begin, std::uint64_t end, Visit visit) {
    BoxReader reader(source, begin, end);
    for (Box child; reader.next(child);)
        visit(child);
    return !reader.failed();
}

bool is_encrypted(Source& source, const Entry& entry) {
    bool protection = contains(kProtected, entry.box.type);
    each_child(source, entry.children, entry.box.end,
               [&](const Box& child) { protection |= child.type == fourcc("sinf"); });
    return protection;
}

Bytes whole_box(Source& source, const Box& box) {
    return BoxReader(source, box.offset, box.end).bytes(box.size());
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

void append(Bytes& to, std::uint64_t value, unsigned count) {
    while (count-- > 0)
        to.push_back(static_cast<std::uint8_t>(value >> (8 * count)));
}

// The children of a sound entry, with those of `wave` that are the codec's configuration.
Bytes iso_sound_children(Source& source, const Entry& entry) {
    Bytes children;
    each_child(source, entry.children, entry.box.end, [&](const Box& child) {
        if (child.type != fourcc("wave")) {
            append(children, whole_box(source, child));
            return;
        }
        each_child(source, child.body, child.end, [&](const Box& inner) {
            if (contains(kSoundConfiguration, inner.type))
                append(children, whole_box(source, inner));
        });
    });
    return children;
}

// An AudioSampleEntry (ISO/IEC 14496-12, 12.2.3).
Bytes iso_sound_entry(Source& source, const Entry& entry) {
    Bytes body(6);
    append(body, entry.data_reference, 2);
    append(body, 0, 8);
    append(body, std::min(entry.channels, std::uint32_t{UINT16_MAX}), 2);
    append(body, 16, 2);  // bits of a sample
    append(body, 0, 4);
    append(body, entry.sample_rate, 4);
    append(body, iso_sound_children(source, entry));
    Bytes box;
    append(box, body.size() + 8, 4);
    append(box, entry.box.type, 4);
    append(box, body);
    return box;
}

// The length of a descriptor (ISO/IEC 14496-1, 8.3.3).
std::uint32_t descriptor_length(BoxReader& reader) {
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i) {
        const std::uint8_t byte = reader.u8();
        length = length << 7 | (byte & 0x7F);
        if ((byte & 0x80) == 0) break;
    }
    return length;
}

// Of an esds, the object type and the decoder's own bytes: the identifiers, buffer sizes and bit
// rates of an elementary stream descriptor (ISO/IEC 14496-1, 7.2.6.5) decode nothing.
Bytes esds_configuration(Source& source, const Box& esds) {
    constexpr std::uint8_t kStreamTag = 3;
    constexpr std::uint8_t kDecoderTag = 4;
    constexpr unsigned kDependsOn = 0x80, kHasLocation = 0x40, kHasClock = 0x20;
    BoxReader reader(source, esds);
    reader.skip(4);  // version and flags
    const bool stream = reader.u8() == kStreamTag;
    descriptor_length(reader);
    reader.skip(2);  // identifier
    const std::uint8_t flags = reader.u8();
    if ((flags & kDependsOn) != 0) reader.skip(2);
    if ((flags & kHasLocation) != 0) reader.skip(reader.u8());
    if ((flags & kHasClock) != 0) reader.skip(2);
    const bool decoder = reader.u8() == kDecoderTag;
    descriptor_length(reader);
    Bytes bytes = reader.bytes(2);  // object type, stream type
    reader.skip(11);                // buffer size, bit rates
    append(bytes, reader.bytes(reader.left()));
    return stream && decoder && !reader.failed() ? bytes : whole_box(source, esds);
}

// What two entries must share for samples of both to be decoded and shown alike.
Bytes configuration(Source& source, const Entry& entry) {
    Bytes key;
    append(key, entry.box.type, 4);
    for (const std::uint32_t value : {std::uint32_t{entry.width}, std::uint32_t{entry.height},
                                      entry.channels, entry.sample_bits, entry.sample_rate}) {
        append(key, value, 4);
    }
    const auto add = [&](const Box& child) {
        if (child.type == fourcc("esds")) {
            append(key, esds_configuration(source, child));
        } else if (!contains(kInformative, child.type)) {
            append(key, whole_box(source, child));
        }
    };
    const bool boxes = each_child(source, entry.children, entry.box.end, [&](const Box& child) {
        const bool wave = entry.quicktime_sound && child.type == fourcc("wave");
        if (!wave || !each_child(source, child.body, child.end, add)) add(child);
    });
    if (!boxes || entry.children == entry.box.end) append(key, whole_box(source, entry.box));
    return key;
}

}  // namespace

bool read_sample_entries(Import& import, const Box& stsd, Track& track, TrackImport& state) {
    BoxReader reader(import.source, stsd);
    const VersionAndFlags head(reader);
    reader.skip(4);  // number of entries
    // Version 1 of the box is what tells an AudioSampleEntryV1, which has the length of version 0.
    const bool quicktime_versions = import.movie.forms.quicktime || head.version == 0;
    std::map<Bytes, std::uint32_t> known;
    for (Box box; reader.next(box);) {
        Entry entry;
        entry.box = box;
        if (!read_entry(import, track.handler, quicktime_versions, entry)) return false;
        const auto next = static_cast<std::uint32_t>(track.descriptions.size());
        const auto [at, is_new] = known.try_emplace(configuration(import.source, entry), next);
        state.entries.push_back({at->second, entry.data_reference});
        if (!is_new) continue;
        track.encrypted |= is_encrypted(import.source, entry);
        const bool rewrite = entry.quicktime_sound && contains(kIsoSound, entry.box.type);
        track.descriptions.push_back({entry.box.type, rewrite
                                                          ? iso_sound_entry(import.source, entry)
                                                          : whole_box(import.source, entry.box)});
        if (next == 0) state.packing = entry.packing;
        track.forms.several_descriptions |= next > 0;
        import.movie.forms.quicktime |= entry.quicktime_sound;
    }
    return import.whole(reader, stsd);
}

}  // namespace kestrel::importer
