// SPDX-License-Identifier: Apache-2.0
// The figures of a report: all that a page shows, reduced to a few hundred columns for any file.
#ifndef KESTREL_TOOLS_REPORT_DATA_H
#define KESTREL_TOOLS_REPORT_DATA_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/judge/facts.h"
#include "tools/judge/verdict.h"
#include "tools/support.h"

namespace tool {

inline constexpr size_t kMapColumns = 480;   // of the file's bytes
inline constexpr size_t kTimeColumns = 150;  // of a track's time
inline constexpr size_t kMaxChunksShown = 150;
inline constexpr size_t kMaxTracks = 12;
inline constexpr size_t kMaxEdits = 12;

// A range of the file with data of a track.
struct MapPiece {
    double from = 0, to = 0;  // bytes
    uint32_t chunks = 0;
    double share = 1;  // of the bytes there
};

// The values of one column of time.
struct Range {
    uint32_t count = 0, least = 0, most = 0;
    uint64_t sum = 0;

    void add(uint32_t value);
    double mean() const { return count == 0 ? 0.0 : static_cast<double>(sum) / count; }
};

struct PacketFigures {
    uint32_t packets = 0;
    Range sizes;      // bytes, RTP header included
    Range per_frame;  // packets of a hint sample
    std::vector<Range> size_by_time;
    std::vector<Range> frame_by_time;
    std::string damage;    // where the hint samples are malformed
    bool complete = true;  // false where there were too many to look at
};

struct TrackFigures {
    const iso_track* track = nullptr;
    double seconds = 0;           // sum of the samples' durations
    uint64_t samples = 0;         // looked at
    bool complete = true;         // false where there were too many to look at
    Range sizes;                  // bytes of a sample
    double average_rate = 0;      // bits per second
    double peak_rate = 0;         // of a column
    std::vector<double> edges;    // of the columns, seconds; one more than there are columns
    uint32_t together = 1;        // samples in a column
    std::vector<double> rate;     // bits per second, a column each
    std::vector<uint32_t> syncs;  // how many sync samples, a column each
    std::vector<uint32_t> lost;   // how many samples that end past the file, a column each
    uint32_t sync_count = 0;
    bool has_sync_table = false;
    double longest_gap = 0;  // seconds from a sync sample to the next, or to the end
    std::vector<MapPiece> map;
    Outside outside;
    PacketFigures packets;  // of a hint track
};

struct ReportData {
    std::string input;
    FileFacts facts;
    double seconds = 0;  // of the longest track
    std::vector<TrackFigures> tracks;
    size_t tracks_left_out = 0;
    uint64_t media_bytes = 0, hint_bytes = 0;  // as the tables declare
    std::vector<Verdict> verdicts;             // all four
    std::vector<std::string> problems;         // of the tracks, a sentence each
};

// Judges until `deadline`. The host must outlive the figures.
ReportData gather(kst_host* host, const std::string& input, Clock::time_point deadline);

}  // namespace tool

#endif
