// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/boxes.h"
#include "interface/src/isoff/write/copied_boxes.h"
#include "interface/src/isoff/write/sample_provider.h"
#include "interface/src/isoff/write/writer.h"

// `stbl` and the sample tables (ISO/IEC 14496-12, 8.6 to 8.9).

namespace kestrel {
namespace {

// --- the check of the two passes ---

enum Table { kSttsTable, kCttsTable, kStszTable, kStssTable, kSbgpTable };

int shown(uint64_t number) {
    return static_cast<int>(number);
}

// Keeps the size that the count pass measures, and reports another size in the write pass, with the
// number of `what`. Returns the size.
uint64_t checked(const BoxWriter& out, iso_track* track, Table table, uint64_t size,
                 const char* what, int64_t number) {
    uint64_t& counted = track->own->counted_sizes[table];
    if (out.pass() == kCountPass) counted = size;
    if (counted != size) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- %s %d\n", shown(counted), shown(size), what,
               static_cast<int>(number));
    }
    return size;
}

// --- tables ---

// Puts a pair of run length and value for each run of samples with the same value.
template <typename Entry, typename Value>
void put_value_runs(BoxWriter& out, const iso_track* track, Value value) {
    for (SampleWalk sample(track); !sample.at_end();) {
        const auto first = value(sample.figures());
        uint32_t count = 0;
        for (; !sample.at_end() && value(sample.figures()) == first; sample.next())
            ++count;
        put(out, Entry{count, first});
    }
}

bool has_cts_offsets(const iso_track* track) {
    const SampleWalk first(track);
    return track->ctts_count > 1 || (!first.at_end() && first.figures().cts_offset != 0);
}

// Visits the chunks that differ from the chunk before in the number of samples or in the sample
// entry.
template <typename Visit>
void visit_chunk_kinds(const iso_track* track, Visit visit) {
    uint32_t chunk = 0;
    const iso_run* last = nullptr;
    for (const iso_run* run = track->own->first_run; run != nullptr; run = run->next) {
        ++chunk;
        const bool is_alike = last != nullptr && run->samples == last->samples &&
                              run->description == last->description;
        if (!is_alike) visit(chunk, *run);
        last = run;
    }
}

uint64_t write_stsc(BoxWriter& out, const iso_track* track) {
    uint32_t kinds = 0;
    visit_chunk_kinds(track, [&](uint32_t, const iso_run&) { ++kinds; });
    return out.full_box(fourcc("stsc"), 0, 0, [&] {
        out.u32(kinds);
        visit_chunk_kinds(track, [&](uint32_t first_chunk, const iso_run& run) {
            put(out, iso_stsc_entry{first_chunk, run.samples, run.description});
        });
    });
}

uint64_t write_stco(BoxWriter& out, const iso_track* track) {
    return out.full_box(fourcc("stco"), 0, 0, [&] {
        out.u32(track->own->run_count);
        for (const iso_run* run = track->own->first_run; run != nullptr; run = run->next)
            put(out, iso_chunk{track->file->own->media_base + run->start, 0});
    });
}

uint64_t write_sgpd(BoxWriter& out, const iso_track* track) {
    return out.full_box(fourcc("sgpd"), 0, 0, [&] {
        out.id(track->sgpd_type);
        out.u32(track->sgpd_count);
        for (const auto* entry = track->sgpd_list; entry != nullptr; entry = entry->next) {
            out.u16(entry->count);
            for (const iso_sgpd_record& record : std::span(entry->records, entry->count)) {
                for (const uint32_t word : record.words)
                    out.u32(word);
            }
        }
    });
}

}  // namespace

uint64_t write_stts(BoxWriter& out, iso_track* track) {
    const uint64_t size = out.full_box(fourcc("stts"), 0, 0, [&] {
        out.u32(track->stts_count);
        put_value_runs<iso_stts_entry>(out, track,
                                       [](const SampleFigures& sample) { return sample.duration; });
    });
    return checked(out, track, kSttsTable, size, "dtd count", track->stts_count);
}

uint64_t write_ctts(BoxWriter& out, iso_track* track) {
    bool negative = false;
    for (SampleWalk sample(track); !sample.at_end() && !negative; sample.next())
        negative = sample.figures().cts_offset < 0;
    const uint64_t size = out.full_box(fourcc("ctts"), negative ? 1 : 0, 0, [&] {
        out.u32(track->ctts_count);
        put_value_runs<iso_ctts_entry>(
            out, track, [](const SampleFigures& sample) { return sample.cts_offset; });
    });
    return checked(out, track, kCttsTable, size, "cto count", track->ctts_count);
}

uint64_t write_stsz(BoxWriter& out, iso_track* track) {
    const uint64_t size = out.full_box(fourcc("stsz"), 0, 0, [&] {
        out.u32(track->sample_size);
        out.u32(track->sample_count);
        for (SampleWalk sample(track); !sample.at_end() && track->sample_size == 0; sample.next())
            out.u32(sample.figures().size);
    });
    char what[64];
    std::snprintf(what, sizeof what, "sample size = %d sample count =", shown(track->sample_size));
    return checked(out, track, kStszTable, size, what, track->sample_count);
}

uint64_t write_stss(BoxWriter& out, iso_track* track) {
    const uint64_t size = out.full_box(fourcc("stss"), 0, 0, [&] {
        out.u32(track->sync_count);
        for (const uint32_t sample : std::span(track->sync_samples, track->sync_count))
            out.u32(sample);
    });
    return checked(out, track, kStssTable, size, "sample count =", track->sync_count);
}

uint64_t write_sbgp(BoxWriter& out, iso_track* track) {
    const uint64_t size = out.full_box(fourcc("sbgp"), 0, 0, [&] {
        out.id(track->sgpd_type);
        out.u32(track->sbgp_count);
        for (const auto* entry = track->sbgp_list; entry != nullptr; entry = entry->next)
            put(out, *entry);
    });
    return checked(out, track, kSbgpTable, size, "sbgp count", track->sbgp_count);
}

uint64_t write_stbl(BoxWriter& out, iso_track* track) {
    return out.box(fourcc("stbl"), [&] {
        write_stts(out, track);
        write_stsd(out, track);
        if (has_cts_offsets(track)) write_ctts(out, track);
        write_stsz(out, track);
        write_stsc(out, track);
        write_stco(out, track);
        if (track->sync_samples != nullptr) write_stss(out, track);
        // Groups without a type cannot be distinguished from others.
        const bool has_groups = track->sgpd_type[0] != '\0';
        if (has_groups && track->sbgp_list != nullptr) write_sbgp(out, track);
        if (has_groups && track->sgpd_list != nullptr) write_sgpd(out, track);
        if (track->own->copied != nullptr) {
            for (const std::span<const uint8_t>& group : track->own->copied->groups)
                out.copied(group);
        }
    });
}

}  // namespace kestrel
