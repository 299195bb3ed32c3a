// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/movie.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "common/bytes.h"
#include "tests/support/faulty_host.h"
#include "tests/support/files.h"
#include "tests/support/md5.h"
#include "tests/support/memory_host.h"
#include "tests/support/movie_forms.h"

namespace {

using namespace kestrel::importer;

struct Imported {
    Result result;
    Movie movie;
};

Imported import_bytes(const Bytes& file, const Options& options = {}) {
    Imported imported;
    imported.result = import_movie(*MemoryHost(file).table(), options, imported.movie);
    return imported;
}

std::span<const std::uint8_t> bytes_of(const Bytes& file, const Sample& sample) {
    return std::span(file).subspan(static_cast<size_t>(sample.offset), sample.size);
}

std::string code(std::uint32_t type) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += static_cast<char>(type >> shift);
    return text;
}

// The samples of a track as the truths beside the wild samples write them: decoding times are moved
// so that no composition offset is negative.
std::vector<std::string> frame_lines(const Bytes& file, const Track& track) {
    std::int32_t least = 0;
    for (const Sample& sample : track.samples)
        least = std::min(least, sample.composition_offset);
    std::vector<std::string> lines;
    std::uint64_t time = 0;
    for (const Sample& sample : track.samples) {
        std::ostringstream line;
        line << track.id << ' ' << code(track.descriptions.at(sample.description).type) << ' '
             << track.timescale << ' ' << time << ' ' << sample.composition_offset - least << ' '
             << sample.size << (sample.is_sync ? " sync " : " - ") << md5(bytes_of(file, sample));
        lines.push_back(line.str());
        time += sample.duration;
    }
    return lines;
}

class WildSample : public testing::TestWithParam<std::string> {};

TEST_P(WildSample, HasTheSamplesOfItsTruth) {
    const Bytes file = read_sample(GetParam());
    const Bytes truth = read_sample(GetParam().substr(0, GetParam().find('.')) + ".frames");
    std::istringstream lines(std::string(truth.begin(), truth.end()));
    std::map<std::uint32_t, std::vector<std::string>> expected;
    for (std::string line; std::getline(lines, line);)
        expected[static_cast<std::uint32_t>(std::stoul(line))].push_back(line);

    const Imported imported = import_bytes(file);
    ASSERT_TRUE(imported.result.ok) << imported.result.error;
    for (const Track& track : imported.movie.tracks) {
        if (expected.contains(track.id)) {
            EXPECT_EQ(frame_lines(file, track), expected[track.id]);
        }
        expected.erase(track.id);
    }
    EXPECT_THAT(expected, testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Importer, WildSample, testing::ValuesIn(wild_names()),
                         [](const auto& about) {
                             std::string name = about.param.substr(std::size("wild"));
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

// --- Every form

// The tracks of a movie as far as they must be those of the clip.
std::string describe(const Bytes& file, const Movie& movie) {
    std::ostringstream text;
    for (const Track& track : movie.tracks) {
        text << "track " << track.id << ' ' << code(track.handler) << ' ' << track.timescale
             << " in " << movie.timescale << " language " << track.language << " name "
             << track.name << " times " << track.creation_time << ' ' << track.modification_time
             << " flags " << track.flags << " matrix " << track.matrix[3] << " area " << track.width
             << ' ' << track.height << " order " << track.layer << ' ' << track.alternate_group
             << ' ' << track.volume << (track.encrypted ? " encrypted" : "");
        for (const Reference& reference : track.references) {
            text << " refers " << code(reference.type);
            for (const std::uint32_t id : reference.track_ids)
                text << ' ' << id;
        }
        text << " kind " << md5(track.media_header);
        for (const Edit& edit : track.edits)
            text << " edit " << edit.duration << ' ' << edit.media_time << ' ' << edit.rate;
        for (const Description& entry : track.descriptions)
            text << ' ' << code(entry.type) << ' ' << md5(entry.box);
        text << '\n';
        for (const Sample& sample : track.samples) {
            text << track.id << ' ' << sample.duration << ' ' << sample.composition_offset << ' '
                 << sample.is_sync << ' ' << sample.description << ' ' << sample.size << ' '
                 << md5(bytes_of(file, sample)) << "\n";
        }
    }
    return text.str();
}

// The same of the clip.
std::string describe(const std::vector<ClipTrack>& clip) {
    std::ostringstream text;
    for (const ClipTrack& track : clip) {
        std::uint64_t duration = 0;
        for (const ClipSample& sample : track.samples)
            duration += sample.duration;
        text << "track " << track.id << ' ' << track.handler << ' ' << track.timescale
             << " in 1000 language 21956 name Handler times 11 12 flags 7 matrix -65536 area "
                "11534336 "
                "9437184 order 2 3 256";
        if (track.handler == "text") text << " refers cdsc 1 7";
        text << " kind " << md5(track.kind_header);
        if (track.handler == "soun") {
            text << " edit 250 -1 65536 edit " << duration * 1000 / track.timescale << " 0 65536";
        }
        for (const Bytes& entry : track.entries)
            text << ' ' << std::string(entry.begin() + 4, entry.begin() + 8) << ' ' << md5(entry);
        text << '\n';
        for (const ClipSample& sample : track.samples) {
            text << track.id << ' ' << sample.duration << ' ' << sample.composition_offset << ' '
                 << sample.is_sync << ' ' << sample.entry << ' ' << sample.data.size() << ' '
                 << md5(sample.data) << '\n';
        }
    }
    return text.str();
}

void expect_reads_back(const MovieForms& forms) {
    const MadeMovie made = make_movie(forms);
    const Imported imported = import_bytes(made.file);
    ASSERT_TRUE(imported.result.ok) << forms.name() << ": " << imported.result.error;
    EXPECT_EQ(describe(made.file, imported.movie), describe(made.tracks)) << forms.name();
    EXPECT_EQ(imported.movie.tracks[0].groups.size(), forms[kGroups] == 0 ? 0u : 2u);
}

TEST(Importer, ReadsEveryPairOfForms) {
    for (size_t one = 0; one < kDimensions; ++one) {
        for (size_t other = 0; other < one; ++other) {
            for (int choice = 0; choice < kChoices[one] * kChoices[other]; ++choice) {
                MovieForms forms;
                // Forms of fragments need some.
                if (one > kFragments) forms.choices[kFragments] = 2;
                forms.choices[one] = choice / kChoices[other];
                forms.choices[other] = choice % kChoices[other];
                expect_reads_back(forms);
                if (HasFailure()) return;
            }
        }
    }
}

TEST(Importer, ReadsRunsOfAllFlags) {
    constexpr std::uint32_t kFlags[] = {0x1, 0x4, 0x100, 0x200, 0x400, 0x800};
    for (std::uint32_t set = 0; set < 64; ++set) {
        MovieForms forms;
        forms.choices[kFragments] = 2;
        forms.choices[kBase] = 1;  // with which an offset of the data may be left out
        forms.choices[kRuns] = 1;
        forms.run_flags = 0;
        for (size_t i = 0; i < 6; ++i) {
            if ((set >> i & 1) != 0) *forms.run_flags |= kFlags[i];
        }
        forms.choices[kComposition] = (*forms.run_flags & 0x800) != 0 ? 2 : 0;
        expect_reads_back(forms);
        if (HasFailure()) FAIL() << "flags " << *forms.run_flags;
    }
}

// --- What is cut or contradicts itself

// The bytes of all samples of a track.
std::vector<Bytes> media(const Bytes& file, const Track& track) {
    std::vector<Bytes> all;
    for (const Sample& sample : track.samples) {
        const auto bytes = bytes_of(file, sample);
        all.emplace_back(bytes.begin(), bytes.end());
    }
    return all;
}

bool begins_with(const std::vector<Bytes>& all, const std::vector<Bytes>& first) {
    return first.size() <= all.size() && std::equal(first.begin(), first.end(), all.begin());
}

// Wherever a file ends, either nothing is lost, or that is an error. Salvage keeps first samples.
TEST(Importer, LosesNothingOfCutFiles) {
    for (const MovieForms& forms : single_forms()) {
        const MadeMovie made = make_movie(forms);
        const Movie whole = import_bytes(made.file).movie;
        size_t salvaged = 0;
        for (size_t length = 0; length < made.file.size(); ++length) {
            const Bytes cut(made.file.begin(),
                            made.file.begin() + static_cast<std::ptrdiff_t>(length));
            const Imported strict = import_bytes(cut);
            ASSERT_EQ(strict.result.ok, strict.result.error.empty());
            const Imported kept = import_bytes(cut, {.salvage = true});
            ASSERT_EQ(strict.result.ok, kept.result.ok && kept.result.salvaged.empty());
            if (!kept.result.ok) continue;
            salvaged += !strict.result.ok;
            for (size_t i = 0; i < whole.tracks.size(); ++i) {
                const auto all = media(made.file, whole.tracks[i]);
                const auto found = media(cut, kept.movie.tracks[i]);
                ASSERT_TRUE(strict.result.ok ? found == all : begins_with(all, found))
                    << forms.name() << " of " << length << " bytes";
            }
        }
        EXPECT_EQ(salvaged > 0, forms[kMediaPlace] == 0 || forms[kFragments] != 0) << forms.name();
    }
}

Bytes renamed(Bytes file, const std::string& type, const std::string& name, int before = 0) {
    return with(std::move(file), type, -4, text(name), before);
}

// What comes before the first fragment.
Bytes before_fragments(const Bytes& file) {
    const std::string_view type = "moof";
    return {file.begin(), std::search(file.begin(), file.end(), type.begin(), type.end()) - 4};
}

MovieForms forms_of(std::initializer_list<std::pair<Dimension, int>> choices) {
    MovieForms forms;
    for (const auto& [dimension, choice] : choices)
        forms.choices[dimension] = choice;
    return forms;
}

std::vector<size_t> sample_counts(const Movie& movie) {
    std::vector<size_t> counts;
    for (const Track& track : movie.tracks)
        counts.push_back(track.samples.size());
    return counts;
}

// Without an index and a declared duration, a file that ends with a fragment is complete. Zeros in
// place of the rest are none.
TEST(Importer, MissesTheRestOfAFragment) {
    const Bytes file = renamed(make_movie(forms_of({{kFragments, 1}})).file, "mehd", "free");
    const auto counts = sample_counts(import_bytes(file).movie);
    size_t end = before_fragments(file).size();
    for (size_t length = end; length <= file.size(); ++length) {
        Bytes cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
        const bool whole = length == end;
        EXPECT_EQ(import_bytes(cut).result.ok, whole) << length;
        cut.resize(file.size());
        const Imported zeroed = import_bytes(cut);
        EXPECT_TRUE(!zeroed.result.ok || sample_counts(zeroed.movie) == counts) << length;
        if (whole && length < file.size()) {  // on to the end of the next moof and mdat
            for (int i = 0; i < 2; ++i)
                end += size_t{file[end + 2]} << 8 | file[end + 3];
        }
    }
}

// The file with other sizes in the header of one box, for each box from `begin` to `end`: the box
// covers the next one, a part of it or all to the end, or ends before its last child, or zeros or
// bytes of no type are in place of its header.
std::vector<Bytes> with_damaged_sizes(const Bytes& file, size_t begin, size_t end) {
    const std::set<std::string> containers = {"moov", "trak", "edts", "mdia", "minf",
                                              "stbl", "mvex", "moof", "traf"};
    std::vector<Bytes> all;
    const auto size_at = [&](size_t at) {
        return static_cast<uint32_t>(kestrel::load_be32(&file[at]));
    };
    const auto damage = [&](size_t at, uint32_t size) {
        all.push_back(file);
        kestrel::store_be32(&all.back()[at], size);
    };
    for (size_t at = begin; at < end; at += size_at(at)) {
        const size_t next = at + size_at(at);
        for (const uint32_t more : {8U, 16U, 0x1000'0000U, next < end ? size_at(next) : 0})
            damage(at, size_at(at) + more);
        damage(at, 0);
        const bool is_media = file[at + 4] == 'm' && file[at + 7] == 't';
        const auto overwrite = [&](size_t first, std::ptrdiff_t length, uint8_t value) {
            all.push_back(file);
            std::fill_n(all.back().begin() + static_cast<std::ptrdiff_t>(first), length, value);
        };
        overwrite(at, 8, 0);
        overwrite(at, is_media ? 8 : 16, 0);
        overwrite(at + 4, is_media ? 4 : 8, 0xFF);
        if (!containers.contains(std::string(file.begin() + static_cast<std::ptrdiff_t>(at) + 4,
                                             file.begin() + static_cast<std::ptrdiff_t>(at) + 8)))
            continue;
        size_t child = at + 8;
        while (child + size_at(child) < next)
            child += size_at(child);
        damage(at, static_cast<uint32_t>(child - at));
        for (Bytes& inner : with_damaged_sizes(file, at + 8, next))
            all.push_back(std::move(inner));
    }
    return all;
}

TEST(Importer, LosesNothingThroughDamagedSizes) {
    for (const int fragments : {0, 1, 2}) {
        const MovieForms forms = forms_of({{kFragments, fragments}, {kRuns, 1}, {kTimes, 1}});
        Bytes file = make_movie(forms).file;
        if (fragments != 0) file = renamed(file, "mehd", "free");
        const Movie whole = import_bytes(file).movie;
        size_t refused = 0;
        for (const Bytes& damaged : with_damaged_sizes(file, 0, file.size())) {
            const Imported imported = import_bytes(damaged);
            refused += !imported.result.ok;
            for (size_t i = 0; imported.result.ok && i < whole.tracks.size(); ++i) {
                ASSERT_EQ(imported.movie.tracks.size(), whole.tracks.size());
                ASSERT_EQ(media(damaged, imported.movie.tracks[i]), media(file, whole.tracks[i]));
            }
        }
        EXPECT_GT(refused, 100U);
    }
}

TEST(Importer, SaysWhatIsWrong) {
    const Bytes plain = make_movie({}).file;
    const Bytes compact = make_movie(forms_of({{kSampleSize, 4}})).file;
    const Bytes parts = make_movie(forms_of({{kFragments, 2}, {kValues, 1}, {kTimes, 2}})).file;
    const Bytes mixed = make_movie(forms_of({{kFragments, 1}})).file;
    const Bytes runs = make_movie(forms_of({{kFragments, 2}, {kRuns, 1}})).file;
    const Bytes alone = make_movie(forms_of({{kFragments, 2}, {kSpread, 1}})).file;
    const Bytes single =
        make_movie(forms_of({{kFragments, 2}, {kValues, 1}, {kTimes, 2}, {kSpread, 1}})).file;
    const Bytes hidden = text("hidehide");  // over a header and the next one
    MovieForms elsewhere;
    elsewhere.media_elsewhere = true;
    const struct {
        Bytes file;
        const char* error;
    } kCases[] = {
        {{}, "no movie box"},
        {renamed(plain, "moov", "free"), "no movie box"},
        {join({plain, renamed(plain, "avc1", "mp4v")}), "second movie"},
        {renamed(plain, "mvhd", "free"), "moov at offset 20 has no mvhd"},
        {renamed(parts, "mvex", "cmov"), "compressed"},
        {with(plain, "mvhd", 12, be32(0)), "timescale of 0"},
        {with(plain, "mdhd", 12, be32(0)), "timescale of 0"},
        {with(plain, "tkhd", 12, be32(0)), "track ID 0"},
        {with(plain, "tkhd", 12, be32(7)), "two tracks have the ID 7"},
        {renamed(plain, "mdhd", "free"), "has no mdhd"},
        {renamed(plain, "stsd", "free"), "has no stsd"},
        {renamed(plain, "stts", "free"), "no times"},
        {renamed(renamed(renamed(plain, "stsz", "free"), "stts", "free"), "stss", "free"),
         "has no table of sample sizes"},
        {renamed(renamed(with(mixed, "stts", 4, be32(0)), "stss", "free"), "stsz", "free"),
         "has no table of sample sizes"},
        {renamed(plain, "stco", "free"), "no chunks"},
        {renamed(plain, "stss", "stts"), "second of its kind in stbl"},
        {with(plain, "mdia", -8, be32(1u << 20)), "child at offset"},
        {with(plain, "stsd", -8, be32(12)), "impossible size"},
        {with(plain, "stts", 4, be32(11)),
         "for 11 samples, but the table of sample sizes declares 12"},
        {with(plain, "stts", 4, be32(1u << 30)), "shorter than what it declares"},
        {with(plain, "stts", 8, be32(9)), "for 20 samples, but"},
        {with(plain, "stss", 8, be32(13)), "names sample 13 of 12"},
        {with(plain, "stsz", 8, be32(0xFFFFFFFF)), "shorter than what it declares"},
        {with(plain, "stsz", 4, words({1, 0xFFFFFFFF})), "samples that are read"},
        {with(plain, "stsz", 4, words({100, 1000000})), "1000000 samples of 100 bytes"},
        {with(plain, "stsz", 12, be32(1u << 30)), "sample 1 of track 1"},
        {with(plain, "stco", 8, be32(0xFFFFFFF0)), "outside the file"},
        {with(plain, "stco", 4, be32(5)), "no place for all samples"},
        {with(plain, "stsc", 4, be32(1u << 30)), "stsc at offset 663 is shorter"},
        {with(plain, "stsc", 8, be32(2)), "out of order"},
        {with(plain, "stsc", 20, be32(1)), "out of order"},
        {with(plain, "stsc", 16, be32(2)), "sample entry 2 of 1"},
        {with(plain, "stsc", 12, be32(1000)), "left without samples"},
        {make_movie(elsewhere).file, "track 1 keeps its media in another file"},
        {with(compact, "stz2", 7, {5}), "sizes of 5 bits"},
        {with(compact, "stz2", 8, be32(1000000)), "shorter than what it declares"},
        {renamed(parts, "tfhd", "free"), "traf at offset"},
        {with(parts, "tfhd", 4, be32(99)), "track 99, which the movie box does not have"},
        {with(single, "tfhd", 1, {0, 0, 0}), "bytes after the fields that its flags declare"},
        {with(parts, "trun", 4, be32(0xFFFFFFFF)), "samples that are read"},
        {with(parts, "trun", 4, be32(1000000)), "more samples than the file has bytes"},
        {with(parts, "trun", 8, be32(0x80000000)), "outside the file"},
        {with(parts, "trun", 2, {0x0F, 0x05}), "shorter than what it declares"},
        {with(parts, "tfdt", 4, be32(0xFFFFFFFF)), "impossible time"},
        {with(parts, "tfdt", 4, be32(1), 4), "does not follow"},
        {with(parts, "mehd", 4, be32(5000)), "fragments are missing"},
        {before_fragments(parts), "no fragments"},
        {with(parts, "moof", -8, zeros(8), 1), "there is no box at offset"},
        {with(parts, "mdat", -8, be32(1u << 30)), "covers mfhd at offset"},
        {with(plain, "trak", -4, hidden), "covers mdhd at offset"},
        {with(parts, "moof", -4, hidden), "covers traf at offset"},
        {with(parts, "traf", -4, hidden), "covers tfdt at offset"},
        {renamed(parts, "trun", "xxxx"), "has no trun"},
        {renamed(alone, "traf", "free"), "has no traf"},
        {renamed(plain, "stss", "\x01sss"), "there is no box at offset"},
        {with(runs, "trun", 4, be32(0)), "bytes after the 0 samples that it declares"},
        {with(runs, "trun", 4, be32(1)), "bytes after the 1 samples that it declares"},
        {with(runs, "trun", 2, {0}), "bytes after the"},
        {with(parts, "trun", 4, be32(0)), "bytes that no sample of the fragment before it takes"},
        {with(parts, "trun", 4, be32(1)), "bytes that no sample of the fragment before it takes"},
        {with(single, "trun", 4, be32(0)), "bytes that no sample of the fragment before it takes"},
    };
    Bytes timeless = plain;
    for (int entry = 0; entry < 12; ++entry)
        timeless = with(timeless, "stts", 12 + 8 * entry, be32(0));
    const struct {
        Bytes file;
        const char* remark;
    } kRemarks[] = {
        {renamed(runs, "traf", "free"), "bytes that no sample of the fragment before"},
        {with(parts, "trun", 8, be32(0)), "lie outside its media data (mdat)"},
        {with(parts, "mfhd", 4, be32(7)), "the file begins with fragment 7"},
        {with(plain, "stss", 4, be32(0)), "bytes after the entries that it declares"},
        {with(read_sample("amrnb_plain.3gp"), "stts", 12, be32(0)), "take 0.003 s (stts), though"},
        {with(read_sample("h263_plain.3gp"), "stsc", 12, be32(31)), "has 1 sample more (stsc)"},
        {renamed(read_sample("h263_hinted.3gp"), "trak", "free"),
         "has the hints of track 1, which"},
        {timeless, "all samples have the same time (stts), though mdhd declares"},
        {with(plain, "hdlr", 8, text("vidd")), "it is taken as 'vide'"},
    };
    for (const auto& [file, remark] : kRemarks) {
        const Result result = import_bytes(file).result;
        EXPECT_TRUE(result.ok) << result.error;
        EXPECT_THAT(result.remark, testing::HasSubstr(remark));
    }
    // Fragments may have no tracks, and tracks in them no runs.
    const Bytes number = box("mfhd", {words({0, 99})});
    const Bytes track = box("traf", {box("tfhd", {words({0x020000, 1})})});
    EXPECT_TRUE(import_bytes(join({parts, box("moof", {number, track})})).result.ok);
    EXPECT_TRUE(import_bytes(join({parts, box("moof", {number})})).result.ok);
    for (const auto& [file, error] : kCases) {
        const Imported imported = import_bytes(file);
        EXPECT_FALSE(imported.result.ok) << error;
        EXPECT_THAT(imported.result.error, testing::HasSubstr(error));
        const Result salvaged = import_bytes(file, {.salvage = true}).result;
        EXPECT_NE(salvaged.ok, salvaged.salvaged.empty()) << error;
    }
}

TEST(Importer, ReadsNoMoreSamplesOfChangedFilesThanItCounted) {
    MovieForms forms = forms_of({{kFragments, 2}, {kBase, 1}, {kRuns, 1}});
    forms.run_flags = 0;
    const Bytes file = make_movie(forms).file;
    const Bytes changed = with(file, "trun", 4, be32(1 << 20));
    for (int at = 0, calls = 0; at <= calls; ++at) {
        Bytes served = file;
        FaultyHost host(served);
        host.fault = [&](int call) {
            if (call == at) std::copy(changed.begin(), changed.end(), served.begin());
            return KST_HOST_OK;
        };
        Movie movie;
        import_movie(*host.callbacks(), {}, movie);
        calls = host.calls;
        for (const Track& track : movie.tracks)
            EXPECT_LE(track.samples.capacity(), file.size()) << at;
    }
}

TEST(Importer, NotesProtectedTracks) {
    const Bytes plain = make_movie({}).file;
    EXPECT_FALSE(import_bytes(plain).movie.tracks[0].encrypted);
    EXPECT_TRUE(import_bytes(renamed(plain, "avc1", "encv")).movie.tracks[0].encrypted);
    EXPECT_TRUE(import_bytes(renamed(plain, "avcC", "sinf")).movie.tracks[0].encrypted);
    EXPECT_TRUE(import_bytes(renamed(plain, "esds", "sinf")).movie.tracks[1].encrypted);
}

TEST(Importer, ReadsNamesAndEntriesOfOtherForms) {
    const Bytes counted = with(make_movie({}).file, "hdlr", 24, join({{7}, text("counted")}));
    EXPECT_EQ(import_bytes(counted).movie.tracks[0].name, "counted");
    const auto descriptions = [](const char* handler, std::initializer_list<Bytes> entries) {
        const Bytes tables = one_chunk_tables({1}, 1, 8);
        const Bytes of = track({.handler = handler, .entry = join(entries), .tables = tables});
        return import_bytes(movie({of})).movie.tracks[0].descriptions.size();
    };
    // An elementary stream that depends on another, with a location and a clock.
    const auto sound = [](std::uint32_t bit_rate) {
        const Bytes esds = join({words({0}),
                                 {3, 34, 0, 1, 0xE0, 0, 2, 3, 'u', 'r', 'l', 0, 3},
                                 {4, 17, 0x40, 0x15, 0, 0, 0},
                                 words({bit_rate, bit_rate}),
                                 {5, 2, 0x12, 0x10}});
        return box("mp4a",
                   {zeros(6), be16(1), zeros(16), words({8000u << 16}), box("esds", {esds})});
    };
    EXPECT_EQ(descriptions("soun", {sound(1000), sound(2000)}), 1u);
    // Entries that end with the header of a box that is not there.
    const auto cut = [](std::uint32_t type) { return visual_entry("avc1", words({1000, type})); };
    EXPECT_EQ(descriptions("vide", {cut(1), cut(2)}), 2u);
}

TEST(Importer, TakesRepeatedMovieBoxesOnce) {
    const MadeMovie made = make_movie(forms_of({{kFragments, 2}}));
    const Bytes start = before_fragments(made.file);
    // default-base-is-moof: fragments can be moved.
    const Bytes twice = join({start, made.file});
    const Imported imported = import_bytes(twice);
    ASSERT_TRUE(imported.result.ok) << imported.result.error;
    EXPECT_EQ(describe(twice, imported.movie), describe(made.tracks));
}

// --- Times of fragments

Imported import_timed(std::function<std::uint64_t(size_t, std::uint64_t)> time,
                      std::function<std::uint32_t(std::uint32_t)> number = {},
                      bool salvage = false) {
    MovieForms forms = forms_of({{kFragments, 2}, {kTimes, 2}});
    forms.fragment_time = std::move(time);
    forms.fragment_number = std::move(number);
    return import_bytes(make_movie(forms).file, {.salvage = salvage});
}

std::vector<std::uint32_t> durations(const Track& track) {
    std::vector<std::uint32_t> all;
    for (const Sample& sample : track.samples)
        all.push_back(sample.duration);
    return all;
}

TEST(Importer, FollowsTheTimesOfFragments) {
    const auto declared = durations(import_timed({}).movie.tracks[0]);
    for (const int change : {500, -500}) {
        const Imported imported = import_timed([&](size_t track, std::uint64_t time) {
            return track == 0 && time > 0 ? time + static_cast<std::uint64_t>(change) : time;
        });
        ASSERT_TRUE(imported.result.ok) << imported.result.error;
        auto expected = declared;
        expected[3] += static_cast<std::uint32_t>(change);
        EXPECT_EQ(durations(imported.movie.tracks[0]), expected);
    }
}

TEST(Importer, DelaysTracksThatBeginLater) {
    const Imported imported = import_timed([](size_t track, std::uint64_t time) {
        const std::uint64_t start[] = {15360, 8000 * 3 / 2, 600};  // 1, 1.5 and 1 second
        return time + start[track];
    });
    ASSERT_TRUE(imported.result.ok) << imported.result.error;
    const std::vector<Track>& tracks = imported.movie.tracks;
    EXPECT_THAT(tracks[0].edits, testing::IsEmpty());
    EXPECT_EQ(tracks[0].samples[0].duration, 960u);
    const std::vector<Edit>& edits = tracks[1].edits;
    ASSERT_EQ(edits.size(), 3u);  // the file's own late start and this one add up
    EXPECT_EQ(edits[0].duration + edits[1].duration, 750u);
    EXPECT_EQ(edits[2].media_time, 0);
    EXPECT_EQ(imported.movie.duration, 1751u);

    // An edit that begins as early as 64 bits can say.
    MovieForms forms = forms_of({{kFragments, 2}, {kTimes, 2}, {kVersion, 1}});
    forms.fragment_time = [](size_t, std::uint64_t time) { return time + 15360; };
    const Imported early =
        import_bytes(with(make_movie(forms).file, "elst", 8 + 20 + 8, words({0x80000000, 0})));
    ASSERT_TRUE(early.result.ok) << early.result.error;
    EXPECT_EQ(early.movie.tracks[1].edits.back().media_time, 0);

    // The edit of delayed pictures shows the last one, which its offset moves.
    forms.choices[kComposition] = 1;
    forms.fragment_time = [](size_t number, std::uint64_t time) {
        return number == 0 ? time + 15360 : time;
    };
    const Track video = import_bytes(make_movie(forms).file).movie.tracks.at(0);
    ASSERT_EQ(video.edits.size(), 2u);
    std::uint64_t time = 0, last = 0;
    for (const Sample& sample : video.samples) {
        last = std::max(last, time + static_cast<std::uint64_t>(sample.composition_offset));
        time += sample.duration;
    }
    EXPECT_GT(video.edits.back().duration, last * 1000 / 15360);
}

TEST(Importer, MissesFragments) {
    // A number and the time that goes with it are left out.
    const auto number = [](std::uint32_t sequence) { return sequence > 1 ? sequence + 1 : 1; };
    const auto later = [](size_t, std::uint64_t time) { return time > 0 ? time + 4000 : time; };
    const Imported missing = import_timed(later, number);
    EXPECT_THAT(missing.result.error, testing::HasSubstr("fragments are missing before moof"));
    const Imported salvaged = import_timed(later, number, true);
    EXPECT_TRUE(salvaged.result.ok);
    EXPECT_THAT(salvaged.result.salvaged, testing::HasSubstr("kept all 32 samples"));
    // Numbers alone say nothing.
    EXPECT_TRUE(import_timed({}, number).result.ok);
    EXPECT_TRUE(import_timed(later).result.ok);
    MovieForms forms = forms_of({{kFragments, 1}, {kTimes, 2}});
    for (const size_t lost : {SIZE_MAX, size_t{0}}) {
        forms.lost_fragment = lost;
        const Bytes file = renamed(make_movie(forms).file, "mehd", "free");
        const std::string error = import_bytes(file).result.error;
        EXPECT_EQ(error.substr(0, 33), lost > 0 ? "" : "fragments are missing before moof");
    }
}

TEST(Importer, MissesFragmentsThatAnIndexNames) {
    for (const int spread : {0, 1}) {
        for (const int times : {0, 2}) {
            MovieForms forms = forms_of({{kFragments, 2}, {kTimes, times}, {kSpread, spread}});
            const size_t count = spread == 0 ? 3 : 7;
            for (size_t lost = 0; lost < count; ++lost) {
                forms.choices[kIndex] = 2;
                forms.lost_fragment = lost;
                const Bytes file = renamed(make_movie(forms).file, "mehd", "free");
                EXPECT_THAT(import_bytes(file).result.error,
                            testing::HasSubstr("fragments are missing"))
                    << forms.name() << ' ' << lost;
                EXPECT_THAT(import_bytes(file, {.salvage = true}).result.salvaged,
                            testing::HasSubstr("kept all"));
            }
        }
    }
    // Wrong offsets alone say nothing.
    const Bytes whole = make_movie(forms_of({{kFragments, 2}, {kIndex, 2}})).file;
    const Bytes moved =
        join({before_fragments(whole), box("free", {zeros(100)}),
              Bytes(whole.begin() + static_cast<std::ptrdiff_t>(before_fragments(whole).size()),
                    whole.end())});
    EXPECT_TRUE(import_bytes(moved).result.ok);
}

// --- Sound of QuickTime whose tables count units

TEST(Importer, RewritesEntries) {
    const Bytes head = join({zeros(6), be16(1), zeros(8), be16(2), be16(16), zeros(4)});
    const Bytes rate = words({8000u << 16});
    const Bytes damr = words({0, 0x0081FF00});
    const Bytes h263 = visual_entry("h263", {});
    const Bytes avcc = box("avcC", {{1, 66, 0, 30, 0xFF, 0xE1}, be16(1), {103, 1}, be16(1), {104}});
    const struct {
        const char* handler;
        Bytes entry, expected;
    } kCases[] = {
        {"soun",
         box("samr", {head, rate, box("wave", {box("frma", {text("samr")}), box("samr", {damr})})}),
         box("samr", {head, rate, box("damr", {damr})})},
        {"soun",
         box("samr", {zeros(6), be16(1), be16(1), zeros(6), be16(2), be16(16), zeros(4), rate,
                      zeros(16), box("damr", {damr})}),
         box("samr", {head, rate, box("damr", {damr})})},
        {"vide", h263,
         box("s263", {Bytes(h263.begin() + 8, h263.end()), box("d263", {zeros(5), {10, 0}})})},
        {"vide", visual_entry("avc3", avcc), visual_entry("avc1", avcc)},
        {"vide", visual_entry("avc3", {}), visual_entry("avc3", {})},
    };
    for (const auto& [handler, entry, expected] : kCases) {
        const TrackSpec about{
            .handler = handler, .entry = entry, .tables = one_chunk_tables({1}, 1, 8)};
        const Imported imported = import_bytes(movie({track(about)}));
        ASSERT_TRUE(imported.result.ok) << imported.result.error;
        EXPECT_EQ(imported.movie.tracks[0].descriptions[0].box, expected);
    }
}

// Two chunks of 1,500 and of 1,000 units.
TEST(Importer, JoinsUnitsOfSound) {
    const auto version0 = join({zeros(8), be16(2), be16(16), zeros(4), words({8000u << 16})});
    const auto version1 = [](std::uint32_t compression) {
        return join({be16(1), zeros(6), be16(2), be16(16), be16(compression), zeros(2),
                     words({8000u << 16, 64, 34, 68, 2})});
    };
    const struct {
        const char* type;
        Bytes rest;  // of the entry, from its version on
        std::uint32_t size_in_table;
        size_t samples;
        std::uint32_t size, duration, last_size, last_duration;
    } kCases[] = {
        {"twos", version0, 1, 3, 4096, 1024, 4000, 1000},
        {"twos", version0, 4, 3, 4096, 1024, 4000, 1000},
        {"twos", version0, 2, 2500, 2, 1, 2, 1},
        {"ima4", version1(0), 1, 40, 68, 64, 68, 40},
        {"mp4a", version1(0xFFFE), 1, 2500, 1, 1, 1, 1},
    };
    for (const auto& expected : kCases) {
        const TrackSpec about{
            .entry = box(expected.type, {zeros(6), be16(1), expected.rest}),
            .tables = join({box("stts", {words({0, 1, 2500, 1})}),
                            box("stsc", {words({0, 1, 1, 1500, 1})}),
                            box("stsz", {words({0, expected.size_in_table, 2500})}),
                            box("stco", {words({0, 2, 8, 9000})})})};
        const Bytes file = join({box("mdat", {zeros(15000)}), movie({track(about)})});
        const Imported imported = import_bytes(file);
        ASSERT_TRUE(imported.result.ok) << imported.result.error;
        const std::vector<Sample>& samples = imported.movie.tracks[0].samples;
        ASSERT_EQ(samples.size(), expected.samples) << expected.type;
        EXPECT_EQ(samples[0].offset, 8u);
        EXPECT_EQ(samples[1].offset, 8 + expected.size);
        EXPECT_EQ(samples[0].size, expected.size);
        EXPECT_EQ(samples[0].duration, expected.duration);
        EXPECT_EQ(samples.back().size, expected.last_size);
        EXPECT_EQ(samples.back().duration, expected.last_duration);
        EXPECT_EQ(imported.movie.tracks[0].duration, 2500u);
    }
}

}  // namespace
