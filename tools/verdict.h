// What of a file plays on which of the library's two APIs, why the rest does not, and what mends
// it. The one place for these words: info, report and check tell what is found here.
#ifndef KESTREL_TOOLS_VERDICT_H
#define KESTREL_TOOLS_VERDICT_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/support.h"

namespace tool {

enum class Medium { kAudio, kVideo };

enum class Reason {
    kPlays,          // opens, and is delivered to its end
    kNoTrack,        // the file has no track of the medium
    kNoHintTrack,    // the class API needs one
    kCodec,          // the API does not play this codec
    kSeveralTracks,  // the class API wants one track of the medium
    kIncomplete,     // the file ends too early, or much that the tables tell of does not come
    kDamaged,        // a box, a table or a sample makes no sense, or nothing comes
    kEndsProcess     // opening ends the process (see kestrel/c3gpinterface.h)
};

struct Verdict {
    Api api = Api::kFunction;
    Medium medium = Medium::kAudio;
    Reason reason = Reason::kNoTrack;
    int32_t status = 0;      // of the call that ended it; KST_SUCCESS for what plays
    bool opens = false;      // the failure, if any, came while it played
    uint64_t delivered = 0;  // bytes of native stream
    uint64_t frames = 0;     // in them
    uint32_t track_id = 0;   // of the track that was judged; 0 for none
    std::string amount;      // "15 of 30 pictures", of what comes to its end but lacks much
    std::string why;         // a sentence for a person; empty for what plays
    // The command that mends it and its options, "hint" or "hint --replace": tried, and what came
    // of it played.
    std::string mend;

    bool plays() const { return reason == Reason::kPlays; }
    // "plays", "stops before its end" and so on, for a person.
    const char* outcome() const;
};

// One word each, which scripts may rely on.
const char* word(Api api);
const char* word(Medium medium);
const char* word(Reason reason);

// "kestrel hint FILE -o OUT" for a verdict with something to mend it, quoted for a shell.
std::string mending_command(const Verdict& verdict, const std::string& input);

bool is_hint(const iso_track* track);

// Of a track that is no hint track, by its codec, else by its handler. False for any other.
bool is_of(const iso_track* track, Medium medium);
bool has_medium(const iso_file* file, Medium medium);

// The sum of the sizes of a track's samples.
uint64_t sample_bytes(const iso_track* track);

// What a track's tables place behind the end of a file of `size` bytes.
struct Outside {
    uint32_t chunks = 0;
    uint64_t bytes = 0;
};
Outside outside_file(const iso_track* track, uint32_t size);

// Opens one medium on one API and plays it to its end, or for the first 256 MiB of its stream, in
// a process of its own: opening of the class API may end it. What fails is hinted in memory and
// tried once more, to see what mends it, except for files of more than 128 MiB. What the library
// has to say meanwhile goes nowhere. The host must be complete, and is the caller's again
// afterwards.
Verdict judge(kst_host* host, const iso_file* file, Api api, Medium medium);

// All four, function API first, audio first.
std::vector<Verdict> judge_all(kst_host* host, const iso_file* file);

inline constexpr std::array kApis = {Api::kFunction, Api::kClass};
inline constexpr std::array kMedia = {Medium::kAudio, Medium::kVideo};

}  // namespace tool

#endif
