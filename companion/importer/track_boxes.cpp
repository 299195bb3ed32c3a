// SPDX-License-Identifier: Apache-2.0
// trak: its headers, handler, edits and references. The boxes are first found, in any order, and
// then read in the order of their use.
#include <algorithm>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

constexpr std::uint32_t kTrak = fourcc("trak");
constexpr std::uint32_t kEdts = fourcc("edts");
constexpr std::uint32_t kMdia = fourcc("mdia");
constexpr std::uint32_t kMinf = fourcc("minf");
constexpr std::uint32_t kDinf = fourcc("dinf");
constexpr std::uint32_t kStbl = fourcc("stbl");

// Boxes, of SampleTables and others, that may occur once.
struct TrackBoxes : SampleTables {
    std::optional<Box> track_header;
    std::optional<Box> references;
    std::optional<Box> edits;
    std::optional<Box> media_header;
    std::optional<Box> handler;
    std::optional<Box> kind_header;  // vmhd and the like
    std::optional<Box> data_references;
    std::optional<Box> entries;
};
using Slot = std::optional<Box> TrackBoxes::*;

struct Place {
    std::uint32_t container;
    std::uint32_t type;
    Slot slot;
};

constexpr Place kPlaces[] = {
    {kTrak, fourcc("tkhd"), &TrackBoxes::track_header},
    {kTrak, fourcc("tref"), &TrackBoxes::references},
    {kEdts, fourcc("elst"), &TrackBoxes::edits},
    {kMdia, fourcc("mdhd"), &TrackBoxes::media_header},
    {kMdia, fourcc("hdlr"), &TrackBoxes::handler},
    {kMinf, fourcc("vmhd"), &TrackBoxes::kind_header},
    {kMinf, fourcc("smhd"), &TrackBoxes::kind_header},
    {kMinf, fourcc("hmhd"), &TrackBoxes::kind_header},
    {kMinf, fourcc("nmhd"), &TrackBoxes::kind_header},
    {kMinf, fourcc("sthd"), &TrackBoxes::kind_header},
    {kMinf, fourcc("gmhd"), &TrackBoxes::kind_header},
    {kDinf, fourcc("dref"), &TrackBoxes::data_references},
    {kStbl, fourcc("stsd"), &TrackBoxes::entries},
    {kStbl, fourcc("stsz"), &TrackBoxes::sizes},
    {kStbl, fourcc("stz2"), &TrackBoxes::sizes},
    {kStbl, fourcc("stts"), &TrackBoxes::times},
    {kStbl, fourcc("ctts"), &TrackBoxes::offsets},
    {kStbl, fourcc("stss"), &TrackBoxes::sync},
    {kStbl, fourcc("stsc"), &TrackBoxes::runs},
    {kStbl, fourcc("stco"), &TrackBoxes::chunks},
    {kStbl, fourcc("co64"), &TrackBoxes::chunks},
};

// Containers that are read, with their parents.
struct Nesting {
    std::uint32_t container;
    std::uint32_t child;
};
constexpr Nesting kNestings[] = {
    {kTrak, kEdts}, {kTrak, kMdia}, {kMdia, kMinf}, {kMinf, kDinf}, {kMinf, kStbl},
};

struct TrackParts {
    Track& track;
    TrackImport& state;
};

bool is_group(std::uint32_t type) {
    return type == fourcc("sgpd") || type == fourcc("sbgp");
}

bool keep(Import& import, const Box& container, const Box& box, TrackBoxes& boxes) {
    for (const Place& place : kPlaces) {
        if (place.container != container.type || place.type != box.type) continue;
        std::optional<Box>& slot = boxes.*place.slot;
        if (slot) return import.fail(box, "is the second of its kind in " + place_text(container));
        slot = box;
        return true;
    }
    if (container.type == kStbl && is_group(box.type)) boxes.groups.push_back(box);
    return check_child(import, container.type, box);
}

bool find_boxes(Import& import, const Box& container, TrackBoxes& boxes) {
    BoxReader children(import.source, container);
    for (Box box; children.next(box);) {
        if (!keep(import, container, box, boxes)) return false;
        for (const Nesting& nesting : kNestings) {
            if (nesting.container == container.type && nesting.child == box.type &&
                !find_boxes(import, box, boxes)) {
                return false;
            }
        }
    }
    return import.whole(children, container);
}

bool read_track_header(Import& import, const Box& box, TrackParts& parts) {
    Track& track = parts.track;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const bool version1 = head.version == 1;
    track.flags = head.flags;
    track.creation_time = reader.u32_or_64(version1);
    track.modification_time = reader.u32_or_64(version1);
    track.id = reader.u32();
    reader.skip(4);                 // reserved
    reader.skip(version1 ? 8 : 4);  // duration: taken from the samples and the edits
    reader.skip(8);                 // reserved
    track.layer = reader.u16();
    track.alternate_group = reader.u16();
    track.volume = reader.u16();
    reader.skip(2);  // reserved
    for (std::int32_t& value : track.matrix)
        value = reader.i32();
    track.width = reader.u32();
    track.height = reader.u32();
    if (!import.complete(reader, box)) return false;
    return track.id != 0 || import.fail(box, "has the track ID 0");
}

// QuickTime has language numbers in place of packed letters, each of which is at least 1.
std::uint16_t iso_language(std::uint16_t code) {
    constexpr std::uint16_t kLeastPacked = 0x0400;
    constexpr std::uint16_t kUnspecified = 0x7FFF;
    return code < kLeastPacked || code == kUnspecified ? Track{}.language : code;
}

// The duration that a header declares, in its timescale; 0 where it is not known.
std::uint64_t declared_duration(BoxReader& reader, bool version1) {
    const std::uint64_t duration = reader.u32_or_64(version1);
    return duration == (version1 ? UINT64_MAX : UINT32_MAX) ? 0 : duration;
}

bool read_media_header(Import& import, const Box& box, TrackParts& parts) {
    Track& track = parts.track;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const bool version1 = head.version == 1;
    reader.skip(version1 ? 16 : 8);  // times, as in tkhd
    track.timescale = reader.u32();
    parts.state.declared_duration = declared_duration(reader, version1);
    track.language = iso_language(reader.u16());
    if (!import.complete(reader, box)) return false;
    return track.timescale != 0 || import.fail(box, "has a timescale of 0");
}

// The name ends with a zero, or in QuickTime begins with its length. It may be absent. Some files
// use the other form.
std::string handler_name(const Bytes& bytes, bool quicktime) {
    if (bytes.empty()) return {};
    constexpr std::uint8_t kFirstLetter = 0x20;
    const std::size_t rest = bytes.size() - 1;
    const bool counted = quicktime ? bytes[0] <= rest : bytes[0] == rest && bytes[0] < kFirstLetter;
    const auto begin = bytes.begin() + (counted ? 1 : 0);
    const auto end = counted ? begin + bytes[0] : bytes.end();
    return {begin, std::find(begin, end, std::uint8_t{0})};
}

bool read_handler(Import& import, const Box& box, TrackParts& parts) {
    Track& track = parts.track;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const bool quicktime = reader.u32() != 0;  // the component type, 'mhlr'
    track.handler = reader.u32();
    reader.skip(12);  // reserved
    track.name = handler_name(reader.bytes(reader.left()), quicktime);
    return import.whole(reader, box);
}

bool read_edits(Import& import, const Box& box, TrackParts& parts) {
    Track& track = parts.track;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const bool version1 = head.version == 1;
    const std::uint32_t count = reader.u32();
    const std::uint64_t most = reader.left() / (version1 ? 20 : 12);
    track.edits.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(count, most)));
    for (std::uint32_t left = count; left > 0 && !reader.failed(); --left) {
        Edit edit;
        edit.duration = reader.u32_or_64(version1);
        edit.media_time = version1 ? static_cast<std::int64_t>(reader.u64()) : reader.i32();
        edit.rate = reader.u32();
        track.edits.push_back(edit);
    }
    return import.complete_table(reader, box);
}

bool read_references(Import& import, const Box& box, TrackParts& parts) {
    Track& track = parts.track;
    BoxReader children(import.source, box);
    for (Box child; children.next(child);) {
        BoxReader ids(import.source, child);
        Reference reference{.type = child.type, .track_ids = {}};
        while (ids.left() >= 4 && !ids.failed())
            reference.track_ids.push_back(ids.u32());
        if (!import.whole(ids, child)) return false;
        track.references.push_back(std::move(reference));
    }
    return import.whole(children, box);
}

// The flag of a data reference (8.7.2) declares that the media is in this file; writers that do not
// set it omit the location.
bool is_this_file(Import& import, const Box& entry) {
    constexpr std::uint32_t kSelfContained = 1;
    BoxReader reader(import.source, entry);
    const VersionAndFlags head(reader);
    return (head.flags & kSelfContained) != 0 || reader.left() <= 1;
}

bool read_data_references(Import& import, const Box& box, TrackParts& parts) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    reader.skip(4);  // number of entries
    for (Box entry; reader.next(entry);)
        parts.state.media_is_here.push_back(is_this_file(import, entry));
    return import.whole(reader, box);
}

bool keep_kind_header(Import& import, const Box& box, TrackParts& parts) {
    Track& track = parts.track;
    track.media_header = whole_box(import.source, box);
    return import.source.error().empty() || import.fail({});
}

bool read_entries(Import& import, const Box& box, TrackParts& parts) {
    return read_sample_entries(import, box, parts.track, parts.state);
}

// The boxes of a track, in the order in which they are read.
struct Step {
    Slot slot;
    const char* required;  // the type of a box that must be there
    bool (*read)(Import&, const Box&, TrackParts&);
};
constexpr Step kSteps[] = {
    {&TrackBoxes::track_header, "tkhd", read_track_header},
    {&TrackBoxes::media_header, "mdhd", read_media_header},
    {&TrackBoxes::handler, "hdlr", read_handler},
    {&TrackBoxes::edits, nullptr, read_edits},
    {&TrackBoxes::references, nullptr, read_references},
    {&TrackBoxes::kind_header, nullptr, keep_kind_header},
    {&TrackBoxes::data_references, nullptr, read_data_references},
    {&TrackBoxes::entries, "stsd", read_entries},
};

}  // namespace

bool read_track(Import& import, const Box& trak) {
    TrackBoxes boxes;
    if (!find_boxes(import, trak, boxes)) return false;
    TrackParts parts{import.movie.tracks.emplace_back(), import.tracks.emplace_back()};
    for (const Step& step : kSteps) {
        const std::optional<Box>& box = boxes.*step.slot;
        if (box) {
            if (!step.read(import, *box, parts)) return false;
        } else if (step.required != nullptr) {
            return import.fail(trak, std::string("has no ") + step.required);
        }
        if (import.options.skip_hint_tracks && parts.track.handler == fourcc("hint")) return true;
    }
    return read_samples(import, boxes, parts.track, parts.state);
}

}  // namespace kestrel::importer
