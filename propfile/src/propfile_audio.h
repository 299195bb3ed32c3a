// SPDX-License-Identifier: Apache-2.0
// The frame writer for AMR narrow band: each hint sample becomes a frame header, a zero word and
// the RTP payloads (RFC 4867, octet-aligned) of its packets.
#ifndef KESTREL_PROPFILE_AUDIO_H
#define KESTREL_PROPFILE_AUDIO_H

#include "kestrel/c3gpinterface.h"
#include "propfile/src/propfile_base.h"

class PropFileAudio : public PropFile {
  public:
    explicit PropFileAudio(kestrel::MediaSource media);
    ~PropFileAudio() override;

    void FillOffsetTable() override;
    void PacketizeFrame(const unsigned char* hint, double time) override;

    // Puts the stream header records into the buffer. Returns true or throws SimpleException.
    virtual bool Open(const _TAG_AUDIO_OPEN_PARAMS* params);
    virtual void Close();
    virtual void AllocBuffers();

    // Returns the payload bytes that the packet added.
    unsigned int ProcessPacket(const unsigned char** cursor, double time);

  private:
    void BuildFrame(const unsigned char* hint, double time);
    uint16_t SpeechStarts(uint32_t payload, unsigned int bytes);

    // Offsets in the buffer. Header records and frames use the same bytes, one after the other.
    uint32_t m_uStreamHeader = 0;
    uint32_t m_uCodecHeader = 0;
    uint32_t m_uIndex = 0;
    uint32_t m_uDuration = 0;
    uint32_t m_uFrameHeader = 0;
    uint32_t m_uFrameLengthWord = 0;
    uint32_t m_uPayload = 0;
    uint32_t m_uPreviousFrameType = 0;
    uint32_t m_uCoder = 0;
    uint32_t m_uClockFreq = 0;
};

// The platform's codes; 0 for none.
uint32_t GetAMRCoding(uint32_t bitsPerSecond);
uint32_t SampleRateHZ_to_MM(uint32_t hertz);
// 0 for every bit rate.
uint32_t GetAMRBitsPerSample(uint32_t bitsPerSecond);

#endif
