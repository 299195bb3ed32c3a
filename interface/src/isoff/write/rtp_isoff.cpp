// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/hint_track.h"

#include <algorithm>
#include <exception>
#include <new>
#include <string>

#include "interface/src/isoff/write/sample_provider.h"
#include "interface/src/isoff/write/writer.h"
#include "native/codec/amr_format.h"
#include "native/codec/avcc.h"
#include "native/codec/payload_types.h"

// RTP hint tracks for the writer (ISO/IEC 14496-12, 9.1): the track with its SDP, and its samples.

namespace kestrel {

// A hint sample that was written.
struct SentSample {
    uint64_t time;   // track units
    uint64_t bytes;  // of its packets
    SentSample* next;
};

}  // namespace kestrel

// State of a hint track that is being written, with its media track. In the arena.
struct iso_hinter {
    iso_track* media;
    kestrel::VideoPayload payload;
    uint32_t dts_delta_bits;  // of AU headers by RFC 3640; 0 for payloads of RFC 6416
    uint32_t source_format;   // of the last H.263 picture
    uint32_t samples;         // made so far
    uint16_t sequence;        // of the next packet
    uint64_t media_time;      // of the next sample, track units
    uint64_t packets, bytes;
    // Samples of the last second, for the highest bit rate, and unused records.
    kestrel::SentSample* first_sent;
    kestrel::SentSample* last_sent;
    kestrel::SentSample* spare;
    uint64_t sent_bytes;  // of the last second
};

namespace kestrel {
namespace {

constexpr int kLeastPacket = 64;
constexpr int kMaxPacket = 65535;

bool is_speech(const iso_track* media) {
    return media->codec == ISO_CODEC_SAMR || media->codec == ISO_CODEC_SAWB;
}

uint32_t clock_of(const iso_track* media) {
    if (!is_speech(media)) return kVideoClock;
    return amr_band(media->codec == ISO_CODEC_SAWB).sampling_rate;
}

bool can_be_hinted(const iso_track* media) {
    if (media->timescale == 0) return false;
    switch (media->codec) {
        case ISO_CODEC_AVC1:
            return media->dsi_length != 0 && media->nal_length_size != 0;
        case ISO_CODEC_MP4V:
            return media->dsi_length != 0;
        default:
            return is_speech(media) || media->codec == ISO_CODEC_S263;
    }
}

// --- SDP (RFC 4566 and the payload formats' media types) ---

std::string hex(std::span<const uint8_t> bytes) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string base64(std::span<const uint8_t> bytes) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const size_t count = std::min<size_t>(bytes.size() - at, 3);
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < count ? bytes[at + i] : 0U);
        for (size_t i = 0; i < 4; ++i)
            text += i <= count ? kDigits[group >> (18 - 6 * i) & 63] : '=';
    }
    return text;
}

// Returns the parameter sets of an `avcC` record, separated by commas (RFC 6184, 8.1); nothing when
// the record has none.
std::string sprop_parameter_sets(const iso_track* media) {
    std::string sets;
    for (const NalUnit set : parameter_sets({media->dsi, media->dsi_length})) {
        if (!sets.empty()) sets += ',';
        sets += base64(set);
    }
    return sets.empty() ? "" : "; sprop-parameter-sets=" + sets;
}

struct MediaType {
    std::string name;
    std::string parameters;
};

MediaType media_type_of(const iso_track* media, const iso_hinter* hinter) {
    const std::span<const uint8_t> dsi(media->dsi, media->dsi_length);
    switch (media->codec) {
        case ISO_CODEC_SAMR:
            return {"AMR", "octet-align=1"};
        case ISO_CODEC_SAWB:
            return {"AMR-WB", "octet-align=1"};
        case ISO_CODEC_S263:
            if (hinter->payload != VideoPayload::kRfc4629) return {"H263", ""};
            return {"H263-2000", "profile=" + std::to_string(media->profile) +
                                     "; level=" + std::to_string(media->level)};
        case ISO_CODEC_AVC1:
            return {"H264",
                    "profile-level-id=" + (dsi.size() >= 4 ? hex(dsi.subspan(1, 3)) : "42000A") +
                        "; packetization-mode=1" + sprop_parameter_sets(media)};
        default:
            break;
    }
    const std::string level = "profile-level-id=" + std::to_string(media->level);
    const std::string config = "; config=" + hex(dsi);
    if (hinter->dts_delta_bits == 0) return {"MP4V-ES", level + config};
    return {"mpeg4-generic", "streamtype=4; " + level + config + "; mode=generic; DTSDeltaLength=" +
                                 std::to_string(hinter->dts_delta_bits)};
}

std::string sdp_of(const iso_track* hint, const iso_track* media) {
    const MediaType type = media_type_of(media, hint->own->hinter);
    const std::string number = std::to_string(hint->last_payload_type);
    std::string text = is_speech(media) ? "m=audio 0 RTP/AVP " : "m=video 0 RTP/AVP ";
    text += number + "\r\na=rtpmap:" + number + ' ' + type.name + '/' +
            std::to_string(hint->rtp_timescale) + "\r\n";
    if (!type.parameters.empty()) text += "a=fmtp:" + number + ' ' + type.parameters + "\r\n";
    return text + "a=control:trackID=" + std::to_string(hint->track_id) + "\r\n";
}

bool keep_sdp(iso_track* hint, const std::string& text) {
    hint->sdp_text = arena_array<char>(hint->file, text.size() + 1);
    if (hint->sdp_text == nullptr) return false;
    std::copy(text.begin(), text.end(), hint->sdp_text);
    return true;
}

// --- times ---

// Converts track units to RTP units, rounded.
int64_t rtp_units(int64_t units, const iso_track* hint) {
    const int64_t scaled = units * hint->rtp_timescale;
    const int64_t half = hint->timescale / 2;
    return (scaled + (scaled < 0 ? -half : half)) / hint->timescale;
}

bool keep_edits(iso_track* hint) {
    const iso_track* media = hint->own->hinter->media;
    if (media->own->edit_count <= 0) return true;
    const auto count = static_cast<size_t>(media->own->edit_count);
    hint->own->edits = arena_array<iso_elst_entry>(hint->file, count);
    if (hint->own->edits == nullptr) return false;
    hint->own->edit_count = media->own->edit_count;
    std::copy_n(media->own->edits, count, hint->own->edits);
    return true;
}

// --- samples ---

bool plan_packets(const iso_track* hint, std::span<const uint8_t> sample, HintPackets& packets) {
    iso_hinter* hinter = hint->own->hinter;
    const iso_track* media = hinter->media;
    const size_t most = hint->rtp_max_packet;
    if (is_speech(media)) {
        return packets_of_speech(sample, media->codec == ISO_CODEC_SAWB, most,
                                 hint->rtp_timescale / kAmrFramesPerSecond, packets);
    }
    if (media->codec == ISO_CODEC_AVC1) {
        return packets_of_units(sample, media->nal_length_size, most, packets);
    }
    return packets_of_picture(sample, hinter->payload, most, hinter->source_format, packets);
}

// --- bit rates ---

uint32_t bits_per_second(uint64_t bytes, uint64_t units, uint32_t timescale) {
    const double rate = 8.0 * static_cast<double>(bytes) * timescale / static_cast<double>(units);
    return static_cast<uint32_t>(std::min(rate, static_cast<double>(UINT32_MAX)));
}

// Makes a record for the next sample available. Records older than a second are used again, so that
// the arena does not grow. Returns false without memory.
bool have_record(iso_track* hint) {
    iso_hinter* hinter = hint->own->hinter;
    while (hinter->first_sent != nullptr &&
           hinter->first_sent->time + hint->timescale <= hinter->media_time) {
        SentSample* old = hinter->first_sent;
        hinter->first_sent = old->next;
        hinter->sent_bytes -= old->bytes;
        old->next = hinter->spare;
        hinter->spare = old;
    }
    if (hinter->spare == nullptr) hinter->spare = arena_array<SentSample>(hint->file, 1);
    return hinter->spare != nullptr;
}

// Adds a sample whose packets have `bytes` bytes to the rates.
void count_rates(iso_track* hint, uint64_t bytes, uint32_t duration) {
    iso_hinter* hinter = hint->own->hinter;
    SentSample* sent = hinter->spare;
    hinter->spare = sent->next;
    *sent = {hinter->media_time, bytes, nullptr};
    (hinter->first_sent == nullptr ? hinter->first_sent : hinter->last_sent->next) = sent;
    hinter->last_sent = sent;
    hinter->sent_bytes += bytes;
    hint->max_bitrate = std::max(hint->max_bitrate, bits_per_second(hinter->sent_bytes, 1, 1));
    const uint64_t lasts = hinter->media_time + duration;
    hint->avg_bitrate = lasts == 0 ? 0 : bits_per_second(hinter->bytes, lasts, hint->timescale);
}

void count_packets(iso_track* hint, const HintPackets& packets) {
    iso_hinter* hinter = hint->own->hinter;
    for (size_t i = 0; i < packets.size(); ++i) {
        const auto size = static_cast<uint32_t>(packets[i].size());
        hint->own->max_pdu = std::max(hint->own->max_pdu, size);
        hinter->bytes += size;
    }
    hinter->packets += packets.size();
    hinter->sequence = static_cast<uint16_t>(hinter->sequence + packets.size());
    hint->own->avg_pdu =
        static_cast<uint32_t>(hinter->bytes / std::max<uint64_t>(hinter->packets, 1));
}

void describe_hint_track(iso_track* hint, iso_track* media, int max_packet, int payload_type) {
    constexpr uint32_t kEnabled = 1;  // not in the movie or its preview
    std::memcpy(hint->handler, "hint", sizeof hint->handler);
    hint->own->header_flags = kEnabled;
    hint->hint_track_ref = media->track_id;
    hint->rtp_hint_version = hint->rtp_highest_compat = 1;
    hint->rtp_max_packet = static_cast<uint32_t>(max_packet);
    hint->rtp_timescale = clock_of(media);
    hint->last_payload_type = static_cast<uint32_t>(payload_type);
    hint->own->language = media->own->language;
}

VideoPayload payload_of(const iso_track* media, iso_h263_payload h263_payload) {
    if (media->codec != ISO_CODEC_S263) return VideoPayload::kPlain;
    return h263_payload == ISO_H263_RFC2190 ? VideoPayload::kRfc2190Macroblocks
                                            : VideoPayload::kRfc4629;
}

}  // namespace

bool describe_au_headers(iso_track* hint, unsigned dts_delta_bits) {
    iso_hinter* hinter = hint->own->hinter;
    hinter->dts_delta_bits = dts_delta_bits;
    return keep_sdp(hint, sdp_of(hint, hinter->media));
}

int make_next_hint(iso_track* hint, std::span<const uint8_t> sample, int32_t cts_offset,
                   HintSample& made) {
    made.packets.clear();
    if (!plan_packets(hint, sample, made.packets)) return kCannotBeCut;
    return make_hint_of_packets(hint, cts_offset, made);
}

int make_hint_of_packets(iso_track* hint, int32_t cts_offset, HintSample& made) {
    const iso_hinter* hinter = hint->own->hinter;
    // A hint sample without packets would stop the clock; an empty media sample gets one empty
    // packet.
    if (made.packets.empty()) made.packets.begin_packet();
    // Both times are rounded, like the decode times, so that their sum is the rounded time.
    const auto begin = static_cast<int64_t>(hinter->media_time);
    const int64_t composition = rtp_units(begin + cts_offset, hint) - rtp_units(begin, hint);
    if (!made.packets.move_times(composition)) return kTooLong;
    const HintSampleFacts facts = {static_cast<uint8_t>(hint->last_payload_type), hinter->sequence,
                                   hinter->samples + 1};
    const bool fits = make_hint_sample(made.packets, facts, made.bytes);
    if (!fits || made.bytes.size() > INT32_MAX) return kCannotBeCut;
    return have_record(hint) ? 0 : kNoMemory;
}

void count_hint(iso_track* hint, const HintSample& made, uint32_t duration, uint32_t samples) {
    iso_hinter* hinter = hint->own->hinter;
    const uint64_t bytes_before = hinter->bytes;
    count_packets(hint, made.packets);
    count_rates(hint, hinter->bytes - bytes_before, duration);
    hinter->samples += samples;
    hinter->media_time += duration;
}

}  // namespace kestrel

using namespace kestrel;

iso_track* rtp_isoFFtrack(iso_file* file, iso_track* media, int max_packet, int payload_type,
                          iso_h263_payload h263_payload) try {
    constexpr uint32_t kEntryBytes = 84;  // rtp (24), tims (12), hmhd (28), tref (20)
    if (file == nullptr || media == nullptr || media->file != file || !can_be_hinted(media) ||
        max_packet < kLeastPacket || max_packet > kMaxPacket || payload_type < 0 ||
        payload_type > kLastPayloadType) {
        return nullptr;
    }
    auto* hinter = arena_array<iso_hinter>(file, 1);
    if (hinter == nullptr) return nullptr;
    TrackAttempt attempt(file);
    iso_track* hint = new_media_track(file, ISO_CODEC_RTP, media->timescale, kEntryBytes);
    if (hint == nullptr) return nullptr;
    hinter->media = media;
    hinter->payload = payload_of(media, h263_payload);
    hint->own->hinter = hinter;
    describe_hint_track(hint, media, max_packet, payload_type);
    if (!keep_edits(hint) || !keep_sdp(hint, sdp_of(hint, media))) return nullptr;
    return attempt.keep(hint);
} catch (const std::bad_alloc&) {
    return nullptr;
}

int isoFFwriteHint(iso_track* hint, const void* sample, int size, int duration,
                   int cts_offset) try {
    if (hint == nullptr || hint->own->hinter == nullptr || size < 0 || duration < 0 ||
        (sample == nullptr && size > 0)) {
        return -1;
    }
    const int refused = check_open(hint);
    if (refused != 0) return refused;
    HintSample made;
    const int failed = make_next_hint(
        hint, {static_cast<const uint8_t*>(sample), static_cast<size_t>(size)}, cts_offset, made);
    if (failed != 0) return failed;
    const auto units = static_cast<uint32_t>(duration);
    const int written = write_sample(hint, made.bytes, units, 0);
    if (written >= 0) count_hint(hint, made, units);
    return written;
} catch (const std::exception&) {  // no memory, or more than a vector can hold
    return kNoMemory;
}
