// SPDX-License-Identifier: Apache-2.0
#include "tests/support/writing.h"
#include "tests/support/memory_host.h"

#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"

namespace {

struct Track {
    iso_track* media = nullptr;
    iso_track* hint = nullptr;
    Bytes sample = {};
};

std::vector<Track> make_tracks(iso_file* file, const Around& around) {
    const Bytes picture = join({{0, 0, 0x80, 2, 8}, Bytes(3000, 0x55)});
    std::vector<Track> tracks(4);
    tracks[0].sample = Bytes(32, 0x3C);
    tracks[1].sample = tracks[2].sample = picture;
    tracks[3].sample = join({{0, 0, 0x0B, 0xB8}, Bytes(3000, 0x65)});
    around([&] {
        tracks[0].media = amr_track(file);
        tracks[1].media = h263_track(file);
        tracks[2].media = mpeg4_track(file);
        tracks[3].media = h264_track(file);
        for (Track& track : tracks)
            track.hint = rtp_isoFFtrack(file, track.media, 1400, 96, ISO_H263_RFC4629);
    });
    return tracks;
}

void write_sample(Track& track, const Around& around, Writing& writing) {
    constexpr int kDuration = 160;
    const auto size = static_cast<int>(track.sample.size());
    const auto note = [&](int result) {
        if (result < 0) writing.failures.push_back(result);
        writing.samples += result > 0;
        return result > 0;
    };
    int result = 0;
    if (track.media == nullptr) return;
    around([&] { result = isoFFwrite(track.media, track.sample.data(), size, kDuration, 0); });
    if (!note(result) || track.hint == nullptr) return;
    around([&] { result = isoFFwriteHint(track.hint, track.sample.data(), size, kDuration, 0); });
    note(result);
}

}  // namespace

Output::Output(bool direct) {
    KST_IOSTREAM_CALLBACK_INTERFACE* io = callbacks();
    file = isoFFopen(io, direct ? "wd" : "w", nullptr);
}

const Bytes kAvcc = {1, 66, 0xC0, 30, 0xFF, 0xE1, 0, 4, 0x67, 66, 0xC0, 30, 1, 0, 2, 0x68, 9};

iso_track* amr_track(iso_file* file) {
    return amr_isoFFtrack(file, 0, 0x81FF, 10);
}

iso_track* amr_wb_track(iso_file* file) {
    return amr_isoFFtrack(file, 1, 0x83FF, 10);
}

iso_track* h263_track(iso_file* file) {
    H263VCFG config{};
    config.width = 176;
    config.height = 144;
    config.timescale = 29970;
    config.level = 10;
    return h263_isoFFtrack(file, &config);
}

iso_track* mpeg4_track(iso_file* file) {
    return mpeg4_isoFFtrack(file, "\0\0\1\xB0\10", 5, 176, 144, 30000);
}

iso_track* h264_track(iso_file* file) {
    return h264_isoFFtrack(file, kAvcc.data(), static_cast<unsigned>(kAvcc.size()), 176, 144,
                           12800);
}

iso_track* hint_track(iso_track* media) {
    return rtp_isoFFtrack(media->file, media, 1400, 96, ISO_H263_RFC4629);
}

int write(iso_track* track, int size, int duration) {
    Bytes sample(static_cast<size_t>(size), 0x3C);
    return isoFFwrite(track, sample.data(), size, duration, 0);
}

Writing write_every_codec(KST_IOSTREAM_CALLBACK_INTERFACE* stream, bool direct,
                          const Around& around) {
    constexpr int kSamples = 3;
    Writing writing;
    iso_file* file = nullptr;
    around([&] { file = isoFFopen(stream, direct ? "wd" : "w", &writing.open_error); });
    if (file == nullptr) return writing;
    file->creation_time = file->modification_time = 0;
    std::vector<Track> tracks = make_tracks(file, around);
    for (int i = 0; i < kSamples; ++i) {
        for (Track& track : tracks)
            write_sample(track, around, writing);
    }
    around([&] { writing.closed = isoFFclose(file); });
    return writing;
}

int32_t samples_in(const Bytes& bytes) {
    const MemoryHost host(bytes);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = host.table();
    iso_file* file = isoFFopen(callbacks, "r", nullptr);
    int32_t samples = 0;
    for (int i = 1; const iso_track* track = isoFFselect(file, nullptr, i); ++i)
        samples += track->sample_count;
    isoFFclose(file);
    return samples;
}
