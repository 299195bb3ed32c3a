// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/verdict.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "interface/src/isoff/record/private.h"
#include "kestrel/log.h"
#include "native/codec/amr_format.h"
#include "native/codec/h264_units.h"
#include "native/stream/plausible.h"
#include "tools/hint_packets.h"
#include "tools/judge/hint_use.h"
#include "tools/judge/track_samples.h"
#include "tools/report/markup.h"

namespace tool {
namespace {

using kestrel::stream::ConfigurationFault;
using End = ChildResult::End;

constexpr uint32_t kLeastLarge = 60000;  // bytes of a sample that an API may not hold

// --- how much came out ---

void count_implausible(uint64_t number, MediaCounts& counts) {
    if (counts.implausible++ == 0) counts.first_implausible = number;
}

void count_speech(std::span<const uint8_t> sample, const kestrel::AmrBand& band, uint64_t number,
                  bool is_judged, MediaCounts& counts) {
    bool is_speech = true;
    size_t at = 0;
    while (at < sample.size()) {
        const int type = kestrel::storage_frame_type(sample[at]);
        const auto size = static_cast<size_t>(kestrel::storage_frame_size(band.frame_bits[type]));
        counts.filled_bytes += size > 1 ? size : 0;
        is_speech = is_speech && kestrel::stream::is_speech_frame(sample[at], band);
        at += size;
    }
    counts.uneven_samples += at == sample.size() ? 0 : 1;
    if (!is_judged && !is_speech) count_implausible(number, counts);
}

bool is_all_speech(const Subject& subject, const MediaCounts& counts) {
    if (counts.bytes >= subject.expected.bytes) return true;
    return subject.track != nullptr &&
           subject.skipped + subject.expected.samples ==
               static_cast<uint64_t>(subject.track->sample_count) &&
           counts.bytes - counts.empty_frames >= counts.filled_bytes;
}

bool is_all_h264(const Subject& subject, const MediaCounts& counts) {
    constexpr uint64_t kCountedLength = 4;
    const uint64_t length = subject.track != nullptr && subject.track->nal_length_size != 0
                                ? static_cast<uint64_t>(subject.track->nal_length_size)
                                : kCountedLength;
    const uint64_t bytes = counts.bytes - (kCountedLength - length) * counts.units;
    return bytes + counts.unpacked_bytes >= subject.expected.bytes;
}

bool is_all(const Subject& subject, const MediaCounts& counts) {
    if (subject.kind == MediaKind::kAudio) return is_all_speech(subject, counts);
    if (counts.pictures < subject.expected.pictures) return false;
    return subject.codec() == ISO_CODEC_AVC1 ? is_all_h264(subject, counts)
                                             : counts.bytes >= subject.expected.bytes;
}

uint64_t packed_bytes(std::span<const uint8_t> sample, int length_size) {
    uint64_t bytes = 0;
    kestrel::NalUnits units(sample, length_size);
    for (kestrel::NalUnit unit; units.next(unit);)
        bytes += unit.size() + static_cast<uint64_t>(length_size);
    return std::min<uint64_t>(bytes, sample.size());
}

void count_h264(std::span<const uint8_t> sample, int length_size, uint64_t number, bool is_judged,
                MediaCounts& counts) {
    counts.unpacked_bytes += sample.size() - packed_bytes(sample, length_size);
    if (!is_judged && !kestrel::stream::is_h264_sample(sample, length_size))
        count_implausible(number, counts);
}

// The hint track that the class API plays; null for none.
iso_track* played_hints(const Subject& subject) {
    iso_track* hint = nullptr;
    for (iso_track* track = subject.facts.file->first_track; track != nullptr;
         track = track->next) {
        const bool hints = is_hint(track) && track->hint_track_ref == subject.track->track_id;
        if (hints) hint = track;  // the last is played
    }
    return hint;
}

uint64_t first_damaged_hint(const Subject& subject) {
    iso_track* hint = played_hints(subject);
    if (hint == nullptr) return 0;
    // Reading moves the track's cursor, which nothing else uses.
    HintPackets packets(subject.facts, hint, const_cast<iso_track*>(subject.track));
    while (!packets.next().empty()) {
    }
    return static_cast<uint64_t>(packets.damaged_sample());
}

// Counts what only the samples from `first` on show, of a track that was played to its end.
MediaCounts with_samples(const iso_track* track, uint32_t first, MediaCounts counts) {
    const bool is_judged = counts.implausible > 0;
    const kestrel::AmrBand& band =
        track->codec == ISO_CODEC_SAWB ? kestrel::kWideBand : kestrel::kNarrowBand;
    std::vector<uint8_t> sample;
    for (uint32_t number = first; number < samples_of(track); ++number) {
        // Reading moves the track's cursor, which nothing else uses.
        const auto bytes = read_sample(const_cast<iso_track*>(track), number, sample);
        if (bytes.size() < sample.size()) continue;  // not in the file: a fix leaves it out
        const uint64_t from_one = uint64_t{number} + 1;
        if (track->codec == ISO_CODEC_AVC1) {
            count_h264(bytes, track->nal_length_size, from_one, is_judged, counts);
        } else {
            count_speech(bytes, band, from_one, is_judged, counts);
        }
    }
    if (!is_judged && counts.implausible > 0) counts.judged_samples = samples_of(track);
    return counts;
}

// Whether the samples decide on a medium that was played to its end.
bool depends_on_samples(const Subject& subject, const MediaCounts& counts) {
    const iso_track* track = subject.track;
    if (track == nullptr || subject.expected.in_fragments > 0) return false;
    if (track->codec == ISO_CODEC_MP4V)
        return subject.api == Api::kClass && counts.bytes > subject.expected.bytes;
    if (subject.kind == MediaKind::kVideo) return track->codec == ISO_CODEC_AVC1;
    return subject.api == Api::kClass || counts.bytes < subject.expected.bytes;
}

// The hint track that a medium is played from; null for none.
iso_track* hints_of(const Subject& subject) {
    if (subject.track == nullptr || subject.expected.in_fragments > 0) return nullptr;
    if (subject.api == Api::kClass) return played_hints(subject);
    return subject.kind == MediaKind::kVideo
               ? const_cast<iso_track*>(packets_of(subject.facts.file.get(), subject.track))
               : nullptr;
}

MediaCounts with_hints(iso_track* hint, const Subject& subject, MediaCounts counts) {
    // Reading moves the tracks' cursors, which nothing else uses.
    const HintUse use = use_of(hint, const_cast<iso_track*>(subject.track), subject.api,
                               {subject.skipped_hints, subject.skipped}, Clock::time_point::max());
    counts.misled = use.misled;
    counts.first_misled = use.first_misled;
    // What the number of bytes shows is incomplete.
    if (use.partial > 0 && is_all(subject, counts)) {
        counts.misled = use.wrong();
        counts.first_misled = use.first_wrong();
    }
    counts.unused = use.unused;
    return counts;
}

// In a process, because a small file may list many large samples at one place. `hint` is the hint
// track that was played; null for none, or for one that was just made.
void count_samples(const Subject& subject, iso_track* hint, const ChildLimits& limits,
                   TrialResult& result) {
    MediaCounts& counts = result.trial.counts;
    if (!result.reached_end()) return;
    const bool depends = depends_on_samples(subject, counts);
    if (!depends && hint == nullptr) return;
    const ChildResult counted = run_apart(limits, [&] {
        MediaCounts all = counts;
        if (depends && subject.track->codec == ISO_CODEC_MP4V) {
            all.damaged_hint = first_damaged_hint(subject);
        } else if (depends) {
            all = with_samples(subject.track, subject.skipped, counts);
        }
        if (hint != nullptr) all = with_hints(hint, subject, all);
        return std::string(reinterpret_cast<const char*>(&all), sizeof all);
    });
    result.end = counted.end;
    result.signal = counted.signal;
    if (counted.report.size() == sizeof counts)
        std::memcpy(&counts, counted.report.data(), sizeof counts);
}

// When a sample, from 0, begins; in seconds.
double begin_of(const iso_track* track, uint32_t sample) {
    double units = 0;
    for (const iso_stts_entry& entry :
         std::span(track->stts, static_cast<size_t>(track->stts_count))) {
        const uint32_t count = std::min(sample, entry.count);
        units += static_cast<double>(count) * entry.delta;
        sample -= count;
    }
    return units / track->timescale;
}

// The media sample, from 0, that playing from a hint sample begins with: that of the same number,
// or of another number of samples the first one that does not begin earlier.
uint32_t first_sample(const iso_track* media, const iso_track* hint, uint32_t hint_sample) {
    if (media->own->declared_samples == hint->own->declared_samples) return hint_sample;
    const double begin = begin_of(hint, hint_sample);
    uint32_t first = 0;
    auto end = static_cast<uint32_t>(media->sample_count);
    while (first < end) {
        const uint32_t middle = first + (end - first) / 2;
        if (begin_of(media, middle) < begin) {
            first = middle + 1;
        } else {
            end = middle;
        }
    }
    return first;
}

// Expects what comes from a frame of the class API on, from 1.
void expect_from(Subject& subject, uint32_t frame) {
    const iso_track* hint = played_hints(subject);
    if (hint == nullptr) return;
    Expected& expected = subject.expected;
    const uint64_t most =
        std::min<uint64_t>(static_cast<uint32_t>(subject.track->sample_count), expected.samples);
    const uint32_t first = first_sample(subject.track, hint, frame - 1);
    subject.skipped = static_cast<uint32_t>(std::min<uint64_t>(first, most));
    subject.skipped_hints = frame - 1;
    expected.samples -= subject.skipped;
    for (uint32_t i = 0; i < subject.skipped; ++i) {
        const uint64_t size = sample_size_of(subject.track, i);
        expected.pictures -= size > 0 && expected.pictures > 0 ? 1 : 0;
        expected.bytes -= std::min(size, expected.bytes);
    }
}

// Speech that seems valid but is not: the function API fills a short frame with zeros, and frame
// headers may be in the hints.
bool has_misplaced_speech(const Subject& subject, const MediaCounts& counts) {
    if (subject.kind != MediaKind::kAudio || subject.track == nullptr ||
        subject.expected.in_fragments > 0) {
        return false;
    }
    return subject.api == Api::kFunction ? counts.bytes > subject.expected.bytes
                                         : counts.uneven_samples > 0;
}

// Whether hint samples give more than the samples have. Those of MPEG-4 may repeat its
// configuration, and those of speech may have frames without data.
bool has_too_much(const Subject& subject, const MediaCounts& counts) {
    const bool is_known = subject.api == Api::kClass && subject.track != nullptr &&
                          subject.expected.in_fragments == 0 && subject.skipped == 0;
    return is_known && counts.bytes - counts.empty_frames > subject.expected.bytes &&
           (subject.codec() != ISO_CODEC_MP4V || counts.damaged_hint > 0);
}

// Whether a hint sample has the marker of more than one picture.
bool has_too_many_pictures(const Subject& subject, const MediaCounts& counts) {
    return subject.kind == MediaKind::kVideo && subject.track != nullptr &&
           subject.expected.in_fragments == 0 && subject.skipped == 0 &&
           counts.pictures > subject.expected.pictures;
}

// Whether all times of what is played are the same. The class API takes them from its medium.
bool has_no_times(const Subject& subject) {
    const iso_track* hint = subject.api == Api::kFunction ? hints_of(subject) : nullptr;
    return hint != nullptr && !has_clock(hint);
}

// Whether hint samples take the wrong bytes, or leave samples out, or packets are malformed.
bool is_astray(const MediaCounts& counts) {
    return counts.misled > 0 || counts.unused > 0 || counts.malformed > 0;
}

// Whether a decoder can take what was delivered, as far as its bytes show.
bool is_decodable(const MediaCounts& counts) {
    return counts.implausible == 0 && counts.configuration_fault == ConfigurationFault::kNone;
}

bool plays(const Subject& subject, const TrialResult& result) {
    const MediaCounts& counts = result.trial.counts;
    return result.reached_end() && counts.bytes > 0 && is_decodable(counts) &&
           is_all(subject, counts) && !has_misplaced_speech(subject, counts) &&
           !has_too_much(subject, counts) && !has_too_many_pictures(subject, counts) &&
           !is_astray(counts);
}

// --- the reason ---

// The reason of a failure to open or to play to the end.
Reason reason_of_failure(const Subject& subject, const Trial& trial) {
    const FileFacts& facts = subject.facts;
    if (trial.status == KST_TOO_MANY_TRACKS) return Reason::kSeveralTracks;
    if (trial.status == KST_NO_MEMORY) return Reason::kMemory;
    const bool is_class = subject.api == Api::kClass;
    if (is_class && subject.track != nullptr && has_hints(facts.file.get()) &&
        is_self_hinted(facts.file.get(), subject.track)) {
        return Reason::kSelfHinted;
    }
    if (trial.status == KST_NO_HINT_TRACK) return Reason::kNoHintTrack;
    if (subject.expected.in_fragments > 0) return Reason::kFragmented;
    const bool nothing_came = trial.counts.frames == 0;
    if (nothing_came && !unknown_table(subject).empty()) return Reason::kUnknownTable;
    if (trial.opened == 0 && has_odd_sizes(facts)) return Reason::kLargeBox;
    if (trial.counts.implausible > 0) return Reason::kImplausible;
    if (subject.expected.largest >= kLeastLarge && trial.status != KST_NOT_YET)
        return Reason::kLargeFrame;
    return lacks_data(subject, trial.status) || lacks_samples(subject) ? Reason::kIncomplete
                                                                       : Reason::kDamaged;
}

Reason reason_of_end(const Subject& subject, const TrialResult& result) {
    if (plays(subject, result)) {
        if (lost_sizes(subject.facts, subject.track) > 0 ||
            (subject.expected.in_fragments == 0 && lacks_samples(subject)))
            return Reason::kIncomplete;
        if (has_no_times(subject)) return Reason::kDamaged;
        return unread_table(subject).empty() ? Reason::kPlays : Reason::kUnknownTable;
    }
    const MediaCounts& counts = result.trial.counts;
    const iso_file* file = subject.facts.file.get();
    if (subject.expected.pictures == 0 && counts.bytes == 0) return Reason::kDamaged;
    if (subject.api == Api::kClass && subject.track != nullptr &&
        is_self_hinted(file, subject.track)) {
        return Reason::kSelfHinted;
    }
    if (!is_decodable(counts) || has_misplaced_speech(subject, counts)) return Reason::kImplausible;
    if (counts.bytes == 0 || counts.misled > 0 || has_too_much(subject, counts) ||
        has_too_many_pictures(subject, counts))
        return Reason::kDamaged;
    if (counts.malformed > 0 && is_all(subject, counts)) return Reason::kDamaged;
    return subject.expected.in_fragments > 0 ? Reason::kFragmented : Reason::kIncomplete;
}

Reason reason_of(const Subject& subject, const TrialResult& result) {
    if (is_encrypted(subject)) return Reason::kEncrypted;
    const bool is_refused = !result.reached_end() && result.end == End::kReported;
    if (subject.has_track() && is_refused && is_of_other_codec(subject)) return Reason::kCodec;
    switch (result.end) {
        case End::kExit:
            return Reason::kEndsProcess;
        case End::kSignal:
            return Reason::kDamaged;
        case End::kTimeout:
            return Reason::kTimeout;
        case End::kNoMemory:
            return Reason::kMemory;
        case End::kFault:
            throw Error(remark_file() + ": it changed, or could not be read, while it was judged");
        case End::kReported:
            break;
    }
    if (result.reached_end()) return reason_of_end(subject, result);
    return reason_of_failure(subject, result.trial);
}

// Sets the library's log level to none meanwhile.
class LogSilence {
  public:
    LogSilence() = default;
    LogSilence(const LogSilence&) = delete;
    LogSilence& operator=(const LogSilence&) = delete;
    ~LogSilence() { sx_Debug = level_; }

  private:
    int32_t level_ = std::exchange(sx_Debug, 0);
};

// --- sentences ---

// How much is delivered of an incomplete medium. Empty where the bytes are no media, or more than
// the medium has.
std::string amount(const Subject& subject, const MediaCounts& counts) {
    const Expected& expected = subject.expected;
    if (counts.bytes == 0 || !is_decodable(counts) || has_misplaced_speech(subject, counts))
        return "";
    if (subject.kind == MediaKind::kVideo && counts.pictures < expected.pictures) {
        return std::to_string(counts.pictures) + " of " + std::to_string(expected.pictures) +
               " pictures";
    }
    if (counts.misled > 0) return "";
    if (counts.unused > 0 && counts.bytes >= expected.bytes) {
        return std::to_string(expected.samples - std::min(counts.unused, expected.samples)) +
               " of " + std::to_string(expected.samples) + " samples";
    }
    if (expected.bytes == 0 || counts.bytes > expected.bytes) return "";
    const double percent =
        100 * static_cast<double>(counts.bytes) / static_cast<double>(expected.bytes);
    return format(
        percent > 99 ? "%.2f %% of the bytes of its %s" : "%.0f %% of the bytes of its %s",
        std::min(percent, 99.99), word(subject.kind));
}

std::string why_incomplete(const Subject& subject, const Verdict& verdict) {
    const std::string missing = missing_bytes(subject.facts.scan);
    const bool is_cut = !missing.empty() && lacks_data(subject, verdict.status);
    const bool is_known = lacks_samples(subject) || lost_sizes(subject.facts, subject.track) > 0;
    if (!is_cut && !is_known && !verdict.amount.empty())
        return "It delivers only " + verdict.amount + ".";
    return why_by_tables(subject, Reason::kIncomplete);
}

std::string why_implausible(const Subject& subject, const MediaCounts& counts) {
    if (counts.implausible == 0 && counts.configuration_fault != ConfigurationFault::kNone)
        return std::string("No decoder can play it: ") + text_of(counts.configuration_fault) + ".";
    if (counts.implausible == 0) {
        return std::string("Its samples do not end with the speech frames in them: ") +
               kestrel::stream::kWrongBytesText + ".";
    }
    const bool are_samples = counts.judged_samples > 0;
    const uint64_t all = are_samples ? counts.judged_samples : counts.frames;
    return format("%llu of %llu %s cannot be %s, the first is number %llu: %s.",
                  static_cast<unsigned long long>(counts.implausible),
                  static_cast<unsigned long long>(all), are_samples ? "samples" : "frames",
                  name_of_codec(subject).c_str(),
                  static_cast<unsigned long long>(counts.first_implausible),
                  kestrel::stream::kWrongBytesText);
}

std::string why_damaged(const Subject& subject, const Verdict& verdict, const TrialResult& result) {
    if (result.end == End::kSignal) {
        return "The reader ended by signal " + std::to_string(result.signal) + ".";
    }
    if (!verdict.opens) return why_not_opened(subject);
    const MediaCounts& counts = result.trial.counts;
    if (verdict.lacks_times) {
        return std::string("All its times are the same: its hint track declares ") +
               (hints_of(subject)->timescale == 0 ? "a timescale of 0 (mdhd)."
                                                  : "no RTP timescale (tims).");
    }
    if (verdict.status == KST_SUCCESS && counts.misled > 0) {
        return show_count(counts.misled) + " of " + show_count(subject.expected.samples) +
               (counts.misled == 1 ? " samples is" : " samples are") +
               " not delivered as a whole: hint sample " + std::to_string(counts.first_misled) +
               " does not take each byte of its sample once.";
    }
    if (verdict.status == KST_SUCCESS && counts.bytes > 0 && has_too_much(subject, counts)) {
        return "It delivers " +
               show_count(counts.bytes - counts.empty_frames - subject.expected.bytes) +
               " bytes more than its samples have: a hint sample is damaged.";
    }
    if (verdict.status == KST_SUCCESS && has_too_many_pictures(subject, counts)) {
        return "It delivers " + show_count(counts.pictures) + " pictures from " +
               show_count(subject.expected.pictures) +
               (subject.expected.pictures == 1 ? " sample" : " samples") +
               ": packets inside a sample have the marker of its end.";
    }
    if (verdict.status == KST_SUCCESS && counts.malformed > 0) {
        return show_count(counts.malformed) + " of " + show_count(counts.frames) +
               (counts.malformed == 1 ? " frames has" : " frames have") + " a malformed packet.";
    }
    if (verdict.status == KST_SUCCESS) {
        return subject.track != nullptr && subject.expected.pictures == 0
                   ? "It opens, but its track has no samples."
                   : "It opens, but no frame comes out: a table or all samples are malformed.";
    }
    return "It stops at damaged data after " + std::to_string(verdict.delivered) +
           " bytes of stream.";
}

std::string why(const Subject& subject, const Verdict& verdict, const TrialResult& result) {
    if (!subject.has_track()) return why_by_tables(subject, verdict.reason);
    switch (verdict.reason) {
        case Reason::kIncomplete:
            return why_incomplete(subject, verdict);
        case Reason::kImplausible:
            return why_implausible(subject, result.trial.counts);
        case Reason::kDamaged:
            return why_damaged(subject, verdict, result);
        case Reason::kSeveralTracks:
            return "The file has several " + std::string(word(subject.kind)) +
                   " tracks, and this API plays a file with one; 'kestrel extract "
                   "--track ID' plays any of them.";
        case Reason::kTimeout:
            return "Judging it was not done in time; --timeout gives it more.";
        default:
            return why_by_tables(subject, verdict.reason);
    }
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

// The frames of a stream that has any bytes of media.
uint64_t frames_of(const MediaCounts& counts) {
    return counts.bytes > 0 ? counts.frames : 0;
}

// Whether the result of a command plays what its input should.
FixFinder::IsFixed plays_of(const Subject& subject, const ChildLimits& limits) {
    return [&](const TrialResult& fixed, bool is_salvage) {
        TrialResult whole = fixed;
        count_samples(subject, nullptr, limits, whole);
        if (is_salvage) return whole.reached_end() && is_decodable(whole.trial.counts);
        return plays(subject, whole);
    };
}

void remark_empty_samples(const Subject& subject, const std::string& input) {
    if (subject.track == nullptr) return;
    const std::string text = empty_samples_text(subject.facts, subject.track);
    if (!text.empty()) say(input_name(input) + ": " + text);
}

// What is left to do where no command fixes a verdict.
std::string step_without_fix(const Verdict& verdict) {
    const bool is_wrong = verdict.reason == Reason::kImplausible && verdict.fix.empty();
    return is_wrong ? kestrel::stream::kGetAgainText : "";
}

// Looks for the command that makes `input` play; its name does not help where it is standard input.
std::string next_step(const Subject& subject, Verdict& verdict, const std::string& input,
                      Clock::time_point deadline) {
    std::string without_fix = step_without_fix(verdict);
    if (!subject.has_track() || !may_have_fix(subject, verdict.reason)) return without_fix;
    if (input == "-") {
        return lacks_something(subject.facts)
                   ? "; save it to a file, of which 'kestrel hint --salvage' keeps what is whole"
                   : without_fix;
    }
    const ChildLimits limits{deadline, memory_limit(subject.facts.scan)};
    FixFinder fixes(subject.facts, limits);
    verdict.fix = fixes.find(subject.api, subject.kind, plays_of(subject, limits));
    if (verdict.fix.empty())
        return Clock::now() < deadline ? without_fix : "; 'kestrel info' looks for a fix";
    const bool is_salvage = verdict.fix.find("--salvage") != std::string::npos;
    return "; '" + fix_command(verdict, input) +
           (is_salvage ? "' keeps what is whole of it" : "' makes a file that plays");
}

}  // namespace

const char* Verdict::outcome() const {
    if (plays()) return "plays";
    if (reason == Reason::kImplausible) return "gives no media";
    if (reason == Reason::kUnknownTable && frames > 0 && status == KST_SUCCESS && amount.empty())
        return "plays at wrong times";
    if (lacks_times) return "plays at wrong times";
    const bool ended = reason == Reason::kIncomplete && frames > 0 && status == KST_SUCCESS;
    if (ended || !amount.empty()) return "plays in part";
    if (reason == Reason::kDamaged && frames > 0 && status == KST_SUCCESS)
        return "gives wrong media";
    if (frames > 0) return "stops before its end";
    return opens && status == KST_SUCCESS ? "gives no frame" : "does not play";
}

// The file does not grow, so missing data never arrives.
std::string status_words(const Verdict& verdict) {
    const int32_t status = verdict.status;
    const std::string number = "status " + std::to_string(status);
    const bool misleads = status == KST_NO_HINT_TRACK && (verdict.reason == Reason::kCodec ||
                                                          verdict.reason == Reason::kEncrypted);
    const bool says_nothing = status == KST_FAILURE || status == KST_NOT_YET || misleads;
    return says_nothing ? number : number + ": " + kst_StatusString(status);
}

std::string fix_command(const Verdict& verdict, const std::string& input) {
    if (verdict.fix.empty()) return "";
    const std::string file = input == "-" ? "FILE" : quoted(input);  // it was read
    const size_t options = verdict.fix.find(' ');
    const std::string more = options == std::string::npos ? "" : verdict.fix.substr(options);
    return "kestrel " + verdict.fix.substr(0, options) + " " + file + more + " -o OUT";
}

Judge::Judge(const FileFacts& facts, Clock::time_point deadline)
    : facts_(facts), limits_{deadline, memory_limit(facts.scan)}, fixes_(facts, limits_) {}

Verdict Judge::judge(Api api, MediaKind kind) {
    const Subject subject = subject_of(facts_, api, kind);
    Verdict verdict;
    verdict.api = api;
    verdict.kind = kind;
    if (!subject.has_track()) {
        if (api == Api::kClass && class_file().ends_process())
            verdict.reason = Reason::kEndsProcess;
        verdict.why = why(subject, verdict, {});
        return verdict;
    }
    TrialResult result = try_playing(facts_.host, api, kind, limits_);
    count_samples(subject, hints_of(subject), limits_, result);
    const Trial& trial = result.trial;
    verdict.reason = reason_of(subject, result);
    verdict.lacks_times = tool::plays(subject, result) && has_no_times(subject);
    verdict.tried = verdict.reason != Reason::kEndsProcess;  // which gives no status
    if (verdict.tried) verdict.status = static_cast<int32_t>(trial.status);
    verdict.opens = trial.opened != 0;
    verdict.delivered = trial.delivered;
    verdict.frames = frames_of(trial.counts);
    verdict.track_id = subject.track_id();
    if (result.reached_end() && !tool::plays(subject, result))
        verdict.amount = amount(subject, trial.counts);
    if (may_have_fix(subject, verdict.reason) || verdict.reason == Reason::kSeveralTracks) {
        verdict.fix = fixes_.find(api, kind, plays_of(subject, limits_));
    }
    verdict.why = why(subject, verdict, result);
    if (const std::string step = step_without_fix(verdict); !step.empty())
        verdict.why.insert(verdict.why.size() - 1, step);  // before its full stop
    if (api == Api::kClass && verdict.plays())
        verdict.seeks_elsewhere = kestrel::probe::seeks_elsewhere(class_file(), kind);
    return verdict;
}

const kestrel::probe::ClassFile& Judge::class_file() {
    if (!class_file_) class_file_.emplace(facts_.stream);
    return *class_file_;
}

Verdict Judge::look(Api api, MediaKind kind) {
    const Subject subject = subject_of(facts_, api, kind);
    Verdict verdict;
    verdict.api = api;
    verdict.kind = kind;
    verdict.track_id = subject.track_id();
    if (subject.has_track()) {
        const LogSilence silence;
        verdict.reason = reason_by_tables(subject, class_file());
    }
    verdict.why = why(subject, verdict, {});
    return verdict;
}

std::vector<Verdict> Judge::judge_all() {
    constexpr size_t kAll = kApis.size() * kMedia.size();
    std::vector<Verdict> verdicts;
    Progress progress;
    for (const Api api : kApis) {
        for (const MediaKind kind : kMedia) {
            progress.show_count(verdicts.size(), kAll, "verdicts");
            verdicts.push_back(judge(api, kind));
        }
    }
    return verdicts;
}

Error open_error(kst_host* host, const std::string& input, Api api, MediaKind kind,
                 int32_t status) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    const FileFacts facts = gather_facts(host, deadline);
    if (!facts.scan.is_3gp()) return no_media_file(input, facts.scan.file_size);
    const Subject subject = subject_of(facts, api, kind);
    if (!subject.has_track() && why_no_tracks(facts).empty())
        return file_error(input, std::string("no ") + word(kind) + " track");
    TrialResult result;
    result.end = End::kReported;
    result.trial.status = status;
    Verdict verdict;
    verdict.api = api;
    verdict.kind = kind;
    verdict.status = status;
    verdict.reason = subject.has_track() ? reason_of(subject, result) : Reason::kDamaged;
    std::string sentence = why(subject, verdict, result);
    sentence.pop_back();  // its full stop
    sentence += " (" + status_words(verdict) + ")";
    return file_error(input, sentence + next_step(subject, verdict, input, deadline));
}

std::optional<Error> play_error(kst_host* host, const std::string& input, Api api, MediaKind kind,
                                const Playback& playback) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    const FileFacts facts = gather_facts(host, deadline);
    Subject subject = subject_of(facts, api, kind);
    if (playback.first_frame > 1 && subject.track != nullptr)
        expect_from(subject, playback.first_frame);
    const bool ended = playback.status == KST_END_OF_FILE;
    TrialResult result;
    result.end = End::kReported;
    result.trial.opened = 1;
    result.trial.status = ended ? int32_t{KST_SUCCESS} : playback.status;
    result.trial.delivered = playback.delivered;
    result.trial.counts = playback.counts;
    // A host without its file in memory reads 4 MiB a second at least.
    const auto reading = std::chrono::milliseconds(facts.scan.file_size / 4096);
    count_samples(subject, hints_of(subject),
                  {Clock::now() + kPatience + reading, memory_limit(facts.scan)}, result);
    if (result.end != End::kReported)
        return file_error(input, "its samples could not be compared with what came, in time");
    Verdict verdict;
    verdict.api = api;
    verdict.kind = kind;
    verdict.reason = reason_of(subject, result);
    if (verdict.plays()) {
        remark_empty_samples(subject, input);
        return std::nullopt;
    }
    verdict.lacks_times = tool::plays(subject, result) && has_no_times(subject);
    verdict.status = ended ? int32_t{KST_SUCCESS} : playback.status;
    verdict.opens = true;
    verdict.delivered = playback.delivered;
    verdict.frames = frames_of(playback.counts);
    if (result.reached_end() && !tool::plays(subject, result))
        verdict.amount = amount(subject, result.trial.counts);
    std::string sentence = why(subject, verdict, result);
    sentence.pop_back();  // its full stop
    if (!verdict.amount.empty() && sentence.find(verdict.amount) == std::string::npos)
        sentence += "; " + verdict.amount + " came";
    if (!ended) sentence += " (" + status_words(verdict) + ")";
    return file_error(input, sentence + next_step(subject, verdict, input, deadline));
}

}  // namespace tool
