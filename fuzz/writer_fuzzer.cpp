// SPDX-License-Identifier: Apache-2.0
// Any bytes as calls of the ISO writer: what was written is read back sample by sample, and the
// packets of the hint tracks hold the samples.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "fuzz/support/support.h"
#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"

namespace {

using namespace fuzz;

constexpr int kMaxSamples = 400;
constexpr int kMaxPackets = 5000;

struct Sample {
    Bytes bytes;
    int duration;
    int cts_offset;
};

struct Track {
    iso_track* media = nullptr;
    iso_track* hint = nullptr;  // null once a sample could not be cut into packets
    int32_t timescale = 0;
    std::vector<Sample> samples;
};

// Bytes that the codec could have: AMR frames, or NAL units after their lengths, or any.
Bytes sample_bytes(Choices& choices, int32_t codec) {
    const size_t size = choices.u8() % 4 == 0 ? choices.u16() % 3000 : choices.u8();
    Numbers numbers(choices.u8());
    Bytes bytes(size);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(numbers.next() >> 8);
    if (size > 4 && codec == ISO_CODEC_AVC1) {
        bytes[0] = bytes[1] = 0;
        bytes[2] = static_cast<uint8_t>((size - 4) >> 8);
        bytes[3] = static_cast<uint8_t>(size - 4);
    }
    if (size > 4 && codec == ISO_CODEC_S263) {
        const uint8_t header[] = {0, 0, 0x80, 2, 8};
        std::copy(std::begin(header), std::end(header), bytes.begin());
    }
    if (codec == ISO_CODEC_SAMR) bytes.assign(13 * (1 + size % 12), 0x04);
    return bytes;
}

iso_track* make_media(iso_file* file, int32_t codec) {
    const uint8_t avcc[] = {1,  66,   0xC0, 30, 0xFF, 0xE1, 0,    4, 0x67,
                            66, 0xC0, 30,   1,  0,    2,    0x68, 9};
    const uint8_t config[] = {0, 0, 1, 0xB0, 1};
    H263VCFG cfg{};
    cfg.width = 176;
    cfg.height = 144;
    cfg.timescale = 3000;
    cfg.level = 10;
    switch (codec) {
        case ISO_CODEC_S263:
            return h263_isoFFtrack(file, &cfg);
        case ISO_CODEC_AVC1:
            return h264_isoFFtrack(file, avcc, sizeof avcc, 352, 288, 15360);
        case ISO_CODEC_MP4V:
            return mpeg4_isoFFtrack(file, config, sizeof config, 128, 96, 90000);
        default:
            return amr_isoFFtrack(file, codec == ISO_CODEC_SAWB, 0x81FF, 5);
    }
}

Track make_track(iso_file* file, Choices& choices) {
    constexpr int32_t kCodecs[] = {ISO_CODEC_MP4V, ISO_CODEC_S263, ISO_CODEC_SAMR, ISO_CODEC_SAWB,
                                   ISO_CODEC_AVC1};
    const uint8_t how = choices.u8();
    Track track;
    track.media = make_media(file, kCodecs[how % std::size(kCodecs)]);
    check(track.media != nullptr);
    track.timescale = static_cast<int32_t>(track.media->timescale);
    if (how & 0x40) {
        const int max_packet = 64 + choices.u16() % 1400;
        track.hint = rtp_isoFFtrack(file, track.media, max_packet, 96,
                                    how & 0x80 ? ISO_H263_RFC2190 : ISO_H263_RFC4629);
        check(track.hint != nullptr);
    }
    return track;
}

void write_sample(Track& track, Choices& choices) {
    Sample sample{sample_bytes(choices, track.media->codec), 1 + choices.u16() % 9000,
                  static_cast<int8_t>(choices.u8())};
    const auto size = static_cast<int>(sample.bytes.size());
    check(isoFFwrite(track.media, sample.bytes.data(), size, sample.duration, sample.cts_offset) ==
          size);
    if (track.hint != nullptr) {
        const int hinted = isoFFwriteHint(track.hint, sample.bytes.data(), size, sample.duration,
                                          sample.cts_offset);
        check(hinted > 0 || hinted == -3);
        if (hinted < 0) track.hint = nullptr;
    }
    track.samples.push_back(std::move(sample));
}

bool near(double seconds, int units, int32_t timescale) {
    return std::fabs(seconds * timescale - units) < 1e-3;
}

void check_samples(iso_track* track, const Track& written) {
    check(track != nullptr);
    check(track->sample_count == static_cast<int32_t>(written.samples.size()));
    Bytes buffer(4000);
    for (const Sample& sample : written.samples) {
        double duration = 0, offset = 0;
        const int got =
            isoFFread(track, buffer.data(), static_cast<int>(buffer.size()), &duration, &offset);
        check(got == static_cast<int>(sample.bytes.size()));
        check(std::equal(sample.bytes.begin(), sample.bytes.end(), buffer.begin()));
        check(near(duration, sample.duration, written.timescale));
        check(near(offset, sample.cts_offset, written.timescale));
    }
}

// All packets come, with at least the bytes of the samples in them.
void check_packets(iso_track* media, const Track& written) {
    iso_track* hint = isoFFrtpHinter(media, 65535);
    check(hint != nullptr);
    Bytes packet(hint->rtp_max_packet);
    for (int packets = 0; packets < kMaxPackets; ++packets) {
        const int length = isoFFrtpPacket(hint, packet.data());
        check(length >= 0);
        if (length == 0) {
            check(hint->sample_count == static_cast<int32_t>(written.samples.size()));
            return;
        }
    }
}

void read_back(kst_host* host, const std::vector<Track>& tracks) {
    size_t size = 0;
    const void* written = kst_host_written(host, &size);
    kst_host* reading = kst_host_from_memory(written, size);
    auto* callbacks = kst_host_callbacks(reading);
    iso_file* file = isoFFopen(callbacks, "r", nullptr);
    check(file != nullptr);
    std::vector<iso_track*> media;
    for (int i = 1; iso_track* track = isoFFselect(file, nullptr, i); ++i) {
        if (track->codec != ISO_CODEC_RTP) media.push_back(track);
    }
    check(media.size() == tracks.size());
    for (size_t i = 0; i < tracks.size(); ++i) {
        check_samples(media[i], tracks[i]);
        if (tracks[i].hint != nullptr) check_packets(media[i], tracks[i]);
    }
    isoFFclose(file);
    kst_host_close(reading);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Choices choices({data, size});
    const uint8_t how = choices.u8();
    kst_host* host = kst_host_for_writing_memory();
    auto* callbacks = kst_host_callbacks(host);
    iso_file* file = isoFFopen(callbacks, (how & 1) != 0 ? "wd" : "w", nullptr);
    check(file != nullptr);
    file->interleave_span = how >> 1 & 7;
    std::vector<Track> tracks;
    for (int left = 1 + (how >> 4) % 3; left > 0; --left)
        tracks.push_back(make_track(file, choices));
    for (int i = 0; i < kMaxSamples && !choices.at_end(); ++i)
        write_sample(tracks[choices.u8() % tracks.size()], choices);
    check(isoFFclose(file) == 0);
    read_back(host, tracks);
    kst_host_close(host);
    return 0;
}
