// Walking a native stream record by record.
#ifndef KESTREL_TOOLS_NATIVE_WALK_H
#define KESTREL_TOOLS_NATIVE_WALK_H

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace tool {

// A field of a record: a number, or bytes shown in hex, or a text.
struct Field {
    std::string name;
    std::variant<uint32_t, std::span<const uint8_t>, std::string> value;
};

// One record of a stream, with the payload that follows its fields.
struct StreamRecord {
    size_t offset = 0;  // in the stream
    std::string name;
    std::vector<Field> fields;
    std::span<const uint8_t> payload;
};

// What a stream carries. The two kinds of H.263 differ in the payload header of their packets:
// RFC 2190 or RFC 4629.
enum class Medium { kNarrowBandSpeech, kWideBandSpeech, kH263Rfc2190, kH263Rfc4629, kMpeg4, kH264 };

// Takes the records as the walk comes to them.
class RecordSink {
  public:
    RecordSink() = default;
    RecordSink(const RecordSink&) = delete;
    RecordSink& operator=(const RecordSink&) = delete;
    virtual ~RecordSink() = default;

    virtual void record(const StreamRecord&) {}
    // Called once, behind the last header record, with the decoder configuration of MPEG-4.
    virtual void medium(Medium, std::span<const uint8_t>) {}
    // A speech frame in storage format: its header byte, then its bits.
    virtual void speech_frame(std::span<const uint8_t>) {}
    // The payload of a video packet: what RTP would carry.
    virtual void video_packet(std::span<const uint8_t>) {}
};

// Where a stream stops making sense, and why.
struct Damage {
    size_t offset;
    std::string reason;
};

// Walks the whole stream; throws Damage at the first place that makes no sense.
void walk_native(std::span<const uint8_t> stream, RecordSink& sink);

}  // namespace tool

#endif
