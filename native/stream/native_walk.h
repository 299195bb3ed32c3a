// SPDX-License-Identifier: Apache-2.0
// Walks a native stream record by record (docs/native-format.md), in pieces of any size.
#ifndef KESTREL_NATIVE_STREAM_NATIVE_WALK_H
#define KESTREL_NATIVE_STREAM_NATIVE_WALK_H

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "native/codec/amr_format.h"

namespace kestrel::stream {

// A field of a record: a number, or bytes shown in hex, or a text.
struct Field {
    std::string name;
    std::variant<uint32_t, std::span<const uint8_t>, std::string> value;
};

// One record of a stream, with the payload that follows its fields.
struct StreamRecord {
    uint64_t offset = 0;  // in the stream
    std::string name;
    std::vector<Field> fields;
    std::span<const uint8_t> payload;
};

// The medium of a stream. The two kinds of H.263 have different payload headers: RFC 2190 or RFC
// 4629.
enum class Medium { kNarrowBandSpeech, kWideBandSpeech, kH263Rfc2190, kH263Rfc4629, kMpeg4, kH264 };

constexpr bool is_speech(Medium medium) {
    return medium == Medium::kNarrowBandSpeech || medium == Medium::kWideBandSpeech;
}

// Of a medium that is speech.
constexpr const AmrBand& band_of(Medium medium) {
    return amr_band(medium == Medium::kWideBandSpeech);
}

// The API that made a stream. They differ in units of time and in the form of speech.
enum class Api { kFunction, kClass };

// The facts of the header records.
struct StreamHeader {
    Medium medium = Medium::kNarrowBandSpeech;
    Api api = Api::kFunction;
    uint32_t duration_ms = 0;
    uint32_t frames = 0;  // speech only: frames of the stream
    // Video only.
    uint32_t pictures_per_second = 0;  // truncated
    uint32_t bit_rate = 0;             // of the samples, bits per second, truncated
    uint32_t frame_rate = 0;           // hundredths of a frame per second; 0 from the function API
    uint32_t width = 0;                // pixels
    uint32_t height = 0;
    uint32_t profile = 0;
    uint32_t constraints = 0;  // H.264 only
    uint32_t level = 0;
    uint32_t video_start = 0;  // units of 1/90,000 s
    uint32_t audio_start = 0;  // units of the audio timescale
    // MPEG-4: decoder-specific information. H.264: parameter sets, each after 00 00 00 01.
    std::vector<uint8_t> config;
};

// A packet of a video frame.
struct VideoPacket {
    uint32_t time = 0;
    uint8_t payload_type = 0;
    uint16_t sequence = 0;
    bool marker = false;
    std::span<const uint8_t> payload;  // what RTP carries
};

// Receives the records of a walk. Arguments are valid during the call.
class RecordSink {
  public:
    RecordSink() = default;
    RecordSink(const RecordSink&) = delete;
    RecordSink& operator=(const RecordSink&) = delete;
    virtual ~RecordSink() = default;

    // Returns false when record() does nothing; records are then not listed.
    virtual bool wants_records() const { return true; }
    virtual void record(const StreamRecord&) {}
    // Called once, after the last header record.
    virtual void header(const StreamHeader&) {}
    // Called before the first and after the last packet or speech frame of each frame. Not called
    // for a truncated frame.
    virtual void begin_frame() {}
    virtual void end_frame() {}
    virtual void video_packet(const VideoPacket&) {}
    // Time of the speech that follows, in units of the sampling rate.
    virtual void speech_time(uint32_t) {}
    // Function API: the number of the speech frame that follows. Class API: that of an RTP payload,
    // after all payloads of its native frame.
    virtual void speech_sequence(uint16_t) {}
    // Class API: the codec mode request and table of contents of an RTP payload; its frames follow.
    virtual void speech_payload(std::span<const uint8_t>) {}
    // A speech frame in storage format: its header byte, then its bits.
    virtual void speech_frame(std::span<const uint8_t>) {}
};

// The place and the kind of damage in a stream.
struct Damage {
    uint64_t offset;
    std::string reason;
};

// The reason of Damage in a file that is no stream, but can be played.
inline constexpr const char* kIs3gpText = "this is a 3GP file; extract a track of it first";

// Walks a stream that arrives in pieces. Uses memory for one frame at most, and never more than was
// fed. feed() and finish() throw Damage at the first damaged place, which ends the walk.
class NativeWalk {
  public:
    explicit NativeWalk(RecordSink& sink) : sink_(sink) {}

    void feed(std::span<const uint8_t> bytes);

    // Ends the stream. Throws Damage when it ends inside a record or frame. A video stream may end
    // after its first record if that declares no pictures.
    void finish();
    // Returns the bytes of the records read so far.
    uint64_t bytes() const { return base_; }

  private:
    enum class State { kFirstRecord, kHeaderRecords, kHeaderPadding, kFrames };

    [[noreturn]] void damaged(uint64_t offset, const std::string& reason) const {
        throw Damage{offset, reason};
    }
    uint64_t offset() const { return base_ + position_; }
    size_t left() const { return window_.size() - position_; }
    bool has(size_t count) const { return ending_ || left() >= count; }

    size_t walk(std::span<const uint8_t> bytes);
    bool step();
    std::span<const uint8_t> take(size_t count, const char* what);

    // Reads a record and lists its fields in `shown`.
    template <typename Record>
    Record take_record(const char* name, StreamRecord& shown);

    // Reads a record without payload.
    template <typename Record>
    Record header_record(const char* name);

    void first_record();
    bool is_empty_video() const;
    size_t header_records_size() const;
    void header_records();
    void check_header_length();
    bool skip_header_padding();
    bool has_frame() const;
    void check_frame_length(uint64_t at, uint64_t length, uint64_t least);
    void audio_headers();
    void audio_frame();
    void speech_frame(StreamRecord& shown, uint64_t at);
    size_t speech_payloads(StreamRecord& shown, std::span<const uint8_t> payloads, uint64_t at);
    void video_headers();
    void video_config(const std::string& codec, uint64_t codec_at);
    void video_frame();
    void video_packet(uint64_t frame_end);

    RecordSink& sink_;
    State state_ = State::kFirstRecord;
    bool ending_ = false;  // no more bytes come
    std::span<const uint8_t> window_;
    size_t position_ = 0;           // in the window
    uint64_t base_ = 0;             // of the window in the stream
    std::vector<uint8_t> pending_;  // fed, and not yet a whole record or frame

    StreamHeader header_;
    bool is_audio_ = false;
    uint32_t declared_length_ = 0;  // of the header records
    uint32_t padding_ = 0;          // of them, not yet skipped
};

// Walks a whole stream; throws Damage.
void walk_native(std::span<const uint8_t> stream, RecordSink& sink);

}  // namespace kestrel::stream

#endif
