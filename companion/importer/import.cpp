// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/import.h"

#include <algorithm>

namespace kestrel::importer {

bool Import::fail(const std::string& what) {
    if (error.empty()) error = source.error().empty() ? what : source.error();
    return false;
}

bool Import::fail(const Box& box, const std::string& what) {
    return fail(place_text(box) + " " + what);
}

bool Import::whole(const BoxReader& reader, const Box& box) {
    if (!reader.failed()) return true;
    if (reader.bad_child()) {
        return fail(box, "has a child at offset " + std::to_string(*reader.bad_child()) +
                             " of an impossible size");
    }
    return fail(box, "is shorter than what it declares");
}

// Other bytes after the fields are padding.
bool Import::complete(BoxReader reader, const Box& box) {
    if (!whole(reader, box)) return false;
    const auto is_of_types = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9');
    };
    Box next;
    if (!reader.header(next) || next.end > source.size()) return true;
    const auto code = code_text(next.type);
    return !std::all_of(code.begin(), code.end(), is_of_types) || covers(box, next);
}

bool Import::complete_table(BoxReader reader, const Box& box) {
    if (!complete(reader, box)) return false;
    const std::uint64_t bytes = reader.left();
    bool zeros = true;
    while (zeros && reader.left() > 0 && !reader.failed())
        zeros = reader.u8() == 0;
    if (!zeros)
        note(place_text(box) + " has " + std::to_string(bytes) +
             " bytes after the entries that it declares");
    return true;
}

void Import::note(const std::string& what) {
    constexpr std::size_t kMostNotes = 8;
    if (++note_count_ <= kMostNotes) remark += (remark.empty() ? "" : "; ") + what;
    if (note_count_ == kMostNotes + 1) remark += "; and more";
}

bool Import::lacks(const std::string& what) {
    if (!options.salvage) return fail(what);
    if (missing.empty()) missing = what;
    return true;
}

bool Import::lacks_fragments(const std::string& what) {
    movie.lacks_fragments = true;
    return lacks(what);
}

bool Import::lacks_box(std::uint32_t type, const std::string& what) {
    constexpr std::uint32_t kOfFragments[] = {fourcc("moof"), fourcc("mfhd"), fourcc("traf"),
                                              fourcc("tfhd"), fourcc("tfdt"), fourcc("trun")};
    const bool is_of_fragments =
        std::find(std::begin(kOfFragments), std::end(kOfFragments), type) != std::end(kOfFragments);
    return is_of_fragments ? lacks_fragments(what) : lacks(what);
}

bool Import::covers(const Box& box, const Box& covered) {
    return lacks_box(covered.type, place_text(box) + " covers " + place_text(covered));
}

std::optional<std::uint32_t> Import::claim_samples(const Box& box, std::uint64_t count,
                                                   std::uint32_t size) {
    if (count > kMaxSamples - std::min<std::uint64_t>(claimed_, kMaxSamples)) {
        fail(box, "exceeds the " + std::to_string(kMaxSamples) + " samples that are read");
        return std::nullopt;
    }
    if (size > 0 && count > source.size() / size) {
        const std::string what = place_text(box) + " declares " + std::to_string(count) +
                                 " samples of " + std::to_string(size) +
                                 " bytes, more than the file has";
        if (!lacks(what)) return std::nullopt;
        count = source.size() / size;
    }
    // A sample takes at least a byte in the media or in a table.
    if (count > source.size() - std::min(claimed_, source.size())) {
        fail(box, "declares more samples than the file has bytes");
        return std::nullopt;
    }
    claimed_ += count;
    return static_cast<std::uint32_t>(count);
}

bool Import::index_tracks() {
    track_ids_.clear();
    for (std::size_t i = 0; i < movie.tracks.size(); ++i)
        track_ids_.emplace_back(movie.tracks[i].id, i);
    std::sort(track_ids_.begin(), track_ids_.end());
    const auto same = [](const auto& a, const auto& b) { return a.first == b.first; };
    const auto twice = std::adjacent_find(track_ids_.begin(), track_ids_.end(), same);
    if (twice == track_ids_.end()) return true;
    return fail("two tracks have the ID " + std::to_string(twice->first));
}

std::optional<std::size_t> Import::find_track(std::uint32_t id) const {
    const auto at = std::lower_bound(track_ids_.begin(), track_ids_.end(),
                                     std::pair<std::uint32_t, std::size_t>(id, 0));
    if (at == track_ids_.end() || at->first != id) return std::nullopt;
    return at->second;
}

std::uint64_t rescale(std::uint64_t value, std::uint32_t from, std::uint32_t to) {
    const std::uint64_t whole = value / from;
    if (to != 0 && whole >= UINT64_MAX / to) return UINT64_MAX;
    // The remainder is below 2^32, so its product fits.
    return whole * to + value % from * to / from;
}

std::string seconds_text(std::uint64_t units, std::uint32_t timescale) {
    constexpr std::uint32_t kMilliseconds = 1000;
    const std::uint64_t time = rescale(units, timescale, kMilliseconds);
    const std::string rest = std::to_string(kMilliseconds + time % kMilliseconds);
    return std::to_string(time / kMilliseconds) + "." + rest.substr(1) + " s";
}

}  // namespace kestrel::importer
