// SPDX-License-Identifier: Apache-2.0
// What of a file plays with which of the library's two APIs, why the rest does not, and which
// command fixes it. The one place for these words: info, report and check print what is found here.
#ifndef KESTREL_TOOLS_JUDGE_VERDICT_H
#define KESTREL_TOOLS_JUDGE_VERDICT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/judge/child_process.h"
#include "tools/judge/file_facts.h"
#include "tools/judge/fix.h"
#include "tools/judge/media_tracks.h"
#include "tools/judge/trial.h"

namespace tool {

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
    kImplausible,    // what comes out cannot be of the codec: bytes of a wrong place
    kDamaged,        // a box, a table or a sample is malformed, or nothing comes out
    kEndsProcess,    // opening ends the process (see kestrel/c3gpinterface.h)
    kMemory,         // playing takes more memory than is allowed
    kTimeout,        // judging was not done in time
    kNotPlayed       // the tables show no reason against it, and it was not tried
};

struct Verdict {
    Api api = Api::kFunction;
    MediaKind kind = MediaKind::kAudio;
    Reason reason = Reason::kNoTrack;
    bool tried = false;      // opened and played, as far as it goes
    int32_t status = 0;      // of the call that ended it; KST_SUCCESS for the end of the stream
    bool opens = false;      // the failure, if any, came while it played
    uint64_t delivered = 0;  // bytes of native stream
    uint64_t frames = 0;     // in them
    uint32_t track_id = 0;   // of the track that was judged; 0 for none
    std::string amount;      // "15 of 30 pictures", of what comes to its end but lacks some
    std::string why;         // a sentence for a person; empty for what plays
    // The command that fixes it and its options, "hint --replace" and so on: tried, and the file
    // that it made played. Empty for none.
    std::string fix;

    bool plays() const { return reason == Reason::kPlays; }
    // "plays", "stops before its end" and so on, for a person.
    const char* outcome() const;
};

// One word, which scripts may rely on.
const char* word(Reason reason);

// "status 12: Hint tracks are required"; the number alone where the text says nothing.
std::string status_words(int32_t status);

// "kestrel hint FILE -o OUT" for a verdict with a fix, quoted for a shell; else empty.
std::string fix_command(const Verdict& verdict, const std::string& input);

// Judges one file. What the library writes to standard error meanwhile goes nowhere.
class Judge {
  public:
    // Works until `deadline`; what is not done by then gets the verdict kTimeout. The facts must
    // outlive the judge.
    Judge(const FileFacts& facts, Clock::time_point deadline);

    // Opens one medium with one API and plays it to its end, in a process of its own. When that
    // fails, looks for a fix.
    Verdict judge(Api api, MediaKind kind);

    // Looks at the boxes and tables alone.
    Verdict look(Api api, MediaKind kind) const;

    // All four, function API first, audio first.
    std::vector<Verdict> judge_all();

  private:
    const FileFacts& facts_;
    ChildLimits limits_;
    FixFinder fixes_;
};

// Why no medium was found in a file that has a file type or a movie box, or not all of them.
Reason reason_for_no_media(const FileFacts& facts);

// The error of a command that an API, returning `status`, gave no track to: the reason that the
// boxes of the file show, and the status. Nothing is tried.
Error open_error(kst_host* host, const std::string& input, Api api, MediaKind kind, int32_t status);

// How a command played a medium.
struct Playback {
    int32_t status = KST_END_OF_FILE;  // that ended it
    uint64_t delivered = 0;            // bytes of native stream
    MediaCounts counts;                // in them
};

// The error of a command that played a medium of a complete file: why it stopped, or what of the
// samples that the file has did not come. Nothing where all of them came.
std::optional<Error> play_error(kst_host* host, const std::string& input, Api api, MediaKind kind,
                                const Playback& playback);

}  // namespace tool

#endif
