// SPDX-License-Identifier: Apache-2.0
#include "propfile/src/hint_sample_parser.h"

#include <cstdarg>
#include <new>

#include "common/bytes.h"
#include "common/log_sources.h"
#include "common/simple_exception.h"

using namespace kestrel;

namespace {

unsigned bit(uint16_t value, uint16_t mask) {
    return (value & mask) != 0 ? 1 : 0;
}

void trace_packet(const _TAG_RTPpacket3gp& packet) {
    trace_hint_sample(
        "relative_time(32):       0x%08X\nRTPheader(16):           0x%04X\n"
        "  P_bit:                 0x%01X\n  X_bit:                 0x%01X\n"
        "  M_bit:                 0x%01X\n  payload_type:          0x%02X\n",
        packet.relative_time, packet.rtp_header, bit(packet.rtp_header, 0x2000),
        bit(packet.rtp_header, 0x1000), bit(packet.rtp_header, 0x0080), packet.payload_type());
    trace_hint_sample(
        "RTPsequenceseed(16):     0x%04X\nRTPflags(16):            0x%04X\n"
        "  extra_flag:            0x%01X\n  bframe_flag:           0x%01X\n"
        "  repeat_flag:           0x%01X\nentrycount(16):          %d\n",
        packet.sequence_seed, packet.flags, bit(packet.flags, kExtraInformation),
        bit(packet.flags, 0x0002), bit(packet.flags, 0x0001), packet.entrycount);
}

}  // namespace

void kestrel::trace_hint_sample(const char* format, ...) noexcept {
    if (!kVerbose.enabled()) return;
    va_list arguments;
    va_start(arguments, format);
    try {
        SimpleException::from_arguments(kWriterSource, 0, format, arguments).LogPlain("");
    } catch (const std::bad_alloc&) {
    }
    va_end(arguments);
}

void HintSampleParser::Require(const unsigned char* p, uint32_t count) const {
    if (m_pHintEnd == nullptr || p > m_pHintEnd || static_cast<size_t>(m_pHintEnd - p) < count) {
        throw kInvalidContent;
    }
}

void HintSampleParser::Skip(const unsigned char** p, uint32_t count) const {
    Require(*p, count);
    *p += count;
}

uint8_t HintSampleParser::GetAndAdvance8(const unsigned char** p) const {
    const unsigned char* from = *p;
    Skip(p, 1);
    return *from;
}

uint16_t HintSampleParser::GetAndAdvance16(const unsigned char** p) const {
    const unsigned char* from = *p;
    Skip(p, 2);
    return load_be16(from);
}

uint32_t HintSampleParser::GetAndAdvance32(const unsigned char** p) const {
    const unsigned char* from = *p;
    Skip(p, 4);
    return load_be32(from);
}

void HintSampleParser::GetRTPsample3gp(_TAG_RTPsample3gp* sample, const unsigned char** p) const {
    sample->packetcount = GetAndAdvance16(p);
    sample->reserved = GetAndAdvance16(p);
    trace_hint_sample("packetcount: %d\n", sample->packetcount);
}

// Reads a packet entry and skips its extra information. Returns the length of the latter.
uint32_t HintSampleParser::ReadPacket(_TAG_RTPpacket3gp* packet, const unsigned char** p) const {
    packet->relative_time = GetAndAdvance32(p);
    packet->rtp_header = GetAndAdvance16(p);
    packet->sequence_seed = GetAndAdvance16(p);
    packet->flags = GetAndAdvance16(p);
    packet->entrycount = GetAndAdvance16(p);
    if ((packet->flags & kExtraInformation) == 0) return 0;
    const uint32_t length = GetAndAdvance32(p);
    if (length < kExtraLengthSize) throw kInvalidContent;
    Skip(p, length - kExtraLengthSize);
    return length;
}

void HintSampleParser::GetRTPpacket3gp(_TAG_RTPpacket3gp* packet, const unsigned char** p) const {
    const uint32_t extra = ReadPacket(packet, p);
    if (kVerbose.enabled()) trace_packet(*packet);
    if (extra > 0) trace_hint_sample("extra_information_length(32): %d\n", extra);
}

void HintSampleParser::RequireWhole(const unsigned char* hint) const {
    unsigned int packets = GetAndAdvance16(&hint);
    Skip(&hint, sizeof(_TAG_RTPsample3gp::reserved));
    for (_TAG_RTPpacket3gp packet{}; packets > 0; --packets) {
        ReadPacket(&packet, &hint);
        Skip(&hint, packet.entrycount * kConstructorSize);
    }
}

SampleConstructor HintSampleParser::GetSampleConstructor(const unsigned char** p) const {
    SampleConstructor fields{};
    fields.track_reference = GetAndAdvance8(p);
    fields.length = GetAndAdvance16(p);
    fields.sample_number = GetAndAdvance32(p);
    fields.sample_offset = GetAndAdvance32(p);
    fields.bytes_per_block = GetAndAdvance16(p);
    fields.samples_per_block = GetAndAdvance16(p);
    return fields;
}
