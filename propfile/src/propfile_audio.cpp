// SPDX-License-Identifier: Apache-2.0
#include "propfile/src/propfile_audio.h"

#include <cmath>
#include <cstddef>
#include <cstring>

#include "common/clock.h"
#include "common/log_sources.h"
#include "kestrel/native_records.h"
#include "native/codec/amr_format.h"

using namespace kestrel;

namespace {

constexpr uint32_t kBufferBytes = 1568;
constexpr uint32_t kHeaderLength = sizeof(PROP_Header_Info) + sizeof(AUD_Codec_Header) +
                                   sizeof(AUD_Header_IndxInfo) + sizeof(VID_FileInfo);
constexpr uint32_t kNoData = 15;  // AMR frame type

struct CodeOf {
    uint32_t value;
    uint32_t code;
};

constexpr CodeOf kSamplingRates[] = {{6000, 48}, {8000, 64}, {11000, 88}};

template <size_t N>
uint32_t code_of(const CodeOf (&table)[N], uint32_t value) {
    for (const CodeOf& row : table) {
        if (row.value == value) return row.code;
    }
    return 0;
}

}  // namespace

uint32_t GetAMRCoding(uint32_t bitsPerSecond) {
    for (const NarrowBandMode& mode : kNarrowBandModes) {
        if (mode.bits_per_second == bitsPerSecond) return mode.native_coding;
    }
    return 0;
}

uint32_t SampleRateHZ_to_MM(uint32_t hertz) {
    return code_of(kSamplingRates, hertz);
}

uint32_t GetAMRBitsPerSample(uint32_t) {
    return 0;
}

PropFileAudio::PropFileAudio(MediaSource media)
    : PropFile(std::move(media), kAudioWriterSource, 0) {}

PropFileAudio::~PropFileAudio() = default;

void PropFileAudio::FillOffsetTable() {
    m_uStreamHeader = 0;
    m_uCodecHeader = sizeof(PROP_Header_Info);
    m_uIndex = m_uCodecHeader + sizeof(AUD_Codec_Header);
    m_uDuration = m_uIndex + sizeof(AUD_Header_IndxInfo);
    m_uFrameHeader = 0;
    m_uFrameLengthWord = sizeof(AUD_AudFrame_Native);
    m_uPayload = m_uFrameLengthWord + sizeof(uint32_t);
}

void PropFileAudio::AllocBuffers() {
    log_line(kDebug, at(kAudioWriterSource), "Allocating %d bytes for audio frame", kBufferBytes);
    AllocateFrame(kBufferBytes, kBufferBytes, "Audio");
}

bool PropFileAudio::Open(const _TAG_AUDIO_OPEN_PARAMS* params) {
    FillOffsetTable();
    AllocBuffers();
    m_uCoder = params->uCoder;
    m_uClockFreq = params->uClockFreq;
    // The index record, and the last record except its duration, stay zero.
    static constexpr uint8_t kNothing[kHeaderLength] = {};
    Append(kNothing, kHeaderLength);
    const uint32_t padding = GetPadding(kHeaderLength);
    PROP_Header_Info prop{{}, kHeaderLength + padding, kPropConstant, padding, params->uFrameCount};
    std::memcpy(prop.medium, kAudioMedium, sizeof prop.medium);
    Patch(m_uStreamHeader, &prop, sizeof prop);
    const AUD_Codec_Header codec{sizeof codec, GetAMRCoding(params->uBitRate),
                                 SampleRateHZ_to_MM(m_uClockFreq),
                                 GetAMRBitsPerSample(params->uBitRate)};
    Patch(m_uCodecHeader, &codec, sizeof codec);
    Patch(m_uDuration, &params->uDuration, sizeof params->uDuration);
    return true;
}

void PropFileAudio::Close() {
    FreeBuffers();
}

void PropFileAudio::PacketizeFrame(const unsigned char* hint, double time) {
    const uint32_t before = m_uPreviousFrameType;
    GuardFrame(
        hint, [&] { BuildFrame(hint, time); }, [&] { m_uPreviousFrameType = before; });
}

void PropFileAudio::BuildFrame(const unsigned char* hint, double time) {
    const unsigned char* cursor = hint;
    StartFrame();
    _TAG_RTPsample3gp sample{};
    GetRTPsample3gp(&sample, &cursor);
    uint32_t length = m_uPayload;
    const AUD_AudFrame_Native header{length, m_uCoder, 0, 0, 0, 0};
    Append(&header, sizeof header);
    const uint32_t length_word = 0;
    Append(&length_word, sizeof length_word);
    for (unsigned int i = 1; i <= sample.packetcount; ++i) {
        log_line(kVerbose, at(kAudioWriterSource), "---Packet %d---\n", i);
        length += ProcessPacket(&cursor, time);
    }
    Patch(m_uFrameHeader, &length, sizeof length);
    log_line(kVerbose, at(kAudioWriterSource),
             "Parsed %d bytes from the hint track.  Audio Framesize: %d\n",
             static_cast<int>(cursor - hint), length);
}

unsigned int PropFileAudio::ProcessPacket(const unsigned char** cursor, double time) {
    const uint32_t payload = fill();
    _TAG_RTPpacket3gp packet{};
    GetRTPpacket3gp(&packet, cursor);
    // Divide last, so that a whole number of ticks stays whole.
    const double ms = std::floor(time * 1000 + 0.5);
    const uint32_t timestamp = truncate_to_u32(m_uClockFreq * ms / 1000.0);
    const unsigned int bytes = [&] {
        AUD_AudFrame_Native header{0, m_uCoder, timestamp, timestamp, packet.sequence_seed, 0};
        Patch(m_uFrameHeader + offsetof(AUD_AudFrame_Native, coder), &header.coder,
              sizeof header - offsetof(AUD_AudFrame_Native, coder));
        return ProcessConstructors(cursor, packet.entrycount);
    }();
    const uint16_t flag = SpeechStarts(payload, bytes);
    Patch(m_uFrameHeader + offsetof(AUD_AudFrame_Native, flag), &flag, sizeof flag);
    log_line(kVerbose, at(kAudioWriterSource), "Packet contains %d bytes", bytes);
    return bytes;
}

// Returns 1 for speech after a frame without data. The table of contents follows the codec mode
// request (RFC 4867, 4.3); a payload without it returns 0.
uint16_t PropFileAudio::SpeechStarts(uint32_t payload, unsigned int bytes) {
    constexpr unsigned int kContents = 1;
    if (bytes <= kContents) return 0;
    const auto type = static_cast<uint32_t>(storage_frame_type(ByteAt(payload + kContents)));
    const bool starts = type != kNoData && m_uPreviousFrameType == kNoData;
    m_uPreviousFrameType = type;
    return starts ? 1 : 0;
}
