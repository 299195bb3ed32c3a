// SPDX-License-Identifier: Apache-2.0
// The RTP packets of a hint track, in order.
#ifndef KESTREL_TOOLS_HINT_PACKETS_H
#define KESTREL_TOOLS_HINT_PACKETS_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "tools/judge/facts.h"
#include "tools/judge/hint_use.h"

namespace tool {

class HintPackets {
  public:
    // `media`: the track that it hints, null for one that is not there. The facts must outlive the
    // reader. One reader for a hint track at a time.
    HintPackets(const FileFacts& facts, iso_track* hint, iso_track* media);
    HintPackets(const HintPackets&) = delete;
    HintPackets& operator=(const HintPackets&) = delete;
    ~HintPackets() { hint_->hint = nullptr; }

    const iso_track* track() const { return hint_; }
    iso_track* track() { return hint_; }
    // Null for a track that holds all its payload itself.
    const iso_track* media() const { return media_; }
    iso_track* media() { return media_; }

    // Returns the next packet, valid until the next call; empty at the end and if the hint track
    // is damaged. Memory is held from the first packet to the end.
    std::span<const uint8_t> next();
    // Returns the hint sample (from 0) of the last packet.
    int32_t sample() const { return sample_; }
    // The packets so far, and, of a track read from its first hint sample to its last, the hint
    // samples without any.
    uint64_t made() const { return made_; }
    uint64_t empty_samples() const;
    // The packets so far whose headers of RFC 2190 are damaged.
    uint64_t spoilt() const { return spoilt_; }
    // The first hint sample that is damaged or cannot be read, from 1; 0 for none so far.
    int32_t damaged_sample() const { return damaged_sample_; }
    // Moves to the first packet of a hint sample.
    void go_to(int32_t sample);

    // The hint samples since the last go_to() that have no packets though their media samples have
    // bytes. Hint samples that are fewer or more than the media samples may be empty.
    uint64_t skipped_media() const { return skipped_media_; }

    // Whether it has packets of a medium but names no track.
    bool names_no_media();
    // Whether its packets take about as long as the samples of the medium.
    bool is_paced_as_media() const;
    // Compares the packets with the media that they are of, as far as it gets until the deadline;
    // not with media that are cut. lack() then has what they leave out.
    void compare_with_media(Clock::time_point deadline);
    // Whether that found samples or bytes that are left out, or others in their place.
    bool lacks_media() const { return !use_.is_whole(); }

    // After the last packet: what was left out, and the next step, if any, without full stops.
    struct Lack {
        std::string what, step;
    };
    Lack lack() const;
    // Both as one text; empty where nothing was left out.
    std::string lacks() const;

  private:
    std::string name() const;
    bool is_cut() const;
    Lack lack_after_damage(uint64_t samples) const;
    Lack lack_in_packets() const;
    // Whether a hint sample takes bytes of a media track that is not there.
    bool takes_from_nowhere(int32_t sample);
    // Counts hint samples without packets, up to the one before `end`.
    void skip_to(int32_t end);

    const FileFacts& facts_;
    iso_track* hint_;
    iso_track* media_;
    rtp_hint_state cursor_{};
    std::vector<uint8_t> buffer_;  // of a packet
    uint64_t made_ = 0;
    uint64_t spoilt_ = 0;
    uint64_t filled_samples_ = 0;
    uint64_t skipped_media_ = 0;
    HintUse use_;
    int32_t begin_ = 0;  // the first hint sample that is neither read nor skipped
    int32_t sample_ = 0;
    int32_t damaged_sample_ = 0;  // from 1; 0 for none
    bool unreadable_ = false;     // the stream failed
    bool too_long_ = false;       // for a datagram
    bool lacks_track_ = false;    // its media track
};

constexpr auto kMaxLooking = std::chrono::seconds(3);  // at the packets of a file

using HintTracks = std::vector<std::unique_ptr<HintPackets>>;

// Whether a hint track declares the timescales without which packets have no times.
bool has_clock(const iso_track* hint);

// Readers of these hint tracks.
HintTracks read_hint_tracks(const FileFacts& facts, std::span<iso_track* const> hints);

// Returns what all of them left out, separated by semicolons, and each next step once.
std::string lacks_of(const HintTracks& tracks);

// Returns for how many media samples there were no packets; empty for none.
std::string missing_media(const HintTracks& tracks);

}  // namespace tool

#endif
