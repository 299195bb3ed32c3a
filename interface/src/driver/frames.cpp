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

namespace {

// Bytes that each constructor may have read ahead in its media sample besides as many again as it
// takes, so that constructors which go back and forth between large samples do not have each of
// them read time and again.
constexpr uint32_t kReadAheadEach = 256;

// What a read that fell short leaves to try.
bool is_not_yet(uint32_t classification) {
    return classification == KST_IO_NOT_YET || classification == KST_IO_NOT_YET_ALSO;
}

uint32_t classify(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE* io, uint32_t status) {
    uint32_t result = KST_IO_OK;
    io->CheckStatus(io->Context, &result, status);
    return result;
}

uintptr_t address(const void* pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

}  // namespace

unsigned int C3gpInterface::ReadChunk(unsigned char* buffer, unsigned int* size, bool fio) {
    m_uStatus = KST_SUCCESS;
    const unsigned int wanted = size != nullptr ? *size : 0;
    if (size != nullptr) *size = 0;  // until it is delivered
    if (m_uMedium == kNoMedium) return m_uStatus = KST_NOT_OPEN;
    if (buffer == nullptr || size == nullptr) return m_uStatus = KST_BAD_ARGUMENT;
    try {
        m_fFIO = fio;
        *size = Read(buffer, wanted);
        return m_uStatus;
    } catch (const SimpleException& caught) {
        log_caught(kError, caught);
    } catch (...) {
        log_always(at(kDriverSource), "%s", kUnhandledLogged);
    }
    if (m_uStatus == KST_SUCCESS) m_uStatus = KST_FAILURE;
    return m_uStatus;
}

// Answers the bytes delivered. What is taken from the writer on the way waits in m_Taken, so that a
// call which ends without delivering anything loses nothing.
unsigned int C3gpInterface::Read(unsigned char* buffer, unsigned int wanted) {
    unsigned int available = 0;
    const unsigned char* data = GetPropBuffer(&available);
    log_line(kVerbose, at(kDriverSource), "%d bytes requested, %d bytes available", wanted,
             static_cast<unsigned int>(TakenBytes() + available));
    while (wanted > TakenBytes() + uint64_t{available}) {
        log_line(kVerbose, at(kDriverSource), "In while loop.  uToWrite: %d  uBytesAvail: %d",
                 static_cast<unsigned int>(wanted - TakenBytes()), available);
        m_Taken.insert(m_Taken.end(), data, data + available);
        MarkPropBytesRead(available);
        if (!GetNextFrame()) {
            log_line(kVerbose, at(kDriverSource), "EOF reached");
            m_uStatus = KST_END_OF_FILE;
            const auto last = static_cast<unsigned int>(TakenBytes());
            Deliver(buffer, last);
            return last;
        }
        if (m_uStatus == KST_NOT_YET) {
            log_line(kVerbose, at(kDriverSource), "Waiting for more FIO data...");
            return 0;
        }
        data = GetPropBuffer(&available);
    }
    const auto kept = static_cast<unsigned int>(std::min<size_t>(TakenBytes(), wanted));
    log_line(kVerbose, at(kDriverSource), "Exited while loop.  uToWrite: %d  uBytesAvail: %d",
             wanted - kept, available);
    if (wanted > kept) std::memcpy(buffer + kept, data, wanted - kept);
    MarkPropBytesRead(wanted - kept);
    Deliver(buffer, kept);
    return wanted;
}

// Hands out the first `count` of the bytes that were taken before.
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
    // Few bytes of tables can tell of billions of hint samples that make no sense.
    constexpr int kMostInvalid = 4096;
    constexpr uint64_t kMostInvalidBytes = 16 << 20;
    const uint64_t from = m_uBytesHandled;
    int passes = 0;
    for (; passes < kMostInvalid && m_uBytesHandled - from <= kMostInvalidBytes; ++passes) {
        log_line(kVerbose, at(kDriverSource), "In do loop in GetNextFrame()");
        FinishPass();  // of an earlier call that failed there
        if (m_fEndOfFile) {
            log_line(kVerbose, at(kDriverSource), "Exiting GetNextFrame() due to EOF");
            return false;
        }
        const bool valid = FeedWriter();
        if (m_uStatus == KST_NOT_YET) return true;  // the same hint sample another time
        if (m_Now.time_to_sample < m_TimeToSample.size()) {
            m_Now.m_uFrameTime += m_TimeToSample[m_Now.time_to_sample].sample_delta;
        }
        m_fPassOpen = true;
        FinishPass();
        if (valid) {
            log_line(kVerbose, at(kDriverSource), "Exiting GetNextFrame() with valid packet.");
            return true;
        }
        if (m_uStatus == KST_NOT_YET) return true;
    }
    fail(m_uStatus, KST_CORRUPT, at(kDriverSource), "%s: No valid hint sample among the next %d",
         m_szMedium, passes);
}

// Has the writer make a frame of the current hint sample; false when that makes no sense. The
// status says when data is missing.
bool C3gpInterface::FeedWriter() {
    const double time = static_cast<double>(m_Now.m_uFrameTime) / *m_pTimescale;
    if (!GetCurrentHintSample()) return true;
    PropFile* writer = Writer();
    writer->LimitHintSample(m_HintSample.data() + m_HintSample.size());
    try {
        writer->PacketizeFrame(m_HintSample.data(), time);
        return true;
    } catch (unsigned int value) {
        if (value != PropFile::kInvalidContent) {
            log_line(kWarning, at(kDriverSource),
                     "Received unexpected UInt32 exception. Rethrowing...");
            throw;
        }
        log_line(kWarning, at(kDriverSource), "Received invalid packet exception");
        return false;
    }
}

// Leaves the hint sample that a frame was made of.
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

// Reads the current hint sample; false when it has not arrived yet.
bool C3gpInterface::GetCurrentHintSample() {
    if (m_Now.chunk_offset >= m_ChunkOffsets.size()) {
        fail(m_uStatus, KST_CORRUPT, at(kDriverSource),
             "%s: Iterated off the end of the chunk offset table!", m_szMedium);
    }
    const uint64_t offset = HintSampleOffset(m_Now);
    if (offset > UINT32_MAX) {
        fail(m_uStatus, KST_CORRUPT, at(kDriverSource), "%s: Hint sample past the end of any file",
             m_szMedium);
    }
    m_uHintOffset = static_cast<uint32_t>(offset);
    log_line(kVerbose, at(kDriverSource), "Frame %-4d: Retrieving hint sample from offset %d",
             m_Now.m_iHintSample, m_uHintOffset);
    return ReadBytes(m_HintSample, m_uHintOffset, HintSampleSize(m_Now));
}

unsigned int C3gpInterface::GetMediaSample(unsigned int mediaSample, uint32_t offset,
                                           uint32_t length, const unsigned char** bytes) {
    const bool known = mediaSample >= 1 && mediaSample <= m_SampleInfo.size() &&
                       m_SampleInfo[mediaSample - 1].uSize > 0;
    // Not the "no data yet" of a sample that has not arrived: this one never will, so only what
    // refers to it is dropped instead of the frame being waited for.
    if (!known) throw PropFile::kInvalidContent;
    const _TAG_SAMPLEINFO& sample = m_SampleInfo[mediaSample - 1];
    m_uReadAhead += kReadAheadEach + 2 * uint64_t{length};
    m_uBytesHandled += length;
    const bool hold = m_uMediaSampleHeld == mediaSample || sample.uSize <= m_uReadAhead;
    if (hold && !HoldMediaSample(mediaSample)) return 0;
    if (!hold && !HasArrived(sample)) return 0;
    if (offset > sample.uSize || length > sample.uSize - offset) throw PropFile::kInvalidContent;
    if (!hold && length > 0 && !ReadBytes(m_MediaPiece, sample.uOffset + offset, length)) return 0;
    *bytes = hold ? m_MediaSample.data() + offset : m_MediaPiece.data();
    return sample.uSize;
}

// Has the whole sample in memory; false when it has not arrived.
bool C3gpInterface::HoldMediaSample(unsigned int mediaSample) {
    if (m_uMediaSampleHeld == mediaSample) return true;
    const _TAG_SAMPLEINFO& sample = m_SampleInfo[mediaSample - 1];
    m_uMediaSampleHeld = 0;
    if (!ReadBytes(m_MediaSample, sample.uOffset, sample.uSize)) return false;
    m_uMediaSampleHeld = mediaSample;
    m_uReadAhead -= sample.uSize;
    return true;
}

// Whether the last byte of a sample is there, and so, in a file that arrives in order, all.
bool C3gpInterface::HasArrived(const _TAG_SAMPLEINFO& sample) {
    const uint64_t last = uint64_t{sample.uOffset} + sample.uSize - 1;
    if (last > UINT32_MAX) {
        m_uStatus = KST_NOT_YET;
        return false;
    }
    return ReadBytes(m_MediaPiece, static_cast<uint32_t>(last), 1);
}

// Fills `to`; false, with the status set, when not all of the bytes can be had yet. Grows with what
// comes, whatever a table tells.
bool C3gpInterface::ReadBytes(std::vector<unsigned char>& to, uint32_t offset, uint32_t size) {
    to.clear();
    if (!m_fFIO) Qvox3gp::macro_Seek(m_pIOCallback, offset);
    while (to.size() < size) {
        const size_t had = to.size();
        const uint32_t now = std::min(static_cast<uint32_t>(size - had), kTrustedBytes);
        m_uBytesHandled += now;
        to.resize(had + now);
        const uint64_t from = uint64_t{offset} + had;
        uint32_t got = 0;
        if (m_fFIO && from <= UINT32_MAX) {
            got = IOFileStreamRead(to.data() + had, static_cast<uint32_t>(from), now);
        } else if (!m_fFIO) {
            got = Qvox3gp::read_available(m_pIOCallback, to.data() + had, now);
        }
        if (got < now) {
            to.clear();
            m_uStatus = KST_NOT_YET;
            return false;
        }
    }
    return true;
}

// The bytes that were there, at most `count`.
uint32_t C3gpInterface::IOFileStreamRead(void* data, uint32_t offset, uint32_t count) {
    uint32_t got = 0;
    m_uIOStatus = m_pIOCallback->IndexRead(m_pIOCallback->Context, data, offset, count, &got);
    const uint32_t result = classify(m_pIOCallback, m_uIOStatus);
    if (is_not_yet(result)) return 0;
    if (result != KST_IO_OK) {
        fail(m_uStatus, KST_IO_FAILURE, at(kDriverSource),
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
        m_uStatus = KST_NOT_YET;
        return;
    }
    fail(m_uStatus, KST_IO_FAILURE, at(kDriverSource),
         "IO Callback Interface AdvanceRead() failed with status: %d.  IO Context: 0x%" PRIXPTR
         "  Offset: %d",
         status, address(m_pIOCallback->Context), offset);
}

// False on the last hint sample. The cursors move only when all tables agree to it.
bool C3gpInterface::AdvanceToNextHintSample() {
    if (m_Now.m_iHintSample >= m_uHintSamples) return false;
    Cursors next = m_Now;
    next.m_iHintSample++;
    next.cur_chunk_bytes += HintSampleSize(m_Now);
    if (m_SampleSizes.size() != 1 && ++next.sample_size >= m_SampleSizes.size()) {
        fail(m_uStatus, KST_FAILURE, at(kDriverSource),
             "%s: Iterated off the end of the sample size table!", m_szMedium);
    }
    AdvanceChunk(next);
    AdvanceTime(next);
    m_Now = next;
    m_fPassOpen = false;
    const auto offset =
        static_cast<uint32_t>(std::min(HintSampleOffset(m_Now), uint64_t{UINT32_MAX}));
    log_line(kVerbose, at(kDriverSource), "Moving IO Callback file pointer to: %d", offset);
    IOFileStreamAdvance(offset);
    return true;
}

void C3gpInterface::AdvanceChunk(Cursors& next) {
    next.sample_offset_in_chunk++;
    if (next.sample_offset_in_chunk < next.samples_per_chunk) return;
    next.chunk++;
    // The run that the new chunk begins, if any, counts from that chunk on.
    const size_t run = next.sample_to_chunk + 1;
    if (run < m_SampleToChunk.size() && m_SampleToChunk[run].first_chunk == next.chunk) {
        next.sample_to_chunk = run;
        next.samples_per_chunk = m_SampleToChunk[run].samples_per_chunk;
        log_line(kVerbose, at(kDriverSource),
                 "Moving to next SampleToChunk entry at chunk %d.  New SamplesPerChunk: %d",
                 next.chunk, next.samples_per_chunk);
    }
    log_line(kVerbose, at(kDriverSource),
             "Moving to next Chunk entry at sample %d  Current SamplesPerChunk: %d",
             next.m_iHintSample, next.samples_per_chunk);
    if (++next.chunk_offset >= m_ChunkOffsets.size()) {
        fail(m_uStatus, KST_FAILURE, at(kDriverSource),
             "%s: Iterated off the end of the chunk offset table!", m_szMedium);
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
    log_line(kVerbose, at(kDriverSource), "Moving to next TimeToSample entry at sample %d",
             next.m_iHintSample);
    next.time_to_sample++;
    next.time_to_sample_index = 0;
    SkipEmptyTimeEntries(next);
    if (next.time_to_sample >= m_TimeToSample.size()) {
        fail(m_uStatus, KST_FAILURE, at(kDriverSource),
             "%s: Iterated off the end of the time to sample table!", m_szMedium);
    }
}

void C3gpInterface::SkipEmptyTimeEntries(Cursors& next) const {
    while (next.time_to_sample < m_TimeToSample.size() &&
           m_TimeToSample[next.time_to_sample].sample_count == 0) {
        next.time_to_sample++;
    }
}
