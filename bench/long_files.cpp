// SPDX-License-Identifier: Apache-2.0
#include "bench/long_files.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"

namespace bench {
namespace {

constexpr int kVideoPacket = 1012;
constexpr int kSpeechPacket = 1400;
constexpr int kPayloadType = 96;
constexpr unsigned kFrameUnits = 160;  // 20 ms of 8000 a second

struct CloseHost {
    void operator()(kst_host* host) const { kst_host_close(host); }
};
using Host = std::unique_ptr<kst_host, CloseHost>;

struct CloseFile {
    void operator()(iso_file* file) const { isoFFclose(file); }
};
using IsoFile = std::unique_ptr<iso_file, CloseFile>;

[[noreturn]] void give_up(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(1);
}

template <typename T>
T* require(T* made, const char* what) {
    if (made == nullptr) give_up(what);
    return made;
}

// A sample file that is open for reading.
struct Source {
    explicit Source(const std::string& name)
        : host(require(kst_host_from_file((std::string(KESTREL_SAMPLES "/") + name).c_str()),
                       name.c_str())),
          callbacks(kst_host_callbacks(host.get())),
          file(require(isoFFopen(callbacks, "r", nullptr), name.c_str())) {
        for (iso_track* at = file->first_track; at != nullptr; at = at->next) {
            if (at->codec != ISO_CODEC_RTP && media == nullptr) media = at;
        }
        require(media, name.c_str());
    }

    Host host;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks;
    IsoFile file;
    iso_track* media = nullptr;
};

struct Sample {
    std::vector<uint8_t> bytes;
    int duration;  // track units
};

std::vector<Sample> read_samples(iso_track* track) {
    std::vector<Sample> samples;
    std::vector<uint8_t> buffer(1 << 20);
    double duration = 0.0;
    for (;;) {
        const int size =
            isoFFread(track, buffer.data(), static_cast<int>(buffer.size()), &duration, nullptr);
        if (size < 0) return samples;
        samples.push_back({{buffer.begin(), buffer.begin() + size},
                           static_cast<int>(std::lround(duration * track->timescale))});
    }
}

// Each frame of the samples as a sample of its own.
std::vector<Sample> single_frames(const std::vector<Sample>& samples) {
    constexpr size_t kFrame = 32;  // 12.2 kbit/s
    constexpr uint8_t kFrameType = 7;
    std::vector<Sample> frames;
    for (const Sample& sample : samples) {
        for (size_t at = 0; at + kFrame <= sample.bytes.size(); at += kFrame) {
            const auto begin = sample.bytes.begin() + static_cast<std::ptrdiff_t>(at);
            if ((*begin >> 3 & 15) != kFrameType) give_up("speech that is not of 12.2 kbit/s");
            frames.push_back({{begin, begin + kFrame}, kFrameUnits});
        }
    }
    return frames;
}

iso_track* make_media(iso_file* file, Recording recording, const iso_track* like) {
    if (recording == Recording::kSpeech) return amr_isoFFtrack(file, 0, 1 << 7, 1);
    H263VCFG cfg{};
    cfg.width = like->width;
    cfg.height = like->height;
    cfg.timescale = like->timescale;
    cfg.profile = static_cast<uint32_t>(like->profile);
    cfg.level = static_cast<uint32_t>(like->level);
    return h263_isoFFtrack(file, &cfg);
}

}  // namespace

std::vector<uint8_t> make_file(Recording recording, unsigned minutes, MovieBox place) {
    const bool speech = recording == Recording::kSpeech;
    const Source source(speech                          ? "amrnb_plain.3gp"
                        : recording == Recording::kQcif ? "h263_plain.3gp"
                                                        : "h263_cif_hinted.3gp");
    std::vector<Sample> samples = read_samples(source.media);
    if (speech) samples = single_frames(samples);
    if (samples.empty()) give_up("a sample file without samples");

    const Host host(require(kst_host_for_writing_memory(), "no memory"));
    auto* callbacks = kst_host_callbacks(host.get());
    const char* mode = place == MovieBox::kLast ? "wd" : "w";
    iso_file* file = require(isoFFopen(callbacks, mode, nullptr), "no memory");
    iso_track* media = require(make_media(file, recording, source.media), "no track");
    iso_track* hint = require(rtp_isoFFtrack(file, media, speech ? kSpeechPacket : kVideoPacket,
                                             kPayloadType, ISO_H263_RFC4629),
                              "no hint track");
    const uint64_t length = uint64_t{minutes} * 60 * source.media->timescale;
    uint64_t time = 0;
    for (size_t i = 0; time < length; ++i) {
        Sample& sample = samples[i % samples.size()];
        const auto size = static_cast<int>(sample.bytes.size());
        if (isoFFwrite(media, sample.bytes.data(), size, sample.duration, 0) < 0 ||
            isoFFwriteHint(hint, sample.bytes.data(), size, sample.duration, 0) < 0) {
            give_up("a sample that cannot be written");
        }
        time += static_cast<uint64_t>(sample.duration);
    }
    if (isoFFclose(file) != 0) give_up("a file that cannot be finished");
    size_t size = 0;
    const auto* bytes = static_cast<const uint8_t*>(kst_host_written(host.get(), &size));
    return {bytes, bytes + size};
}

std::span<const uint8_t> long_file(Recording recording, unsigned minutes) {
    static std::map<std::tuple<Recording, unsigned>, std::vector<uint8_t>> files;
    std::vector<uint8_t>& file = files[{recording, minutes}];
    if (file.empty()) file = make_file(recording, minutes, MovieBox::kFirst);
    return file;
}

std::vector<std::vector<uint8_t>> samples_of(const char* name) {
    const Source source(name);
    std::vector<std::vector<uint8_t>> all;
    for (Sample& sample : read_samples(source.media))
        all.push_back(std::move(sample.bytes));
    return all;
}

}  // namespace bench
