// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <numeric>

#include "boxes/sample_tables.h"
#include "boxes/stream_io.h"
#include "interface/src/driver/driver.h"
#include "propfile/src/hint_sample_parser.h"

// Locating samples, converting times, and seeking.

using namespace kestrel;

namespace {

constexpr uint32_t kModeFlags = 0x30000;
constexpr uint32_t kSyncFlags = 0x7;
constexpr uint32_t kMsPerSecond = 1000;
constexpr unsigned int kNoSample = 0xFFFFFFFF;
constexpr unsigned int kNoOffset = 0xFFFFFFFF;
constexpr uint64_t kNowhere = UINT64_MAX;

bool are_valid(uint32_t flags) {
    const uint32_t mode = flags & kModeFlags;
    const uint32_t sync = flags & kSyncFlags;
    return (mode == KST_SEEK_RELATIVE || mode == KST_SEEK_ABSOLUTE) &&
           (sync == KST_SEEK_NEXT_SYNC || sync == KST_SEEK_PREVIOUS_SYNC ||
            sync == KST_SEEK_NEAREST_SYNC);
}

// Finds the lowest media sample of a hint sample's constructors.
class MediaSampleFinder {
  public:
    explicit MediaSampleFinder(const std::vector<unsigned char>& hint)
        : m_Parser(hint.data() + hint.size()), m_pCursor(hint.data()) {}

    unsigned int Find() {
        try {
            _TAG_RTPsample3gp sample{};
            m_Parser.GetRTPsample3gp(&sample, &m_pCursor);
            log_line(kVerbose, here(),
                     "C3gpInterface::GetMediaSample - Processing Hint Sample (num_packets=%d).",
                     sample.packetcount);
            for (unsigned int i = 0; i < sample.packetcount; ++i)
                LookThroughPacket();
        } catch (unsigned int) {
            // The readable part of a truncated hint sample counts; playing skips the sample.
        }
        return m_uLowest;
    }

  private:
    void LookThroughPacket() {
        _TAG_RTPpacket3gp packet{};
        m_Parser.GetRTPpacket3gp(&packet, &m_pCursor);
        for (unsigned int i = 0; i < packet.entrycount; ++i) {
            const unsigned char* inside = m_pCursor;
            m_Parser.Skip(&m_pCursor, kConstructorSize);
            if (m_Parser.GetAndAdvance8(&inside) != kSampleConstructor) continue;
            const uint32_t number = m_Parser.GetSampleConstructor(&inside).sample_number;
            log_line(kVerbose, here(),
                     "C3gpInterface::GetMediaSample - Found Media Sample (sample=%d).", number);
            m_uLowest = std::min(m_uLowest, number);
        }
    }

    HintSampleParser m_Parser;
    const unsigned char* m_pCursor;
    unsigned int m_uLowest = kNoSample;
};

}  // namespace

// Numbers have 64 bits, because a table may declare more samples than exist. They do not overflow:
// a run has at most the chunks of the offset table, and the walk ends before the first sample.
struct C3gpInterface::ChunkRun {
    bool found = false;
    size_t entry = 0;
    int64_t first_chunk = 0;
    int64_t samples_per_chunk = 0;
    int64_t first_sample = 0;
};

C3gpInterface::ChunkRun C3gpInterface::FindChunkRun(unsigned int hintSample) const {
    const int64_t sample = hintSample;
    int64_t last_sample = m_uHintSamples;
    int64_t last_chunk = m_uHintChunks;
    for (size_t entry = m_SampleToChunk.size(); entry-- > 0 && last_sample >= 1;) {
        const int64_t first_chunk = m_SampleToChunk[entry].first_chunk;
        const int64_t samples_per_chunk = m_SampleToChunk[entry].samples_per_chunk;
        const int64_t chunks = std::min<int64_t>(last_chunk, m_uHintChunks) - first_chunk + 1;
        // A run whose first chunks are out of order has no samples.
        const int64_t samples = samples_per_chunk * std::max<int64_t>(chunks, 0);
        int64_t first_sample = last_sample - samples + 1;
        // A partly filled last chunk must not shift the samples of the first run.
        if (entry == 0 && first_sample < 1 && first_chunk == 1) first_sample = 1;
        log_line(kVerbose, here(),
                 "C3gpInterface::CalcHintOffset - Processing STSC Entry (s=%" PRId64 ", fs=%" PRId64
                 ", ls=%" PRId64 ", ns=%" PRId64 ", fc=%" PRId64 ", lc=%" PRId64 ", nc=%" PRId64
                 ").",
                 sample, first_sample, last_sample, samples, first_chunk, last_chunk, chunks);
        if (first_sample <= sample && sample <= last_sample) {
            return {true, entry, first_chunk, samples_per_chunk, first_sample};
        }
        last_sample = first_sample - 1;
        last_chunk = first_chunk - 1;
    }
    return {};
}

// Returns the bytes of the samples from `first` to the one before `sample`; stores the size of
// `sample`.
uint64_t C3gpInterface::BytesBefore(unsigned int first, unsigned int sample, unsigned int* size) {
    if (m_SampleSizes.size() == 1) {
        *size = m_SampleSizes[0];
        log_line(kVerbose, here(),
                 "C3gpInterface::CalcHintOffset - All hint samples are same size (size=%d).",
                 *size);
        return uint64_t{*size} * (sample - first);
    }
    if (m_SampleSizes.size() < sample) {
        fail(m_uStatus, KST_TABLE_TOO_SHORT, here(),
             "C3gpInterface::CalcHintOffset - Invalid Array Access (index=%d, size=%d).", sample,
             static_cast<unsigned int>(m_SampleSizes.size()));
    }
    *size = m_SampleSizes[sample - 1];
    return std::accumulate(&m_SampleSizes[first - 1], &m_SampleSizes[sample - 1], uint64_t{0});
}

// Returns the file offset of a hint sample and stores its size; kNowhere when no chunk holds it.
// Stores its chunk and its place in the chunk in m_Scratch.
uint64_t C3gpInterface::FindInChunk(unsigned int hintSample, unsigned int* size) {
    const ChunkRun run = FindChunkRun(hintSample);
    if (!run.found || hintSample == 0 || run.first_chunk <= 0) return kNowhere;
    if (run.samples_per_chunk == 0) {
        fail(m_uStatus, KST_DIVIDE_BY_ZERO, here(),
             "C3gpInterface::CalcHintOffset - Attempt to divide by zero");
    }
    const int64_t in_group = hintSample - run.first_sample;
    const int64_t chunk_in_group = in_group / run.samples_per_chunk;
    const int64_t in_chunk = in_group % run.samples_per_chunk;
    const int64_t first_in_chunk = run.samples_per_chunk * chunk_in_group + run.first_sample;
    const auto chunk = static_cast<unsigned int>(run.first_chunk + chunk_in_group);
    log_line(kVerbose, here(),
             "C3gpInterface::CalcHintOffset - Matched STSC Entry (sig=%" PRId64 ", sic=%" PRId64
             ", fsic=%" PRId64 ", cig=%" PRId64 ", c=%d).",
             in_group, in_chunk, first_in_chunk, chunk_in_group, chunk);
    m_Scratch.chunk = chunk;
    m_Scratch.sample_offset_in_chunk = static_cast<unsigned int>(in_chunk);
    m_Scratch.sample_to_chunk = run.entry;
    if (chunk > m_ChunkOffsets.size()) return kNowhere;
    const auto first = static_cast<unsigned int>(std::max<int64_t>(first_in_chunk, 1));
    m_Scratch.cur_chunk_bytes = BytesBefore(first, hintSample, size);
    return m_ChunkOffsets[chunk - 1] + m_Scratch.cur_chunk_bytes;
}

int C3gpInterface::CalcHintOffset(unsigned int hintSample, unsigned int* size) {
    if (m_SampleToChunk.empty()) {
        fail(m_uStatus, KST_CORRUPT, here(),
             "C3gpInterface::CalcHintOffset - No Sample-to-Chunk Table in Hint Track");
    }
    *size = 0;
    const uint64_t place = FindInChunk(hintSample, size);
    const int offset = place <= INT32_MAX ? static_cast<int>(place) : -1;
    log_line(kDebug, here(),
             "C3gpInterface::CalcHintOffset - Calculated Hint Sample File Offset (sample=%d, "
             "offset=%d, size=%d).",
             hintSample, offset, *size);
    return offset;
}

int C3gpInterface::CalcMediaOffset(unsigned int mediaSample) {
    // The last sample has no offset: "less than", not "at most", on purpose.
    const bool known =
        mediaSample >= 1 && mediaSample < m_uMediaSamples && mediaSample <= m_SampleInfo.size();
    const int offset = known ? static_cast<int>(m_SampleInfo[mediaSample - 1].uOffset) : -1;
    log_line(kDebug, here(),
             "C3gpInterface::CalcMediaOffset - Calculated Media Sample File Offset (sample=%d, "
             "offset=%d).",
             mediaSample, offset);
    return offset;
}

unsigned int C3gpInterface::ConvertMsTimeToMdhdTime(unsigned int ms) {
    // Whole units per millisecond: 44100 Hz counts as 44, on purpose.
    const auto mdhd = static_cast<unsigned int>(
        std::min(uint64_t{*m_pTimescale / kMsPerSecond} * ms, uint64_t{UINT32_MAX}));
    log_line(kDebug, here(),
             "C3gpInterface::ConvertMsTimeToMdhdTime - Converted Timecode (ms=%d, mdhd=%d).", ms,
             mdhd);
    return mdhd;
}

unsigned int C3gpInterface::ConvertMdhdTimeToSample(unsigned int mdhdTime) {
    uint64_t samples = 0;
    uint64_t time = 0;
    auto entry = m_TimeToSample.begin();
    for (; entry != m_TimeToSample.end(); ++entry) {
        const uint64_t ticks = uint64_t{entry->sample_count} * entry->sample_delta;
        if (time + ticks > mdhdTime) break;
        time += ticks;
        samples += entry->sample_count;
        log_line(kVerbose, here(),
                 "C3gpInterface::ConvertMdhdTimeToSample - Advancing to next STTS Entry "
                 "(count=%d, delta=%d).",
                 entry->sample_count, entry->sample_delta);
    }
    uint64_t sample = m_uHintSamples;
    if (entry != m_TimeToSample.end()) {
        const uint64_t offset = mdhdTime - time;
        sample = std::min<uint64_t>(offset / entry->sample_delta + samples + 1, m_uHintSamples);
        log_line(kVerbose, here(),
                 "C3gpInterface::ConvertMdhdTimeToSample - Matched STTS Entry (offset=%d, "
                 "sample=%d).",
                 static_cast<unsigned int>(offset), static_cast<unsigned int>(sample));
    } else if (time == 0) {
        // All entries have a duration of 0, so the distance of the target is unknown.
        fail(m_uStatus, KST_DIVIDE_BY_ZERO, here(),
             "C3gpInterface::ConvertMdhdTimeToSample - Attempt to divide by zero.");
    }
    log_line(kDebug, here(),
             "C3gpInterface::ConvertMdhdTimeToSample - Coverted MDHD Time to Sample (mdhd=%d, "
             "sample=%d).",
             mdhdTime, static_cast<unsigned int>(sample));
    return static_cast<unsigned int>(sample);
}

struct C3gpInterface::TimePlace {
    size_t entry = 0;
    unsigned int index = 0;  // of the sample within the entry
    uint64_t time = 0;       // timescale units
    Qvox3gp::TimeToSampleEntry run;
};

C3gpInterface::TimePlace C3gpInterface::FindTime(unsigned int hintSample) {
    uint64_t samples = 0;
    uint64_t time = 0;
    for (size_t entry = 0; entry < m_TimeToSample.size(); ++entry) {
        const Qvox3gp::TimeToSampleEntry& run = m_TimeToSample[entry];
        if (samples < hintSample && hintSample <= samples + run.sample_count) {
            const auto index = static_cast<unsigned int>(hintSample - samples - 1);
            return {entry, index, time + uint64_t{run.sample_delta} * index, run};
        }
        samples += run.sample_count;
        time += uint64_t{run.sample_count} * run.sample_delta;
        log_line(kVerbose, here(),
                 "C3gpInterface::GetTimestampInMs - Advancing to next STSS Entry (count=%d, "
                 "delta=%d).",
                 run.sample_count, run.sample_delta);
    }
    // Sample 0 means none, as before the first sync sample. Locating it fails.
    if (hintSample == 0) return {};
    fail(m_uStatus, KST_TABLE_TOO_SHORT, here(),
         "%s: Iterated off the end of the time to sample table!", m_szMedium);
}

unsigned int C3gpInterface::GetTimestampInMs(unsigned int hintSample) {
    const TimePlace place = FindTime(hintSample);
    const uint32_t per_ms = *m_pTimescale / kMsPerSecond;
    if (per_ms == 0) {
        fail(m_uStatus, KST_DIVIDE_BY_ZERO, here(),
             "C3gpInterface::GetTimestampInMs - Attempt to divide by zero");
    }
    const auto ms = static_cast<unsigned int>(place.time / per_ms);
    const auto shown = static_cast<unsigned int>(place.time);
    log_line(kDebug, here(),
             "C3gpInterface::GetTimestampInMs - Converting MDHD Time to MS Time "
             "(count=%d,delta=%d,mdhd=%d,scale=%d,ms=%d).",
             place.run.sample_count, place.run.sample_delta, shown, *m_pTimescale, ms);
    m_Scratch.time_to_sample = place.entry;
    m_Scratch.time_to_sample_index = place.index;
    m_Scratch.m_uFrameTime = place.time;
    log_line(kVerbose, here(),
             "C3gpInterface::GetTimestampInMs - Setting temp frametime and time-to-samples "
             "(ft=%d, tts=%d).",
             shown, place.index);
    log_line(kDebug, here(),
             "C3gpInterface::GetTimestampInMs - Converting Sample to Time in MS (sample=%d, "
             "ms=%d).",
             hintSample, ms);
    return ms;
}

// Returns the sync sample that a rule chooses for a sample, 0 when none is before it.
unsigned int C3gpInterface::FindSync(unsigned int sample, unsigned int syncFlags) const {
    unsigned int prev = 0;
    for (const uint32_t cur : m_SyncSamples) {
        log_line(kVerbose, here(),
                 "C3gpInterface::GetSyncSample - Comparing Sample to STSS Entry (sample=%d, "
                 "prev=%d, cur=%d).",
                 sample, prev, cur);
        if (cur == sample) return sample;
        if (prev <= sample && sample <= cur) {
            if (syncFlags == KST_SEEK_PREVIOUS_SYNC) return prev;
            if (syncFlags == KST_SEEK_NEXT_SYNC) return cur;
            // The farther sync sample, and at a tie the earlier: the comparison is intended.
            return sample - prev >= cur - sample ? prev : cur;
        }
        prev = cur;
    }
    return prev;
}

unsigned int C3gpInterface::GetSyncSample(unsigned int sample, unsigned int syncFlags) {
    if (!m_fHasSyncTable) {
        log_line(kVerbose, here(),
                 "C3gpInterface::GetSyncSample - Track does not contain STSS Box.");
        return sample;
    }
    log_line(kVerbose, here(), "C3gpInterface::GetSyncSample - Track contains STSS Box.");
    const unsigned int result = FindSync(sample, syncFlags);
    if (result > m_uHintSamples) {
        fail(m_uStatus, KST_CORRUPT, here(), "STSS Corruption (sync_sample=%d, max_samples=%d).",
             result, m_uHintSamples);
    }
    log_line(kDebug, here(),
             "C3gpInterface::GetSyncSample - Calculated Seek Sample (sample=%d, seek_sample=%d, "
             "flags=%d).",
             sample, result, syncFlags);
    return result;
}

int C3gpInterface::GetMediaSample(unsigned int hintSample, unsigned int fileOffset,
                                  unsigned int size) {
    m_fArriving = m_fHintHeld = false;
    ReadBytes(m_HintSample, fileOffset, size);
    const unsigned int first = MediaSampleFinder(m_HintSample).Find();
    log_line(kDebug, here(),
             "C3gpInterface::GetMediaSample - Determined First Media Sample (hint_sample=%d, "
             "first_media_sample=%d).",
             hintSample, first);
    return static_cast<int>(first);
}

unsigned int C3gpInterface::SeekTo(_TAG_KST_SEEK_PARAMS* params) {
    const RemarkScope scope(m_uRemarks);
    m_uStatus = KST_SUCCESS;
    if (m_uMedium == kNoMedium) return m_uStatus = KST_NOT_OPEN;
    if (params == nullptr) return m_uStatus = KST_BAD_ARGUMENT;
    run_guarded(m_uStatus, here(), [&] { Seek(params); });
    return m_uStatus;
}

unsigned int C3gpInterface::SeekTarget(const _TAG_KST_SEEK_PARAMS* params) {
    if (!are_valid(params->fFlags)) {
        fail(m_uStatus, KST_BAD_SEEK_FLAGS, here(), "Illegal Seek Flags");
    }
    unsigned int target = params->nTime;
    if ((params->fFlags & kModeFlags) == KST_SEEK_RELATIVE) {
        const uint32_t per_ms = *m_pTimescale / kMsPerSecond;
        if (per_ms == 0) {
            fail(m_uStatus, KST_FAILURE, here(), "Attempting to Divide by Zero");
        }
        target += static_cast<unsigned int>(m_Now.m_uFrameTime / per_ms);
    }
    if (target > m_uMediaDuration) {
        fail(m_uStatus, KST_BAD_TIMESTAMP, here(), "Invalid Timestamp");
    }
    return target;
}

void C3gpInterface::Seek(_TAG_KST_SEEK_PARAMS* params) {
    log_line(kDebug, here(),
             "C3gpInterface::SeekTo - Validating Parameters (nTime=%d, fFlags=%d, "
             "m_iHintSample=%d, m_uFrameTime=%d, uTrackDuration=%d).",
             params->nTime, params->fFlags, m_Now.m_iHintSample,
             static_cast<unsigned int>(m_Now.m_uFrameTime), m_uMediaDuration);
    const unsigned int mdhd = ConvertMsTimeToMdhdTime(SeekTarget(params));
    const unsigned int sample = ConvertMdhdTimeToSample(mdhd);
    const unsigned int sync = GetSyncSample(sample, params->fFlags & kSyncFlags);
    const unsigned int ms = GetTimestampInMs(sync);
    unsigned int size = 0;
    const int hint_offset = CalcHintOffset(sync, &size);
    if (hint_offset < 0) {
        fail(m_uStatus, KST_NO_HINT_OFFSET, here(),
             "C3gpInterface::SeekTo - Could not calculate Hint Track Offset");
    }
    const int first = GetMediaSample(sync, static_cast<unsigned int>(hint_offset), size);
    const int media_offset = CalcMediaOffset(static_cast<unsigned int>(first));
    // The offset of the hint sample, not of the media sample, on purpose: -1 for a media sample
    // without an offset is reported as it is.
    if (hint_offset < 0) {
        fail(m_uStatus, KST_NO_HINT_OFFSET, here(),
             "C3gpInterface::SeekTo - Could not calculate Media Track Offset");
    }
    const auto file_offset = static_cast<unsigned int>(std::min(media_offset, hint_offset));
    ResetInternals(sync, file_offset);
    params->nTime = ms;
    params->uFrameNum = sync;
    params->uFileOffset = file_offset;
    log_line(kDebug, here(),
             "C3gpInterface::SeekTo - Returning Results (nTime=%d, uFrameNum=%d, "
             "uFileOffset=%d).",
             ms, sync, file_offset);
}

unsigned int C3gpInterface::ResetInternals(unsigned int hintSample, unsigned int fileOffset) {
    Cursors next = m_Scratch;
    next.m_iHintSample = hintSample;
    next.samples_per_chunk = m_SampleToChunk[next.sample_to_chunk].samples_per_chunk;
    if (next.chunk >= 1 && next.chunk <= m_ChunkOffsets.size()) next.chunk_offset = next.chunk - 1;
    if (m_SampleSizes.size() >= hintSample) next.sample_size = hintSample - 1;
    log_line(kDebug, here(),
             "ResetInternals: cur_hint_sample=%d, cur_chunk_bytes=%d, samples_per_chunk=%d, "
             "sample_offset_in_chunk=%d, chunk=%d",
             hintSample, static_cast<unsigned int>(next.cur_chunk_bytes), next.samples_per_chunk,
             next.sample_offset_in_chunk, next.chunk);
    // A failure here does not move playing. There is no Seek for offset -1 of the last media
    // sample, because hosts refuse it and every read has its own offset.
    if (fileOffset != kNoOffset) Qvox3gp::macro_Seek(m_pIOCallback, fileOffset);
    MoveTo(next);
    m_fEndOfFile = false;
    m_Work = m_WorkBefore = {};
    return 1;
}
