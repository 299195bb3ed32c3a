#include <unistd.h>

#include "common/bytes.h"
#include "tools/commands.h"
#include "tools/support.h"

// The RTP packets of the hint tracks.

namespace tool {
namespace {

constexpr uint32_t kLongestPacket = 65535;

struct Options {
    std::string input;
    std::optional<uint32_t> track;
    bool hex = false;
};

void print_packet(const iso_track* hint, std::span<const uint8_t> packet, bool hex) {
    std::printf("%u %zu %d %d %u %u", hint->track_id, packet.size(), packet[1] >> 7,
                packet[1] & 0x7F, kestrel::load_be16(&packet[2]), kestrel::load_be32(&packet[4]));
    if (hex) {
        std::putchar(' ');
        for (const uint8_t byte : packet)
            std::printf("%02x", byte);
    }
    std::putchar('\n');
}

iso_track* track_with_id(iso_file* file, uint32_t id) {
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (track->track_id == id) return track;
    }
    return nullptr;
}

bool is_hint(const iso_track* track) {
    return track->codec == ISO_CODEC_RTP || track->codec == ISO_CODEC_SRTP;
}

void print_track(iso_file* file, iso_track* hint, const Options& options) {
    const std::string name = options.input + ": hint track " + std::to_string(hint->track_id);
    iso_track* media = track_with_id(file, hint->hint_track_ref);
    if (hint->rtp_max_packet > kLongestPacket) {
        throw Error(name + " tells packets of " + std::to_string(hint->rtp_max_packet) + " bytes");
    }
    // A hint track that holds all its payload itself refers to no other.
    rtp_hint_state cursor{};
    cursor.media_track = media != nullptr ? media : hint;
    hint->hint = &cursor;
    std::vector<uint8_t> buffer(hint->rtp_max_packet);
    int length;
    while ((length = isoFFrtpPacket(hint, buffer.data())) > 0)
        print_packet(hint, std::span(buffer).first(static_cast<size_t>(length)), options.hex);
    hint->hint = nullptr;
    if (length < 0) {
        std::fflush(stdout);
        throw Error(name + (length == -2 ? ": the file cannot be read" : ": damaged hint sample"));
    }
}

void packets(const Options& options) {
    Host host = open_host(options.input);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
    const IsoFile file = open_iso(host.get(), callbacks);
    if (isatty(STDOUT_FILENO)) std::printf("# track bytes marker type sequence timestamp\n");
    int printed = 0;
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        const bool wanted = !options.track || *options.track == track->track_id;
        if (!is_hint(track) || !wanted) continue;
        print_track(file.get(), track, options);
        ++printed;
    }
    if (printed > 0) return;
    throw Error(options.input +
                (options.track ? ": no hint track with this ID" : ": no hint track"));
}

}  // namespace

void add_packets(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("packets", "List the RTP packets of the hint tracks");
    command->add_option("FILE", options->input, "3GP file; - is standard input")->required();
    command->add_option("--track", options->track, "Only the hint track with this track ID");
    command->add_flag("--hex", options->hex, "Show each packet in hex, as the last column");
    command->footer(
        "One line a packet: hint track ID, bytes, marker, payload type, sequence number,\n"
        "timestamp.");
    command->callback([options] { packets(*options); });
}

}  // namespace tool
