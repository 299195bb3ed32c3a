// SPDX-License-Identifier: Apache-2.0
// Reading an RTP hint sample (ISO/IEC 14496-12, 9.1.3) field by field, with a trace at verbose
// level. Its names and exceptions are prescribed, so it is not built on ByteReader.
#ifndef KESTREL_PROPFILE_HINT_SAMPLE_PARSER_H
#define KESTREL_PROPFILE_HINT_SAMPLE_PARSER_H

#include <cstdint>

#include "native/codec/rtp_hint_sample.h"

struct _TAG_RTPsample3gp {
    uint16_t packetcount;
    uint16_t reserved;
};

struct _TAG_RTPpacket3gp {
    uint32_t relative_time;
    uint16_t rtp_header;  // P 0x2000, X 0x1000, M 0x0080, payload type 0x007F
    uint16_t sequence_seed;
    uint16_t flags;
    uint16_t entrycount;

    bool marker() const { return (rtp_header & 0x0080) != 0; }
    uint8_t payload_type() const { return rtp_header & 0x007F; }
};

// Every read is checked. Bytes outside the hint sample are thrown as the bare number
// kInvalidContent.
class HintSampleParser {
  public:
    static constexpr unsigned int kInvalidContent = 22136;

    HintSampleParser() = default;
    // Sets the end of the current hint sample.
    explicit HintSampleParser(const unsigned char* end) : m_pHintEnd(end) {}

    uint8_t GetAndAdvance8(const unsigned char** p) const;
    uint16_t GetAndAdvance16(const unsigned char** p) const;
    uint32_t GetAndAdvance32(const unsigned char** p) const;
    void GetRTPsample3gp(_TAG_RTPsample3gp* sample, const unsigned char** p) const;
    void GetRTPpacket3gp(_TAG_RTPpacket3gp* packet, const unsigned char** p) const;
    kestrel::SampleConstructor GetSampleConstructor(const unsigned char** p) const;
    // Skips `count` bytes.
    void Skip(const unsigned char** p, uint32_t count) const;

  protected:
    void Require(const unsigned char* p, uint32_t count) const;
    // Throws kInvalidContent for a hint sample that ends before its last constructor, before any
    // media data is read.
    void RequireWhole(const unsigned char* hint) const;
    // GetRTPpacket3gp without the trace. Returns the length of the extra information.
    uint32_t ReadPacket(_TAG_RTPpacket3gp* packet, const unsigned char** p) const;

    const unsigned char* m_pHintEnd = nullptr;
};

namespace kestrel {

// Writes a line of the trace, as bare text at verbose level. Without memory for the line it writes
// nothing. What runs for each packet or constructor tests kVerbose before it calls this.
__attribute__((format(printf, 1, 2))) void trace_hint_sample(const char* format, ...) noexcept;

}  // namespace kestrel

#endif
