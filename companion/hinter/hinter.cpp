// SPDX-License-Identifier: Apache-2.0
#include "kestrel/hinter.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "common/frame_limit.h"
#include "companion/hinter/output_file.h"
#include "companion/hinter/samples.h"
#include "companion/hinter/track_choice.h"
#include "companion/importer/box_reader.h"
#include "companion/importer/source.h"
#include "kestrel/kstutil.h"
#include "kestrel/native.h"
#include "native/codec/avcc.h"
#include "native/codec/h264_units.h"
#include "native/codec/payload_types.h"
#include "native/stream/plausible.h"

// kst_hint: reads the tables, plans the packets of all samples, and writes the file with the movie
// box first.

namespace kestrel::hinter {
namespace {

constexpr uint32_t kAllFlags =
    KST_HINT_RFC2190 | KST_HINT_REPLACE | KST_HINT_DROP_OTHERS | KST_HINT_SALVAGE;

static_assert(KST_HINT_DEFAULT_PACKET == kMaxPacketBytes);

struct Options {
    uint32_t flags = 0;
    uint32_t max_packet = KST_HINT_DEFAULT_PACKET;
    kst_hint_progress progress = nullptr;
    void* progress_context = nullptr;
};

// A written track and the objects that make its samples.
struct Medium {
    Written track;
    uint32_t description = 0;  // of a hinted track, in the source
    std::unique_ptr<MediaSamples> samples;
    iso_track* hint = nullptr;  // null for one without a payload format
    std::unique_ptr<HintSamples> hint_samples;
};

// Whether the parameter sets of a track are NAL units.
bool has_plausible_sets(const iso_track* track) {
    if (track->codec != ISO_CODEC_AVC1) return true;
    const std::vector<NalUnit> sets = parameter_sets({track->dsi, track->dsi_length});
    return std::all_of(sets.begin(), sets.end(),
                       [](NalUnit set) { return set.empty() || stream::is_nal_unit(set); });
}

class Job {
  public:
    Job(KST_IOSTREAM_CALLBACK_INTERFACE* source, KST_IOSTREAM_CALLBACK_INTERFACE* destination,
        const Options& options, kst_hint_report& report)
        : host_(source),
          destination_(destination),
          options_(options),
          report_(report),
          outcome_(options.progress, options.progress_context),
          source_(*source),
          reader_(source_, outcome_) {}

    // Throws std::bad_alloc.
    void run() {
        if (!import() || !choose_tracks(movie_, options_.flags, outcome_, choices_)) return;
        if (!check_bytes()) return;
        make_file();
        if (plan_media() && plan_hints()) write();
    }

    const Outcome& outcome() const { return outcome_; }
    uint32_t written() const { return written_; }
    std::string left_out() const;

  private:
    static int result_of(importer::Cause cause) {
        switch (cause) {
            case importer::Cause::kHost:
                return KST_HINT_SOURCE_FAILED;
            case importer::Cause::kMemory:
                return KST_HINT_NO_MEMORY;
            default:
                return KST_HINT_REFUSED;
        }
    }

    bool import() {
        importer::Options how;
        how.salvage = (options_.flags & KST_HINT_SALVAGE) != 0;
        how.skip_hint_tracks = true;  // they are dropped or refused
        importer::Result result = importer::import_movie(*host_, how, movie_);
        if (!result.ok) return outcome_.fail(result_of(result.cause), result.error);
        salvaged_ = std::move(result.salvaged);
        remark_ = std::move(result.remark);
        shorten_headers(movie_);
        return source_.open() || outcome_.fail(KST_HINT_SOURCE_FAILED, source_.error());
    }

    // Overlapping samples would make a huge file from a small one.
    bool check_bytes() {
        uint64_t bytes = 0;
        for (const Choice& choice : choices_) {
            if (choice.fate != Fate::kHinted && choice.fate != Fate::kCopied) continue;
            uint64_t of_track = 0;
            for (const importer::Sample& sample : choice.track->samples)
                of_track += sample.size;
            bytes += of_track;
            outcome_.expect(choice.fate == Fate::kHinted ? 2 * of_track : of_track);
        }
        return bytes <= source_.size() ||
               outcome_.fail(KST_HINT_REFUSED, "its tables declare more sample bytes than it has");
    }

    void make_file() {
        file_.reset(isoFFopen(destination_, "w", nullptr));
        if (file_ == nullptr) throw std::bad_alloc();
        describe_movie(file_.get(), movie_, choices_);
        media_.resize(static_cast<size_t>(
            std::count_if(choices_.begin(), choices_.end(), [](const Choice& choice) {
                return choice.fate == Fate::kHinted || choice.fate == Fate::kCopied;
            })));
        const TrackIds written_ids = written_track_ids(choices_);
        auto medium = media_.begin();
        for (const Choice& choice : choices_) {
            if (choice.fate == Fate::kDropped) ++report_.dropped_tracks;
            if (choice.fate == Fate::kReplaced) ++report_.replaced_tracks;
            if (choice.fate != Fate::kHinted && choice.fate != Fate::kCopied) continue;
            medium->track.from = choice.track;
            medium->track.is_hinted = choice.fate == Fate::kHinted;
            make_track(file_.get(), choice, written_ids, medium->track);
            medium->description = choice.description;
            medium->samples = std::make_unique<MediaSamples>(*choice.track, medium->track.factor,
                                                             choice.description, reader_);
            if (medium->track.has_coarse_seeks) note_coarse_seeks(*medium);
            ++medium;
        }
    }

    bool plan_media() {
        for (const Medium& medium : media_) {
            const int refused = provide_samples(medium.track.to, *medium.samples);
            if (refused != 0) return refuse(medium, refused);
            report_.samples += medium.samples->count();
            ++report_.tracks;
        }
        return true;
    }

    // --- hint tracks ---

    int payload_type_of(const iso_track* track) {
        const bool is_rfc2190 = (options_.flags & KST_HINT_RFC2190) != 0;
        if (track->codec == ISO_CODEC_S263 && is_rfc2190) return kRfc2190PayloadType;
        return next_payload_type_ < kLastPayloadType ? next_payload_type_++ : kLastPayloadType;
    }

    void make_hint_track(Medium& medium) {
        const auto h263 =
            (options_.flags & KST_HINT_RFC2190) != 0 ? ISO_H263_RFC2190 : ISO_H263_RFC4629;
        iso_track* media = medium.track.to;
        const int payload_type = payload_type_of(media);
        medium.hint = rtp_isoFFtrack(file_.get(), media, static_cast<int>(options_.max_packet),
                                     payload_type, h263);
        if (medium.hint == nullptr) throw std::bad_alloc();
        medium.hint->sync_samples = media->sync_samples;
        medium.hint->sync_count = media->sync_count;
        medium.hint_samples =
            std::make_unique<HintSamples>(*medium.samples, static_cast<uint8_t>(payload_type));
        ++report_.hint_tracks;
    }

    bool plan_hints() {
        for (Medium& medium : media_) {
            if (!medium.track.is_hinted) continue;
            make_hint_track(medium);
            if (!plan_samples(medium)) return false;
            const int refused = provide_samples(medium.hint, *medium.hint_samples);
            if (refused != 0) return refuse(medium, refused);
        }
        return true;
    }

    bool plan_samples(Medium& medium) {
        const std::span<const importer::Sample> samples = medium.track.from->samples;
        HintSample made;
        stream::ImplausibleSamples implausible;
        implausible.all = samples.size();
        const iso_track* to = medium.track.to;
        stream::ConfigurationTest configuration(to->codec, {to->dsi, to->dsi_length});
        uint64_t empty = 0;
        for (uint32_t i = 0; i < samples.size(); ++i) {
            const auto bytes = reader_.sample(samples, i);
            if (!bytes) return false;
            const SampleFigures figures = medium.samples->figures(i);
            const int refused = make_next_hint(medium.hint, *bytes, figures.cts_offset, made);
            if (refused != 0) return refuse_sample(medium, refused, i, *bytes);
            if (!can_be_played(made.packets)) return refuse_long_sample(medium, i);
            configuration.take_sample(*bytes, to->nal_length_size);
            if (!stream::is_plausible_sample(to->codec, to->nal_length_size, *bytes))
                implausible.add(uint64_t{i} + 1);
            empty += bytes->empty() ? 1 : 0;
            count_hint(medium.hint, made, figures.duration);
            medium.hint_samples->add(made);
            count_packets(made.packets);
            if (!outcome_.advance(bytes->size())) return false;
        }
        implausible.configuration = configuration.fault();
        if (empty > 0) {
            add_note(
                name_of(medium) + ": " +
                stream::empty_text(empty, samples.size(), "sample", stream::is_speech(to->codec)));
        }
        return judge_plausibility(medium, implausible);
    }

    // A player holds a frame with a header for each packet.
    static bool can_be_played(const HintPackets& packets) {
        uint64_t bytes = 0;
        for (size_t i = 0; i < packets.size(); ++i)
            bytes += packets[i].size() - kRtpHeaderSize + tel_header_size;
        return bytes <= kMaxFrameBytes;
    }

    bool judge_plausibility(const Medium& medium, const stream::ImplausibleSamples& implausible) {
        const std::string entry =
            importer::type_text(medium.track.from->descriptions[medium.description].type);
        if (!has_plausible_sets(medium.track.to)) {
            add_note(name_of(medium) + ": a parameter set cannot be of the codec '" + entry + "'" +
                     stream::kGetAgainText);
        }
        if (!implausible.any()) return true;
        const std::string text = name_of(medium) + ": " + implausible.text(entry);
        if (implausible.are_refused()) return outcome_.fail(KST_HINT_REFUSED, text);
        add_note(text);
        return true;
    }

    void count_packets(const HintPackets& packets) {
        report_.packets += packets.size();
        for (size_t i = 0; i < packets.size(); ++i)
            report_.packet_bytes += packets[i].size();
    }

    // --- writing ---

    bool write() {
        const int closed = isoFFclose(file_.release());
        switch (closed) {
            case 0:
                kstutil_getoffset(destination_, &written_);
                return true;
            case kNoMemory:
                throw std::bad_alloc();
            case kTooLarge:
                return outcome_.fail(KST_HINT_TOO_LARGE, kTooLargeText);
            default:
                return outcome_.fail(KST_HINT_DESTINATION_FAILED,
                                     "the output could not be written");
        }
    }

    // --- notes and failures ---

    static std::string name_of(const Medium& medium) {
        return "track " + std::to_string(medium.track.from->id);
    }

    void add_note(const std::string& note) { notes_ += (notes_.empty() ? "" : "; ") + note; }

    void note_coarse_seeks(const Medium& medium) {
        add_note(name_of(medium) + ": seeks of the class API land too early, as its " +
                 std::to_string(medium.track.from->timescale) +
                 " units a second are no whole number a millisecond, and it is too long for more");
    }

    bool refuse_long_sample(const Medium& medium, uint32_t number) {
        return outcome_.fail(KST_HINT_REFUSED,
                             name_of(medium) + ": sample " + std::to_string(number + 1) +
                                 " and the headers of its packets have more than the " +
                                 std::to_string(kMaxFrameBytes) + " bytes that a player takes");
    }

    bool refuse(const Medium& medium, int result) {
        const std::string track = name_of(medium);
        switch (result) {
            case kNoMemory:
                throw std::bad_alloc();
            case kTooLarge:
                return outcome_.fail(KST_HINT_TOO_LARGE, kTooLargeText);
            case kTooLong:
                return outcome_.fail(KST_HINT_REFUSED, track + too_long_text(medium.track.to));
            default:
                return outcome_.fail(KST_HINT_REFUSED, track + " cannot be written");
        }
    }

    bool refuse_sample(const Medium& medium, int result, uint32_t number,
                       std::span<const uint8_t> sample) {
        if (result != kCannotBeCut) return refuse(medium, result);
        const std::string name = name_of(medium) + ": sample " + std::to_string(number + 1);
        if (stream::is_uneven_speech(medium.track.to->codec, sample)) {
            stream::ImplausibleSamples samples;
            samples.uneven = uint64_t{number} + 1;
            return outcome_.fail(KST_HINT_REFUSED, name_of(medium) + ": " + samples.text(""));
        }
        return outcome_.fail(KST_HINT_REFUSED, name + " cannot be cut into packets of at most " +
                                                   std::to_string(options_.max_packet) + " bytes" +
                                                   limit_advice(medium.track.to));
    }

    // Returns the advice for a speech frame longer than a packet.
    std::string limit_advice(const iso_track* track) const {
        constexpr uint32_t kLongestWideBandFrame = 74;  // headers, and 23.85 kbit/s for 20 ms
        if (track->codec != ISO_CODEC_SAWB || options_.max_packet >= kLongestWideBandFrame)
            return "";
        return "; a frame needs up to " + std::to_string(kLongestWideBandFrame);
    }

    // The limit of a track's duration, as text.
    static std::string too_long_text(const iso_track* track) {
        const uint32_t minutes = UINT32_MAX / track->timescale / 60;
        return " lasts too long: it counts " + std::to_string(track->timescale) +
               " units a second in 32 bits, so up to " + std::to_string(minutes / 60) + " h " +
               std::to_string(minutes % 60) + " min";
    }

    static constexpr const char* kTooLargeText =
        "the output would have 4 GiB or more, beyond the offsets of the format";

    KST_IOSTREAM_CALLBACK_INTERFACE* host_;
    KST_IOSTREAM_CALLBACK_INTERFACE* destination_;
    const Options& options_;
    kst_hint_report& report_;
    Outcome outcome_;
    importer::Source source_;
    SampleReader reader_;
    importer::Movie movie_;
    std::string salvaged_;
    std::string notes_;
    std::string remark_;  // of the importer
    std::vector<Choice> choices_;
    uint32_t written_ = 0;  // bytes
    int next_payload_type_ = kFirstDynamicPayloadType;
    // Declared before the file, so that they outlive it.
    std::vector<Medium> media_;
    std::unique_ptr<iso_file, AbandonFile> file_;
};

std::string Job::left_out() const {
    std::string all;
    const auto add = [&](const std::string& text) {
        if (!text.empty()) all += (all.empty() ? "" : "; ") + text;
    };
    const std::string dropped = dropped_text(choices_);
    if (!dropped.empty()) add("left out " + dropped);
    add(salvaged_);
    add(notes_);
    add(remark_);  // last, as there may be no room for all
    return all;
}

// Whether a record of the caller has the size that it has in this version.
template <typename Record>
bool is_known(const Record* record) {
    return record->struct_size == sizeof(Record);
}

bool read_options(const kst_hint_options* from, Options& options) {
    if (from == nullptr) return true;
    if (!is_known(from) || (from->flags & ~kAllFlags) != 0) return false;
    options.flags = from->flags;
    if (from->max_packet != 0) options.max_packet = from->max_packet;
    options.progress = from->progress;
    options.progress_context = from->progress_context;
    return options.max_packet >= KST_HINT_SHORTEST_PACKET &&
           options.max_packet <= KST_HINT_LONGEST_PACKET;
}

// A file is copied without IsEOF and AdvanceRead, which is_complete() requires.
bool has_all_slots(const KST_IOSTREAM_CALLBACK_INTERFACE* table) {
    return table != nullptr && table->GetOffset != nullptr && table->Seek != nullptr &&
           table->SeekNRead != nullptr && table->SeekNWrite != nullptr &&
           table->GetStreamSize != nullptr && table->IndexRead != nullptr &&
           table->CheckStatus != nullptr;
}

int fail(kst_hint_report& report, int result, const std::string& error) {
    put_text(report.error, error);
    return result;
}

int hint(KST_IOSTREAM_CALLBACK_INTERFACE* source, KST_IOSTREAM_CALLBACK_INTERFACE* destination,
         const kst_hint_options* from, kst_hint_report& report) try {
    Options options;
    if (!has_all_slots(source) || !has_all_slots(destination) || !read_options(from, options)) {
        return fail(report, KST_HINT_BAD_ARGUMENT, "bad argument");
    }
    Job job(source, destination, options, report);
    job.run();
    report.bytes = job.written();
    put_text(report.left_out, job.left_out());
    return fail(report, job.outcome().result(), job.outcome().error());
} catch (const std::exception&) {  // no memory, or more than a vector can hold
    return fail(report, KST_HINT_NO_MEMORY, "out of memory");
}

}  // namespace
}  // namespace kestrel::hinter

int kst_hint(KST_IOSTREAM_CALLBACK_INTERFACE* source, KST_IOSTREAM_CALLBACK_INTERFACE* destination,
             const kst_hint_options* options, kst_hint_report* report) {
    kst_hint_report done = {};
    done.struct_size = sizeof done;
    if (report != nullptr && report->struct_size != sizeof *report) return KST_HINT_BAD_ARGUMENT;
    const int result = kestrel::hinter::hint(source, destination, options, done);
    if (report != nullptr) *report = done;
    return result;
}
