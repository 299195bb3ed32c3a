// SPDX-License-Identifier: Apache-2.0
#include "tools/send/sender.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "native/codec/rtp_header.h"
#include "tools/report/markup.h"

namespace tool {
namespace {

using kestrel::RtpLayout;

constexpr double kClockWrap = 4294967296.0;  // 2^32

// The wall clock in the form of sender reports.
uint64_t ntp_now() {
    constexpr uint64_t kSecondsTo1970 = 2208988800;  // from 1900
    using std::chrono::nanoseconds;
    const auto now = std::chrono::duration_cast<nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    constexpr uint64_t kNanoseconds = 1000000000;
    const auto count = static_cast<uint64_t>(now.count());
    return (count / kNanoseconds + kSecondsTo1970) << 32 |
           ((count % kNanoseconds) << 32) / kNanoseconds;
}

}  // namespace

// --- a track ---

SentTrack::SentTrack(HintPackets& packets, const UdpAddress& to, uint16_t port,
                     std::random_device& random)
    : hints_(packets),
      timed_(packets.media() != nullptr ? packets.media() : packets.track()),
      offset_(presentation_offset(timed_)),
      rtp_(to, port),
      rtcp_(to, static_cast<uint16_t>(port + 1)),
      ssrc_(random()),
      first_timestamp_(random()),
      sequence_(static_cast<uint16_t>(random())),
      times_(packets.track()),
      entries_(packets.track()) {}

double SentTrack::end() const {
    SampleTimes times(hints_.track());
    times.advance_to(hints_.track()->sample_count);
    return offset_ + times.seconds();
}

double SentTrack::sync_time_before(double seconds) const {
    return tool::sync_time_before(timed_, seconds);
}

void SentTrack::begin(double seconds) {
    times_ = SampleTimes(hints_.track());
    times_.advance_to_time(seconds - offset_);
    hints_.go_to(times_.sample());
    sample_ = -1;
    make_next();
}

void SentTrack::make_next() {
    const std::span<const uint8_t> made = hints_.next();
    packet_.assign(made.begin(), made.end());
    if (packet_.empty()) return;
    if (sample_ != hints_.sample()) {
        sample_ = hints_.sample();
        times_.advance_to(sample_);
        entries_.begin_sample(sample_);
    }
    const double clock = std::max(hints_.track()->rtp_timescale, 1U);
    const PacketTimes times = entries_.next();
    const double at = times_.seconds();
    // Sending does not stop for a packet of a wrong time.
    constexpr double kFurthest = kFurthestPacket;
    due_ =
        offset_ + at + std::clamp(static_cast<double>(times.sent) / clock, -kFurthest, kFurthest);
    shown_ = offset_ + at + static_cast<double>(times.shown) / clock;
}

// The RTP clock is first_timestamp_ at the beginning of the presentation.
uint32_t SentTrack::rtp_time(double seconds) const {
    const double units = std::round(seconds * std::max(hints_.track()->rtp_timescale, 1U));
    return first_timestamp_ +
           static_cast<uint32_t>(static_cast<int64_t>(std::fmod(units, kClockWrap)));
}

void SentTrack::send(double shift) {
    kestrel::store_be16(&packet_[RtpLayout::kSequence], sequence_++);
    kestrel::store_be32(&packet_[RtpLayout::kTime], rtp_time(shown_ + shift));
    kestrel::store_be32(&packet_[RtpLayout::kSsrc], ssrc_);
    rtp_.send(packet_);
    ++sent_packets_;
    sent_octets_ += packet_.size() - kestrel::kRtpHeaderSize;
    make_next();
}

void SentTrack::report(double now, const std::string& canonical_name, Leaving leaving) {
    SenderReport report;
    report.ssrc = ssrc_;
    report.ntp_time = ntp_now();
    report.rtp_time = rtp_time(now);
    report.packets = static_cast<uint32_t>(sent_packets_);
    report.octets = static_cast<uint32_t>(sent_octets_);
    rtcp_.send(make_rtcp(report, canonical_name, leaving));
}

// --- all tracks ---

Pace::Pace(double rate)
    : interval_(
          std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / rate))),
      at_once_(static_cast<int>(std::clamp(rate / 10, 1.0, 1000.0))) {}

Pace::Clock::time_point Pace::admit(Clock::time_point now) {
    const Clock::time_point at = std::max(now, next_ - at_once_ * interval_);
    next_ = std::max(now, next_) + interval_;
    return at;
}

Sender::Sender(HintTracks& tracks, const UdpAddress& to, uint16_t first_port,
               const Options& options)
    : hints_(tracks), options_(options), pace_(options.max_rate) {
    constexpr uint32_t kPortsOfTrack = 2;
    uint32_t port = first_port;
    for (const auto& track : tracks) {
        if (port >= UINT16_MAX)
            throw Error("--to: the tracks need ports beyond 65535", kWrongUsage);
        tracks_.push_back(
            std::make_unique<SentTrack>(*track, to, static_cast<uint16_t>(port), random_));
        port += kPortsOfTrack;
    }
    // RFC 7022, 4.2: a short-term persistent name.
    std::array<uint8_t, 12> name{};
    std::generate(name.begin(), name.end(), [&] { return static_cast<uint8_t>(random_()); });
    canonical_name_ = hex(name);

    from_ = options.from;
    for (const auto& track : tracks_) {
        from_ = std::min(from_, track->sync_time_before(options.from));
        end_ = std::max(end_, track->end());
    }
    if (options.from > 0 && options.from >= end_)
        throw Error(format("--from is after the end, which is at %.0f ms", end_ * 1000));
    if (options.loop && end_ <= from_) throw Error("--loop: the media take no time");
    constexpr double kShortestRound = 0.1;  // seconds
    // What is due first may be a sample that began before, as where an edit list starts inside it.
    constexpr double kLongestBefore = 1;  // seconds
    start_position_ = from_;
    begin_tracks();
    if (const SentTrack* first = earliest())
        start_position_ = std::clamp(first->due(), from_ - kLongestBefore, from_);
    round_ = std::max(end_ - start_position_, kShortestRound);
}

void Sender::begin_tracks() {
    for (const auto& track : tracks_)
        track->begin(from_);
}

Sender::Clock::time_point Sender::time_of(double position) const {
    constexpr double kLongest = 1e9;  // seconds
    const std::chrono::duration<double> after(
        std::clamp((position - start_position_) / options_.speed, -kLongest, kLongest));
    return start_ + std::chrono::duration_cast<Clock::duration>(after);
}

double Sender::position_now() const {
    const std::chrono::duration<double> passed = Clock::now() - start_;
    return start_position_ + passed.count() * options_.speed;
}

// About every five seconds, at random, so that senders are not synchronised (RFC 3550, 6.2).
void Sender::report(Leaving leaving) {
    for (const auto& track : tracks_)
        track->report(position_now(), canonical_name_, leaving);
    constexpr double kInterval = 5.0, kLeast = 0.5;
    const double spread = static_cast<double>(random_()) / std::random_device::max();
    next_report_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(kInterval * (kLeast + spread)));
}

// Sends reports while waiting. Returns false when a signal arrived.
bool Sender::wait_until(double position) {
    const Clock::time_point moment = time_of(position);
    while (next_report_ < moment) {
        if (!signals_.sleep_until(next_report_)) return false;
        report(Leaving::kNo);
    }
    if (!signals_.sleep_until(moment)) return false;
    progress_.show_seconds(position - shift_ - start_position_, end_ - start_position_, "sent");
    return true;
}

SentTrack* Sender::earliest() {
    SentTrack* first = nullptr;
    for (const auto& track : tracks_) {
        if (track->has_packet() && (first == nullptr || track->due() < first->due()))
            first = track.get();
    }
    return first;
}

bool Sender::send_round() {
    begin_tracks();
    while (SentTrack* track = earliest()) {
        if (!wait_until(track->due() + shift_)) return false;
        if (!signals_.sleep_until(pace_.admit(Clock::now()))) return false;
        track->send(shift_);
        note_refusal();
    }
    return wait_until((options_.loop ? start_position_ + round_ : end_) + shift_);
}

int Sender::run() {
    start_ = Clock::now();
    report(Leaving::kNo);
    while (send_round() && options_.loop && lacks_of(hints_).empty())
        shift_ += round_;
    // A receiver that reads RTCP first would end before it has read the last packets.
    constexpr auto kMomentToRead = std::chrono::milliseconds(500);
    signals_.sleep_until(Clock::now() + kMomentToRead);  // not after a signal
    report(Leaving::kYes);
    progress_.clear();
    return signals_.received();
}

void Sender::note_refusal() {
    if (refusal_noted_ || refused() == 0) return;
    refusal_noted_ = true;
    progress_.clear();
    options_.on_refusal();
}

uint64_t Sender::refused() const {
    uint64_t all = 0;
    for (const auto& track : tracks_)
        all += track->refused();
    return all;
}

uint64_t Sender::packets() const {
    uint64_t all = 0;
    for (const auto& track : tracks_)
        all += track->packets();
    return all;
}

}  // namespace tool
