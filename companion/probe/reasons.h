// SPDX-License-Identifier: Apache-2.0
// Which API plays which media of a file, as far as its boxes and tables show. The reasons, their
// words and their sentences are defined here only.
#ifndef KESTREL_COMPANION_PROBE_REASONS_H
#define KESTREL_COMPANION_PROBE_REASONS_H

#include <cstdint>
#include <string>

#include "companion/probe/class_file.h"
#include "companion/probe/file_facts.h"

namespace kestrel::probe {

enum class Reason {
    kPlays,          // opens, and all samples that the file has are delivered
    kNoTrack,        // the file has no track of the medium
    kNoHintTrack,    // the class API needs one
    kSelfHinted,     // the payloads are in the hint track itself, where the class API does not look
    kCodec,          // the API does not play this codec
    kEncrypted,      // the track is encrypted
    kSeveralTracks,  // the class API accepts one track of the medium
    kFragmented,     // samples are in movie fragments, which the APIs do not read
    kLargeBox,       // a box declares its size in a form that the API does not read
    kUnknownTable,   // a table of the track has a form that the API does not read
    kLargeFrame,     // a sample is larger than the API can hold
    kIncomplete,     // the file ends too early, or less comes out than it has
    kImplausible,    // what comes out cannot be of the codec: wrong tables, or other bytes
    kDamaged,        // a box, a table or a sample is malformed, or nothing or too much comes out
    kEndsProcess,    // opening ends the process (see kestrel/c3gpinterface.h)
    kMemory,         // playing takes more memory than is allowed
    kTimeout,        // judging was not done in time
    kNotPlayed       // the tables show no reason against it, and it was not tried
};

// A word, which scripts may rely on, and the code of kestrel/probe.h that stands for the reason.
struct ReasonName {
    const char* word;
    int32_t code;
};
const ReasonName& name_of(Reason reason);
const char* word(Reason reason);

// The subject of a judgement.
struct Subject {
    const FileFacts& facts;
    Api api;
    MediaKind kind;
    const iso_track* track;         // as the library's reader has it; null for none
    const ImportedTrack* imported;  // the same with all its samples; null for a plain file
    Expected expected;              // of the track
    uint32_t skipped = 0;           // its first samples, which are not expected
    uint32_t skipped_hints = 0;     // the same of the hint samples

    bool has_track() const { return track != nullptr || imported != nullptr; }
    uint32_t track_id() const {
        return imported != nullptr ? imported->id : track != nullptr ? track->track_id : 0;
    }
    int32_t codec() const {
        return track != nullptr      ? track->codec
               : imported != nullptr ? imported->codec
                                     : int32_t{ISO_CODEC_NONE};
    }
};

Subject subject_of(const FileFacts& facts, Api api, MediaKind kind);

// Reasons in the boxes of a track or of the file.

bool is_encrypted(const Subject& subject);
// Whether the track has a sample entry, and its codec is none that the API plays.
bool is_of_other_codec(const Subject& subject);

// The name of a box in a form that neither API reads, and that stands for one which playing needs;
// empty for none.
std::string unread_table(const Subject& subject);
// The same, and boxes that an API may as well do without.
std::string unknown_table(const Subject& subject);

bool has_odd_sizes(const FileFacts& facts);
bool is_whole(const iso_track* track, uint32_t size);

// Whether the file does not have all samples that its fragments declare, or lacks fragments.
bool lacks_samples(const Subject& subject);

// The samples that chunks of the movie box hold and of which it has no size, so that neither
// playing nor hinting finds them.
uint64_t lost_sizes(const FileFacts& facts, const iso_track* track);

// Whether the file lacks samples of the track, or its end: more than hints is missing.
bool lacks_media(const Subject& subject);

// True when data that the tables place after the end of the file is missing.
bool lacks_data(const Subject& subject, int64_t status);

// The reason that the tables show; kNotPlayed where they show none. `opened` is the file of the
// facts.
Reason reason_by_tables(const Subject& subject, const ClassFile& opened);

// Whether seeks by time of the class API, in a medium that it plays, reach another time: the hint
// track has another timescale than the media.
bool seeks_elsewhere(const ClassFile& opened, MediaKind kind);

// Why no medium was found in a file that has a file type or a movie box, or not all of them.
Reason reason_for_no_media(const FileFacts& facts);

// Texts for a person.

// "H.264", "the codec 'av01'".
std::string name_of_codec(const Subject& subject);
// "72 bytes of 'mdat' are missing", of a file that ends inside a box; empty for another.
std::string missing_bytes(const FileScan& scan);
// "12,345".
std::string show_count(uint64_t count);
// A sentence for a file whose tracks cannot be found, as its movie box is missing or cut; empty for
// another.
std::string why_no_tracks(const FileFacts& facts);
// A sentence for a reason that tables show; empty for those that need playing.
std::string why_by_tables(const Subject& subject, Reason reason);
// A sentence on a damaged file that the API does not open.
std::string why_not_opened(const Subject& subject);

// Whether hinting, replacing hints or salvaging may fix it.
bool may_have_fix(const Subject& subject, Reason reason);

}  // namespace kestrel::probe

#endif
