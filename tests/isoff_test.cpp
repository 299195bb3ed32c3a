// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <tuple>
#include <utility>

#include "common/bytes.h"
#include "interface/src/isoff/record/record.h"
#include "kestrel/hosts.h"
#include "tests/support/files.h"
#include "tests/support/hint_file.h"
#include "tests/support/opened.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"

// The ISO reader: box walk, sample tables, samples and hint packets, on files made box by box.

namespace {

// Whether the function API opens a movie of the tracks.
bool opens(const Bytes& tracks, const char* mode) {
    const SyslogCapture quiet(0);
    const Bytes file = join({ftyp(), movie({tracks})});
    return play(file, mode).opened;
}

Bytes with_tables(const Bytes& tables) {
    return join({ftyp(), movie({track({.entry = samr_entry(), .tables = tables})})});
}

Bytes stts(std::initializer_list<uint32_t> pairs) {
    return box("stts", {words({0, static_cast<uint32_t>(pairs.size() / 2)}), words(pairs)});
}
Bytes stsc(std::initializer_list<uint32_t> triples) {
    return box("stsc", {words({0, static_cast<uint32_t>(triples.size() / 3)}), words(triples)});
}
Bytes stsz(uint32_t constant, uint32_t count, std::initializer_list<uint32_t> sizes = {}) {
    return box("stsz", {words({0, constant, count}), words(sizes)});
}
Bytes stco(std::initializer_list<uint32_t> offsets) {
    return box("stco", {words({0, static_cast<uint32_t>(offsets.size())}), words(offsets)});
}

// --- tables ---

struct TableCase {
    const char* what;
    Bytes tables;
    std::vector<uint32_t> offsets;  // of the samples
    std::string printed = "";
};

// All that comes before the second table of the type is taken.
TableCase twice(const char* type, const Bytes& table, const std::string& printed = "") {
    return {type, join({table, table}), {}, printed + "extra " + type + "\n"};
}

TEST(SampleTables, AreBroughtIntoAgreement) {
    const Bytes no_entries = words({0, 0});
    const Bytes roll = box("sgpd", {words({0}), text("roll"), be32(0)});
    const std::string warning = "Warning: inconsistent stsc/stco/stsz tables --- sample count ";
    const TableCase cases[] = {
        {"a constant size and one entry for all chunks",
         join({stts({6, 160}), stsc({1, 2, 1}), stsz(10, 6), stco({100, 200, 300})}),
         {100, 110, 200, 210, 300, 310}},
        {"runs of chunks",
         join({stts({6, 160}), stsc({1, 1, 1, 3, 4, 1}), stsz(0, 6, {1, 2, 3, 4, 5, 6}),
               stco({100, 200, 300})}),
         {100, 200, 300, 303, 307, 312}},
        {"as many chunks as samples: the runs are not consulted",
         join({stts({3, 160}), stsc({1, 99, 1}), stsz(7, 3), stco({300, 100, 200})}),
         {300, 100, 200}},
        {"more chunks than samples fill",
         join({stts({4, 160}), stsc({1, 2, 1}), stsz(10, 4), stco({100, 200, 300})}),
         {100, 110, 200, 210},
         warning + "4/4 stco count 3/2 \n"},
        {"more samples than the chunks hold",
         join({stts({9, 160}), stsc({1, 2, 1}), stsz(10, 9), stco({100, 200})}),
         {100, 110, 200, 210},
         warning + "9/4 stco count 2/2 \n"},
        {"no runs at all",
         join({stts({2, 160}), stsz(10, 2), stco({100})}),
         {},
         warning + "2/0 stco count 1/0 \n"},
        {"too few times",
         join({stts({2, 160}), stsc({1, 3, 1}), stsz(10, 3), stco({100})}),
         {},
         "invalid stts\n"},
        {"too few composition times",
         join({stts({3, 160}), box("ctts", {words({0, 1, 2, 5})}), stsc({1, 3, 1}), stsz(10, 3),
               stco({100})}),
         {},
         "invalid ctts 2\n"},
        {"an empty composition table",
         join({stts({3, 160}), box("ctts", {no_entries}), stsc({1, 3, 1}), stsz(10, 3),
               stco({100})}),
         {100, 110, 120}},
        twice("stts", stts({1, 1})),
        twice("stsz", stsz(1, 1)),
        twice("stco", stco({1})),
        twice("ctts", box("ctts", {no_entries})),
        twice("stss", box("stss", {no_entries})),
        twice("sbgp", box("sbgp", {words({0, 0, 0})})),
        twice("sgpd", roll, "skipping unknown grouping type: roll\n"),
        {"counts that the boxes do not hold",
         join({stts({1, 160}), box("stsz", {words({0, 0, 0xFFFFFFFF, 1})})}),
         {}},
        {"a count of 2^31 samples of one size",
         join({stts({0x7FFFFFFF, 1}), stsc({1, 0x7FFFFFFF, 1}), stsz(0x10000, 0x80000000),
               stco({100})}),
         {}},
    };
    for (const TableCase& c : cases) {
        SCOPED_TRACE(c.what);
        Opened opened(with_tables(c.tables));
        EXPECT_EQ(opened.printed, c.printed);
        iso_track* track = opened.track();
        ASSERT_NE(track, nullptr);
        const auto samples = static_cast<int>(c.offsets.size());
        ASSERT_EQ(track->sample_count, samples);
        EXPECT_EQ(track->chunk_count > 0, samples > 0);
        for (int i = 0; i < samples; ++i) {
            // Forwards, and from the far end back.
            for (const int from : {0, samples - 1}) {
                isoFFsetPosition(track, from);
                EXPECT_EQ(isoFFsetPosition(track, i), 0);
                EXPECT_EQ(track->cur_offset, c.offsets[static_cast<size_t>(i)]) << i;
            }
        }
        EXPECT_EQ(isoFFsetPosition(track, samples), -1);
        EXPECT_EQ(isoFFsetPosition(track, -1), -1);
    }
}

TEST(SampleTables, GroupsAndSyncSamplesAreKept) {
    Opened opened(with_tables(
        join({one_chunk_tables({1, 1}, 160, 0), box("stss", {words({0, 2, 1, 31})}),
              box("sbgp", {words({0, 0, 2, 5, 1, 7, 2})}),
              box("sgpd", {words({0}), text("avcb"), be32(2), be16(1), words({1, 2, 3, 4, 5}),
                           be16(2), words({6, 7, 8, 9, 10, 11, 12, 13, 14, 15})})})));
    const iso_track* track = opened.track();
    ASSERT_EQ(track->sync_count, 2u);
    EXPECT_EQ(track->sync_samples[1], 31u);
    ASSERT_EQ(track->sbgp_count, 2u);
    EXPECT_EQ(track->sbgp_list->next->sample_count, 7u);
    EXPECT_EQ(track->sbgp_list->next->next, nullptr);
    EXPECT_STREQ(track->sgpd_type, "avcb");
    ASSERT_EQ(track->sgpd_count, 2u);
    EXPECT_EQ(track->sgpd_list->next->records[1].words[4], 15u);
}

// --- reading ---

TEST(Samples, AreReadByCursorAndByNumber) {
    const Bytes media = text("aabbbcccc");
    const auto build = [&](uint32_t at) {
        const Bytes tables =
            join({stts({1, 800, 2, 400}), box("ctts", {words({0, 2, 1, 80, 2, 0})}),
                  stsc({1, 3, 1}), stsz(0, 3, {2, 3, 4}), stco({at})});
        return join({with_tables(tables), box("mdat", {media})});
    };
    Opened opened(build(static_cast<uint32_t>(build(0).size() - media.size())));
    iso_track* track = opened.track();
    char buffer[16] = {};
    double duration = 0.0;
    double offset = 0.0;
    int size = 0;

    EXPECT_EQ(isoFFframeInfo(track, &duration, &size), 0);
    EXPECT_EQ(size, 2);
    EXPECT_EQ(isoFFread(track, buffer, 1, &duration, &offset), -1);  // does not fit: cursor stays
    EXPECT_EQ(isoFFread(track, buffer, 2, &duration, &offset), 2);
    EXPECT_STREQ(buffer, "aa");
    EXPECT_DOUBLE_EQ(duration, 0.1);
    EXPECT_DOUBLE_EQ(offset, 0.01);

    EXPECT_EQ(isoFFreadAt(track, 2, 1, buffer, 100, &duration, &offset), 3);  // cut to the sample
    EXPECT_EQ(std::string(buffer, 3), "ccc");
    EXPECT_DOUBLE_EQ(duration, 0.05);
    EXPECT_DOUBLE_EQ(offset, 0.0);
    EXPECT_EQ(isoFFread(track, buffer, 16, nullptr, nullptr),
              4);  // the same sample, from its start
    EXPECT_EQ(std::string(buffer, 4), "cccc");
    EXPECT_EQ(isoFFread(track, buffer, 16, nullptr, nullptr), -1);
    EXPECT_EQ(isoFFframeInfo(track, &duration, &size), -1);

    EXPECT_EQ(isoFFreadAt(track, 1, 3, buffer, 1, nullptr, nullptr), 0);
    EXPECT_EQ(isoFFreadAt(track, 1, 0, buffer, 0, nullptr, nullptr), 0);
    EXPECT_EQ(isoFFreadAt(track, 3, 0, buffer, 1, nullptr, nullptr), -1);
    EXPECT_EQ(isoFFreadAt(track, -1, 0, buffer, 1, nullptr, nullptr), -1);
    EXPECT_EQ(isoFFreadAt(nullptr, 0, 0, buffer, 1, nullptr, nullptr), -1);
    EXPECT_EQ(isoFFreadAt(track, 1, 1, buffer, 2, nullptr, nullptr), 2);
    EXPECT_EQ(std::string(buffer, 2), "bb");

    int codec = 0, samples = 0, bytes = 0, tracks = 0;
    EXPECT_EQ(isoFFtrackInfo(track, &codec, &samples, &duration, &bytes), 0);
    EXPECT_EQ(codec, ISO_CODEC_SAMR);
    EXPECT_EQ(samples, 3);
    EXPECT_DOUBLE_EQ(duration, 1.0);
    EXPECT_EQ(bytes, 9);
    EXPECT_EQ(isoFFfileInfo(opened.file, &tracks, &duration, &bytes), 0);
    EXPECT_EQ(tracks, 1);
    EXPECT_EQ(isoFFtrackInfo(nullptr, &codec, &samples, &duration, &bytes), -1);
    EXPECT_EQ(isoFFfileInfo(nullptr, &codec, &duration, &bytes), -1);
}

TEST(Samples, InterleaveIsTheLongestRunOfOneTrack) {
    const auto one = [](uint32_t id, const Bytes& tables) {
        return track({.id = id, .entry = samr_entry(), .tables = tables});
    };
    // a: 4 samples of 0.1 s at 100, then 2 at 300; b: 3 samples of 0.02 s at 200.
    const Bytes a = join({stts({6, 800}), stsc({1, 4, 1, 2, 2, 1}), stsz(10, 6), stco({100, 300})});
    const Bytes b = join({stts({3, 160}), stsc({1, 3, 1}), stsz(10, 3), stco({200})});
    EXPECT_NEAR(isoFFgetInterleave(Opened(join({ftyp(), movie({one(1, a), one(2, b)})})).file), 0.4,
                1e-9);
    EXPECT_EQ(isoFFgetInterleave(Opened(join({ftyp(), movie({one(1, a)})})).file), 0.0);
    // Tracks at the same places come to an end too.
    EXPECT_NEAR(isoFFgetInterleave(Opened(join({ftyp(), movie({one(1, a), one(2, a)})})).file), 0.1,
                1e-9);
}

// --- jumps ---

// Tables that no muxer would write: empty chunks and time entries, samples of no bytes, chunks on
// top of each other.
Bytes random_tables(std::mt19937& random) {
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    const uint32_t samples = 1 + below(400);
    const uint32_t constant = below(2) * (1 + below(50));
    const auto time_table = [&](const char* type) {
        Bytes entries;
        uint32_t count = 0;
        for (uint32_t covered = 0; covered < samples; ++count) {
            const uint32_t run = below(3) == 0 ? 0 : 1 + below(90);
            covered += run;
            entries = join({entries, words({run, below(1000)})});
        }
        return box(type, {words({0, count}), entries});
    };
    Bytes sizes, runs, offsets;
    for (uint32_t i = 0; constant == 0 && i < samples; ++i)
        sizes = join({sizes, be32(below(4) == 0 ? 0 : below(60))});
    const uint32_t run_count = 1 + below(6);
    for (uint32_t i = 0, chunk = 1; i < run_count; ++i, chunk += 1 + below(5))
        runs = join({runs, words({chunk, below(12), 1})});
    const uint32_t chunks = below(5) == 0 ? samples : 1 + below(120);
    for (uint32_t i = 0; i < chunks; ++i)
        offsets = join({offsets, be32(below(3000))});
    return join({time_table("stts"), below(2) == 0 ? Bytes{} : time_table("ctts"),
                 box("stsc", {words({0, run_count}), runs}),
                 box("stsz", {words({0, constant, samples}), sizes}),
                 box("stco", {words({0, chunks}), offsets})});
}

// Where the cursors stand.
auto cursors_of(const iso_track* track) {
    return std::tuple(track->cur_sample, track->cur_offset, track->cur_chunk, track->stts_index,
                      track->stts_in_entry, track->ctts_index, track->ctts_in_entry);
}

TEST(Samples, AreFoundByJumpsWhereReadingOnFindsThem) {
    std::mt19937 random(20);
    int compared = 0;
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Opened opened(join({with_tables(random_tables(random)), zeros(9000)}));
        iso_track* track = opened.track();
        ASSERT_NE(track, nullptr);
        uint8_t bytes[64];
        std::vector<std::pair<double, double>> times;
        std::vector<decltype(cursors_of(track))> places;
        while (track->cur_sample < track->sample_count) {
            places.push_back(cursors_of(track));
            auto& [duration, composition] = times.emplace_back();
            ASSERT_GE(isoFFread(track, bytes, sizeof bytes, &duration, &composition), 0);
        }
        for (int jump = 0; jump < 200 && !places.empty(); ++jump, ++compared) {
            // Far and near.
            const auto here = static_cast<size_t>(track->cur_sample);
            const size_t from = jump % 2 == 0 ? 0 : here;
            const size_t to = (from + random() % (jump % 2 == 0 ? 400 : 50)) % places.size();
            ASSERT_EQ(isoFFsetPosition(track, static_cast<int>(to)), 0);
            ASSERT_EQ(cursors_of(track), places[to]);
            double duration = 0.0, composition = 0.0;
            ASSERT_GE(isoFFread(track, bytes, sizeof bytes, &duration, &composition), 0);
            ASSERT_EQ(std::pair(duration, composition), times[to]);
        }
    }
    EXPECT_GT(compared, 20000);
}

// --- boxes ---

TEST(BoxWalk, TakesBrandsMovieAndTrackValues) {
    const Bytes iods = box("iods", {be32(0), {0x10, 0x80, 0x07}, be16(0x1234), {1, 2, 3, 4, 5}});
    const Bytes udta = box("udta", {box("hnti", {box("rtp ", {text("sdp "), text("v=0")})})});
    const Bytes track_udta = box("udta", {box("hnti", {box("sdp ", {text("m=audio")})})});
    const Bytes meta = box("meta", {be32(0), box("xml ", {text("<x/>")})});
    const Bytes entry = rtp_entry(1450, 90000,
                                  join({box("tsro", {be32(77)}), box("snro", {be32(88)}),
                                        box("srpp", {be32(0), text("aaaabbbbccccdddd")})}));
    const Bytes mvhd = box("mvhd", {words({0, 11, 12, 1000, 2500}), zeros(76), be32(9)});
    const Bytes file = join(
        {box("ftyp", {text("3gr6"), be32(256), text("3gp53gp4")}), box("free", {zeros(5)}),
         box("moov",
             {mvhd, iods,
              track({.id = 3,
                     .handler = "hint",
                     .entry = entry,
                     .tables = {},
                     .extra = join({meta, track_udta, box("tref", {box("hint", {be32(1)})})})}),
              udta, zeros(4)})});
    Opened opened(file);
    EXPECT_EQ(opened.printed, "");
    EXPECT_STREQ(opened.file->major_brand, "3gr6");
    EXPECT_EQ(opened.file->minor_version, 256);
    EXPECT_STREQ(opened.file->compatible_brands, "3gp5 3gp4");
    EXPECT_EQ(opened.file->timescale, 1000u);
    EXPECT_EQ(opened.file->duration, 2500u);
    EXPECT_EQ(opened.file->next_track_id, 9u);
    EXPECT_EQ(opened.file->od_id, 0x1234u >> 6);
    EXPECT_EQ(opened.file->scene_profile, 2u);
    EXPECT_EQ(opened.file->audio_profile, 3u);
    EXPECT_STREQ(opened.file->sdp_text, "v=0");
    const iso_track* hint = isoFFselect(opened.file, "hint", 1);
    ASSERT_NE(hint, nullptr);
    EXPECT_STREQ(hint->sdp_text, "m=audio");
    EXPECT_EQ(hint->hint_track_ref, 1u);
    EXPECT_EQ(hint->rtp_max_packet, 1450u);
    EXPECT_EQ(hint->rtp_timescale, 90000u);
    EXPECT_EQ(hint->rtp_ts_offset, 77u);
    EXPECT_EQ(hint->rtp_seq_offset, 88u);
    EXPECT_STREQ(hint->srpp_schemes[2], "cccc");

    EXPECT_EQ(isoFFcompatible(opened.file, "3gp9 3gp4"), 0);
    EXPECT_EQ(isoFFcompatible(opened.file, "3gr6"), 0);
    EXPECT_EQ(isoFFcompatible(opened.file, "3gp93gp5"), 0);
    EXPECT_EQ(isoFFcompatible(opened.file, "3gp9 isom"), -1);
    EXPECT_EQ(isoFFcompatible(opened.file, "gp5 "), -1);
    EXPECT_EQ(isoFFcompatible(opened.file, nullptr), -1);
    EXPECT_EQ(isoFFcompatible(nullptr, "3gp5"), -1);
}

TEST(BoxWalk, KeepsWithinBoxesThatLie) {
    const Bytes tables = one_chunk_tables({1}, 160, 0);
    const Bytes good = track({.id = 1, .entry = samr_entry(), .tables = tables});
    struct Case {
        const char* what;
        Bytes file;
        int tracks;
    };
    Bytes overrun = box("abcd", {zeros(4)});
    overrun[3] = 200;  // claims more than the movie box has
    Bytes to_the_end = movie({good});
    to_the_end[3] = 0, to_the_end[2] = 0;
    const Bytes empty_udta = box("udta", {});
    const Case cases[] = {
        {"nothing", {}, 0},
        {"no boxes", text("this is no 3GP file, but has bytes"), 0},
        {"a lying ftyp", join({be32(0x7FFFFFFF), text("ftyp"), text("3gp5")}), 0},
        {"a lying moov", join({be32(0x7FFFFFFF), text("moov"), good}), 0},
        {"a lying mdat in front", join({be32(0xFFFFFFF0), text("mdat"), zeros(100)}), 0},
        {"a box of size 1", join({ftyp(), be32(1), text("free"), movie({good})}), 0},
        {"a box that overruns moov", join({ftyp(), movie({good, overrun})}), 1},
        {"an empty udta in front of the tracks", join({ftyp(), movie({empty_udta, good, good})}),
         2},
        {"a moov of size 0", join({ftyp(), to_the_end}), 0},
        {"media without a track header",
         join({ftyp(), movie({box("trak", {box("mdia", {box("mdhd", {zeros(24)})})}), good})}), 1},
        {"a second moov", join({ftyp(), movie({good}), movie({good})}), 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Opened opened(c.file);
        ASSERT_NE(opened.file, nullptr);
        int tracks = -1;
        isoFFfileInfo(opened.file, &tracks, nullptr, nullptr);
        EXPECT_EQ(tracks, c.tracks);
    }
}

Bytes visual_track(uint32_t id, const Bytes& avcc) {
    return track({.id = id,
                  .handler = "vide",
                  .entry = visual_entry("avc1", box("avcC", {avcc})),
                  .tables = one_chunk_tables({1}, 160, 0)});
}

// Gives the box at `at` another size.
Bytes resized(Bytes bytes, size_t at, size_t size) {
    const Bytes raw = be32(static_cast<uint32_t>(size));
    std::copy(raw.begin(), raw.end(), bytes.begin() + static_cast<long>(at));
    return bytes;
}

// Makes the first box of each type longer, with what follows it in the file.
Bytes lengthened(Bytes bytes, std::initializer_list<const char*> types, size_t by) {
    for (const char* type : types) {
        const auto found = std::search(bytes.begin(), bytes.end(), type, type + 4);
        const auto at = static_cast<size_t>(found - bytes.begin()) - 4;
        bytes = resized(bytes, at, kestrel::load_be32(&bytes[at]) + by);
    }
    return bytes;
}

// A track of no use leaves the others as they are, and does not go unsaid.
TEST(BoxWalk, DamageOfOneTrackLeavesTheOthers) {
    const Bytes good =
        track({.id = 7, .entry = samr_entry(), .tables = one_chunk_tables({1}, 160, 0)});
    const Bytes media(good.begin() + 8 + 92, good.end());  // after the track header
    const auto with_header = [&](const Bytes& body) {
        return box("trak", {box("tkhd", {body}), media});
    };
    const Bytes wide_header = join({{1, 0, 0, 0}, zeros(80)});
    const Bytes avcc = {1, 66, 0, 30, 0xFF, 0xE1, 0, 4, 0x67, 66, 0, 30, 1, 0, 2, 0x68, 9};
    const Bytes one_byte_lengths =
        join({{1, 66, 0, 30, 0xFC, 0xE1}, be16(256), Bytes(256, 0x67), {0}});
    const Bytes both = join({good, good});
    const Bytes free_first = box("trak", {box("free", {}), Bytes(good.begin() + 8, good.end())});
    const Bytes former = box("free", {good});
    const std::initializer_list<const char*> to_tables = {"trak", "mdia", "minf", "stbl"};
    const Bytes xml = resized(box("xml ", {zeros(4)}), 0, 99);
    struct Case {
        const char* what;
        Bytes tracks;
        int left;  // tracks with a sample
        uint32_t lost;
        const char* printed;
    };
    const Case cases[] = {
        {"no damage", good, 2, 0, ""},
        {"a short header", with_header(zeros(83)), 1, 1,
         "read_buf, EOF 83 left, 84 requested\nskipping track: no whole tkhd\n"},
        {"a short header of version 1", with_header(wide_header), 1, 1,
         "read_buf, EOF 84 left, 96 requested\nskipping track: no whole tkhd\n"},
        {"no header", join({box("trak", {media}), box("trak", {}), box("udta", {})}), 1, 2,
         "skipping track: no whole tkhd\nskipping track: no whole tkhd\n"},
        {"a size that covers the next track",
         lengthened(join({good, free_first}), {"trak"}, free_first.size()), 2, 1,
         "skipping track: hidden by damage\n"},
        {"free space that holds former tracks", join({good, former, box("udta", {former})}), 2, 0,
         ""},
        {"free space that ends after the header of the next track",
         join({lengthened(box("free", {}), {"free"}, 8 + 92), good}), 1, 1,
         "skipping track: hidden by damage\n"},
        {"free space that ends in the next track",
         join({good, lengthened(box("free", {}), {"free"}, 20), good}), 1, 2,
         "skipping track: hidden by damage\nskipping track: hidden by damage\n"},
        {"sizes down to the tables that cover it", lengthened(both, to_tables, good.size()), 2, 1,
         "skipping track: hidden by damage\n"},
        {"a size that ends in the header of the next track", lengthened(both, {"trak"}, 3), 1, 2,
         "seek_buf, EOF 697 left, 1651798617 requested\nskipping track: hidden by damage\n"
         "skipping track: hidden by damage\n"},
        {"such sizes down to the tables", lengthened(both, to_tables, 7), 1, 2,
         "seek_buf, EOF 693 left, 1795162104 requested\nskipping track: hidden by damage\n"
         "skipping track: hidden by damage\n"},
        {"a damaged track that covers the next",
         join({lengthened(box("trak", {box("tkhd", {zeros(84)}), be32(7), zeros(4)}), {"trak"},
                          good.size()),
               good}),
         0, 2,
         "skipping the rest: box size 7\nskipping track: hidden by damage\n"
         "skipping track: hidden by damage\n"},
        {"a header that covers the rest of its track and the next",
         lengthened(lengthened(both, {"trak"}, good.size()), {"tkhd"}, media.size() + good.size()),
         1, 1, "skipping track: hidden by damage\n"},
        {"a free box that covers the next track",
         lengthened(join({box("trak", {box("tkhd", {zeros(84)}), box("free", {})}), good}),
                    {"trak", "free"}, good.size()),
         1, 1, "skipping track: hidden by damage\n"},
        {"media before the header", box("trak", {media, box("tkhd", {zeros(84)})}), 1, 1,
         "skipping track: mdia before tkhd\n"},
        {"a box too small to be one", box("trak", {box("tkhd", {zeros(84)}), be32(7), zeros(4)}), 0,
         1, "skipping the rest: box size 7\nskipping track: hidden by damage\n"},
        {"a box to skip that claims too much",
         track({.entry = samr_entry(),
                .tables = one_chunk_tables({1}, 160, 0),
                .extra = box("meta", {be32(0), xml})}),
         2, 0, "seek_buf, EOF 4 left, 91 requested\n"},
        {"a whole avcC", visual_track(1, avcc), 2, 0, ""},
        {"a cut avcC", visual_track(1, Bytes(avcc.begin(), avcc.end() - 1)), 2, 0,
         "read_buf, EOF 16 left, 17 requested\n"},
        {"a set that is too long for its length", visual_track(1, one_byte_lengths), 2, 0,
         "avcC: a parameter set is too long for its length field\n"},
        {"a table that claims too much", resized(good, good.size() - 20, 99), 2, 0,
         "read_buf, EOF 12 left, 91 requested\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Opened opened(join({ftyp(), movie({c.tracks, good})}));
        int left = 0;
        for (int i = 1; opened.track(i) != nullptr; ++i)
            left += opened.track(i)->sample_count;
        EXPECT_EQ(left, c.left);
        EXPECT_EQ(opened.file->own->lost_tracks, c.lost);
        EXPECT_EQ(opened.printed, c.printed);
        if (std::string(opened.track(1)->handler) != "vide") continue;
        const bool whole = c.printed[0] == '\0';
        EXPECT_EQ(opened.track(1)->dsi_length, whole ? avcc.size() : 0);
        EXPECT_EQ(opens(c.tracks, "vr"), whole);
    }
}

TEST(BoxWalk, RemarksAreBounded) {
    const Bytes entry = box("xxxx", {});
    const Bytes overrun = resized(entry, 0, 99);
    Bytes tracks;
    for (int i = 0; i < 1000; ++i)
        tracks = join({tracks, box("trak", {overrun})});
    Opened opened(join({ftyp(), movie({tracks})}));
    EXPECT_EQ(std::count(opened.printed.begin(), opened.printed.end(), '\n'), 101);
    EXPECT_THAT(opened.printed, testing::EndsWith("further remarks left out\n"));
}

TEST(BoxWalk, ASecondFtypReleasesTheListOfTheFirst) {
    int32_t released[2];
    for (const bool second : {false, true}) {
        const int32_t before = freecount;
        Opened opened(join({second ? ftyp() : Bytes(), ftyp(), movie({})}));
        released[second] = freecount - before;
    }
    EXPECT_EQ(released[true], released[false] + 1);
}

// A host whose position does not move must not have the same boxes walked for ever.
TEST(BoxWalk, EndsWhereTheHostDoesNotMoveOn) {
    const Bytes file = join({box("free", {}), box("free", {zeros(40)}), box("free", {})});
    for (const uint32_t stands : {0u, 8u, 16u}) {
        FaultyHost host(file);
        KST_IOSTREAM_CALLBACK_INTERFACE table = *host.callbacks();
        static uint32_t place;
        place = stands;
        table.GetOffset = [](void*, uint32_t* offset) {
            *offset = place;
            return uint32_t{KST_HOST_OK};
        };
        KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = &table;
        isoFFclose(isoFFopen(callbacks, "r", nullptr));
        EXPECT_LT(host.calls, 20);
    }
}

TEST(BoxWalk, MediaInFrontOfTheMovieIsLoaded) {
    const Bytes good = track({.entry = samr_entry(), .tables = one_chunk_tables({1}, 160, 0)});
    const Bytes media = box("mdat", {text("0123456789")});
    Opened first(join({ftyp(), media, movie({good})}));
    iso_file* file = first.file;
    ASSERT_NE(file->mdat_buffer, nullptr);
    ASSERT_NE(file->mem_read, nullptr);
    EXPECT_EQ(file->mdat_start, ftyp().size() + 8);
    EXPECT_EQ(file->mdat_end - file->mdat_start, 10u);
    char got[16] = {};
    ASSERT_EQ(file->mem_seek(file->mem_cookie, static_cast<long>(file->mdat_start) + 7, SEEK_SET),
              0);
    EXPECT_EQ(file->mem_read(got, 1, sizeof got, file->mem_cookie), 3u);
    EXPECT_STREQ(got, "789");
    ASSERT_EQ(file->mem_seek(file->mem_cookie, static_cast<long>(file->mdat_end), SEEK_SET), 0);
    EXPECT_EQ(file->mem_read(got, 1, 1, file->mem_cookie), 0u);
    EXPECT_EQ(file->mem_seek(file->mem_cookie, -1, SEEK_SET), -1);

    // At most so many bytes. A longer body takes the place of a loaded one before it.
    const Bytes largest = box("mdat", {Bytes(iso_mdat_buffer_max, 0x3C)});
    const Bytes longer = box("mdat", {zeros(iso_mdat_buffer_max + 1)});
    Opened loaded(join({ftyp(), largest, movie({good})}));
    const uint8_t* body = loaded.file->mdat_buffer;
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(std::count(body, body + iso_mdat_buffer_max, 0x3C), iso_mdat_buffer_max);
    Opened skipped(join({ftyp(), media, longer, movie({good})}));
    EXPECT_EQ(skipped.file->mdat_buffer, nullptr);
    EXPECT_EQ(skipped.file->mem_read, nullptr);
    EXPECT_NE(isoFFselect(skipped.file, "soun", 1), nullptr);

    Opened after(join({ftyp(), movie({good}), media, movie({good})}));
    EXPECT_EQ(after.file->mdat_buffer, nullptr);
    EXPECT_EQ(isoFFselect(after.file, "soun", 2), nullptr);  // the walk ended at the media
    EXPECT_NE(isoFFselect(after.file, "soun", 1), nullptr);
    EXPECT_EQ(isoFFselect(after.file, "vide", 1), nullptr);
    EXPECT_EQ(isoFFselect(nullptr, nullptr, 1), nullptr);
}

TEST(BoxWalk, OpenReportsBadModes) {
    _TAG_KST_IOSTREAM_CALLBACK_INTERFACE* none = nullptr;
    int error = 0;
    EXPECT_EQ(isoFFopen(none, "x", &error), nullptr);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(isoFFopen(none, "", nullptr), nullptr);
    EXPECT_EQ(isoFFclose(nullptr), -1);
    // A null table, and one with null slots, yield a record without tracks.
    _TAG_KST_IOSTREAM_CALLBACK_INTERFACE empty{};
    for (auto* table : {none, &empty}) {
        iso_file* file = isoFFopen(table, "r", &error);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(isoFFselect(file, nullptr, 1), nullptr);
        EXPECT_EQ(isoFFclose(file), 0);
    }
}

TEST(Arena, ServesSmallAndLargeAndCounts) {
    _TAG_KST_IOSTREAM_CALLBACK_INTERFACE* none = nullptr;
    iso_file* file = isoFFopen(none, "r", nullptr);
    const int32_t before = malloccount;
    for (const size_t size :
         {size_t{1}, size_t{2047984}, size_t{2047985}, size_t{5000000}, size_t{8}}) {
        auto* bytes = static_cast<uint8_t*>(isoFFmalloc(file, size));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % 8, 0u);
        std::memset(bytes, 0xAB, size);  // the sanitizer sees a block that is too small
    }
    EXPECT_EQ(malloccount - before, 5);
    EXPECT_EQ(isoFFmalloc(file, SIZE_MAX - 8), nullptr);
    isoFFclose(file);
}

// The cursors of time stand at the end of their tables, and looking at a sample moves none.
TEST(Samples, CursorsStandAtTheEndAfterTheLastSample) {
    const Bytes ctts = box("ctts", {words({0, 2}), words({0, 9, 3, 5})});
    Opened opened(with_tables(
        join({stts({0, 7, 2, 160, 1, 80}), stsc({1, 3, 1}), stsz(1, 3), stco({0}), ctts})));
    iso_track* track = opened.track();
    uint8_t buffer[4];
    for (const double wanted : {160, 160, 80}) {
        const auto before = std::pair(cursors_of(track), track->dsi_sent);
        double duration = 0.0;
        EXPECT_EQ(isoFFframeInfo(track, &duration, nullptr), 0);
        EXPECT_EQ(duration, wanted / 8000);
        EXPECT_EQ(std::pair(cursors_of(track), track->dsi_sent), before);
        ASSERT_EQ(isoFFread(track, buffer, sizeof buffer, nullptr, nullptr), 1);
    }
    EXPECT_EQ(cursors_of(track), std::tuple(3, 3u, 1, track->stts_count, 0, track->ctts_count, 0));
}

// --- hint packets ---

// A file of a hint track, and its packets one by one.
class OpenedHints : public Opened {
  public:
    explicit OpenedHints(const HintFile& made) : Opened(made.build()) {
        hint = isoFFrtpHinter(track(1), 1400);
        EXPECT_EQ(hint, track(2));
    }
    int next() { return isoFFrtpPacket(hint, buffer.data()); }
    // The payload of the next packet; its result where there is none.
    std::string payload() {
        const int length = next();
        if (length < 12) return std::to_string(length);
        return {buffer.begin() + 12, buffer.begin() + length};
    }

    iso_track* hint;
    Bytes buffer = Bytes(1400);
};

// A hint sample of one packet.
Bytes one_packet(uint16_t sequence, uint16_t constructors, std::initializer_list<Bytes> parts) {
    return hint_sample(1, {packet_entry(96, sequence, constructors), join(parts)});
}

TEST(HintPackets, AreBuiltFromTheirConstructors) {
    HintFile made;
    made.add_hint(hint_sample(
        2, {packet_entry(0x80 | 96, 10, 4), Bytes(16), immediate("<>", 2),
            from_sample(2, 0, 4, 1, 3), from_sample(3, 0, 2, 2, 1), packet_entry(96, 11, 3, 4),
            be32(12), zeros(8), immediate("12345678901234", 200), Bytes(16, 9), immediate("", 0)}));
    made.add_hint(hint_sample(0, {}));
    made.add_hint(one_packet(12, 1, {from_sample(2, 255, 4, 3, 32), text("self")}));
    made.more_entry = join({box("tsro", {be32(1000)}), box("snro", {be32(65530)})});
    OpenedHints opened(made);
    iso_track* hint = opened.hint;

    EXPECT_EQ(opened.payload(), "<>defgYZ");
    EXPECT_EQ(Bytes(opened.buffer.begin(), opened.buffer.begin() + 12),
              join({{0xB0, 0x80 | 96}, be16(65540 & 0xFFFF), be32(1000), be32(0)}));
    EXPECT_EQ(hint->last_payload_type, 96u);
    EXPECT_EQ(opened.payload(), "12345678901234");
    EXPECT_EQ(hint->last_seq, (65530u + 11) & 0xFFFF);
    // The hint sample without packets took no time.
    EXPECT_EQ(opened.payload(), "self");
    EXPECT_EQ(hint->last_timestamp, 1160u);
    {
        const SyslogCapture log(4);
        EXPECT_EQ(opened.next(), 0);
        EXPECT_THAT(log.lines(), testing::ElementsAre(
                                     "DBG: isoff(358): isoFFrtpPacket() EOF:  hint->sample=0003 "
                                     "> tp->sample_count=0003\n"));
    }
    EXPECT_EQ(opened.next(), 0);
    // Positioning the hint track is seeking, from the end too; the time runs on.
    isoFFsetPosition(hint, 0);
    EXPECT_EQ(opened.next(), 20);
    EXPECT_EQ(hint->last_timestamp, 1320u);
    // So is reading its samples.
    EXPECT_GT(isoFFread(hint, opened.buffer.data(), 1400, nullptr, nullptr), 0);
    EXPECT_EQ(opened.payload(), "self");

    hint->seq_rebase = 1;
    hint->rtp_seq_offset = 100;
    isoFFrtpHinter(opened.track(1), 1400);
    isoFFsetPosition(hint, 0);
    for (const uint32_t sequence : {100u, 101u}) {
        EXPECT_GT(opened.next(), 0);
        EXPECT_EQ(hint->last_seq, sequence);
        EXPECT_EQ(hint->seq_rebase, 2u);
    }
}

// A hint sample that is begun again in the middle has the same time, and lasts once. Times wrap by
// one less than their range.
TEST(HintPackets, OfASampleThatIsBegunAgainKeepTheirTime) {
    HintFile made;
    made.delta = 0xFFFFFFF0;
    for (int i = 0; i < 3; ++i)
        made.add_hint(hint_sample(2, {packet_entry(96, 0, 0), packet_entry(96, 1, 0)}));
    OpenedHints opened(made);
    iso_track* hint = opened.hint;
    std::vector<uint32_t> times;
    for (const bool again : {false, true, false, true, false, false, false}) {
        if (again) isoFFfindHintTrack(opened.track(1), 1400);
        ASSERT_EQ(opened.next(), 12);
        times.push_back(hint->last_timestamp);
    }
    EXPECT_THAT(times,
                testing::ElementsAre(0, 0, 0, 0xFFFFFFF0, 0xFFFFFFF0, 0xFFFFFFE1, 0xFFFFFFE1));

    // A caller's own cursor knows nothing of that.
    isoFFsetPosition(hint, 0);
    opened.next();
    isoFFfindHintTrack(opened.track(1), 1400);
    rtp_hint_state own{};
    own.media_track = opened.track(1);
    rtp_hint_state* const before = std::exchange(hint->hint, &own);
    hint->rtp_ts_offset = 7;
    times.clear();
    while (opened.next() > 0)
        times.push_back(hint->last_timestamp);
    EXPECT_THAT(times, testing::ElementsAre(7, 7, 0xFFFFFFF7, 0xFFFFFFF7, 0xFFFFFFE8, 0xFFFFFFE8));
    hint->hint = before;
}

// A piece of no bytes is none, wherever it is said to lie, and leaves the media where they are.
TEST(HintPackets, PiecesOfNoBytesAreNone) {
    for (const uint32_t offset : {0u, 9u, 10u, 0x80000000u}) {
        HintFile made;
        made.add_hint(one_packet(
            1, 3,
            {from_sample(2, 0, 2, 2, 0), from_sample(2, 0, 0, 1, offset), immediate("ab", 2)}));
        OpenedHints opened(made);
        EXPECT_EQ(opened.payload(), "XYab");
        EXPECT_EQ(opened.track(1)->cur_sample, 1);
    }
}

TEST(HintPackets, BadOnesFail) {
    const Bytes ten = from_sample(2, 0, 10, 1, 0);
    const Bytes digits = immediate("1234567890", 10);
    const struct {
        const char* what;
        Bytes sample;
        uint32_t max_packet = 1400;
        int result = -1;
        bool has_header = true;
    } cases[] = {
        {"a sample number past the end", one_packet(0, 1, {from_sample(2, 0, 1, 3, 0)})},
        {"sample number 0", one_packet(0, 1, {from_sample(2, 0, 1, 0, 0)})},
        {"more bytes than the sample has", one_packet(0, 1, {from_sample(2, 0, 11, 1, 0)})},
        {"an offset past the sample", one_packet(0, 1, {from_sample(2, 0, 1, 1, 10)})},
        {"constructors that are not there", one_packet(0, 9, {Bytes(16)})},
        {"an entry that is not there", hint_sample(1, {}), 1400, -1, false},
        {"a cut header", {0}, 1400, -1, false},
        {"extra information past all bounds",
         hint_sample(1, {packet_entry(96, 0, 1, 4), be32(0xFFFFFFFF), Bytes(16)})},
        {"a packet longer than declared", one_packet(0, 1, {ten}), 21},
        {"a packet as long as declared", one_packet(0, 1, {ten}), 22, 22},
        {"immediate bytes that fill the packet", one_packet(0, 1, {digits}), 22, 22},
        {"immediate bytes past the packet", one_packet(0, 1, {digits}), 21},
        {"no room for a header", one_packet(0, 0, {}), 11, -1, false},
        {"null and a packet", one_packet(0, 0, {}), 0, -1, false},
        {"null, and no packet", hint_sample(0, {zeros(12)}), 0, 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        HintFile made;
        made.add_hint(c.sample);
        made.max_packet = c.max_packet;
        OpenedHints opened(made);
        opened.hint->seq_rebase = 1;
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[c.max_packet]);
        EXPECT_EQ(isoFFrtpPacket(opened.hint, c.max_packet == 0 ? nullptr : exact.get()), c.result);
        EXPECT_EQ(opened.hint->seq_rebase, c.has_header ? 2u : 1u);
    }
    EXPECT_EQ(isoFFrtpPacket(nullptr, nullptr), -1);
    Opened opened(HintFile().build());
    EXPECT_EQ(isoFFrtpPacket(opened.track(2), nullptr), -1);  // no cursor
}

// The place that a packet is said to begin at follows from the cursors at its end: after a piece of
// another of its own samples, by where reading on has brought the hint track's.
TEST(HintPackets, ReportTheLowestPlaceThatTheirCursorsName) {
    HintFile made;
    made.media.resize(2 << 20);  // no packet is too much work because it is far into the file
    made.add_hint(one_packet(0, 0, {}));
    made.add_hint(one_packet(1, 2, {from_sample(2, 255, 2, 1, 0), immediate("x", 1)}));
    OpenedHints opened(made);
    ASSERT_EQ(opened.next(), 12);
    ASSERT_EQ(opened.next(), 12 + 2 + 1);
    EXPECT_EQ(opened.hint->last_read_pos, opened.hint->chunks[0].start + 16);
}

// A packet that copies from an earlier hint sample must not send the reader back there for ever.
TEST(HintPackets, CopyingFromAnEarlierHintSampleDoesNotRunInACircle) {
    HintFile made;
    made.add_hint(one_packet(0, 0, {}));
    made.add_hint(hint_sample(2, {packet_entry(96, 1, 1), from_sample(2, 255, 2, 1, 0),
                                  packet_entry(96, 2, 1), from_sample(2, 255, 2, 1, 0)}));
    OpenedHints opened(made);
    std::vector<uint32_t> sequence;
    while (opened.next() > 0 && sequence.size() < 9)
        sequence.push_back(opened.hint->last_seq);
    EXPECT_THAT(sequence, testing::ElementsAre(0, 1, 2));
}

TEST(HintPackets, TheBestHintTrackIsChosen) {
    HintFile made;
    made.max_packet = 1000;
    const auto other = [](uint32_t id, uint32_t max_packet) {
        return track({.id = id,
                      .handler = "hint",
                      .entry = rtp_entry(max_packet),
                      .extra = box("tref", {box("hint", {be32(1)})})});
    };
    made.more_tracks = join({other(3, 1400), other(4, 1400)});
    Opened opened(made.build());
    iso_track* media = opened.track(1);
    struct Choice {
        int limit;
        uint32_t id;  // 0: none
    };
    for (const Choice choice :
         {Choice{999, 0}, {1000, 2}, {1200, 2}, {1400, 3}, {1500, 3}, {-1, 0}}) {
        const iso_track* found = isoFFfindHintTrack(media, choice.limit);
        EXPECT_EQ(found == nullptr ? 0 : found->track_id, choice.id) << choice.limit;
        EXPECT_EQ(isoFFrtpHinter(media, choice.limit), found);
    }
    EXPECT_EQ(isoFFrtpHinter(nullptr, 1400), nullptr);
    EXPECT_EQ(isoFFrtpHinter(opened.track(2), 1400), nullptr);
}

}  // namespace
