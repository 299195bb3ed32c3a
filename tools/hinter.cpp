#include "tools/hinter.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <set>

#include "tools/judge/media_tracks.h"

namespace tool {
namespace {

constexpr int kFirstDynamicPayloadType = 96;
constexpr int kLastPayloadType = 127;
constexpr int kRfc2190PayloadType = 34;       // assigned by RFC 3551
constexpr uint64_t kMostInMemory = 64 << 20;  // bytes of samples; more wait in temporary files

// Whether the reader found the tables that tell of the samples, and could use all that they tell.
bool has_whole_tables(const iso_track* track) {
    const bool has_sizes = track->sample_size != 0 || track->sample_sizes != nullptr;
    return track->stts != nullptr && track->stsc != nullptr && track->chunks != nullptr &&
           has_sizes &&
           static_cast<uint32_t>(track->sample_count) == isoFFtrackDetails(track)->declared_samples;
}

// Whether a track has what its decoder and the description of its packets need.
bool has_configuration(const iso_track* track) {
    switch (track->codec) {
        case ISO_CODEC_AVC1:
            return track->dsi_length != 0 && track->nal_length_size != 0;
        case ISO_CODEC_MP4V:
            return track->dsi_length != 0;
        case ISO_CODEC_S263:  // `d263`; level 0 is none
            return track->vendor[0] != '\0' || track->level != 0;
        default:
            return true;
    }
}

// Of a kind of media, as its handler names it.
std::string shown_handler(const iso_track* track) {
    const std::string text = printable(track->handler);
    return text.empty() ? "none" : "'" + text + "'";
}

bool has_payload_format(const iso_track* track) {
    static constexpr std::array kCodecs = {ISO_CODEC_MP4V, ISO_CODEC_S263, ISO_CODEC_SAMR,
                                           ISO_CODEC_AVC1, ISO_CODEC_SAWB};
    return std::find(kCodecs.begin(), kCodecs.end(), track->codec) != kCodecs.end();
}

template <typename T>
T* arena_copy(iso_file* file, const T* from, size_t count) {
    if (from == nullptr) return nullptr;
    auto* copy = static_cast<T*>(isoFFmalloc(file, count * sizeof(T)));
    if (copy == nullptr) throw std::bad_alloc();
    std::copy_n(from, count, copy);
    return copy;
}

// Groups whose descriptions the reader did not keep stay behind: they would refer to nothing.
void copy_groups(iso_track* to, const iso_track* from) {
    if (from->sgpd_list == nullptr) return;
    iso_sbgp_entry** group = &to->sbgp_list;
    for (const iso_sbgp_entry* entry = from->sbgp_list; entry != nullptr; entry = entry->next) {
        *group = arena_copy(to->file, entry, 1);
        (*group)->next = nullptr;
        group = &(*group)->next;
    }
    to->sbgp_count = from->sbgp_count;
    iso_sgpd_entry** description = &to->sgpd_list;
    for (const iso_sgpd_entry* entry = from->sgpd_list; entry != nullptr; entry = entry->next) {
        *description = arena_copy(to->file, entry, 1);
        (*description)->records = arena_copy(to->file, entry->records, entry->count);
        (*description)->next = nullptr;
        description = &(*description)->next;
    }
    to->sgpd_count = from->sgpd_count;
    std::memcpy(to->sgpd_type, from->sgpd_type, sizeof to->sgpd_type);
}

void copy_sync_samples(iso_track* to, const iso_track* from) {
    to->sync_samples = arena_copy(to->file, from->sync_samples, from->sync_count);
    to->sync_count = from->sync_count;
}

// What a sample entry and its configuration box tell.
void copy_entry(iso_track* to, const iso_track* from) {
    to->codec = from->codec;
    const iso_track_details* details = isoFFtrackDetails(from);
    isoFFtrackDetails(to)->entry = arena_copy(to->file, details->entry, details->entry_length);
    isoFFtrackDetails(to)->entry_length = details->entry_length;
    std::memcpy(to->vendor, from->vendor, sizeof to->vendor);
    to->decoder_version = from->decoder_version;
    to->level = from->level;
    to->profile = from->profile;
    to->mode_set = from->mode_set;
    to->mode_change_period = from->mode_change_period;
    to->frames_per_sample = from->frames_per_sample;
    to->object_type = from->object_type;
    to->stream_type = from->stream_type;
    to->buffer_size = from->buffer_size;
    to->max_bitrate = from->max_bitrate;
    to->avg_bitrate = from->avg_bitrate;
    to->channel_count = from->channel_count;
    to->sample_bits = from->sample_bits;
    to->horiz_resolution = from->horiz_resolution;
    to->vert_resolution = from->vert_resolution;
    if (from->dsi_length == 0) return;
    // A configuration that was read can be written.
    const int length = static_cast<int>(from->dsi_length);
    if (isoFFsetDecoderSpecificInfo(to, from->dsi, length) != 0) throw std::bad_alloc();
}

void copy_details(iso_track* to_track, const iso_track* from_track) {
    iso_track_details* to = isoFFtrackDetails(to_track);
    const iso_track_details* from = isoFFtrackDetails(from_track);
    to->language = from->language;
    to->header_flags = from->header_flags;
    to->display_width = from->display_width;
    to->display_height = from->display_height;
    to->edits = arena_copy(to_track->file, from->edits, static_cast<size_t>(from->edit_count));
    to->edit_count = from->edit_count;
}

// A track like `from`, without its samples.
iso_track* copy_track(iso_file* file, const iso_track* from) {
    iso_track* to = isoFFtrack(file);
    if (to == nullptr) throw std::bad_alloc();
    std::memcpy(to->handler, from->handler, sizeof to->handler);
    to->track_id = from->track_id;
    to->creation_time = from->creation_time;
    to->modification_time = from->modification_time;
    to->timescale = from->timescale;
    to->layer = from->layer;
    to->alternate_group = from->alternate_group;
    to->volume = from->volume;
    to->width = from->width;
    to->height = from->height;
    std::copy(std::begin(from->matrix), std::end(from->matrix), std::begin(to->matrix));
    copy_details(to, from);
    copy_entry(to, from);
    copy_groups(to, from);
    copy_sync_samples(to, from);
    return to;
}

void copy_movie(iso_file* to, const iso_file* from) {
    to->od_id = from->od_id;
    to->od_profile = from->od_profile;
    to->scene_profile = from->scene_profile;
    to->visual_profile = from->visual_profile;
    to->graphics_profile = from->graphics_profile;
    to->audio_profile = from->audio_profile;
    to->creation_time = from->creation_time;
    to->modification_time = from->modification_time;
    const uint32_t timescale = isoFFfileDetails(from)->edit_timescale;
    if (timescale != 0) to->timescale = timescale;
    to->duration = from->duration;
}

// The brands of the input, its major one first; a file without any keeps those of the writer.
void copy_brands(iso_file* to, const iso_file* from) {
    std::string brands = from->major_brand;
    if (brands.size() != 4) return;
    const std::string compatible =
        from->compatible_brands == nullptr ? "" : from->compatible_brands;
    for (size_t at = 0; at + 4 <= compatible.size(); at += 5) {
        const std::string brand = compatible.substr(at, 4);
        if (brand != from->major_brand) brands += ' ' + brand;
    }
    // A brand that holds zero bytes has no place in the list.
    isoFFsetBrand(to, brands.c_str(), from->minor_version);
}

// A medium on its way from one file to the other.
struct Medium {
    iso_track* from;
    iso_track* to;
    iso_track* hint;  // null for one without a payload format
};

class Hinter {
  public:
    Hinter(const HintOptions& options, iso_file* from, iso_file* to)
        : options_(options), from_(from), to_(to) {}

    void run() {
        refuse_what_cannot_be_copied();
        copy_movie(to_, from_);
        copy_brands(to_, from_);
        copy_tracks();
        add_hint_tracks();
        for (const Medium& medium : media_)
            copy_samples(medium);
    }

  private:
    Error error(const iso_track* track, const std::string& text) const {
        return Error(options_.input + ": track " + std::to_string(track->track_id) + text);
    }

    void refuse_what_cannot_be_copied() const {
        const iso_file_details* details = isoFFfileDetails(from_);
        if (details->movie_result != 0 || details->lost_tracks != 0) {
            throw Error(options_.input +
                        ": its movie box is damaged; tracks or tables are missing");
        }
        int usable = 0;
        for (const iso_track* track = from_->first_track; track != nullptr; track = track->next) {
            if (is_hint(track)) {
                if (!options_.replace) {
                    throw error(track, " is a hint track; --replace makes new ones");
                }
                continue;
            }
            refuse_track(track);
            usable += has_payload_format(track) ? 1 : 0;
        }
        if (usable == 0) {
            throw Error(options_.input + ": no AMR, H.263, MPEG-4 or H.264 track");
        }
        refuse_equal_ids();
        refuse_more_samples_than_bytes();
    }

    void refuse_track(const iso_track* track) const {
        if (track->codec == ISO_CODEC_NONE) {
            throw error(track, " is of an unknown kind (handler " + shown_handler(track) +
                                   ") and cannot be copied; take it out of the file first");
        }
        if (track->timescale == 0) throw error(track, " has no timescale");
        if (track->track_id == 0) throw error(track, ": no track ID that could be referred to");
        if (has_several_descriptions(track)) {
            throw error(track, " has several sample descriptions");
        }
        if (!has_whole_tables(track)) throw error(track, " has damaged or missing sample tables");
        if (!has_configuration(track)) throw error(track, " has no decoder configuration");
    }

    static bool has_several_descriptions(const iso_track* track) {
        if (isoFFtrackDetails(track)->entry_count > 1) return true;
        for (int32_t i = 1; i < track->stsc_count; ++i) {
            if (track->stsc[i].description_index != track->stsc[0].description_index) return true;
        }
        return false;
    }

    void refuse_equal_ids() const {
        std::set<uint32_t> ids;
        for (const iso_track* track = from_->first_track; track != nullptr; track = track->next) {
            const bool is_new = is_hint(track) || ids.insert(track->track_id).second;
            if (!is_new) throw error(track, ": another track has the same ID");
        }
    }

    // Samples that lie on top of each other would make a small file into a huge one.
    void refuse_more_samples_than_bytes() const {
        uint64_t bytes = 0;
        for (const iso_track* track = from_->first_track; track != nullptr; track = track->next) {
            bytes += is_hint(track) ? 0 : sample_bytes(track);
        }
        if (bytes > available_bytes()) {
            throw Error(options_.input + ": its tables tell more sample bytes than it has");
        }
    }

    void copy_tracks() {
        uint64_t bytes = 0;
        uint32_t highest_id = 0;
        for (iso_track* track = from_->first_track; track != nullptr; track = track->next) {
            if (is_hint(track)) continue;
            media_.push_back({track, copy_track(to_, track), nullptr});
            highest_id = std::max(highest_id, track->track_id);
            bytes += track->total_bytes;
        }
        if (highest_id == UINT32_MAX) throw Error(options_.input + ": no track ID is left");
        to_->next_track_id = highest_id + 1;
        spools_ = bytes > kMostInMemory;
        for (const Medium& medium : media_)
            spool(medium.to);
    }

    // Where there is much to copy, the samples of a track wait in a temporary file.
    void spool(iso_track* track) const {
        if (!spools_) return;
        std::FILE*& spool = isoFFtrackDetails(track)->spool;
        spool = std::tmpfile();
        if (spool == nullptr) throw system_error("temporary file");
    }

    int payload_type_of(const iso_track* track) {
        if (track->codec == ISO_CODEC_S263 && options_.rfc2190) return kRfc2190PayloadType;
        return next_payload_type_ < kLastPayloadType ? next_payload_type_++ : kLastPayloadType;
    }

    void add_hint_tracks() {
        for (Medium& medium : media_) {
            if (!has_payload_format(medium.from)) continue;
            medium.hint = rtp_isoFFtrack(to_, medium.to, static_cast<int>(options_.mtu),
                                         payload_type_of(medium.from),
                                         options_.rfc2190 ? ISO_H263_RFC2190 : ISO_H263_RFC4629);
            if (medium.hint == nullptr) throw std::bad_alloc();
            copy_sync_samples(medium.hint, medium.from);
            spool(medium.hint);
        }
    }

    // Track units of a time in seconds that the reader made of them.
    static int64_t units(double seconds, const iso_track* track) {
        const double value = seconds * track->timescale;
        return static_cast<int64_t>(value < 0 ? value - 0.5 : value + 0.5);
    }

    void copy_samples(const Medium& medium) {
        std::vector<uint8_t> buffer;
        for (int left = medium.from->sample_count; left > 0; --left) {
            int size = 0;
            isoFFgetDecoderSpecificInfo(medium.from, nullptr, 0);  // not counted into the size
            isoFFframeInfo(medium.from, nullptr, &size);
            if (size < 0 || static_cast<uint32_t>(size) > available_bytes()) {
                throw error(medium.from, " has a sample that is longer than the file");
            }
            buffer.resize(std::max<size_t>(static_cast<size_t>(size), 1));
            double duration = 0.0;
            double offset = 0.0;
            if (isoFFread(medium.from, buffer.data(), size, &duration, &offset) != size) {
                throw error(medium.from, " has a sample that is not in the file");
            }
            const int64_t lasts = units(duration, medium.from);
            if (lasts > INT_MAX) throw error(medium.from, " has a sample that lasts too long");
            write_sample(medium, buffer.data(), size, static_cast<int>(lasts),
                         static_cast<int>(units(offset, medium.from)));
        }
    }

    void write_sample(const Medium& medium, uint8_t* data, int size, int duration, int offset) {
        isoFFtrackDetails(medium.to)->frame_default = 0;  // a sample that lasts no time stays so
        const int written = isoFFwrite(medium.to, data, size, duration, offset);
        if (written < 0) refuse_sample(medium, medium.to, written);
        if (medium.hint == nullptr) return;
        const int hinted = isoFFwriteHint(medium.hint, data, size, duration, offset);
        if (hinted < 0) refuse_sample(medium, medium.hint, hinted);
    }

    [[noreturn]] void refuse_sample(const Medium& medium, const iso_track* refused,
                                    int result) const {
        constexpr int kNoMemory = -2, kCannotBeCut = -3, kTooLarge = -6, kTooLong = -7;
        switch (result) {
            case kNoMemory:
                throw std::bad_alloc();
            case kCannotBeCut:
                throw error(medium.from, ": sample " + std::to_string(medium.to->sample_count) +
                                             " cannot be cut into packets of at most " +
                                             std::to_string(options_.mtu) + " bytes" +
                                             limit_advice(medium.from));
            case kTooLarge:
                throw error(medium.from, " is too large for one file");
            case kTooLong:
                throw error(
                    medium.from,
                    " lasts too long: " + std::string(is_hint(refused) ? "its hint track" : "it") +
                        " counts " + std::to_string(refused->timescale) +
                        " units a second in 32 bits, so up to " + hours_and_minutes(refused));
            default:
                throw system_error("temporary file");
        }
    }

    // What would help a speech frame into a packet.
    std::string limit_advice(const iso_track* track) const {
        constexpr uint32_t kLongestWideBandFrame = 74;  // headers, and 23.85 kbit/s for 20 ms
        if (track->codec != ISO_CODEC_SAWB || options_.mtu >= kLongestWideBandFrame) return "";
        return "; a frame needs up to " + std::to_string(kLongestWideBandFrame) + " (--mtu)";
    }

    // The longest that a track's clock can count.
    static std::string hours_and_minutes(const iso_track* track) {
        const uint32_t minutes = UINT32_MAX / track->timescale / 60;
        return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
    }

    uint32_t available_bytes() const {
        uint32_t size = 0;
        from_->stream->GetStreamSize(from_->stream->Context, &size);
        return size;
    }

    const HintOptions& options_;
    iso_file* from_;
    iso_file* to_;
    std::vector<Medium> media_;
    bool spools_ = false;
    int next_payload_type_ = kFirstDynamicPayloadType;
};

}  // namespace

void copy_with_hints(const HintOptions& options, iso_file* from, iso_file* to) {
    Hinter(options, from, to).run();
}

}  // namespace tool
