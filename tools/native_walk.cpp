#include "tools/native_walk.h"

#include <cstddef>
#include <cstring>

#include "common/bytes.h"
#include "kestrel/native_records.h"
#include "native/codec/amr_format.h"

namespace tool {

using namespace kestrel;

namespace {

constexpr uint32_t kNarrowBandCoder = 10;
constexpr uint32_t kWideBandCoder = 20;
constexpr uint32_t kWideBandCoding = 51;
constexpr uint32_t kFirstCoding = 26;  // of AMR narrow band: one for each bit rate
constexpr uint32_t kLastCoding = 33;
constexpr uint32_t kZeroWord = 4;
constexpr uint32_t kModeByte = 1;
constexpr uint32_t kFrameHeader = sizeof(AUD_AudFrame_Native) + kZeroWord;
constexpr uint32_t kSmallestFrame = kFrameHeader + kModeByte + 1;

class Walk {
  public:
    Walk(std::span<const uint8_t> stream, RecordSink& sink) : stream_(stream), sink_(sink) {}

    void run();

  private:
    [[noreturn]] void damaged(size_t offset, const std::string& reason) const {
        throw Damage{offset, reason};
    }

    std::span<const uint8_t> take(size_t count, const char* what);

    // Takes a record and lists its fields into `shown`.
    template <typename Record>
    Record take_record(const char* name, StreamRecord& shown);

    // Takes a record that has nothing behind it.
    template <typename Record>
    Record header_record(const char* name);

    void check_header_length(const PROP_Header_Info& first);
    void audio_headers();
    void audio_frame();
    void speech_frame(StreamRecord& shown, size_t at);
    void speech_payload(StreamRecord& shown, std::span<const uint8_t> payload, size_t at);
    void video_headers();
    void video_config(const VID_Header_CodecInfo& codec, size_t codec_at);
    void video_frame();
    void video_packet(size_t frame_end);

    std::span<const uint8_t> stream_;
    RecordSink& sink_;
    size_t position_ = 0;
    Medium medium_ = Medium::kNarrowBandSpeech;
    bool rtp_payloads_ = false;  // a speech frame holds RTP payloads, not one speech frame
    std::span<const uint8_t> config_;
};

std::span<const uint8_t> Walk::take(size_t count, const char* what) {
    if (count > stream_.size() - position_) {
        damaged(position_, std::string("the stream ends inside ") + what + ": " +
                               std::to_string(count) + " bytes wanted, " +
                               std::to_string(stream_.size() - position_) + " left");
    }
    auto taken = stream_.subspan(position_, count);
    position_ += count;
    return taken;
}

// Turns the fields of a record into named values.
struct FieldLister {
    std::vector<Field>& fields;
    std::span<const uint8_t> raw;  // the record in the stream
    const uint8_t* record;         // the record in memory

    void operator()(const char* name, uint32_t value) const { fields.push_back({name, value}); }
    void operator()(const char* name, uint16_t value) const {
        fields.push_back({name, uint32_t{value}});
    }
    void operator()(const char* name, uint8_t value) const {
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

template <typename Record>
Record Walk::take_record(const char* name, StreamRecord& shown) {
    shown.offset = position_;
    shown.name = name;
    const auto raw = take(sizeof(Record), name);
    Record record;
    std::memcpy(&record, raw.data(), sizeof record);
    visit_fields(record, FieldLister{shown.fields, raw, reinterpret_cast<uint8_t*>(&record)});
    return record;
}

template <typename Record>
Record Walk::header_record(const char* name) {
    StreamRecord shown;
    const Record record = take_record<Record>(name, shown);
    sink_.record(shown);
    return record;
}

void Walk::run() {
    const auto first = header_record<PROP_Header_Info>("PROP_Header_Info");
    const bool audio = std::memcmp(first.medium, kAudioMedium, sizeof first.medium) == 0;
    const bool video = std::memcmp(first.medium, kVideoMedium, sizeof first.medium) == 0;
    if (!audio && !video) damaged(0, "the stream does not begin with the name of a medium");
    if (first.constant != kPropConstant) damaged(12, "the constant of the first record is not 10");
    if (audio) {
        audio_headers();
    } else {
        video_headers();
    }
    check_header_length(first);
    sink_.medium(medium_, config_);
    while (position_ < stream_.size()) {
        if (audio) {
            audio_frame();
        } else {
            video_frame();
        }
    }
}

void Walk::check_header_length(const PROP_Header_Info& first) {
    if (first.header_length != uint64_t{position_} + first.padding) {
        damaged(8, "the length of the header records is " + std::to_string(position_) + ", not " +
                       std::to_string(first.header_length));
    }
    take(first.padding, "the padding of the header records");
}

void Walk::audio_headers() {
    const size_t codec_at = position_;
    const auto codec = header_record<AUD_Codec_Header>("AUD_Codec_Header");
    if (codec.length != sizeof codec) damaged(codec_at, "the codec record tells a wrong length");
    if (codec.coding == kWideBandCoding) medium_ = Medium::kWideBandSpeech;
    // Only the class API, whose frames hold RTP payloads, tells no bits per sample.
    rtp_payloads_ = codec.bits_per_sample == 0;
    const bool narrow = codec.coding >= kFirstCoding && codec.coding <= kLastCoding;
    if (!narrow && (rtp_payloads_ || medium_ != Medium::kWideBandSpeech)) {
        damaged(codec_at,
                "the codec record tells an unknown coding: " + std::to_string(codec.coding));
    }
    header_record<AUD_Header_IndxInfo>("AUD_Header_IndxInfo");
    header_record<VID_FileInfo>("VID_FileInfo");
}

void Walk::video_headers() {
    header_record<VID_Header_NTSInfo>("VID_Header_NTSInfo");
    header_record<VID_Header_IndxInfo>("VID_Header_IndxInfo");
    const size_t codec_at = position_;
    video_config(header_record<VID_Header_CodecInfo>("VID_Header_CodecInfo"), codec_at);
    header_record<VID_FileInfo>("VID_FileInfo");
}

void Walk::video_config(const VID_Header_CodecInfo& codec, size_t codec_at) {
    const std::string name(codec.codec, strnlen(codec.codec, sizeof codec.codec));
    if (name == "s263" || name == "s263+") {
        medium_ = name == "s263" ? Medium::kH263Rfc2190 : Medium::kH263Rfc4629;
        header_record<VID_Header_H263CodecConfig>("VID_Header_H263CodecConfig");
    } else if (name == "mp4v") {
        medium_ = Medium::kMpeg4;
        const size_t at = position_ + offsetof(VID_Header_MPEG4CodecConfig, config);
        const auto record =
            header_record<VID_Header_MPEG4CodecConfig>("VID_Header_MPEG4CodecConfig");
        if (record.length > sizeof record.config) {
            damaged(at, "the decoder configuration is longer than its record");
        }
        config_ = stream_.subspan(at, record.length);
    } else if (name == "s264") {
        medium_ = Medium::kH264;
        header_record<VID_Header_H264CodecConfig>("VID_Header_H264CodecConfig");
    } else {
        damaged(codec_at, "the codec record names no codec: " + name);
    }
}

void Walk::video_frame() {
    const size_t at = position_;
    const auto frame = header_record<VID_Frame_Record>("VID_Frame_Record");
    constexpr size_t kFixedPart = sizeof(VID_Frame_Record) + sizeof(VID_Frame_Words);
    if (frame.total_length < kFixedPart + uint64_t{frame.padding}) {
        damaged(at, "the frame length leaves no frame");
    }
    if (frame.total_length > stream_.size() - at) {
        damaged(at, "the stream ends inside a frame: " + std::to_string(frame.total_length) +
                        " bytes wanted, " + std::to_string(stream_.size() - at) + " left");
    }
    const size_t end = at + frame.total_length - frame.padding;
    const auto words = header_record<VID_Frame_Words>("VID_Frame_Words");
    if (words.four != 4 || words.one != 1) {
        damaged(at + sizeof frame, "the words behind the frame record are not 4 and 1");
    }
    for (uint32_t i = 0; i < frame.packet_count; ++i)
        video_packet(end);
    if (position_ != end) damaged(position_, "the frame does not end behind its last packet");
    take(frame.padding, "the padding of a frame");
}

void Walk::video_packet(size_t frame_end) {
    const size_t at = position_;
    StreamRecord shown;
    const auto header = take_record<TEL_Packet_Header>("TEL_Packet_Header", shown);
    if (header.packet_length < sizeof header || header.packet_length > frame_end - at) {
        damaged(at, "the packet length does not fit its frame: " +
                        std::to_string(header.packet_length));
    }
    if (header.rtp_word >> 30 != 2 || header.time != header.time_again) {
        damaged(at, "this is no packet header");
    }
    shown.fields.push_back({"marker", header.rtp_word >> 23 & 1});
    shown.fields.push_back({"payload_type", header.rtp_word >> 16 & 0x7F});
    shown.fields.push_back({"sequence", header.rtp_word & 0xFFFF});
    shown.payload = take(header.packet_length - sizeof header, "a packet");
    sink_.record(shown);
    sink_.video_packet(shown.payload);
}

void Walk::audio_frame() {
    const size_t at = position_;
    StreamRecord shown;
    const auto header = take_record<AUD_AudFrame_Native>("AUD_AudFrame_Native", shown);
    const bool wide = medium_ == Medium::kWideBandSpeech;
    if (header.coder != (wide ? kWideBandCoder : kNarrowBandCoder)) {
        damaged(at, "the frame tells another coder: " + std::to_string(header.coder));
    }
    if (header.time != header.time_again) damaged(at, "the two times of the frame differ");
    const uint32_t smallest = rtp_payloads_ ? kFrameHeader : kSmallestFrame;
    if (header.frame_length < smallest) damaged(at, "the frame length leaves no frame");
    for (const uint8_t zero : take(kZeroWord, "a frame's zero word")) {
        if (zero != 0) damaged(position_ - kZeroWord, "the word behind the frame header is not 0");
    }
    const size_t end = at + header.frame_length;
    if (rtp_payloads_) {
        speech_payload(shown, take(end - position_, "a speech payload"), at);
        return;
    }
    const uint8_t mode = take(kModeByte, "a frame's mode byte")[0];
    shown.fields.push_back({"mode_byte", uint32_t{mode}});
    shown.payload = take(end - position_, "a speech frame");
    speech_frame(shown, at);
}

void Walk::speech_frame(StreamRecord& shown, size_t at) {
    const auto frame = shown.payload;
    const bool wide = medium_ == Medium::kWideBandSpeech;
    const int type = storage_frame_type(frame[0]);
    const int speech_bits = wide ? kWideBandBits[type] : bits[type];
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
void Walk::speech_payload(StreamRecord& shown, std::span<const uint8_t> payload, size_t at) {
    constexpr uint8_t kMore = 0x80;
    shown.payload = payload;
    sink_.record(shown);
    ByteReader reader(payload);
    while (reader.remaining() > 0) {
        reader.skip(1);
        std::vector<uint8_t> contents;
        do {
            contents.push_back(reader.u8());
        } while (reader.ok() && (contents.back() & kMore) != 0);
        for (const uint8_t entry : contents) {
            const auto header = static_cast<uint8_t>(entry & ~kMore);
            const int size = storage_frame_size(bits[storage_frame_type(header)]) - 1;
            const auto speech = reader.take(static_cast<size_t>(size));
            if (!reader.ok()) damaged(at, "a speech payload ends inside a frame");
            std::vector<uint8_t> frame{header};
            frame.insert(frame.end(), speech.begin(), speech.end());
            sink_.speech_frame(frame);
        }
    }
}

}  // namespace

void walk_native(std::span<const uint8_t> stream, RecordSink& sink) {
    Walk(stream, sink).run();
}

}  // namespace tool
