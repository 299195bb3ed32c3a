// SPDX-License-Identifier: Apache-2.0
#include "tools/hint_packets.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "companion/probe/hint_constructors.h"
#include "companion/probe/media_tracks.h"
#include "companion/probe/reasons.h"
#include "interface/src/isoff/record/private.h"
#include "kestrel/hinter.h"
#include "native/codec/payload_types.h"
#include "native/codec/rtp_header.h"
#include "native/stream/depacketise.h"
#include "tools/judge/track_samples.h"
#include "tools/report/markup.h"
#include "tools/session_description.h"

namespace tool {
namespace {

constexpr uint32_t kLongestDeclared = KST_HINT_LONGEST_PACKET;
constexpr const char* kNewHints = "'kestrel hint --replace' makes new ones";
constexpr int kLongestPacket = 65507;  // that a UDP datagram over IPv4 holds (RFC 768, RFC 791)

// Of all samples of a track, by its time table.
double seconds_of(const iso_track* track) {
    double units = 0;
    for (const iso_stts_entry& entry :
         std::span(track->stts, static_cast<size_t>(track->stts_count)))
        units += static_cast<double>(entry.count) * entry.delta;
    return units / track->timescale;
}

bool is_spoilt(std::span<const uint8_t> packet) {
    return packet.size() > kestrel::kRtpHeaderSize &&
           kestrel::load_rtp_header(packet.data()).payload_type == kestrel::kRfc2190PayloadType &&
           kestrel::stream::is_spoilt_rfc2190(packet.subspan(kestrel::kRtpHeaderSize));
}

}  // namespace

HintPackets::HintPackets(const FileFacts& facts, iso_track* hint, iso_track* media)
    : facts_(facts), hint_(hint), media_(media) {
    cursor_.media_track = media_ != nullptr ? media_ : hint_;
    hint_->hint = &cursor_;
}

std::span<const uint8_t> HintPackets::next() {
    if (hint_->rtp_max_packet > kLongestDeclared || damaged_sample_ > 0) return {};
    buffer_.resize(hint_->rtp_max_packet);
    // The packets of another hint track may be made of samples of this one, which moves its cursor.
    const bool at_end = cursor_.sample >= hint_->sample_count;
    if (!at_end && hint_->cur_sample != cursor_.sample) isoFFsetPosition(hint_, cursor_.sample);
    const bool in_sample = cursor_.packets_left > 0;
    if (in_sample) sample_ = cursor_.sample;
    int length = isoFFrtpPacket(hint_, buffer_.data());
    too_long_ = length > kLongestPacket;
    if (too_long_) length = -1;
    if (length < 0) {
        damaged_sample_ = cursor_.sample + 1;
        unreadable_ = length == -2;
        lacks_track_ = cursor_.sample < hint_->sample_count && takes_from_nowhere(cursor_.sample);
    }
    if (length <= 0) {
        if (damaged_sample_ == 0) skip_to(hint_->sample_count);
        std::vector<uint8_t>().swap(buffer_);
        return {};
    }
    // The last packet of a hint sample moves the cursor to the next one.
    if (!in_sample) {
        sample_ = cursor_.packets_left > 0 ? cursor_.sample : cursor_.sample - 1;
        ++filled_samples_;
        if (takes_from_nowhere(sample_)) {
            lacks_track_ = true;
            damaged_sample_ = sample_ + 1;
            return {};
        }
        skip_to(sample_);
        begin_ = sample_ + 1;
    }
    ++made_;
    const auto packet = std::span(std::as_const(buffer_)).first(static_cast<size_t>(length));
    spoilt_ += is_spoilt(packet) ? 1 : 0;
    return packet;
}

bool HintPackets::names_no_media() {
    return media_ == nullptr && hint_->hint_track_ref == 0 && hint_->sample_count > 0 &&
           takes_from_nowhere(0);
}

bool HintPackets::is_paced_as_media() const {
    constexpr double kMost = 0.1, kMostSeconds = 1;  // of the duration, and more
    if (media_ == nullptr || hint_->timescale == 0 || media_->timescale == 0) return true;
    const double own = seconds_of(hint_), wanted = seconds_of(media_);
    return wanted == 0 || std::abs(own - wanted) <= kMost * wanted + kMostSeconds;
}

void HintPackets::compare_with_media(Clock::time_point deadline) {
    if (media_ == nullptr || Clock::now() > deadline || is_cut()) return;
    use_ = use_of(hint_, media_, kestrel::probe::Api::kFunction, {}, deadline);
}

bool HintPackets::takes_from_nowhere(int32_t sample) {
    if (media_ != nullptr) return false;
    bool found = false;
    std::vector<uint8_t> bytes;
    kestrel::probe::for_each_sample_constructor(
        read_sample(hint_, static_cast<uint32_t>(sample), bytes), [&](const auto& constructor) {
            found = found || constructor.track_reference != kestrel::kHintTrackItself;
        });
    return found;
}

uint64_t HintPackets::empty_samples() const {
    const auto samples = static_cast<uint64_t>(std::max(hint_->sample_count, 0));
    return damaged_sample_ > 0 ? 0 : samples - std::min(filled_samples_, samples);
}

void HintPackets::skip_to(int32_t end) {
    const bool is_one_each = media_ != nullptr && media_->sample_count == hint_->sample_count;
    for (; begin_ < end; ++begin_) {
        const auto sample = static_cast<uint32_t>(begin_);
        skipped_media_ += is_one_each && sample_size_of(media_, sample) > 0 ? 1 : 0;
    }
}

void HintPackets::go_to(int32_t sample) {
    begin_ = sample;
    skipped_media_ = 0;
    isoFFsetPosition(hint_, sample);
    cursor_.sample = sample;
    cursor_.packets_left = 0;
    hint_->own->hint_work = {};
}

std::string HintPackets::name() const {
    return "hint track " + std::to_string(hint_->track_id);
}

// Whether samples of the hint track or of its medium lie after the end of the file.
bool HintPackets::is_cut() const {
    const uint32_t size = facts_.scan.file_size;
    return !is_whole(hint_, size) || (media_ != nullptr && !is_whole(media_, size));
}

HintPackets::Lack HintPackets::lack_after_damage(uint64_t samples) const {
    const std::string sample =
        "hint sample " + std::to_string(damaged_sample_) + " of " + std::to_string(samples);
    const std::string left_out = "its packets and all after them are left out";
    if (lacks_track_ && hint_->hint_track_ref == 0) {
        return {name() + ": it names no track that it hints (tref); the packets of " + sample +
                    " and all after them are left out",
                kNewHints};
    }
    if (lacks_track_) {
        return {name() + ": track " + std::to_string(hint_->hint_track_ref) +
                    ", which it hints, is not in the file; the packets of " + sample +
                    " and all after them are left out",
                "get the file again"};
    }
    if (unreadable_) return {name() + ": " + sample + " cannot be read; " + left_out, ""};
    if (media_ != nullptr && lost_sizes(facts_, media_) > 0)
        return {name() + ": " + sample + " is damaged; " + left_out, "get the file again"};
    if (too_long_ || !is_cut()) {
        const char* what =
            too_long_ ? " has a packet longer than a UDP datagram holds; " : " is damaged; ";
        return {name() + ": " + sample + what + left_out, kNewHints};
    }
    const std::string missing = missing_bytes(facts_.scan);
    const std::string cut =
        name() + ": the packets of " + sample + " and all after them are left out";
    if (missing.empty()) return {cut, "the file ends before its tracks do: get the whole file"};
    return {cut, "the file is cut: " + missing +
                     "; 'kestrel hint --replace --salvage' keeps what is whole of it"};
}

HintPackets::Lack HintPackets::lack_in_packets() const {
    std::string what;
    const auto add = [&](const std::string& text) { what += (what.empty() ? "" : ", ") + text; };
    if (use_.wrong() > 0) {
        add(std::to_string(use_.wrong()) + " of " + counted(samples_of(hint_), "hint sample") +
            (use_.wrong() == 1 ? " leaves out media or takes" : " leave out media or take") +
            " wrong bytes, the first is number " + std::to_string(use_.first_wrong()));
    }
    if (use_.mistimed > 0) {
        add(std::to_string(use_.mistimed) + " of " + counted(samples_of(hint_), "hint sample") +
            (use_.mistimed == 1 ? " has" : " have") + " a packet more than " +
            std::to_string(kFurthestPacket) +
            " s from the time of the sample, the first is number " +
            std::to_string(use_.first_mistimed));
    }
    if (use_.unused > 0) {
        add("no packets for " + std::to_string(use_.unused) + " of " +
            counted(samples_of(media_), "sample"));
    }
    if (!has_clock(hint_)) {
        add(std::string("all timestamps are the same, as it declares ") +
            (hint_->timescale == 0 ? "a timescale of 0 (mdhd)" : "no RTP timescale (tims)"));
    }
    if (has_clock(hint_) && !has_described_clock(hint_)) {
        add("timestamps of " + std::to_string(hint_->rtp_timescale) +
            " a second (tims), which is not the clock of its description");
    }
    if (has_clock(hint_) && !is_paced_as_media()) {
        add(format("the packets take %.3f s, but the samples %.3f s", seconds_of(hint_),
                   seconds_of(media_)));
    }
    if (what.empty()) return {};
    // kst_hint refuses a timescale of 0.
    return {name() + ": " + what, hint_->timescale == 0 ? "" : kNewHints};
}

HintPackets::Lack HintPackets::lack() const {
    if (hint_->rtp_max_packet > kLongestDeclared) {
        return {name() + " declares packets of " + std::to_string(hint_->rtp_max_packet) +
                    " bytes; the most is " + std::to_string(kLongestDeclared),
                ""};
    }
    const Expected expected = expected_of(hint_, facts_.imported_track(hint_));
    if (const uint64_t lost = lost_sizes(facts_, hint_); lost > 0) {
        return {name() + ": " + std::to_string(lost) + " of " +
                    std::to_string(lost + expected.samples) +
                    (lost == 1 ? " hint samples has" : " hint samples have") + " no size (stsz)",
                kNewHints};
    }
    if (damaged_sample_ > 0) return lack_after_damage(expected.samples);
    const auto read = static_cast<uint64_t>(std::max(hint_->sample_count, 0));
    if (expected.samples > read) {
        return {name() + ": " + std::to_string(expected.samples - read) + " of " +
                    std::to_string(expected.samples) + " hint samples are left out, as " +
                    (expected.in_fragments > 0 ? "they are in movie fragments"
                                               : "its tables do not agree on them"),
                ""};
    }
    return made_ == 0 ? Lack{name() + " has no packets", ""} : lack_in_packets();
}

std::string HintPackets::lacks() const {
    const Lack all = lack();
    return all.what + (all.step.empty() ? "" : "; " + all.step);
}

bool has_clock(const iso_track* hint) {
    return hint->timescale > 0 && hint->rtp_timescale > 0;
}

HintTracks read_hint_tracks(const FileFacts& facts, std::span<iso_track* const> hints) {
    std::map<uint32_t, iso_track*> with_id;  // of tracks with the same one, the first
    for (iso_track* track = facts.file->first_track; track != nullptr; track = track->next)
        with_id.emplace(track->track_id, track);
    HintTracks tracks;
    for (iso_track* hint : hints) {
        const auto media = with_id.find(hint->hint_track_ref);
        tracks.push_back(std::make_unique<HintPackets>(
            facts, hint, media == with_id.end() ? nullptr : media->second));
    }
    return tracks;
}

std::string lacks_of(const HintTracks& tracks) {
    std::string all, steps;
    for (const auto& track : tracks) {
        const HintPackets::Lack lack = track->lack();
        if (lack.what.empty()) continue;
        all += (all.empty() ? "" : "; ") + lack.what;
        if (!lack.step.empty() && steps.find(lack.step) == std::string::npos)
            steps += "; " + lack.step;
    }
    return all + steps;
}

std::string missing_media(const HintTracks& tracks) {
    std::string all;
    for (const auto& track : tracks) {
        if (track->skipped_media() == 0) continue;
        all += (all.empty() ? "" : "; ") + std::string("hint track ") +
               std::to_string(track->track()->track_id) + ": no packets for " +
               std::to_string(track->skipped_media()) + " of " +
               counted(static_cast<uint64_t>(track->track()->sample_count), "sample");
    }
    return all;
}

}  // namespace tool
