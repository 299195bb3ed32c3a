// SPDX-License-Identifier: Apache-2.0
#include "tools/report/data.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <utility>

#include "tools/report/markup.h"

namespace tool {
namespace {

// A few bytes of tables can declare billions of samples.
constexpr uint32_t kMaxSamples = 1 << 23;     // of a track
constexpr uint64_t kMaxHintBytes = 64 << 20;  // of the hint samples of a track
constexpr uint64_t kMaxPacketBytes = 256 << 20;
constexpr uint32_t kLongestPacket = 65000;

uint32_t size_of(const iso_track* track, uint32_t sample) {
    return track->sample_size != 0 ? track->sample_size : track->sample_sizes[sample];
}

uint32_t samples_of(const iso_track* track) {
    return static_cast<uint32_t>(std::max(track->sample_count, 0));
}

// Durations in the order of the samples.
class TimeWalk {
  public:
    explicit TimeWalk(const iso_track* track) : track_(track) {}

    uint32_t next() {
        while (entry_ < track_->stts_count && used_ >= track_->stts[entry_].count) {
            ++entry_;
            used_ = 0;
        }
        if (entry_ >= track_->stts_count) return 0;
        ++used_;
        return track_->stts[entry_].delta;
    }

  private:
    const iso_track* track_;
    int32_t entry_ = 0;
    uint32_t used_ = 0;
};

// The columns of a track. All but the last have the same number of samples.
class Columns {
  public:
    explicit Columns(uint32_t samples) {
        const auto most = static_cast<uint32_t>(kTimeColumns);
        together_ = std::max((samples + most - 1) / most, uint32_t{1});
        count_ = std::max((samples + together_ - 1) / together_, uint32_t{1});
    }

    size_t count() const { return count_; }
    uint32_t together() const { return together_; }
    size_t of(uint32_t sample) const { return std::min<size_t>(sample / together_, count_ - 1); }

  private:
    uint32_t together_;
    size_t count_;
};

double to_seconds(const iso_track* track, double units) {
    return track->timescale == 0 ? 0.0 : units / track->timescale;
}

// Sync samples while the samples go by in order.
class SyncWalk {
  public:
    explicit SyncWalk(const iso_track* track)
        : numbers_(track->sync_samples, track->sync_samples + track->sync_count) {
        std::sort(numbers_.begin(), numbers_.end());
    }

    bool next() {
        ++sample_;
        while (at_ < numbers_.size() && numbers_[at_] < sample_)
            ++at_;
        return at_ < numbers_.size() && numbers_[at_] == sample_;
    }

  private:
    std::vector<uint32_t> numbers_;  // from 1
    size_t at_ = 0;
    uint32_t sample_ = 0;
};

// The longest of the gaps between sync samples, in ticks.
class SyncGaps {
  public:
    void end_at(double time) {
        longest_ = std::max(longest_, time - last_);
        last_ = time;
    }
    double longest() const { return longest_; }

  private:
    double last_ = 0;
    double longest_ = 0;
};

// Turns the bytes that each column has into bits per second.
void rates_of_bytes(TrackFigures& figures) {
    if (figures.seconds <= 0) {
        figures.rate.clear();
        return;
    }
    for (size_t i = 0; i < figures.rate.size(); ++i) {
        const double seconds = figures.edges[i + 1] - figures.edges[i];
        figures.rate[i] = seconds > 0 ? figures.rate[i] * 8 / seconds : 0;
        figures.peak_rate = std::max(figures.peak_rate, figures.rate[i]);
    }
    figures.average_rate = static_cast<double>(figures.sizes.sum) * 8 / figures.edges.back();
}

// Ends of the samples in the file while they go by in order.
class PlaceWalk {
  public:
    explicit PlaceWalk(const iso_track* track)
        : chunks_(track->chunks, static_cast<size_t>(std::max(track->chunk_count, 0))) {
        if (!chunks_.empty()) at_ = chunks_.front().start;
    }

    uint64_t next(uint32_t size) {
        while (chunk_ + 1 < chunks_.size() && at_ >= chunks_[chunk_].end)
            at_ = chunks_[++chunk_].start;
        return at_ += size;
    }

  private:
    std::span<const iso_chunk> chunks_;
    size_t chunk_ = 0;
    uint64_t at_ = 0;
};

void gather_samples(TrackFigures& figures, uint32_t file_size) {
    const iso_track* track = figures.track;
    const uint32_t samples = std::min(samples_of(track), kMaxSamples);
    figures.samples = samples;
    figures.complete = samples == samples_of(track);
    figures.has_sync_table = track->sync_count > 0;
    if (samples == 0) return;

    const Columns columns(samples);
    figures.together = columns.together();
    figures.rate.assign(columns.count(), 0.0);
    figures.syncs.assign(columns.count(), 0);
    figures.lost.assign(columns.count(), 0);
    TimeWalk durations(track);
    SyncWalk syncs(track);
    PlaceWalk places(track);
    SyncGaps gaps;
    double time = 0;
    uint32_t duration = 0, before = 0;
    for (uint32_t i = 0; i < samples; ++i) {
        if (i % columns.together() == 0) figures.edges.push_back(to_seconds(track, time));
        const uint32_t size = size_of(track, i);
        figures.sizes.add(size);
        if (places.next(size) > file_size) ++figures.lost[columns.of(i)];
        figures.rate[columns.of(i)] += size;
        if (syncs.next()) {
            ++figures.sync_count;
            ++figures.syncs[columns.of(i)];
            gaps.end_at(time);
        }
        before = std::exchange(duration, durations.next());
        time += duration;
    }
    gaps.end_at(time);
    figures.longest_gap = to_seconds(track, gaps.longest());
    figures.seconds = to_seconds(track, time);
    // The last sample is often declared shorter than it is.
    const double cut_off = to_seconds(track, before > duration ? before - duration : 0);
    figures.edges.push_back(figures.seconds + cut_off);
    rates_of_bytes(figures);
}

// Collects the packets of a hint track, each with its sample.
void gather_packets(TrackFigures& figures, iso_track* hint, iso_track* media, uint32_t file_size,
                    Clock::time_point deadline) {
    PacketFigures& out = figures.packets;
    if (hint->rtp_max_packet > kLongestPacket) {
        out.damage =
            "The track declares packets of " + show_count(hint->rtp_max_packet) + " bytes.";
        return;
    }
    const auto samples = static_cast<uint32_t>(figures.samples);
    const Columns columns(samples);
    out.size_by_time.assign(columns.count(), {});
    out.frame_by_time.assign(columns.count(), {});

    rtp_hint_state cursor{};
    cursor.media_track = media != nullptr ? media : hint;
    hint->hint = &cursor;
    std::vector<uint8_t> buffer(std::max(hint->rtp_max_packet, 1u));
    uint64_t hint_bytes = 0, packet_bytes = 0;
    uint32_t sample = 0, in_sample = 0;
    const auto column = [&] { return columns.of(sample); };
    const auto leave_sample = [&] {
        out.frame_by_time[column()].add(in_sample);
        out.per_frame.add(in_sample);
        hint_bytes += size_of(hint, sample);
        in_sample = 0;
        ++sample;
    };
    const auto lacks = [&](const iso_track* track) {
        return outside_file(track, file_size).chunks > 0;
    };
    int length = 0;
    while (sample < samples && hint_bytes <= kMaxHintBytes && packet_bytes <= kMaxPacketBytes &&
           Clock::now() < deadline) {
        length = isoFFrtpPacket(hint, buffer.data());
        if (length <= 0) break;
        // After the last packet of a sample the cursor stands on the next one.
        const bool last = cursor.packets_left == 0;
        const auto current = static_cast<uint32_t>(cursor.sample - (last ? 1 : 0));
        while (sample < std::min(current, samples - 1))
            leave_sample();  // had no packets
        ++in_sample;
        ++out.packets;
        packet_bytes += static_cast<uint32_t>(length);
        out.sizes.add(static_cast<uint32_t>(length));
        out.size_by_time[column()].add(static_cast<uint32_t>(length));
        if (last) leave_sample();
    }
    hint->hint = nullptr;
    if (length < 0) {
        out.damage =
            "Hint sample " + show_count(uint64_t{sample} + 1) + " of " + show_count(samples) +
            (length == -2 || lacks(hint)        ? " is not in the file."
             : media != nullptr && lacks(media) ? " refers to media that are not in the file."
                                                : " makes no packet.");
    }
    out.complete = length < 0 || sample >= samples || length == 0;
}

// --- where the chunks lie ---

void map_each_chunk(TrackFigures& figures, uint32_t file_size) {
    for (int32_t i = 0; i < figures.track->chunk_count; ++i) {
        const iso_chunk& chunk = figures.track->chunks[i];
        const uint32_t end = std::min(chunk.end, file_size);
        if (chunk.start < end) {
            figures.map.push_back({double(chunk.start), double(end), 1, 1.0});
        }
    }
}

// How much of each column of the file is covered by chunks.
class FileColumns {
  public:
    explicit FileColumns(uint32_t file_size)
        : width_(std::max(file_size / static_cast<double>(kMapColumns), 1.0)),
          file_size_(file_size) {}

    // Counts the bytes from `start` up to `end`, which lie in the file.
    void add(uint32_t start, uint32_t end) {
        const size_t first = column_of(start);
        const size_t last = column_of(end - 1.0);
        ++begun_[first];
        if (first == last) {
            bytes_[first] += end - start;
            return;
        }
        bytes_[first] += edge(first + 1) - start;
        bytes_[last] += end - edge(last);
        covering_[first + 1] += 1;
        covering_[last] -= 1;
    }

    // Returns the columns that have bytes, in steps of a fifth; joins neighbours of one step.
    std::vector<MapPiece> pieces() const {
        std::vector<MapPiece> pieces;
        double covering = 0;
        for (size_t i = 0; i < kMapColumns; ++i) {
            covering += covering_[i];
            const double share = std::min(bytes_[i] / width_ + covering, 1.0);
            if (share <= 0) continue;
            const double level = std::max(std::round(share * 5) / 5, 0.2);
            const bool goes_on =
                !pieces.empty() && pieces.back().to == edge(i) && pieces.back().share == level;
            if (!goes_on) pieces.push_back({edge(i), edge(i), 0, level});
            pieces.back().to = std::min(edge(i + 1), double(file_size_));
            pieces.back().chunks += begun_[i];
        }
        return pieces;
    }

  private:
    double edge(size_t column) const { return static_cast<double>(column) * width_; }
    size_t column_of(double at) const {
        return std::min(static_cast<size_t>(at / width_), kMapColumns - 1);
    }

    double width_;
    uint32_t file_size_;
    std::array<double, kMapColumns> bytes_{};     // of chunks that begin or end in the column
    std::array<double, kMapColumns> covering_{};  // change of the chunks that cover all of it
    std::array<uint32_t, kMapColumns> begun_{};
};

void map_columns(TrackFigures& figures, uint32_t file_size) {
    FileColumns columns(file_size);
    for (int32_t i = 0; i < figures.track->chunk_count; ++i) {
        const iso_chunk& chunk = figures.track->chunks[i];
        const uint32_t end = std::min(chunk.end, file_size);
        if (chunk.start < end) columns.add(chunk.start, end);
    }
    figures.map = columns.pieces();
}

iso_track* track_with_id(const iso_file* file, uint32_t id) {
    iso_track* track = file->first_track;
    while (track != nullptr && (track->track_id != id || is_hint(track)))
        track = track->next;
    return track;
}

void gather_track(ReportData& data, iso_track* track, Clock::time_point deadline) {
    TrackFigures figures;
    figures.track = track;
    const uint32_t file_size = data.facts.scan.file_size;
    gather_samples(figures, file_size);
    figures.outside = outside_file(track, file_size);
    if (static_cast<size_t>(std::max(track->chunk_count, 0)) <= kMaxChunksShown) {
        map_each_chunk(figures, file_size);
    } else {
        map_columns(figures, file_size);
    }
    if (is_hint(track)) {
        gather_packets(figures, track, track_with_id(data.facts.file.get(), track->hint_track_ref),
                       file_size, deadline);
    }
    data.seconds = std::max(data.seconds, figures.seconds);
    data.tracks.push_back(std::move(figures));
}

// Missing data makes packets impossible; that is reported once.
void report_problems(ReportData& data) {
    const auto report = [&](const TrackFigures& figures, const std::string& what) {
        const iso_track* track = figures.track;
        data.problems.push_back(format("Track %u (%s): ", track->track_id, codec_name(track)) +
                                what);
    };
    for (const TrackFigures& figures : data.tracks) {
        if (figures.outside.chunks == 0) continue;
        report(figures, show_count(figures.outside.chunks) + " of " +
                            show_count(static_cast<uint32_t>(figures.track->chunk_count)) +
                            " chunks lie past the end of the file; " +
                            show_bytes(figures.outside.bytes) + " are missing.");
    }
    if (!data.problems.empty()) return;
    for (const TrackFigures& figures : data.tracks) {
        if (!figures.packets.damage.empty()) report(figures, figures.packets.damage);
    }
}

}  // namespace

void Range::add(uint32_t value) {
    least = count == 0 ? value : std::min(least, value);
    most = std::max(most, value);
    sum += value;
    ++count;
}

ReportData gather(kst_host* host, const std::string& input, Clock::time_point deadline) {
    ReportData data;
    data.input = input;
    data.facts = gather_facts(host, deadline);
    const Clock::time_point now = Clock::now();
    const Clock::time_point packets_until = now + (deadline - now) / 2;  // the rest is for verdicts
    for (iso_track* track = data.facts.file->first_track; track != nullptr; track = track->next) {
        (is_hint(track) ? data.hint_bytes : data.media_bytes) += track->total_bytes;
        if (data.tracks.size() < kMaxTracks) {
            gather_track(data, track, packets_until);
        } else {
            ++data.tracks_left_out;
        }
    }
    report_problems(data);
    for (const ImportedTrack& track : data.facts.imported.tracks) {
        const Duration duration{track.duration, static_cast<uint32_t>(track.timescale)};
        data.seconds = std::max(data.seconds, duration.seconds());
    }
    data.verdicts = Judge(data.facts, deadline).judge_all();
    return data;
}

}  // namespace tool
