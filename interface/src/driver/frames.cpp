// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "boxes/sample_tables.h"
#include "boxes/stream_io.h"
#include "interface/src/driver/driver.h"
#include "propfile/src/propfile_audio.h"
#include "propfile/src/propfile_video.h"

// Walking the hint track and delivering frames.

using namespace kestrel;
using Qvox3gp::classify;
using Qvox3gp::is_not_yet;

namespace {

// Bytes of its media sample that each constructor may have read ahead, besides as many as it takes,
// so that constructors that alternate between large samples do not cause each sample to be read
// repeatedly.
constexpr uint32_t kReadAheadEach = 256;

// Bytes of a packet entry or a constructor in the hint sample.
constexpr size_t kSmallestEntry = 12;

}  // namespace

unsigned int C3gpInterface::ReadChunk(unsigned char* buffer, unsigned int* size, bool arriving) {
    const RemarkScope scope(m_uRemarks);
    m_uStatus = KST_SUCCESS;
    const unsigned int wanted = size != nullptr ? *size : 0;
    if (size != nullptr) *size = 0;  // until it is delivered
    if (m_uMedium == kNoMedium) return m_uStatus = KST_NOT_OPEN;
    if (size == nullptr || (buffer == nullptr && wanted > 0)) return m_uStatus = KST_BAD_ARGUMENT;
    m_fArriving = arriving;
    run_guarded(m_uStatus, here(), [&] { *size = Read(buffer, wanted); });
    return m_uStatus;
}

// Returns the bytes delivered. Bytes taken from the writer are kept in m_Taken, also after
// KST_FAILURE, so that a call that ends without a delivery loses nothing. KST_END_OF_FILE keeps the
// state too, for a seek.
unsigned int C3gpInterface::Read(unsigned char* buffer, unsigned int wanted) {
    m_WorkBefore = m_Work;
    unsigned int available = 0;
    const unsigned char* data = GetPropBuffer(&available);
    log_line(kVerbose, here(), "%d bytes requested, %d bytes available", wanted,
             static_cast<unsigned int>(TakenBytes() + available));
    while (wanted > TakenBytes() + uint64_t{available}) {
        log_line(kVerbose, here(), "In while loop.  uToWrite: %d  uBytesAvail: %d",
                 static_cast<unsigned int>(wanted - TakenBytes()), available);
        m_Taken.insert(m_Taken.end(), data, data + available);
        MarkPropBytesRead(available);
        if (!GetNextFrame()) {
            log_line(kVerbose, here(), "EOF reached");
            m_uStatus = KST_END_OF_FILE;
            const auto last = static_cast<unsigned int>(TakenBytes());
            Deliver(buffer, last);
            return last;
        }
        if (m_uStatus == KST_NOT_YET) {
            log_line(kVerbose, here(), "Waiting for more FIO data...");
            return 0;
        }
        data = GetPropBuffer(&available);
    }
    const auto kept = static_cast<unsigned int>(std::min<size_t>(TakenBytes(), wanted));
    log_line(kVerbose, here(), "Exited while loop.  uToWrite: %d  uBytesAvail: %d", wanted - kept,
             available);
    if (wanted > kept) std::memcpy(buffer + kept, data, wanted - kept);
    MarkPropBytesRead(wanted - kept);
    Deliver(buffer, kept);
    return wanted;
}

// Delivers the first `count` bytes of m_Taken.
void C3gpInterface::Deliver(unsigned char* buffer, unsigned int count) {
    std::copy_n(m_Taken.begin() + static_cast<std::ptrdiff_t>(m_uDelivered), count, buffer);
    m_uDelivered += count;
    if (TakenBytes() > m_uDelivered) return;
    m_Taken.erase(m_Taken.begin(), m_Taken.begin() + static_cast<std::ptrdiff_t>(m_uDelivered));
    m_uDelivered = 0;
}

size_t C3gpInterface::TakenBytes() const {
    return m_Taken.size() - m_uDelivered;
}

PropFile* C3gpInterface::Writer() const {
    if (m_uMedium == kAudio) return m_pPropAudio.get();
    if (m_uMedium == kVideo) return m_pPropVideo.get();
    return nullptr;
}

unsigned char* C3gpInterface::GetPropBuffer(unsigned int* available) {
    *available = 0;
    PropFile* writer = Writer();
    return writer != nullptr ? writer->GetBuffer(available) : nullptr;
}

void C3gpInterface::MarkPropBytesRead(unsigned int count) {
    if (PropFile* writer = Writer()) writer->OffsetBytes(count);
}

bool C3gpInterface::GetNextFrame() {
    // A few bytes of tables can declare billions of malformed hint samples.
    constexpr int kMaxInvalid = 4096;
    constexpr uint64_t kMaxInvalidBytes = 16 << 20;
    const uint64_t from = m_uBytesHandled;
    int passes = 0;
    for (; passes < kMaxInvalid && m_uBytesHandled - from <= kMaxInvalidBytes; ++passes) {
        log_line(kVerbose, here(), "In do loop in GetNextFrame()");
        FinishPass();  // after an earlier call that failed
        if (m_fEndOfFile) {
            log_line(kVerbose, here(), "Exiting GetNextFrame() due to EOF");
            return false;
        }
        LimitWork();
        const Fetched frame = FeedWriter();
        if (frame == Fetched::kNotYet)
            return true;  // the next call reads the same hint sample again
        if (m_Now.time_to_sample < m_TimeToSample.size()) {
            m_Now.m_uFrameTime += m_TimeToSample[m_Now.time_to_sample].sample_delta;
        }
        m_fPassOpen = true;
        FinishPass();
        if (frame == Fetched::kBytes) {
            log_line(kVerbose, here(), "Exiting GetNextFrame() with valid packet.");
            return true;
        }
        if (m_uStatus == KST_NOT_YET) return true;
    }
    fail(m_uStatus, KST_FAILURE, here(), "%s: No valid hint sample among the next %d", m_szMedium,
         passes);
}

// Throws when hint samples have too many packets and constructors for their output. Each valid one
// adds a byte to a frame or takes bytes of the file.
void C3gpInterface::LimitWork() {
    constexpr uint64_t kFreeWork = 1 << 20;
    const uint64_t done = m_Work.done - m_WorkBefore.done;
    const uint64_t made = m_Work.made - m_WorkBefore.made;
    const bool of_call = done > kFreeWork + made;
    const bool of_all = m_Work.done > kFreeWork + m_uFileSize + m_Work.made;
    if (!of_call && !of_all) return;
    fail(m_uStatus, KST_FAILURE, here(),
         "%s: %" PRIu64 " packets and constructors make only %" PRIu64 " bytes", m_szMedium,
         of_call ? done : m_Work.done, of_call ? made : m_Work.made);
}

// Makes the writer build a frame of the current hint sample.
Fetched C3gpInterface::FeedWriter() {
    const double time = static_cast<double>(m_Now.m_uFrameTime) / *m_pTimescale;
    // Check the missing byte first: the frame needs it.
    if (m_fArriving && m_uAwaitedByte != 0 && HasByte(m_uAwaitedByte) != Fetched::kBytes) {
        return Fetched::kNotYet;
    }
    m_uAwaitedByte = 0;
    if (GetCurrentHintSample() != Fetched::kBytes) return Fetched::kNotYet;
    return Packetize(time);
}

Fetched C3gpInterface::Packetize(double time) {
    PropFile* writer = Writer();
    writer->LimitHintSample(m_HintSample.data() + m_HintSample.size(), m_fFrameBegun);
    m_fFrameBegun = false;
    Fetched frame = Fetched::kBytes;
    try {
        writer->PacketizeFrame(m_HintSample.data(), time);
    } catch (unsigned int value) {
        if (value != PropFile::kInvalidContent) {
            log_line(kWarning, here(), "Received unexpected UInt32 exception. Rethrowing...");
            throw;
        }
        log_line(kWarning, here(), "Received invalid packet exception");
        frame = Fetched::kInvalid;
    }
    if (m_uStatus == KST_NOT_YET) {
        m_fFrameBegun = true;
        return Fetched::kNotYet;
    }
    m_Work.done += std::max<uint64_t>(writer->Work(), m_HintSample.size() / kSmallestEntry);
    m_Work.made += writer->ByteCount();
    return frame;
}

// Moves to the hint sample after the one of the last frame.
void C3gpInterface::FinishPass() {
    if (!m_fPassOpen) return;
    m_fEndOfFile = !AdvanceToNextHintSample();
    m_fPassOpen = false;
}

uint32_t C3gpInterface::HintSampleSize(const Cursors& where) const {
    return where.sample_size < m_SampleSizes.size() ? m_SampleSizes[where.sample_size] : 0;
}

uint64_t C3gpInterface::HintSampleOffset(const Cursors& where) const {
    return m_ChunkOffsets[where.chunk_offset] + where.cur_chunk_bytes;
}

// Reads the current hint sample into memory, where it stays until the cursors move.
Fetched C3gpInterface::GetCurrentHintSample() {
    if (m_fHintHeld) return Fetched::kBytes;
    if (m_Now.chunk_offset >= m_ChunkOffsets.size()) {
        fail(m_uStatus, KST_FAILURE, here(), "%s: Iterated off the end of the chunk offset table!",
             m_szMedium);
    }
    const uint64_t offset = HintSampleOffset(m_Now);
    if (offset > UINT32_MAX) {
        fail(m_uStatus, KST_FAILURE, here(), "%s: Hint sample past the end of any file",
             m_szMedium);
    }
    m_uHintOffset = static_cast<uint32_t>(offset);
    log_line(kVerbose, here(), "Frame %-4d: Retrieving hint sample from offset %d",
             m_Now.m_iHintSample, m_uHintOffset);
    const Fetched got = ReadBytes(m_HintSample, m_uHintOffset, HintSampleSize(m_Now));
    m_fHintHeld = got == Fetched::kBytes;
    return got;
}

Fetched C3gpInterface::GetMediaSample(unsigned int mediaSample, uint32_t offset, uint32_t length,
                                      const unsigned char** bytes) {
    const bool known = mediaSample >= 1 && mediaSample <= m_SampleInfo.size() &&
                       m_SampleInfo[mediaSample - 1].uSize > 0;
    // A sample number that is not in the tables is invalid content (22136), not missing data
    // (4660): it never arrives, so the constructor is dropped.
    if (!known) return Fetched::kInvalid;
    const _TAG_SAMPLEINFO& sample = m_SampleInfo[mediaSample - 1];
    if (offset > sample.uSize || length > sample.uSize - offset) return Fetched::kInvalid;
    // A file arrives in order, so the last byte shows that the whole sample is there.
    const uint64_t last_byte = uint64_t{sample.uOffset} + sample.uSize - 1;
    if (bytes == nullptr) {
        // After missing data, awaits the last byte of the frame that is missing.
        if (m_uStatus == KST_NOT_YET && last_byte > m_uAwaitedByte) HasByte(last_byte);
        return Fetched::kBytes;
    }
    m_uBytesHandled += length;
    const auto read_piece = [&] {
        const Fetched last = HasByte(last_byte);
        if (last != Fetched::kBytes || length == 0) return last;
        return ReadBytes(m_MediaPiece, sample.uOffset + offset, length);
    };
    const uint64_t ahead = m_uReadAhead + kReadAheadEach + 2 * uint64_t{length};
    const bool is_held = m_uMediaSampleHeld == mediaSample;
    const bool whole = is_held || sample.uSize <= ahead;
    const Fetched got = whole ? HoldMediaSample(mediaSample) : read_piece();
    if (got != Fetched::kBytes) return got;
    m_uReadAhead = whole && !is_held ? ahead - sample.uSize : ahead;
    *bytes = whole ? m_MediaSample.data() + offset : m_MediaPiece.data();
    return got;
}

// Reads the whole sample into memory.
Fetched C3gpInterface::HoldMediaSample(unsigned int mediaSample) {
    if (m_uMediaSampleHeld == mediaSample) return Fetched::kBytes;
    const _TAG_SAMPLEINFO& sample = m_SampleInfo[mediaSample - 1];
    m_uMediaSampleHeld = 0;
    const Fetched got = ReadBytes(m_MediaSample, sample.uOffset, sample.uSize);
    if (got == Fetched::kBytes) m_uMediaSampleHeld = mediaSample;
    return got;
}

// Whether a byte of the file has arrived.
Fetched C3gpInterface::HasByte(uint64_t offset) {
    return offset <= UINT32_MAX ? ReadBytes(m_MediaPiece, static_cast<uint32_t>(offset), 1)
                                : Lacks(offset);
}

// Reads into `to`, which grows with the bytes received.
Fetched C3gpInterface::ReadBytes(std::vector<unsigned char>& to, uint32_t offset, uint32_t size) {
    to.clear();
    if (!m_fArriving) Qvox3gp::macro_Seek(m_pIOCallback, offset);
    while (to.size() < size) {
        const size_t had = to.size();
        const uint32_t now = std::min(static_cast<uint32_t>(size - had), kTrustedBytes);
        m_uBytesHandled += now;
        to.resize(had + now);  // zeros, for a host that succeeds without writing
        if (ReadPiece(to.data() + had, uint64_t{offset} + had, now) < now) {
            to.clear();
            return Lacks(uint64_t{offset} + size - 1);
        }
    }
    return Fetched::kBytes;
}

// Returns the number of bytes read. In plain mode the read is at the position of the stream.
uint32_t C3gpInterface::ReadPiece(void* data, uint64_t offset, uint32_t count) {
    if (!m_fArriving) return Qvox3gp::read_available(m_pIOCallback, data, count);
    return offset <= UINT32_MAX ? IOFileStreamRead(data, static_cast<uint32_t>(offset), count) : 0;
}

// Handles missing bytes up to offset `last`: an arriving file may get them later; a complete file
// has ended.
Fetched C3gpInterface::Lacks(uint64_t last) {
    if (!m_fArriving) {
        fail(m_uStatus, KST_FAILURE, here(),
             "%s: Stream does not deliver its byte at offset %" PRIu64, m_szMedium, last);
    }
    m_uStatus = KST_NOT_YET;
    m_uAwaitedByte = last;
    return Fetched::kNotYet;
}

// Returns the number of bytes read, at most `count`.
uint32_t C3gpInterface::IOFileStreamRead(void* data, uint32_t offset, uint32_t count) {
    uint32_t got = 0;
    m_uIOStatus = m_pIOCallback->IndexRead(m_pIOCallback->Context, data, offset, count, &got);
    const uint32_t result = classify(m_pIOCallback, m_uIOStatus);
    if (is_not_yet(result)) return 0;
    if (result != KST_IO_OK) {
        fail(m_uStatus, KST_IO_FAILURE, here(),
             "IO Callback Interface IndexRead() failed with status: %d.  IO Context: 0x%" PRIXPTR
             "  DataPtr: 0x%" PRIXPTR "  nBytes: %d  Offset: %d",
             m_uIOStatus, address(m_pIOCallback->Context), address(data), count, offset);
    }
    return std::min(got, count);
}

void C3gpInterface::IOFileStreamAdvance(uint32_t offset) {
    const uint32_t status = m_pIOCallback->AdvanceRead(m_pIOCallback->Context, offset);
    const uint32_t result = classify(m_pIOCallback, status);
    if (result == KST_IO_OK) return;
    if (is_not_yet(result)) {
        m_uStatus = KST_NOT_YET;  // in plain mode as well
        return;
    }
    fail(m_uStatus, KST_IO_FAILURE, here(),
         "IO Callback Interface AdvanceRead() failed with status: %d.  IO Context: 0x%" PRIXPTR
         "  Offset: %d",
         status, address(m_pIOCallback->Context), offset);
}

// Returns false on the last hint sample. The cursors move only when all tables allow it.
bool C3gpInterface::AdvanceToNextHintSample() {
    if (m_Now.m_iHintSample >= m_uHintSamples) return false;
    Cursors next = m_Now;
    next.m_iHintSample++;
    next.cur_chunk_bytes += HintSampleSize(m_Now);
    if (m_SampleSizes.size() != 1 && ++next.sample_size >= m_SampleSizes.size()) {
        fail(m_uStatus, KST_FAILURE, here(), "%s: Iterated off the end of the sample size table!",
             m_szMedium);
    }
    AdvanceChunk(next);
    AdvanceTime(next);
    MoveTo(next);
    const auto offset =
        static_cast<uint32_t>(std::min(HintSampleOffset(m_Now), uint64_t{UINT32_MAX}));
    log_line(kVerbose, here(), "Moving IO Callback file pointer to: %d", offset);
    IOFileStreamAdvance(offset);
    return true;
}

// Drops the state of the current hint sample.
void C3gpInterface::MoveTo(const Cursors& next) {
    m_Now = next;
    m_fPassOpen = m_fHintHeld = m_fFrameBegun = false;
    m_uAwaitedByte = 0;
}

void C3gpInterface::AdvanceChunk(Cursors& next) {
    next.sample_offset_in_chunk++;
    if (next.sample_offset_in_chunk < next.samples_per_chunk) return;
    next.chunk++;
    // A run that the new chunk begins counts from this chunk.
    const size_t run = next.sample_to_chunk + 1;
    if (run < m_SampleToChunk.size() && m_SampleToChunk[run].first_chunk == next.chunk) {
        next.sample_to_chunk = run;
        next.samples_per_chunk = m_SampleToChunk[run].samples_per_chunk;
        log_line(kVerbose, here(),
                 "Moving to next SampleToChunk entry at chunk %d.  New SamplesPerChunk: %d",
                 next.chunk, next.samples_per_chunk);
    }
    log_line(kVerbose, here(),
             "Moving to next Chunk entry at sample %d  Current SamplesPerChunk: %d",
             next.m_iHintSample, next.samples_per_chunk);
    if (++next.chunk_offset >= m_ChunkOffsets.size()) {
        fail(m_uStatus, KST_FAILURE, here(), "%s: Iterated off the end of the chunk offset table!",
             m_szMedium);
    }
    next.sample_offset_in_chunk = 0;
    next.cur_chunk_bytes = 0;
}

void C3gpInterface::AdvanceTime(Cursors& next) {
    next.time_to_sample_index++;
    if (next.time_to_sample < m_TimeToSample.size() &&
        next.time_to_sample_index < m_TimeToSample[next.time_to_sample].sample_count) {
        return;
    }
    log_line(kVerbose, here(), "Moving to next TimeToSample entry at sample %d",
             next.m_iHintSample);
    next.time_to_sample++;
    next.time_to_sample_index = 0;
    SkipEmptyTimeEntries(next);
    if (next.time_to_sample >= m_TimeToSample.size()) {
        fail(m_uStatus, KST_FAILURE, here(),
             "%s: Iterated off the end of the time to sample table!", m_szMedium);
    }
}

void C3gpInterface::SkipEmptyTimeEntries(Cursors& next) const {
    while (next.time_to_sample < m_TimeToSample.size() &&
           m_TimeToSample[next.time_to_sample].sample_count == 0) {
        next.time_to_sample++;
    }
}
