// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <random>

#include "common/bytes.h"
#include "interface/src/isoff/write/boxes.h"
#include "interface/src/isoff/write/writer.h"
#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/playing.h"

// The ISO writer: what it writes is read back by the reader.

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// A file read back.
class Reread {
  public:
    explicit Reread(Bytes bytes)
        : bytes_(std::move(bytes)),
          host_(kst_host_from_memory(bytes_.data(), bytes_.size()), kst_host_close),
          callbacks_(kst_host_callbacks(host_.get())) {
        CaptureStderr();
        file = isoFFopen(callbacks_, "r", nullptr);
        printed = GetCapturedStderr();
    }
    Reread(const Reread&) = delete;
    Reread& operator=(const Reread&) = delete;
    ~Reread() { isoFFclose(file); }

    iso_file* file;
    std::string printed;

  private:
    Bytes bytes_;
    std::unique_ptr<kst_host, void (*)(kst_host*)> host_;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks_;
};

// From now on the host cannot leave its place.
void forbid_seeking(FaultyHost& host) {
    static KST_IOSTREAM_CALLBACK_INTERFACE* io;
    io = host.callbacks();
    io->Seek = [](void* context, uint32_t to) {
        uint32_t at = 0;
        io->GetOffset(context, &at);
        return uint32_t{to == at ? KST_HOST_OK : KST_HOST_FAILED};
    };
}

iso_file* open_for_writing(FaultyHost& out, bool direct = false) {
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = out.callbacks();
    return isoFFopen(callbacks, direct ? "wd" : "w", nullptr);
}

template <typename T>
T* copy_to_arena(iso_file* file, const std::vector<T>& values) {
    T* copy = kestrel::arena_array<T>(file, values.size());
    std::copy(values.begin(), values.end(), copy);
    return copy;
}

char* text_in_arena(iso_file* file, const std::string& characters) {
    return copy_to_arena(
        file, std::vector<char>(characters.c_str(), characters.c_str() + characters.size() + 1));
}

// --- tracks at random ---

struct Sample {
    Bytes bytes;
    int duration;
    int cts_offset;
};

struct TrackHeader {
    uint32_t flags;
    int32_t layer, alternate_group, volume;
    uint32_t display_width, display_height;
    uint32_t turn;  // an element of the matrix
    uint16_t language;

    auto operator<=>(const TrackHeader&) const = default;
};

// What the sample entry declares of the picture or the sound.
struct Format {
    uint32_t timescale;
    uint32_t width, height;
    uint32_t channels, bits;

    auto operator<=>(const Format&) const = default;
};

struct RandomTrack {
    int32_t codec;
    TrackHeader header;
    Format format;
    Bytes config;
    std::vector<Sample> samples;
    std::vector<uint32_t> sync;
    bool has_sync;
    std::vector<iso_elst_entry> edits;
    const char* group_type;
    std::vector<std::pair<uint32_t, uint32_t>> groups;
    std::vector<std::vector<iso_sgpd_record>> group_entries;
    std::string sdp;
};

using Random = std::mt19937;

int pick(Random& random, int from, int to) {
    return std::uniform_int_distribution<int>(from, to)(random);
}

Bytes random_bytes(Random& random, int size) {
    Bytes bytes(static_cast<size_t>(size));
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(pick(random, 0, 255));
    return bytes;
}

std::vector<Sample> random_samples(Random& random) {
    std::vector<Sample> samples;
    const bool same_size = pick(random, 0, 2) == 0;
    const int offsets = pick(random, 0, 2);  // none, positive ones, of either sign
    const int size = pick(random, 0, 40);
    const int shortest = pick(random, 0, 1);
    int duration = pick(random, shortest, 3000);
    for (int left = pick(random, 0, 120); left > 0; --left) {
        if (pick(random, 0, 3) == 0) duration = pick(random, shortest, shortest * 2999 + 1);
        const int offset = offsets == 0 ? 0 : pick(random, offsets == 1 ? 0 : -2, 2) * 100;
        const int bytes = same_size ? size : pick(random, 0, 300);
        samples.push_back({random_bytes(random, bytes), duration, offset});
    }
    return samples;
}

// Only the entry of narrow band speech is read for its channels and bits.
Format random_format(Random& random, int32_t codec) {
    const auto number = [&](int most) { return static_cast<uint32_t>(pick(random, 1, most)); };
    if (codec == ISO_CODEC_SAMR) return {8000, 0, 0, number(9), number(32)};
    if (codec == ISO_CODEC_SAWB) return {16000, 0, 0, 0, 0};
    if (codec == ISO_CODEC_SAWP || codec == ISO_CODEC_MP4A) return {8000, 0, 0, 0, 0};
    return {number(INT_MAX), number(0xFFFF), number(0xFFFF), 0, 0};
}

RandomTrack random_track(Random& random) {
    static constexpr int32_t kCodecs[] = {ISO_CODEC_MP4V, ISO_CODEC_S263, ISO_CODEC_SAMR,
                                          ISO_CODEC_SAWB, ISO_CODEC_AVC1, ISO_CODEC_SAWP,
                                          ISO_CODEC_MP4A};
    RandomTrack track{};
    track.codec = kCodecs[pick(random, 0, 6)];
    track.header = {static_cast<uint32_t>(pick(random, 0, 15)),
                    pick(random, 0, 0xFFFF),
                    pick(random, 0, 3),
                    pick(random, 0, 2) * 0x80,
                    static_cast<uint32_t>(pick(random, 0, INT_MAX)),
                    static_cast<uint32_t>(pick(random, 0, INT_MAX)),
                    static_cast<uint32_t>(pick(random, 0, INT_MAX)),
                    static_cast<uint16_t>(pick(random, 0, 0x7FFF))};
    track.format = random_format(random, track.codec);
    track.config = random_bytes(random, pick(random, 1, 40));
    if (track.codec == ISO_CODEC_AVC1) {
        track.config = {1, 66, 0xC0, 30, 0xFF, 0xE1, 0, 4, 0x67, 66, 0xC0, 30, 1, 0, 2, 0x68, 9};
    }
    track.samples = random_samples(random);
    track.has_sync = pick(random, 0, 1) == 1;
    for (uint32_t i = 1; track.has_sync && i <= track.samples.size(); ++i)
        if (pick(random, 0, 4) == 0) track.sync.push_back(i);
    if (pick(random, 0, 1)) track.edits.push_back({77, -1, 0x10000});
    if (pick(random, 0, 1)) track.edits.push_back({uint64_t{1} << 33, 5, 0x10000});
    track.group_type = pick(random, 0, 1) ? "avcb" : "3gag";
    for (int i = pick(random, 0, 3); i > 0; --i)
        track.groups.emplace_back(pick(random, 1, 9), pick(random, 0, 3));
    for (int i = pick(random, 0, 2); i > 0; --i)
        track.group_entries.emplace_back(static_cast<size_t>(pick(random, 0, 3)),
                                         iso_sgpd_record{{1, 2, 3, 4, 5}});
    if (pick(random, 0, 1)) track.sdp = "m=video 0 RTP/AVP 96\r\n";
    return track;
}

iso_track* create(iso_file* file, RandomTrack& from) {
    const auto length = static_cast<unsigned>(from.config.size());
    H263VCFG cfg{};
    const Format& format = from.format;
    cfg.width = format.width;
    cfg.height = format.height;
    cfg.timescale = format.timescale;
    cfg.profile = 3;
    cfg.level = 10;
    switch (from.codec) {
        case ISO_CODEC_S263:
            return h263_isoFFtrack(file, &cfg);
        case ISO_CODEC_AVC1:
            return h264_isoFFtrack(file, from.config.data(), length, format.width, format.height,
                                   format.timescale);
        case ISO_CODEC_MP4V:
            return mpeg4_isoFFtrack(file, from.config.data(), length, format.width, format.height,
                                    format.timescale);
        default: {
            iso_track* track = amr_isoFFtrack(file, from.codec == ISO_CODEC_SAWB, 0x81FF, 5);
            track->codec = from.codec;
            track->dsi = copy_to_arena(file, from.config);
            track->dsi_length = length;
            return track;
        }
    }
}

void set_header(iso_track* track, const TrackHeader& header) {
    track->own->header_flags = header.flags;
    track->layer = header.layer;
    track->alternate_group = header.alternate_group;
    track->volume = header.volume;
    track->own->display_width = header.display_width;
    track->own->display_height = header.display_height;
    track->matrix[1] = header.turn;
    track->own->language = header.language;
}

TrackHeader header_of(const iso_track* track) {
    return {track->own->header_flags,  track->layer,
            track->alternate_group,    track->volume,
            track->own->display_width, track->own->display_height,
            track->matrix[1],          track->own->language};
}

Format format_of(const iso_track* track) {
    const bool is_video = std::string(track->handler) == "vide";
    return {track->timescale, is_video ? track->width : 0, is_video ? track->height : 0,
            track->channel_count, track->sample_bits};
}

void describe(iso_track* track, const RandomTrack& from) {
    iso_file* file = track->file;
    set_header(track, from.header);
    track->channel_count = from.format.channels;
    track->sample_bits = from.format.bits;
    if (from.has_sync) track->sync_samples = copy_to_arena(file, from.sync);
    track->sync_count = static_cast<uint32_t>(from.sync.size());
    track->own->edits = copy_to_arena(file, from.edits);
    track->own->edit_count = static_cast<int32_t>(from.edits.size());
    if (!from.sdp.empty()) track->sdp_text = text_in_arena(file, from.sdp);
    iso_sbgp_entry** group = &track->sbgp_list;
    for (const auto& [samples, index] : from.groups) {
        *group = copy_to_arena<iso_sbgp_entry>(file, {{samples, index, nullptr}});
        group = &(*group)->next;
        track->sbgp_count++;
    }
    iso_sgpd_entry** entry = &track->sgpd_list;
    for (const auto& records : from.group_entries) {
        *entry = copy_to_arena<iso_sgpd_entry>(
            file, {{static_cast<uint16_t>(records.size()), copy_to_arena(file, records), nullptr}});
        entry = &(*entry)->next;
        track->sgpd_count++;
    }
    std::copy_n(from.group_type, 5, track->sgpd_type);
}

enum class Mode { kQueued, kSpooled, kDirect };

// Writes the tracks with their samples in turns; the result of isoFFclose.
constexpr char kMovieSdp[] = "v=0\r\n";  // of files with several tracks

int write_file(FaultyHost& out, std::vector<RandomTrack>& tracks, Mode mode,
               const std::string& brands = "3gp6") {
    iso_file* file = open_for_writing(out);
    EXPECT_EQ(isoFFsetBrand(file, brands.c_str(), 77), 0);
    // What is written does not depend on the clock.
    file->creation_time = file->modification_time = 3'000'000'000;
    file->own->direct_write = mode == Mode::kDirect;
    if (tracks.size() > 1) file->sdp_text = text_in_arena(file, kMovieSdp);
    std::vector<iso_track*> made;
    for (RandomTrack& from : tracks) {
        made.push_back(create(file, from));
        describe(made.back(), from);
        if (mode == Mode::kSpooled) made.back()->own->spool = std::tmpfile();
    }
    bool more = true;
    for (size_t i = 0; more; ++i) {
        more = false;
        for (size_t t = 0; t < tracks.size(); ++t) {
            if (i >= tracks[t].samples.size()) continue;
            Sample& sample = tracks[t].samples[i];
            made[t]->own->frame_default = 0;  // a duration of 0 is one
            isoFFwrite(made[t], sample.bytes.data(), static_cast<int>(sample.bytes.size()),
                       sample.duration, sample.cts_offset);
            more = true;
        }
    }
    return isoFFclose(file);
}

void expect_samples(iso_track* track, const std::vector<Sample>& samples) {
    ASSERT_EQ(track->sample_count, static_cast<int>(samples.size()));
    Bytes buffer(1000);
    for (const Sample& sample : samples) {
        double duration = 0;
        double offset = 0;
        const int got = isoFFread(track, buffer.data(), 1000, &duration, &offset);
        ASSERT_EQ(got, static_cast<int>(sample.bytes.size()));
        ASSERT_TRUE(std::equal(sample.bytes.begin(), sample.bytes.end(), buffer.begin()));
        ASSERT_DOUBLE_EQ(duration * track->timescale, sample.duration);
        ASSERT_DOUBLE_EQ(offset * track->timescale, sample.cts_offset);
    }
}

void expect_groups(const iso_track* track, const RandomTrack& from) {
    std::vector<std::pair<uint32_t, uint32_t>> groups;
    for (const iso_sbgp_entry* entry = track->sbgp_list; entry != nullptr; entry = entry->next)
        groups.emplace_back(entry->sample_count, entry->group_description_index);
    EXPECT_EQ(groups, from.groups);
    std::vector<size_t> record_counts;
    for (const iso_sgpd_entry* entry = track->sgpd_list; entry != nullptr; entry = entry->next) {
        record_counts.push_back(entry->count);
        for (const iso_sgpd_record& record : std::span(entry->records, entry->count))
            EXPECT_EQ(record.words[4], 5U);
    }
    std::vector<size_t> wanted;
    for (const auto& records : from.group_entries)
        wanted.push_back(records.size());
    EXPECT_EQ(record_counts, wanted);
    EXPECT_STREQ(track->sgpd_type, wanted.empty() ? "" : from.group_type);
}

void expect_description(const iso_track* track, const RandomTrack& from) {
    EXPECT_EQ(track->codec, from.codec);
    EXPECT_EQ(header_of(track), from.header);
    EXPECT_EQ(format_of(track), from.format);
    const bool has_config = from.codec == ISO_CODEC_AVC1 || from.codec == ISO_CODEC_MP4V ||
                            from.codec == ISO_CODEC_MP4A;
    if (has_config) {
        EXPECT_EQ(Bytes(track->dsi, track->dsi + track->dsi_length), from.config);
    }
    if (from.codec == ISO_CODEC_SAMR || from.codec == ISO_CODEC_SAWB) {
        EXPECT_EQ(track->mode_set, 0x81FF);
        EXPECT_EQ(track->frames_per_sample, 5);
    }
    if (from.codec == ISO_CODEC_S263) {
        EXPECT_STREQ(track->vendor, "VXYZ");
        EXPECT_EQ(std::pair(int{track->profile}, int{track->level}), std::pair(3, 10));
    }
    EXPECT_EQ(std::vector(track->sync_samples, track->sync_samples + track->sync_count), from.sync);
    ASSERT_EQ(static_cast<size_t>(track->own->edit_count), from.edits.size());
    for (size_t i = 0; i < from.edits.size(); ++i) {
        EXPECT_EQ(track->own->edits[i].segment_duration, from.edits[i].segment_duration);
        EXPECT_EQ(track->own->edits[i].media_time, from.edits[i].media_time);
    }
    EXPECT_EQ(track->sdp_text == nullptr ? "" : track->sdp_text, from.sdp);
    expect_groups(track, from);
}

std::string random_brand(Random& random) {
    std::string brand;
    while (brand.size() < 4)
        brand += static_cast<char>(pick(random, '0', 'z'));
    return brand;
}

class RandomFiles : public testing::TestWithParam<Mode> {};

TEST_P(RandomFiles, ComeBackEqual) {
    for (unsigned round = 1; round <= 60; ++round) {
        SCOPED_TRACE(round);
        Random random(round);
        std::vector<RandomTrack> tracks;
        for (int i = pick(random, 0, 3); i >= 0; --i)
            tracks.push_back(random_track(random));
        std::string brands = random_brand(random);
        for (int i = pick(random, 0, 4); i > 0; --i)
            brands += ' ' + random_brand(random);
        FaultyHost out;
        CaptureStderr();
        ASSERT_EQ(write_file(out, tracks, GetParam(), brands), 0);
        EXPECT_EQ(GetCapturedStderr(), "");
        Reread reread(out.written());
        EXPECT_EQ(reread.printed, "");
        EXPECT_EQ(reread.file->own->lost_tracks, 0u);
        EXPECT_EQ(reread.file->major_brand, brands.substr(0, 4));
        EXPECT_EQ(reread.file->minor_version, 77);
        EXPECT_EQ(reread.file->compatible_brands, brands);
        EXPECT_STREQ(reread.file->sdp_text, tracks.size() > 1 ? kMovieSdp : nullptr);
        iso_track* track = reread.file->first_track;
        for (const RandomTrack& from : tracks) {
            ASSERT_NE(track, nullptr);
            expect_description(track, from);
            expect_samples(track, from.samples);
            track = track->next;
        }
        EXPECT_EQ(track, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, RandomFiles,
                         testing::Values(Mode::kQueued, Mode::kSpooled, Mode::kDirect));

// --- where things stand in the file ---

std::vector<std::string> top_level_boxes(const Bytes& bytes) {
    std::vector<std::string> types;
    for (size_t at = 0; at + 8 <= bytes.size(); at += kestrel::load_be32(&bytes[at]))
        types.emplace_back(&bytes[at + 4], &bytes[at + 8]);
    return types;
}

iso_track* speech_track(iso_file* file) {
    return amr_isoFFtrack(file, 0, 0x81FF, 1);
}

TEST(Writer, MovieComesFirstUnlessSamplesGoOutDirectly) {
    using testing::ElementsAre;
    for (const bool direct : {false, true}) {
        FaultyHost out;
        iso_file* file = open_for_writing(out, direct);
        if (!direct) forbid_seeking(out);
        iso_track* track = speech_track(file);
        uint8_t sample[32] = {0x3C};
        EXPECT_EQ(isoFFwrite(track, sample, 32, 160, 0), 32);
        EXPECT_EQ(out.written().empty(), !direct);
        EXPECT_EQ(isoFFclose(file), 0);
        const std::vector<std::string> boxes = top_level_boxes(out.written());
        EXPECT_THAT(boxes, direct ? ElementsAre("ftyp", "mdat", "moov")
                                  : ElementsAre("ftyp", "moov", "mdat"));
    }
}

TEST(Writer, TracksTakeTurnsNoLongerThanTheSpan) {
    for (const double span : {0.0, 0.25, 1.0, 100.0}) {
        FaultyHost out;
        iso_file* file = open_for_writing(out);
        file->interleave_span = span;
        iso_track* tracks[] = {speech_track(file), speech_track(file)};
        uint8_t sample[13] = {4};
        for (iso_track* track : tracks)
            for (int i = 0; i < 200; ++i)
                isoFFwrite(track, sample, 13, 160, 0);
        ASSERT_EQ(isoFFclose(file), 0);
        Reread reread(out.written());
        // No run is longer than the span, or than one sample where that is longer.
        const double longest = isoFFgetInterleave(reread.file);
        EXPECT_LE(longest, std::max(span, 0.02) + 1e-9);
        EXPECT_GE(longest, std::min(std::max(span, 0.02), 4.0) - 0.02 - 1e-9);
    }
}

// Of tracks that are equally far on the first comes first, however many there are.
TEST(Writer, ManyTracksStandInTheOrderOfTheirTimes) {
    constexpr int kTracks = 8000, kSamples = 10;
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    file->interleave_span = 0.0;
    std::vector<iso_track*> tracks(kTracks);
    for (iso_track*& track : tracks)
        track = speech_track(file);
    for (int sample = 0; sample < kSamples; ++sample) {
        for (iso_track* track : tracks)
            ASSERT_EQ(isoFFwrite(track, nullptr, 0, 160, 0), 0);
    }
    uint8_t byte[] = {7};
    for (iso_track* track : tracks)
        ASSERT_EQ(isoFFwrite(track, byte, 1, 160, 0), 1);
    ASSERT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    uint32_t next = static_cast<uint32_t>(out.written().size()) - kTracks;
    for (iso_track* track = reread.file->first_track; track != nullptr; track = track->next) {
        ASSERT_EQ(track->chunk_count, kSamples + 1);
        ASSERT_EQ(track->chunks[kSamples].start, next++);
    }
    EXPECT_EQ(next, out.written().size());
}

// A track whose clock does not run is laid out as if it ran once a second.
TEST(Writer, TrackWithoutATimescaleIsWritten) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* tracks[] = {isoFFtrack(file), speech_track(file)};
    tracks[0]->codec = ISO_CODEC_SAMR;
    uint8_t sample[] = {1};
    for (int i = 0; i < 3; ++i) {
        for (iso_track* track : tracks)
            EXPECT_EQ(isoFFwrite(track, sample, 1, 8000, 0), 1);
    }
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    for (const iso_track* track = reread.file->first_track; track != nullptr; track = track->next)
        EXPECT_EQ(track->sample_count, 3);
}

TEST(Writer, OutputThatHeldAFileStartsAfresh) {
    FaultyHost out;
    const Bytes before = read_sample("amrnb_plain_mdat_first.3gp");
    const KST_IOSTREAM_CALLBACK_INTERFACE& io = *out.callbacks();
    ASSERT_EQ(io.SeekNWrite(io.Context, before.data(), static_cast<uint32_t>(before.size()), -1),
              0u);
    ASSERT_EQ(io.Seek(io.Context, 0), 0u);
    iso_file* file = open_for_writing(out);
    EXPECT_EQ(file->first_track, nullptr);
    EXPECT_EQ(file->next_track_id, 1U);
    EXPECT_STREQ(file->major_brand, "3gp6");
    EXPECT_EQ(isoFFclose(file), 0);
    uint32_t end = 0;
    io.GetOffset(io.Context, &end);
    Bytes written = out.written();
    written.resize(end);
    EXPECT_THAT(top_level_boxes(written), testing::ElementsAre("ftyp", "moov", "mdat"));
}

TEST(Writer, BrandsAreFourCharacterCodes) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    EXPECT_EQ(isoFFsetBrand(nullptr, "3gp4", 0), -1);
    for (const char* wrong : {"", "3gp", "3gp4 ", "3gp4 isom m"})
        EXPECT_EQ(isoFFsetBrand(file, wrong, 0), -1) << wrong;
    EXPECT_EQ(isoFFsetBrand(file, nullptr, 0), -1);
    EXPECT_EQ(isoFFsetBrand(file, "3gr6 isom", 512), 0);
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    EXPECT_STREQ(reread.file->major_brand, "3gr6");
    EXPECT_STREQ(reread.file->compatible_brands, "3gr6 isom");
    EXPECT_EQ(reread.file->minor_version, 512);
    // A file that is being read keeps the brands that it has.
    EXPECT_EQ(isoFFsetBrand(reread.file, "3gp4", 0), -1);
    EXPECT_STREQ(reread.file->major_brand, "3gr6");
}

// --- limits and error codes ---

TEST(Writer, DurationOfZeroRepeatsTheOneBefore) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    uint8_t sample[] = {1};
    for (const int duration : {0, 160, 0, 320, 0})
        isoFFwrite(track, sample, 1, duration, 0);
    EXPECT_EQ(track->duration, 960U);
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    EXPECT_EQ(reread.file->first_track->stts_count, 3);
}

TEST(Writer, BadArguments) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    uint8_t sample[] = {1};
    EXPECT_EQ(isoFFwrite(nullptr, sample, 1, 1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, sample, -1, 1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, sample, 1, -1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, nullptr, 1, 1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, nullptr, 0, 1, 0), 0);
    // What is being written is not read.
    double duration = 0;
    EXPECT_EQ(isoFFread(track, sample, 1, &duration, nullptr), -1);
    EXPECT_EQ(isoFFreadAt(track, 0, 0, sample, 1, &duration, nullptr), -1);
    EXPECT_EQ(isoFFframeInfo(track, &duration, nullptr), -1);
    EXPECT_EQ(isoFFsetPosition(track, 0), -1);
    EXPECT_EQ(isoFFgetInterleave(file), 0.0);
    EXPECT_EQ(isoFFclose(file), 0);
    EXPECT_EQ(isoFFclose(nullptr), -1);
    Reread reread(out.written());
    EXPECT_EQ(isoFFwrite(reread.file->first_track, sample, 1, 1, 0), -1);
}

// The first sample of 10 bytes costs 10 + 4, an stts entry of 8 and 8 more; one of 11 bytes after
// it is refused when 11 + 30 + 24 is above the limit.
TEST(Writer, SizeLimitClosesTheTrack) {
    for (const uint32_t limit : {65U, 64U}) {
        FaultyHost out;
        iso_file* file = open_for_writing(out);
        file->size_limit = limit;
        iso_track* track = speech_track(file);
        uint8_t sample[16] = {};
        ASSERT_EQ(isoFFwrite(track, sample, 10, 160, 0), 10);
        EXPECT_EQ(isoFFwrite(track, sample, 11, 160, 0), limit == 65 ? 11 : -6);
        EXPECT_EQ(isoFFwrite(track, sample, 1, 160, 0), limit == 65 ? -6 : -8);
        // Another track goes on, and the file is finished with what was taken.
        EXPECT_EQ(isoFFwrite(speech_track(file), sample, 10, 160, 0), 10);
        EXPECT_EQ(isoFFclose(file), 0);
        Reread reread(out.written());
        EXPECT_EQ(reread.file->first_track->sample_count, limit == 65 ? 2 : 1);
    }
}

// Tracks that keep to the limit one by one do not grow beyond 32 bits together.
TEST(Writer, AllTracksTogetherHaveALimitToo) {
    for (const uint32_t beyond : {0U, 1U}) {
        FaultyHost out;
        iso_file* file = open_for_writing(out);
        iso_track* tracks[] = {speech_track(file), speech_track(file)};
        uint8_t sample[16] = {};
        ASSERT_EQ(isoFFwrite(tracks[0], sample, 10, 160, 0), 10);
        tracks[1]->own->header_cost =  // as if that much had been taken
            UINT32_MAX - file->header_size - tracks[0]->own->header_cost - 24 - 10 + beyond;
        file->own->track_cost += tracks[1]->own->header_cost;
        EXPECT_EQ(isoFFwrite(tracks[0], sample, 10, 160, 0), beyond ? -6 : 10);
        EXPECT_EQ(isoFFwrite(tracks[0], sample, 10, 160, 0), beyond ? -8 : -6);
        EXPECT_EQ(isoFFclose(file), 0);
    }
}

struct Step {
    int size, duration, offset;
    uint64_t cost;
};

void expect_costs(std::span<const Step> steps) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    uint8_t sample[16] = {};
    uint64_t cost = 0;
    for (const Step& step : steps) {
        isoFFwrite(track, sample, step.size, step.duration, step.offset);
        EXPECT_EQ(track->own->header_cost, cost += step.cost);
    }
    isoFFclose(file);
}

TEST(Writer, HeaderCostFollowsTheTables) {
    const Step steps[] = {
        {10, 160, 0, 10 + 4 + 8 + 8},  // a time entry, and the first sample
        {10, 160, 0, 10 + 4},
        {10, 320, 0, 10 + 4 + 8},
        {12, 320, 5, 12 + 4 + 8 + 4 + 4 * 3},  // sizes of the three before come in
        {12, 320, 5, 12 + 4 + 4},
    };
    expect_costs(steps);
    // A first sample that is empty needs the table of sizes from the start.
    const Step empty_first[] = {{0, 160, 0, 4 + 8 + 8 + 4}, {9, 160, 0, 9 + 4 + 4}};
    expect_costs(empty_first);
}

TEST(Writer, DurationLimitClosesTheTrack) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    file->interleave_limit = 2.0;  // seconds
    iso_track* track = speech_track(file);
    uint8_t sample[] = {1};
    EXPECT_EQ(track->own->duration_limit, 16000U);
    EXPECT_EQ(isoFFwrite(track, sample, 1, 16000, 0), 1);
    EXPECT_EQ(isoFFwrite(track, sample, 1, 1, 0), -7);
    EXPECT_EQ(isoFFwrite(track, sample, 1, 1, 0), -8);
    EXPECT_EQ(isoFFclose(file), 0);
}

TEST(Writer, FinishedFileTakesNothing) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    uint8_t sample[] = {1};
    EXPECT_EQ(kestrel::finalise(file), 0);
    EXPECT_EQ(isoFFwrite(track, sample, 1, 1, 0), -5);
    EXPECT_EQ(isoFFclose(file), -5);
}

TEST(Writer, FullTemporaryFileIsReported) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    track->own->spool = std::fopen("/dev/full", "r+b");
    if (track->own->spool == nullptr) GTEST_SKIP() << "no /dev/full";
    std::setvbuf(track->own->spool, nullptr, _IONBF, 0);
    uint8_t sample[] = {1};
    EXPECT_EQ(isoFFwrite(track, sample, 1, 1, 0), -5);
    EXPECT_EQ(isoFFclose(file), -5);
    EXPECT_TRUE(out.written().empty());
}

TEST(Writer, DirectModeRefusesTracksThatComeLate) {
    FaultyHost out;
    iso_file* file = open_for_writing(out, true);
    iso_track* early[] = {speech_track(file), speech_track(file)};
    uint8_t sample[] = {1};
    EXPECT_EQ(isoFFwrite(early[0], sample, 1, 160, 0), 1);
    EXPECT_EQ(isoFFwrite(speech_track(file), sample, 1, 160, 0), -9);
    EXPECT_EQ(isoFFwrite(early[1], sample, 1, 160, 0), 1);
    EXPECT_EQ(isoFFclose(file), 0);
}

// Written directly, the brands stand before the media: later ones would move what is there.
TEST(Writer, BrandsStandOnceMediaIsWritten) {
    FaultyHost out;
    iso_file* file = open_for_writing(out, true);
    uint8_t sample[] = {1};
    EXPECT_EQ(isoFFwrite(speech_track(file), sample, 1, 160, 0), 1);
    EXPECT_EQ(isoFFsetBrand(file, "3gp6 3gp5 3gp4 isom", 0), -1);
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    EXPECT_STREQ(reread.file->compatible_brands, "3gp5 3gp4");
    EXPECT_NE(isoFFselect(reread.file, "soun", 1), nullptr);
}

TEST(Writer, FirstSampleSettlesTheMode) {
    for (const bool direct : {false, true}) {
        for (const bool changes : {false, true}) {
            FaultyHost out;
            iso_file* file = open_for_writing(out, direct);
            iso_track* track = speech_track(file);
            uint8_t sample[] = {1, 2, 3};
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(isoFFwrite(track, sample, 3, 160, 0), 3);
                file->own->direct_write = direct != changes;
            }
            EXPECT_EQ(isoFFclose(file), 0);
            EXPECT_EQ(top_level_boxes(out.written()).back(), direct ? "moov" : "mdat");
            Reread reread(out.written());
            expect_samples(reread.file->first_track, std::vector<Sample>(4, {{1, 2, 3}, 160, 0}));
        }
    }
}

TEST(Writer, DirectModeNeedsAStreamThatSeeks) {
    FaultyHost out;
    iso_file* file = open_for_writing(out, true);
    uint8_t sample[] = {1};
    EXPECT_EQ(isoFFwrite(speech_track(file), sample, 1, 160, 0), 1);
    forbid_seeking(out);
    EXPECT_EQ(isoFFclose(file), -5);
    Reread reread(out.written());
    EXPECT_EQ(reread.file->first_track, nullptr);
}

TEST(Writer, MediaBeyondThirtyTwoBitsIsReported) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    for (int i = 0; i < 3; ++i) {
        iso_track* track = speech_track(file);
        track->own->spool = std::tmpfile();
        uint8_t sample[] = {1};
        isoFFwrite(track, sample, 1, 160, 0);
        track->own->first_frame->size = 0x7FFFFF00;  // as if that much had been taken
    }
    EXPECT_EQ(isoFFclose(file), -6);
    EXPECT_TRUE(out.written().empty());
}

// --- memory that ends ---

// From here on the file's arena has `room` bytes, fewer than it really has, and gets no more.
class LittleMemory {
  public:
    LittleMemory(iso_file* file, size_t room) { file->chunk_free = room; }

  private:
    static constexpr size_t kArenaBlock = 1000000;  // at least

    AllocationFault fault_{0, true, kArenaBlock};
    AllocationFault::Armed armed_{fault_};
};

iso_track* h264_track(iso_file* file) {
    const uint8_t avcc[] = {1, 66, 0, 30, 0xFF, 0xE1, 0, 4, 0x67, 66, 0, 30, 1, 0, 2, 0x68, 9};
    return h264_isoFFtrack(file, avcc, sizeof avcc, 16, 16, 90000);
}

// Wherever the memory ends, no track is left half made.
TEST(Writer, TrackThatCannotBeMadeIsTakenBack) {
    const std::pair<const char*, iso_track* (*)(iso_file*)> makers[] = {
        {"AMR", speech_track},
        {"H.264", h264_track},
        {"MPEG-4", [](iso_file* file) { return mpeg4_isoFFtrack(file, "abc", 3, 16, 16, 90000); }},
        {"hint", [](iso_file* file) {
             return rtp_isoFFtrack(file, file->first_track, 1400, 96, ISO_H263_RFC4629);
         }}};
    for (const auto& [name, make] : makers) {
        int refused = 0;
        for (bool made = false; !made; ++refused) {
            SCOPED_TRACE(testing::Message() << name << ", " << 8 * refused << " bytes");
            FaultyHost out;
            iso_file* file = open_for_writing(out);
            iso_track* first = speech_track(file);
            first->own->edits = copy_to_arena<iso_elst_entry>(file, {{100, 0, 0x10000}});
            first->own->edit_count = 1;
            const uint32_t header = file->header_size;
            {
                const LittleMemory memory(file, static_cast<size_t>(8 * refused));
                made = make(file) != nullptr;
            }
            EXPECT_EQ(first->next != nullptr, made);
            EXPECT_EQ(file->own->last_track == first, !made);
            EXPECT_EQ(file->next_track_id, made ? 3U : 2U);
            EXPECT_EQ(file->header_size == header && !file->own->has_visual, !made);
            EXPECT_EQ(isoFFclose(file), 0);
            Reread reread(out.written());
            EXPECT_EQ(isoFFselect(reread.file, nullptr, 2) != nullptr, made);
        }
        EXPECT_GT(refused, 10);
    }
}

// What was taken before stays good, and the file goes on when there is memory again.
TEST(Writer, NoMemoryIsReported) {
    for (const bool direct : {false, true}) {
        FaultyHost out;
        iso_file* file = open_for_writing(out, direct);
        iso_track* track = speech_track(file);
        uint8_t sample[] = {1};
        EXPECT_EQ(isoFFwrite(track, sample, 1, 160, 0), 1);
        for (size_t room = 0, written = 0; written == 0; room += 8) {
            const LittleMemory memory(file, room);
            if (room == 0) {
                EXPECT_EQ(isoFFsetBrand(file, "3gp6", 0), -1);
            }
            const int result = isoFFwrite(track, sample, 1, 160, 0);
            EXPECT_EQ(result, room == 0 || result < 0 ? -2 : 1);
            written = result == 1;
        }
        file->chunk_free = 0;
        EXPECT_EQ(isoFFwrite(track, sample, 1, 160, 0), 1);
        EXPECT_EQ(isoFFclose(file), 0);
        Reread reread(out.written());
        EXPECT_EQ(reread.file->first_track->sample_count, 3);
    }
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    uint8_t sample[] = {1};
    isoFFwrite(speech_track(file), sample, 1, 160, 0);
    const LittleMemory memory(file, 0);
    EXPECT_EQ(isoFFclose(file), -2);
    EXPECT_TRUE(out.written().empty());
    int error = 0;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = out.callbacks();
    EXPECT_EQ(isoFFopen(callbacks, "w", &error), nullptr);
    EXPECT_EQ(error, -2);
}

// A track that is being written has no tables yet.
TEST(Writer, GivesOutNoPackets) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* media = speech_track(file);
    iso_track* hint = rtp_isoFFtrack(file, media, 1400, 96, ISO_H263_RFC4629);
    uint8_t frame[32] = {0x3C};
    EXPECT_EQ(isoFFwrite(media, frame, sizeof frame, 160, 0), int{sizeof frame});
    EXPECT_GT(isoFFwriteHint(hint, frame, sizeof frame, 160, 0), 0);
    uint8_t packet[1400];
    ASSERT_EQ(isoFFrtpHinter(media, 1400), hint);
    EXPECT_EQ(isoFFrtpPacket(hint, packet), -1);
    EXPECT_EQ(isoFFclose(file), 0);
}

TEST(Writer, InterleaveNeedsMemory) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* tracks[] = {speech_track(file), speech_track(file)};
    uint8_t sample[] = {1};
    for (int i = 0; i < 4; ++i) {
        for (iso_track* track : tracks)
            isoFFwrite(track, sample, 1, 8000, 0);
    }
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    AllocationFault fault(0, true);
    EXPECT_EQ(fault.during([&] { return isoFFgetInterleave(reread.file); }), -1.0);
    EXPECT_EQ(isoFFgetInterleave(reread.file), 1.0);
}

TEST(Writer, GroupsOfNoTypeAreLeftOut) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    track->sbgp_list = copy_to_arena<iso_sbgp_entry>(file, {{1, 1, nullptr}});
    track->sbgp_count = 1;
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    EXPECT_EQ(reread.file->first_track->sbgp_list, nullptr);
}

TEST(Writer, TrackHelpersRefuseWhatMakesNoSense) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    const uint8_t cut_avcc[] = {1, 66, 0, 30, 0xFF, 0xE1, 0, 9, 0x67};
    struct {
        uint32_t width, height, timescale;
    } const pictures[] = {{0x10000, 16, 1}, {16, 0x10000, 1}, {0, 16, 1}, {16, 0, 1}, {16, 16, 0}};
    H263VCFG cfg{};
    for (const auto& [width, height, timescale] : pictures) {
        cfg.width = width;
        cfg.height = height;
        cfg.timescale = timescale;
        if (std::max(width, height) > 0xFFFF) {
            EXPECT_EQ(h263_isoFFtrack(file, &cfg), nullptr);
        }
        EXPECT_EQ(mpeg4_isoFFtrack(file, "abc", 3, width, height, timescale), nullptr);
    }
    cfg.width = cfg.height = 0xFFFF;
    cfg.timescale = 1;
    EXPECT_EQ(h263_isoFFtrack(nullptr, &cfg), nullptr);
    EXPECT_EQ(h263_isoFFtrack(file, nullptr), nullptr);
    EXPECT_EQ(amr_isoFFtrack(file, 0, 0x10000, 1), nullptr);
    EXPECT_EQ(amr_isoFFtrack(file, 1, 0x81FF, 0), nullptr);
    EXPECT_EQ(amr_isoFFtrack(file, 1, 0x81FF, 16), nullptr);
    EXPECT_EQ(h264_isoFFtrack(file, cut_avcc, sizeof cut_avcc, 16, 16, 90000), nullptr);
    EXPECT_EQ(mpeg4_isoFFtrack(file, nullptr, 3, 16, 16, 90000), nullptr);
    EXPECT_EQ(file->first_track, nullptr);
    EXPECT_EQ(isoFFsetDecoderSpecificInfo(nullptr, cut_avcc, 1), -1);
    const uint32_t header = file->header_size;
    EXPECT_EQ(h263_isoFFtrack(file, &cfg)->own->frame_count, 1U);
    EXPECT_EQ(file->header_size, header + 325 + 121);
    EXPECT_EQ(isoFFclose(file), 0);
}

// What an H.263 track lacks at first is filled in before the file is closed.
TEST(Writer, H263TracksTakeTheirFormatLate) {
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    H263VCFG cfg{};
    iso_track* track = h263_isoFFtrack(file, &cfg);
    ASSERT_NE(track, nullptr);
    uint8_t picture[] = {0, 0, 0x80, 2, 8};
    EXPECT_EQ(isoFFwrite(track, picture, sizeof picture, 3003, 0), 5);
    track->timescale = 90000;
    track->width = 176;
    track->height = 144;
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    const iso_track* read = reread.file->first_track;
    EXPECT_EQ(read->timescale, 90000u);
    EXPECT_EQ(read->own->display_width, 176u << 16);
    EXPECT_EQ(read->own->display_height, 144u << 16);
    EXPECT_EQ(read->width, 176u);
    EXPECT_EQ(read->height, 144u);
    EXPECT_EQ(read->duration, 3003u);
}

// A configuration that is refused leaves the one before, wherever its memory ends.
TEST(Writer, RefusedConfigurationChangesNothing) {
    const Bytes good = {1, 66, 0, 30, 0xFF, 0xE1, 0, 4, 0x67, 66, 0, 30, 1, 0, 2, 0x68, 9};
    const Bytes other(300, 0);  // a record without sets, longer than what there is room for
    const Bytes cut = {1, 100, 1, 51, 0xFE, 0xE1, 0, 9, 0x67};
    const Bytes wide_set = join({{1, 100, 1, 51, 0xFC, 0xE1, 1, 0}, Bytes(256, 0x67), {0}});
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = h264_track(file);
    const auto expect_unchanged = [&](const iso_track* of) {
        EXPECT_EQ(Bytes(of->dsi, of->dsi + of->dsi_length), good);
        EXPECT_EQ(std::pair(int{of->profile}, int{of->level}), std::pair(66, 30));
        EXPECT_EQ(std::pair(of->profile_compat, of->nal_length_size), std::pair(0U, 4));
        EXPECT_EQ(std::pair(of->sps_count, of->pps_count), std::pair(1U, 1U));
        EXPECT_EQ(Bytes(of->param_sets, of->param_sets + of->param_sets_length),
                  (Bytes{0, 0, 0, 4, 0x67, 66, 0, 30, 0, 0, 0, 2, 0x68, 9}));
    };
    for (const Bytes& bad : {cut, wide_set}) {
        EXPECT_EQ(isoFFsetDecoderSpecificInfo(track, bad.data(), static_cast<int>(bad.size())), -1);
        expect_unchanged(track);
    }
    for (const size_t room : {0U, 8U, 16U, 200U}) {
        const LittleMemory memory(file, room);
        EXPECT_EQ(isoFFsetDecoderSpecificInfo(track, other.data(), 300), -1);
        expect_unchanged(track);
    }
    EXPECT_EQ(isoFFclose(file), 0);
    Reread reread(out.written());
    ASSERT_NE(reread.file->first_track, nullptr);
    expect_unchanged(reread.file->first_track);
}

// --- the two passes ---

TEST(Writer, TablesThatChangeBetweenThePassesAreReported) {
    using kestrel::kCountPass;
    using kestrel::kWritePass;
    FaultyHost out;
    iso_file* file = open_for_writing(out);
    iso_track* track = speech_track(file);
    track->sync_samples = copy_to_arena<uint32_t>(file, {1, 2, 3});
    track->sbgp_list = copy_to_arena<iso_sbgp_entry>(file, {{1, 1, nullptr}});
    track->sbgp_count = track->sync_count = 1;
    std::copy_n("avcb", 5, track->sgpd_type);
    uint8_t sample[2] = {};
    isoFFwrite(track, sample, 1, 160, 3);
    kestrel::write_moov(kCountPass, {}, file);
    kestrel::write_ctts(kCountPass, {}, track);
    isoFFwrite(track, sample, 2, 161, 4);
    track->sync_count = 2;
    track->sbgp_list->next = copy_to_arena<iso_sbgp_entry>(file, {{1, 1, nullptr}});
    track->sbgp_count = 2;
    Bytes room(64);
    const std::pair<uint64_t (*)(kestrel::Pass, std::span<uint8_t>, iso_track*), const char*>
        tables[] = {
            {kestrel::write_stts, "Pass1 1 24 Pass 2 32 --- dtd count 2\n"},
            {kestrel::write_ctts, "Pass1 1 24 Pass 2 32 --- cto count 2\n"},
            {kestrel::write_stsz, "Pass1 1 20 Pass 2 28 --- sample size = 0 sample count = 2\n"},
            {kestrel::write_stss, "Pass1 1 20 Pass 2 24 --- sample count = 2\n"},
            {kestrel::write_sbgp, "Pass1 1 28 Pass 2 36 --- sbgp count 2\n"},
        };
    for (const auto& [write, text] : tables) {
        CaptureStderr();
        write(kWritePass, room, track);
        EXPECT_EQ(GetCapturedStderr(), text);
        // A destination that is too small is not written past.
        CaptureStderr();
        Bytes small(20, 0xAA);
        write(kWritePass, std::span(small).first(12), track);
        EXPECT_EQ(Bytes(small.begin() + 12, small.end()), Bytes(8, 0xAA));
        GetCapturedStderr();
    }
    isoFFclose(file);
}

}  // namespace
