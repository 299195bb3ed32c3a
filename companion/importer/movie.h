// SPDX-License-Identifier: Apache-2.0
// The contents of a file of the ISO base media family or of a QuickTime file: its tracks with all
// samples, in any form (sample tables or movie fragments, 32 or 64 bits, plain or compact tables).
// The media itself is not read.
#ifndef KESTREL_COMPANION_IMPORTER_MOVIE_H
#define KESTREL_COMPANION_IMPORTER_MOVIE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "common/frame_limit.h"
#include "common/movie_defaults.h"
#include "kestrel/stream.h"

namespace kestrel::importer {

// A sample of a track. Samples are in decoding order; the decoding time is the sum of the durations
// before. Up to 1,024 PCM samples of a chunk are one sample.
struct Sample {
    std::uint64_t offset = 0;             // in the file
    std::uint32_t size = 0;               // bytes
    std::uint32_t duration = 0;           // media timescale
    std::int32_t composition_offset = 0;  // media timescale; may be negative
    std::uint32_t description : 31 = 0;   // index into Track::descriptions, from 0
    std::uint32_t is_sync : 1 = 1;
};
static_assert(sizeof(Sample) == 24);
inline constexpr std::uint32_t kDescriptionBits = 0x7FFF'FFFF;

// Boxes are stored whole with a header of 8 bytes, whatever its form in the file.

// A sample entry (ISO/IEC 14496-12, 8.5.2). An entry of QuickTime is
// rewritten where ISO files have one for its codec: a sound description of version 1 or 2 or with a
// `wave` as an AudioSampleEntry (`mp4a`, `samr`, `sawb`, `sawp`), `h263` as `s263`. An `avc3` whose
// avcC has parameter sets is rewritten as `avc1`. All others are verbatim.
struct Description {
    std::uint32_t type = 0;
    std::vector<std::uint8_t> box;
    std::uint16_t width = 0, height = 0;  // pixels of video
};

// An entry of an edit list (8.6.6).
struct Edit {
    std::uint64_t duration = 0;        // movie timescale
    std::int64_t media_time = 0;       // media timescale; -1: nothing is presented
    std::uint32_t rate = 0x0001'0000;  // 16.16
};

// The tracks that this one refers to for one purpose (8.3.3).
struct Reference {
    std::uint32_t type = 0;
    std::vector<std::uint32_t> track_ids;
};

// A sample grouping of the sample tables (8.9), as the boxes `sgpd` (empty for none) and `sbgp`
// (empty when all samples are in the default group). Groups of fragments are not stored.
struct Group {
    std::uint32_t type = 0;
    std::uint32_t parameter = 0;
    std::vector<std::uint8_t> descriptions;
    std::vector<std::uint8_t> samples;
};

struct Track {
    std::uint32_t id = 0;
    std::uint32_t handler = 0;
    std::uint32_t timescale = 0;  // units a second, never 0
    std::uint64_t duration = 0;   // media timescale: the sum of the samples' durations
    // Packed ISO 639-2/T; "und" for a QuickTime language code.
    std::uint16_t language = kestrel::kUndeterminedLanguage;
    std::string name;  // from hdlr, bytes as they are in the file
    std::uint64_t creation_time = 0, modification_time = 0;  // seconds since 1904-01-01
    std::uint32_t flags = 0;                                 // of tkhd
    std::array<std::int32_t, 9> matrix{};
    std::uint32_t width = 0, height = 0;  // from tkhd, 16.16
    std::uint16_t layer = 0, alternate_group = 0, volume = 0;
    bool encrypted = false;  // a sample entry is a protected one (`encv`, `enca`...) or has a sinf
    std::vector<std::uint8_t> media_header;  // the box vmhd, smhd, hmhd, nmhd, sthd or gmhd
    std::vector<Description> descriptions;   // no two of one codec and configuration
    std::vector<Edit> edits;
    std::vector<Reference> references;
    std::vector<Group> groups;
    std::vector<Sample> samples;             // of the movie box and of all fragments
    std::uint32_t samples_in_movie_box = 0;  // so many of them come from the movie box's tables
    std::uint64_t missing_samples = 0;       // declared, and left out by salvage
    bool several_descriptions = false;       // a sample entry that differs from the first
};

struct Brands {
    std::uint32_t major = 0, minor = 0;  // 0 where the file has no ftyp
    std::vector<std::uint32_t> compatible;
};

struct Movie {
    Brands brands;
    std::uint32_t timescale = 0;                             // units a second, never 0
    std::uint64_t duration = 0;                              // movie timescale
    std::uint64_t creation_time = 0, modification_time = 0;  // seconds since 1904-01-01
    std::vector<std::uint8_t> object_descriptor;             // the box iods, or empty
    std::vector<Track> tracks;
    bool fragmented = false;       // has a moof
    bool lacks_fragments = false;  // some are missing; with salvage
    bool quicktime = false;        // the brand "qt  ", no ftyp, or a QuickTime sound description
};

// Limit of the samples of a file; more are refused.
inline constexpr std::uint32_t kMaxSamples = kMaxTrackSamples;

struct Options {
    // Keeps the samples that are whole when the file is truncated or fragments are missing: of each
    // track, those before the first one that is not whole.
    bool salvage = false;
    // Reads the facts of hint tracks only: damage in their tables is ignored.
    bool skip_hint_tracks = false;
};

// Why a file was not read.
enum class Cause { kNone, kFile, kHost, kMemory };

struct Result {
    bool ok = false;
    Cause cause = Cause::kNone;
    std::string error;     // one sentence without a full stop that names the box and its offset
    std::string salvaged;  // what was left out, one sentence without a full stop, or empty
    std::string missing;   // of it, what the file lacks, alone
    std::string remark;    // what may show that samples are missing, but need not; or empty
};

// Reads the contents of the file that `host` serves into `movie`.
//
// Calls IndexRead, GetStreamSize, GetOffset, Seek and CheckStatus only. The position of the stream
// is restored. Of mdat boxes only bytes after the last sample of a fragment are read. Takes 24
// bytes for each sample, and time and memory linear in the size of the boxes. The file must have
// arrived: not-yet is an error.
//
// All losses are errors: a table that contradicts another, a sample outside the file, a truncated
// box, a missing fragment, a track or a part of a fragment outside its container or inside another
// box. The contents of `movie` are then unspecified. Salvage keeps the rest of
// a truncated or incomplete file only. A missing fragment is detected by a segment index (sidx), by
// the declared duration (mehd), by a random access index (mfra), and by a jump in both the numbers
// and the times of fragments. A first fragment with a number above 1 is a jump after samples of the
// movie box.
//
// Times of fragments: a track's fragments begin at their tfdt. A gap after the previous sample, or
// an overlap, changes the duration of that sample. When tracks begin at different times, the later
// ones get an empty edit.
Result import_movie(KST_IOSTREAM_CALLBACK_INTERFACE& host, const Options& options, Movie& movie);

}  // namespace kestrel::importer

#endif
