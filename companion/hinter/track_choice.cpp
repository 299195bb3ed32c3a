// SPDX-License-Identifier: Apache-2.0
#include "companion/hinter/track_choice.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <set>

#include "common/frame_limit.h"
#include "companion/importer/box_reader.h"
#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/write/sample_provider.h"
#include "native/codec/mpeg4_visual.h"

namespace kestrel::hinter {
namespace {

constexpr std::array kHintTypes = {fourcc("rtp "), fourcc("srtp"), fourcc("rrtp"), fourcc("rsrp"),
                                   fourcc("fdp "), fourcc("sm2t"), fourcc("rm2t")};
constexpr std::array kPayloadTypes = {fourcc("samr"), fourcc("sawb"), fourcc("s263"),
                                      fourcc("mp4v"), fourcc("avc1")};

template <size_t Count>
bool is_one_of(const std::array<uint32_t, Count>& types, uint32_t type) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

// The sample entry that samples have: of several that are used, one with a payload format. The
// first of a track without samples.
uint32_t used_description(const importer::Track& track) {
    uint32_t used = track.samples.empty() ? 0 : track.samples[0].description;
    if (!track.several_descriptions) return used;
    for (const importer::Sample& sample : track.samples) {
        if (is_one_of(kPayloadTypes, track.descriptions[used].type)) break;
        used = sample.description;
    }
    return used;
}

uint32_t type_of(const importer::Track& track) {
    return track.descriptions.empty() ? 0 : track.descriptions[used_description(track)].type;
}

bool is_hint(const importer::Track& track) {
    return track.handler == fourcc("hint") || is_one_of(kHintTypes, type_of(track));
}

// Whether salvage found none of its samples.
bool is_lost(const importer::Track& track) {
    return track.samples.empty() && track.missing_samples > 0;
}

std::string name_of(const importer::Track& track) {
    return "track " + std::to_string(track.id);
}

class Chooser {
  public:
    Chooser(importer::Movie& movie, uint32_t flags, Outcome& outcome)
        : movie_(movie), flags_(flags), outcome_(outcome) {}

    bool run(std::vector<Choice>& choices) {
        for (importer::Track& track : movie_.tracks) {
            Choice& choice = choices.emplace_back(Choice{&track, Fate::kCopied});
            if (!decide(choice)) return false;
        }
        return check_ids(choices) && check_playable(choices);
    }

  private:
    bool refuse(const importer::Track& track, const std::string& text) {
        return outcome_.fail(KST_HINT_REFUSED, name_of(track) + text);
    }

    bool decide(Choice& choice) {
        const importer::Track& track = *choice.track;
        if (is_hint(track)) {
            choice.fate = Fate::kReplaced;
            return (flags_ & KST_HINT_REPLACE) != 0 ||
                   outcome_.fail(KST_HINT_HAS_HINTS, name_of(track) + " is a hint track");
        }
        if (is_lost(track)) {
            choice.fate = Fate::kDropped;
            return true;
        }
        if (track.encrypted) {
            choice.fate = Fate::kDropped;
            return drops_others() || refuse(track, " is encrypted");
        }
        bool has_format = false;
        if (!find_format(choice, has_format)) return false;
        if (has_format) {
            choice.fate = Fate::kHinted;
            return check_samples(track);
        }
        choice.fate = drops_others() ? Fate::kDropped : Fate::kCopied;
        return choice.fate == Fate::kDropped || check_entries(*choice.track);
    }

    bool drops_others() const { return (flags_ & KST_HINT_DROP_OTHERS) != 0; }

    // Opens the file of which a track reads a sample entry, anew after its first block of memory.
    void have_scratch() {
        if (scratch_ != nullptr && scratch_->chunk_count == 1) return;
        KST_IOSTREAM_CALLBACK_INTERFACE* nowhere = nullptr;
        scratch_.reset();
        scratch_.reset(isoFFopen(nowhere, "w", nullptr));
        if (scratch_ == nullptr) throw std::bad_alloc();
    }

    // Reads a sample entry as the library does when it plays the output. Returns null when it
    // cannot be read. The track is valid until the next call.
    const iso_track* read_entry(importer::Description& description) {
        have_scratch();
        iso_track* track = isoFFtrack(scratch_.get());
        if (track == nullptr) throw std::bad_alloc();
        track->codec = ISO_CODEC_NONE;
        return read_sample_entry(track, description.box) ? track : nullptr;
    }

    // Sets whether the track's medium has a payload format. Returns false when it cannot be hinted
    // in spite of that.
    bool find_format(Choice& choice, bool& has_format) {
        importer::Track& track = *choice.track;
        if (!is_one_of(kPayloadTypes, type_of(track))) return true;
        choice.description = used_description(track);
        const bool is_alone = std::all_of(
            track.samples.begin(), track.samples.end(),
            [&](const auto& sample) { return sample.description == choice.description; });
        if (!is_alone) return refuse(track, " has several sample descriptions that differ");
        const iso_track* entry = read_entry(track.descriptions[choice.description]);
        if (entry == nullptr) return refuse(track, ": its decoder configuration is damaged");
        if (is_foreign(entry)) {
            return drops_others() || refuse(track,
                                            " (mp4v) is not MPEG-4 Visual, and the class API "
                                            "ends the process on it");
        }
        if (track.samples.empty())
            return true;  // a player takes a hint track without samples for damage
        has_format = has_configuration(entry);
        const char* const lack =
            entry->codec == ISO_CODEC_S263
                ? " has no decoder configuration (d263); a file made of its native stream has one "
                  "('kestrel extract', 'kestrel pack')"
                : " has no decoder configuration";
        return has_format || refuse(track, lack);
    }

    // `mp4v` is used for other codecs as well.
    static bool is_foreign(const iso_track* entry) {
        return entry->codec == ISO_CODEC_MP4V && entry->object_type != kMpeg4Visual &&
               entry->dsi_length != 0;
    }

    static bool has_configuration(const iso_track* entry) {
        switch (entry->codec) {
            case ISO_CODEC_AVC1:
                return entry->dsi_length != 0 && entry->nal_length_size != 0;
            case ISO_CODEC_MP4V:
                return entry->dsi_length != 0;
            case ISO_CODEC_S263:  // `d263`; level 0 is none
                return entry->vendor[0] != '\0' || entry->level != 0;
            default:
                return true;
        }
    }

    // An entry that the library cannot read would make all tracks unreadable.
    bool check_entries(importer::Track& track) {
        for (importer::Description& description : track.descriptions) {
            if (read_entry(description) == nullptr) {
                return refuse(track, " (" + importer::type_text(description.type) +
                                         "): its decoder configuration is damaged");
            }
        }
        return true;
    }

    bool check_samples(const importer::Track& track) {
        const auto longest = std::max_element(
            track.samples.begin(), track.samples.end(),
            [](const auto& one, const auto& other) { return one.size < other.size; });
        if (longest == track.samples.end() || longest->size <= kMaxFrameBytes) return true;
        return refuse(track, ": sample " + std::to_string(longest - track.samples.begin() + 1) +
                                 " has " + std::to_string(longest->size) +
                                 " bytes, more than the " + std::to_string(kMaxFrameBytes) +
                                 " that a player takes");
    }

    bool check_ids(const std::vector<Choice>& choices) {
        std::set<uint32_t> ids;
        for (const Choice& choice : choices) {
            if (choice.fate == Fate::kReplaced || choice.fate == Fate::kDropped) continue;
            if (choice.track->id == 0) return refuse(*choice.track, " has no track ID");
            if (!ids.insert(choice.track->id).second) {
                return refuse(*choice.track, ": another track has the same ID");
            }
        }
        const uint64_t highest = ids.empty() ? 0 : *ids.rbegin();
        return highest + ids.size() < UINT32_MAX ||
               outcome_.fail(KST_HINT_REFUSED, "no track ID is left for hint tracks");
    }

    bool check_playable(const std::vector<Choice>& choices) {
        for (const Choice& choice : choices) {
            if (choice.fate == Fate::kHinted) return true;
        }
        for (const Choice& choice : choices) {
            if (choice.track->encrypted) return refuse(*choice.track, " is encrypted");
        }
        for (const Choice& choice : choices) {
            const importer::Track& track = *choice.track;
            if (!is_one_of(kPayloadTypes, type_of(track)) || !track.samples.empty()) continue;
            return refuse(track,
                          is_lost(track) ? " has no sample that is whole" : " has no samples");
        }
        return outcome_.fail(KST_HINT_REFUSED, "no AMR, H.263, MPEG-4 or H.264 track");
    }

    importer::Movie& movie_;
    uint32_t flags_;
    Outcome& outcome_;
    std::unique_ptr<iso_file, AbandonFile> scratch_;
};

}  // namespace

bool choose_tracks(importer::Movie& movie, uint32_t flags, Outcome& outcome,
                   std::vector<Choice>& choices) {
    return Chooser(movie, flags, outcome).run(choices);
}

std::string dropped_text(const std::vector<Choice>& choices) {
    std::string text;
    for (const Choice& choice : choices) {
        if (choice.fate != Fate::kDropped) continue;
        if (!text.empty()) text += ", ";
        text += name_of(*choice.track) + " (" + importer::type_text(type_of(*choice.track)) +
                (is_lost(*choice.track) ? ", no sample is whole)" : ")");
    }
    return text;
}

}  // namespace kestrel::hinter
