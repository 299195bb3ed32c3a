// SPDX-License-Identifier: Apache-2.0
// Converts entries to the form that 3GP files have for their codec.
#include "companion/importer/sample_entry.h"

namespace kestrel::importer {

namespace {

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
constexpr std::uint32_t kIsoH263 = fourcc("s263");
constexpr std::uint32_t kQuickTimeH263 = fourcc("h263");
constexpr std::uint32_t kH264 = fourcc("avc1");
constexpr std::uint32_t kH264WithSetsInSamples = fourcc("avc3");

// Returns a child of `wave` as a child of an ISO entry, or nothing for no configuration. In `wave`
// the configuration of AMR has the type of its codec.
Bytes iso_configuration(Source& source, const SampleEntry& entry, const Box& child) {
    const bool amr = entry.box.type == fourcc("samr") && child.type == fourcc("samr");
    if (!amr && !contains(kSoundConfiguration, child.type)) return {};
    Bytes box = whole_box(source, child);
    if (amr && !box.empty())
        store_box_header(box.data(), {static_cast<std::uint32_t>(box.size()), fourcc("damr")});
    return box;
}

// Returns the children of a sound entry, with those of `wave` that are the codec's configuration.
Bytes iso_sound_children(Source& source, const SampleEntry& entry) {
    Bytes children;
    each_child(source, entry.children, entry.box.end, [&](const Box& child) {
        if (child.type != fourcc("wave")) {
            append(children, whole_box(source, child));
            return;
        }
        each_child(source, child.body, child.end, [&](const Box& inner) {
            append(children, iso_configuration(source, entry, inner));
        });
    });
    return children;
}

// An AudioSampleEntry (ISO/IEC 14496-12, 12.2.3).
Bytes iso_sound_entry(Source& source, const SampleEntry& entry) {
    Bytes body(6);
    append_be(body, entry.data_reference, 2);
    append_be(body, 0, 8);
    append_be(body, std::min(entry.channels, std::uint32_t{UINT16_MAX}), 2);
    append_be(body, 16, 2);  // bits of a sample
    append_be(body, 0, 4);
    append_be(body, entry.sample_rate, 4);
    append(body, iso_sound_children(source, entry));
    Bytes box;
    append_be(box, body.size() + kBoxHeader, 4);
    append_be(box, entry.box.type, 4);
    append(box, body);
    return box;
}

// An H263SampleEntry (3GPP TS 26.244, 6.5) of QuickTime's `h263`, which has no configuration.
Bytes iso_h263_entry(Source& source, const SampleEntry& entry) {
    Bytes box = whole_box(source, entry.box);
    if (box.empty()) return box;  // the host failed
    constexpr std::uint8_t kLevel = 10, kProfile = 0;
    append_be(box, 15, 4);
    append_be(box, fourcc("d263"), 4);
    append_be(box, 0, 5);  // vendor, decoder version
    box.insert(box.end(), {kLevel, kProfile});
    store_box_header(box.data(), {static_cast<std::uint32_t>(box.size()), kIsoH263});
    return box;
}

// Whether the entry has an avcC (ISO/IEC 14496-15, 5.2.4.1) with parameter sets of both kinds.
bool has_parameter_sets(Source& source, const SampleEntry& entry) {
    constexpr unsigned kCountBits = 31;
    bool has_sets = false;
    each_child(source, entry.children, entry.box.end, [&](const Box& child) {
        if (child.type != fourcc("avcC")) return;
        BoxReader reader(source, child);
        reader.skip(5);  // version, profile, level, length size
        const unsigned sequence_sets = reader.u8() & kCountBits;
        for (unsigned i = 0; i < sequence_sets; ++i)
            reader.skip(reader.u16());
        has_sets = sequence_sets > 0 && reader.u8() > 0 && !reader.failed();
    });
    return has_sets;
}

Bytes renamed(Bytes box, std::uint32_t type) {
    if (!box.empty()) store_box_header(box.data(), {static_cast<std::uint32_t>(box.size()), type});
    return box;
}

}  // namespace

bool is_rewritten_type(std::uint32_t type) {
    return type == kQuickTimeH263 || type == kH264WithSetsInSamples;
}

static Description iso_form(const Import& import, const SampleEntry& entry) {
    Source& source = import.source;
    if (entry.quicktime_sound && contains(kIsoSound, entry.box.type)) {
        return {entry.box.type, iso_sound_entry(source, entry)};
    }
    if (entry.box.type == kQuickTimeH263 && entry.is_visual && import.movie.quicktime) {
        return {kIsoH263, iso_h263_entry(source, entry)};
    }
    if (entry.box.type == kH264WithSetsInSamples && has_parameter_sets(source, entry)) {
        return {kH264, renamed(whole_box(source, entry.box), kH264)};
    }
    return {entry.box.type, whole_box(source, entry.box)};
}

Description iso_description(const Import& import, const SampleEntry& entry) {
    Description out = iso_form(import, entry);
    out.width = entry.width;
    out.height = entry.height;
    return out;
}

}  // namespace kestrel::importer
