// SPDX-License-Identifier: Apache-2.0
// The base of the frame writers. It rebuilds the RTP payloads of a hint sample in a frame buffer.
//
// A malformed hint sample is thrown as the bare number kInvalidContent, missing media data as
// kNoMediaYet, all else as SimpleException. A constructor with invalid content is dropped, at no
// more cost than a valid one.
#ifndef KESTREL_PROPFILE_BASE_H
#define KESTREL_PROPFILE_BASE_H

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "common/simple_exception.h"
#include "propfile/src/hint_sample_parser.h"
#include "propfile/src/media_source.h"

class PropFile : public HintSampleParser {
  public:
    static constexpr unsigned int kNoMediaYet = 4660;

    // `source` is the source path in the log lines about frames; it is not copied.
    // `packetHeader` is the number of bytes that the writer puts into the frame for each packet.
    PropFile(kestrel::MediaSource media, const char* source, uint32_t packetHeader)
        : m_pSource(source), m_uPacketHeader(packetHeader), m_Media(std::move(media)) {}
    PropFile(const PropFile&) = delete;
    PropFile& operator=(const PropFile&) = delete;
    virtual ~PropFile();

    virtual void FillOffsetTable() = 0;
    // Makes one frame of the hint sample set by LimitHintSample. `time` is its time in seconds.
    // When media data is missing, the frame is left empty; call again later. Throws kInvalidContent
    // for a malformed hint sample, and when every constructor was dropped.
    virtual void PacketizeFrame(const unsigned char* hint, double time) = 0;
    virtual void ProcessRTPnoopconstructor(const unsigned char** p);
    // Return the bytes added to the frame; 0 for a dropped one.
    virtual unsigned int ProcessRTPimmediateconstructor(const unsigned char** p);
    virtual unsigned int ProcessRTPsampleconstructor(const unsigned char** p);
    virtual unsigned int ProcessRTPsampledescriptionconstructor(const unsigned char** p);

    // Sets the end of the current hint sample. `again` means that its frame lacked media data
    // before.
    void LimitHintSample(const unsigned char* end, bool again = false);

    // The packets and constructors of the current hint sample that were read.
    uint64_t Work() const { return m_uPackets + m_uConstructors; }

    // Returns the bytes not yet taken, `*n` of them (`n` may be null).
    unsigned char* GetBuffer(unsigned int* n);
    unsigned int ByteCount() const { return m_uFill - m_uOffset; }
    // Takes `n` bytes. Throws SimpleException when there are fewer.
    void OffsetBytes(unsigned int n);
    static unsigned int GetPadding(unsigned int n);
    // Whole part in the high half, hundredths in the low half, as readers of the stream expect.
    static uint32_t To1616(double x);
    void FreeBuffers();

  protected:
    // Allocates the frame buffer and sets its limit. Without memory it throws, with the medium in
    // the message, and leaves the buffer empty.
    void AllocateFrame(uint32_t bytes, uint32_t most, const char* medium);
    void StartFrame() { m_uFill = m_uOffset = 0; }
    uint32_t fill() const { return m_uFill; }
    // Appends bytes to the frame. A frame that becomes too long is invalid content.
    void Append(const void* bytes, uint32_t count);
    // Overwrites a record in the frame.
    void Patch(uint32_t at, const void* bytes, uint32_t count);
    uint8_t ByteAt(uint32_t at) const { return m_Buffer[at]; }

    // Runs the constructors of a packet. Returns the bytes that they added.
    unsigned int ProcessConstructors(const unsigned char** cursor, unsigned int count);

    // Runs `build` on a hint sample that is whole. When it throws, empties the frame, runs `undo`
    // and throws on what the driver needs to know. A frame whose constructors were all dropped is
    // invalid content.
    template <class Build, class Undo>
    void GuardFrame(const unsigned char* hint, Build build, Undo undo);

    [[noreturn]] void ThrowUnhandled() const;

  private:
    bool HasRoom(uint32_t count) const { return HasRoom(count, m_uFill); }
    bool HasRoom(uint32_t count, uint32_t fill) const { return count <= m_uMostBytes - fill; }
    unsigned int ProcessConstructor(uint8_t type, const unsigned char** cursor);
    unsigned int Drop();
    void AskForRest(const unsigned char* hint, uint32_t fill);
    uint32_t AskForConstructor(const unsigned char* p, uint32_t fill);
    void LogDropped() const;
    void LogMissingMedia() const;
    void LogUnexpectedNumber() const;

    std::vector<unsigned char> m_Buffer;
    uint32_t m_uFill = 0;
    uint32_t m_uOffset = 0;
    const char* m_pSource;
    uint32_t m_uPacketHeader;
    kestrel::MediaSource m_Media;
    uint32_t m_uMostBytes = 0;
    // Of the current hint sample. A frame has at most 16 MiB, a hint sample less than 4 GiB.
    uint32_t m_uPackets = 0;
    uint32_t m_uConstructors = 0;
    uint32_t m_uDropped = 0;
    uint32_t m_uKept = 0;  // bytes at the start of the buffer from an earlier attempt
    // The constructor that lacks media data, and how many its packet has from there on.
    const unsigned char* m_pLacking = nullptr;
    uint32_t m_uLackingLeft = 0;
};

template <class Build, class Undo>
void PropFile::GuardFrame(const unsigned char* hint, Build build, Undo undo) {
    const auto empty = [&] {
        StartFrame();
        undo();
    };
    try {
        RequireWhole(hint);
        build();
        if (m_uConstructors > 0 && m_uDropped == m_uConstructors) throw kInvalidContent;
    } catch (unsigned int value) {
        m_uKept = value == kNoMediaYet ? std::max(m_uKept, m_uFill) : 0;
        const uint32_t filled = m_uFill;
        empty();
        if (value == kNoMediaYet) {
            LogMissingMedia();
            AskForRest(hint, filled);
            return;
        }
        LogUnexpectedNumber();
        throw;
    } catch (const SimpleException& caught) {
        empty();
        kestrel::log_caught(kestrel::kDebug, caught);
        throw;
    } catch (...) {
        empty();
        ThrowUnhandled();
    }
}

#endif
