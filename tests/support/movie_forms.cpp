// SPDX-License-Identifier: Apache-2.0
#include "tests/support/movie_forms.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr uint32_t kMovieTimescale = 1000;
constexpr size_t kSamplesInFragment = 4;
constexpr size_t kSamplesInChunk = 2;
constexpr uint32_t kNotSync = 0x00010000;

// Flags of trun.
constexpr uint32_t kDataOffset = 0x1, kFirstFlags = 0x4, kDurations = 0x100, kSizes = 0x200,
                   kFlags = 0x400, kOffsets = 0x800;

void add(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

Bytes be64(uint64_t value) {
    return words({static_cast<uint32_t>(value >> 32), static_cast<uint32_t>(value)});
}

Bytes code(const std::string& type) {
    return text(type);
}

// Some samples of a track.
struct Part {
    size_t begin = 0;
    size_t end = 0;
};

struct FragmentPlan {
    std::vector<size_t> tracks;
    size_t number = 0;
};

Bytes sample_data(uint32_t track, size_t number, size_t size) {
    Bytes data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>(64 * track + 7 * number + i);
    return data;
}

// A NAL unit with its length; of a sample too short for both, zeros.
Bytes picture_data(size_t number, size_t size) {
    constexpr uint8_t kPartition = 3;  // of slice data, which holds any bytes
    Bytes data = sample_data(1, number, size);
    std::fill_n(data.begin(), std::min<size_t>(size, 4), uint8_t{0});
    if (size > 4) {
        data[3] = static_cast<uint8_t>(size - 4);
        data[4] = kPartition;
    }
    return data;
}

Bytes plain_box(const std::string& type, std::initializer_list<Bytes> parts) {
    return ::box(type, parts);
}

Bytes esds(uint32_t bit_rate) {
    const Bytes decoder = join(
        {{0x04, 0x11, 0x40, 0x15, 0, 0, 0}, words({bit_rate, bit_rate}), {0x05, 0x02, 0x12, 0x10}});
    return plain_box(
        "esds", {words({0}), {0x03, static_cast<uint8_t>(3 + decoder.size())}, {0, 1, 0}, decoder});
}

Bytes entry_head(uint16_t data_reference = 1) {
    return join({zeros(6), be16(data_reference)});
}

Bytes sound_entry(uint32_t bit_rate, uint8_t channels = 2) {
    return plain_box("mp4a", {entry_head(), zeros(8), be16(channels), be16(16), zeros(4),
                              words({8000u << 16}), esds(bit_rate)});
}

// QuickTime's versions 1 and 2, with the configuration in `wave`.
Bytes quicktime_sound_entry(uint32_t bit_rate, int version, uint8_t channels = 2) {
    const Bytes wave =
        plain_box("wave", {plain_box("frma", {text("mp4a")}), esds(bit_rate), words({8, 0})});
    if (version == 1) {
        return plain_box("mp4a",
                         {entry_head(), be16(1), zeros(6), be16(channels), be16(16), be16(0xFFFE),
                          zeros(2), words({8000u << 16, 1024, 0, 0, 2}), wave});
    }
    return plain_box(
        "mp4a", {entry_head(), be16(2), zeros(6), be16(3), be16(16), be16(0xFFFE), zeros(2),
                 words({0x10000, 72, 0x40BF4000, 0, channels, 0x7F000000, 16, 0, 0, 1024}), wave});
}

Bytes video_entry(uint8_t level, const Bytes& more = {}) {
    const Bytes sequence_set = {0xE1, 0, 4, 0x67, 66, 0, level};
    const Bytes picture_set = {1, 0, 2, 0x68, 9};
    return plain_box(
        "avc1", {entry_head(), zeros(16), be16(176), be16(144), zeros(50),
                 plain_box("avcC", {{1, 66, 0, level, 0xFF}, sequence_set, picture_set}), more});
}

Bytes text_entry(uint8_t justification) {
    return plain_box("tx3g", {entry_head(), zeros(4), {justification}, zeros(25)});
}

class MovieMaker {
  public:
    explicit MovieMaker(const MovieForms& forms) : forms_(forms) { make_clip(); }

    MadeMovie make() {
        const Bytes brand = text(quicktime() ? "qt  " : "3gp6");
        const Bytes ftyp = plain_box("ftyp", {brand, words({512}), brand});
        const bool media_first = has(kMediaPlace, 1);
        const bool fragments_last = fragmented();
        std::vector<std::vector<uint64_t>> chunks;
        chunk_media(chunks, 0);
        const Bytes guess = movie_box(chunks, media_first && !fragments_last);
        const bool media_last = !media_first && !fragments_last;
        const Bytes empty = box("mdat", {Bytes{}}, media_last);
        const uint64_t media_at = ftyp.size() + empty.size() + (media_first ? 0 : guess.size());
        const Bytes media = box("mdat", {chunk_media(chunks, media_at)}, media_last);
        const Bytes movie = movie_box(chunks, media_first && !fragments_last);
        Bytes file = join({ftyp, media_first ? media : movie, media_first ? movie : media});
        if (fragmented()) add(file, fragments(file.size()));
        return {file, tracks_};
    }

  private:
    bool has(Dimension dimension, int choice) const { return forms_[dimension] == choice; }
    bool fragmented() const { return forms_[kFragments] != 0; }
    bool quicktime() const { return forms_[kFlavour] != 0; }
    bool uniform() const { return has(kSampleSize, 1) || forms_[kValues] != 0 || forms_.run_flags; }
    size_t run_length() const { return kSamplesInFragment / (has(kRuns, 1) ? 2 : 1); }

    Bytes head(uint32_t flags = 0) const {
        return words({uint32_t(forms_[kVersion]) << 24 | flags});
    }

    // Of the sample of that number in the movie box, or in the fragments.
    bool is_sync(const ClipTrack& track, size_t number) const {
        if (track.handler != "vide") return true;
        if (!uniform()) return number % 3 == 0;
        const bool in_run = !forms_.run_flags || (*forms_.run_flags & kFlags) != 0;
        if (in_run) return number % run_length() == 0;
        return (*forms_.run_flags & kFirstFlags) != 0 && number % run_length() == 0;
    }

    ClipTrack make_track(uint32_t id, const std::string& handler, uint32_t timescale,
                         size_t count) const {
        ClipTrack track{.id = id,
                        .handler = handler,
                        .timescale = timescale,
                        .samples = {},
                        .entries = {},
                        .kind_header = {}};
        const bool offsets = handler == "vide" && forms_[kComposition] != 0;
        for (size_t i = 0; i < count * forms_.length; ++i) {
            ClipSample sample;
            const size_t size = uniform() ? 7 : 1 + (5 * i + id) % 15;
            sample.data = handler == "vide" ? picture_data(i, size) : sample_data(id, i, size);
            sample.duration = timescale / 16 + (uniform() ? 0 : static_cast<uint32_t>(i % 3));
            if (offsets) sample.composition_offset = static_cast<int32_t>(i % 3) * 100;
            if (offsets && has(kComposition, 2)) sample.composition_offset -= 100;
            track.samples.push_back(sample);
        }
        const size_t kept = in_movie_box(track).end;
        for (size_t i = 0; i < track.samples.size(); ++i) {
            const size_t in_unit = i < kept ? i % kSamplesInChunk : (i - kept) % kSamplesInFragment;
            track.samples[i].is_sync = is_sync(track, i < kept ? i : i - kept);
            track.samples[i].entry =
                has(kEntries, 2) && uses_second_entry(track, i - in_unit) ? 1 : 0;
        }
        return track;
    }

    void make_clip() {
        tracks_.push_back(make_track(1, "vide", 15360, 12));
        tracks_.push_back(make_track(7, "soun", 8000, 16));
        tracks_.push_back(make_track(4, "text", 600, 4));
        tracks_[0].entries = {video_entry(10), video_entry(20)};
        tracks_[1].entries = {sound_entry(1000), sound_entry(1000, 1)};
        tracks_[2].entries = {text_entry(0), text_entry(1)};
        for (ClipTrack& track : tracks_) {
            if (!has(kEntries, 2)) track.entries.pop_back();
            track.kind_header = kind_header(track);
        }
    }

    // Of the chunk or track fragment that begins with the sample.
    bool uses_second_entry(const ClipTrack& track, size_t number) const {
        return !has(kEntries, 0) && number >= track.samples.size() / 2;
    }

    Part in_movie_box(const ClipTrack& track) const {
        const size_t all = track.samples.size();
        return {0, has(kFragments, 0) ? all : has(kFragments, 1) ? all / 2 : 0};
    }

    uint64_t duration(const ClipTrack& track, Part part) const {
        uint64_t sum = 0;
        for (size_t i = part.begin; i < part.end; ++i)
            sum += track.samples[i].duration;
        return sum;
    }

    uint32_t movie_duration(const ClipTrack& track, Part part) const {
        return static_cast<uint32_t>(duration(track, part) * kMovieTimescale / track.timescale);
    }

    // --- Boxes

    Bytes box(const std::string& type, std::initializer_list<Bytes> parts,
              bool last = false) const {
        const Bytes body = join(parts);
        const auto size = static_cast<uint32_t>(body.size());
        if (last && has(kBoxSize, 2)) return join({words({0}), code(type), body});
        if (has(kBoxSize, 1)) return join({words({1}), code(type), be64(size + 16u), body});
        return join({words({size + 8u}), code(type), body});
    }

    // A plain box with the header that the form has.
    Bytes in_form(const Bytes& plain) const {
        const std::string type(plain.begin() + 4, plain.begin() + 8);
        return box(type, {Bytes(plain.begin() + 8, plain.end())});
    }

    Bytes container(const std::string& type, std::initializer_list<Bytes> parts) const {
        if (has(kExtraBoxes, 0)) return box(type, parts);
        // A box of an unknown type that has what could be a known one in it, and an empty one.
        const Bytes extra = box("zzzz", {box("stts", {words({0, 1})}), box("stsd", {})});
        const Bytes uuid = box("uuid", {zeros(16), text("anything")});
        return box(type, {extra, join(parts), uuid, box("free", {})});
    }

    Bytes versioned(uint64_t value) const {
        return has(kVersion, 1) ? be64(value) : be32(static_cast<uint32_t>(value));
    }

    Bytes handler(const std::string& type, const std::string& kind, const std::string& name) const {
        const bool here = type == "hdlr" && quicktime();
        const Bytes ending = here ? join({{static_cast<uint8_t>(name.size())}, text(name)})
                                  : join({text(name), {0}});
        return box(type,
                   {words({0}), here ? text("mhlr") : words({0}), text(kind), zeros(12), ending});
    }

    Bytes track_header(const ClipTrack& track) const {
        const Part part = in_movie_box(track);
        return box(
            "tkhd",
            {head(7), versioned(11), versioned(12), be32(track.id), zeros(4),
             versioned(movie_duration(track, part)), zeros(8), be16(2), be16(3), be16(0x0100),
             zeros(2),
             words({0, 0x10000, 0, 0xFFFF0000, 0, 0, 0, 0, 0x40000000, 176u << 16, 144u << 16})});
    }

    // The sound begins a quarter of a second late. In front of fragments an edit does not know how
    // long it will be.
    Bytes edits(const ClipTrack& track) const {
        if (track.handler != "soun") return {};
        const bool v1 = has(kVersion, 1);
        const Bytes nothing = v1 ? be64(UINT64_MAX) : be32(UINT32_MAX);
        return container(
            "edts", {box("elst", {head(), words({2}), versioned(250), nothing, words({0x10000}),
                                  versioned(movie_duration(track, in_movie_box(track))),
                                  versioned(0), words({0x10000})})});
    }

    Bytes kind_header(const ClipTrack& track) const {
        if (track.handler == "vide") return plain_box("vmhd", {words({1}), zeros(8)});
        if (track.handler == "soun") return plain_box("smhd", {zeros(8)});
        return quicktime() ? plain_box("gmhd", {plain_box("gmin", {zeros(16)})})
                           : plain_box("nmhd", {zeros(4)});
    }

    Bytes track_box(const ClipTrack& track, const std::vector<uint64_t>& chunks) const {
        const Bytes media_header =
            box("mdhd", {head(), versioned(11), versioned(12), be32(track.timescale),
                         versioned(duration(track, in_movie_box(track))),
                         be16(quicktime() ? 0 : 0x55C4), zeros(2)});
        const Bytes reference = forms_.media_elsewhere
                                    ? plain_box("url ", {words({0}), text("file:media")})
                                    : plain_box("url ", {words({1})});
        const Bytes data = container("dinf", {box("dref", {words({0, 1}), reference})});
        const Bytes data_handler = quicktime() ? handler("hdlr", "url ", "Data") : Bytes{};
        const Bytes refers =
            track.handler == "text" ? box("tref", {plain_box("cdsc", {words({1, 7})})}) : Bytes{};
        return container(
            "trak", {track_header(track), refers, edits(track),
                     container("mdia", {media_header, handler("hdlr", track.handler, "Handler"),
                                        container("minf", {in_form(track.kind_header), data_handler,
                                                           data, sample_tables(track, chunks)})})});
    }

    Bytes movie_box(const std::vector<std::vector<uint64_t>>& chunks, bool last) const {
        uint32_t longest = 0;
        for (const ClipTrack& track : tracks_)
            longest = std::max(longest, movie_duration(track, in_movie_box(track)));
        const Bytes header =
            box("mvhd", {head(), versioned(11), versioned(12), be32(kMovieTimescale),
                         versioned(longest), words({0x10000}), zeros(76), words({8})});
        Bytes children = header;
        for (size_t i = 0; i < tracks_.size(); ++i)
            add(children, track_box(tracks_[i], chunks[i]));
        if (fragmented()) add(children, extensions());
        return has(kExtraBoxes, 1) ? container("moov", {children}) : box("moov", {children}, last);
    }

    // --- Sample tables

    Bytes file_entry(const ClipTrack& track, size_t number) const {
        // Two entries of one configuration differ in what decodes nothing.
        const bool differ = has(kEntries, 2);
        const uint32_t bit_rate = differ || number == 0 ? 1000 : 2000;
        if (track.handler == "soun") {
            const uint8_t channels = differ && number == 1 ? 1 : 2;
            return quicktime() ? quicktime_sound_entry(bit_rate, forms_[kFlavour], channels)
                               : sound_entry(bit_rate, channels);
        }
        if (track.handler == "vide" && number == 1 && !differ) {
            return video_entry(10, plain_box("btrt", {zeros(12)}));
        }
        return track.entries[differ ? number : 0];
    }

    Bytes entries(const ClipTrack& track) const {
        const uint32_t count = has(kEntries, 0) ? 1 : 2;
        Bytes all;
        for (size_t i = 0; i < count; ++i)
            add(all, file_entry(track, i));
        return box("stsd", {words({0, count}), all});
    }

    Bytes times(const ClipTrack& track, Part part) const {
        Bytes runs;
        for (size_t i = part.begin; i < part.end; ++i)
            add(runs, words({1, track.samples[i].duration}));
        return box("stts", {words({0, static_cast<uint32_t>(part.end)}), runs});
    }

    Bytes composition(const ClipTrack& track, Part part) const {
        if (has(kComposition, 0) || track.handler != "vide") return {};
        Bytes runs;
        for (size_t i = part.begin; i < part.end; ++i)
            add(runs, words({1, static_cast<uint32_t>(track.samples[i].composition_offset)}));
        const uint32_t version = has(kComposition, 2) ? 1 : 0;
        return box("ctts", {words({version << 24, static_cast<uint32_t>(part.end)}), runs});
    }

    Bytes sizes(const ClipTrack& track, Part part) const {
        const auto count = static_cast<uint32_t>(part.end);
        if (has(kSampleSize, 1) && count > 0) return box("stsz", {words({0, 7, count})});
        const bool plain = forms_[kSampleSize] < 2;
        const uint32_t bits = has(kSampleSize, 2) ? 4 : has(kSampleSize, 3) ? 8 : 16;
        Bytes table;
        for (size_t i = 0; i < part.end; ++i) {
            const auto size = static_cast<uint32_t>(track.samples[i].data.size());
            if (plain) {
                add(table, be32(size));
            } else if (bits == 16) {
                add(table, be16(size));
            } else if (bits == 8 || i % 2 == 0) {
                table.push_back(static_cast<uint8_t>(bits == 8 ? size : size << 4));
            } else {
                table.back() = static_cast<uint8_t>(table.back() | size);
            }
        }
        return plain ? box("stsz", {words({0, 0, count}), table})
                     : box("stz2", {words({0, bits, count}), table});
    }

    Bytes sample_tables(const ClipTrack& track, const std::vector<uint64_t>& chunks) const {
        const Part part = in_movie_box(track);
        Bytes sync, offsets, runs;
        for (size_t i = 0; i < part.end; ++i) {
            if (track.samples[i].is_sync) add(sync, be32(static_cast<uint32_t>(i + 1)));
        }
        for (size_t i = 0; i < chunks.size(); ++i) {
            add(offsets,
                has(kChunkOffset, 1) ? be64(chunks[i]) : be32(static_cast<uint32_t>(chunks[i])));
            const uint32_t entry = uses_second_entry(track, i * kSamplesInChunk) ? 2 : 1;
            add(runs, words({static_cast<uint32_t>(i + 1), kSamplesInChunk, entry}));
        }
        const auto count = static_cast<uint32_t>(chunks.size());
        const auto sync_count = static_cast<uint32_t>(sync.size() / 4);
        Bytes groups;
        if (has(kGroups, 1)) {
            for (const char* type : {"roll", "rap "}) {
                add(groups, box("sgpd", {words({0x01000000}), text(type), words({2, 1}), be16(1)}));
                add(groups, box("sbgp", {words({0}), text(type), words({1, 2, 1})}));
            }
        }
        return container(
            "stbl",
            {entries(track), times(track, part), composition(track, part),
             track.handler == "vide" ? box("stss", {words({0, sync_count}), sync}) : Bytes{},
             box("stsc", {words({0, count}), runs}), sizes(track, part),
             box(has(kChunkOffset, 1) ? "co64" : "stco", {words({0, count}), offsets}), groups});
    }

    Bytes extensions() const {
        uint32_t longest = 0;
        Bytes defaults;
        for (const ClipTrack& track : tracks_) {
            longest = std::max(longest, movie_duration(track, {0, track.samples.size()}));
            const bool here = has(kValues, 2);
            const uint32_t flags = here && track.handler == "vide" ? kNotSync : 0;
            add(defaults, box("trex", {words({0, track.id, 1, here ? track.samples[0].duration : 0,
                                              here ? 7u : 0u, flags})}));
        }
        return container("mvex", {box("mehd", {head(), versioned(longest)}), defaults});
    }

    // The samples of the movie box, in chunks of all tracks in turn; `chunks` takes their offsets.
    Bytes chunk_media(std::vector<std::vector<uint64_t>>& chunks, uint64_t at) const {
        Bytes media;
        chunks.assign(tracks_.size(), {});
        for (size_t chunk = 0;; ++chunk) {
            const size_t before = media.size();
            for (size_t i = 0; i < tracks_.size(); ++i) {
                const size_t end =
                    std::min((chunk + 1) * kSamplesInChunk, in_movie_box(tracks_[i]).end);
                if (chunk * kSamplesInChunk >= end) continue;
                chunks[i].push_back(at + media.size());
                for (size_t sample = chunk * kSamplesInChunk; sample < end; ++sample)
                    add(media, tracks_[i].samples[sample].data);
            }
            if (media.size() == before) return media;
        }
    }

    // --- Fragments

    uint32_t flags_of_run(bool first_run, bool first_track) const {
        if (forms_.run_flags) return *forms_.run_flags;
        // Where data follows the data before, its offset can be left out.
        const bool has_offset = has(kBase, 0) || (has(kBase, 2) && first_run && first_track);
        uint32_t flags = has_offset ? kDataOffset : 0;
        flags |= has(kValues, 0) ? kDurations | kSizes | kFlags : kFirstFlags;
        return has(kComposition, 0) ? flags : flags | kOffsets;
    }

    Bytes run(const ClipTrack& track, Part part, uint32_t flags, uint64_t offset) const {
        Bytes body = words({static_cast<uint32_t>(part.end - part.begin)});
        if (flags & kDataOffset) add(body, be32(static_cast<uint32_t>(offset)));
        if (flags & kFirstFlags) add(body, be32(track.samples[part.begin].is_sync ? 0 : kNotSync));
        for (size_t i = part.begin; i < part.end; ++i) {
            const ClipSample& sample = track.samples[i];
            if (flags & kDurations) add(body, be32(sample.duration));
            if (flags & kSizes) add(body, be32(static_cast<uint32_t>(sample.data.size())));
            if (flags & kFlags) add(body, be32(sample.is_sync ? 0 : kNotSync));
            if (flags & kOffsets) add(body, be32(static_cast<uint32_t>(sample.composition_offset)));
        }
        const uint32_t version = has(kComposition, 2) ? 1 : 0;
        return box("trun", {words({version << 24 | flags}), body});
    }

    Bytes track_fragment(size_t index, Part part, bool first, uint64_t moof, uint64_t data) const {
        const ClipTrack& track = tracks_[index];
        // Of tfhd: base, description, defaults, and default-base-is-moof.
        uint32_t flags = has(kBase, 0) ? 0x20000 : has(kBase, 1) ? 0x1 : 0;
        const bool entry = uses_second_entry(track, part.begin);
        const bool defaults = has(kValues, 1) || forms_.run_flags;
        if (entry) flags |= 0x2;
        if (defaults) flags |= 0x38;
        Bytes header = words({flags, track.id});
        if (flags & 0x1) add(header, be64(data));
        if (entry) add(header, be32(2));
        if (defaults) {
            const uint32_t sync = track.handler == "vide" ? kNotSync : 0;
            add(header, words({track.samples[0].duration, 7, sync}));
        }
        const uint64_t time = duration(track, {0, part.begin});
        const uint64_t stated = forms_.fragment_time ? forms_.fragment_time(index, time) : time;
        Bytes decode_time;
        if (has(kTimes, 1)) decode_time = box("tfdt", {words({0, static_cast<uint32_t>(stated)})});
        if (has(kTimes, 2)) decode_time = box("tfdt", {words({1u << 24}), be64(stated)});
        Bytes runs;
        for (size_t i = part.begin; i < part.end; i += run_length()) {
            const Part one{i, std::min(i + run_length(), part.end)};
            const uint64_t base = has(kBase, 1) ? data : has(kBase, 0) || first ? moof : data;
            const uint32_t run_flags = flags_of_run(i == part.begin, first);
            uint64_t at = data;
            for (size_t before = part.begin; before < i; ++before)
                at += track.samples[before].data.size();
            add(runs, run(track, one, run_flags, at - base));
        }
        return container("traf", {box("tfhd", {header}), decode_time, runs});
    }

    Part part_of(const ClipTrack& track, size_t fragment) const {
        Part part;
        part.begin =
            std::min(in_movie_box(track).end + fragment * kSamplesInFragment, track.samples.size());
        part.end = std::min(part.begin + kSamplesInFragment, track.samples.size());
        return part;
    }

    // moof and mdat.
    Bytes fragment(const FragmentPlan& plan, uint32_t sequence, uint64_t at, bool last) const {
        const uint32_t number =
            forms_.fragment_number ? forms_.fragment_number(sequence) : sequence;
        Bytes media;
        for (const size_t index : plan.tracks) {
            const Part part = part_of(tracks_[index], plan.number);
            for (size_t i = part.begin; i < part.end; ++i)
                add(media, tracks_[index].samples[i].data);
        }
        const auto moof = [&](uint64_t data) {
            Bytes children = box("mfhd", {words({0, number})});
            bool first = true;
            for (const size_t index : plan.tracks) {
                const Part part = part_of(tracks_[index], plan.number);
                if (part.begin == part.end) continue;
                add(children, track_fragment(index, part, first, at, data));
                for (size_t i = part.begin; i < part.end; ++i)
                    data += tracks_[index].samples[i].data.size();
                first = false;
            }
            return container("moof", {children});
        };
        const Bytes mdat = box("mdat", {media}, last);
        return join({moof(at + moof(0).size() + mdat.size() - media.size()), mdat});
    }

    // sidx of one reference.
    Bytes segment_index(uint64_t size) const {
        return box("sidx",
                   {words({0, 1, kMovieTimescale, 0, 0, 1, static_cast<uint32_t>(size), 1000, 0})});
    }

    // Which tracks each fragment has, and its number among those of these tracks.
    std::vector<FragmentPlan> plan_fragments() const {
        std::vector<std::vector<size_t>> groups = {{0, 1, 2}};
        if (has(kSpread, 1)) groups = {{0}, {1}, {2}};
        std::vector<FragmentPlan> plan;
        for (size_t number = 0;; ++number) {
            const size_t before = plan.size();
            for (const auto& group : groups) {
                const FragmentPlan one{group, number};
                const bool any = std::any_of(group.begin(), group.end(), [&](size_t index) {
                    return part_of(tracks_[index], number).begin < tracks_[index].samples.size();
                });
                if (any) plan.push_back(one);
            }
            if (plan.size() == before) return plan;
        }
    }

    // mfra of all fragments.
    Bytes random_access(const std::vector<FragmentPlan>& plan,
                        const std::vector<uint64_t>& offsets) const {
        Bytes tables;
        for (size_t index = 0; index < tracks_.size(); ++index) {
            const ClipTrack& track = tracks_[index];
            Bytes rows;
            uint32_t count = 0;
            for (size_t i = 0; i < plan.size(); ++i) {
                const Part part = part_of(track, plan[i].number);
                const auto& in_fragment = plan[i].tracks;
                const bool is_there = std::count(in_fragment.begin(), in_fragment.end(), index) > 0;
                if (!is_there || part.begin == part.end) continue;
                add(rows, words({static_cast<uint32_t>(duration(track, {0, part.begin})),
                                 static_cast<uint32_t>(offsets[i])}));
                add(rows, {1, 1, 1});  // traf, trun and sample
                ++count;
            }
            add(tables, box("tfra", {words({0, track.id, 0, count}), rows}));
        }
        return box("mfra", {tables, box("mfro", {words({0, 16})})});
    }

    Bytes fragments(uint64_t at) const {
        const std::vector<FragmentPlan> plan = plan_fragments();
        const size_t index_size = has(kIndex, 1) ? segment_index(0).size() : 0;
        Bytes all;
        std::vector<uint64_t> offsets;
        uint64_t lost = 0;  // bytes
        for (size_t i = 0; i < plan.size(); ++i) {
            const bool last = i + 1 == plan.size() && !has(kIndex, 2);
            const uint64_t begin = at + index_size + all.size();
            const Bytes made = fragment(plan[i], static_cast<uint32_t>(i + 1), begin, last);
            offsets.push_back(begin + lost);
            if (forms_.lost_fragment == i) {
                lost = made.size();
            } else {
                add(all, made);
            }
        }
        const Bytes access = has(kIndex, 2) ? random_access(plan, offsets) : Bytes{};
        return join({has(kIndex, 1) ? segment_index(all.size()) : Bytes{}, all, access});
    }

    const MovieForms& forms_;
    std::vector<ClipTrack> tracks_;
};

}  // namespace

std::string MovieForms::name() const {
    static const std::array<const char*, kDimensions> kNames = {
        "box_size", "media_place", "version",     "chunk_offset", "sample_size", "composition",
        "entries",  "flavour",     "extra_boxes", "groups",       "fragments",   "spread",
        "base",     "runs",        "values",      "times",        "index"};
    std::string name;
    for (int i = 0; i < kDimensions; ++i) {
        if (choices[static_cast<size_t>(i)] != 0) {
            name += (name.empty() ? "" : "_") + std::string(kNames[static_cast<size_t>(i)]) +
                    std::to_string(choices[static_cast<size_t>(i)]);
        }
    }
    return name.empty() ? "plain" : name;
}

MadeMovie make_movie(const MovieForms& forms) {
    return MovieMaker(forms).make();
}

std::vector<MovieForms> single_forms() {
    std::vector<MovieForms> all(1);
    for (size_t dimension = 0; dimension < kDimensions; ++dimension) {
        for (int choice = 1; choice < kChoices[dimension]; ++choice) {
            MovieForms forms;
            if (dimension > kFragments) forms.choices[kFragments] = 2;
            forms.choices[dimension] = choice;
            all.push_back(forms);
        }
    }
    return all;
}
