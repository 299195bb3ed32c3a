// SPDX-License-Identifier: Apache-2.0
// What says how far the fragments of a file reach: sidx (ISO/IEC 14496-12, 8.16.3), mehd (8.8.2)
// and mfra (8.8.9).
#include <algorithm>

#include "companion/importer/parts.h"

namespace kestrel::importer {

bool check_segment_index(Import& import, const Box& box) {
    constexpr std::uint32_t kSizeBits = 0x7FFF'FFFF;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    reader.skip(8);                       // reference, timescale
    reader.u32_or_64(head.version == 1);  // earliest time
    std::uint64_t end = box.end + reader.u32_or_64(head.version == 1);
    reader.skip(2);  // reserved
    for (std::uint32_t left = reader.u16(); left > 0 && !reader.failed(); --left) {
        end += reader.u32() & kSizeBits;
        reader.skip(8);  // duration, access points
    }
    if (!import.whole(reader, box)) return false;
    if (end <= import.source.size()) return true;
    return import.lacks_fragments("fragments are missing: " + place_text(box) + " counts " +
                                  std::to_string(end) + " bytes, and the file has " +
                                  std::to_string(import.source.size()));
}

// The last fragments are missing where the longest track is shorter than what mehd declares by more
// than half a fragment.
bool check_declared_duration(Import& import) {
    if (!import.declared_duration_box) return true;
    std::uint64_t longest = 0;
    std::uint64_t fragment = 0;
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        const TrackImport& state = import.tracks[i];
        const std::uint32_t timescale = import.movie.tracks[i].timescale;
        const auto in_movie = [&](std::uint64_t time) {
            return rescale(time, timescale, import.movie.timescale);
        };
        if (in_movie(state.end) < longest) continue;
        longest = in_movie(state.end);
        fragment = in_movie((state.end - state.fragments_begin) / std::max(1u, state.fragments));
    }
    if (import.declared_duration <= longest + fragment / 2 + 1) return true;
    return import.lacks_fragments(
        "fragments are missing: " + place_text(*import.declared_duration_box) +
        " declares a duration of " + std::to_string(import.declared_duration) +
        ", and the samples have " + std::to_string(longest) + " of them");
}

namespace {

// The fragments that random access indexes name.
class NamedFragments {
  public:
    explicit NamedFragments(Import& import) : import_(import) {}

    // An index that is malformed names what comes before its damage.
    void read(const Box& mfra) {
        BoxReader children(import_.source, mfra);
        for (Box box; children.next(box);) {
            if (box.type == fourcc("tfra")) read_track(box);
        }
    }

    // Whether one of them is not among the fragments at `offsets`, which are in order. Offsets that
    // are wrong alone say nothing: a file may have been edited.
    bool are_missing_from(std::span<const std::uint64_t> offsets) {
        std::sort(offsets_.begin(), offsets_.end());
        offsets_.erase(std::unique(offsets_.begin(), offsets_.end()), offsets_.end());
        if (offsets_.empty()) return false;
        return offsets_.size() > offsets.size() || exceeds_time_ || is_one_cut_off(offsets);
    }

  private:
    void read_track(const Box& tfra) {
        BoxReader reader(import_.source, tfra);
        const VersionAndFlags head(reader);
        const bool version1 = head.version == 1;
        const std::uint32_t id = reader.u32();
        const std::uint32_t lengths = reader.u32();
        std::uint64_t numbers = 3;  // bytes of traf, trun and sample number
        for (const unsigned shift : {4u, 2u, 0u})
            numbers += lengths >> shift & 3;
        std::uint64_t first = UINT64_MAX, last = 0;
        for (std::uint32_t left = reader.u32(); left > 0; --left) {
            const std::uint64_t time = reader.u32_or_64(version1);
            const std::uint64_t offset = reader.u32_or_64(version1);
            reader.skip(numbers);
            if (reader.failed()) break;
            offsets_.push_back(offset);
            first = std::min(first, time);
            last = std::max(last, time);
        }
        const auto track = import_.find_track(id);
        if (track && first < last) exceeds_time_ |= !has_time(*track, last - first);
    }

    // Whether the track's fragments last longer than what lies between two samples of them.
    bool has_time(std::size_t track, std::uint64_t time) const {
        const TrackImport& state = import_.tracks[track];
        return state.fragments == 0 || time < state.end - state.fragments_begin;
    }

    // Whether the fragments before the first or after the last one at `offsets` are missing.
    bool is_one_cut_off(std::span<const std::uint64_t> offsets) const {
        const auto are_there = [&](std::uint64_t moved) {
            return std::all_of(offsets_.begin(), offsets_.end(), [&](std::uint64_t offset) {
                return std::binary_search(offsets.begin(), offsets.end(), offset + moved);
            });
        };
        if (are_there(0) || are_there(offsets.front() - offsets_.front())) return false;
        const bool begins_alike = offsets_.front() == offsets.front();
        return import_.first_fragment_number.value_or(0) > 1 ||
               (begins_alike && offsets_.back() > offsets.back());
    }

    Import& import_;
    std::vector<std::uint64_t> offsets_;
    bool exceeds_time_ = false;
};

}  // namespace

bool check_random_access(Import& import, std::span<const Box> indexes,
                         std::span<const Box> fragments) {
    std::vector<std::uint64_t> offsets;
    for (const Box& fragment : fragments)
        offsets.push_back(fragment.offset);
    NamedFragments named(import);
    for (const Box& index : indexes)
        named.read(index);
    return !named.are_missing_from(offsets) ||
           import.lacks_fragments("fragments are missing: " + place_text(indexes.front()) +
                                  " names some that the file does not have");
}

}  // namespace kestrel::importer
