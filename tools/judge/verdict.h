// SPDX-License-Identifier: Apache-2.0
// Which media of a file play with which API, why others do not, and the command that fixes them.
// All texts are here: info, report and check print these verdicts.
#ifndef KESTREL_TOOLS_JUDGE_VERDICT_H
#define KESTREL_TOOLS_JUDGE_VERDICT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companion/probe/media_tracks.h"
#include "companion/probe/reasons.h"
#include "tools/judge/child_process.h"
#include "tools/judge/facts.h"
#include "tools/judge/fix.h"
#include "tools/judge/trial.h"

namespace tool {

struct Verdict {
    Api api = Api::kFunction;
    MediaKind kind = MediaKind::kAudio;
    Reason reason = Reason::kNoTrack;
    bool tried = false;      // opened and played, as far as it goes, with a status
    int32_t status = 0;      // of the call that ended it; KST_SUCCESS for the end of the stream
    bool opens = false;      // a failure, if any, was during playing
    uint64_t delivered = 0;  // bytes of native stream
    uint64_t frames = 0;     // in them; 0 where none has bytes of media
    uint32_t track_id = 0;   // of the track that was judged; 0 for none
    std::string amount;      // "15 of 30 pictures", of what comes to its end but lacks some
    std::string why;         // a sentence for a person; empty for what plays
    // The command that fixes it, with options, such as "hint --replace". It was tried, and its
    // result played. Empty for none.
    std::string fix;
    bool lacks_times = false;      // all its times are the same
    bool seeks_elsewhere = false;  // class API: seeks by time reach another time

    bool plays() const { return reason == Reason::kPlays; }
    // "plays", "stops before its end" and so on, for a person.
    const char* outcome() const;
};

// "status 12: Hint tracks are required"; the number alone where the text says nothing, or no reason
// that a hint track removes.
std::string status_words(const Verdict& verdict);

// "kestrel hint FILE -o OUT" for a verdict with a fix, quoted for a shell; else empty.
std::string fix_command(const Verdict& verdict, const std::string& input);

// Judges one file. Lines of the library on standard error are dropped.
class Judge {
  public:
    // Works until `deadline`; the rest gets the verdict kTimeout. The facts must outlive the judge.
    Judge(const FileFacts& facts, Clock::time_point deadline);

    // Opens one medium with one API and plays it to its end, in a separate process. Looks for a fix
    // when that fails.
    Verdict judge(Api api, MediaKind kind);

    // Judges by the boxes and tables only.
    Verdict look(Api api, MediaKind kind);

    // All four, function API first, audio first.
    std::vector<Verdict> judge_all();

  private:
    const kestrel::probe::ClassFile& class_file();

    const FileFacts& facts_;
    ChildLimits limits_;
    FixFinder fixes_;
    std::optional<kestrel::probe::ClassFile> class_file_;  // once it is asked for
};

// The error of a command to which an API, with `status`, gave no track: the reason in the boxes of
// the file, the status, and the command that fixes it, which is tried for a few seconds.
Error open_error(kst_host* host, const std::string& input, Api api, MediaKind kind, int32_t status);

// The result of a command that played a medium.
struct Playback {
    int32_t status = KST_END_OF_FILE;  // that ended it
    uint64_t delivered = 0;            // bytes of native stream
    MediaCounts counts;                // in them
    uint32_t first_frame = 1;          // hint sample that it began with, from 1
};

// The error of a command that played a medium of a complete file: why it stopped, or which samples
// are missing, and the command that fixes it. Nothing when all were delivered.
std::optional<Error> play_error(kst_host* host, const std::string& input, Api api, MediaKind kind,
                                const Playback& playback);

}  // namespace tool

#endif
