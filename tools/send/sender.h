// SPDX-License-Identifier: Apache-2.0
// Sends the packets of hint tracks in real time (RFC 3550).
#ifndef KESTREL_TOOLS_SEND_SENDER_H
#define KESTREL_TOOLS_SEND_SENDER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tools/hint_packets.h"
#include "tools/send/hint_times.h"
#include "tools/send/rtcp.h"
#include "tools/send/stop_signals.h"
#include "tools/send/udp.h"

namespace tool {

// A hint track that is sent to one pair of ports: RTP to the even one, RTCP to the odd one.
class SentTrack {
  public:
    SentTrack(HintPackets& packets, const UdpAddress& to, uint16_t port,
              std::random_device& random);

    // Presentation times, in seconds.
    double end() const;
    double sync_time_before(double seconds) const;

    // Moves to the packets of a presentation time.
    void begin(double seconds);
    // The next packet, if any, and its time.
    bool has_packet() const { return !packet_.empty(); }
    double due() const { return due_; }
    // Sends the packet and makes the next one. `shift` is added to the times in the packets.
    void send(double shift);

    // Sends a report. `now` is the presentation time of the wall clock, shift included.
    void report(double now, const std::string& canonical_name, Leaving leaving);

    uint64_t refused() const { return rtp_.refused(); }
    uint64_t packets() const { return sent_packets_; }

  private:
    void make_next();
    uint32_t rtp_time(double seconds) const;

    HintPackets& hints_;
    const iso_track* timed_;  // whose edit list holds: the medium, or the hint track alone
    double offset_;           // presentation time of the first sample
    UdpSocket rtp_, rtcp_;
    uint32_t ssrc_, first_timestamp_;
    uint16_t sequence_;
    uint64_t sent_packets_ = 0, sent_octets_ = 0;

    SampleTimes times_;
    PacketEntries entries_;
    int32_t sample_ = -1;  // of the last packet
    std::vector<uint8_t> packet_;
    double due_ = 0, shown_ = 0;
};

// Spreads packets out that a file has due at once, or all the time: no more go than streams have.
class Pace {
  public:
    using Clock = std::chrono::steady_clock;

    // At most `rate` packets a second, and some at once.
    explicit Pace(double rate);
    // Counts a packet in. Returns when it may go.
    Clock::time_point admit(Clock::time_point now);

  private:
    Clock::duration interval_;  // of packets
    int at_once_;               // such as those of a large picture
    Clock::time_point next_;    // where all that went had kept to it
};

class Sender {
  public:
    struct Options {
        double from = 0;  // seconds
        double speed = 1;
        bool loop = false;
        double max_rate = 0;                       // packets a second
        std::function<void()> on_refusal = [] {};  // called for the first refused datagram
    };

    // The tracks must outlive the sender. Throws Error when a track has no port left.
    Sender(HintTracks& tracks, const UdpAddress& to, uint16_t first_port, const Options& options);

    // Returns after all was sent, or the signal that stopped it; 0 for none. Throws Error.
    int run();

    // Datagrams that were refused, and all datagrams.
    uint64_t refused() const;
    uint64_t packets() const;

  private:
    using Clock = Pace::Clock;

    void begin_tracks();
    bool send_round();
    void note_refusal();
    SentTrack* earliest();
    bool wait_until(double position);
    Clock::time_point time_of(double position) const;
    double position_now() const;
    void report(Leaving leaving);

    HintTracks& hints_;
    Options options_;
    std::random_device random_;
    std::string canonical_name_;
    std::vector<std::unique_ptr<SentTrack>> tracks_;
    // Presentation times: what is sent begins and ends there; and where the clock starts.
    double from_ = 0, end_ = 0;
    double start_position_ = 0;
    double round_ = 0;  // duration of one round
    double shift_ = 0;  // of the rounds before
    Clock::time_point start_;
    Clock::time_point next_report_;
    Pace pace_;
    bool refusal_noted_ = false;
    StopSignals signals_;
    Progress progress_;
};

}  // namespace tool

#endif
