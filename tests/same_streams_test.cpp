// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>

#include "kestrel/codec.h"
#include "kestrel/isoff.h"
#include "kestrel/native.h"
#include "kestrel/native_records.h"
#include "tests/support/playing.h"
#include "tests/support/writing.h"

// Streams and seek results are the same on every word size: of each sample, and of short clips
// whose times are not whole in seconds, compared with the digests in golden/streams.txt.
// KESTREL_RENEW_GOLDEN=1 writes that list anew.

namespace {

// Of the values given.
class Digest {
  public:
    void add(const Bytes& bytes) {
        add(static_cast<uint32_t>(bytes.size()));
        hash_ = digest(bytes.data(), bytes.size(), hash_);
    }
    void add(uint32_t value) { hash_ = digest(le32(value).data(), 4, hash_); }
    uint64_t value() const { return hash_; }

  private:
    uint64_t hash_ = digest(nullptr, 0);
};

// What is compared of a medium, or of a row of clips together. A stream that is refused has no
// digest, but a status.
struct Digests {
    Digest function, classes, seeks;
    int32_t function_refusal = KST_SUCCESS, class_refusal = KST_SUCCESS;
};

void add_seek(Digest& digest, C3gpInterface& player, uint32_t time, uint32_t flags) {
    _TAG_KST_SEEK_PARAMS seek{};
    seek.nTime = time;
    seek.fFlags = flags;
    digest.add(player.SeekTo(&seek));
    digest.add(seek.nTime);
    digest.add(seek.uFrameNum);
    digest.add(seek.uFileOffset);
    Bytes frame(KST_LARGEST_CHUNK);
    uint32_t size = KST_LARGEST_CHUNK;
    digest.add(player.ReadChunk(frame.data(), &size, false));
    frame.resize(size);
    digest.add(frame);
}

void add_seeks(Digest& digest, const Bytes& file, const char* mode) {
    const MemoryHost host(file);
    C3gpInterface player;
    digest.add(player.Open(host.table(), mode));
    for (const uint32_t time : {0u, 20u, 33u, 41u, 100u, 334u, 501u, 1001u, 2002u, 5000u, 14280u}) {
        for (const uint32_t sync :
             {KST_SEEK_NEXT_SYNC, KST_SEEK_PREVIOUS_SYNC, KST_SEEK_NEAREST_SYNC}) {
            add_seek(digest, player, time, KST_SEEK_ABSOLUTE | sync);
            add_seek(digest, player, time / 20, KST_SEEK_RELATIVE | sync);
        }
    }
    player.Close();
}

// Returns the status of opening.
int32_t add_played(Digest& digest, const Bytes& file, const char* mode, Api api) {
    const Played played = play(file, mode, {.api = api});
    digest.add(static_cast<uint32_t>(played.status));
    digest.add(played.stream);
    return played.opened ? KST_SUCCESS : played.status;
}

void add_medium(Digests& digests, const Bytes& file, const char* mode) {
    digests.function_refusal = add_played(digests.function, file, mode, Api::kFunction);
    digests.class_refusal = add_played(digests.classes, file, mode, Api::kClass);
    add_seeks(digests.seeks, file, mode);
}

std::string line_of(const std::string& name, const Digests& digests) {
    std::ostringstream line;
    line << name << std::setfill('0');
    const auto add = [&](const Digest& digest, int32_t refusal) {
        line << ' ';
        if (refusal != KST_SUCCESS) {
            line << "refused-" << std::dec << refusal;
        } else {
            line << std::hex << std::setw(16) << digest.value();
        }
    };
    add(digests.function, digests.function_refusal);
    add(digests.classes, digests.class_refusal);
    add(digests.seeks, digests.class_refusal);
    return line.str();
}

// --- clips ---

struct Clock {
    uint32_t timescale;
    int delta;  // of a sample
};

constexpr Clock kClocks[] = {{50, 1},       {600, 24},     {1000, 33},   {8000, 160},
                             {8000, 167},   {12800, 512},  {15360, 512}, {16000, 320},
                             {30000, 1001}, {90000, 3600}, {90000, 3003}};

struct Codec {
    const char* name;
    const char* mode;
    iso_track* (*make)(iso_file*);
    Bytes sample_head;
    int32_t class_refusal = KST_SUCCESS;  // what the class API says to it
};

const Codec kCodecs[] = {
    {"amr", "ar", [](iso_file* file) { return amr_isoFFtrack(file, 0, 0x81FF, 1); }, {0x3C}},
    {"amr-wb",
     "ar",
     [](iso_file* file) { return amr_isoFFtrack(file, 1, 0x83FF, 1); },
     {0x04},
     KST_FAILURE},
    {"h263", "vr", h263_track, {0, 0, 0x80, 2, 8}},
    {"mpeg4", "vr", mpeg4_track, {0, 0, 1, 0xB6, 0x10}},
    {"h264", "vr", h264_track, {0, 0, 0, 36, 0x65}, KST_UNKNOWN_CODER},
};

void keep_sync_samples(iso_track* track, std::initializer_list<uint32_t> numbers) {
    track->sync_samples = copy_to_arena<uint32_t>(track->file, numbers);
    track->sync_count = static_cast<uint32_t>(numbers.size());
}

void write_clip(iso_file* file, const Codec& codec, const Clock& clock, int samples) {
    file->creation_time = file->modification_time = 0;
    iso_track* media = codec.make(file);
    media->timescale = clock.timescale;
    iso_track* hint = hint_track(media);
    for (iso_track* track : {media, hint}) {
        if (samples > 31 && *codec.mode == 'v') keep_sync_samples(track, {1, 31});
    }
    Bytes sample = codec.sample_head;
    sample.resize(*codec.mode == 'v' ? 40 : sample[0] == 4 ? 18 : 32, 0x5A);
    const auto size = static_cast<int>(sample.size());
    for (int i = 0; i < samples; ++i) {
        EXPECT_EQ(isoFFwrite(media, sample.data(), size, clock.delta, 0), size);
        EXPECT_GT(isoFFwriteHint(hint, sample.data(), size, clock.delta, 0), 0);
    }
}

Bytes make_clip(const Codec& codec, const Clock& clock, int samples) {
    Output out;
    write_clip(out.file, codec, clock, samples);
    EXPECT_EQ(out.close(), 0);
    return out.written();
}

// --- the list ---

std::vector<std::string> sample_lines() {
    std::vector<std::string> lines;
    for (const Medium& medium : sample_media()) {
        Digests digests;
        add_medium(digests, read_sample(medium.file), medium.mode);
        lines.push_back(line_of(medium.file + " " + medium.mode, digests));
    }
    return lines;
}

std::vector<std::string> clip_lines() {
    constexpr int kLongest = 60;  // samples
    std::vector<std::string> lines;
    for (const Codec& codec : kCodecs) {
        for (const Clock& clock : kClocks) {
            Digests digests;
            for (int samples = 1; samples <= kLongest; ++samples) {
                add_medium(digests, make_clip(codec, clock, samples), codec.mode);
                EXPECT_EQ(digests.function_refusal, KST_SUCCESS) << codec.name;
                EXPECT_EQ(digests.class_refusal, codec.class_refusal) << codec.name;
            }
            lines.push_back(line_of(std::string(codec.name) + ' ' + std::to_string(clock.delta) +
                                        '/' + std::to_string(clock.timescale),
                                    digests));
        }
    }
    return lines;
}

TEST(SameStreams, OnEveryWordSize) {
    std::vector<std::string> lines = sample_lines();
    for (const std::string& line : clip_lines())
        lines.push_back(line);
    const std::vector<std::string> golden = golden_lines("streams.txt", lines);
    ASSERT_EQ(lines.size(), golden.size());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i], golden[i]);
}

TEST(SameStreams, WholeFiguresComeOutWhole) {
    using namespace kestrel;
    constexpr size_t kCodecInfo =
        sizeof(PROP_Header_Info) + sizeof(VID_Header_NTSInfo) + sizeof(VID_Header_IndxInfo);
    constexpr size_t kFileInfo =
        kCodecInfo + sizeof(VID_Header_CodecInfo) + sizeof(VID_Header_H263CodecConfig);
    const Codec& h263 = kCodecs[2];
    for (uint32_t samples = 1; samples <= 60; ++samples) {
        const Bytes clip = make_clip(h263, {12800, 512}, static_cast<int>(samples));
        for (const Api api : {Api::kFunction, Api::kClass}) {
            const Bytes stream = play(clip, h263.mode, {.api = api}).stream;
            EXPECT_EQ(record_at<PROP_Header_Info>(stream, 0).value, 25U) << samples;
            EXPECT_EQ(record_at<VID_Header_CodecInfo>(stream, kCodecInfo).bit_rate, 8000U);
            EXPECT_EQ(record_at<VID_FileInfo>(stream, kFileInfo).duration_ms, 40 * samples);
        }
    }
    for (uint32_t ms = 0; ms < 100000; ++ms) {
        VID_FileInfo info{};
        tel_put_hdr_fileInfo(&info, ms / 1000.0);
        ASSERT_EQ(info.duration_ms, ms);
    }
}

}  // namespace
