// SPDX-License-Identifier: Apache-2.0
// Any bytes as a file, its samples and RTP packets read in every order: each sample is the same
// forwards, backwards and at random, and nothing is written past the buffer that was given.
#include <algorithm>
#include <memory>

#include "fuzz/support/support.h"
#include "kestrel/isoff.h"

namespace {

using namespace fuzz;

constexpr int kMaxSamples = 100;
constexpr int kMaxPackets = 200;
constexpr int kMaxTracks = 8;
constexpr int kMaxRoom = 1 << 16;

struct Sample {
    int length = 0;
    double duration = 0, offset = 0;
    Bytes bytes;

    friend bool operator==(const Sample&, const Sample&) = default;
};

Sample read_here(iso_track* track) {
    Sample sample;
    sample.bytes.resize(kMaxRoom);
    sample.length =
        isoFFread(track, sample.bytes.data(), kMaxRoom, &sample.duration, &sample.offset);
    check(sample.length <= kMaxRoom);
    sample.bytes.resize(static_cast<size_t>(std::max(sample.length, 0)));
    if (sample.length < 0) sample.duration = sample.offset = 0;
    return sample;
}

Sample read_at(iso_track* track, int number) {
    if (isoFFsetPosition(track, number) != 0) return {-1, 0, 0, {}};
    return read_here(track);
}

// The first part of sample `number` is what isoFFread gave, whichever way it is read.
void check_part(iso_track* track, int number, const Sample& sample, uint32_t salt) {
    const auto offset = static_cast<int>(salt % 64);
    Bytes part(1 + salt % 512);
    const int got = isoFFreadAt(track, number, offset, part.data(),
                                static_cast<unsigned>(part.size()), nullptr, nullptr);
    check(got <= static_cast<int>(part.size()));
    if (got <= 0 || sample.length < 0) return;
    check(offset + got <= sample.length);
    check(std::equal(part.begin(), part.begin() + got, sample.bytes.begin() + offset));
}

void read_samples(iso_track* track, Numbers& numbers) {
    std::vector<Sample> samples;
    const int count = std::min(track->sample_count, kMaxSamples);
    for (int i = 0; i < count; ++i)
        samples.push_back(read_at(track, i));
    for (int i = count; i-- > 0;)
        check(read_at(track, i) == samples[static_cast<size_t>(i)]);
    for (int i = 0; i < count; ++i) {
        const auto at = static_cast<int>(numbers.below(static_cast<uint32_t>(count)));
        check(read_at(track, at) == samples[static_cast<size_t>(at)]);
        check_part(track, at, samples[static_cast<size_t>(at)], numbers.next());
    }
    // The far end, where counts that lie lead.
    for (int i = 0; i < 8; ++i) {
        const auto total = static_cast<uint32_t>(std::max(track->sample_count, 1));
        read_at(track, static_cast<int>(numbers.below(total)));
        read_at(track, static_cast<int>(total) - 1 - i);
    }
}

int next_packet(iso_track* hint) {
    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[hint->rtp_max_packet]);
    const int length = isoFFrtpPacket(hint, buffer.get());
    check(length <= static_cast<int>(hint->rtp_max_packet));
    if (length > 0) check(length >= 12 && (buffer[0] & 0x80) != 0);
    return length;
}

void read_packets(iso_track* media, int max_packet, Numbers& numbers) {
    iso_track* hint = isoFFrtpHinter(media, max_packet);
    if (hint == nullptr) return;
    check(hint->rtp_max_packet <= static_cast<uint32_t>(max_packet));
    int packets = 0;
    while (packets < kMaxPackets && next_packet(hint) > 0)
        ++packets;
    for (int i = 0; i < 20; ++i) {
        const auto total = static_cast<uint32_t>(std::max(hint->sample_count, 1));
        const uint32_t end = i % 2 == 0 ? total : std::min(total, uint32_t{kMaxSamples});
        if (isoFFsetPosition(hint, static_cast<int>(numbers.below(end))) == 0) next_packet(hint);
        next_packet(hint);
    }
}

void read_configuration(iso_track* track) {
    int length = 0;
    isoFFgetDecoderSpecificInfo(track, &length, 1);
    double duration = 0;
    int size = 0;
    isoFFframeInfo(track, &duration, &size);
    unsigned char* sets = nullptr;
    if (isoFFGetDSIin3GPP(track, 0, &sets) >= 0) systemfree(sets);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input({data, size});
    const uint8_t how = input.choices.u8();
    Numbers numbers(input.choices.u32());
    const int max_packet = how & 1 ? 1400 : 12 + input.choices.u16();
    Host host(input.file);
    auto* callbacks = host.callbacks();
    iso_file* file = isoFFopen(callbacks, "r", nullptr);
    check(file != nullptr);
    host.check_calls();
    file->indexed_read = how >> 1 & 1;
    for (int i = 1; i <= kMaxTracks; ++i) {
        iso_track* track = isoFFselect(file, nullptr, i);
        if (track == nullptr) break;
        read_packets(track, max_packet, numbers);
        read_samples(track, numbers);
        read_configuration(track);
    }
    isoFFgetInterleave(file);
    check(isoFFclose(file) == 0);
    return 0;
}
