// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/packed_file.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>

#include "common/movie_time.h"
#include "companion/hinter/outcome.h"
#include "companion/packer/h264_pictures.h"
#include "companion/packer/packed_samples.h"
#include "interface/src/isoff/record/record.h"
#include "kestrel/codec.h"
#include "kestrel/kstutil.h"
#include "native/codec/avcc.h"
#include "native/codec/payload_types.h"

namespace kestrel::packer {
namespace {

using hinter::keep;
using stream::Medium;

constexpr uint32_t kMovieTimescale = 1000;  // the finest that start offsets are declared in
constexpr int kLengthSize = 4;              // of the NAL units of a sample

// A stream and its track.
struct Track {
    StreamMedia* media = nullptr;
    size_t number = 0;  // of the stream
    Timeline timeline;
    std::unique_ptr<PackedSamples> samples;
    iso_track* track = nullptr;
    iso_track* hint = nullptr;
    std::unique_ptr<PackedHints> hints;

    Medium medium() const { return media->header()->medium; }
};

[[noreturn]] void refuse(const Track& track, const std::string& text,
                         int status = KST_PACK_REFUSED) {
    throw Failure{status, text, static_cast<int>(track.number)};
}

// --- configuration ---

// Calls visit(unit) for the units between start codes.
template <typename Visit>
void for_each_unit(std::span<const uint8_t> bytes, Visit visit) {
    while (bytes.size() > kStartCode.size()) {
        bytes = bytes.subspan(kStartCode.size());
        const auto end =
            std::search(bytes.begin(), bytes.end(), kStartCode.begin(), kStartCode.end());
        const auto size = static_cast<size_t>(end - bytes.begin());
        if (size > 0) visit(bytes.first(size));
        bytes = bytes.subspan(size);
    }
}

// Returns the bytes after the parameter sets in the record of the higher profiles (ISO/IEC
// 14496-15, 5.3.3.1).
void add_chroma_format(NalUnit sequence_set, std::vector<uint8_t>& avcc) {
    constexpr uint32_t kReserved6 = 0xFC, kReserved5 = 0xF8, kNoExtensions = 0;
    uint32_t id = 0;
    const auto sequence = read_h264_sequence(sequence_set, id);
    if (!sequence || !sequence->has_chroma_format()) return;
    for (const uint32_t value :
         {kReserved6 | sequence->chroma_format, kReserved5 | (sequence->luma_depth - 8),
          kReserved5 | (sequence->chroma_depth - 8), kNoExtensions}) {
        avcc.push_back(static_cast<uint8_t>(value));
    }
}

std::vector<uint8_t> avcc_of(std::span<const uint8_t> config) {
    std::vector<NalUnit> sequence_sets;
    std::vector<NalUnit> picture_sets;
    for_each_unit(config, [&](NalUnit unit) {
        if (nal_type(unit) == kSequenceSet) sequence_sets.push_back(unit);
        if (nal_type(unit) == kPictureSet) picture_sets.push_back(unit);
    });
    std::vector<uint8_t> avcc = make_avcc(sequence_sets, picture_sets, kLengthSize);
    if (!avcc.empty()) add_chroma_format(sequence_sets.front(), avcc);
    return avcc;
}

// --- tracks ---

iso_track* make_visual_track(iso_file* file, const Track& from) {
    const stream::StreamHeader& header = *from.media->header();
    const std::span<const uint8_t> config = from.media->config();
    const uint32_t timescale = from.timeline.timescale;
    if (const std::string fault = stream::picture_size_fault(header); !fault.empty())
        refuse(from, fault);
    if (from.medium() == Medium::kMpeg4) {
        if (config.empty()) refuse(from, stream::kNoConfigurationText);
        return keep(mpeg4_isoFFtrack(file, config.data(), static_cast<unsigned>(config.size()),
                                     header.width, header.height, timescale));
    }
    if (from.medium() == Medium::kH264) {
        const std::vector<uint8_t> avcc = avcc_of(config);
        if (avcc.empty()) refuse(from, stream::kNoParameterSetsText);
        return keep(h264_isoFFtrack(file, avcc.data(), static_cast<unsigned>(avcc.size()),
                                    header.width, header.height, timescale));
    }
    H263VCFG picture{};
    picture.width = header.width;
    picture.height = header.height;
    picture.timescale = timescale;
    picture.profile = header.profile;
    picture.level = header.level;
    return keep(h263_isoFFtrack(file, &picture));
}

void keep_sync_samples(iso_track* track, const SampleStore& samples) {
    size_t count = 0;
    for (size_t i = 0; i < samples.count(); ++i)
        count += samples.is_sync(i) ? 1 : 0;
    if (count == samples.count()) return;
    track->sync_samples = keep(arena_array<uint32_t>(track->file, std::max<size_t>(count, 1)));
    for (size_t i = 0; i < samples.count(); ++i) {
        if (samples.is_sync(i))
            track->sync_samples[track->sync_count++] = static_cast<uint32_t>(i + 1);
    }
}

uint32_t movie_units(uint64_t units, uint32_t timescale) {
    return static_cast<uint32_t>(
        std::min<uint64_t>((units * kMovieTimescale + timescale / 2) / timescale, UINT32_MAX));
}

// Adds an empty edit for a late start and, if tracks must be synchronised, an edit that skips the
// delay of composition.
void keep_edits(Track& from, uint64_t late, bool must_match) {
    const Timeline& timeline = from.timeline;
    const uint32_t skipped = must_match ? timeline.delay : 0;
    if (late == 0 && skipped == 0) return;
    uint64_t duration = 0;
    for (size_t i = 0; i < timeline.times.size(); ++i)
        duration += timeline.duration_of(i);
    constexpr uint32_t kNormalRate = 0x10000;
    iso_track_private* details = from.track->own;
    details->edits = keep(arena_array<iso_elst_entry>(from.track->file, 2));
    if (late != 0) {
        details->edits[details->edit_count++] = {movie_units(late, timeline.timescale), -1,
                                                 kNormalRate};
    }
    details->edits[details->edit_count++] = {movie_units(duration, timeline.timescale), skipped,
                                             kNormalRate};
}

// Returns the start of a track in seconds.
double start_of(const Track& track, const stream::StreamHeader* video) {
    const double scale = track.timeline.timescale;
    const double first = static_cast<double>(track.timeline.start) / scale;
    if (video == nullptr) return first;
    const uint32_t late = is_speech(track.medium()) ? video->audio_start : video->video_start;
    return first + late / scale;
}

class Job {
  public:
    Job(const std::vector<StreamMedia*>& streams, kst_pack_report& report) : report_(report) {
        for (size_t i = 0; i < streams.size(); ++i) {
            if (streams[i] == nullptr) continue;
            tracks_.emplace_back();
            tracks_.back().media = streams[i];
            tracks_.back().number = i;
        }
    }

    void run(bool with_hints, KST_IOSTREAM_CALLBACK_INTERFACE* destination) {
        if (tracks_.empty()) throw Failure{KST_PACK_REFUSED, "no stream was fed"};
        for (Track& track : tracks_)
            look_at(track);
        file_.reset(keep(isoFFopen(destination, "w", nullptr)));
        // The writer's own dates are a day early; tracks take those of the file.
        file_->creation_time = file_->modification_time = movie_time_now();
        file_->timescale = kMovieTimescale;
        file_->size_limit = UINT32_MAX;
        for (Track& track : tracks_)
            make_track(track);
        align();
        for (Track& track : tracks_) {
            if (with_hints) make_hints(track);
        }
        write(destination);
    }

  private:
    static void look_at(Track& track) {
        StreamMedia& media = *track.media;
        if (media.store().count() == 0) {
            refuse(track, media.damage() ? media.damage()->reason : "it has no frames");
        }
        track.timeline =
            make_timeline(*media.header(), media.store(), media.frames(), media.shown_after());
    }

    void make_track(Track& track) {
        StreamMedia& media = *track.media;
        const bool is_wide = track.medium() == Medium::kWideBandSpeech;
        track.track = is_speech(track.medium())
                          ? keep(amr_isoFFtrack(file_.get(), is_wide, media.mode_set(), 1))
                          : make_visual_track(file_.get(), track);
        keep_sync_samples(track.track, media.store());
        track.samples = std::make_unique<PackedSamples>(media.store(), track.timeline);
        provide(track, track.track, *track.samples);
        report_.samples += track.samples->count();
        report_.tracks++;
    }

    static void provide(const Track& from, iso_track* track, SampleProvider& samples) {
        switch (provide_samples(track, samples)) {
            case 0:
                return;
            case kTooLong:
                refuse(from, "it runs longer than a track can", KST_PACK_TOO_LARGE);
            default:
                refuse(from, "it takes more than one file can", KST_PACK_TOO_LARGE);
        }
    }

    // Streams of the class API declare when they start.
    void align() {
        const auto is_class = [](const Track& track) {
            return track.media->header()->api == stream::Api::kClass;
        };
        const bool knows_starts = std::all_of(tracks_.begin(), tracks_.end(), is_class);
        const stream::StreamHeader* video = nullptr;
        for (const Track& track : tracks_) {
            if (is_class(track) && !is_speech(track.medium())) video = &*track.media->header();
        }
        double earliest = 0.0;
        for (size_t i = 0; i < tracks_.size() && knows_starts; ++i) {
            const double start = start_of(tracks_[i], video);
            earliest = i == 0 ? start : std::min(earliest, start);
        }
        for (Track& track : tracks_) {
            const double late = knows_starts ? start_of(track, video) - earliest : 0.0;
            keep_edits(track, static_cast<uint64_t>(std::llround(late * track.timeline.timescale)),
                       tracks_.size() > 1);
        }
    }

    int next_payload_type(const Track& track) {
        if (track.medium() == Medium::kH263Rfc2190) return kRfc2190PayloadType;
        return std::min(next_payload_type_++, kLastPayloadType);
    }

    // Packets by RFC 3640 are kept as they are if their headers can be described to a receiver.
    static void keep_au_headers(Track& track) {
        const AuHeaders* headers = track.media->au_headers();
        if (headers == nullptr || !headers->any()) return;
        const unsigned bits = headers->dts_delta_bits(track.timeline);
        if (bits == 0) return track.hints->leave_out_au_headers();
        if (!describe_au_headers(track.hint, bits)) throw std::bad_alloc();
    }

    void make_hints(Track& track) {
        constexpr size_t kShortest = 64, kLongest = UINT16_MAX;
        SampleStore& store = track.media->store();
        const size_t longest = std::max(store.longest_packet(), kShortest);
        if (longest > kLongest) refuse(track, "it has packets that are too long for RTP");
        const auto h263 =
            track.medium() == Medium::kH263Rfc2190 ? ISO_H263_RFC2190 : ISO_H263_RFC4629;
        track.hint = keep(rtp_isoFFtrack(file_.get(), track.track, static_cast<int>(longest),
                                         next_payload_type(track), h263));
        if (store.hints().size() == store.count()) {
            track.hint->sync_samples = track.track->sync_samples;
            track.hint->sync_count = track.track->sync_count;
        }
        track.hints = std::make_unique<PackedHints>(store, *track.samples);
        keep_au_headers(track);
        if (!track.hints->plan(track.hint))
            refuse(track, "it has packets that a hint track cannot describe");
        provide(track, track.hint, *track.hints);
        report_.packets += track.hints->packets();
        report_.hint_tracks++;
    }

    void write(KST_IOSTREAM_CALLBACK_INTERFACE* destination) {
        const int closed = isoFFclose(file_.release());
        const bool spools_hold = std::none_of(tracks_.begin(), tracks_.end(), [](const Track& t) {
            return t.media->store().failed();
        });
        if (closed == kNoMemory) throw std::bad_alloc();
        if (closed == kTooLarge) {
            throw Failure{KST_PACK_TOO_LARGE, "the file would have 4 GiB or more"};
        }
        if (closed != 0 && !spools_hold) {
            throw Failure{KST_PACK_SPOOL_FAILED, "a temporary file could not be read"};
        }
        if (closed != 0) {
            throw Failure{KST_PACK_DESTINATION_FAILED, "the output could not be written"};
        }
        uint32_t written = 0;
        kstutil_getoffset(destination, &written);
        report_.bytes = written;
    }

    kst_pack_report& report_;
    std::vector<Track> tracks_;
    std::unique_ptr<iso_file, AbandonFile> file_;
    int next_payload_type_ = kFirstDynamicPayloadType;
};

}  // namespace

void write_file(const std::vector<StreamMedia*>& streams, bool with_hints,
                KST_IOSTREAM_CALLBACK_INTERFACE* destination, kst_pack_report& report) {
    Job(streams, report).run(with_hints, destination);
}

}  // namespace kestrel::packer
