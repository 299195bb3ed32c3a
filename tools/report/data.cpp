// SPDX-License-Identifier: Apache-2.0
#include "tools/report/data.h"

#include <algorithm>
#include <cmath>

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

// The columns of a track. Each takes as many samples as any other, and begins and ends with them.
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

void gather_samples(TrackFigures& figures) {
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
    TimeWalk times(track);
    SyncWalk syncs(track);
    double time = 0, last_sync = 0, gap = 0, bytes = 0;
    uint32_t duration = 0, before = 0;
    for (uint32_t i = 0; i < samples; ++i) {
        const uint32_t size = size_of(track, i);
        before = duration;
        duration = times.next();
        figures.sizes.add(size);
        bytes += size;
        if (i % columns.together() == 0) figures.edges.push_back(to_seconds(track, time));
        figures.rate[columns.of(i)] += size;
        if (syncs.next()) {
            ++figures.sync_count;
            ++figures.syncs[columns.of(i)];
            gap = std::max(gap, time - last_sync);
            last_sync = time;
        }
        time += duration;
    }
    figures.seconds = to_seconds(track, time);
    // The last sample is often declared shorter than it is.
    const double cut_off = to_seconds(track, before > duration ? before - duration : 0);
    figures.edges.push_back(figures.seconds + cut_off);
    figures.longest_gap = to_seconds(track, std::max(gap, time - last_sync));
    if (figures.seconds <= 0) {
        figures.rate.clear();
        return;
    }
    for (size_t i = 0; i < columns.count(); ++i) {
        const double seconds = figures.edges[i + 1] - figures.edges[i];
        figures.rate[i] = seconds > 0 ? figures.rate[i] * 8 / seconds : 0;
        figures.peak_rate = std::max(figures.peak_rate, figures.rate[i]);
    }
    figures.average_rate = bytes * 8 / (figures.seconds + cut_off);
}

// Takes the packets of a hint track one after the other, and to which sample each belongs.
void gather_packets(TrackFigures& figures, iso_track* hint, iso_track* media, uint32_t file_size) {
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
    while (sample < samples && hint_bytes <= kMaxHintBytes && packet_bytes <= kMaxPacketBytes) {
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

void map_columns(TrackFigures& figures, uint32_t file_size) {
    const double width = std::max(file_size / static_cast<double>(kMapColumns), 1.0);
    const auto column = [&](double at) {
        return std::min(static_cast<size_t>(at / width), kMapColumns - 1);
    };
    std::vector<double> bytes(kMapColumns + 1, 0.0);
    std::vector<double> through(kMapColumns + 1, 0.0);  // chunks that cover a column: differences
    std::vector<uint32_t> begun(kMapColumns, 0);
    for (int32_t i = 0; i < figures.track->chunk_count; ++i) {
        const iso_chunk& chunk = figures.track->chunks[i];
        const uint32_t end = std::min(chunk.end, file_size);
        if (chunk.start >= end) continue;
        const size_t first = column(chunk.start);
        const size_t last = column(end - 1.0);
        ++begun[first];
        if (first == last) {
            bytes[first] += end - chunk.start;
            continue;
        }
        bytes[first] += static_cast<double>(first + 1) * width - chunk.start;
        bytes[last] += end - static_cast<double>(last) * width;
        through[first + 1] += 1;
        through[last] -= 1;
    }
    double covering = 0;
    for (size_t i = 0; i < kMapColumns; ++i) {
        covering += through[i];
        const double share = std::min(bytes[i] / width + covering, 1.0);
        if (share <= 0) continue;
        const double from = static_cast<double>(i) * width;
        const double level = std::max(std::round(share * 5) / 5, 0.2);
        const bool goes_on = !figures.map.empty() && figures.map.back().to == from &&
                             figures.map.back().share == level;
        if (!goes_on) figures.map.push_back({from, from, 0, level});
        figures.map.back().to = std::min(static_cast<double>(i + 1) * width, double(file_size));
        figures.map.back().chunks += begun[i];
    }
}

iso_track* track_with_id(const iso_file* file, uint32_t id) {
    iso_track* track = file->first_track;
    while (track != nullptr && (track->track_id != id || is_hint(track)))
        track = track->next;
    return track;
}

void gather_track(ReportData& data, iso_track* track) {
    TrackFigures figures;
    figures.track = track;
    gather_samples(figures);
    const uint32_t file_size = data.facts.scan.file_size;
    figures.outside = outside_file(track, file_size);
    if (static_cast<size_t>(std::max(track->chunk_count, 0)) <= kMaxChunksShown) {
        map_each_chunk(figures, file_size);
    } else {
        map_columns(figures, file_size);
    }
    if (is_hint(track)) {
        gather_packets(figures, track, track_with_id(data.facts.file.get(), track->hint_track_ref),
                       file_size);
    }
    data.seconds = std::max(data.seconds, figures.seconds);
    data.tracks.push_back(std::move(figures));
}

// If data is missing, packets cannot be made; that is reported once.
void tell_problems(ReportData& data) {
    const auto report = [&](const TrackFigures& figures, const std::string& what) {
        const iso_track* track = figures.track;
        data.problems.push_back(
            format("Track %u (%s): ", track->track_id, codec_name(track->codec)) + what);
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
    for (iso_track* track = data.facts.file->first_track; track != nullptr; track = track->next) {
        (is_hint(track) ? data.hint_bytes : data.media_bytes) += track->total_bytes;
        if (data.tracks.size() < kMaxTracks) {
            gather_track(data, track);
        } else {
            ++data.tracks_left_out;
        }
    }
    tell_problems(data);
    data.verdicts = Judge(data.facts, deadline).judge_all();
    return data;
}

}  // namespace tool
