#include <algorithm>
#include <cstring>

#include "common/ratio.h"
#include "interface/src/isoff/read/decoder_configuration.h"
#include "interface/src/isoff/read/rtp_packets.h"
#include "interface/src/mmfi/mmfiInterface.h"
#include "kestrel/codec.h"
#include "kestrel/native_records.h"
#include "kestrel/status.h"
#include "native/codec/payload_types.h"
#include "native/codec/rtp_hint_sample.h"
#include "native/header_records.h"
#include "native/orb_native.h"

// The video readers: the property record, then all other header records with the first frame
// record, then each frame's packets and the next frame record in turn. Frames come from the RTP
// hint track where there is a usable one, else from the samples.

namespace kestrel {
namespace {

enum ReaderState : uint32_t {
    kPropertyRecord = 0,
    kHeaderRecords = 1,  // and the first frame record
    kFramePackets = 2,
    kFrameRecord = 3,
};

constexpr int kEnd = 0;      // of a hint track
constexpr int kNotYet = -2;  // a read that cannot be served now
constexpr int kMarkerByte = 1;
constexpr uint8_t kMarkerBit = 0x80;
constexpr uint8_t kVisualObjectSequence = 0xB0;
constexpr uint8_t kVop = 0xB6;
// What the H.264 packetiser may write beyond the room it is told: four bytes for each fragment, and
// a unit that is just longer than a packet makes two.
constexpr uint32_t kFragmentCredit = 2 * 4 * (kBufferSize / kMostPacketBytes + 1);

// What tells the codecs apart.
struct Codec {
    const VideoFormat& format;
    int payload_type;  // in the packet headers
    int mode;          // of the packetiser
    int (*put_prop)(void*, uint32_t);
    int (*put_codec)(void*, const iso_track*, uint32_t);
    int (*put_config)(void*, iso_track*);
};

constexpr Codec kH263{kH263Format,
                      kNativeH263PayloadType,
                      NATIVE_MODE_RFC2429,
                      tel_put_hdr_vid_prop263,
                      tel_put_hdr_vid_codec263,
                      [](void* out, iso_track* t) { return tel_put_hdr_vid_codecCfg263(out, t); }};
constexpr Codec kMpeg4{kMpeg4Format,
                       kNativeMpeg4PayloadType,
                       NATIVE_MODE_PLAIN,
                       tel_put_hdr_vid_prop,
                       tel_put_hdr_vid_codec,
                       [](void* out, iso_track* t) { return tel_put_hdr_vid_codecCfg(out, t); }};
constexpr Codec kH264{kH264Format,
                      kNativeH264PayloadType,
                      NATIVE_MODE_PLAIN,
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

// Appends bytes to the staged packets; false when a frame outgrows the staging buffer.
bool stage(mm_Interface* record, const void* bytes, uint32_t count) {
    if (count > kBufferSize - record->staged_count) return false;
    std::memcpy(record->staging + record->staged_count, bytes, count);
    record->staged_count = static_cast<uint16_t>(record->staged_count + count);
    return true;
}

// Where a track stands, so that a frame which could not be had whole can be asked for again.
class SavedTrack {
  public:
    explicit SavedTrack(iso_track* track) : track_(track), saved_(*track) {
        positioned_ = track->own->positioned;
        next_alike_ = track->own->next_alike;
        if (track->hint != nullptr) hint_ = *track->hint;
    }
    void restore() const {
        iso_track back = saved_;
        // Memory that a configuration was given stays the track's.
        back.dsi = track_->dsi;
        back.dsi_length = track_->dsi_length;
        *track_ = back;
        track_->own->positioned = positioned_;
        track_->own->next_alike = next_alike_;
        if (track_->hint != nullptr) *track_->hint = hint_;
    }

  private:
    iso_track* track_;
    iso_track saved_;
    uint32_t positioned_, next_alike_;
    rtp_hint_state hint_{};
};

// --- gathering one frame into the staging buffer; each returns a status ---

// How the two paths get frames. gather() stages one frame and tells its packets; nothing is
// consumed unless it returns KST_SUCCESS.
struct Gathered {
    int32_t status = KST_SUCCESS;
    bool not_yet = false;
    uint32_t packets = 0;
};

Gathered failed() {
    return {KST_FAILURE, false, 0};
}
Gathered not_yet() {
    return {KST_NOT_YET, true, 0};
}
Gathered ended() {
    return {KST_END_OF_FILE, false, 0};
}

bool stage_rtp_packet(mm_Interface* record, const Codec& codec, uint32_t length) {
    uint8_t header[tel_header_size];
    uint8_t* packet = record->sample_buffer();
    rtp2orb(packet, length, codec.payload_type, 0);
    tel_put_header_orb2tel(packet, header, codec.payload_type);
    return stage(record, header, sizeof header) &&
           stage(record, packet + kRtpHeaderSize, length - kRtpHeaderSize);
}

// The parameter sets that go ahead of an H.264 stream.
bool stage_parameter_sets(mm_Interface* record, iso_track* hint, uint32_t& packets) {
    const iso_track* media = record->track;
    const uint32_t sets = media->sps_count + media->pps_count;
    if (media->param_sets_length + uint64_t{sets} * tel_header_size > kBufferSize) return false;
    int length = 0;
    isoFFgetAvccDsi(hint, record->track, kNativeH264PayloadType, record->staging, &length);
    record->staged_count = static_cast<uint16_t>(length);
    packets = sets;
    return true;
}

Gathered gather_packets(mm_Interface* record, const Codec& codec, iso_track* hint, bool first) {
    Gathered gathered;
    record->staged_count = 0;
    const bool with_sets = first && record->track->codec == ISO_CODEC_AVC1;
    if (with_sets && !stage_parameter_sets(record, hint, gathered.packets)) return failed();
    for (bool marker = false; !marker;) {
        const int length = isoFFrtpPacket(hint, record->sample_buffer());
        if (length == kEnd) return ended();
        if (length == kNotYet) return not_yet();
        if (length < static_cast<int>(kRtpHeaderSize)) return failed();
        marker = (record->sample_buffer()[kMarkerByte] & kMarkerBit) != 0;
        if (!stage_rtp_packet(record, codec, static_cast<uint32_t>(length))) return failed();
        gathered.packets++;
    }
    record->track->last_payload_type = hint->last_payload_type;
    return gathered;
}

// The configuration headers of an intra MPEG-4 picture are kept; one that has none is given those
// that were kept, ahead of it. Returns the sample's length; -1 when it outgrows its buffer.
int attach_mpeg4_config(mm_Interface* record, int length) {
    uint8_t* sample = record->sample_buffer();
    iso_track* track = record->track;
    if (!CheckForIFrame(sample, length)) return length;
    const int begin = FindStartCode(sample, length, kVisualObjectSequence);
    const int config = begin < 0 ? 0 : FindStartCode(sample + begin, length - begin, kVop);
    if (config >= 1) {
        return keep_dsi(track, {sample + begin, static_cast<size_t>(config)}) ? length : -1;
    }
    if (track->dsi == nullptr || track->dsi_length == 0) return length;
    if (track->dsi_length > kBufferSize - static_cast<uint32_t>(length)) return -1;
    std::memmove(sample + track->dsi_length, sample, static_cast<size_t>(length));
    std::memcpy(sample, track->dsi, track->dsi_length);
    return length + static_cast<int>(track->dsi_length);
}

Gathered gather_sample(mm_Interface* record, const Codec& codec, bool first) {
    if (first) {
        tel_native_init(&record->native, codec.payload_type, kMostPacketBytes, codec.mode,
                        record->track, 0);
    }
    record->staged_count = 0;
    iso_track* track = record->track;
    if (track->cur_sample >= track->sample_count) return ended();
    double duration = 0.0;
    int length = isoFFread(track, record->sample_buffer(), static_cast<int>(kBufferSize), &duration,
                           nullptr);
    if (length == kNotYet) return not_yet();
    if (length >= 0 && track->codec == ISO_CODEC_MP4V) length = attach_mpeg4_config(record, length);
    if (length < 0) return failed();
    const uint32_t count_before = record->native.count;
    const uint32_t room =
        track->codec == ISO_CODEC_AVC1 ? kBufferSize - kFragmentCredit : kBufferSize;
    const int staged =
        tel_native_packet(record->staging, static_cast<int>(room), record->sample_buffer(), length,
                          duration, &record->native);
    if (staged < 0) return failed();
    record->staged_count = static_cast<uint16_t>(staged);
    return {KST_SUCCESS, false, record->native.count - count_before};
}

// --- the reader ---

class VideoReader {
  public:
    VideoReader(mm_Interface* record, const Codec& codec, unsigned char* buffer, uint32_t* size)
        : record_(record),
          codec_(codec),
          hint_(attached_hint_track(record->track, kMostPacketBytes)),
          buffer_(buffer),
          size_(size) {}

    int32_t read();

  private:
    int32_t put_property_record();
    int32_t put_header_records();
    int32_t put_frame_packets();
    int32_t put_frame_record();

    uint32_t header_records_size() const;
    int append_header_records();
    Gathered gather(bool first);
    int32_t keep_and_reposition(const Gathered& gathered, uint32_t frame_record_at);
    int32_t deliver_nothing(int32_t status, ReaderState state);

    mm_Interface* record_;
    const Codec& codec_;
    iso_track* hint_;  // null on the sample path
    unsigned char* buffer_;
    uint32_t* size_;
};

// A frame is gathered whole or not at all: otherwise tracks and packetiser are put back.
Gathered VideoReader::gather(bool first) {
    const SavedTrack media(record_->track);
    const SavedTrack source(hint_ != nullptr ? hint_ : record_->track);
    const tel_native native = record_->native;
    const Gathered gathered = hint_ != nullptr ? gather_packets(record_, codec_, hint_, first)
                                               : gather_sample(record_, codec_, first);
    if (gathered.status == KST_SUCCESS) return gathered;
    media.restore();
    source.restore();
    record_->native = native;
    record_->staged_count = 0;
    return gathered;
}

int32_t VideoReader::deliver_nothing(int32_t status, ReaderState state) {
    record_->reader_state = state;
    *size_ = 0;
    return status;
}

int32_t VideoReader::put_property_record() {
    if (!has_room(size_, sizeof(PROP_Header_Info))) return KST_BAD_ARGUMENT;
    record_->reader_state = kHeaderRecords;
    *size_ = static_cast<uint32_t>(codec_.put_prop(buffer_, rates_of(record_->track).frames));
    return KST_SUCCESS;
}

// All header records behind the property record.
uint32_t VideoReader::header_records_size() const {
    return video_header_length(codec_.format) - static_cast<uint32_t>(sizeof(PROP_Header_Info));
}

int VideoReader::append_header_records() {
    std::memset(buffer_, 0, header_records_size());  // the H.264 record leaves some bytes alone
    unsigned char* to = buffer_;
    to += tel_put_hdr_vid_nts(to);
    to += tel_put_hdr_vid_index(to);
    to += codec_.put_codec(to, record_->track, rates_of(record_->track).bits);
    to += codec_.put_config(to, record_->track);
    to += tel_put_hdr_vid_fileInfo(to, duration_of(record_->track));
    return static_cast<int>(to - buffer_);
}

// Writes the record of the gathered frame behind `frame_record_at` bytes, keeps it, and tells the
// host where the next data lies.
int32_t VideoReader::keep_and_reposition(const Gathered& gathered, uint32_t frame_record_at) {
    record_->kept_frame = frame_record(record_->staged_count, gathered.packets);
    put_record(buffer_ + frame_record_at, record_->kept_frame);
    *size_ = frame_record_at + static_cast<uint32_t>(sizeof(VID_Frame_Record));
    record_->reader_state = kFramePackets;
    iso_track* track = hint_ != nullptr ? hint_ : record_->track;
    return mmfi_seek(track, track->cur_offset);
}

int32_t VideoReader::put_header_records() {
    const uint32_t headers = header_records_size();
    if (!has_room(size_, headers + sizeof(VID_Frame_Record))) return KST_BAD_ARGUMENT;
    // An H.263 stream's name depends on its packets; an MPEG-4 sample may replace the configuration
    // that belongs into these records.
    if (hint_ == nullptr) append_header_records();
    const Gathered gathered = gather(true);
    if (gathered.status != KST_SUCCESS) {
        // Not-yet is told as a failure here, but nothing is lost: the next call begins anew.
        const bool end = gathered.status == KST_END_OF_FILE;
        return deliver_nothing(end ? KST_END_OF_FILE : KST_FAILURE, kHeaderRecords);
    }
    if (hint_ != nullptr) append_header_records();
    return keep_and_reposition(gathered, headers);
}

int32_t VideoReader::put_frame_packets() {
    const uint32_t staged = record_->staged_count;
    const uint32_t padding = record_->kept_frame.padding;
    const auto words = static_cast<uint32_t>(sizeof(VID_Frame_Words));
    if (!has_room(size_, words + staged + padding)) return KST_BAD_ARGUMENT;
    record_->reader_state = kFrameRecord;
    put_record(buffer_, VID_Frame_Words{});
    std::memcpy(buffer_ + words, record_->staging, staged);
    std::memset(buffer_ + words + staged, 0, padding);
    *size_ = words + staged + padding;
    return KST_SUCCESS;
}

int32_t VideoReader::put_frame_record() {
    if (!has_room(size_, sizeof(VID_Frame_Record))) return KST_BAD_ARGUMENT;
    if (hint_ != nullptr) record_->kept_frame = VID_Frame_Record{};
    const Gathered gathered = gather(false);
    if (gathered.status == KST_SUCCESS) return keep_and_reposition(gathered, 0);
    if (gathered.not_yet) put_record(buffer_, record_->kept_frame);
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
        default:
            *size_ = 0;
            return KST_SUCCESS;
    }
}

int32_t read_video(mm_Interface* record, const Codec& codec, unsigned char* buffer, uint32_t* size,
                   bool flag) {
    begin_read(record, flag);
    return VideoReader(record, codec, buffer, size).read();
}

}  // namespace

int32_t mmfi_Read_H263(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool flag) {
    return read_video(record, kH263, buffer, size, flag);
}

int32_t mmfi_Read_MPEG4(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool flag) {
    return read_video(record, kMpeg4, buffer, size, flag);
}

int32_t mmfi_Read_H264(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool flag) {
    return read_video(record, kH264, buffer, size, flag);
}

}  // namespace kestrel
