// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>

#include "common/ratio.h"
#include "interface/src/isoff/read/rtp_packets.h"
#include "interface/src/mmfi/delivery.h"
#include "interface/src/mmfi/frame_store.h"
#include "interface/src/mmfi/mmfiInterface.h"
#include "interface/src/mmfi/video_frames.h"
#include "kestrel/native_records.h"
#include "native/codec/payload_types.h"
#include "native/header_records.h"

// The video readers. They deliver the property record; then the other header records with the first
// frame record; then in turn the packets of a frame and the next frame record. Frames come from the
// RTP hint track where a usable one exists, else from the samples.

namespace kestrel {
namespace {

enum ReaderState : uint32_t {
    kPropertyRecord = 0,
    kHeaderRecords = 1,  // and the first frame record
    kFramePackets = 2,
    kFrameRecord = 3,
    kEnded = 4,
};

// What differs between the codecs.
struct Codec {
    const VideoFormat& format;
    VideoPacketisation packets;
    int (*put_prop)(void*, uint32_t);
    int (*put_codec)(void*, const iso_track*, uint32_t);
    int (*put_config)(void*, iso_track*);
};

constexpr Codec kH263{kH263Format,
                      {kNativeH263PayloadType, NATIVE_MODE_RFC2429},
                      tel_put_hdr_vid_prop263,
                      tel_put_hdr_vid_codec263,
                      [](void* out, iso_track* t) { return tel_put_hdr_vid_codecCfg263(out, t); }};
constexpr Codec kMpeg4{kMpeg4Format,
                       {kNativeMpeg4PayloadType, NATIVE_MODE_PLAIN},
                       tel_put_hdr_vid_prop,
                       tel_put_hdr_vid_codec,
                       [](void* out, iso_track* t) { return tel_put_hdr_vid_codecCfg(out, t); }};
constexpr Codec kH264{kH264Format,
                      {kNativeH264PayloadType, NATIVE_MODE_PLAIN},
                      tel_put_hdr_vid_prop264,
                      tel_put_hdr_vid_codec264,
                      tel_put_hdr_vid_codecCfg264};

// Frames per second and bits per second of a track, 0 for one without duration.
struct Rates {
    uint32_t frames = 0;
    uint32_t bits = 0;
};

Rates rates_of(const iso_track* track) {
    constexpr uint64_t kBitsPerByte = 8;
    const auto samples = static_cast<uint32_t>(track->sample_count);
    return {scaled(samples, track->timescale, track->duration),
            scaled(kBitsPerByte * track->total_bytes, track->timescale, track->duration)};
}

double duration_of(iso_track* track) {
    double duration = 0.0;
    isoFFtrackInfo(track, nullptr, nullptr, &duration, nullptr);
    return duration;
}

// --- the reader ---

class VideoReader {
  public:
    VideoReader(mm_Interface* record, const Codec& codec, Delivery delivery)
        : record_(record),
          codec_(codec),
          hint_(attached_hint_track(record->track)),
          delivery_(delivery) {}

    int32_t read();

  private:
    int32_t put_property_record();
    int32_t put_header_records();
    int32_t put_frame_packets();
    int32_t put_frame_record();

    uint32_t header_records_size() const;
    void append_header_records();
    Gathered gather(bool first);
    int32_t keep_and_reposition(const Gathered& gathered, uint32_t frame_record_at);
    int32_t deliver_nothing(int32_t status, ReaderState state);

    mm_Interface* record_;
    const Codec& codec_;
    iso_track* hint_;  // null on the sample path
    Delivery delivery_;
};

Gathered VideoReader::gather(bool first) {
    return gather_frame(record_, codec_.packets, hint_, first);
}

// Keeps the state, also after KST_FAILURE: the next call reads the same frame again and does not
// deliver packets that were never staged. The end is final, whatever room a later call has.
int32_t VideoReader::deliver_nothing(int32_t status, ReaderState state) {
    record_->reader_state = status == KST_END_OF_FILE ? kEnded : state;
    return delivery_.deliver(0, status);
}

int32_t VideoReader::put_property_record() {
    if (!delivery_.holds(sizeof(PROP_Header_Info)))
        return delivery_.ask_for(sizeof(PROP_Header_Info));
    record_->reader_state = kHeaderRecords;
    return delivery_.deliver(
        static_cast<uint32_t>(codec_.put_prop(delivery_.bytes(), rates_of(record_->track).frames)));
}

// All header records after the property record.
uint32_t VideoReader::header_records_size() const {
    return video_header_length(codec_.format) - static_cast<uint32_t>(sizeof(PROP_Header_Info));
}

void VideoReader::append_header_records() {
    unsigned char* to = delivery_.bytes();
    std::memset(to, 0, header_records_size());  // the H.264 record does not set all of its bytes
    to += tel_put_hdr_vid_nts(to);
    to += tel_put_hdr_vid_index(to);
    to += codec_.put_codec(to, record_->track, rates_of(record_->track).bits);
    to += codec_.put_config(to, record_->track);
    tel_put_hdr_vid_fileInfo(to, duration_of(record_->track));
}

// Writes the record of the gathered frame after `frame_record_at` bytes, keeps it, and announces
// the next data.
int32_t VideoReader::keep_and_reposition(const Gathered& gathered, uint32_t frame_record_at) {
    record_->kept_frame = frame_record(Staging(record_).count(), gathered.packets);
    put_record(delivery_.bytes() + frame_record_at, record_->kept_frame);
    record_->reader_state = kFramePackets;
    iso_track* track = hint_ != nullptr ? hint_ : record_->track;
    return delivery_.deliver(frame_record_at + static_cast<uint32_t>(sizeof(VID_Frame_Record)),
                             mmfi_seek(track, track->cur_offset));
}

int32_t VideoReader::put_header_records() {
    const uint32_t headers = header_records_size();
    const auto needed = headers + static_cast<uint32_t>(sizeof(VID_Frame_Record));
    if (!delivery_.holds(needed)) return delivery_.ask_for(needed);
    // The first frame is gathered first, because these records depend on it: an H.263 stream is
    // named after its packets, and an MPEG-4 sample may replace the configuration.
    if (hint_ == nullptr) append_header_records();
    const Gathered gathered = gather(true);
    if (gathered.status != KST_SUCCESS) {
        // KST_NOT_YET is reported as KST_FAILURE here, but nothing is consumed: the next call
        // starts anew.
        const bool end = gathered.status == KST_END_OF_FILE;
        return deliver_nothing(end ? KST_END_OF_FILE : KST_FAILURE, kHeaderRecords);
    }
    if (hint_ != nullptr) append_header_records();
    return keep_and_reposition(gathered, headers);
}

int32_t VideoReader::put_frame_packets() {
    const Staging staging(record_);
    const uint32_t staged = staging.count();
    const uint32_t padding = record_->kept_frame.padding;
    const auto words = static_cast<uint32_t>(sizeof(VID_Frame_Words));
    const uint32_t needed = words + staged + padding;
    if (!delivery_.holds(needed)) return delivery_.ask_for(needed);
    record_->reader_state = kFrameRecord;
    unsigned char* to = delivery_.bytes();
    put_record(to, kFrameWords);
    std::memcpy(to + words, staging.bytes(), staged);
    std::memset(to + words + staged, 0, padding);
    return delivery_.deliver(needed);
}

int32_t VideoReader::put_frame_record() {
    if (!delivery_.holds(sizeof(VID_Frame_Record)))
        return delivery_.ask_for(sizeof(VID_Frame_Record));
    if (hint_ != nullptr) record_->kept_frame = VID_Frame_Record{};
    const Gathered gathered = gather(false);
    if (gathered.status == KST_SUCCESS) return keep_and_reposition(gathered, 0);
    if (gathered.status == KST_NOT_YET) put_record(delivery_.bytes(), record_->kept_frame);
    if (gathered.status == KST_FAILURE) record_->status = KST_FAILURE;
    return deliver_nothing(gathered.status, kFrameRecord);
}

int32_t VideoReader::read() {
    switch (record_->reader_state) {
        case kPropertyRecord:
            return put_property_record();
        case kHeaderRecords:
            return put_header_records();
        case kFramePackets:
            return put_frame_packets();
        case kFrameRecord:
            return put_frame_record();
        case kEnded:
            return delivery_.deliver(0, KST_END_OF_FILE);
        default:
            return delivery_.deliver(0);
    }
}

int32_t read_video(mm_Interface* record, const Codec& codec, unsigned char* buffer, uint32_t* size,
                   bool arriving) {
    begin_read(record, arriving);
    return VideoReader(record, codec, {buffer, size}).read();
}

}  // namespace

int32_t mmfi_Read_H263(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving) {
    return read_video(record, kH263, buffer, size, arriving);
}

int32_t mmfi_Read_MPEG4(mm_Interface* record, unsigned char* buffer, uint32_t* size,
                        bool arriving) {
    return read_video(record, kMpeg4, buffer, size, arriving);
}

int32_t mmfi_Read_H264(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving) {
    return read_video(record, kH264, buffer, size, arriving);
}

}  // namespace kestrel
