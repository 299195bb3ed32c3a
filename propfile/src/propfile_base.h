// SPDX-License-Identifier: Apache-2.0
// The frame writers' base: it rebuilds the payloads of the packets of an RTP hint sample in a frame
// buffer.
//
// A hint sample that is malformed is thrown as the bare number kInvalidContent, media data that has
// not arrived as kNoMediaYet; everything else is SimpleException. A constructor of invalid content
// is dropped, at no more cost than one that is followed.
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

    // `source` is the path that the log lines about frames carry; it is not copied.
    PropFile(kestrel::MediaSource media, const char* source)
        : m_pSource(source), m_Media(std::move(media)) {}
    PropFile(const PropFile&) = delete;
    PropFile& operator=(const PropFile&) = delete;
    virtual ~PropFile();

    virtual void FillOffsetTable() = 0;
    // Makes one frame of the hint sample that LimitHintSample has bounded. `time` is its time in
    // seconds. When media data is missing, the frame is left empty for another try. Throws
    // kInvalidContent for a hint sample that is malformed or of which every constructor was
    // dropped.
    virtual void PacketizeFrame(const unsigned char* hint, double time) = 0;
    virtual void ProcessRTPnoopconstructor(const unsigned char** p);
    // These return the bytes that they added to the frame: 0 for one that they dropped.
    virtual unsigned int ProcessRTPimmediateconstructor(const unsigned char** p);
    virtual unsigned int ProcessRTPsampleconstructor(const unsigned char** p);
    virtual unsigned int ProcessRTPsampledescriptionconstructor(const unsigned char** p);

    // Where the hint sample at hand ends. No cursor is followed beyond it. `again` says that it is
    // the one whose frame lacked media data before.
    void LimitHintSample(const unsigned char* end, bool again = false);

    // The packets and constructors of the hint sample at hand that were gone through.
    uint64_t Work() const { return m_uPackets + m_uConstructors; }

    // The bytes not yet taken, `*n` of them (`n` may be null).
    unsigned char* GetBuffer(unsigned int* n);
    unsigned int ByteCount() const { return m_uFill - m_uOffset; }
    // Takes `n` bytes; SimpleException when there are fewer.
    void OffsetBytes(unsigned int n);
    static unsigned int GetPadding(unsigned int n);
    // Whole part in the high half, hundredths in the low one: readers of the number know it so.
    static uint32_t To1616(double x);
    void FreeBuffers();

  protected:
    // Gives the frame buffer its first size, and how far it may grow. Throws without memory, with
    // the medium in the message; the buffer is then empty.
    void AllocateFrame(uint32_t bytes, uint32_t most, const char* medium);
    void StartFrame() { m_uFill = m_uOffset = 0; }
    uint32_t fill() const { return m_uFill; }
    // Adds bytes to the frame; invalid content when it would become too long.
    void Append(const void* bytes, uint32_t count);
    // Writes a record at a place that the frame already has.
    void Patch(uint32_t at, const void* bytes, uint32_t count);
    uint8_t ByteAt(uint32_t at) const { return m_Buffer[at]; }

    // Runs the constructors of a packet; returns the bytes that they added.
    unsigned int ProcessConstructors(const unsigned char** cursor, unsigned int count);

    // Runs `build` on a hint sample that is whole, and when it throws empties the frame, runs
    // `undo`, and passes on what the driver must know. A frame of which every constructor was
    // dropped is invalid content.
    template <class Build, class Undo>
    void GuardFrame(const unsigned char* hint, Build build, Undo undo);

    [[noreturn]] void ThrowUnhandled() const;

  private:
    bool HasRoom(uint32_t count) const { return count <= m_uMostBytes - m_uFill; }
    unsigned int ProcessConstructor(uint8_t type, const unsigned char** cursor);
    unsigned int Drop();
    void LogDropped() const;
    void LogMissingMedia() const;
    void LogUnexpectedNumber() const;

    std::vector<unsigned char> m_Buffer;
    uint32_t m_uFill = 0;
    uint32_t m_uOffset = 0;
    const char* m_pSource;
    kestrel::MediaSource m_Media;
    uint32_t m_uMostBytes = 0;
    // Of the hint sample at hand. A frame is at most 16 MiB, a hint sample less than 4 GiB.
    uint32_t m_uPackets = 0;
    uint32_t m_uConstructors = 0;
    uint32_t m_uDropped = 0;
    uint32_t m_uKept = 0;  // leading bytes of the frame buffer that an earlier try has filled
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
        empty();
        if (value == kNoMediaYet) {
            LogMissingMedia();
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
