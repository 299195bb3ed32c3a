// SPDX-License-Identifier: Apache-2.0
// The records of a native `tel` stream, as they lie in it: fields in host byte order (little-endian
// on x86), no gaps. docs/native-format.md explains how a stream is made of them. Usable from C11
// and C++17.
//
// A stream is read record by record: copy the bytes of a record into its struct, with memcpy.
//
//     PROP_Header_Info first;
//     if (count < sizeof first) return false;
//     memcpy(&first, stream, sizeof first);
//     return memcmp(first.medium, KST_VIDEO_MEDIUM, sizeof first.medium) == 0;
//
// In C++ the records are in the namespace kestrel, and each has a list of its fields by name, which
// serves everything that walks a record: visit_fields(record, visitor) calls visitor(name, field)
// for each field in stream order. Fields are uint32_t, uint16_t, uint8_t, or arrays of char (text,
// padded) and of uint8_t (bytes).
#ifndef KESTREL_NATIVE_RECORDS_H
#define KESTREL_NATIVE_RECORDS_H

#include <assert.h>
#include <stdint.h>

// The text of PROP_Header_Info::medium, 8 characters.
#define KST_VIDEO_MEDIUM "VIDEO   "
#define KST_AUDIO_MEDIUM "AUDIO   "

enum {
    KST_PROP_CONSTANT = 10,
    // The bytes of decoder configuration that a codec configuration record has room for.
    KST_MAX_CONFIG_BYTES = 350
};

#ifdef __cplusplus
namespace kestrel {
#endif

// First record of every stream.
typedef struct PROP_Header_Info {
    char medium[8];          // KST_VIDEO_MEDIUM or KST_AUDIO_MEDIUM, no terminator
    uint32_t header_length;  // bytes of all stream header records, this one included
    uint32_t constant;       // KST_PROP_CONSTANT
    uint32_t padding;        // bytes of padding that header_length includes
    uint32_t value;          // video: frames per second; audio: number of frames
} PROP_Header_Info;
static_assert(sizeof(PROP_Header_Info) == 24, "no gaps");

typedef struct AUD_Codec_Header {
    uint32_t length;  // of this record
    uint32_t coding;
    uint32_t sampling_rate;  // code, not Hz
    uint32_t bits_per_sample;
} AUD_Codec_Header;
static_assert(sizeof(AUD_Codec_Header) == 16, "no gaps");

typedef struct AUD_Header_IndxInfo {
    uint32_t index_words[3];  // all 0
} AUD_Header_IndxInfo;
static_assert(sizeof(AUD_Header_IndxInfo) == 12, "no gaps");

typedef struct VID_FileInfo {
    uint32_t duration_ms;
    uint8_t filler[12];  // 0xCC each
} VID_FileInfo;
static_assert(sizeof(VID_FileInfo) == 16, "no gaps");

// Start offsets of the two media, in clock units; 0 where they are not known.
typedef struct VID_Header_NTSInfo {
    uint32_t video_start;
    uint32_t audio_start;
} VID_Header_NTSInfo;
static_assert(sizeof(VID_Header_NTSInfo) == 8, "no gaps");

typedef struct VID_Header_IndxInfo {
    uint32_t index_words[2];
} VID_Header_IndxInfo;
static_assert(sizeof(VID_Header_IndxInfo) == 8, "no gaps");

typedef struct VID_Header_CodecInfo {
    char codec[8];  // "mp4v", "s263", "s263+" or "s264", padded with NULs
    uint32_t zero;
    uint32_t bit_rate;  // bits per second
    uint32_t width;     // pixels
    uint32_t height;
    uint32_t config_length;  // 356, or 365 for H.264; not the size of the record that follows
} VID_Header_CodecInfo;
static_assert(sizeof(VID_Header_CodecInfo) == 28, "no gaps");

typedef struct VID_Header_MPEG4CodecConfig {
    uint32_t profile_level;
    uint8_t config[KST_MAX_CONFIG_BYTES];  // decoder-specific information, zero-filled
    uint16_t length;                       // of it, in bytes
} VID_Header_MPEG4CodecConfig;
static_assert(sizeof(VID_Header_MPEG4CodecConfig) == 356, "no gaps");

typedef struct VID_Header_H263CodecConfig {
    uint32_t profile;
    uint32_t level;
} VID_Header_H263CodecConfig;
static_assert(sizeof(VID_Header_H263CodecConfig) == 8, "no gaps");

typedef struct VID_Header_H264CodecConfig {
    uint32_t profile;
    uint32_t constraints;
    uint32_t level;
    uint8_t config[KST_MAX_CONFIG_BYTES];  // parameter sets after start codes, zero-filled
    uint16_t length;                       // of them, in bytes
    uint8_t two;                           // 2
    uint8_t unused[3];
} VID_Header_H264CodecConfig;
static_assert(sizeof(VID_Header_H264CodecConfig) == 368, "no gaps");

// What precedes the packets of a video frame. total_length counts this record, the two words, the
// packets and the padding after them, which makes it a multiple of 4.
typedef struct VID_Frame_Record {
    uint32_t total_length;
    uint32_t packet_count;
    uint32_t padding;
} VID_Frame_Record;
static_assert(sizeof(VID_Frame_Record) == 12, "no gaps");

// The two words between a frame's record and its packets.
typedef struct VID_Frame_Words {
    uint32_t four;  // 4
    uint32_t one;   // 1
} VID_Frame_Words;
static_assert(sizeof(VID_Frame_Words) == 8, "no gaps");

// Header of one speech frame; a zero word, a mode byte and the frame follow.
typedef struct AUD_AudFrame_Native {
    uint32_t frame_length;  // of the whole frame: this header and all that follows
    uint32_t coder;         // 10 AMR narrow band, 20 AMR wide band
    uint32_t time;          // in samples
    uint32_t time_again;
    uint16_t sequence;
    uint16_t flag;
} AUD_AudFrame_Native;
static_assert(sizeof(AUD_AudFrame_Native) == 20, "no gaps");

// Header of one packet.
typedef struct TEL_Packet_Header {
    uint32_t packet_length;  // of the whole packet: this header and the payload
    uint32_t time;           // in units of the clock rate
    uint32_t rtp_word;       // version 2 << 30 | marker << 23 | payload type << 16 | sequence
    uint32_t time_again;
    uint32_t zero;
} TEL_Packet_Header;
static_assert(sizeof(TEL_Packet_Header) == 20, "no gaps");

#ifdef __cplusplus

inline constexpr char kVideoMedium[] = KST_VIDEO_MEDIUM;
inline constexpr char kAudioMedium[] = KST_AUDIO_MEDIUM;
inline constexpr uint32_t kPropConstant = KST_PROP_CONSTANT;
inline constexpr uint32_t kMaxConfigBytes = KST_MAX_CONFIG_BYTES;

// The two words between the record and the packets of each frame.
inline constexpr VID_Frame_Words kFrameWords = {4, 1};

// The bytes of zeros that round `length` up to a multiple of 4.
constexpr uint32_t frame_padding(uint32_t length) {
    return (4 - length % 4) % 4;
}

// The record of a frame whose packets take `packet_bytes` bytes.
constexpr VID_Frame_Record frame_record(uint32_t packet_bytes, uint32_t packet_count) {
    const auto unpadded =
        static_cast<uint32_t>(packet_bytes + sizeof(VID_Frame_Record) + sizeof(VID_Frame_Words));
    const uint32_t padding = frame_padding(unpadded);
    return {unpadded + padding, packet_count, padding};
}

template <typename Visitor>
void visit_fields(const PROP_Header_Info& r, Visitor&& visitor) {
    visitor("medium", r.medium);
    visitor("header_length", r.header_length);
    visitor("constant", r.constant);
    visitor("padding", r.padding);
    visitor("value", r.value);
}

template <typename Visitor>
void visit_fields(const AUD_Codec_Header& r, Visitor&& visitor) {
    visitor("length", r.length);
    visitor("coding", r.coding);
    visitor("sampling_rate", r.sampling_rate);
    visitor("bits_per_sample", r.bits_per_sample);
}

template <typename Visitor>
void visit_fields(const AUD_Header_IndxInfo& r, Visitor&& visitor) {
    visitor("index_0", r.index_words[0]);
    visitor("index_1", r.index_words[1]);
    visitor("index_2", r.index_words[2]);
}

template <typename Visitor>
void visit_fields(const VID_FileInfo& r, Visitor&& visitor) {
    visitor("duration_ms", r.duration_ms);
    visitor("filler", r.filler);
}

template <typename Visitor>
void visit_fields(const VID_Header_NTSInfo& r, Visitor&& visitor) {
    visitor("video_start", r.video_start);
    visitor("audio_start", r.audio_start);
}

template <typename Visitor>
void visit_fields(const VID_Header_IndxInfo& r, Visitor&& visitor) {
    visitor("index_0", r.index_words[0]);
    visitor("index_1", r.index_words[1]);
}

template <typename Visitor>
void visit_fields(const VID_Header_CodecInfo& r, Visitor&& visitor) {
    visitor("codec", r.codec);
    visitor("zero", r.zero);
    visitor("bit_rate", r.bit_rate);
    visitor("width", r.width);
    visitor("height", r.height);
    visitor("config_length", r.config_length);
}

template <typename Visitor>
void visit_fields(const VID_Header_MPEG4CodecConfig& r, Visitor&& visitor) {
    visitor("profile_level", r.profile_level);
    visitor("config", r.config);
    visitor("length", r.length);
}

template <typename Visitor>
void visit_fields(const VID_Header_H263CodecConfig& r, Visitor&& visitor) {
    visitor("profile", r.profile);
    visitor("level", r.level);
}

template <typename Visitor>
void visit_fields(const VID_Header_H264CodecConfig& r, Visitor&& visitor) {
    visitor("profile", r.profile);
    visitor("constraints", r.constraints);
    visitor("level", r.level);
    visitor("config", r.config);
    visitor("length", r.length);
    visitor("two", r.two);
    visitor("unused", r.unused);
}

template <typename Visitor>
void visit_fields(const VID_Frame_Record& r, Visitor&& visitor) {
    visitor("total_length", r.total_length);
    visitor("packet_count", r.packet_count);
    visitor("padding", r.padding);
}

template <typename Visitor>
void visit_fields(const VID_Frame_Words& r, Visitor&& visitor) {
    visitor("four", r.four);
    visitor("one", r.one);
}

template <typename Visitor>
void visit_fields(const AUD_AudFrame_Native& r, Visitor&& visitor) {
    visitor("frame_length", r.frame_length);
    visitor("coder", r.coder);
    visitor("time", r.time);
    visitor("time_again", r.time_again);
    visitor("sequence", r.sequence);
    visitor("flag", r.flag);
}

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

#endif
