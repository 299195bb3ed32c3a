#include "propfile/src/propfile_base.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/bytes.h"
#include "common/clock.h"
#include "kestrel/c3gpinterface.h"

using namespace kestrel;

namespace {

constexpr const char* kSource = ".//propfile/src/propfile_base";
constexpr uint16_t kExtraFlag = 0x0004;
constexpr uint32_t kImmediateData = 14;
constexpr uint32_t kTypeByte = 1;

// Writes a line of the hint sample's trace: its bare text, at the verbose level. Without memory for
// the line the work goes on without it.
__attribute__((format(printf, 1, 2))) void trace(const char* format, ...) noexcept {
    if (!kVerbose.enabled()) return;
    va_list arguments;
    va_start(arguments, format);
    try {
        SimpleException::from_arguments(kSource, 0, format, arguments).LogPlain("");
    } catch (const std::bad_alloc&) {
    }
    va_end(arguments);
}

unsigned bit(uint16_t value, uint16_t mask) {
    return (value & mask) != 0 ? 1 : 0;
}

void trace_packet(const _TAG_RTPpacket3gp& packet) {
    trace(
        "relative_time(32):       0x%08X\nRTPheader(16):           0x%04X\n"
        "  P_bit:                 0x%01X\n  X_bit:                 0x%01X\n"
        "  M_bit:                 0x%01X\n  payload_type:          0x%02X\n",
        packet.relative_time, packet.rtp_header, bit(packet.rtp_header, 0x2000),
        bit(packet.rtp_header, 0x1000), bit(packet.rtp_header, 0x0080), packet.payload_type());
    trace(
        "RTPsequenceseed(16):     0x%04X\nRTPflags(16):            0x%04X\n"
        "  extra_flag:            0x%01X\n  bframe_flag:           0x%01X\n"
        "  repeat_flag:           0x%01X\nentrycount(16):          %d\n",
        packet.sequence_seed, packet.flags, bit(packet.flags, kExtraFlag),
        bit(packet.flags, 0x0002), bit(packet.flags, 0x0001), packet.entrycount);
}

}  // namespace

PropFile::~PropFile() = default;

void PropFile::LogDropped() const {
    log_line(kVerbose, at(m_pSource), "Dropped Hint Track Sample due to invalid content");
}

void PropFile::LogMissingMedia() const {
    log_line(kVerbose, at(m_pSource), "Waiting for more FIO data...");
}

void PropFile::LogUnexpectedNumber() const {
    log_line(kWarning, at(m_pSource),
             "caught unexpected UInt32 exception from ProcessPacket(). Rethrowing...");
}

void PropFile::ThrowUnhandled() const {
    throw SimpleException(m_pSource, __LINE__, "%s", kUnhandledThrown);
}

void PropFile::LimitHintSample(const unsigned char* end, bool again) {
    m_pHintEnd = end;
    m_uPackets = m_uConstructors = m_uDropped = 0;
    if (!again) m_uKept = 0;
}

void PropFile::Require(const unsigned char* p, uint32_t count) const {
    if (m_pHintEnd == nullptr || p > m_pHintEnd || static_cast<size_t>(m_pHintEnd - p) < count) {
        throw kInvalidContent;
    }
}

void PropFile::Skip(const unsigned char** p, uint32_t count) const {
    Require(*p, count);
    *p += count;
}

uint8_t PropFile::GetAndAdvance8(const unsigned char** p) const {
    const unsigned char* from = *p;
    Skip(p, 1);
    return *from;
}

uint16_t PropFile::GetAndAdvance16(const unsigned char** p) const {
    const unsigned char* from = *p;
    Skip(p, 2);
    return load_be16(from);
}

uint32_t PropFile::GetAndAdvance32(const unsigned char** p) const {
    const unsigned char* from = *p;
    Skip(p, 4);
    return load_be32(from);
}

void PropFile::GetRTPsample3gp(_TAG_RTPsample3gp* sample, const unsigned char** p) const {
    sample->packetcount = GetAndAdvance16(p);
    sample->reserved = GetAndAdvance16(p);
    trace("packetcount: %d\n", sample->packetcount);
}

// Passes over a packet's extra information, if it has any; returns its length.
uint32_t PropFile::ReadPacket(_TAG_RTPpacket3gp* packet, const unsigned char** p) const {
    packet->relative_time = GetAndAdvance32(p);
    packet->rtp_header = GetAndAdvance16(p);
    packet->sequence_seed = GetAndAdvance16(p);
    packet->flags = GetAndAdvance16(p);
    packet->entrycount = GetAndAdvance16(p);
    if ((packet->flags & kExtraFlag) == 0) return 0;
    const uint32_t length = GetAndAdvance32(p);
    if (length < sizeof length) throw kInvalidContent;  // it counts its own four bytes
    Skip(p, static_cast<uint32_t>(length - sizeof length));
    return length;
}

void PropFile::GetRTPpacket3gp(_TAG_RTPpacket3gp* packet, const unsigned char** p) const {
    const uint32_t extra = ReadPacket(packet, p);
    trace_packet(*packet);
    if (extra > 0) trace("extra_information_length(32): %d\n", extra);
}

void PropFile::RequireWhole(const unsigned char* hint) const {
    unsigned int packets = GetAndAdvance16(&hint);
    Skip(&hint, sizeof(_TAG_RTPsample3gp::reserved));
    for (_TAG_RTPpacket3gp packet{}; packets > 0; --packets) {
        ReadPacket(&packet, &hint);
        Skip(&hint, packet.entrycount * kConstructorSize);
    }
}

void PropFile::ProcessRTPnoopconstructor(const unsigned char** p) {
    trace("RTPnoopconstructor\n");
    Skip(p, kConstructorSize - kTypeByte);
}

unsigned int PropFile::ProcessRTPimmediateconstructor(const unsigned char** p) {
    trace("RTPimmediateconstructor\n");
    const uint32_t count = GetAndAdvance8(p);
    trace("count(8):                %d\n", count);
    trace("  padding:               %d\n", static_cast<int>(kImmediateData - count));
    const unsigned char* data = *p;
    Skip(p, kImmediateData);
    if (count > kImmediateData || !HasRoom(count)) return Drop();
    trace("  data: ");
    for (uint32_t i = 0; i < count; ++i)
        trace("%02X ", data[i]);
    Append(data, count);
    return count;
}

PropFile::SampleConstructor PropFile::GetSampleConstructor(const unsigned char** p) const {
    SampleConstructor fields{};
    fields.track_reference = GetAndAdvance8(p);
    fields.length = GetAndAdvance16(p);
    fields.sample_number = GetAndAdvance32(p);
    fields.sample_offset = GetAndAdvance32(p);
    fields.bytes_per_block = GetAndAdvance16(p);
    fields.samples_per_block = GetAndAdvance16(p);
    return fields;
}

unsigned int PropFile::ProcessRTPsampleconstructor(const unsigned char** p) {
    trace("RTPsampleconstructor\n");
    const SampleConstructor fields = GetSampleConstructor(p);
    trace(
        "trackrefindex(8):        %d\nlength(16):              %d\nsamplenumber(32):        %d\n"
        "sampleoffset(32):        %d\nbytesperblock(16):       %d\nsamplesperblock(16):     %d\n",
        fields.track_reference, fields.length, fields.sample_number, fields.sample_offset,
        fields.bytes_per_block, fields.samples_per_block);
    if (!HasRoom(fields.length)) return Drop();
    const bool kept = m_uFill + fields.length <= m_uKept;
    const unsigned char* bytes = nullptr;
    switch (m_pDriver->GetMediaSample(fields.sample_number, fields.sample_offset, fields.length,
                                      kept ? nullptr : &bytes)) {
        case C3gpInterface::Fetched::kNotYet:
            throw kNoMediaYet;
        case C3gpInterface::Fetched::kInvalid:
            return Drop();
        case C3gpInterface::Fetched::kBytes:
            break;
    }
    if (kept) {
        m_uFill += fields.length;
    } else {
        Append(bytes, fields.length);
    }
    return fields.length;
}

unsigned int PropFile::ProcessRTPsampledescriptionconstructor(const unsigned char** p) {
    trace("RTPsampledescriptionconstructor\n");
    const uint8_t track_reference = GetAndAdvance8(p);
    const uint16_t length = GetAndAdvance16(p);
    const uint32_t index = GetAndAdvance32(p);
    const uint32_t offset = GetAndAdvance32(p);
    GetAndAdvance32(p);  // reserved
    trace(
        "trackrefindex(8):        %d\nlength(16):              %d\n"
        "sampledescriptionindex(32): %d\nsampledescriptionoffset(32): %d\n",
        track_reference, length, index, offset);
    return 0;
}

unsigned int PropFile::ProcessConstructor(uint8_t type, const unsigned char** cursor) {
    switch (type) {
        case kNoop:
            ProcessRTPnoopconstructor(cursor);
            return 0;
        case kImmediate:
            return ProcessRTPimmediateconstructor(cursor);
        case kSample:
            return ProcessRTPsampleconstructor(cursor);
        case kDescription:
            return ProcessRTPsampledescriptionconstructor(cursor);
        default:
            return 0;
    }
}

// Leaves out a constructor of invalid content.
unsigned int PropFile::Drop() {
    ++m_uDropped;
    LogDropped();
    return 0;
}

unsigned int PropFile::ProcessConstructors(const unsigned char** cursor, unsigned int count) {
    ++m_uPackets;
    unsigned int added = 0;
    for (; count > 0; --count) {
        Require(*cursor, kConstructorSize);
        const unsigned char* next = *cursor + kConstructorSize;
        const uint8_t type = GetAndAdvance8(cursor);
        trace("constructor_type(8):     %d\n", type);
        ++m_uConstructors;
        try {
            added += ProcessConstructor(type, cursor);
        } catch (unsigned int value) {
            // A writer's own constructors may throw; those here throw for missing media only.
            if (value == kInvalidContent) {
                Drop();
            } else {
                if (value != kNoMediaYet) LogUnexpectedNumber();
                throw;
            }
        }
        *cursor = next;
    }
    return added;
}

unsigned char* PropFile::GetBuffer(unsigned int* n) {
    if (n != nullptr) *n = ByteCount();
    return m_Buffer.empty() ? nullptr : m_Buffer.data() + m_uOffset;
}

void PropFile::OffsetBytes(unsigned int n) {
    if (n > ByteCount()) {
        throw SimpleException(kSource, __LINE__,
                              "Invalid offset - %d bytes requested, %d available", n, ByteCount());
    }
    m_uOffset += n;
    log_line(kVerbose, at(kSource), "Set offset to %d", m_uOffset);
}

unsigned int PropFile::GetPadding(unsigned int n) {
    const unsigned int padding = (n + 3) / 4 * 4 - n;
    log_line(kVerbose, at(kSource), "Padding size: %d", padding);
    return padding;
}

uint32_t PropFile::To1616(double x) {
    const uint32_t hundredths = truncate_to_u32(x * 100 + 0.5);
    return hundredths / 100 << 16 | hundredths % 100;
}

void PropFile::FreeBuffers() {
    std::vector<unsigned char>().swap(m_Buffer);
    StartFrame();
}

void PropFile::AllocateFrame(uint32_t bytes, uint32_t most) {
    m_Buffer.assign(bytes, 0);
    m_uMostBytes = most;
    StartFrame();
}

void PropFile::Append(const void* bytes, uint32_t count) {
    if (!HasRoom(count)) throw kInvalidContent;
    const size_t needed = size_t{m_uFill} + count;
    if (needed > m_Buffer.size()) {
        const size_t grown = std::min<size_t>(std::max(needed, 2 * m_Buffer.size()), m_uMostBytes);
        m_Buffer.reserve(grown);  // exactly; resizing alone would double again
        m_Buffer.resize(grown);
    }
    if (count > 0) std::memcpy(m_Buffer.data() + m_uFill, bytes, count);
    m_uFill += count;
}

void PropFile::Patch(uint32_t at, const void* bytes, uint32_t count) {
    std::memcpy(m_Buffer.data() + at, bytes, count);
}
