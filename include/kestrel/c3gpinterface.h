// SPDX-License-Identifier: Apache-2.0
// Playing a 3GP file, the class API: C3gpInterface opens one medium of a file over the host's
// stream, seeks in it by time, and delivers it as a native stream (docs/native-format.md). Usable
// from C++11.
//
//     C3gpInterface player;
//     unsigned int status = player.Open(callbacks, "ar");
//     while (status == KST_SUCCESS) {
//         unsigned int size = sizeof buffer;
//         status = player.ReadChunk(buffer, &size, false);
//         consume(buffer, size);
//     }
//
// The medium must have one track, in AMR narrow band, H.263 or MPEG-4 Visual, and that track an RTP
// hint track: each hint sample becomes one frame of the stream.
//
// Objects are independent of each other; one must not be used from two threads at once. Statuses
// are those of kestrel/status.h; no function throws unless its comment says so.
//
// **Open can end the process**, and no other function can. It writes a line to the standard error
// stream and exits with status 1 when it reads a sample entry "mp4v" whose "esds" declares another
// object type than MPEG-4 Visual, in any track, whatever the mode. (It reads nothing on an object
// that is open, or with a mode or a table that it refuses; a damaged box before that entry makes it
// fail first.) A host that must not end asks kst_probe_open (kestrel/probe.h) first, or opens the
// file in a process of its own.
//
// Why something failed goes to the system log (kestrel/log.h): one error for each call that fails,
// so also for each Open of a file that has not arrived far enough; KST_NOT_YET writes nothing at
// the default level. An object writes at most 100 errors and warnings from one Open to the next,
// and then a line that says that further remarks are left out.
#ifndef KESTREL_C3GPINTERFACE_H
#define KESTREL_C3GPINTERFACE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "kestrel/api.h"
#include "kestrel/status.h"
#include "kestrel/stream.h"

// A request to SeekTo, and its result.
struct _TAG_KST_SEEK_PARAMS {
    uint32_t uReserved;  // the caller's own; neither read nor written
    // In: the target, ms. Out: the time of the sample reached, ms, rounded down: where that is not
    // exact, a seek to this time with KST_SEEK_PREVIOUS_SYNC reaches the sync sample before.
    uint32_t nTime;
    uint32_t uFrameNum;    // out: the hint sample reached, from 1
    uint32_t uFileOffset;  // out: where reading resumes, bytes; 0xFFFFFFFF where that is not known
    uint32_t fFlags;       // in: one mode and one sync rule; other bits are ignored
};

// Values of _TAG_KST_SEEK_PARAMS::fFlags.
enum KST_SEEK_FLAGS : uint32_t {
    KST_SEEK_RELATIVE = 0x10000,  // nTime is added to the time of the next frame, rounded down to
                                  // ms; may be negative
    KST_SEEK_ABSOLUTE = 0x20000,  // nTime counts from the beginning
    // The sync sample that is chosen. The target is the sample in whose decoding time the target
    // time lies; composition offsets do not count. In a track without a table of sync samples every
    // sample is one. A target after the last sync sample gets the last.
    KST_SEEK_NEXT_SYNC = 1,      // the one at or after the target
    KST_SEEK_PREVIOUS_SYNC = 2,  // the one at or before the target
    // The one at the target. Else, of the sync samples before and after it, the one that is farther
    // away (the platform's rule, in spite of the name), and at equal distance the earlier one.
    KST_SEEK_NEAREST_SYNC = 4
};

// What a frame writer is opened with.
struct _TAG_AUDIO_OPEN_PARAMS {
    uint32_t uDuration;    // ms
    uint32_t uFrameCount;  // hint samples
    uint32_t uCoder;       // 10: AMR narrow band
    uint32_t uClockFreq;   // Hz
    uint32_t uBitRate;     // bits per second
};

struct _TAG_VIDEO_OPEN_PARAMS {
    uint32_t uCodec;               // 0 H.263, 1 H.263-1998, 2 MPEG-4 Visual, 3 none
    uint32_t uDuration;            // ms
    uint32_t uFrameCount;          // media samples
    uint32_t uWidth;               // pixels
    uint32_t uHeight;              // pixels
    double fFrameRate;             // frames per second
    uint32_t uAvgBitRate;          // bits per second
    const unsigned char* pConfig;  // MPEG-4 decoder configuration; copied by the writer's Open
    uint32_t uConfigLength;        // bytes
    uint32_t uProfile, uLevel;     // H.263
    uint32_t uVideoStart;          // start offset, 1/90000 s
    uint32_t uAudioStart;          // start offset of the file's audio, in its own timescale
    uint32_t uLargestSample;       // bytes, as the tables say
};

namespace Qvox3gp {
class ElstBox;
class MdhdBox;
class MoovBox;
class Simple3gp;
class StblBox;
class StcoBox;
class StscBox;
class StssBox;
class StszBox;
class SttsBox;
class TrakBox;
struct SampleToChunkEntry;
struct TimeToSampleEntry;
}  // namespace Qvox3gp

namespace kestrel {
enum class Fetched : unsigned char;
}

class PropFile;
class PropFileAudio;
class PropFileVideo;

class KESTREL_API C3gpInterface {
  public:
    // The boxes of one track.
    struct BaseBoxes {
        Qvox3gp::MdhdBox* mdhd = nullptr;
        Qvox3gp::StblBox* stbl = nullptr;
        Qvox3gp::ElstBox* elst = nullptr;  // may be null
        Qvox3gp::SttsBox* stts = nullptr;
        Qvox3gp::StszBox* stsz = nullptr;
        Qvox3gp::StscBox* stsc = nullptr;
        Qvox3gp::StcoBox* stco = nullptr;
        Qvox3gp::StssBox* stss = nullptr;  // may be null
    };
    using HintBoxes = BaseBoxes;
    using AVBoxes = BaseBoxes;

    // Where a media sample lies in the file, bytes.
    struct _TAG_SAMPLEINFO {
        uint32_t uOffset = 0;
        uint32_t uSize = 0;  // 0 also for a sample that no chunk holds
    };

    C3gpInterface();
    explicit C3gpInterface(unsigned int ignored);
    C3gpInterface(const C3gpInterface&) = delete;
    C3gpInterface& operator=(const C3gpInterface&) = delete;
    ~C3gpInterface();

    // Opens one medium of the file of `io`. `mode` is a string of letters in any case and order:
    // `a` (audio) or `v` (video; of several the last counts) and `r` (read). The stream must stand
    // at offset 0. The table must outlive the object or its Close.
    //
    // An environment variable KST_LOG_DEBUG that is exactly "1" sets sx_Debug to 4, and
    // KST_LOG_DEBUG_VERBOSE to 5.
    //
    // Returns:
    //
    // - KST_SUCCESS: the stream stands at offset 0.
    // - KST_ALREADY_OPEN: the object stays as it was. After every other failure it is closed.
    // - KST_BAD_MODE: `mode` is not understood.
    // - KST_BAD_ARGUMENT: the table, or a slot of it, is null.
    // - KST_CORRUPT: a box is missing or damaged, or a slot failed while boxes were read.
    // - KST_NO_SUCH_TRACK: no track of the medium.
    // - KST_TOO_MANY_TRACKS: several tracks of the medium.
    // - KST_NO_HINT_TRACK: no hint track refers to the track.
    // - KST_UNKNOWN_CODER: video that is neither H.263 nor MPEG-4 Visual.
    // - KST_NO_MEMORY, also for over 16,777,216 samples in a table with one size for all.
    // - KST_FAILURE: a slot answered not-yet; audio that is not AMR narrow band; anything else.
    //
    // A file that arrives can be opened when GetStreamSize answers its length, and these have
    // arrived: all boxes up to the end of `moov`, the header of every later box, and for H.263 the
    // first hint sample. Before that Open returns KST_FAILURE, or KST_SUCCESS if it does not need
    // the bytes that are missing at the end of `moov`. After KST_FAILURE call it again later, with
    // the stream at offset 0.
    unsigned int Open(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE* io, const char* mode);

    // Ends playing and frees what the object holds; it may be opened again. Closing a closed object
    // does nothing. KST_SUCCESS.
    unsigned int Close();

    // What Close does to the object itself: forgets medium, direction, stream and tables.
    void Reset();

    // Delivers the next bytes of the stream. `*size` is the number of bytes wanted before the call,
    // and the number delivered after it. `arriving` says how the host serves the stream, and may
    // differ from call to call: true for one that fills over time (IndexRead), false for a seekable
    // one (Seek and SeekNRead). AdvanceRead announces each next hint sample in both.
    //
    // Returns:
    //
    // - KST_SUCCESS: all bytes that were wanted were delivered. None may be wanted; `buffer` may
    //   then be null.
    // - KST_END_OF_FILE: `*size` bytes were delivered, the last ones. The object stays open, for a
    //   seek.
    // - KST_NOT_YET: with `arriving`, a read was not served: call again when more has arrived. A
    //   file that was cut short is answered so for ever. Without `arriving`, only a not-yet of
    //   AdvanceRead.
    // - KST_IO_FAILURE: IndexRead or AdvanceRead failed.
    // - KST_FAILURE: another slot failed, or without `arriving` delivered less than was asked for;
    //   a table ends too early or leads outside the file; thousands of malformed hint samples
    //   follow one another, or hint samples have more constructors than SECURITY.md allows; memory
    //   ran out.
    // - KST_NOT_OPEN.
    // - KST_BAD_ARGUMENT: a null pointer.
    //
    // After each of these but the first two `*size` is 0 and nothing was lost. The call may be
    // repeated; one that wants fewer bytes gets those that were ready before the fault.
    //
    // A malformed hint sample is left out, and so is one of which every constructor was dropped. A
    // constructor is dropped if it names no sample of the media track, reaches outside its sample,
    // or makes a frame too long.
    unsigned int ReadChunk(unsigned char* buffer, unsigned int* size, bool arriving);

    // Moves playing to a sync sample near a time. Bytes that were made before the seek and not yet
    // delivered come first in the next ReadChunk: the rest of the header records and of one frame,
    // or, after a ReadChunk that failed, all that it had gathered.
    //
    // A millisecond counts as timescale / 1,000 units of the media track, without the fraction. The
    // times of the hint track are taken to be in the same timescale. If its own differs, the seek
    // reaches another time; KST_HINT_REPLACE (kestrel/hinter.h) makes the two agree.
    //
    // Returns:
    //
    // - KST_SUCCESS: `params` has the result.
    // - KST_NOT_OPEN.
    // - KST_BAD_ARGUMENT: `params` is null.
    // - KST_BAD_SEEK_FLAGS: fFlags has not exactly one of KST_SEEK_RELATIVE and KST_SEEK_ABSOLUTE,
    //   or not exactly one of the three sync rules.
    // - KST_BAD_TIMESTAMP: the target is before 0 or after the duration.
    // - KST_CORRUPT: a sample table is missing or wrong.
    // - KST_DIVIDE_BY_ZERO (20): a zero in the sample tables, or a timescale below 1000.
    // - KST_TABLE_TOO_SHORT (21): the table of sample sizes ends too early.
    // - KST_NO_HINT_OFFSET (22): no hint sample there, as with the previous sync sample of a target
    //   before the first one, or one at 2 GiB or after.
    // - KST_FAILURE: a slot failed, or the hint sample has not arrived.
    //
    // A failure leaves playing where it was.
    unsigned int SeekTo(_TAG_KST_SEEK_PARAMS* params);

    // What playing has cost since Open or the last SeekTo.
    struct Work {
        uint64_t done = 0;  // packets and constructors gone through
        uint64_t made = 0;  // bytes of the frames that they made
    };
    // Returns the counts; they belong to the object and change with it.
    const Work& GetWork() const { return m_Work; }

  private:
    using Fetched = kestrel::Fetched;

    static constexpr uint64_t kFirstReadAhead = 65536;

    // Where playing stands.
    struct Cursors {
        unsigned int m_iHintSample = 1;
        uint64_t m_uFrameTime = 0;  // timescale units
        unsigned int chunk = 1;
        unsigned int sample_offset_in_chunk = 0;
        unsigned int samples_per_chunk = 1;
        uint64_t cur_chunk_bytes = 0;  // of the chunk, already passed
        // Indices into the tables.
        size_t chunk_offset = 0;
        size_t sample_size = 0;
        size_t sample_to_chunk = 0;
        size_t time_to_sample = 0;
        unsigned int time_to_sample_index = 0;  // of the sample within that entry
    };

    // A run of chunks with one number of samples, found by walking the table backwards.
    struct ChunkRun;
    // Where a hint sample lies in the table of times, and the time at which it begins.
    struct TimePlace;

    void OpenMedium(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE* io, const char* mode);
    void ParseOpenMode(const char* mode);
    void ApplySwitch(char letter);
    void Open3GPtoQRT();
    void ForgetBoxes();
    void Read3gpBoxes();
    void ReadTracks();
    void AddTrack(Qvox3gp::TrakBox* trak);
    void AddHintTrack(Qvox3gp::TrakBox* trak);
    void ValidateTracks();
    void GetTrakData(BaseBoxes& boxes, Qvox3gp::TrakBox* trak);
    void StoreTrackTables();
    void AllocBuffers();
    void RequireSamplesInFile();
    void CalcSampleOffsets(const BaseBoxes& boxes, std::vector<_TAG_SAMPLEINFO>& table);
    void Parse3gpBoxes();
    void ParseAudioBoxes();
    void ParseVideoBoxes();
    void ParseGenericVideoBoxes();
    void ParseCodecSpecificBoxes();
    unsigned int FindVideoCodec();
    unsigned int PeekH263Track();
    void ParseH263Boxes();
    void ParseH263_1998Boxes();
    void ParseMPEG4Boxes();
    void ParseEditBoxes();
    uint32_t VideoStart() const;
    uint32_t AudioStart();
    uint32_t CalcAvgBitRate(const Qvox3gp::StszBox* stsz, uint32_t duration) const;
    static uint32_t GetAMRBitRate(uint32_t modeSet);
    void CreateFileObjects();
    void CreateAudioObject();
    void CreateVideoObject();
    std::unique_ptr<PropFileVideo> NewVideoObject();
    std::function<Fetched(unsigned int, uint32_t, uint32_t, const unsigned char**)> Media();
    void CloseWriters();
    void FreeBuffers();

    // Locating samples and times; sample numbers count from 1.

    // File offset of a hint sample, -1 when there is none; its size through `size`. Stores in
    // m_Scratch which chunk holds it.
    int CalcHintOffset(unsigned int hintSample, unsigned int* size);
    // File offset of a media sample; -1 when there is none, and for the last one.
    int CalcMediaOffset(unsigned int mediaSample);
    unsigned int ConvertMsTimeToMdhdTime(unsigned int ms);
    // The hint sample of a time; the last one for a time at or past the end.
    unsigned int ConvertMdhdTimeToSample(unsigned int mdhdTime);
    // The time of a hint sample. Stores in m_Scratch where the table of times has it.
    unsigned int GetTimestampInMs(unsigned int hintSample);
    unsigned int GetSyncSample(unsigned int sample, unsigned int syncFlags);
    // The lowest media sample that the hint sample refers to, -1 when it refers to none.
    int GetMediaSample(unsigned int hintSample, unsigned int fileOffset, unsigned int size);
    // Gives `length` bytes of a media sample from `offset` on through `bytes`, valid until the next
    // call; kNotYet until the whole sample has arrived. Null only checks that the tables have them,
    // and after missing data reads the sample's last byte, to wait for the last one of the frame.
    Fetched GetMediaSample(unsigned int mediaSample, uint32_t offset, uint32_t length,
                           const unsigned char** bytes);
    Fetched HoldMediaSample(unsigned int mediaSample);
    // The ticks of each of the track's samples, as many as its size table has.
    void CalcTimeDeltas(const BaseBoxes* boxes, unsigned int* deltas);

    ChunkRun FindChunkRun(unsigned int hintSample) const;
    uint64_t BytesBefore(unsigned int first, unsigned int sample, unsigned int* size);
    uint64_t FindInChunk(unsigned int hintSample, unsigned int* size);
    TimePlace FindTime(unsigned int hintSample);
    unsigned int FindSync(unsigned int sample, unsigned int syncFlags) const;
    unsigned int ResetInternals(unsigned int hintSample, unsigned int fileOffset);
    void Seek(_TAG_KST_SEEK_PARAMS* params);
    unsigned int SeekTarget(const _TAG_KST_SEEK_PARAMS* params);

    unsigned int Read(unsigned char* buffer, unsigned int wanted);
    void Deliver(unsigned char* buffer, unsigned int count);
    size_t TakenBytes() const;
    // Feeds one hint sample to the writer; false at the end of the file. KST_NOT_YET in the status
    // when data is missing.
    bool GetNextFrame();
    Fetched FeedWriter();
    Fetched Packetize(double time);
    void FinishPass();
    void LimitWork();
    PropFile* Writer() const;
    unsigned char* GetPropBuffer(unsigned int* available);
    void MarkPropBytesRead(unsigned int count);
    Fetched GetCurrentHintSample();
    uint32_t HintSampleSize(const Cursors& where) const;
    uint64_t HintSampleOffset(const Cursors& where) const;
    bool AdvanceToNextHintSample();
    void AdvanceChunk(Cursors& next);
    void AdvanceTime(Cursors& next);
    void SkipEmptyTimeEntries(Cursors& next) const;
    void MoveTo(const Cursors& next);
    Fetched ReadBytes(std::vector<unsigned char>& to, uint32_t offset, uint32_t size);
    uint32_t ReadPiece(void* data, uint64_t offset, uint32_t count);
    Fetched HasByte(uint64_t offset);
    Fetched Lacks(uint64_t last);
    uint32_t IOFileStreamRead(void* data, uint32_t offset, uint32_t count);
    void IOFileStreamAdvance(uint32_t offset);

    // Only during Open.
    AVBoxes m_AVBoxes;
    HintBoxes m_HintBoxes;
    std::unique_ptr<Qvox3gp::Simple3gp> m_pSimple3gp;
    std::map<uint32_t, Qvox3gp::TrakBox*> m_VideoTracks;
    std::map<uint32_t, Qvox3gp::TrakBox*> m_AudioTracks;
    std::map<uint32_t, Qvox3gp::TrakBox*> m_HintTracks;  // by the ID of the track they refer to

    unsigned int m_uStatus = KST_SUCCESS;
    unsigned int m_uMedium = 0;
    unsigned int m_uDirection = 0;
    _TAG_KST_IOSTREAM_CALLBACK_INTERFACE* m_pIOCallback = nullptr;
    unsigned int m_uVideoCodec = 3;

    uint32_t m_uMediaTimescale = 0;
    uint32_t m_uMovieTimescale = 0;
    uint32_t m_uMediaDuration = 0;  // ms
    const uint32_t* m_pTimescale = &m_uMediaTimescale;

    _TAG_VIDEO_OPEN_PARAMS m_VideoParams{};
    _TAG_AUDIO_OPEN_PARAMS m_AudioParams{};
    std::unique_ptr<PropFileVideo> m_pPropVideo;
    std::unique_ptr<PropFileAudio> m_pPropAudio;

    std::vector<_TAG_SAMPLEINFO> m_SampleInfo;
    std::vector<unsigned char> m_MediaSample;
    unsigned int m_uMediaSampleHeld = 0;      // whose bytes m_MediaSample has; 0 for none
    std::vector<unsigned char> m_MediaPiece;  // of a sample that is not held
    uint64_t m_uReadAhead = kFirstReadAhead;  // bytes that whole samples may still take
    uint64_t m_uBytesHandled = 0;             // read from the host, or put into frames
    std::vector<unsigned char> m_HintSample;
    bool m_fHintHeld = false;     // m_HintSample has the hint sample that playing stands at
    bool m_fFrameBegun = false;   // and its frame lacked data
    uint64_t m_uAwaitedByte = 0;  // offset of the last byte of what was lacking; 0 for nothing

    // Copies of the hint track's tables. One size stands for all when all are the same.
    std::vector<uint32_t> m_ChunkOffsets;
    std::vector<Qvox3gp::SampleToChunkEntry> m_SampleToChunk;
    std::vector<uint32_t> m_SampleSizes;
    std::vector<Qvox3gp::TimeToSampleEntry> m_TimeToSample;
    std::vector<uint32_t> m_SyncSamples;

    const char* m_szMedium = "";
    unsigned int m_uMediaSamples = 0;
    unsigned int m_uHintSamples = 0;
    bool m_fHasSyncTable = false;
    unsigned int m_uHintChunks = 0;

    Cursors m_Now;      // of playing
    Cursors m_Scratch;  // of the sample that a seek has found
    bool m_fEndOfFile = false;
    bool m_fPassOpen = false;  // a frame was made whose hint sample has not been left yet
    uint32_t m_uHintOffset = 0;
    bool m_fArriving = false;
    uint32_t m_uIOStatus = 0;  // of the last callback read
    // Bytes taken from the writer; the first m_uDelivered of them have been delivered since.
    std::vector<unsigned char> m_Taken;
    size_t m_uDelivered = 0;

    uint32_t m_uFileSize = 0;     // when it was opened
    Work m_Work;                  // since the last seek
    Work m_WorkBefore;            // of it, before the ReadChunk at work
    unsigned int m_uRemarks = 0;  // errors and warnings that were logged
};

#endif
