// SPDX-License-Identifier: Apache-2.0
#include "interface/src/mmfi/video_frames.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "interface/src/isoff/read/decoder_configuration.h"
#include "interface/src/isoff/read/rtp_packets.h"
#include "interface/src/isoff/read/track_state.h"
#include "interface/src/isoff/record/private.h"
#include "interface/src/mmfi/frame_store.h"
#include "interface/src/mmfi/mmfiInterface.h"
#include "kestrel/codec.h"
#include "kestrel/status.h"
#include "native/codec/mpeg4_visual.h"
#include "native/codec/rtp_hint_sample.h"

namespace kestrel {

// A frame from a hint track, whose packets are being staged. A call that cannot read on keeps it,
// and the next call continues where it stopped, so that no packet is read repeatedly.
struct HintedFrame {
    std::optional<TrackState> media, hint;  // at its beginning
    bool waits = false;                     // for the rest to be read
    uint64_t steps_before = 0;
    uint32_t packets = 0;  // staged ones
    PacketPause pause{};   // in the packet after them
};
static_assert(std::is_trivially_destructible_v<HintedFrame>, "the arena destroys no objects");

namespace {

// Results of the ISO reader.
constexpr int kEndOfTrack = 0;  // of a hint track
constexpr int kNotYet = -2;     // the data has not arrived

constexpr int kNoRoom = -1;  // of a packetiser

// Limit of the packets, constructors and empty hint samples of a frame, besides one for each of its
// bytes. More are treated as damage, so that a call ends.
constexpr uint64_t kMaxFrameSteps = 1 << 20;

constexpr Gathered kFailed{KST_FAILURE, 0};
constexpr Gathered kMissing{KST_NOT_YET, 0};

// --- packets of the hint track ---

bool stage_rtp_packet(Staging& staging, uint8_t* packet, uint32_t length, int payload_type) {
    uint8_t header[tel_header_size];
    rtp2orb(packet, length, payload_type, 0);
    tel_put_header_orb2tel(packet, header, payload_type);
    return staging.append(header, sizeof header) &&
           staging.append(packet + kRtpHeaderSize, length - kRtpHeaderSize);
}

// Stages the parameter sets that an H.264 stream begins with.
bool stage_parameter_sets(mm_Interface* record, iso_track* hint, int payload_type,
                          uint32_t& packets) {
    const iso_track* media = record->track;
    packets = media->sps_count + media->pps_count;
    const uint64_t size = media->param_sets_length + uint64_t{packets} * tel_header_size;
    if (size > kMaxFrameBytes) return false;
    Staging staging(record);
    uint8_t* room = staging.room(static_cast<uint32_t>(size));
    if (room == nullptr) return false;
    int length = 0;
    isoFFgetAvccDsi(hint, record->track, payload_type, room, &length);
    staging.replace(room, static_cast<uint32_t>(length));
    return true;
}

// Returns null without memory.
HintedFrame* hinted_frame(iso_file* file) {
    HintedFrame*& frame = file->own->hinted_frame;
    if (frame == nullptr) {
        void* memory = isoFFmalloc(file, sizeof(HintedFrame));
        if (memory != nullptr) frame = new (memory) HintedFrame;
    }
    return frame;
}

bool begin_frame(mm_Interface* record, int payload_type, iso_track* hint, bool first,
                 HintedFrame& frame) {
    frame = {TrackState(record->track), TrackState(hint), false, hint->own->hint_steps};
    Staging(record).clear();
    const bool with_sets = first && record->track->codec == ISO_CODEC_AVC1;
    return !with_sets || stage_parameter_sets(record, hint, payload_type, frame.packets);
}

// Stages the packets that the frame lacks. Returns a status of Gathered.
int32_t stage_packets(mm_Interface* record, int payload_type, iso_track* hint, HintedFrame& frame) {
    Staging staging(record);
    uint8_t* packet = record->sample_buffer();
    for (bool marker = false; !marker; ++frame.packets) {
        const int length = next_rtp_packet(hint, packet, frame.pause);
        if (length == kEndOfTrack) return KST_END_OF_FILE;
        if (length < 0) {
            frame.waits = true;
            return length == kNotYet ? KST_NOT_YET : KST_FAILURE;
        }
        if (length < static_cast<int>(kRtpHeaderSize)) return KST_FAILURE;
        marker = load_rtp_header(packet).marker;
        if (!stage_rtp_packet(staging, packet, static_cast<uint32_t>(length), payload_type)) {
            return KST_FAILURE;
        }
        const uint64_t steps = hint->own->hint_steps - frame.steps_before;
        if (steps > kMaxFrameSteps + staging.count()) return KST_FAILURE;
    }
    return KST_SUCCESS;
}

// Returns to the beginning of the frame. Keeps the steps of a call that failed: the next call fails
// at the same place.
void drop_frame(mm_Interface* record, iso_track* hint, const HintedFrame& frame, int32_t status) {
    const iso_hint_work spent = hint->own->hint_work;
    frame.media->restore();
    frame.hint->restore();
    if (status == KST_FAILURE) hint->own->hint_work = spent;
    Staging(record).clear();
}

Gathered gather_packets(mm_Interface* record, int payload_type, iso_track* hint, bool first) {
    HintedFrame* frame = hinted_frame(record->file);
    if (frame == nullptr) return kFailed;
    int32_t status = KST_SUCCESS;
    const bool goes_on = std::exchange(frame->waits, false);
    if (!goes_on && !begin_frame(record, payload_type, hint, first, *frame)) status = KST_FAILURE;
    if (status == KST_SUCCESS) status = stage_packets(record, payload_type, hint, *frame);
    if (status == KST_SUCCESS) {
        record->track->last_payload_type = hint->last_payload_type;
    } else if (!frame->waits) {
        drop_frame(record, hint, *frame, status);
    }
    return {status, frame->packets};
}

// --- packets cut from a sample ---

struct Sample {
    uint8_t* bytes;
    int length;
    double duration;
};

// Reads the sample at the cursor, and leaves space for a configuration before it.
int32_t read_sample(mm_Interface* record, Sample& sample) {
    iso_track* track = record->track;
    if (track->cur_sample >= track->sample_count) return KST_END_OF_FILE;
    const uint32_t size = sample_size_of(track, track->cur_sample);
    const uint32_t config = track->codec == ISO_CODEC_MP4V ? track->dsi_length : 0;
    if (size > kMaxFrameBytes || config > kMaxFrameBytes - size) return KST_FAILURE;
    if (!may_allocate(track, size)) return KST_NOT_YET;
    sample.bytes = sample_room(record, size + config);
    if (sample.bytes == nullptr) return KST_FAILURE;
    sample.length =
        isoFFread(track, sample.bytes, static_cast<int>(size), &sample.duration, nullptr);
    if (sample.length == kNotYet) return KST_NOT_YET;
    return sample.length < 0 ? int32_t{KST_FAILURE} : int32_t{KST_SUCCESS};
}

// Keeps the configuration headers of an intra MPEG-4 picture, or puts the kept ones before a
// picture without. Returns false without memory.
bool attach_mpeg4_config(iso_track* track, Sample& sample) {
    if (!CheckForIFrame(sample.bytes, sample.length)) return true;
    const int begin = FindStartCode(sample.bytes, sample.length, kVisualObjectSequence);
    const int config =
        begin < 0 ? 0 : FindStartCode(sample.bytes + begin, sample.length - begin, kVop);
    if (config >= 1) {
        return keep_dsi(track, {sample.bytes + begin, static_cast<size_t>(config)});
    }
    if (track->dsi == nullptr || track->dsi_length == 0) return true;
    std::memmove(sample.bytes + track->dsi_length, sample.bytes,
                 static_cast<size_t>(sample.length));
    std::memcpy(sample.bytes, track->dsi, track->dsi_length);
    sample.length += static_cast<int>(track->dsi_length);
    return true;
}

// Bytes that the H.264 packetiser may write after the end of its output: four for each fragment; a
// unit slightly longer than a packet makes two fragments.
uint32_t overrun(const iso_track* track, uint32_t capacity) {
    return track->codec == ISO_CODEC_AVC1 ? 2 * 4 * (capacity / kMaxPacketBytes + 1) : 0;
}

// Packetises the sample into the staging buffer, or into a larger one if it does not fit.
Gathered packetise(mm_Interface* record, const Sample& sample) {
    Staging staging(record);
    const tel_native before = record->native;
    uint32_t capacity = kBufferSize;
    for (;; capacity = std::min(2 * capacity, kMaxFrameBytes)) {
        if (capacity < static_cast<uint32_t>(sample.length)) continue;
        uint8_t* room = staging.room(capacity);
        if (room == nullptr) return kFailed;
        const int staged =
            tel_native_packet(room, static_cast<int>(capacity - overrun(record->track, capacity)),
                              sample.bytes, sample.length, sample.duration, &record->native);
        if (staged >= 0) {
            staging.replace(room, static_cast<uint32_t>(staged));
            return {KST_SUCCESS, record->native.count - before.count};
        }
        if (staged != kNoRoom || capacity == kMaxFrameBytes) return kFailed;
        record->native = before;
    }
}

Gathered stage_sample(mm_Interface* record, const VideoPacketisation& how, bool first) {
    iso_track* track = record->track;
    if (first) {
        tel_native_init(&record->native, how.payload_type, kMaxPacketBytes, how.mode, track, 0);
    }
    Sample sample{};
    const int32_t status = read_sample(record, sample);
    if (status != KST_SUCCESS) return {status, 0};
    if (track->codec == ISO_CODEC_MP4V && !attach_mpeg4_config(track, sample)) return kFailed;
    return packetise(record, sample);
}

Gathered gather_sample(mm_Interface* record, const VideoPacketisation& how, bool first) {
    const TrackState before(record->track);
    const tel_native native = record->native;
    const Gathered gathered = stage_sample(record, how, first);
    if (gathered.status == KST_SUCCESS) return gathered;
    before.restore();
    record->native = native;
    Staging(record).clear();
    return gathered;
}

}  // namespace

Gathered gather_frame(mm_Interface* record, const VideoPacketisation& how, iso_track* hint,
                      bool first) {
    // Looks for the piece that was missing in the last call first. A packet that needs bytes after
    // the end of the file fails; a sample is waited for. In a call for a complete file a packet
    // reads on at once, and fails where a read fails.
    const bool looks = hint == nullptr || record->file->indexed_read;
    const Missing piece = looks ? look_for_missing(record->file) : Missing::kArrived;
    const bool fails = piece == Missing::kAfterEnd && hint != nullptr;
    if (piece != Missing::kArrived && !fails) return kMissing;
    uint64_t& missing = record->file->own->missing;
    missing = 0;
    const Gathered gathered = hint != nullptr
                                  ? gather_packets(record, how.payload_type, hint, first)
                                  : gather_sample(record, how, first);
    if (gathered.status != KST_NOT_YET) missing = 0;
    return gathered;
}

}  // namespace kestrel
