// SPDX-License-Identifier: Apache-2.0
// stsd: the sample entries of a track.
#include <map>
#include <string>

#include "companion/importer/parts.h"
#include "companion/importer/sample_entry.h"

namespace kestrel::importer {

namespace {

// Remarks on a handler that the sample entry contradicts, and takes that of the entry.
void correct_handler(Import& import, std::uint32_t entry, Track& track) {
    const std::uint32_t handler = handler_of(entry, track.handler);
    if (handler == track.handler) return;
    import.note("track " + std::to_string(track.id) + " has the handler type '" +
                type_text(track.handler) + "', and samples of '" + type_text(entry) +
                "': it is taken as '" + type_text(handler) + "'");
    track.handler = handler;
}

}  // namespace

bool read_sample_entries(Import& import, const Box& stsd, Track& track, TrackImport& state) {
    BoxReader reader(import.source, stsd);
    const VersionAndFlags head(reader);
    reader.skip(4);  // number of entries
    // Version 1 of the box marks an AudioSampleEntryV1, which has the length of version 0.
    const bool quicktime_versions = import.movie.quicktime || head.version == 0;
    std::map<std::string, std::uint32_t> known;  // by configuration
    for (Box box; reader.next(box);) {
        if (!check_child(import, stsd.type, box)) return false;
        if (state.entries.empty()) correct_handler(import, box.type, track);
        SampleEntry entry;
        if (!read_entry(import, box, track.handler, quicktime_versions, entry)) return false;
        const auto next = static_cast<std::uint32_t>(track.descriptions.size());
        const Bytes bytes = configuration(import.source, entry);
        const auto [at, is_new] = known.try_emplace(std::string(bytes.begin(), bytes.end()), next);
        state.entries.push_back({at->second, entry.data_reference});
        if (!is_new) continue;
        track.encrypted |= is_encrypted(import.source, entry);
        track.descriptions.push_back(iso_description(import, entry));
        if (next == 0) state.packing = entry.packing;
        track.several_descriptions |= next > 0;
        import.movie.quicktime |= entry.quicktime_sound;
    }
    return import.whole(reader, stsd);
}

}  // namespace kestrel::importer
