#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "common/bytes.h"
#include "tools/commands.h"
#include "tools/pcap.h"
#include "tools/support.h"
#include "tools/judge/media_tracks.h"

// The RTP packets of the hint tracks: as lines, or as a capture with a session description.

namespace tool {
namespace {

constexpr uint32_t kLongestPacket = 65000;  // what fits a UDP datagram with room to spare

struct Options {
    std::string input;
    std::string pcap;
    std::optional<uint32_t> track;
    bool hex = false;
};

iso_track* track_with_id(const iso_file* file, uint32_t id) {
    iso_track* track = file->first_track;
    while (track != nullptr && track->track_id != id)
        track = track->next;
    return track;
}

// Takes the packets of one hint track in order.
class PacketTaker {
  public:
    PacketTaker() = default;
    PacketTaker(const PacketTaker&) = delete;
    PacketTaker& operator=(const PacketTaker&) = delete;
    virtual ~PacketTaker() = default;

    virtual void begin_track(const iso_track* hint, const iso_track* media) = 0;
    virtual void packet(const iso_track* hint, std::span<const uint8_t> packet) = 0;
};

class LinePrinter final : public PacketTaker {
  public:
    explicit LinePrinter(bool hex) : hex_(hex) {
        if (isatty(STDOUT_FILENO)) {
            std::printf("# track bytes marker type sequence timestamp%s\n", hex ? " packet" : "");
        }
    }

    void begin_track(const iso_track*, const iso_track*) override {}

    void packet(const iso_track* hint, std::span<const uint8_t> packet) override {
        std::printf("%u %zu %d %d %u %u", hint->track_id, packet.size(), packet[1] >> 7,
                    packet[1] & 0x7F, kestrel::load_be16(&packet[2]),
                    kestrel::load_be32(&packet[4]));
        if (hex_) {
            std::putchar(' ');
            for (const uint8_t byte : packet)
                std::printf("%02x", byte);
        }
        std::putchar('\n');
    }

  private:
    bool hex_;
};

// The media part of a session description (RFC 8866) for a hint track, sent to `port`. The file's
// own text is used where there is one.
std::string describe_media(const iso_track* hint, const iso_track* media, uint16_t port) {
    std::istringstream lines(hint->sdp_text != nullptr ? hint->sdp_text : "");
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.starts_with("a=control") || line.empty()) continue;
        std::istringstream words(line);
        std::string kind, number, rest;
        if (line.starts_with("m=") && words >> kind >> number && std::getline(words, rest)) {
            line = kind + " " + std::to_string(port) + rest;
        }
        out += line + "\r\n";
    }
    if (!out.empty()) return out;
    const bool audio = media != nullptr && std::string(media->handler) == "soun";
    return std::string(audio ? "m=audio " : "m=video ") + std::to_string(port) + " RTP/AVP 96\r\n";
}

// Keeps all packets, and writes capture and description when all tracks have been read.
class Capture final : public PacketTaker {
  public:
    void begin_track(const iso_track* hint, const iso_track* media) override {
        port_ = static_cast<uint16_t>(kFirstCapturePort + 2 * tracks_++);
        description_ += describe_media(hint, media, port_);
        first_time_.reset();
    }

    void packet(const iso_track* hint, std::span<const uint8_t> packet) override {
        const uint32_t time = kestrel::load_be32(&packet[4]);
        if (!first_time_) first_time_ = time;
        const double scale = hint->rtp_timescale == 0 ? 1.0 : hint->rtp_timescale;
        packets_.push_back({(time - *first_time_) / scale, port_, {packet.begin(), packet.end()}});
    }

    void write(const std::string& path, const std::string& input) {
        std::stable_sort(packets_.begin(), packets_.end(),
                         [](const auto& a, const auto& b) { return a.seconds < b.seconds; });
        Output capture(path, input);
        PcapWriter writer(capture);
        for (const Kept& kept : packets_)
            writer.packet(kept.bytes, kept.port, kept.seconds);
        capture.finish();

        const std::string text = "v=0\r\no=- 0 0 IN IP4 " + std::string(kCaptureAddress) +
                                 "\r\ns=" + std::filesystem::path(input).filename().string() +
                                 "\r\nc=IN IP4 " + kCaptureAddress + "\r\nt=0 0\r\n" + description_;
        Output description(std::filesystem::path(path).replace_extension("sdp"), input);
        description.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
        description.finish();
    }

  private:
    struct Kept {
        double seconds;
        uint16_t port;
        std::vector<uint8_t> bytes;
    };

    int tracks_ = 0;
    uint16_t port_ = 0;
    std::optional<uint32_t> first_time_;
    std::vector<Kept> packets_;
    std::string description_;
};

void take_track(const iso_file* file, iso_track* hint, const Options& options, PacketTaker& taker) {
    const std::string name = options.input + ": hint track " + std::to_string(hint->track_id);
    iso_track* media = track_with_id(file, hint->hint_track_ref);
    if (hint->rtp_max_packet > kLongestPacket) {
        throw Error(name + " tells packets of " + std::to_string(hint->rtp_max_packet) + " bytes");
    }
    // A hint track that holds all its payload itself refers to no other.
    rtp_hint_state cursor{};
    cursor.media_track = media != nullptr ? media : hint;
    hint->hint = &cursor;
    taker.begin_track(hint, media);
    std::vector<uint8_t> buffer(hint->rtp_max_packet);
    int length;
    while ((length = isoFFrtpPacket(hint, buffer.data())) > 0)
        taker.packet(hint, std::span(buffer).first(static_cast<size_t>(length)));
    hint->hint = nullptr;
    if (length < 0) {
        finish_standard_output();
        throw Error(name + (length == -2 ? ": the file cannot be read" : ": damaged hint sample"));
    }
}

void take_packets(const Options& options, PacketTaker& taker) {
    Host host = open_host(options.input);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
    const IsoFile file = open_iso(host.get(), callbacks);
    int taken = 0;
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        const bool wanted = !options.track || *options.track == track->track_id;
        if (!is_hint(track) || !wanted) continue;
        take_track(file.get(), track, options, taker);
        ++taken;
    }
    if (taken > 0) return;
    throw Error(options.input +
                (options.track ? ": no hint track with this ID" : ": no hint track"));
}

void packets(const Options& options) {
    if (options.pcap.empty()) {
        LinePrinter printer(options.hex);
        take_packets(options, printer);
    } else {
        Capture capture;
        take_packets(options, capture);
        capture.write(options.pcap, options.input);
    }
}

}  // namespace

void add_packets(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("packets", "List the RTP packets of the hint tracks");
    command->add_option("FILE", options->input, "3GP file; - is standard input")->required();
    command->add_option("--track", options->track, "Only the hint track with this track ID")
        ->type_name("ID");
    CLI::Option* hex =
        command->add_flag("--hex", options->hex, "Show each packet in hex, as the last column");
    command
        ->add_option("--pcap", options->pcap,
                     "Write a capture that a network analyser opens, and a session description\n"
                     "beside it, with the ending .sdp")
        ->type_name("OUT")
        ->excludes(hex);
    command->footer(
        "One line a packet: hint track ID, bytes, marker, payload type, sequence number,\n"
        "timestamp.");
    command->callback([options] {
        if (options->pcap == "-") throw Error("--pcap needs a file", kWrongUsage);
        packets(*options);
    });
}

}  // namespace tool
