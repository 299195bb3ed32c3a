// SPDX-License-Identifier: Apache-2.0
// Boxes that are not found because the size or the type of another box is damaged.
#include <algorithm>
#include <span>
#include <utility>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

constexpr std::uint32_t kTrun = fourcc("trun");

// A type and the container that a box of it must be in.
struct Place {
    std::uint32_t type;
    std::uint32_t container;
};

// Boxes without which tracks, samples, their times or sync flags are lost.
constexpr Place kPlaces[] = {
    {fourcc("moof"), kFileAsContainer},
    {fourcc("mvhd"), fourcc("moov")},
    {fourcc("trak"), fourcc("moov")},
    {fourcc("mvex"), fourcc("moov")},
    {fourcc("tkhd"), fourcc("trak")},
    {fourcc("edts"), fourcc("trak")},
    {fourcc("mdia"), fourcc("trak")},
    {fourcc("stsz"), fourcc("stbl")},
    {fourcc("stz2"), fourcc("stbl")},
    {fourcc("stts"), fourcc("stbl")},
    {fourcc("ctts"), fourcc("stbl")},
    {fourcc("stss"), fourcc("stbl")},
    {fourcc("mfhd"), fourcc("moof")},
    {fourcc("traf"), fourcc("moof")},
    {fourcc("tfhd"), fourcc("traf")},
    {fourcc("tfdt"), fourcc("traf")},
    {kTrun, fourcc("traf")},
};

bool is_in_place(Import& import, std::uint32_t container, const Box& box) {
    const auto* place = std::find_if(std::begin(kPlaces), std::end(kPlaces),
                                     [&](const Place& one) { return one.type == box.type; });
    if (place == std::end(kPlaces) || place->container == container) return true;
    return import.lacks_box(box.type,
                            place_text(box) + (place->container == kFileAsContainer
                                                   ? " is inside " + type_text(container)
                                                   : " is outside " + type_text(place->container)));
}

// Boxes that tracks and fragments have, each of which shows that such a child is there.
constexpr std::uint32_t kOfTracks[] = {fourcc("tkhd"), fourcc("mdhd"), fourcc("stsd"),
                                       fourcc("stsz"), fourcc("stz2")};
constexpr std::uint32_t kOfFragments[] = {fourcc("mfhd"), fourcc("traf"), fourcc("tfhd"),
                                          fourcc("tfdt"), kTrun};
constexpr std::uint32_t kOfTrackFragments[] = {fourcc("tfhd"), fourcc("tfdt"), kTrun};
constexpr std::uint32_t kRuns[] = {kTrun};

// The children of a container that must not be hidden, and the boxes that show them.
struct Children {
    std::uint32_t container;
    std::uint32_t type;
    std::span<const std::uint32_t> signs;
};
constexpr Children kChildren[] = {
    {kFileAsContainer, fourcc("moof"), kOfFragments},
    {fourcc("moov"), fourcc("trak"), kOfTracks},
    {fourcc("moof"), fourcc("traf"), kOfTrackFragments},
    {fourcc("traf"), kTrun, kRuns},
};

// Returns the first place from `begin` to `end` that has the header of one of the types.
std::optional<Box> find_header(Source& source, std::uint64_t begin, std::uint64_t end,
                               std::span<const std::uint32_t> types) {
    constexpr std::uint32_t kLeast = 16, kMost = 1 << 20;  // bytes of such a box
    BoxReader bytes(source, begin, end);
    std::uint32_t size = 0;
    std::uint32_t code = 0;
    while (bytes.left() > 0 && !bytes.failed()) {
        size = size << 8 | code >> 24;
        code = code << 8 | bytes.u8();
        if (size >= kLeast && size <= kMost &&
            std::find(types.begin(), types.end(), code) != types.end()) {
            return Box{.type = code, .offset = bytes.at() - kBoxHeader};
        }
    }
    return std::nullopt;
}

// Whether the bytes from `begin` to `end` of a child of `container` hide no other child. The
// contents of free space are irrelevant.
bool covers_none(Import& import, std::uint32_t container, const Box& box, std::uint64_t begin,
                 std::uint64_t end) {
    const auto* children =
        std::find_if(std::begin(kChildren), std::end(kChildren),
                     [&](const Children& one) { return one.container == container; });
    if (children == std::end(kChildren) || box.type == children->type ||
        box.type == fourcc("free") || box.type == fourcc("skip")) {
        return true;
    }
    const auto hidden = find_header(import.source, begin, end, children->signs);
    return !hidden || import.covers(box, *hidden);
}

// Whether a type can be that of a box: printable characters, and the copyright sign of QuickTime.
// The numbers of its sample entries may be any but 0.
bool is_type(std::uint32_t container, std::uint32_t type) {
    if (container == fourcc("stsd")) return type != 0;
    const auto code = code_text(type);
    return std::all_of(code.begin(), code.end(), [](char character) {
        const auto byte = static_cast<std::uint8_t>(character);
        return (byte >= 0x20 && byte < 0x7F) || byte == 0xA9;
    });
}

// Whether a child is a box, or padding: zeros of no more than a header. Other bytes are those of a
// box which is not found, and whose size may be that of all boxes after it.
bool is_box_or_padding(Import& import, std::uint32_t container, const Box& box) {
    if (is_type(container, box.type) || (box.type == 0 && box.size() == kBoxHeader)) return true;
    const std::string what = "there is no box at offset " + std::to_string(box.offset);
    if (container == kFileAsContainer) return import.lacks_fragments(what);
    return import.lacks_box(container, what + ", inside " + type_text(container));
}

// Returns the end of the last sample of the movie box in the file.
std::uint64_t end_of_movie_samples(const Movie& movie) {
    std::uint64_t end = 0;
    for (const Track& track : movie.tracks) {
        for (const Sample& sample : std::span(track.samples).first(track.samples_in_movie_box))
            end = std::max(end, sample.offset + sample.size);
    }
    return end;
}

// Whether the media after fragments has samples for all of its bytes. Runs with records have a
// length that shows how many there are; other bytes after them are remarked on.
bool has_samples(Import& import, const Box& mdat, std::uint64_t bytes,
                 const FragmentMedia& expected) {
    if (expected.bytes >= bytes) return true;
    const std::string what = place_text(mdat) + " has " + std::to_string(bytes - expected.bytes) +
                             " bytes that no sample of the fragment before it takes";
    if (expected.has_bare_run) return import.lacks_fragments(what);
    if (expected.bytes > 0) import.note(what);
    return true;
}

// Follows the runs of fragments in the order of their media, and the mdat boxes beside them.
class RunPlaces {
  public:
    explicit RunPlaces(std::vector<RunPlace>& runs) : left_(runs) {
        std::sort(runs.begin(), runs.end(),
                  [](const RunPlace& a, const RunPlace& b) { return a.begin < b.begin; });
    }

    // Passes over the runs inside an mdat, the next one in the file's order.
    void take(const Box& mdat) {
        while (!left_.empty() && left_.front().begin >= mdat.body && left_.front().end <= mdat.end)
            left_ = left_.subspan(1);
    }

    // After the last mdat: remarks on the first run that is not inside one.
    void remark(Import& import) const {
        if (left_.empty()) return;
        import.note("samples of moof at offset " + std::to_string(left_.front().moof) +
                    " lie outside its media data (mdat)");
    }

  private:
    std::span<const RunPlace> left_;
};

}  // namespace

bool check_child(Import& import, std::uint32_t container, const Box& box) {
    return is_box_or_padding(import, container, box) && is_in_place(import, container, box) &&
           covers_none(import, container, box, box.body, box.end);
}

bool check_file_place(Import& import, const Box& box) {
    return is_in_place(import, kFileAsContainer, box);
}

bool check_covered_fragments(Import& import) {
    const std::uint64_t file_end = import.source.size();
    std::uint64_t data_end = end_of_movie_samples(import.movie);
    auto fragment = import.fragment_media.begin();
    FragmentMedia expected;  // of the fragments since the mdat before
    RunPlaces runs(import.run_places);
    BoxReader file(import.source, 0, file_end, BoxReader::ReadAhead::kNo);
    for (Box box; file.header(box);) {
        if (box.type == 0 && box.end == file_end) break;  // no box: zeros at the end, or damage
        if (!is_box_or_padding(import, kFileAsContainer, box)) return false;
        const std::uint64_t end = std::min(box.end, file_end);
        const bool is_media = box.type == fourcc("mdat");
        if (is_media) runs.take(box);
        const std::uint64_t begin = is_media ? std::clamp(data_end, box.body, end) : box.body;
        if (!covers_none(import, kFileAsContainer, box, begin, end)) return false;
        const FragmentMedia before = is_media ? std::exchange(expected, {}) : FragmentMedia{};
        // Media before their fragment belong to the next one.
        const bool is_of_those = before.bytes == 0 || (data_end >= box.body && data_end <= end);
        if (is_of_those && !has_samples(import, box, end - box.body, before)) return false;
        if (box.type == fourcc("moof") && fragment != import.fragment_media.end()) {
            data_end = fragment->end;
            expected.bytes += fragment->bytes;
            expected.has_bare_run |= fragment->has_bare_run;
            ++fragment;
        }
        file.skip(end - file.at());
    }
    runs.remark(import);
    return true;
}

}  // namespace kestrel::importer
