// SPDX-License-Identifier: Apache-2.0
#include "propfile/src/propfile_base.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/clock.h"
#include "common/log_sources.h"

using namespace kestrel;

namespace {

constexpr uint32_t kTypeByte = 1;

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

static void trace_fields(const SampleConstructor& fields) {
    trace_hint_sample(
        "trackrefindex(8):        %d\nlength(16):              %d\nsamplenumber(32):        %d\n"
        "sampleoffset(32):        %d\nbytesperblock(16):       %d\nsamplesperblock(16):     %d\n",
        fields.track_reference, fields.length, fields.sample_number, fields.sample_offset,
        fields.bytes_per_block, fields.samples_per_block);
}

void PropFile::ProcessRTPnoopconstructor(const unsigned char** p) {
    trace_hint_sample("RTPnoopconstructor\n");
    Skip(p, kConstructorSize - kTypeByte);
}

unsigned int PropFile::ProcessRTPimmediateconstructor(const unsigned char** p) {
    const bool traced = kVerbose.enabled();
    if (traced) trace_hint_sample("RTPimmediateconstructor\n");
    const uint32_t count = GetAndAdvance8(p);
    if (traced) {
        trace_hint_sample("count(8):                %d\n", count);
        trace_hint_sample("  padding:               %d\n", static_cast<int>(kMaxImmediate - count));
    }
    const unsigned char* data = *p;
    Skip(p, kMaxImmediate);
    if (count > kMaxImmediate || !HasRoom(count)) return Drop();
    if (traced) {
        trace_hint_sample("  data: ");
        for (uint32_t i = 0; i < count; ++i)
            trace_hint_sample("%02X ", data[i]);
    }
    Append(data, count);
    return count;
}

unsigned int PropFile::ProcessRTPsampleconstructor(const unsigned char** p) {
    const bool traced = kVerbose.enabled();
    if (traced) trace_hint_sample("RTPsampleconstructor\n");
    const SampleConstructor fields = GetSampleConstructor(p);
    if (traced) trace_fields(fields);
    if (!HasRoom(fields.length)) return Drop();
    const bool kept = m_uFill + fields.length <= m_uKept;
    const unsigned char* bytes = nullptr;
    switch (m_Media(fields.sample_number, fields.sample_offset, fields.length,
                    kept ? nullptr : &bytes)) {
        case Fetched::kNotYet:
            throw kNoMediaYet;
        case Fetched::kInvalid:
            return Drop();
        case Fetched::kBytes:
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
    trace_hint_sample("RTPsampledescriptionconstructor\n");
    const uint8_t track_reference = GetAndAdvance8(p);
    const uint16_t length = GetAndAdvance16(p);
    const uint32_t index = GetAndAdvance32(p);
    const uint32_t offset = GetAndAdvance32(p);
    GetAndAdvance32(p);  // reserved
    trace_hint_sample(
        "trackrefindex(8):        %d\nlength(16):              %d\n"
        "sampledescriptionindex(32): %d\nsampledescriptionoffset(32): %d\n",
        track_reference, length, index, offset);
    return 0;
}

unsigned int PropFile::ProcessConstructor(uint8_t type, const unsigned char** cursor) {
    switch (type) {
        case kNoopConstructor:
            ProcessRTPnoopconstructor(cursor);
            return 0;
        case kImmediateConstructor:
            return ProcessRTPimmediateconstructor(cursor);
        case kSampleConstructor:
            return ProcessRTPsampleconstructor(cursor);
        case kDescriptionConstructor:
            return ProcessRTPsampledescriptionconstructor(cursor);
        default:
            return 0;
    }
}

// Drops a constructor with invalid content.
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
        if (kVerbose.enabled()) trace_hint_sample("constructor_type(8):     %d\n", type);
        ++m_uConstructors;
        try {
            added += ProcessConstructor(type, cursor);
        } catch (unsigned int value) {
            // Constructors of a derived writer may throw; those here throw for missing media only.
            if (value == kInvalidContent) {
                Drop();
            } else {
                if (value != kNoMediaYet) LogUnexpectedNumber();
                m_pLacking = next - kConstructorSize;
                m_uLackingLeft = count;
                throw;
            }
        }
        *cursor = next;
    }
    return added;
}

// Asks the media source, without taking bytes, for all that the rest of the frame needs, so that it
// reports what arrives last. `fill` is what the frame has. Constructors that will be dropped need
// nothing.
void PropFile::AskForRest(const unsigned char* hint, uint32_t fill) {
    const unsigned char* p = m_pLacking;
    uint32_t count = m_uLackingLeft;
    for (uint32_t packets = GetAndAdvance16(&hint) - m_uPackets;; --packets) {
        for (; count > 0; --count, p += kConstructorSize)
            fill += AskForConstructor(p, fill);
        if (packets == 0 || !HasRoom(m_uPacketHeader, fill)) return;
        _TAG_RTPpacket3gp packet{};
        ReadPacket(&packet, &p);
        count = packet.entrycount;
        fill += m_uPacketHeader;
    }
}

// Returns the bytes that the constructor will add to a frame of `fill` bytes.
uint32_t PropFile::AskForConstructor(const unsigned char* p, uint32_t fill) {
    const uint8_t type = GetAndAdvance8(&p);
    uint32_t length = 0;
    bool valid = false;
    if (type == kImmediateConstructor) {
        length = GetAndAdvance8(&p);
        valid = length <= kMaxImmediate && HasRoom(length, fill);
    } else if (type == kSampleConstructor) {
        const SampleConstructor from = GetSampleConstructor(&p);
        length = from.length;
        valid = HasRoom(length, fill) &&
                m_Media(from.sample_number, from.sample_offset, length, nullptr) == Fetched::kBytes;
    }
    return valid ? length : 0;
}

unsigned char* PropFile::GetBuffer(unsigned int* n) {
    if (n != nullptr) *n = ByteCount();
    return m_Buffer.empty() ? nullptr : m_Buffer.data() + m_uOffset;
}

void PropFile::OffsetBytes(unsigned int n) {
    if (n > ByteCount()) {
        throw SimpleException(kWriterSource, __LINE__,
                              "Invalid offset - %d bytes requested, %d available", n, ByteCount());
    }
    m_uOffset += n;
    log_line(kVerbose, at(kWriterSource), "Set offset to %d", m_uOffset);
}

unsigned int PropFile::GetPadding(unsigned int n) {
    const unsigned int padding = (n + 3) / 4 * 4 - n;
    log_line(kVerbose, at(kWriterSource), "Padding size: %d", padding);
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

void PropFile::AllocateFrame(uint32_t bytes, uint32_t most, const char* medium) {
    try {
        m_Buffer.assign(bytes, 0);
    } catch (const std::bad_alloc&) {
        FreeBuffers();
        const SimpleException failure(m_pSource, __LINE__,
                                      "Unable to allocate %d bytes for %s frame", bytes, medium);
        log_caught(kDebug, failure);
        throw failure;
    }
    m_uMostBytes = most;
    StartFrame();
}

void PropFile::Append(const void* bytes, uint32_t count) {
    if (!HasRoom(count)) throw kInvalidContent;
    const size_t needed = size_t{m_uFill} + count;
    if (needed > m_Buffer.size()) {
        const size_t grown = std::min<size_t>(std::max(needed, 2 * m_Buffer.size()), m_uMostBytes);
        m_Buffer.reserve(grown);  // exact; resize() would double
        m_Buffer.resize(grown);
    }
    if (count > 0) std::memcpy(m_Buffer.data() + m_uFill, bytes, count);
    m_uFill += count;
}

void PropFile::Patch(uint32_t at, const void* bytes, uint32_t count) {
    std::memcpy(m_Buffer.data() + at, bytes, count);
}
