// The frame writers' base: it reads RTP hint samples (ISO/IEC 14496-12, 9.1.3) and rebuilds the
// payloads of their packets in a frame buffer.
//
// Content that makes no sense is thrown as the bare number kInvalidContent, media data that has not
// arrived as kNoMediaYet; everything else is SimpleException.
#ifndef KESTREL_PROPFILE_BASE_H
#define KESTREL_PROPFILE_BASE_H

#include <cstdint>
#include <vector>

#include "common/simple_exception.h"

class C3gpInterface;

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

class PropFile {
  public:
    static constexpr unsigned int kInvalidContent = 22136;
    static constexpr unsigned int kNoMediaYet = 4660;
    static constexpr unsigned int kConstructorSize = 16;

    enum ConstructorType : uint8_t { kNoop = 0, kImmediate = 1, kSample = 2, kDescription = 3 };

    struct SampleConstructor {
        uint8_t track_reference;
        uint16_t length;
        uint32_t sample_number;
        uint32_t sample_offset;
        uint16_t bytes_per_block;
        uint16_t samples_per_block;
    };

    // `driver` serves the media samples and outlives the writer.
    explicit PropFile(C3gpInterface* driver) : m_pDriver(driver) {}
    PropFile(const PropFile&) = delete;
    PropFile& operator=(const PropFile&) = delete;
    virtual ~PropFile();

    virtual void FillOffsetTable() = 0;
    // Makes one frame of the hint sample that LimitHintSample has bounded. `time` is its time in
    // seconds. When media data is missing, the frame is left empty for another try.
    virtual void PacketizeFrame(const unsigned char* hint, double time) = 0;
    virtual void ProcessRTPnoopconstructor(const unsigned char** p);
    // These answer the bytes that they added to the frame.
    virtual unsigned int ProcessRTPimmediateconstructor(const unsigned char** p);
    virtual unsigned int ProcessRTPsampleconstructor(const unsigned char** p);
    virtual unsigned int ProcessRTPsampledescriptionconstructor(const unsigned char** p);

    // Where the hint sample at hand ends. No cursor is followed beyond it.
    void LimitHintSample(const unsigned char* end) { m_pHintEnd = end; }

    uint8_t GetAndAdvance8(const unsigned char** p) const;
    uint16_t GetAndAdvance16(const unsigned char** p) const;
    uint32_t GetAndAdvance32(const unsigned char** p) const;
    void GetRTPsample3gp(_TAG_RTPsample3gp* sample, const unsigned char** p) const;
    void GetRTPpacket3gp(_TAG_RTPpacket3gp* packet, const unsigned char** p) const;
    SampleConstructor GetSampleConstructor(const unsigned char** p) const;
    // Moves on by `count` bytes.
    void Skip(const unsigned char** p, uint32_t count) const;

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
    // Gives the frame buffer its first size, and how far it may grow.
    void AllocateFrame(uint32_t bytes, uint32_t most);
    void StartFrame() { m_uFill = m_uOffset = 0; }
    uint32_t fill() const { return m_uFill; }
    // Adds bytes to the frame; invalid content when it would become too long.
    void Append(const void* bytes, uint32_t count);
    // Writes a record at a place that the frame already has.
    void Patch(uint32_t at, const void* bytes, uint32_t count);
    uint8_t ByteAt(uint32_t at) const { return m_Buffer[at]; }

    // Runs the constructors of a packet; answers the bytes that they added.
    unsigned int ProcessConstructors(const unsigned char** cursor, unsigned int count);

    // Runs `build`, and when it throws empties the frame, runs `undo`, and tells the driver what it
    // needs to know.
    template <class Build, class Undo>
    void GuardFrame(Build build, Undo undo);

  private:
    void Require(const unsigned char* p, uint32_t count) const;
    void RequireRoom(uint32_t count) const;  // in the frame
    unsigned int ProcessConstructor(uint8_t type, const unsigned char** cursor);

    std::vector<unsigned char> m_Buffer;
    uint32_t m_uFill = 0;
    uint32_t m_uOffset = 0;
    C3gpInterface* m_pDriver;
    uint32_t m_uMostBytes = 0;
    const unsigned char* m_pHintEnd = nullptr;
};

// What a guarded frame logs, and how it goes on.
void log_missing_media();
void log_unexpected_number();
[[noreturn]] void throw_unhandled();

template <class Build, class Undo>
void PropFile::GuardFrame(Build build, Undo undo) {
    try {
        build();
    } catch (unsigned int value) {
        StartFrame();
        undo();
        if (value == kNoMediaYet) {
            log_missing_media();
            return;
        }
        log_unexpected_number();
        throw;
    } catch (const SimpleException& caught) {
        StartFrame();
        undo();
        kestrel::log_caught(kestrel::kDebug, caught);
        throw;
    } catch (...) {
        StartFrame();
        undo();
        throw_unhandled();
    }
}

#endif
