// The records of a native `tel` stream, as they lie in it: fields in host byte order (little-endian
// on x86), no gaps. docs/native-format.md tells how a stream is made of them.
//
// Each record is a struct that mirrors its bytes, and a list of its fields by name, which serves
// everything that walks a record: visit_fields(record, visitor) calls visitor(name, field) for each
// field in stream order. Fields are uint32_t, uint16_t, uint8_t, or arrays of char (text, padded)
// and of uint8_t (bytes).
#ifndef KESTREL_NATIVE_RECORDS_H
#define KESTREL_NATIVE_RECORDS_H

#include <cstdint>

namespace kestrel {

inline constexpr char kVideoMedium[] = "VIDEO   ";
inline constexpr char kAudioMedium[] = "AUDIO   ";
inline constexpr uint32_t kPropConstant = 10;

// The bytes of decoder configuration that a codec configuration record has room for.
inline constexpr uint32_t kMostConfigBytes = 350;

// First record of every stream.
struct PROP_Header_Info {
    char medium[8];          // kVideoMedium or kAudioMedium, no terminator
    uint32_t header_length;  // bytes of all stream header records, this one included
    uint32_t constant;       // kPropConstant
    uint32_t padding;        // bytes of padding that header_length includes
    uint32_t value;          // video: frames per second; audio: number of frames
};
static_assert(sizeof(PROP_Header_Info) == 24);

template <typename Visitor>
void visit_fields(const PROP_Header_Info& r, Visitor&& visitor) {
    visitor("medium", r.medium);
    visitor("header_length", r.header_length);
    visitor("constant", r.constant);
    visitor("padding", r.padding);
    visitor("value", r.value);
}

struct AUD_Codec_Header {
    uint32_t length;  // of this record
    uint32_t coding;
    uint32_t sampling_rate;  // code, not Hz
    uint32_t bits_per_sample;
};
static_assert(sizeof(AUD_Codec_Header) == 16);

template <typename Visitor>
void visit_fields(const AUD_Codec_Header& r, Visitor&& visitor) {
    visitor("length", r.length);
    visitor("coding", r.coding);
    visitor("sampling_rate", r.sampling_rate);
    visitor("bits_per_sample", r.bits_per_sample);
}

struct AUD_Header_IndxInfo {
    uint32_t index_words[3];  // all 0
};
static_assert(sizeof(AUD_Header_IndxInfo) == 12);

template <typename Visitor>
void visit_fields(const AUD_Header_IndxInfo& r, Visitor&& visitor) {
    visitor("index_0", r.index_words[0]);
    visitor("index_1", r.index_words[1]);
    visitor("index_2", r.index_words[2]);
}

struct VID_FileInfo {
    uint32_t duration_ms;
    uint8_t filler[12];  // 0xCC each
};
static_assert(sizeof(VID_FileInfo) == 16);

template <typename Visitor>
void visit_fields(const VID_FileInfo& r, Visitor&& visitor) {
    visitor("duration_ms", r.duration_ms);
    visitor("filler", r.filler);
}

// Header of one speech frame; a zero word, a mode byte and the frame follow.
struct AUD_AudFrame_Native {
    uint32_t frame_length;  // of the whole frame: this header and all that follows
    uint32_t coder;         // 10 AMR narrow band, 20 AMR wide band
    uint32_t time;          // in samples
    uint32_t time_again;
    uint16_t sequence;
    uint16_t flag;
};
static_assert(sizeof(AUD_AudFrame_Native) == 20);

template <typename Visitor>
void visit_fields(const AUD_AudFrame_Native& r, Visitor&& visitor) {
    visitor("frame_length", r.frame_length);
    visitor("coder", r.coder);
    visitor("time", r.time);
    visitor("time_again", r.time_again);
    visitor("sequence", r.sequence);
    visitor("flag", r.flag);
}

// Header of one packet.
struct TEL_Packet_Header {
    uint32_t packet_length;  // of the whole packet: this header and the payload
    uint32_t time;           // in units of the clock rate
    uint32_t rtp_word;       // version 2 << 30 | marker << 23 | payload type << 16 | sequence
    uint32_t time_again;
    uint32_t zero;
};
static_assert(sizeof(TEL_Packet_Header) == 20);

template <typename Visitor>
void visit_fields(const TEL_Packet_Header& r, Visitor&& visitor) {
    visitor("packet_length", r.packet_length);
    visitor("time", r.time);
    visitor("rtp_word", r.rtp_word);
    visitor("time_again", r.time_again);
    visitor("zero", r.zero);
}

}  // namespace kestrel

#endif
