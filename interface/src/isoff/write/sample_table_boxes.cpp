// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/box_body.h"
#include "interface/src/isoff/write/copied_boxes.h"
#include "interface/src/isoff/write/sample_provider.h"
#include "interface/src/isoff/write/writer.h"

// `stbl` and the sample tables (ISO/IEC 14496-12, 8.6 to 8.9).

namespace kestrel {
namespace {

// --- the check of the two passes ---

enum Table { kSttsTable, kCttsTable, kStszTable, kStssTable, kSbgpTable };

// Keeps what the first pass measured; false when the second came to something else.
bool passes_agree(Pass pass, iso_track* track, Table table, uint64_t size) {
    if (pass == kCountPass) track->own->counted_sizes[table] = size;
    return track->own->counted_sizes[table] == size;
}

int shown(uint64_t number) {
    return static_cast<int>(number);
}

// --- tables ---

// Puts a pair of run length and value for each run of samples with the same value.
template <typename Entry, typename Value>
void put_value_runs(BoxBody& box, const iso_track* track, Value value) {
    for (SampleWalk sample(track); !sample.at_end();) {
        const auto first = value(sample.figures());
        uint32_t count = 0;
        for (; !sample.at_end() && value(sample.figures()) == first; sample.next())
            ++count;
        put(box, Entry{count, first});
    }
}

bool has_cts_offsets(const iso_track* track) {
    const SampleWalk first(track);
    return track->ctts_count > 1 || (!first.at_end() && first.figures().cts_offset != 0);
}

// Visits the runs whose chunks hold another number of samples than the chunk before, or samples of
// another description.
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

uint64_t write_stsc(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    uint32_t kinds = 0;
    visit_chunk_kinds(track, [&](uint32_t, const iso_run&) { ++kinds; });
    BoxBody box(pass, to, "stsc");
    box.version_and_flags(0, 0);
    box.u32(kinds);
    visit_chunk_kinds(track, [&](uint32_t first_chunk, const iso_run& run) {
        put(box, iso_stsc_entry{first_chunk, run.samples, run.description});
    });
    return box.finish();
}

uint64_t write_stco(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "stco");
    box.version_and_flags(0, 0);
    box.u32(track->own->run_count);
    for (const iso_run* run = track->own->first_run; run != nullptr; run = run->next)
        put(box, iso_chunk{track->file->own->media_base + run->start, 0});
    return box.finish();
}

uint64_t write_sgpd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "sgpd");
    box.version_and_flags(0, 0);
    box.id(track->sgpd_type);
    box.u32(track->sgpd_count);
    for (const iso_sgpd_entry* entry = track->sgpd_list; entry != nullptr; entry = entry->next) {
        box.u16(entry->count);
        for (const iso_sgpd_record& record : std::span(entry->records, entry->count)) {
            for (const uint32_t word : record.words)
                box.u32(word);
        }
    }
    return box.finish();
}

}  // namespace

uint64_t write_stts(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stts");
    box.version_and_flags(0, 0);
    box.u32(static_cast<uint32_t>(track->stts_count));
    put_value_runs<iso_stts_entry>(box, track,
                                   [](const SampleFigures& sample) { return sample.duration; });
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kSttsTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- dtd count %d\n",
               shown(track->own->counted_sizes[kSttsTable]), shown(size), track->stts_count);
    }
    return size;
}

uint64_t write_ctts(Pass pass, std::span<uint8_t> to, iso_track* track) {
    bool negative = false;
    for (SampleWalk sample(track); !sample.at_end() && !negative; sample.next())
        negative = sample.figures().cts_offset < 0;
    BoxBody box(pass, to, "ctts");
    box.version_and_flags(negative ? 1 : 0, 0);
    box.u32(static_cast<uint32_t>(track->ctts_count));
    put_value_runs<iso_ctts_entry>(box, track,
                                   [](const SampleFigures& sample) { return sample.cts_offset; });
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kCttsTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- cto count %d\n",
               shown(track->own->counted_sizes[kCttsTable]), shown(size), track->ctts_count);
    }
    return size;
}

uint64_t write_stsz(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stsz");
    box.version_and_flags(0, 0);
    box.u32(track->sample_size);
    box.u32(static_cast<uint32_t>(track->sample_count));
    for (SampleWalk sample(track); !sample.at_end() && track->sample_size == 0; sample.next())
        put(box, sample.figures().size);
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kStszTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- sample size = %d sample count = %d\n",
               shown(track->own->counted_sizes[kStszTable]), shown(size), shown(track->sample_size),
               track->sample_count);
    }
    return size;
}

uint64_t write_stss(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stss");
    box.version_and_flags(0, 0);
    box.u32(track->sync_count);
    for (const uint32_t sample : std::span(track->sync_samples, track->sync_count))
        put(box, sample);
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kStssTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- sample count = %d\n",
               shown(track->own->counted_sizes[kStssTable]), shown(size), shown(track->sync_count));
    }
    return size;
}

uint64_t write_sbgp(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "sbgp");
    box.version_and_flags(0, 0);
    box.id(track->sgpd_type);
    box.u32(track->sbgp_count);
    for (const iso_sbgp_entry* entry = track->sbgp_list; entry != nullptr; entry = entry->next)
        put(box, *entry);
    const uint64_t size = box.finish();
    if (!passes_agree(pass, track, kSbgpTable, size)) {
        remark(track->file, "Pass1 1 %d Pass 2 %d --- sbgp count %d\n",
               shown(track->own->counted_sizes[kSbgpTable]), shown(size), shown(track->sbgp_count));
    }
    return size;
}

uint64_t write_stbl(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "stbl");
    box.child(write_stts, track);
    box.child(write_stsd, track);
    if (has_cts_offsets(track)) box.child(write_ctts, track);
    box.child(write_stsz, track);
    box.child(write_stsc, track);
    box.child(write_stco, track);
    if (track->sync_samples != nullptr) box.child(write_stss, track);
    // Groups of no type could not be distinguished from others.
    const bool has_groups = track->sgpd_type[0] != '\0';
    if (has_groups && track->sbgp_list != nullptr) box.child(write_sbgp, track);
    if (has_groups && track->sgpd_list != nullptr) box.child(write_sgpd, track);
    if (track->own->copied != nullptr) {
        for (const std::span<const uint8_t>& group : track->own->copied->groups)
            box.child(write_copied, &group);
    }
    return box.finish();
}

}  // namespace kestrel
