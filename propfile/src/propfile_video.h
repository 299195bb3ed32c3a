// SPDX-License-Identifier: Apache-2.0
// The frame writers for video. A hint sample becomes a frame record, two words and the RTP payloads
// of its packets, each after a packet header, as in the function API.
#ifndef KESTREL_PROPFILE_VIDEO_H
#define KESTREL_PROPFILE_VIDEO_H

#include "kestrel/c3gpinterface.h"
#include "native/header_records.h"
#include "propfile/src/propfile_base.h"

class PropFileVideo : public PropFile {
  public:
    PropFileVideo(kestrel::MediaSource media, const kestrel::VideoFormat& format);
    ~PropFileVideo() override;

    void FillOffsetTable() override;
    void PacketizeFrame(const unsigned char* hint, double time) override;

    // Puts the stream header records into the buffer. The index record, which is empty in the
    // function API, has the frame rate from To1616 in its first word. Returns true or throws
    // SimpleException.
    virtual bool Open(const _TAG_VIDEO_OPEN_PARAMS* params);
    virtual void Close();
    virtual void AllocBuffers();

    // Returns the payload bytes that the packet added.
    unsigned int ProcessPacket(const unsigned char** cursor, double time);

    // Bytes of the codec record and the codec configuration record.
    uint32_t GetCodecHeaderSize() const;

  protected:
    // Appends those two records.
    virtual void SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) = 0;

    template <class Record>
    void Put(const Record& record) {
        Append(&record, sizeof record);
    }
    const kestrel::VideoFormat& format() const { return m_Format; }

  private:
    void BuildFrame(const unsigned char* hint, double time);

    const kestrel::VideoFormat& m_Format;
    uint32_t m_uFrameRecord = 0;  // offsets in the buffer
    uint32_t m_uFrameWords = 0;
    uint32_t m_uPackets = 0;
    uint32_t m_uFirstSize = 0;  // of the buffer, bytes
};

// H.263 with RFC 2190 payloads.
class PropFileVideoH263 : public PropFileVideo {
  public:
    explicit PropFileVideoH263(kestrel::MediaSource media)
        : PropFileVideoH263(std::move(media), kestrel::kH263Format) {}
    ~PropFileVideoH263() override;

  protected:
    PropFileVideoH263(kestrel::MediaSource media, const kestrel::VideoFormat& format)
        : PropFileVideo(std::move(media), format) {}
    void SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) override;
};

// H.263 with RFC 4629 payloads.
class PropFileVideoH263_1998 : public PropFileVideoH263 {
  public:
    explicit PropFileVideoH263_1998(kestrel::MediaSource media)
        : PropFileVideoH263(std::move(media), kestrel::kH263PlusFormat) {}
    ~PropFileVideoH263_1998() override;
};

class PropFileVideoMPEG4 : public PropFileVideo {
  public:
    explicit PropFileVideoMPEG4(kestrel::MediaSource media)
        : PropFileVideo(std::move(media), kestrel::kMpeg4Format) {}
    ~PropFileVideoMPEG4() override;

  protected:
    void SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) override;
};

#endif
