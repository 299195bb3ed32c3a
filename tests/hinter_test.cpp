// SPDX-License-Identifier: Apache-2.0
#include "kestrel/hinter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "common/bytes.h"
#include "companion/importer/movie.h"
#include "kestrel/isoff.h"
#include "tests/support/files.h"
#include "tests/support/movie_forms.h"
#include "tests/support/playing.h"

// Files through kst_hint: what is written is compared with the source sample by sample, played and
// sought in.

namespace {

using kestrel::fourcc;
using kestrel::importer::Movie;
using kestrel::importer::Sample;
using kestrel::importer::Track;

struct Hinted {
    int result = -1;
    kst_hint_report report = {};
    Bytes file;
};

kst_hint_options asking(uint32_t flags, uint32_t max_packet = 0) {
    kst_hint_options options = {};
    options.struct_size = sizeof options;
    options.flags = flags;
    options.max_packet = max_packet;
    return options;
}

Hinted hint(KST_IOSTREAM_CALLBACK_INTERFACE* source, const kst_hint_options& options) {
    Hinted hinted;
    hinted.report.struct_size = sizeof hinted.report;
    const MemoryHost to;
    hinted.result = kst_hint(source, to.table(), &options, &hinted.report);
    hinted.file = to.written();
    return hinted;
}

Hinted hint(const Bytes& source, const kst_hint_options& options = asking(0)) {
    return hint(MemoryHost(source).table(), options);
}

Movie import(const Bytes& file) {
    Movie movie;
    const auto result = import_movie(*MemoryHost(file).table(), {}, movie);
    EXPECT_TRUE(result.ok) << result.error;
    return movie;
}

const Track* find(const Movie& movie, uint32_t id) {
    const auto at = std::find_if(movie.tracks.begin(), movie.tracks.end(),
                                 [&](const Track& track) { return track.id == id; });
    return at == movie.tracks.end() ? nullptr : &*at;
}

bool is_hint(const Track& track) {
    return track.handler == fourcc("hint");
}

std::span<const uint8_t> bytes_of(const Bytes& file, const Sample& sample) {
    return std::span(file).subspan(static_cast<size_t>(sample.offset), sample.size);
}

// Without its header, which may have a 64-bit size.
std::span<const uint8_t> body_of(const Bytes& box) {
    const bool is_large = box.size() > 16 && kestrel::load_be32(box.data()) == 1;
    return std::span(box).subspan(std::min<size_t>(is_large ? 16 : 8, box.size()));
}

// --- the same samples ---

// Each track of the source, with its samples at their times.
void expect_same_track(const Bytes& source, const Track& was, const Bytes& hinted,
                       const Track& now) {
    ASSERT_EQ(now.timescale % was.timescale, 0U);
    const uint32_t factor = now.timescale / was.timescale;
    EXPECT_EQ(now.handler, was.handler);
    EXPECT_EQ(now.name, was.name);
    EXPECT_EQ(now.language, was.language);
    EXPECT_EQ(now.flags, was.flags);
    EXPECT_EQ(now.matrix, was.matrix);
    EXPECT_TRUE(std::ranges::equal(body_of(now.media_header), body_of(was.media_header)));
    ASSERT_EQ(now.edits.size(), was.edits.size());
    for (size_t i = 0; i < was.edits.size(); ++i) {
        const int64_t time = was.edits[i].media_time;
        EXPECT_EQ(now.edits[i].duration, was.edits[i].duration);
        EXPECT_EQ(now.edits[i].media_time, time > 0 ? time * factor : time);
    }
    ASSERT_EQ(now.samples.size(), was.samples.size());
    for (size_t i = 0; i < was.samples.size(); ++i) {
        SCOPED_TRACE(i);
        const Sample& before = was.samples[i];
        const Sample& after = now.samples[i];
        ASSERT_EQ(after.size, before.size);
        ASSERT_TRUE(std::ranges::equal(bytes_of(hinted, after), bytes_of(source, before)));
        ASSERT_EQ(after.duration, before.duration * factor);
        ASSERT_EQ(after.composition_offset,
                  before.composition_offset * static_cast<int32_t>(factor));
        ASSERT_EQ(after.is_sync, before.is_sync);
        ASSERT_EQ(now.descriptions[after.description].type,
                  was.descriptions[before.description].type);
    }
}

void expect_same_tracks(const Bytes& source, const Bytes& hinted) {
    const Movie before = import(source);
    const Movie after = import(hinted);
    EXPECT_EQ(after.timescale, before.timescale);
    for (const Track& was : before.tracks) {
        if (is_hint(was)) continue;
        SCOPED_TRACE(was.id);
        const Track* now = find(after, was.id);
        ASSERT_NE(now, nullptr);
        expect_same_track(source, was, hinted, *now);
    }
    for (const Track& track : after.tracks) {
        if (!is_hint(track)) continue;
        const Track* media = find(after, track.references.at(0).track_ids.at(0));
        ASSERT_NE(media, nullptr);
        EXPECT_EQ(track.timescale, media->timescale);
        ASSERT_EQ(track.samples.size(), media->samples.size());
        for (size_t i = 0; i < track.samples.size(); ++i)
            ASSERT_EQ(track.samples[i].duration, media->samples[i].duration);
    }
}

bool is_unsupported(const std::string& name) {
    return name.starts_with("aac");
}

class Clip : public testing::TestWithParam<std::string> {};

TEST_P(Clip, KeepsEverySample) {
    const Bytes source = read_sample(GetParam());
    for (const auto& options :
         {asking(KST_HINT_REPLACE), asking(KST_HINT_REPLACE | KST_HINT_RFC2190, 300)}) {
        SCOPED_TRACE(options.max_packet);
        const Hinted hinted = hint(source, options);
        if (is_unsupported(GetParam())) {
            EXPECT_EQ(hinted.result, KST_HINT_REFUSED);
            EXPECT_STREQ(hinted.report.error, "no AMR, H.263, MPEG-4 or H.264 track");
            EXPECT_TRUE(hinted.file.empty());
            continue;
        }
        ASSERT_EQ(hinted.result, KST_HINT_DONE) << hinted.report.error;
        EXPECT_STREQ(hinted.report.error, "");
        EXPECT_STREQ(hinted.report.left_out, "");
        EXPECT_EQ(hinted.report.bytes, hinted.file.size());
        expect_same_tracks(source, hinted.file);
        // Hinting again finds the same to do.
        EXPECT_EQ(hint(hinted.file, options).file, hinted.file);
    }
}

// A hinted medium as the library plays it.
struct HintedMedium {
    const Track* track;
    const char* mode;
    bool class_api;  // knows the codec, and the medium is the only one of its kind
};

std::vector<HintedMedium> hinted_media(const Movie& movie) {
    std::vector<HintedMedium> media;
    for (const Track& hint_track : movie.tracks) {
        if (!is_hint(hint_track)) continue;
        const Track* track = find(movie, hint_track.references.at(0).track_ids.at(0));
        const uint32_t type = track->descriptions.at(0).type;
        const bool is_known =
            type == fourcc("samr") || type == fourcc("s263") || type == fourcc("mp4v");
        const auto alike = std::ranges::count_if(
            movie.tracks, [&](const Track& other) { return other.handler == track->handler; });
        media.push_back(
            {track, track->handler == fourcc("soun") ? "ar" : "vr", is_known && alike == 1});
    }
    return media;
}

TEST_P(Clip, PlaysAlsoWhileItArrives) {
    constexpr uint32_t kStep = 9973;  // bytes
    if (is_unsupported(GetParam())) return;
    const Hinted hinted = hint(read_sample(GetParam()), asking(KST_HINT_REPLACE));
    const Movie movie = import(hinted.file);
    for (const HintedMedium& medium : hinted_media(movie)) {
        for (const Api api : {Api::kFunction, Api::kClass}) {
            if (api == Api::kClass && !medium.class_api) continue;
            SCOPED_TRACE(std::string(medium.mode) + (api == Api::kClass ? " class" : " function"));
            const Played whole = play(hinted.file, medium.mode, {.api = api});
            EXPECT_EQ(whole.status, KST_END_OF_FILE);
            // A header and the samples, which the native format makes no smaller.
            const uint64_t media = std::accumulate(
                medium.track->samples.begin(), medium.track->samples.end(), uint64_t{0},
                [](uint64_t bytes, const Sample& sample) { return bytes + sample.size; });
            EXPECT_GT(whole.stream.size(), media * 9 / 10);
            const Played arriving = play_arriving(hinted.file, medium.mode, kStep, {.api = api});
            EXPECT_EQ(arriving.status, KST_END_OF_FILE);
            EXPECT_EQ(arriving.stream, whole.stream);
        }
    }
}

// --- seeking by time ---

// The sync sample that a rule chooses for a sample, both from 1 (0 for none).
uint32_t chosen(const std::vector<uint32_t>& syncs, uint32_t sample, uint32_t rule) {
    const auto next = std::lower_bound(syncs.begin(), syncs.end(), sample);
    if (next != syncs.end() && *next == sample) return sample;
    const uint32_t before = next == syncs.begin() ? 0 : *std::prev(next);
    if (next == syncs.end() || rule == KST_SEEK_PREVIOUS_SYNC) return before;
    if (rule == KST_SEEK_NEXT_SYNC) return *next;
    return sample - before >= *next - sample ? before : *next;  // the farther one
}

// Seeks to times all over the medium, and compares the sample reached with that of the time.
void expect_right_seeks(const Bytes& file, const HintedMedium& medium) {
    const Track& track = *medium.track;
    std::vector<uint64_t> begins;
    std::vector<uint32_t> syncs;
    uint64_t time = 0;
    for (const Sample& sample : track.samples) {
        begins.push_back(time);
        if (sample.is_sync) syncs.push_back(static_cast<uint32_t>(begins.size()));
        time += sample.duration;
    }
    const MemoryHost host(file);
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.table(), medium.mode), 0U);
    for (uint64_t ms = 0; ms * track.timescale < time * 1000; ms += ms % 5 + 1) {
        const auto at = std::upper_bound(begins.begin(), begins.end(), ms * track.timescale / 1000);
        const auto sample = static_cast<uint32_t>(at - begins.begin());
        for (const uint32_t rule :
             {KST_SEEK_NEXT_SYNC, KST_SEEK_PREVIOUS_SYNC, KST_SEEK_NEAREST_SYNC}) {
            const uint32_t wanted = chosen(syncs, sample, rule);
            _TAG_KST_SEEK_PARAMS seek = {};
            seek.nTime = static_cast<uint32_t>(ms);
            seek.fFlags = KST_SEEK_ABSOLUTE | rule;
            ASSERT_EQ(player.SeekTo(&seek), 0U) << ms;
            ASSERT_EQ(seek.uFrameNum, wanted) << ms << " ms by rule " << rule;
            ASSERT_EQ(seek.nTime, begins[wanted - 1] * 1000 / track.timescale);
        }
    }
}

TEST_P(Clip, SeeksToTheSampleOfATime) {
    if (is_unsupported(GetParam())) return;
    const Hinted hinted = hint(read_sample(GetParam()), asking(KST_HINT_REPLACE));
    const Movie movie = import(hinted.file);
    for (const HintedMedium& medium : hinted_media(movie)) {
        if (medium.class_api) expect_right_seeks(hinted.file, medium);
    }
}

INSTANTIATE_TEST_SUITE_P(Hinter, Clip, testing::ValuesIn(all_names()), [](const auto& about) {
    std::string name = about.param;
    std::ranges::replace_if(
        name, [](char c) { return c == '.' || c == '/'; }, '_');
    return name;
});

// Whatever a file counts in: the class API counts whole units of a millisecond.
TEST(Hinter, SeeksInEveryTimescale) {
    for (const char* name : {"amrnb_plain.3gp", "h263_plain.3gp", "mpeg4_plain.3gp"}) {
        for (const uint32_t timescale : {25U, 600U, 1000U, 11025U, 29970U, 44100U, 90000U}) {
            SCOPED_TRACE(timescale);
            const uint32_t delta = std::max(timescale / 15, 1U);  // of the first entry
            const Bytes source =
                with(with(read_sample(name), "mdhd", 12, be32(timescale)), "stts", 12, be32(delta));
            const Hinted hinted = hint(source);
            ASSERT_EQ(hinted.result, KST_HINT_DONE) << hinted.report.error;
            expect_same_tracks(source, hinted.file);
            const Movie movie = import(hinted.file);
            EXPECT_EQ(movie.tracks.at(0).timescale, std::lcm(timescale, 1000U));
            expect_right_seeks(hinted.file, hinted_media(movie).at(0));
        }
    }
}

// Where the multiple would not fit into 32 bits: a timescale of which all times are whole numbers,
// else the source's own, which is reported.
TEST(Hinter, TakesATimescaleThatFits) {
    constexpr uint32_t kTimescale = 15360, kFactor = 25, kSamples = 30;
    constexpr uint32_t kLongest = UINT32_MAX / kFactor / kSamples;  // duration of a sample
    const struct {
        uint32_t duration, timescale;
    } cases[] = {{kLongest, kTimescale * kFactor},
                 {(kLongest + 511) / 512 * 512, 3000},
                 {kLongest + 4, kTimescale}};
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.duration);
        const Bytes source =
            with(read_sample("mpeg4_plain.3gp"), "stts", 8, words({kSamples, expected.duration}));
        const Hinted hinted = hint(source);
        ASSERT_EQ(hinted.result, KST_HINT_DONE) << hinted.report.error;
        const Track now = import(hinted.file).tracks.at(0);
        EXPECT_EQ(now.timescale, expected.timescale);
        if (expected.timescale % kTimescale == 0) expect_same_tracks(source, hinted.file);
        for (const Sample& sample : now.samples) {
            EXPECT_EQ(uint64_t{sample.duration} * kTimescale,
                      uint64_t{expected.duration} * expected.timescale);
        }
        EXPECT_EQ(
            std::string(hinted.report.left_out).starts_with("track 1: seeks of the class API"),
            expected.timescale % 1000 != 0);
    }
}

// --- other tracks ---

TEST(Hinter, KeepsOrDropsOtherTracks) {
    const Bytes source = read_sample("wild/timed_text_aac.mp4");
    const Hinted kept = hint(source);
    EXPECT_EQ(kept.report.tracks, 3U);
    EXPECT_EQ(kept.report.hint_tracks, 1U);
    EXPECT_EQ(kept.report.dropped_tracks, 0U);
    const Hinted dropped = hint(source, asking(KST_HINT_DROP_OTHERS));
    EXPECT_EQ(dropped.report.tracks, 1U);
    EXPECT_EQ(dropped.report.dropped_tracks, 2U);
    EXPECT_STREQ(dropped.report.left_out, "left out track 2 (mp4a), track 3 (tx3g)");
    EXPECT_EQ(import(dropped.file).tracks.size(), 2U);
    const Hinted replaced = hint(kept.file, asking(KST_HINT_REPLACE | KST_HINT_DROP_OTHERS));
    EXPECT_EQ(replaced.report.replaced_tracks, 1U);
    EXPECT_EQ(replaced.file, dropped.file);
}

TEST(Hinter, KeepsReferencesToTracksThatAreThere) {
    const Movie kept = import(hint(read_sample("wild/systems_tracks.mp4")).file);
    const Movie was = import(read_sample("wild/systems_tracks.mp4"));
    EXPECT_EQ(kept.object_descriptor, was.object_descriptor);
    size_t references = 0;
    for (const Track& track : was.tracks) {
        ASSERT_EQ(find(kept, track.id)->references.size(), track.references.size());
        for (size_t i = 0; i < track.references.size(); ++i) {
            EXPECT_EQ(find(kept, track.id)->references[i].type, track.references[i].type);
            EXPECT_EQ(find(kept, track.id)->references[i].track_ids, track.references[i].track_ids);
            ++references;
        }
    }
    EXPECT_GT(references, 0U);
    const Hinted alone = hint(read_sample("wild/systems_tracks.mp4"), asking(KST_HINT_DROP_OTHERS));
    for (const Track& track : import(alone.file).tracks) {
        for (const auto& reference : track.references)
            EXPECT_EQ(reference.type, fourcc("hint"));
    }
}

TEST(Hinter, RefusesEncryptedTracksButForDroppingThem) {
    Bytes source = read_sample("av_h263_amrnb_hinted.3gp");
    source = with(source, "s263", -4, text("encv"));
    const Hinted refused = hint(source, asking(KST_HINT_REPLACE));
    EXPECT_EQ(refused.result, KST_HINT_REFUSED);
    EXPECT_STREQ(refused.report.error, "track 1 is encrypted");
    EXPECT_TRUE(refused.file.empty());
    const Hinted dropped = hint(source, asking(KST_HINT_REPLACE | KST_HINT_DROP_OTHERS));
    ASSERT_EQ(dropped.result, KST_HINT_DONE);
    EXPECT_EQ(play(dropped.file, "ar").status, KST_END_OF_FILE);
    source = with(source, "samr", -4, text("enca"));
    EXPECT_STREQ(hint(source, asking(KST_HINT_REPLACE | KST_HINT_DROP_OTHERS)).report.error,
                 "track 1 is encrypted");
}

// A file whose tracks have the tables, and sample entries, that are given. Its media begins at
// kMedia.
constexpr uint32_t kMedia = 8;

Bytes file_of(const Bytes& media, std::initializer_list<Bytes> tracks) {
    return join({box("mdat", {media}), movie(tracks)});
}

TEST(Hinter, HintsByTheSampleEntryThatSamplesHave) {
    const Bytes sound =
        join({zeros(6), be16(1), zeros(8), be16(2), be16(16), zeros(4), words({8000U << 16})});
    const Bytes aac = box("mp4a", {sound});
    const Bytes speech = join({{0x04}, zeros(12)});
    const struct {
        Bytes unused, used;
        const char* error;
    } cases[] = {{aac, samr_entry(), ""},
                 {samr_entry(), aac, "no AMR, H.263, MPEG-4 or H.264 track"}};
    for (const auto& [unused, used, error] : cases) {
        const Bytes tables = with(one_chunk_tables({13}, 160, kMedia), "stsc", 16, be32(2));
        const Bytes source = file_of(
            speech, {track({.entry = join({unused, used}), .entries = 2, .tables = tables})});
        const Hinted hinted = hint(source);
        EXPECT_STREQ(hinted.report.error, error);
        EXPECT_EQ(hinted.report.hint_tracks, *error == '\0' ? 1U : 0U);
        if (*error != '\0') continue;
        EXPECT_EQ(play(hinted.file, "ar").status, KST_END_OF_FILE);
    }
}

TEST(Hinter, LeavesTracksWithoutSamplesUnhinted) {
    const auto speech = [](uint32_t id, const std::vector<uint32_t>& sizes) {
        return track(
            {.id = id, .entry = samr_entry(), .tables = one_chunk_tables(sizes, 160, kMedia)});
    };
    const Bytes frame = join({{0x04}, zeros(12)});
    const Hinted hinted = hint(file_of(frame, {speech(1, {13}), speech(2, {})}));
    EXPECT_EQ(hinted.report.tracks, 2U);
    EXPECT_EQ(hinted.report.hint_tracks, 1U);
    EXPECT_STREQ(hint(file_of(frame, {speech(2, {})})).report.error, "track 2 has no samples");
    EXPECT_STREQ(hint(file_of(frame, {speech(1, {13, 0})})).report.left_out,
                 "track 1: 1 of 2 samples is empty: no speech is delivered for it");
}

// A player holds a frame with 20 bytes for each of its packets, 1,388 bytes of media.
TEST(Hinter, HintsPicturesThatPlayAndNoLongerOnes) {
    constexpr uint32_t kLongest = 16538896;
    const Bytes entry = import(read_sample("mpeg4_plain.3gp")).tracks.at(0).descriptions.at(0).box;
    for (const uint32_t size : {kLongest, kLongest + 1}) {
        Bytes picture(size, 0x55);
        kestrel::store_be32(picture.data(), 0x000001B6);
        const Hinted hinted =
            hint(file_of(picture, {track({.handler = "vide",
                                          .entry = entry,
                                          .tables = one_chunk_tables({size}, 800, kMedia)})}));
        if (size > kLongest) {
            EXPECT_THAT(hinted.report.error, testing::HasSubstr("sample 1 and the headers of its"));
            EXPECT_TRUE(hinted.file.empty());
            continue;
        }
        ASSERT_EQ(hinted.result, KST_HINT_DONE) << hinted.report.error;
        for (const Api api : {Api::kFunction, Api::kClass})
            EXPECT_EQ(play(hinted.file, "vr", {.api = api}).status, KST_END_OF_FILE);
    }
}

// Few are left to the decoder, with a word in the report.
TEST(Hinter, RefusesMediaOfAWrongPlace) {
    for (const std::string name : {"h263_plain.3gp", "mpeg4_plain.3gp", "h264_plain.3gp",
                                   "amrnb_plain.3gp", "amrwb_plain.3gp"}) {
        const Bytes whole = read_sample(name);
        const auto samples = import(whole).tracks.at(0).samples;
        for (const size_t wrong : {size_t{1}, samples.size()}) {
            Bytes flipped = whole, zeroed = whole;
            for (size_t i = 0; i < wrong; ++i) {
                const auto at = static_cast<std::ptrdiff_t>(samples[i].offset);
                flipped[static_cast<size_t>(at)] ^= 0x80;
                std::fill_n(zeroed.begin() + at, samples[i].size, uint8_t{0});
            }
            // Speech of zeros is refused as malformed.
            for (const Bytes& source : {flipped, name.starts_with("amr") ? flipped : zeroed}) {
                const Hinted hinted = hint(source);
                const std::string said = wrong == 1 ? hinted.report.left_out : hinted.report.error;
                EXPECT_EQ(hinted.result, wrong == 1 ? KST_HINT_DONE : KST_HINT_REFUSED) << name;
                EXPECT_THAT(said,
                            testing::StartsWith("track 1: " + std::to_string(wrong) + " of "));
            }
        }
    }
}

TEST(Hinter, ReplacesDamagedHintTracks) {
    const Bytes whole = read_sample("h263_hinted.3gp");
    const Bytes source = with(whole, "stsz", 8, be32(7), 1);  // of the hint track
    EXPECT_EQ(hint(source).result, KST_HINT_HAS_HINTS);
    EXPECT_EQ(hint(source, asking(KST_HINT_REPLACE)).file,
              hint(whole, asking(KST_HINT_REPLACE)).file);
}

TEST(Hinter, SalvagesWhatIsWholeOfACutFile) {
    Bytes source = read_sample("wild/fragmented_each_frame.3gp");
    source.resize(source.size() / 2);
    const Hinted refused = hint(source);
    EXPECT_EQ(refused.result, KST_HINT_REFUSED);
    EXPECT_TRUE(refused.file.empty());
    const Hinted salvaged = hint(source, asking(KST_HINT_SALVAGE));
    ASSERT_EQ(salvaged.result, KST_HINT_DONE) << salvaged.report.error;
    EXPECT_THAT(salvaged.report.left_out, testing::StartsWith("kept "));
    EXPECT_GT(salvaged.report.samples, 20U);
    for (const char* mode : {"ar", "vr"})
        EXPECT_EQ(play(salvaged.file, mode).status, KST_END_OF_FILE);
    source = read_sample("av_h263_amrnb_hinted.3gp");
    source.resize(30000);
    EXPECT_THAT(hint(source, asking(KST_HINT_SALVAGE | KST_HINT_REPLACE)).report.left_out,
                testing::StartsWith("left out track 2 (samr, no sample is whole); kept 4 of"));
}

// --- forms and damages ---

// Files of one clip in all forms that the importer reads.
TEST(Hinter, CopiesEveryForm) {
    for (const MovieForms& forms : single_forms()) {
        SCOPED_TRACE(forms.name());
        const Bytes source = make_movie(forms).file;
        const Hinted hinted = hint(source);
        if (forms[kEntries] == 2) {
            EXPECT_STREQ(hinted.report.error,
                         "track 1 has several sample descriptions that differ");
            EXPECT_TRUE(hinted.file.empty());
            continue;
        }
        ASSERT_EQ(hinted.result, KST_HINT_DONE) << hinted.report.error;
        expect_same_tracks(source, hinted.file);
        EXPECT_EQ(play(hinted.file, "vr").status, KST_END_OF_FILE);
    }
}

TEST(Hinter, RefusesWhatItCannotHint) {
    constexpr uint32_t kLong = 0x7FFFFFFF;
    const struct {
        const char* name;
        const char* file;
        const char* box;
        int at;  // in the body, or at its type, where four bytes are replaced
        uint32_t value;
        const char* error;
    } cases[] = {
        {"no avcC", "h264_plain.3gp", "avcC", -4, fourcc("free"),
         "track 1 has no decoder configuration"},
        {"no esds", "mpeg4_plain.3gp", "esds", -4, fourcc("free"),
         "track 1 has no decoder configuration"},
        {"no d263", "h263_plain.3gp", "d263", -4, fourcc("free"),
         "track 1 has no decoder configuration (d263); a file made of its native stream has one "
         "('kestrel extract', 'kestrel pack')"},
        {"long descriptor", "mpeg4_plain.3gp", "esds", 4, 0x037F7F7F,
         "track 1: its decoder configuration is damaged"},
        {"long parameter set", "h264_plain.3gp", "avcC", 6, 0xFFFFFFFF,
         "track 1 has no decoder configuration"},
        {"no sequence set", "h264_plain.3gp", "avcC", 5, 0xE0001667,
         "track 1: it has no parameter sets; get the file again"},
        {"no picture set", "h264_plain.3gp", "avcC", 30, 0x00000468,
         "track 1: it has no parameter sets; get the file again"},
        {"no layer", "mpeg4_plain.3gp", "esds", 50, 0,
         "track 1: its decoder configuration has no video object layer; get the file again"},
        {"samples of a byte", "mpeg4_plain.3gp", "stsz", 4, 1,
         "track 1: 30 of 30 samples cannot be of the codec 'mp4v', the first is number 1: the "
         "tables "
         "point to the wrong bytes, or the media was overwritten; get the file again"},
        {"long sample", "mpeg4_plain.3gp", "stts", 12, kLong,
         "track 1 lasts too long: it counts 15360 units a second in 32 bits, so up to 77 h 40 min"},
    };
    for (const auto& damaged : cases) {
        SCOPED_TRACE(damaged.name);
        const Hinted hinted =
            hint(with(read_sample(damaged.file), damaged.box, damaged.at, be32(damaged.value)));
        EXPECT_EQ(hinted.result, KST_HINT_REFUSED);
        EXPECT_STREQ(hinted.report.error, damaged.error);
        EXPECT_TRUE(hinted.file.empty());
    }
}

TEST(Hinter, SaysWhichSampleOfSpeechIsMalformed) {
    for (const char* name : {"amrnb_plain.3gp", "amrwb_plain.3gp"}) {
        Bytes source = read_sample(name);
        const auto offset = import(source).tracks.at(0).samples.at(4).offset;
        source[static_cast<size_t>(offset)] = 0x04;  // a frame of the lowest rate
        const Hinted hinted = hint(source);
        EXPECT_EQ(hinted.result, KST_HINT_REFUSED);
        EXPECT_STREQ(
            hinted.report.error,
            "track 1: sample 5 is malformed: it does not end with a speech frame; the tables "
            "point to the wrong bytes, or the media was overwritten; get the file again");
        EXPECT_TRUE(hinted.file.empty());
    }
}

// --- files of up to 4 GiB - 1 ---

// A host of which only the beginning is kept; all that follows is zeros.
class LongFile {
  public:
    LongFile(Bytes head, uint64_t size) : head_(std::move(head)), size_(size) {
        table_ = {this,
                  offset,
                  seek,
                  read_here,
                  write,
                  length,
                  [](void*) -> uint32_t { return 0; },
                  read_at,
                  seek,
                  [](void*, uint32_t* result, uint32_t status) -> uint32_t {
                      *result = status;
                      return 0;
                  }};
    }
    LongFile(const LongFile&) = delete;
    LongFile& operator=(const LongFile&) = delete;

    KST_IOSTREAM_CALLBACK_INTERFACE* table() { return &table_; }
    uint64_t size() const { return size_; }

  private:
    static constexpr size_t kKept = 1 << 20;

    static LongFile& of(void* context) { return *static_cast<LongFile*>(context); }
    static uint32_t offset(void* context, uint32_t* at) {
        *at = of(context).position_;
        return 0;
    }
    static uint32_t seek(void* context, uint32_t at) {
        of(context).position_ = at;
        return 0;
    }
    static uint32_t length(void* context, uint32_t* size) {
        *size = static_cast<uint32_t>(of(context).size_);
        return 0;
    }
    static uint32_t read_at(void* context, void* data, uint32_t at, uint32_t count, uint32_t* got) {
        const LongFile& file = of(context);
        auto* to = static_cast<uint8_t*>(data);
        *got = static_cast<uint32_t>(
            std::min<uint64_t>(count, file.size_ - std::min<uint64_t>(at, file.size_)));
        const uint64_t kept =
            at < file.head_.size() ? std::min<uint64_t>(*got, file.head_.size() - at) : 0;
        if (kept > 0) std::copy_n(&file.head_[at], kept, to);
        std::fill(to + kept, to + *got, uint8_t{0});
        return 0;
    }
    static uint32_t read_here(void* context, void* data, uint32_t* count, int32_t) {
        LongFile& file = of(context);
        read_at(context, data, file.position_, *count, count);
        file.position_ += *count;
        return 0;
    }
    static uint32_t write(void* context, const void* data, uint32_t count, int32_t) {
        LongFile& file = of(context);
        const auto* bytes = static_cast<const uint8_t*>(data);
        const size_t at = file.position_;
        const size_t kept = at < kKept ? std::min<size_t>(count, kKept - at) : 0;
        if (kept > 0) {
            file.head_.resize(std::max(file.head_.size(), at + kept));
            std::copy_n(bytes, kept, &file.head_[at]);
        }
        file.position_ += count;
        file.size_ = std::max<uint64_t>(file.size_, file.position_);
        return 0;
    }

    Bytes head_;
    uint64_t size_;
    uint32_t position_ = 0;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

// A frame of speech and text samples of 16 MiB up to the end of a file of `size` bytes.
LongFile long_source(uint64_t size) {
    constexpr uint32_t kSample = 16 << 20, kSpeech = 13;
    const auto head = [&](uint32_t texts, uint32_t offset) {
        const Bytes text_entry = box("tx3g", {zeros(6), be16(1), zeros(30)});
        const auto last =
            static_cast<uint32_t>(size - offset - kSpeech - uint64_t{texts} * kSample);
        std::vector<uint32_t> sizes(texts, kSample);
        sizes.push_back(last);
        return join({ftyp(),
                     movie({track({.id = 1,
                                   .entry = samr_entry(),
                                   .tables = one_chunk_tables({kSpeech}, 160, offset)}),
                            track({.id = 2,
                                   .handler = "text",
                                   .timescale = 1000,
                                   .entry = text_entry,
                                   .tables = one_chunk_tables(sizes, 1000, offset + kSpeech)})}),
                     be32(1),
                     text("mdat"),
                     zeros(8),
                     {0x04},
                     zeros(12)});
    };
    const uint32_t texts = static_cast<uint32_t>(size / kSample) - 1;
    const auto offset = static_cast<uint32_t>(head(texts, 0).size()) - kSpeech;
    Bytes file = head(texts, offset);
    kestrel::store_be32(&file[offset - 4], static_cast<uint32_t>(size - offset + 16));
    return {file, size};
}

TEST(Hinter, WritesOffsetsUpTo4GiB) {
    LongFile source = long_source(0xF0000000);
    LongFile hinted({}, 0);
    kst_hint_report report = {};
    report.struct_size = sizeof report;
    ASSERT_EQ(kst_hint(source.table(), hinted.table(), nullptr, &report), KST_HINT_DONE)
        << report.error;
    EXPECT_EQ(report.bytes, hinted.size());
    EXPECT_GT(report.bytes, source.size() - 1000);
    Movie movie;
    ASSERT_TRUE(import_movie(*hinted.table(), {}, movie).ok);
    ASSERT_EQ(movie.tracks.size(), 3U);
    const Sample& last = movie.tracks[1].samples.back();
    EXPECT_EQ(last.offset + last.size, hinted.size());

    LongFile too_long = long_source(0xFFFFFFFF);
    LongFile nothing({}, 0);
    EXPECT_EQ(kst_hint(too_long.table(), nothing.table(), nullptr, &report), KST_HINT_TOO_LARGE);
    EXPECT_EQ(nothing.size(), 0U);
}

// --- calls ---

TEST(Hinter, RefusesArgumentsThatItDoesNotKnow) {
    const Bytes source = read_sample("amrnb_plain.3gp");
    kst_hint_options other_version = asking(0);
    other_version.struct_size -= 4;
    for (const auto& options : {asking(16), asking(0, 63), asking(0, 65536), other_version}) {
        const Hinted hinted = hint(source, options);
        EXPECT_EQ(hinted.result, KST_HINT_BAD_ARGUMENT);
        EXPECT_TRUE(hinted.file.empty());
    }
    kst_host* host = kst_host_for_writing_memory();
    EXPECT_EQ(kst_hint(nullptr, kst_host_callbacks(host), nullptr, nullptr), KST_HINT_BAD_ARGUMENT);
    EXPECT_EQ(kst_hint(kst_host_callbacks(host), nullptr, nullptr, nullptr), KST_HINT_BAD_ARGUMENT);
    kst_host_close(host);
    EXPECT_EQ(hint(read_sample("amrnb_hinted.3gp")).result, KST_HINT_HAS_HINTS);
}

TEST(Hinter, CanBeCancelledAtAnyTime) {
    const Bytes source = read_sample("wild/large_pictures_mpeg4.3gp");
    struct Watch {
        int calls = 0;
        int last = 0;
        uint64_t done = 0, all = 0;
    } watch;
    kst_hint_options options = asking(0);
    options.progress_context = &watch;
    options.progress = [](void* context, uint64_t done, uint64_t all) {
        auto* seen = static_cast<Watch*>(context);
        EXPECT_GT(done, seen->done);
        seen->done = done;
        seen->all = all;
        return ++seen->calls == seen->last ? 1 : 0;
    };
    EXPECT_EQ(hint(source, options).result, KST_HINT_DONE);
    EXPECT_EQ(watch.done, watch.all);
    ASSERT_GT(watch.calls, 1);
    for (int last = 1, calls = watch.calls; last <= calls; ++last) {
        watch = {0, last};
        const Hinted hinted = hint(source, options);
        EXPECT_EQ(hinted.result, KST_HINT_CANCELLED);
        const Bytes movie_box = text("moov");
        EXPECT_EQ(
            std::search(hinted.file.begin(), hinted.file.end(), movie_box.begin(), movie_box.end()),
            hinted.file.end());
    }
}

}  // namespace
