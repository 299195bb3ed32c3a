#include "tools/verdict.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kestrel/log.h"

namespace tool {
namespace {

constexpr uint64_t kMostPlayed = 256 << 20;  // bytes of stream: a few bytes of tables tell of more

// What came of playing, as the other process tells it.
struct Trial {
    bool answered = false;
    bool opened = false;
    int32_t status = KST_UNKNOWN_CODER;
    uint64_t delivered = 0;
};

const char* mode_of(Medium medium) {
    return medium == Medium::kAudio ? "ar" : "vr";
}

// Calls `read` until the stream ends, fails, or has been long enough.
template <typename Read>
void play(Trial& trial, Read read) {
    std::vector<uint8_t> buffer(KST_LARGEST_CHUNK);
    trial.opened = true;
    trial.status = KST_SUCCESS;
    while (trial.status == KST_SUCCESS && trial.delivered < kMostPlayed) {
        auto size = static_cast<uint32_t>(buffer.size());
        trial.status = read(buffer.data(), &size);
        trial.delivered += size;
    }
    if (trial.status == KST_END_OF_FILE) trial.status = KST_SUCCESS;
}

Trial try_road(kst_host* host, Road road, Medium medium) {
    Trial trial;
    trial.answered = true;
    const bool arriving = kst_host_is_arriving(host) != 0;
    kst_host_rewind(host);
    if (road == Road::kFunction) {
        const Handle handle = open_track(host, mode_of(medium), trial.status);
        if (handle == nullptr) return trial;
        play(trial, [&](uint8_t* to, uint32_t* size) {
            return kst_ReadChunk(handle.get(), to, size, arriving);
        });
    } else {
        const ClassObject object = open_object(host, mode_of(medium), trial.status);
        if (object == nullptr) return trial;
        play(trial, [&](uint8_t* to, uint32_t* size) {
            return static_cast<int32_t>(object->ReadChunk(to, size, arriving));
        });
    }
    return trial;
}

// The life of the other process. It leaves by _exit, or by the exit of the class road.
[[noreturn]] void try_and_tell(int to, kst_host* host, Road road, Medium medium) {
    const int nowhere = open("/dev/null", O_WRONLY);
    if (nowhere >= 0) dup2(nowhere, STDERR_FILENO);
    sx_Debug = 0;
    try {
        const Trial trial = try_road(host, road, medium);
        if (write(to, &trial, sizeof trial) != sizeof trial) _exit(kFailed);
    } catch (...) {
        _exit(kFailed);
    }
    _exit(kDone);
}

Trial try_apart(kst_host* host, Road road, Medium medium) {
    int ends[2];
    if (pipe(ends) != 0) throw system_error("pipe");
    std::fflush(nullptr);  // or an exit over there would write what waits here once more
    const pid_t child = fork();
    if (child < 0) {
        close(ends[0]);
        close(ends[1]);
        throw system_error("fork");
    }
    if (child == 0) try_and_tell(ends[1], host, road, medium);
    close(ends[1]);
    Trial told;
    ssize_t got = 0;
    do {
        got = read(ends[0], &told, sizeof told);
    } while (got < 0 && errno == EINTR);
    close(ends[0]);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return got == sizeof told ? told : Trial{};
}

bool plays_codec(Road road, int32_t codec) {
    switch (codec) {
        case ISO_CODEC_SAMR:
        case ISO_CODEC_S263:
        case ISO_CODEC_MP4V:
            return true;
        case ISO_CODEC_SAWB:
        case ISO_CODEC_AVC1:
            return road == Road::kFunction;
        default:
            return false;
    }
}

// The first track of the medium that the road plays, else the first of the medium at all.
const iso_track* track_for(const iso_file* file, Road road, Medium medium) {
    const iso_track* found = nullptr;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (!is_of(track, medium)) continue;
        if (plays_codec(road, track->codec)) return track;
        if (found == nullptr) found = track;
    }
    return found;
}

const iso_track* hint_track_of(const iso_file* file, const iso_track* media) {
    const iso_track* track = file->first_track;
    while (track != nullptr && !(is_hint(track) && track->hint_track_ref == media->track_id))
        track = track->next;
    return track;
}

bool has_hints(const iso_file* file) {
    const iso_track* track = file->first_track;
    while (track != nullptr && !is_hint(track))
        track = track->next;
    return track != nullptr;
}

Reason reason_of(const Trial& trial, Road road, const iso_track* track) {
    if (!trial.answered) return Reason::kEndsProcess;
    if (trial.opened && trial.status == KST_SUCCESS) return Reason::kPlays;
    if (trial.opened) return Reason::kDamaged;
    if (track == nullptr) return Reason::kNoTrack;
    if (!plays_codec(road, track->codec)) return Reason::kCodec;
    switch (trial.status) {
        case KST_TOO_MANY_TRACKS:
            return Reason::kSeveralTracks;
        case KST_NO_HINT_TRACK:
            return Reason::kNoHintTrack;
        default:
            return Reason::kDamaged;
    }
}

bool is_whole(const iso_track* track, uint32_t size) {
    return outside_file(track, size).chunks == 0;
}

// What is copied for new hints.
bool media_is_whole(const iso_file* file, uint32_t size) {
    const iso_track* track = file->first_track;
    while (track != nullptr && (is_hint(track) || is_whole(track, size)))
        track = track->next;
    return track == nullptr;
}

// True when what was found damaged lacks data that the tables place behind the end.
bool lacks_data(const Verdict& verdict, const iso_file* file, const iso_track* track,
                uint32_t size) {
    if (verdict.status == KST_NOT_YET) return true;
    if (track == nullptr) return false;
    const iso_track* hint = hint_track_of(file, track);
    return !is_whole(track, size) || (hint != nullptr && !is_whole(hint, size));
}

std::string why(const Verdict& verdict, const iso_track* track) {
    const std::string medium = word(verdict.medium);
    const std::string codec = track != nullptr ? codec_name(track->codec) : "unknown";
    switch (verdict.reason) {
        case Reason::kPlays:
            return "";
        case Reason::kNoTrack:
            return "The file has no " + medium + " track.";
        case Reason::kNoHintTrack:
            return "The " + medium + " has no RTP hint track, and this road plays nothing else.";
        case Reason::kCodec:
            return std::string("This road does not play ") +
                   (codec == "unknown" ? "this " + medium + " codec" : codec) +
                   (verdict.road == Road::kClass ? "; it plays AMR-NB, H.263 and MPEG-4 Visual."
                                                 : "; convert it with another tool first.");
        case Reason::kSeveralTracks:
            return "The file has several " + medium +
                   " tracks, and this road plays a file with one.";
        case Reason::kIncomplete:
            return verdict.mend.empty()
                       ? "The file ends before its " + medium + " does: get the whole file."
                       : "The " + medium + " is whole, but its RTP hints are not.";
        case Reason::kDamaged:
            return verdict.opens ? "It stops at damaged data after " +
                                       std::to_string(verdict.delivered) + " bytes of stream."
                                 : "A box or table that playing needs is missing or damaged.";
        case Reason::kEndsProcess:
            return "Opening ends the whole process: there is an MPEG-4 sample entry of another "
                   "codec.";
    }
    return "";
}

std::string mend(const Verdict& verdict, const iso_file* file, const iso_track* track,
                 uint32_t size) {
    const bool fails = verdict.reason == Reason::kNoHintTrack ||
                       verdict.reason == Reason::kDamaged || verdict.reason == Reason::kIncomplete;
    if (!fails || track == nullptr || track->sample_count == 0 || !media_is_whole(file, size)) {
        return "";
    }
    // With the media whole, new hints play. The class road also minds all other boxes, which are
    // made anew with them. A file that has hints, even of no use, is hinted anew only when asked
    // to.
    if (verdict.road == Road::kClass) return has_hints(file) ? "hint --replace" : "hint";
    return verdict.opens && hint_track_of(file, track) != nullptr ? "hint --replace" : "";
}

std::string quoted(const std::string& text) {
    static constexpr char kPlain[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./+,:@%=";
    std::string path = text.starts_with('-') && text.size() > 1 ? "./" + text : text;
    if (!path.empty() && path.find_first_not_of(std::string(kPlain) + "-") == std::string::npos) {
        return path;
    }
    std::string out = "'";
    for (const char c : path)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace

const char* word(Road road) {
    return road == Road::kFunction ? "function" : "class";
}

const char* word(Medium medium) {
    return medium == Medium::kAudio ? "audio" : "video";
}

const char* word(Reason reason) {
    switch (reason) {
        case Reason::kPlays:
            return "plays";
        case Reason::kNoTrack:
            return "no-track";
        case Reason::kNoHintTrack:
            return "no-hint-track";
        case Reason::kCodec:
            return "codec";
        case Reason::kSeveralTracks:
            return "several-tracks";
        case Reason::kIncomplete:
            return "incomplete";
        case Reason::kDamaged:
            return "damaged";
        case Reason::kEndsProcess:
            return "ends-process";
    }
    return "";
}

std::string mending_command(const Verdict& verdict, const std::string& input) {
    if (verdict.mend.empty()) return "";
    const size_t options = verdict.mend.find(' ');
    const std::string more = options == std::string::npos ? "" : verdict.mend.substr(options);
    return "kestrel " + verdict.mend.substr(0, options) + " " + quoted(input) + more + " -o OUT";
}

bool is_hint(const iso_track* track) {
    return track->codec == ISO_CODEC_RTP || track->codec == ISO_CODEC_SRTP;
}

bool is_of(const iso_track* track, Medium medium) {
    switch (track->codec) {
        case ISO_CODEC_SAMR:
        case ISO_CODEC_SAWB:
        case ISO_CODEC_SAWP:
        case ISO_CODEC_MP4A:
            return medium == Medium::kAudio;
        case ISO_CODEC_S263:
        case ISO_CODEC_MP4V:
        case ISO_CODEC_AVC1:
            return medium == Medium::kVideo;
        case ISO_CODEC_RTP:
        case ISO_CODEC_SRTP:
            return false;
        default:
            return std::strcmp(track->handler, medium == Medium::kAudio ? "soun" : "vide") == 0;
    }
}

bool has_medium(const iso_file* file, Medium medium) {
    const iso_track* track = file->first_track;
    while (track != nullptr && !is_of(track, medium))
        track = track->next;
    return track != nullptr;
}

Outside outside_file(const iso_track* track, uint32_t size) {
    Outside out;
    for (int32_t i = 0; i < track->chunk_count; ++i) {
        const iso_chunk& chunk = track->chunks[i];
        if (chunk.end <= size) continue;
        ++out.chunks;
        const uint32_t from = std::max(chunk.start, size);
        out.bytes += chunk.end > from ? chunk.end - from : 0;
    }
    return out;
}

Verdict judge(kst_host* host, const iso_file* file, Road road, Medium medium) {
    const iso_track* track = track_for(file, road, medium);
    const Trial trial = try_apart(host, road, medium);
    Verdict verdict;
    verdict.road = road;
    verdict.medium = medium;
    verdict.reason = reason_of(trial, road, track);
    verdict.status = trial.status;
    verdict.opens = trial.opened;
    verdict.delivered = trial.delivered;
    const uint32_t size = kst_host_bytes_available(host);
    if (verdict.reason == Reason::kDamaged && lacks_data(verdict, file, track, size)) {
        verdict.reason = Reason::kIncomplete;
    }
    verdict.mend = mend(verdict, file, track, size);
    verdict.why = why(verdict, track);
    return verdict;
}

std::vector<Verdict> judge_all(kst_host* host, const iso_file* file) {
    std::vector<Verdict> verdicts;
    for (const Road road : kRoads) {
        for (const Medium medium : kMedia)
            verdicts.push_back(judge(host, file, road, medium));
    }
    return verdicts;
}

}  // namespace tool
