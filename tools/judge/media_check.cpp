// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/media_check.h"

#include "interface/src/isoff/record/private.h"
#include "tools/judge/track_samples.h"

namespace tool {

using kestrel::stream::ConfigurationTest;
using kestrel::stream::ImplausibleSamples;

namespace {

// The bytes of a sample that show whether it can be of its codec.
uint32_t bytes_needed(const iso_track* media, const ConfigurationTest& configuration) {
    constexpr uint32_t kPictureStart = 16;
    const bool is_picture = media->codec == ISO_CODEC_S263 || media->codec == ISO_CODEC_MP4V;
    return is_picture && configuration.is_complete() ? kPictureStart : kLongestSample;
}

}  // namespace

ImplausibleSamples implausible_samples(iso_track* media, Clock::time_point deadline) {
    ConfigurationTest configuration(media->codec, {media->dsi, media->dsi_length});
    ImplausibleSamples found;
    found.all = samples_of(media);
    std::vector<uint8_t> scratch;
    uint32_t judged = 0;
    for (uint32_t i = 0; i < found.all && Clock::now() < deadline; ++i) {
        const auto bytes = read_sample(media, i, scratch, bytes_needed(media, configuration));
        const bool is_there =
            bytes.size() == scratch.size() && sample_size_of(media, i) <= kLongestSample;
        if (!is_there) continue;
        ++judged;
        configuration.take_sample(bytes, media->nal_length_size);
        if (!kestrel::stream::is_plausible_sample(media->codec, media->nal_length_size, bytes)) {
            found.add(uint64_t{i} + 1);
            if (found.uneven == 0 && kestrel::stream::is_uneven_speech(media->codec, bytes))
                found.uneven = uint64_t{i} + 1;
        }
    }
    if (judged > 0 && judged == found.all) found.configuration = configuration.fault();
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
