// SPDX-License-Identifier: Apache-2.0
#include "tools/capture.h"

#include <algorithm>
#include <optional>
#include <queue>
#include <sstream>
#include <string_view>

#include "common/bytes.h"
#include "tools/text.h"

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

// --- description ---

// Of the lines that a media description may have, those of a file that hold for a capture: its
// addresses and ports are ours.
bool is_media_attribute(std::string_view line) {
    constexpr std::string_view kTypes = "iba";
    return line.size() > 2 && line[1] == '=' && kTypes.find(line[0]) != std::string_view::npos &&
           !line.starts_with("a=control");
}

// "m=video 5004 RTP/AVP 96" with another port; empty for another line.
std::string with_port(const std::string& line, uint16_t port) {
    std::istringstream words(line);
    std::string kind, number, rest;
    const bool is_media =
        line.starts_with("m=") && words >> kind >> number && std::getline(words, rest);
    return is_media ? kind + " " + std::to_string(port) + rest : "";
}

// The file's own text is used where there is one.
std::string describe_media(const HintPackets& track, uint16_t port) {
    const char* text = track.track()->sdp_text;
    std::istringstream lines(text != nullptr ? text : "");
    std::string media, attributes;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (media.empty()) media = with_port(line, port);
        if (is_media_attribute(line)) attributes += printable(line) + "\r\n";
    }
    if (!media.empty()) return printable(media) + "\r\n" + attributes;
    const bool audio = track.media() != nullptr && std::string(track.media()->handler) == "soun";
    return std::string(audio ? "m=audio " : "m=video ") + std::to_string(port) + " RTP/AVP 96\r\n";
}

}  // namespace

std::optional<uint64_t> write_capture(std::vector<std::unique_ptr<HintPackets>>& tracks,
                                      uint64_t limit, Output& output) {
    std::priority_queue<Head, std::vector<Head>, std::greater<>> heads;
    std::vector<PacketClock> clocks;
    const auto take_next = [&](size_t track) {
        const auto packet = tracks[track]->next();
        if (packet.empty()) return;
        heads.push({clocks[track].seconds(kestrel::load_be32(&packet[4])), track, packet});
    };
    for (size_t track = 0; track < tracks.size(); ++track) {
        clocks.emplace_back(tracks[track]->track()->rtp_timescale);
        take_next(track);
    }
    PcapWriter writer(output);
    uint64_t written = 0;
    for (; !heads.empty(); ++written) {
        const Head head = heads.top();
        heads.pop();
        if (output.written() + PcapWriter::size_of(head.packet) > limit) return std::nullopt;
        writer.packet(head.packet, port_of(head.track), head.seconds);
        take_next(head.track);
    }
    return written;
}

std::string describe_session(const std::string& name,
                             const std::vector<std::unique_ptr<HintPackets>>& tracks) {
    const std::string address = std::string("IN IP4 ") + kCaptureAddress;
    std::string text = "v=0\r\no=- 0 0 " + address + "\r\ns=" + printable(name) +
                       "\r\nc=" + address + "\r\nt=0 0\r\n";
    for (size_t track = 0; track < tracks.size(); ++track)
        text += describe_media(*tracks[track], port_of(track));
    return text;
}

}  // namespace tool
