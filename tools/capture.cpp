// SPDX-License-Identifier: Apache-2.0
#include "tools/capture.h"

#include <algorithm>
#include <optional>
#include <queue>

#include "native/codec/rtp_header.h"

namespace tool {
namespace {

uint16_t port_of(size_t track) {
    return static_cast<uint16_t>(kFirstCapturePort + 2 * track);
}

// --- packets ---

// Seconds since the first packet of a track, from RTP timestamps, which wrap.
class PacketClock {
  public:
    explicit PacketClock(uint32_t timescale) : scale_(timescale == 0 ? 1.0 : timescale) {}

    double seconds(uint32_t timestamp) {
        ticks_ += static_cast<int32_t>(timestamp - last_.value_or(timestamp));
        last_ = timestamp;
        latest_ = std::max(latest_, ticks_);
        return static_cast<double>(latest_) / scale_;
    }

  private:
    double scale_;
    std::optional<uint32_t> last_;
    int64_t ticks_ = 0;
    int64_t latest_ = 0;
};

// The next packet of a track.
struct Head {
    double seconds;
    size_t track;
    std::span<const uint8_t> packet;

    bool operator>(const Head& other) const {
        return seconds != other.seconds ? seconds > other.seconds : track > other.track;
    }
};

}  // namespace

std::optional<uint64_t> write_capture(HintTracks& tracks, uint64_t limit, Output& output) {
    std::priority_queue<Head, std::vector<Head>, std::greater<>> heads;
    std::vector<PacketClock> clocks;
    const auto take_next = [&](size_t track) {
        const auto packet = tracks[track]->next();
        if (packet.empty()) return;
        heads.push(
            {clocks[track].seconds(kestrel::load_rtp_header(packet.data()).time), track, packet});
    };
    for (size_t track = 0; track < tracks.size(); ++track) {
        clocks.emplace_back(tracks[track]->track()->rtp_timescale);
        take_next(track);
    }
    PcapWriter writer(output);
    Progress progress;
    uint64_t written = 0;
    for (; !heads.empty(); ++written) {
        const Head head = heads.top();
        heads.pop();
        if (output.written() + PcapWriter::size_of(head.packet) > limit) return std::nullopt;
        writer.packet(head.packet, port_of(head.track), head.seconds);
        take_next(head.track);
        progress.show_count(written, "packets");
    }
    return written;
}

SessionAddress capture_address() {
    const std::string address = std::string("IN IP4 ") + kCaptureAddress;
    return {address, address, kFirstCapturePort};
}

}  // namespace tool
