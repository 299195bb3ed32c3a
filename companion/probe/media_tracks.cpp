// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/media_tracks.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "companion/probe/hint_constructors.h"
#include "interface/src/isoff/record/private.h"
#include "interface/src/mmfi/mmfiInterface.h"

namespace kestrel::probe {
namespace {

const char* handler_of(MediaKind kind) {
    return kind == MediaKind::kAudio ? "soun" : "vide";
}

// The first track of a list that `fits`; null for none.
template <typename Fits>
const iso_track* find_track(const iso_track* track, Fits fits) {
    while (track != nullptr && !fits(track))
        track = track->next;
    return track;
}

// Whether a packet of a hint sample takes bytes out of the hint track.
bool takes_from_itself(std::span<const uint8_t> hint_sample) {
    bool found = false;
    for_each_sample_constructor(hint_sample, [&](const SampleConstructor& constructor) {
        found = found || constructor.track_reference == kHintTrackItself;
    });
    return found;
}

// Looks at the first samples of a hint track, at most `budget` of them, which it takes off.
bool takes_from_itself(const iso_track* hint, int& budget) {
    constexpr int kLooked = 16;              // samples
    constexpr uint32_t kMaxBytes = 1 << 16;  // of one
    std::vector<uint8_t> bytes;
    const int count = std::min({hint->sample_count, kLooked, budget});
    budget -= std::max(count, 0);
    for (int sample = 0; sample < count; ++sample) {
        bytes.resize(std::min(sample_size_of(hint, static_cast<uint32_t>(sample)), kMaxBytes));
        // Reading moves the cursor of the track, which nothing else uses.
        const int got = isoFFreadAt(const_cast<iso_track*>(hint), sample, 0, bytes.data(),
                                    static_cast<unsigned>(bytes.size()), nullptr, nullptr);
        if (got <= 0) continue;
        if (takes_from_itself({bytes.data(), static_cast<size_t>(got)})) return true;
    }
    return false;
}

// The samples that a track's chunks hold, and those before the last chunk that holds any.
struct InChunks {
    uint64_t all = 0, before_last = 0;
};

// Only differences of the first-chunk numbers count, and the last run holds for all further chunks.
InChunks samples_in_chunks(const iso_track* track) {
    InChunks samples;
    int64_t left = track->own->declared_chunks;
    for (int32_t i = 0; i < track->stsc_count && left > 0; ++i) {
        const iso_stsc_entry& run = track->stsc[i];
        int64_t chunks = left;
        if (i + 1 < track->stsc_count) {
            const int64_t length = int64_t{track->stsc[i + 1].first_chunk} - run.first_chunk;
            chunks = std::clamp<int64_t>(length, 1, left);
        }
        left -= chunks;
        if (run.samples_per_chunk == 0) continue;
        samples.all += static_cast<uint64_t>(chunks) * run.samples_per_chunk;
        samples.before_last = samples.all - run.samples_per_chunk;
    }
    return samples;
}

}  // namespace

const char* word(Api api) {
    return api == Api::kFunction ? "function" : "class";
}

const char* word(MediaKind kind) {
    return kind == MediaKind::kAudio ? "audio" : "video";
}

bool is_of(const iso_track* track, MediaKind kind) {
    switch (track->codec) {
        case ISO_CODEC_SAMR:
        case ISO_CODEC_SAWB:
        case ISO_CODEC_SAWP:
        case ISO_CODEC_MP4A:
            return kind == MediaKind::kAudio;
        case ISO_CODEC_S263:
        case ISO_CODEC_MP4V:
        case ISO_CODEC_AVC1:
            return kind == MediaKind::kVideo;
        case ISO_CODEC_RTP:
        case ISO_CODEC_SRTP:
            return false;
        default:
            return std::strcmp(track->handler, handler_of(kind)) == 0;
    }
}

bool has_medium(const iso_file* file, MediaKind kind) {
    return find_track(file->first_track, [&](auto* track) { return is_of(track, kind); }) !=
           nullptr;
}

bool plays_codec(Api api, int32_t codec) {
    switch (codec) {
        case ISO_CODEC_SAMR:
        case ISO_CODEC_S263:
        case ISO_CODEC_MP4V:
            return true;
        case ISO_CODEC_SAWB:
        case ISO_CODEC_AVC1:
            return api == Api::kFunction;
        default:
            return false;
    }
}

// The function API takes the track ID of the last track that it plays, and the first such track
// with that ID; the class API takes tracks by their handlers, and of those with one ID the last.
const iso_track* track_for(const iso_file* file, Api api, MediaKind kind) {
    const auto takes = [&](const iso_track* track) {
        if (api == Api::kFunction) {
            return is_of(track, kind) && plays_codec(api, track->codec) && has_configuration(track);
        }
        return std::strcmp(track->handler, handler_of(kind)) == 0;
    };
    const iso_track* last = nullptr;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (takes(track)) last = track;
    }
    if (last == nullptr) {
        return find_track(file->first_track, [&](auto* track) { return is_of(track, kind); });
    }
    if (api == Api::kClass) return last;
    return find_track(file->first_track, [&](auto* track) {
        return takes(track) && track->track_id == last->track_id;
    });
}

bool has_configuration(const iso_track* track) {
    return track->own->has_bad_config == 0;
}

const iso_track* hint_track_of(const iso_file* file, const iso_track* media) {
    return find_track(file->first_track, [&](auto* track) {
        return is_hint(track) && track->hint_track_ref == media->track_id;
    });
}

// The choice of isoFFrtpHinter, which would move the cursor of the track. The tool links this file,
// but of the ISO reader only what the library exports.
const iso_track* packets_of(const iso_file* file, const iso_track* media) {
    const iso_track* best = nullptr;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (is_hint(track) && track->hint_track_ref == media->track_id &&
            track->rtp_max_packet <= uint32_t{kMaxPacketBytes} &&
            (best == nullptr || track->rtp_max_packet > best->rtp_max_packet)) {
            best = track;
        }
    }
    return best != nullptr && best->sample_count > 0 ? best : nullptr;
}

bool has_hints(const iso_file* file) {
    return find_track(file->first_track, is_hint) != nullptr;
}

bool is_self_hinted(const iso_file* file, const iso_track* media) {
    int budget = 256;  // samples
    const iso_track* hint = hint_track_of(file, media);
    if (hint != nullptr) return takes_from_itself(hint, budget);
    return find_track(file->first_track, [&](auto* track) {
               const bool is_alone =
                   track->hint_track_ref == 0 || track->hint_track_ref == track->track_id;
               return is_hint(track) && is_alone && takes_from_itself(track, budget);
           }) != nullptr;
}

uint32_t sample_size_of(const iso_track* track, uint32_t sample) {
    return track->sample_sizes == nullptr ? track->sample_size : track->sample_sizes[sample];
}

Declared declared(const iso_track* track) {
    Declared out;
    out.samples = track->own->declared_samples;  // entries of sample_sizes
    if (track->sample_sizes == nullptr) {
        out.filled = track->sample_size == 0 ? 0 : out.samples;
        out.bytes = out.samples * track->sample_size;
        out.largest = track->sample_size;
        return out;
    }
    for (uint32_t sample = 0; sample < out.samples; ++sample) {
        const uint32_t size = track->sample_sizes[sample];
        out.filled += size > 0 ? 1 : 0;
        out.bytes += size;
        out.largest = std::max(out.largest, size);
    }
    return out;
}

uint64_t samples_without_size(const iso_track* track) {
    const uint64_t sized = track->own->declared_samples;
    if (sized == 0) return 0;
    const InChunks chunks = samples_in_chunks(track);
    uint64_t all = chunks.all;
    if (chunks.before_last < sized) {
        uint64_t timed = 0;
        for (int32_t i = 0; i < track->stts_count; ++i)
            timed += track->stts[i].count;
        all = std::min(all, timed);
    }
    return all > sized ? all - sized : 0;
}

Outside outside_file(const iso_track* track, uint32_t size) {
    Outside out;
    for (int32_t i = 0; i < track->chunk_count; ++i) {
        const iso_chunk& chunk = track->chunks[i];
        if (chunk.end <= size) continue;
        ++out.chunks;
        const uint32_t from = std::max(chunk.start, size);
        out.bytes += chunk.end > from ? chunk.end - from : 0;
    }
    return out;
}

const char* codec_name(int32_t codec) {
    switch (codec) {
        case ISO_CODEC_MP4V:
            return "MPEG-4 Visual";
        case ISO_CODEC_MP4A:
            return "AAC";
        case ISO_CODEC_S263:
            return "H.263";
        case ISO_CODEC_SAMR:
            return "AMR-NB";
        case ISO_CODEC_AVC1:
            return "H.264";
        case ISO_CODEC_SAWB:
            return "AMR-WB";
        case ISO_CODEC_SAWP:
            return "AMR-WB+";
        case ISO_CODEC_RTP:
            return "RTP hints";
        case ISO_CODEC_SRTP:
            return "SRTP hints";
        default:
            return "unknown";
    }
}

const char* codec_name(const iso_track* track) {
    if (track->codec != ISO_CODEC_MP4A) return codec_name(track->codec);
    // Object types of decoder configurations (ISO/IEC 14496-1, 7.2.6.6, and those registered).
    switch (track->object_type) {
        case 0x00:  // has no decoder configuration
        case 0x40:
        case 0x66:
        case 0x67:
        case 0x68:
            return codec_name(track->codec);
        case 0x69:
        case 0x6B:
            return "MPEG audio";
        case 0xA5:
            return "AC-3";
        case 0xA6:
            return "E-AC-3";
        case 0xA9:
            return "DTS";
        case 0xAD:
            return "Opus";
        case 0xDD:
            return "Vorbis";
        case 0xE1:
            return "QCELP";
        default:
            return "unknown";
    }
}

}  // namespace kestrel::probe
