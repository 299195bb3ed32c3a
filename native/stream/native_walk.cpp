// SPDX-License-Identifier: Apache-2.0
#include "native/stream/native_walk.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string_view>

#include "common/byte_reader.h"
#include "common/frame_limit.h"
#include "kestrel/native_records.h"
#include "native/codec/amr_format.h"

namespace kestrel::stream {

namespace {

constexpr uint32_t kFirstCoding = std::begin(kNarrowBandModes)->native_coding;
constexpr uint32_t kLastCoding = std::rbegin(kNarrowBandModes)->native_coding;
constexpr uint32_t kZeroWord = 4;
constexpr uint32_t kModeByte = 1;
constexpr uint32_t kFrameHeader = sizeof(AUD_AudFrame_Native) + kZeroWord;
constexpr uint32_t kSmallestFrame = kFrameHeader + kModeByte + 1;

// The first word of speech and video frames is their length.
static_assert(offsetof(AUD_AudFrame_Native, frame_length) == 0);
static_assert(offsetof(VID_Frame_Record, total_length) == 0);
constexpr size_t kLengthField = sizeof(uint32_t);

uint32_t load_word(std::span<const uint8_t> bytes) {
    uint32_t value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// Types of boxes that 3GP files begin with.
bool is_box_type(const char* type) {
    static constexpr std::array<std::string_view, 5> kTypes = {"ftyp", "moov", "mdat", "free",
                                                               "skip"};
    return std::find(kTypes.begin(), kTypes.end(), std::string_view(type, 4)) != kTypes.end();
}

// Lists the fields of a record as named values.
struct FieldLister {
    std::vector<Field>& fields;
    std::span<const uint8_t> raw;  // the record in the stream
    const uint8_t* record;         // the record in memory

    void operator()(const char* name, std::unsigned_integral auto value) const {
        fields.push_back({name, uint32_t{value}});
    }
    template <size_t N>
    void operator()(const char* name, const char (&text)[N]) const {
        fields.push_back({name, std::string(text, N)});
    }
    template <size_t N>
    void operator()(const char* name, const uint8_t (&bytes)[N]) const {
        fields.push_back({name, raw.subspan(static_cast<size_t>(bytes - record), N)});
    }
};

// A text of a stream for a message: what is not ASCII, or not shown, as question marks.
std::string in_letters(std::string text) {
    const auto is_letter = [](char c) { return c >= ' ' && c <= '~'; };
    std::replace_if(text.begin(), text.end(), std::not_fn(is_letter), '?');
    return text;
}

// Whole frames per second in the upper half, hundredths in the lower.
uint32_t frame_rate_of(uint32_t index_word) {
    return (index_word >> 16) * 100 + (index_word & 0xFFFF) % 100;
}

}  // namespace

void NativeWalk::feed(std::span<const uint8_t> bytes) {
    if (pending_.empty()) {
        const size_t taken = walk(bytes);
        pending_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(taken), bytes.end());
    } else {
        pending_.insert(pending_.end(), bytes.begin(), bytes.end());
        const size_t taken = walk(pending_);
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(taken));
    }
}

void NativeWalk::finish() {
    ending_ = true;
    walk(pending_);
    pending_.clear();
}

// Reads all whole records. Returns their bytes.
size_t NativeWalk::walk(std::span<const uint8_t> bytes) {
    window_ = bytes;
    position_ = 0;
    while (step()) {
    }
    const size_t taken = position_;
    base_ += taken;
    window_ = {};
    position_ = 0;
    return taken;
}

// Reads the next record or frame. Returns false when more bytes are needed, and at the end.
bool NativeWalk::step() {
    switch (state_) {
        case State::kFirstRecord:
            if (!has(sizeof(PROP_Header_Info))) return false;
            first_record();
            state_ = State::kHeaderRecords;
            return true;
        case State::kHeaderRecords:
            if (!has(header_records_size()) || is_empty_video()) return false;
            header_records();
            return true;
        case State::kHeaderPadding:
            return skip_header_padding();
        case State::kFrames:
            if (!has_frame()) return false;
            if (is_audio_) {
                audio_frame();
            } else {
                video_frame();
            }
            return true;
    }
    return false;
}

std::span<const uint8_t> NativeWalk::take(size_t count, const char* what) {
    if (count > left()) {
        damaged(offset(), std::string("the stream ends inside ") + what + ": " +
                              std::to_string(count) + " bytes wanted, " + std::to_string(left()) +
                              " left");
    }
    auto taken = window_.subspan(position_, count);
    position_ += count;
    return taken;
}

template <typename Record>
Record NativeWalk::take_record(const char* name, StreamRecord& shown) {
    shown.offset = offset();
    if (sink_.wants_records()) shown.name = name;
    const auto raw = take(sizeof(Record), name);
    Record record;
    std::memcpy(&record, raw.data(), sizeof record);
    if (sink_.wants_records()) {
        visit_fields(record, FieldLister{shown.fields, raw, reinterpret_cast<uint8_t*>(&record)});
    }
    return record;
}

template <typename Record>
Record NativeWalk::header_record(const char* name) {
    StreamRecord shown;
    const Record record = take_record<Record>(name, shown);
    sink_.record(shown);
    return record;
}

// --- header records ---

void NativeWalk::first_record() {
    StreamRecord shown;
    const auto first = take_record<PROP_Header_Info>("PROP_Header_Info", shown);
    if (is_box_type(&first.medium[4])) damaged(0, kIs3gpText);
    sink_.record(shown);
    is_audio_ = std::memcmp(first.medium, kAudioMedium, sizeof first.medium) == 0;
    const bool video = std::memcmp(first.medium, kVideoMedium, sizeof first.medium) == 0;
    if (!is_audio_ && !video) damaged(0, "the stream does not begin with the name of a medium");
    if (first.constant != kPropConstant) damaged(12, "the constant of the first record is not 10");
    declared_length_ = first.header_length;
    padding_ = first.padding;
    (is_audio_ ? header_.frames : header_.pictures_per_second) = first.value;
}

// Whether the stream ends after its first record because it has no pictures.
bool NativeWalk::is_empty_video() const {
    return ending_ && left() == 0 && !is_audio_ && header_.pictures_per_second == 0;
}

// Returns the bytes of the other header records, as far as known: the codec name of a video stream
// determines its configuration record.
size_t NativeWalk::header_records_size() const {
    constexpr size_t kAudioRecords =
        sizeof(AUD_Codec_Header) + sizeof(AUD_Header_IndxInfo) + sizeof(VID_FileInfo);
    constexpr size_t kCodecAt = sizeof(VID_Header_NTSInfo) + sizeof(VID_Header_IndxInfo);
    constexpr size_t kUntilConfig = kCodecAt + sizeof(VID_Header_CodecInfo);
    if (is_audio_) return kAudioRecords;
    if (left() < kUntilConfig) return kUntilConfig;
    const auto name = window_.subspan(position_ + kCodecAt, 4);
    const auto is = [&](const char* code) { return std::equal(name.begin(), name.end(), code); };
    size_t config = 0;
    if (is("mp4v")) config = sizeof(VID_Header_MPEG4CodecConfig);
    if (is("s263")) config = sizeof(VID_Header_H263CodecConfig);
    if (is("s264")) config = sizeof(VID_Header_H264CodecConfig);
    return kUntilConfig + config + sizeof(VID_FileInfo);
}

void NativeWalk::header_records() {
    if (is_audio_) {
        audio_headers();
    } else {
        video_headers();
    }
    check_header_length();
    state_ = State::kHeaderPadding;
}

void NativeWalk::check_header_length() {
    if (declared_length_ != offset() + padding_) {
        damaged(8, "the length of the header records is " + std::to_string(offset()) + ", not " +
                       std::to_string(declared_length_));
    }
}

bool NativeWalk::skip_header_padding() {
    const auto count = static_cast<uint32_t>(std::min<size_t>(padding_, left()));
    take(count, "the padding of the header records");
    padding_ -= count;
    if (padding_ > 0) {
        if (ending_) take(padding_, "the padding of the header records");
        return false;
    }
    sink_.header(header_);
    state_ = State::kFrames;
    return true;
}

void NativeWalk::audio_headers() {
    const uint64_t codec_at = offset();
    const auto codec = header_record<AUD_Codec_Header>("AUD_Codec_Header");
    if (codec.length != sizeof codec) damaged(codec_at, "the codec record has a wrong length");
    const bool wide = codec.coding == kWideBandCoding;
    const bool narrow = codec.coding >= kFirstCoding && codec.coding <= kLastCoding;
    // Only the class API, whose frames hold RTP payloads, declares no bits per sample.
    header_.api = codec.bits_per_sample == 0 ? Api::kClass : Api::kFunction;
    header_.medium = wide ? Medium::kWideBandSpeech : Medium::kNarrowBandSpeech;
    if (!narrow && (header_.api == Api::kClass || !wide)) {
        damaged(codec_at,
                "the codec record has an unknown coding: " + std::to_string(codec.coding));
    }
    header_record<AUD_Header_IndxInfo>("AUD_Header_IndxInfo");
    header_.duration_ms = header_record<VID_FileInfo>("VID_FileInfo").duration_ms;
}

void NativeWalk::video_headers() {
    const auto starts = header_record<VID_Header_NTSInfo>("VID_Header_NTSInfo");
    header_.video_start = starts.video_start;
    header_.audio_start = starts.audio_start;
    const auto index = header_record<VID_Header_IndxInfo>("VID_Header_IndxInfo");
    header_.frame_rate = frame_rate_of(index.index_words[0]);
    // Only the class API declares the frame rate there.
    header_.api = header_.frame_rate != 0 ? Api::kClass : Api::kFunction;
    const uint64_t codec_at = offset();
    const auto codec = header_record<VID_Header_CodecInfo>("VID_Header_CodecInfo");
    header_.bit_rate = codec.bit_rate;
    header_.width = codec.width;
    header_.height = codec.height;
    video_config({codec.codec, strnlen(codec.codec, sizeof codec.codec)}, codec_at);
    header_.duration_ms = header_record<VID_FileInfo>("VID_FileInfo").duration_ms;
}

void NativeWalk::video_config(const std::string& codec, uint64_t codec_at) {
    const uint64_t at = offset();
    const auto keep_config = [&](const auto& record) {
        if (record.length > sizeof record.config) {
            damaged(at, "the decoder configuration is longer than its record");
        }
        header_.config.assign(record.config, record.config + record.length);
    };
    if (codec == "s263" || codec == "s263+") {
        header_.medium = codec == "s263" ? Medium::kH263Rfc2190 : Medium::kH263Rfc4629;
        const auto record = header_record<VID_Header_H263CodecConfig>("VID_Header_H263CodecConfig");
        header_.profile = record.profile;
        header_.level = record.level;
    } else if (codec == "mp4v") {
        header_.medium = Medium::kMpeg4;
        const auto record =
            header_record<VID_Header_MPEG4CodecConfig>("VID_Header_MPEG4CodecConfig");
        header_.level = record.profile_level;
        keep_config(record);
    } else if (codec == "s264") {
        header_.medium = Medium::kH264;
        const auto record = header_record<VID_Header_H264CodecConfig>("VID_Header_H264CodecConfig");
        header_.profile = record.profile;
        constexpr uint32_t kShort = 8;  // bytes of a configuration for which they are not written
        if (record.length > kShort) header_.constraints = record.constraints;
        header_.level = record.level;
        keep_config(record);
    } else {
        damaged(codec_at, "the codec record names no codec: " + in_letters(codec));
    }
}

// --- frames ---

// Whether a whole frame is available, or damage must be reported: the stream ends, or a header has
// an invalid length. The damage is the same in pieces of any size.
bool NativeWalk::has_frame() const {
    if (left() == 0) return false;
    if (ending_) return true;
    if (left() < kLengthField) return false;
    const uint32_t length = load_word(window_.subspan(position_, kLengthField));
    const uint32_t wanted = length > kMaxChunkBytes ? 0 : length;
    return left() >= std::max(wanted, kFrameHeader);
}

void NativeWalk::check_frame_length(uint64_t at, uint64_t length, uint64_t least) {
    if (length < least) damaged(at, "the frame length leaves no frame");
    if (length > kMaxChunkBytes) {
        damaged(at, "no frame has a length of " + std::to_string(length) + " bytes");
    }
}

void NativeWalk::video_frame() {
    constexpr size_t kFixedPart = sizeof(VID_Frame_Record) + sizeof(VID_Frame_Words);
    const uint64_t at = offset();
    const size_t there = left();
    const auto frame = header_record<VID_Frame_Record>("VID_Frame_Record");
    check_frame_length(at, frame.total_length, kFixedPart + uint64_t{frame.padding});
    if (frame.total_length > there) {
        damaged(at, "the stream ends inside a frame: " + std::to_string(frame.total_length) +
                        " bytes wanted, " + std::to_string(there) + " left");
    }
    const uint64_t end = at + frame.total_length - frame.padding;
    const auto words = header_record<VID_Frame_Words>("VID_Frame_Words");
    if (words.four != 4 || words.one != 1) {
        damaged(at + sizeof frame, "the words after the frame record are not 4 and 1");
    }
    sink_.begin_frame();
    for (uint32_t i = 0; i < frame.packet_count; ++i)
        video_packet(end);
    if (offset() != end) damaged(offset(), "the frame does not end after its last packet");
    take(frame.padding, "the padding of a frame");
    sink_.end_frame();
}

void NativeWalk::video_packet(uint64_t frame_end) {
    const uint64_t at = offset();
    StreamRecord shown;
    if (frame_end - at < sizeof(TEL_Packet_Header))
        damaged(at, "the frame ends before its last packet");
    const auto header = take_record<TEL_Packet_Header>("TEL_Packet_Header", shown);
    if (header.packet_length < sizeof header || header.packet_length > frame_end - at) {
        damaged(at, "the packet length does not fit its frame: " +
                        std::to_string(header.packet_length));
    }
    if (header.rtp_word >> 30 != 2 || header.time != header.time_again) {
        damaged(at, "this is no packet header");
    }
    VideoPacket packet;
    packet.time = header.time;
    packet.marker = (header.rtp_word >> 23 & 1) != 0;
    packet.payload_type = static_cast<uint8_t>(header.rtp_word >> 16 & 0x7F);
    packet.sequence = static_cast<uint16_t>(header.rtp_word & 0xFFFF);
    packet.payload = take(header.packet_length - sizeof header, "a packet");
    if (sink_.wants_records()) {
        shown.fields.push_back({"marker", uint32_t{packet.marker}});
        shown.fields.push_back({"payload_type", uint32_t{packet.payload_type}});
        shown.fields.push_back({"sequence", uint32_t{packet.sequence}});
        shown.payload = packet.payload;
        sink_.record(shown);
    }
    sink_.video_packet(packet);
}

void NativeWalk::audio_frame() {
    const uint64_t at = offset();
    StreamRecord shown;
    const auto header = take_record<AUD_AudFrame_Native>("AUD_AudFrame_Native", shown);
    const bool has_payloads = header_.api == Api::kClass;
    if (header.coder != band_of(header_.medium).native_coder) {
        damaged(at, "the frame has another coder: " + std::to_string(header.coder));
    }
    if (header.time != header.time_again) damaged(at, "the two times of the frame differ");
    check_frame_length(at, header.frame_length, has_payloads ? kFrameHeader : kSmallestFrame);
    for (const uint8_t zero : take(kZeroWord, "a frame's zero word")) {
        if (zero != 0) damaged(offset() - kZeroWord, "the word after the frame header is not 0");
    }
    const auto rest = static_cast<size_t>(at + header.frame_length - offset());
    if (has_payloads) {
        const auto payloads = take(rest, "a speech payload");
        sink_.begin_frame();
        sink_.speech_time(header.time);
        const size_t packets = speech_payloads(shown, payloads, at);
        for (size_t before = packets; before-- > 0;)
            sink_.speech_sequence(static_cast<uint16_t>(header.sequence - before));
        // A packet without a payload has its number as well; a sample without packets has 0.
        if (packets == 0 && (header.time != 0 || header.sequence != 0))
            sink_.speech_sequence(header.sequence);
    } else {
        const uint8_t mode = take(kModeByte, "a frame's mode byte")[0];
        shown.fields.push_back({"mode_byte", uint32_t{mode}});
        shown.payload = take(rest - kModeByte, "a speech frame");
        sink_.begin_frame();
        sink_.speech_time(header.time);
        sink_.speech_sequence(header.sequence);
        speech_frame(shown, at);
    }
    sink_.end_frame();
}

void NativeWalk::speech_frame(StreamRecord& shown, uint64_t at) {
    const auto frame = shown.payload;
    const int type = storage_frame_type(frame[0]);
    const int speech_bits = band_of(header_.medium).frame_bits[type];
    if (frame.size() != static_cast<size_t>(storage_frame_size(speech_bits))) {
        damaged(at, "a frame of type " + std::to_string(type) + " cannot have " +
                        std::to_string(frame.size()) + " bytes");
    }
    shown.fields.push_back({"frame_type", static_cast<uint32_t>(type)});
    sink_.record(shown);
    sink_.speech_frame(frame);
}

// Octet-aligned payloads (RFC 4867, 4.3 and 4.4), back to back: a codec mode request, a table of
// contents with a byte for each frame, all but the last with the top bit set, and the frames' bits.
// Returns their number.
size_t NativeWalk::speech_payloads(StreamRecord& shown, std::span<const uint8_t> payloads,
                                   uint64_t at) {
    shown.payload = payloads;
    sink_.record(shown);
    ByteReader reader(payloads);
    size_t count = 0;
    for (; reader.remaining() > 0; ++count) {
        const size_t begin = reader.position();
        reader.skip(1);
        while (reader.ok() && (reader.u8() & kMoreFollow) != 0) {
        }
        if (!reader.ok()) damaged(at, "a speech payload ends inside its table of contents");
        const auto front = payloads.subspan(begin, reader.position() - begin);
        sink_.speech_payload(front);
        for (const uint8_t entry : front.subspan(1)) {
            const auto header = static_cast<uint8_t>(entry & ~kMoreFollow);
            const int size =
                storage_frame_size(kNarrowBand.frame_bits[storage_frame_type(header)]) - 1;
            const auto speech = reader.take(static_cast<size_t>(size));
            if (!reader.ok()) damaged(at, "a speech payload ends inside a frame");
            std::vector<uint8_t> frame{header};
            frame.insert(frame.end(), speech.begin(), speech.end());
            sink_.speech_frame(frame);
        }
    }
    return count;
}

void walk_native(std::span<const uint8_t> stream, RecordSink& sink) {
    NativeWalk walk(sink);
    walk.feed(stream);
    walk.finish();
}

}  // namespace kestrel::stream
