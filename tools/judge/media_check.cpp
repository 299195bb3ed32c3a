// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/media_check.h"

#include "interface/src/isoff/record/private.h"
#include "tools/judge/track_samples.h"

namespace tool {

using kestrel::stream::ImplausibleSamples;

namespace {

bool is_uneven_speech(const iso_track* media, std::span<const uint8_t> sample) {
    if (media->codec != ISO_CODEC_SAMR && media->codec != ISO_CODEC_SAWB) return false;
    const kestrel::AmrBand& band = kestrel::amr_band(media->codec == ISO_CODEC_SAWB);
    return !kestrel::stream::ends_with_speech_frame(sample, band);
}

}  // namespace

ImplausibleSamples implausible_samples(iso_track* media, Clock::time_point deadline) {
    constexpr uint32_t kPictureStart = 16;  // bytes that show whether it is a picture
    const bool is_picture = media->codec == ISO_CODEC_S263 || media->codec == ISO_CODEC_MP4V;
    const uint32_t most = is_picture ? kPictureStart : kLongestSample;
    ImplausibleSamples found;
    found.all = samples_of(media);
    std::vector<uint8_t> scratch;
    for (uint32_t i = 0; i < found.all && Clock::now() < deadline; ++i) {
        const auto bytes = read_sample(media, i, scratch, most);
        const bool is_there =
            bytes.size() == scratch.size() && sample_size_of(media, i) <= kLongestSample;
        if (is_there &&
            !kestrel::stream::is_plausible_sample(media->codec, media->nal_length_size, bytes)) {
            found.add(uint64_t{i} + 1);
            if (found.uneven == 0 && is_uneven_speech(media, bytes)) found.uneven = uint64_t{i} + 1;
        }
    }
    return found;
}

std::string implausible_text(const FileFacts& facts, const iso_track* media,
                             const ImplausibleSamples& samples) {
    const uint32_t id = facts.id_of(media);
    const TrackBoxes* boxes = facts.scan.track(id);
    return "track " + std::to_string(id) + ": " +
           samples.text(boxes == nullptr || boxes->entries.empty() ? "" : boxes->entries.front());
}

}  // namespace tool
