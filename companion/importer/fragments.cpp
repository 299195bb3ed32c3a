// SPDX-License-Identifier: Apache-2.0
// moof: movie fragments (ISO/IEC 14496-12, 8.8).
#include <algorithm>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

constexpr std::uint32_t kTraf = fourcc("traf");
constexpr std::uint32_t kTrun = fourcc("trun");

// Flags of tfhd (8.8.7).
constexpr std::uint32_t kHasBaseOffset = 0x000001;
constexpr std::uint32_t kHasDescription = 0x000002;
constexpr std::uint32_t kHasDefaultDuration = 0x000008;
constexpr std::uint32_t kHasDefaultSize = 0x000010;
constexpr std::uint32_t kHasDefaultFlags = 0x000020;
constexpr std::uint32_t kDurationIsEmpty = 0x010000;
constexpr std::uint32_t kBaseIsMoof = 0x020000;

// Flags of trun (8.8.8).
constexpr std::uint32_t kHasDataOffset = 0x000001;
constexpr std::uint32_t kHasFirstFlags = 0x000004;
constexpr std::uint32_t kHasDurations = 0x000100;
constexpr std::uint32_t kHasSizes = 0x000200;
constexpr std::uint32_t kHasFlags = 0x000400;
constexpr std::uint32_t kHasOffsets = 0x000800;

// Of the flags of a sample (8.8.3).
constexpr std::uint32_t kIsNotSync = 0x00010000;

// A track fragment while it is read.
struct TrackFragment {
    Box box;
    std::size_t track = 0;  // in Movie::tracks
    RunDefaults defaults;
    bool duration_is_empty = false;
    std::optional<std::uint64_t> base;  // as declared
    bool base_is_moof = false;
    std::optional<std::uint64_t> time;  // tfdt
};

// The start of a trun.
struct RunHeader {
    std::uint32_t version = 0;
    std::uint32_t flags = 0;
    std::uint32_t count = 0;
    std::int32_t data_offset = 0;
    std::uint32_t first_flags = 0;

    bool has(std::uint32_t flag) const { return (flags & flag) != 0; }
    std::uint32_t record_size() const {
        return 4u * (has(kHasDurations) + has(kHasSizes) + has(kHasFlags) + has(kHasOffsets));
    }
};

bool read_run_header(Import& import, const Box& box, BoxReader& reader, RunHeader& run) {
    const VersionAndFlags head(reader);
    run.version = head.version;
    run.flags = head.flags;
    run.count = reader.u32();
    if (run.has(kHasDataOffset)) run.data_offset = reader.i32();
    if (run.has(kHasFirstFlags)) run.first_flags = reader.u32();
    const std::uint64_t records = std::uint64_t{run.count} * run.record_size();
    if (!reader.failed() && records > reader.left()) reader.skip(UINT64_MAX);
    if (!import.whole(reader, box)) return false;
    // Other bytes are records that the count or the flags leave out.
    return reader.left() == records ||
           import.lacks_fragments(place_text(box) + " has " +
                                  std::to_string(reader.left() - records) + " bytes after the " +
                                  std::to_string(run.count) + " samples that it declares");
}

bool find_fragment_track(Import& import, const Box& tfhd, std::uint32_t id, std::size_t& track) {
    const auto found = import.find_track(id);
    if (!found) {
        return import.fail(
            tfhd, "is of track " + std::to_string(id) + ", which the movie box does not have");
    }
    track = *found;
    return true;
}

bool read_fragment_header(Import& import, const Box& box, TrackFragment& fragment) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const auto has = [&](std::uint32_t flag) { return (head.flags & flag) != 0; };
    const std::uint32_t id = reader.u32();
    if (!import.whole(reader, box) || !find_fragment_track(import, box, id, fragment.track)) {
        return false;
    }
    fragment.defaults = import.tracks[fragment.track].defaults;
    if (has(kHasBaseOffset)) fragment.base = reader.u64();
    if (has(kHasDescription)) fragment.defaults.description = reader.u32();
    if (has(kHasDefaultDuration)) fragment.defaults.duration = reader.u32();
    if (has(kHasDefaultSize)) fragment.defaults.size = reader.u32();
    if (has(kHasDefaultFlags)) fragment.defaults.flags = reader.u32();
    fragment.duration_is_empty = has(kDurationIsEmpty);
    fragment.base_is_moof = has(kBaseIsMoof);
    if (!import.complete(reader, box)) return false;
    // Other bytes are fields that the flags leave out.
    return reader.left() == 0 ||
           import.lacks_fragments(place_text(box) + " has " + std::to_string(reader.left()) +
                                  " bytes after the fields that its flags declare");
}

bool read_fragment_time(Import& import, const Box& box, TrackFragment& fragment) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    fragment.time = reader.u32_or_64(head.version == 1);
    return import.complete(reader, box);
}

constexpr BoxHandler<TrackFragment> kFragmentBoxes[] = {
    {fourcc("tfhd"), read_fragment_header},
    {fourcc("tfdt"), read_fragment_time},
};

// Calls visit(box) for each child of the type, until it returns false.
template <typename Visit>
bool each(Import& import, const Box& container, std::uint32_t type, Visit visit) {
    BoxReader children(import.source, container);
    for (Box box; children.next(box);) {
        if (box.type == type && !visit(box)) return false;
    }
    return import.whole(children, container);
}

bool has_child(Import& import, const Box& container, std::uint32_t type) {
    BoxReader children(import.source, container);
    for (Box box; children.next(box);) {
        if (box.type == type) return true;
    }
    return false;
}

// The children of a fragment and of a track in it that may be alone there.
constexpr std::uint32_t kWithoutTracks[] = {fourcc("mfhd"), fourcc("meta"), fourcc("pssh")};
constexpr std::uint32_t kWithoutRuns[] = {fourcc("tfhd"), fourcc("tfdt"), fourcc("sbgp"),
                                          fourcc("sgpd"), fourcc("subs"), fourcc("saiz"),
                                          fourcc("saio"), fourcc("senc"), fourcc("meta")};

// Whether a part of a fragment has the child without which it has no samples, or plainly none: any
// box but `others` may be one whose type was overwritten.
bool check_has_child(Import& import, const Box& container, std::uint32_t type,
                     std::span<const std::uint32_t> others) {
    bool has = false;
    bool may_have = false;
    std::uint64_t count = 0;
    BoxReader children(import.source, container);
    for (Box box; children.next(box); ++count) {
        has |= box.type == type;
        may_have |= std::find(others.begin(), others.end(), box.type) == others.end();
    }
    return has || (count > 0 && !may_have) ||
           import.lacks_fragments(place_text(container) + " has no " + type_text(type));
}

// Reads a traf except its runs.
bool open_fragment(Import& import, const Box& traf, TrackFragment& fragment) {
    fragment.box = traf;
    if (!has_child(import, traf, fourcc("tfhd"))) return import.fail(traf, "has no tfhd");
    return read_boxes<TrackFragment>(import, traf, BoxReader(import.source, traf), kFragmentBoxes,
                                     fragment);
}

// First reading: the number of samples of each track, to allocate memory once.
bool count_samples(Import& import, const Box& moof) {
    BoxReader children(import.source, moof);
    for (Box box; children.next(box);) {
        if (!check_child(import, moof.type, box)) return false;
    }
    if (!check_has_child(import, moof, kTraf, kWithoutTracks)) return false;
    return each(import, moof, kTraf, [&](const Box& traf) {
        TrackFragment fragment;
        if (!open_fragment(import, traf, fragment)) return false;
        if (!fragment.duration_is_empty && !check_has_child(import, traf, kTrun, kWithoutRuns))
            return false;
        std::uint64_t& samples = import.tracks[fragment.track].fragment_samples;
        return each(import, traf, kTrun, [&](const Box& box) {
            BoxReader reader(import.source, box);
            RunHeader run;
            if (!read_run_header(import, box, reader, run)) return false;
            const auto claimed = import.claim_samples(box, run.count, 0);
            samples += claimed.value_or(0);
            return claimed.has_value();
        });
    });
}

// Reads the fragments in order.
class FragmentReader {
  public:
    explicit FragmentReader(Import& import) : import_(import) {}

    bool read(const Box& moof);

  private:
    bool read_number(const Box& mfhd);
    bool read_track_fragment(const Box& traf);
    bool begin_runs(const TrackFragment& fragment);
    bool check_missing(const TrackFragment& fragment, TrackImport& state, const Track& track);
    bool move_to(const TrackFragment& fragment, std::uint64_t time, TrackImport& state,
                 Track& track);
    bool read_run(const TrackFragment& fragment, const Box& trun);
    bool read_run_samples(const TrackFragment& fragment, const Box& box, BoxReader& reader,
                          const RunHeader& run);

    Import& import_;
    std::optional<std::uint32_t> last_number_;
    Box moof_;
    std::uint64_t base_ = 0;      // of the track fragment
    std::uint64_t data_end_ = 0;  // of the run before
    bool first_run_ = false;      // of the track fragment
    bool begun_ = false;          // the track fragment has had samples
};

bool FragmentReader::read(const Box& moof) {
    moof_ = moof;
    data_end_ = moof.offset;
    import_.fragment_media.push_back({.end = data_end_});
    return each(import_, moof, fourcc("mfhd"), [&](const Box& box) { return read_number(box); }) &&
           each(import_, moof, kTraf, [&](const Box& box) { return read_track_fragment(box); });
}

bool FragmentReader::read_number(const Box& mfhd) {
    BoxReader reader(import_.source, mfhd);
    const VersionAndFlags head(reader);
    const std::uint32_t number = reader.u32();
    if (!import_.complete(reader, mfhd)) return false;
    if (!import_.first_fragment_number) import_.first_fragment_number = number;
    if (last_number_ && number > *last_number_ && number - *last_number_ > 1) {
        ++import_.sequence_gaps;
    }
    last_number_ = number;
    return true;
}

bool FragmentReader::read_track_fragment(const Box& traf) {
    TrackFragment fragment;
    if (!open_fragment(import_, traf, fragment)) return false;
    TrackImport& state = import_.tracks[fragment.track];
    // Without a declared base, offsets of the first track fragment start at the moof, those of
    // another one after the previous data.
    base_ = fragment.base ? *fragment.base : fragment.base_is_moof ? moof_.offset : data_end_;
    first_run_ = true;
    begun_ = false;
    if (fragment.time) state.next = *fragment.time;
    if (fragment.duration_is_empty && !has_child(import_, traf, kTrun)) {
        state.next += fragment.defaults.duration.value_or(0);
    }
    return each(import_, traf, kTrun, [&](const Box& box) { return read_run(fragment, box); });
}

// A jump in the numbers of the fragments means missing fragments if the time of the track jumps too
// or is not declared. After samples of the movie box, the first number may be any if no time is
// declared.
bool FragmentReader::check_missing(const TrackFragment& fragment, TrackImport& state,
                                   const Track& track) {
    const bool begins_late =
        state.fragments == 0 && fragment.time && import_.first_fragment_number.value_or(1) > 1;
    const bool jumped = begins_late || state.gaps_seen != import_.sequence_gaps;
    state.gaps_seen = import_.sequence_gaps;
    if (!jumped || track.samples.empty()) return true;
    if (fragment.time && *fragment.time <= state.end) return true;
    return import_.lacks_fragments("fragments are missing before " + place_text(moof_));
}

// Sets the start of the next sample to `time`, by the duration of the previous one.
bool FragmentReader::move_to(const TrackFragment& fragment, std::uint64_t time, TrackImport& state,
                             Track& track) {
    if (track.samples.empty() && time <= INT64_MAX) {
        state.start = state.end = time;
        return true;
    }
    if (track.samples.empty()) return import_.fail(fragment.box, "begins at an impossible time");
    Sample& last = track.samples.back();
    const std::uint64_t last_begin = state.end - last.duration;
    if (time < last_begin || time - last_begin > UINT32_MAX) {
        return import_.fail(fragment.box,
                            "begins at the time " + std::to_string(time) +
                                ", which does not follow " + std::to_string(last_begin) +
                                " of the sample before: the fragment is there twice, at a wrong "
                                "place, or damaged");
    }
    last.duration = static_cast<std::uint32_t>(time - last_begin);
    state.end = time;
    return true;
}

bool FragmentReader::begin_runs(const TrackFragment& fragment) {
    TrackImport& state = import_.tracks[fragment.track];
    Track& track = import_.movie.tracks[fragment.track];
    if (!check_missing(fragment, state, track) || !move_to(fragment, state.next, state, track)) {
        return false;
    }
    if (state.fragments++ == 0) state.fragments_begin = state.end;
    return true;
}

bool FragmentReader::read_run(const TrackFragment& fragment, const Box& box) {
    BoxReader reader(import_.source, box);
    RunHeader run;
    if (!read_run_header(import_, box, reader, run)) return false;
    if (run.has(kHasDataOffset) || first_run_) {
        data_end_ = base_ + static_cast<std::uint64_t>(std::int64_t{run.data_offset});
    }
    first_run_ = false;
    import_.fragment_media.back().has_bare_run |= run.record_size() == 0;
    if (run.count == 0) return true;
    if (!begun_ && !begin_runs(fragment)) return false;
    begun_ = true;
    return read_run_samples(fragment, box, reader, run);
}

bool FragmentReader::read_run_samples(const TrackFragment& fragment, const Box& box,
                                      BoxReader& reader, const RunHeader& run) {
    Track& track = import_.movie.tracks[fragment.track];
    TrackImport& state = import_.tracks[fragment.track];
    const RunDefaults& defaults = fragment.defaults;
    if ((!run.has(kHasSizes) && !defaults.size) ||
        (!run.has(kHasDurations) && !defaults.duration)) {
        return import_.fail(box, "has samples without a size or a duration");
    }
    std::uint32_t description = 0;
    if (!find_description(import_, box, defaults.description, track, state, description)) {
        return false;
    }
    // The first reading allocated memory for the samples that it counted.
    if (run.count > track.samples.capacity() - track.samples.size()) {
        return import_.fail(box, "changed while it was read");
    }
    FragmentMedia& media = import_.fragment_media.back();
    const std::uint64_t begin = data_end_;
    for (std::uint32_t i = 0; i < run.count; ++i) {
        Sample sample;
        sample.duration = run.has(kHasDurations) ? reader.u32() : *defaults.duration;
        sample.size = run.has(kHasSizes) ? reader.u32() : *defaults.size;
        std::uint32_t flags = i == 0 && run.has(kHasFirstFlags) ? run.first_flags : defaults.flags;
        if (run.has(kHasFlags)) flags = reader.u32();
        if (run.has(kHasOffsets)) sample.composition_offset = reader.i32();
        sample.is_sync = (flags & kIsNotSync) == 0;
        sample.description = description & kDescriptionBits;
        sample.offset = data_end_;
        data_end_ += sample.size;
        media.bytes += sample.size;
        state.end += sample.duration;
        track.samples.push_back(sample);
    }
    media.end = std::max(media.end, data_end_);
    if (data_end_ > begin) import_.run_places.push_back({moof_.offset, begin, data_end_});
    state.next = state.end;
    return import_.complete(reader, box);
}

}  // namespace

bool read_fragments(Import& import, std::span<const Box> moofs) {
    for (const Box& moof : moofs) {
        if (!count_samples(import, moof)) return false;
    }
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        TrackImport& state = import.tracks[i];
        std::vector<Sample>& samples = import.movie.tracks[i].samples;
        samples.reserve(samples.size() + static_cast<std::size_t>(state.fragment_samples));
        state.declared += state.fragment_samples;
    }
    import.fragment_media.reserve(moofs.size());
    FragmentReader reader(import);
    return std::all_of(moofs.begin(), moofs.end(),
                       [&](const Box& moof) { return reader.read(moof); });
}

}  // namespace kestrel::importer
