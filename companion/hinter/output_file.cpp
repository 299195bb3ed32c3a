// SPDX-License-Identifier: Apache-2.0
#include "companion/hinter/output_file.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <new>
#include <optional>
#include <set>
#include <string>

#include "common/box_header.h"
#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/record/record.h"

namespace kestrel::hinter {
namespace {

bool is_written(const Choice& choice) {
    return choice.fate == Fate::kHinted || choice.fate == Fate::kCopied;
}

// Returns a date in the 32 bits of version-0 boxes.
uint32_t date(uint64_t seconds) {
    return static_cast<uint32_t>(std::min<uint64_t>(seconds, UINT32_MAX));
}

// --- brands ---

// Brands that are false for the output: a QuickTime file, or one with fragments.
constexpr std::array kOtherForms = {fourcc("qt  "), fourcc("dash"), fourcc("msdh"), fourcc("msix"),
                                    fourcc("risx"), fourcc("lmsg"), fourcc("sims"), fourcc("cmfc"),
                                    fourcc("cmf2"), fourcc("cmff"), fourcc("cmfs"), fourcc("cmfl")};

bool is_brand(uint32_t code) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
        const uint32_t character = code >> shift & 0xFF;
        if (character < ' ' || character > '~') return false;
    }
    return std::find(kOtherForms.begin(), kOtherForms.end(), code) == kOtherForms.end();
}

// Returns the brands of the source, its major brand first; those of 3GP when none of them is valid
// for the output.
void copy_brands(iso_file* file, const importer::Brands& from) {
    std::string brands;
    std::set<uint32_t> known;
    const auto add = [&](uint32_t code) {
        if (!is_brand(code) || !known.insert(code).second) return;
        if (!brands.empty()) brands += ' ';
        for (const unsigned shift : {24U, 16U, 8U, 0U})
            brands += static_cast<char>(code >> shift & 0xFF);
    };
    add(from.major);
    std::for_each(from.compatible.begin(), from.compatible.end(), add);
    const bool has_brands = !brands.empty() && is_brand(from.major);
    isoFFsetBrand(file, has_brands ? brands.c_str() : "3gp6 3gp5 3gp4",
                  has_brands ? static_cast<int>(from.minor) : file->minor_version);
}

// --- times ---

bool plays_by_class_api(const iso_track* track) {
    return track->codec == ISO_CODEC_SAMR || track->codec == ISO_CODEC_S263 ||
           track->codec == ISO_CODEC_MP4V;
}

void choose_timescale(Written& written) {
    if (!written.is_hinted || !plays_by_class_api(written.to)) return;
    const std::optional<TimeFactor> factor = whole_milliseconds(*written.from);
    written.factor = factor.value_or(TimeFactor());
    written.has_coarse_seeks = !factor;
}

// --- tables ---

void copy_edits(Written& written) {
    const importer::Track& from = *written.from;
    if (from.edits.empty()) return;
    iso_track_private* details = written.to->own;
    details->edits = keep(arena_array<iso_elst_entry>(written.to->file, from.edits.size()));
    details->edit_count = static_cast<int32_t>(from.edits.size());
    std::transform(
        from.edits.begin(), from.edits.end(), details->edits, [&](const importer::Edit& edit) {
            const int64_t time =
                edit.media_time > 0 ? written.factor.of(edit.media_time) : edit.media_time;
            return iso_elst_entry{edit.duration, time, edit.rate};
        });
}

void copy_sync_samples(iso_track* to, const importer::Track& from) {
    const auto count = static_cast<size_t>(
        std::count_if(from.samples.begin(), from.samples.end(),
                      [](const importer::Sample& sample) { return sample.is_sync != 0; }));
    if (count == from.samples.size()) return;
    to->sync_samples = keep(arena_array<uint32_t>(to->file, std::max<size_t>(count, 1)));
    for (size_t i = 0; i < from.samples.size(); ++i) {
        if (from.samples[i].is_sync)
            to->sync_samples[to->sync_count++] = static_cast<uint32_t>(i + 1);
    }
}

// --- boxes ---

// Removes references to tracks that are not written.
void copy_references(Written& written, const TrackIds& written_ids) {
    const auto is_there = [&](uint32_t id) { return written_ids.count(id) != 0; };
    for (const importer::Reference& reference : written.from->references) {
        CopiedReference copy = {reference.type, {}};
        std::copy_if(reference.track_ids.begin(), reference.track_ids.end(),
                     std::back_inserter(copy.track_ids), is_there);
        if (!copy.track_ids.empty()) written.boxes.references.push_back(copy);
    }
}

// The library reads one grouping of a track, in version 0 of its boxes.
void copy_groups(Written& written) {
    constexpr size_t kVersion = 8;  // where it is in a box
    for (const importer::Group& group : written.from->groups) {
        const bool is_read = (group.samples.size() <= kVersion || group.samples[kVersion] == 0) &&
                             group.type != fourcc("3gag") && group.type != fourcc("avcb");
        if (!is_read) continue;
        if (!group.samples.empty()) written.boxes.groups.emplace_back(group.samples);
        if (!group.descriptions.empty()) written.boxes.groups.emplace_back(group.descriptions);
        return;
    }
}

void copy_boxes(Written& written, const Choice& choice, const TrackIds& written_ids) {
    importer::Track& from = *written.from;
    written.boxes.name = from.name;
    written.boxes.media_header = from.media_header;
    if (written.is_hinted) {
        std::vector<uint8_t>& entry = from.descriptions[choice.description].box;
        written.boxes.sample_entries = {entry};
        read_sample_entry(written.to, entry);
    } else {
        for (const importer::Description& description : from.descriptions)
            written.boxes.sample_entries.emplace_back(description.box);
    }
    copy_references(written, written_ids);
    copy_groups(written);
    written.to->own->copied = &written.boxes;
}

void describe_track(iso_track* to, const importer::Track& from) {
    store_be32(reinterpret_cast<uint8_t*>(to->handler), from.handler);
    to->track_id = from.id;
    to->creation_time = date(from.creation_time);
    to->modification_time = date(from.modification_time);
    to->timescale = from.timescale;
    to->layer = from.layer;
    to->alternate_group = from.alternate_group;
    to->volume = from.volume;
    std::copy(from.matrix.begin(), from.matrix.end(), std::begin(to->matrix));
    iso_track_private* details = to->own;
    details->language = from.language;
    details->header_flags = from.flags;
    details->display_width = from.width;
    details->display_height = from.height;
}

// Changes the header of a box to a size of 32 bits, which all players read.
void shorten_header(std::vector<uint8_t>& box) {
    if (box.size() >= kLargeBoxHeader && load_box_header(box.data()).size == kSizeIs64Bits) {
        box.erase(box.begin() + kBoxHeader, box.begin() + kLargeBoxHeader);
    }
    if (box.size() >= kBoxHeader) store_be32(box.data(), static_cast<uint32_t>(box.size()));
}

}  // namespace

void shorten_headers(importer::Movie& movie) {
    shorten_header(movie.object_descriptor);
    for (importer::Track& track : movie.tracks) {
        shorten_header(track.media_header);
        for (importer::Description& description : track.descriptions)
            shorten_header(description.box);
        for (importer::Group& group : track.groups) {
            shorten_header(group.samples);
            shorten_header(group.descriptions);
        }
    }
}

void describe_movie(iso_file* file, const importer::Movie& movie,
                    const std::vector<Choice>& choices) {
    file->creation_time = date(movie.creation_time);
    file->modification_time = date(movie.modification_time);
    file->timescale = movie.timescale;
    file->size_limit = UINT32_MAX;
    copy_brands(file, movie.brands);
    // The longest track may be dropped, and the object descriptor may name dropped tracks.
    const bool is_whole = std::none_of(choices.begin(), choices.end(), [](const Choice& choice) {
        return choice.fate == Fate::kDropped;
    });
    if (is_whole) {
        file->duration = movie.duration > UINT32_MAX ? 0 : static_cast<uint32_t>(movie.duration);
        file->own->copied_iods = movie.object_descriptor;
    }
    for (const Choice& choice : choices) {
        if (is_written(choice))
            file->next_track_id = std::max(file->next_track_id, choice.track->id + 1);
    }
}

TrackIds written_track_ids(const std::vector<Choice>& choices) {
    TrackIds ids;
    for (const Choice& choice : choices) {
        if (is_written(choice)) ids.insert(choice.track->id);
    }
    return ids;
}

void make_track(iso_file* file, const Choice& choice, const TrackIds& written_ids,
                Written& written) {
    const uint32_t next_id = file->next_track_id;
    written.to = keep(isoFFtrack(file));
    file->next_track_id = next_id;
    written.to->codec = ISO_CODEC_NONE;
    describe_track(written.to, *written.from);
    copy_boxes(written, choice, written_ids);
    choose_timescale(written);
    written.to->timescale = written.factor.of(written.from->timescale);
    copy_edits(written);
    copy_sync_samples(written.to, *written.from);
}

}  // namespace kestrel::hinter
