#include "tools/verdict.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <numeric>
#include <type_traits>

#include "kestrel/log.h"
#include "tools/frame_tally.h"
#include "tools/hinter.h"
#include "tools/report/markup.h"

namespace tool {
namespace {

constexpr uint64_t kMostPlayed = 256 << 20;  // bytes of stream: a few bytes of tables tell of more
constexpr uint32_t kMostEmptyReads = 1 << 16;
constexpr unsigned kMostSeconds = 300;
constexpr uint32_t kMostHinted = 128 << 20;  // bytes of a file that is hinted for trial

// What came of playing, as the other process tells it: byte for byte, so none lies between.
struct Trial {
    bool opened = false;
    bool in_part = false;  // came to an end, but much of what the tables tell of did not come
    uint16_t unused = 0;
    int32_t status = KST_UNKNOWN_CODER;
    uint64_t delivered = 0;  // bytes of stream
    uint64_t frames = 0;
    uint64_t media_bytes = 0;

    bool plays() const { return opened && status == KST_SUCCESS && frames > 0 && !in_part; }
};
static_assert(std::has_unique_object_representations_v<Trial>);

const char* mode_of(Medium medium) {
    return medium == Medium::kAudio ? "ar" : "vr";
}

bool plays_codec(Api api, int32_t codec) {
    switch (codec) {
        case ISO_CODEC_SAMR:
        case ISO_CODEC_S263:
        case ISO_CODEC_MP4V:
            return true;
        case ISO_CODEC_SAWB:
        case ISO_CODEC_AVC1:
            return api == Api::kFunction;
        default:
            return false;
    }
}

// The track that the API takes, else the first of the medium. The function API takes the track ID
// of the last track that it plays, and the first such track with that ID; the class API takes
// tracks by their handlers, and of those with one ID the last.
const iso_track* track_for(const iso_file* file, Api api, Medium medium) {
    const auto takes = [&](const iso_track* track) {
        if (api == Api::kFunction) return is_of(track, medium) && plays_codec(api, track->codec);
        return std::strcmp(track->handler, medium == Medium::kAudio ? "soun" : "vide") == 0;
    };
    const iso_track* first = nullptr;
    const iso_track* last = nullptr;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (first == nullptr && is_of(track, medium)) first = track;
        if (takes(track)) last = track;
    }
    if (last == nullptr || api == Api::kClass) return last != nullptr ? last : first;
    const iso_track* taken = file->first_track;
    while (!(takes(taken) && taken->track_id == last->track_id))
        taken = taken->next;
    return taken;
}

double share(uint64_t part, uint64_t whole) {
    return whole == 0 ? 1.0 : static_cast<double>(part) / static_cast<double>(whole);
}

// The media bytes that the tables tell of, also those of samples that the reader found no place
// for.
double told_bytes(const iso_track* track) {
    const auto samples = static_cast<uint32_t>(std::max(track->sample_count, 0));
    const auto bytes = static_cast<double>(sample_bytes(track));
    return samples == 0
               ? 0
               : bytes * std::max(isoFFtrackDetails(track)->declared_samples, samples) / samples;
}

// Bytes are compared, as frames need not be samples: speech has several in one, and hint tracks
// may cut as they like. Packets hold no less than the samples, but for the lengths in front of
// NAL units; there the pictures count too.
bool is_in_part(const Trial& trial, const iso_track* track) {
    constexpr double kEnough = 0.9;
    if (static_cast<double>(trial.media_bytes) >= kEnough * told_bytes(track)) return false;
    return track->codec != ISO_CODEC_AVC1 ||
           share(trial.frames, isoFFtrackDetails(track)->declared_samples) < kEnough;
}

// Calls `read` until the stream ends, fails, or has been long enough.
template <typename Read>
void play(Trial& trial, const iso_track* track, Read read) {
    std::vector<uint8_t> buffer(KST_LARGEST_CHUNK);
    FrameTally tally;
    uint32_t empty = 0;
    trial.opened = true;
    trial.status = KST_SUCCESS;
    while (trial.status == KST_SUCCESS && trial.delivered < kMostPlayed) {
        auto size = static_cast<uint32_t>(buffer.size());
        trial.status = read(buffer.data(), &size);
        if (trial.status == KST_BAD_ARGUMENT && size > buffer.size()) {  // a large frame
            buffer.resize(size);
            trial.status = KST_SUCCESS;
            continue;
        }
        tally.take({buffer.data(), size});
        trial.delivered += size;
        empty = size == 0 ? empty + 1 : 0;
        if (trial.status == KST_SUCCESS && empty > kMostEmptyReads) trial.status = KST_FAILURE;
    }
    trial.frames = tally.frames();
    trial.media_bytes = tally.bytes();
    if (trial.status != KST_END_OF_FILE) return;
    trial.status = KST_SUCCESS;
    trial.in_part = trial.frames > 0 && track != nullptr && is_in_part(trial, track);
}

Trial try_api(kst_host* host, const iso_file* file, Api api, Medium medium) {
    Trial trial;
    const iso_track* track = track_for(file, api, medium);
    const bool arriving = kst_host_is_arriving(host) != 0;
    kst_host_rewind(host);
    if (api == Api::kFunction) {
        const Handle handle = open_track(host, mode_of(medium), trial.status);
        if (handle == nullptr) return trial;
        play(trial, track, [&](uint8_t* to, uint32_t* size) {
            return kst_ReadChunk(handle.get(), to, size, arriving);
        });
    } else {
        const ClassObject object = open_object(host, mode_of(medium), trial.status);
        if (object == nullptr) return trial;
        play(trial, track, [&](uint8_t* to, uint32_t* size) {
            return static_cast<int32_t>(object->ReadChunk(to, size, arriving));
        });
    }
    return trial;
}

// Hints the file in memory, and plays what came of it.
Trial try_hinted(kst_host* host, bool replace, Api api, Medium medium) {
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
    kst_host_rewind(host);
    const IsoFile from = open_iso(host, callbacks);
    const Host memory(kst_host_for_writing_memory());
    if (memory == nullptr) throw std::bad_alloc();
    KST_IOSTREAM_CALLBACK_INTERFACE* table = kst_host_callbacks(memory.get());
    IsoFile to(isoFFopen(table, "w", nullptr));
    if (to == nullptr) throw std::bad_alloc();
    HintOptions options;
    options.replace = replace;
    try {
        copy_with_hints(options, from.get(), to.get());
    } catch (const Error&) {
        return {};
    }
    if (isoFFclose(to.release()) != 0) return {};
    size_t size = 0;
    const void* bytes = kst_host_written(memory.get(), &size);
    const Host hinted(kst_host_from_memory(bytes, size));
    if (hinted == nullptr) throw std::bad_alloc();
    const IsoFile file = open_iso(hinted.get(), callbacks);
    return try_api(hinted.get(), file.get(), api, medium);
}

// How a process that tries something ended.
enum class End { kTold, kExit, kSignal, kFault };

struct Outcome {
    End end = End::kFault;
    int signal = 0;
    Trial trial;
};

constexpr int kFaultCode = 3;  // of a process that could not try; the exit of the class API is 1

// The life of the other process. It leaves by _exit, or by the exit of the class API.
template <typename Try>
[[noreturn]] void try_and_tell(int to, Try attempt) {
    const int nowhere = open("/dev/null", O_WRONLY);
    if (nowhere >= 0) dup2(nowhere, STDERR_FILENO);
    sx_Debug = 0;
    std::signal(SIGALRM, SIG_DFL);
    alarm(kMostSeconds);
    try {
        const Trial trial = attempt();
        if (write(to, &trial, sizeof trial) != sizeof trial) _exit(kFaultCode);
    } catch (...) {
        _exit(kFaultCode);
    }
    _exit(kDone);
}

template <typename Try>
Outcome try_apart(Try attempt) {
    int ends[2];
    if (pipe(ends) != 0) throw system_error("pipe");
    std::fflush(nullptr);           // or an exit over there would write what waits here once more
    std::signal(SIGCHLD, SIG_DFL);  // where it is ignored, nothing is told of how a process ended
    const pid_t child = fork();
    if (child < 0) {
        const Error failure = system_error("fork");
        close(ends[0]);
        close(ends[1]);
        throw failure;
    }
    if (child == 0) try_and_tell(ends[1], attempt);
    close(ends[1]);
    Outcome outcome;
    ssize_t got = 0;
    do {
        got = read(ends[0], &outcome.trial, sizeof outcome.trial);
    } while (got < 0 && errno == EINTR);
    close(ends[0]);
    int how = 0;
    pid_t waited = 0;
    while ((waited = waitpid(child, &how, 0)) < 0 && errno == EINTR) {
    }
    if (got == sizeof outcome.trial) {
        outcome.end = End::kTold;
        return outcome;
    }
    outcome.trial = {};
    if (waited != child) return outcome;
    if (WIFSIGNALED(how)) {
        outcome.end = End::kSignal;
        outcome.signal = WTERMSIG(how);
    } else if (WEXITSTATUS(how) == kFailed) {
        outcome.end = End::kExit;
    }
    return outcome;
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

Reason reason_of(const Outcome& outcome, Api api, const iso_track* track) {
    const Trial& trial = outcome.trial;
    if (outcome.end == End::kExit) return Reason::kEndsProcess;
    if (outcome.end == End::kSignal) return Reason::kDamaged;
    if (trial.plays()) return Reason::kPlays;
    if (trial.in_part) return Reason::kIncomplete;
    if (trial.opened) return Reason::kDamaged;
    if (track == nullptr) return Reason::kNoTrack;
    if (!plays_codec(api, track->codec)) return Reason::kCodec;
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

// How much of it plays, of what is incomplete though nothing is missing from the file.
std::string amount(const Trial& trial, const iso_track* track, Medium medium) {
    if (medium == Medium::kVideo && trial.frames < isoFFtrackDetails(track)->declared_samples) {
        return std::to_string(trial.frames) + " of " +
               std::to_string(isoFFtrackDetails(track)->declared_samples) + " pictures";
    }
    const double percent = 100 * static_cast<double>(trial.media_bytes) / told_bytes(track);
    return format("%.0f %% of the bytes of its %s", percent, word(medium));
}

std::string why_damaged(const Verdict& verdict, const Outcome& outcome, const iso_track* track) {
    if (outcome.signal == SIGALRM) {
        return "Playing it did not come to an end within " + std::to_string(kMostSeconds) + " s.";
    }
    if (outcome.end == End::kSignal) {
        return "The reader ended by signal " + std::to_string(outcome.signal) + ".";
    }
    if (!verdict.opens) return "A box or table that playing needs is missing or damaged.";
    if (verdict.status == KST_SUCCESS) {
        return track != nullptr && isoFFtrackDetails(track)->declared_samples == 0
                   ? "It opens, but its track has no samples."
                   : "It opens, but no frame comes out: a table or all samples make no sense.";
    }
    return "It stops at damaged data after " + std::to_string(verdict.delivered) +
           " bytes of stream.";
}

std::string why(const Verdict& verdict, const Outcome& outcome, const iso_track* track,
                uint32_t size, bool hints) {
    const std::string medium = word(verdict.medium);
    const std::string codec = track != nullptr ? codec_name(track->codec) : "unknown";
    switch (verdict.reason) {
        case Reason::kPlays:
            return "";
        case Reason::kNoTrack:
            return "The file has no " + medium + " track.";
        case Reason::kNoHintTrack:
            return (hints ? "No RTP hint track refers to the " + medium
                          : "The " + medium + " has no RTP hint track") +
                   ", and this API plays nothing else.";
        case Reason::kCodec:
            return std::string("This API does not play ") +
                   (codec == "unknown" ? "this " + medium + " codec" : codec) +
                   (verdict.api == Api::kClass ? "; it plays AMR-NB, H.263 and MPEG-4 Visual."
                                               : "; convert it with another tool first.");
        case Reason::kSeveralTracks:
            return "The file has several " + medium +
                   " tracks, and this API plays a file with one.";
        case Reason::kIncomplete:
            if (!verdict.amount.empty()) return "It delivers only " + verdict.amount + ".";
            return track == nullptr || !is_whole(track, size)
                       ? "The file ends before its " + medium + " does: get the whole file."
                       : "The " + medium + " is whole, but its RTP hints are not.";
        case Reason::kDamaged:
            return why_damaged(verdict, outcome, track);
        case Reason::kEndsProcess:
            return "Opening ends the whole process: there is an MPEG-4 sample entry of another "
                   "codec.";
    }
    return "";
}

// New hints play where the media are whole, and all boxes that the APIs mind are made anew with
// them; but many a file cannot be hinted, and some do not play for another reason. So what is told
// was seen to work. A file that has hints, even of no use, is hinted anew only when asked to.
std::string mend(kst_host* host, const Verdict& verdict, const iso_file* file,
                 const iso_track* track, uint32_t size) {
    const bool fails = verdict.reason == Reason::kNoHintTrack ||
                       verdict.reason == Reason::kDamaged || verdict.reason == Reason::kIncomplete;
    if (!fails || track == nullptr || track->sample_count == 0 || size > kMostHinted ||
        !media_is_whole(file, size)) {
        return "";
    }
    const bool replace = has_hints(file);
    const Outcome hinted =
        try_apart([&] { return try_hinted(host, replace, verdict.api, verdict.medium); });
    if (!hinted.trial.plays()) return "";
    return replace ? "hint --replace" : "hint";
}

std::string quoted(const std::string& text) {
    static constexpr char kPlain[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./+,:@%=";
    std::string path = text.starts_with('-') && text.size() > 1 ? "./" + text : text;
    if (!path.empty() && path.find_first_not_of(std::string(kPlain) + "-") == std::string::npos) {
        return path;
    }
    // What a page or a terminal would not show as it is goes into a form of bash and others.
    const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    if (std::any_of(path.begin(), path.end(), is_control) ||
        escape(path).find("\xEF\xBF\xBD") != std::string::npos) {
        std::string out = "$'";
        for (const char c : path) {
            const auto byte = static_cast<unsigned char>(c);
            const bool shown = c >= ' ' && c <= '~' && c != '\'' && c != '\\';
            out += shown ? std::string(1, c) : format("\\x%02x", byte);
        }
        return out + "'";
    }
    std::string out = "'";
    for (const char c : path)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace

const char* word(Api api) {
    return api == Api::kFunction ? "function" : "class";
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

const char* Verdict::outcome() const {
    if (plays()) return "plays";
    if (!amount.empty()) return "plays in part";
    if (frames > 0) return "stops before its end";
    return opens && status == KST_SUCCESS ? "gives no frame" : "does not play";
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

uint64_t sample_bytes(const iso_track* track) {
    const auto samples = static_cast<uint32_t>(std::max(track->sample_count, 0));
    if (track->sample_sizes == nullptr) return uint64_t{track->sample_size} * samples;
    return std::accumulate(track->sample_sizes, track->sample_sizes + samples, uint64_t{0});
}

Verdict judge(kst_host* host, const iso_file* file, Api api, Medium medium) {
    const Outcome outcome = try_apart([&] { return try_api(host, file, api, medium); });
    if (outcome.end == End::kFault) throw Error("judging: out of memory, or its process failed");
    const iso_track* track = track_for(file, api, medium);
    const Trial& trial = outcome.trial;
    const uint32_t size = kst_host_bytes_available(host);
    Verdict verdict;
    verdict.api = api;
    verdict.medium = medium;
    verdict.reason = reason_of(outcome, api, track);
    verdict.status = trial.status;
    verdict.opens = trial.opened;
    verdict.delivered = trial.delivered;
    verdict.frames = trial.frames;
    verdict.track_id = track != nullptr ? track->track_id : 0;
    if (trial.in_part) verdict.amount = amount(trial, track, medium);
    if (verdict.reason == Reason::kDamaged && outcome.end == End::kTold &&
        lacks_data(verdict, file, track, size)) {
        verdict.reason = Reason::kIncomplete;
    }
    verdict.mend = mend(host, verdict, file, track, size);
    verdict.why = why(verdict, outcome, track, size, has_hints(file));
    return verdict;
}

std::vector<Verdict> judge_all(kst_host* host, const iso_file* file) {
    std::vector<Verdict> verdicts;
    for (const Api api : kApis) {
        for (const Medium medium : kMedia)
            verdicts.push_back(judge(host, file, api, medium));
    }
    return verdicts;
}

}  // namespace tool
