// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "companion/probe/media_tracks.h"
#include "companion/probe/reasons.h"
#include "native/codec/rtp_header.h"
#include "tools/capture.h"
#include "tools/commands.h"
#include "tools/json_printer.h"
#include "tools/judge/child_process.h"
#include "tools/judge/facts.h"
#include "tools/judge/fix.h"
#include "tools/judge/media_check.h"
#include "tools/session_description.h"
#include "tools/support.h"
#include "tools/whole_output.h"

// The RTP packets of the hint tracks: as lines, or as a capture with a session description.

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kMaxCaptured = 1 << 30;
constexpr auto kMaxSeconds = std::chrono::seconds(60);  // for what the tables declare

struct Options {
    std::string input;
    std::string pcap;
    std::optional<uint32_t> track;
    uint64_t limit = kMaxCaptured;
    bool hex = false;
    bool json = false;
};

// Whether a track is of a codec that can be hinted.
bool has_payload_format(const FileFacts& facts) {
    const auto has_format = [](int32_t codec) { return plays_codec(Api::kFunction, codec); };
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next)
        if (has_format(track->codec)) return true;
    const auto& tracks = facts.imported.tracks;
    return std::any_of(tracks.begin(), tracks.end(),
                       [&](const auto& track) { return has_format(track.codec); });
}

std::string why_no_hints(const FileFacts& facts, bool is_chosen) {
    if (std::string why = why_no_tracks(facts); !why.empty()) {
        why.pop_back();  // its full stop
        return why;
    }
    if (is_chosen) return "no hint track with this ID; 'kestrel info' lists the tracks";
    return has_payload_format(facts)
               ? "no hint track; 'kestrel hint' adds one"
               : "no hint track, and no AMR, H.263, MPEG-4 or H.264 track that could get one";
}

HintTracks wanted_tracks(const FileFacts& facts, const Options& options) {
    if (!facts.scan.is_3gp()) throw no_media_file(options.input, facts.scan.file_size);
    std::vector<iso_track*> hints;
    for (iso_track* track = facts.file->first_track; track != nullptr; track = track->next) {
        const bool wanted = !options.track || *options.track == track->track_id;
        if (is_hint(track) && wanted) hints.push_back(track);
    }
    if (!hints.empty()) return read_hint_tracks(facts, hints);
    throw file_error(options.input, why_no_hints(facts, options.track.has_value()));
}

// Looks what the packets leave out of their media.
void compare_with_media(HintTracks& tracks) {
    const auto deadline = Clock::now() + kMaxLooking;
    for (const auto& track : tracks)
        track->compare_with_media(deadline);
}

// Reports damaged headers, and hint samples without packets. Fails when packets or media are left
// out.
void check_tracks(const HintTracks& tracks, const std::string& input) {
    const auto report = [&](const HintPackets& track, uint64_t some, uint64_t all, const char* unit,
                            const char* text) {
        if (track.made() == 0 || some == 0) return;
        say(input_name(input) + ": hint track " + std::to_string(track.track()->track_id) + ": " +
            std::to_string(some) + " of " + counted(all, unit) + text);
    };
    for (const auto& track : tracks) {
        report(*track, track->spoilt(), track->made(), "packet",
               " with damaged headers (RFC 2190), which no receiver decodes; 'kestrel hint "
               "--replace' makes new ones");
        report(*track, track->empty_samples(), static_cast<uint64_t>(track->track()->sample_count),
               "hint sample", " without packets");
    }
    const std::string lacks = lacks_of(tracks);
    if (!lacks.empty()) throw file_error(input, lacks);
}

// Reports samples that are no media, once for each hinted track, and fails where most are none.
void check_media(const FileFacts& facts, HintTracks& tracks, const std::string& input) {
    const auto deadline = Clock::now() + kPatience;
    std::set<const iso_track*> seen;
    std::string no_media;
    for (const auto& track : tracks) {
        iso_track* media = track->media();
        if (media == nullptr || !seen.insert(media).second) continue;
        const auto implausible = implausible_samples(media, deadline);
        if (!implausible.any()) continue;
        const std::string text = implausible_text(facts, media, implausible);
        if (implausible.are_refused()) {
            no_media += (no_media.empty() ? "" : "; ") + text;
        } else {
            say(input_name(input) + ": " + text);
        }
    }
    if (!no_media.empty()) throw file_error(input, no_media);
}

// Fails where damage may hide hint tracks or a part of them.
void check_boxes(const FileFacts& facts, const std::string& input) {
    const std::string damage = import_refusal(facts, Clock::now() + kPatience);
    if (damage.empty()) return;
    throw file_error(input, damage + ": packets may be left out" + kestrel::stream::kGetAgainText);
}

void print_packet(uint32_t track, std::span<const uint8_t> packet, bool as_hex) {
    const kestrel::RtpHeader header = kestrel::load_rtp_header(packet.data());
    std::printf("%u %zu %d %d %u %u", track, packet.size(), int{header.marker},
                int{header.payload_type}, unsigned{header.sequence}, header.time);
    if (as_hex) std::printf(" %s", hex(packet).c_str());
    std::putchar('\n');
}

void print_packets(HintTracks& tracks, bool as_hex) {
    if (isatty(STDOUT_FILENO)) {
        std::printf("# track bytes marker type sequence timestamp%s\n", as_hex ? " packet" : "");
    }
    Progress progress(Progress::Beside::kLines);
    uint64_t count = 0;
    for (const auto& track : tracks) {
        for (auto packet = track->next(); !packet.empty(); packet = track->next()) {
            print_packet(track->track()->track_id, packet, as_hex);
            progress.show_count(++count, "packets");
        }
    }
    finish_standard_output();
}

void print_json(HintTracks& tracks, bool with_bytes) {
    JsonPrinter out;
    out.open("", '{');
    out.open("packets", '[');
    for (const auto& track : tracks) {
        for (auto packet = track->next(); !packet.empty(); packet = track->next()) {
            out.open("", '{');
            out.number("track_id", track->track()->track_id);
            out.number("bytes", static_cast<int64_t>(packet.size()));
            const kestrel::RtpHeader header = kestrel::load_rtp_header(packet.data());
            out.boolean("marker", header.marker);
            out.number("payload_type", header.payload_type);
            out.number("sequence_number", header.sequence);
            out.number("timestamp", header.time);
            if (with_bytes) out.text("packet", hex(packet));
            out.close();
        }
    }
    out.close();
    compare_with_media(tracks);
    out.open("tracks", '[');
    for (const auto& track : tracks) {
        out.open("", '{');
        out.number("track_id", track->track()->track_id);
        out.number("packet_count", static_cast<int64_t>(track->made()));
        out.number("hint_sample_count", track->track()->sample_count);
        out.number("empty_hint_sample_count", static_cast<int64_t>(track->empty_samples()));
        if (!track->lacks().empty()) out.text("lacks", track->lacks());
        out.close();
    }
    out.close();
    out.close();
    std::printf("\n");
    finish_standard_output();
}

// "clip.sdp" for "clip.pcap".
std::string description_path(const std::string& capture) {
    return fs::path(capture).replace_extension("sdp");
}

void capture_packets(HintTracks& tracks, const Options& options) {
    if (tracks.size() > kMaxCapturedTracks) {
        throw file_error(options.input, std::to_string(tracks.size()) +
                                            " hint tracks are too many for a capture; choose one "
                                            "with --track ID");
    }
    const std::string path = description_path(options.pcap);
    WholeOutput capture(options.pcap, options.input);
    const bool is_pipe = capture.place().there && S_ISFIFO(capture.place().there->st_mode);
    if (!capture.place().is_regular_or_new() && !is_pipe) {
        throw file_error(options.pcap, "is a device, beside which no session description belongs",
                         kWrongUsage);
    }
    WholeOutput description(path, options.input);
    if (is_same_place(capture.place(), description.place())) {
        throw file_error(options.pcap, "leads to the same file as " + path, kWrongUsage);
    }
    const std::optional<uint64_t> written = write_capture(tracks, options.limit, capture.output());
    if (!written) {
        throw file_error(options.pcap, "would be longer than " + std::to_string(options.limit) +
                                           " bytes; --limit BYTES allows more");
    }
    if (*written == 0) return;  // check_tracks says why
    for (const auto& track : tracks) {
        if (says_encoding(track->track())) continue;
        say(input_name(options.input) + ": hint track " + std::to_string(track->track()->track_id) +
            ": the file does not say which encoding the packets have, which a player needs; "
            "'kestrel hint --replace' writes it");
    }
    const std::string text =
        describe_session(fs::path(options.input).filename().string(), capture_address(), tracks);
    description.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    capture.finish();
    description.finish();
}

void packets(const Options& options) {
    Host host;
    FileFacts facts;
    HintTracks tracks;
    or_error_as_json(options.json, [&] {
        host = open_host(options.input);
        facts = gather_facts(host.get(), Clock::now() + kMaxSeconds);
        tracks = wanted_tracks(facts, options);
    });
    if (options.json) {
        print_json(tracks, options.hex);
    } else if (options.pcap.empty()) {
        print_packets(tracks, options.hex);
    } else {
        capture_packets(tracks, options);
    }
    if (!options.json) compare_with_media(tracks);
    check_tracks(tracks, options.input);
    check_media(facts, tracks, options.input);
    check_boxes(facts, options.input);
}

bool is_description_name(const std::string& path) {
    std::string ending = fs::path(path).extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    });
    return ending == ".sdp";
}

}  // namespace

void add_packets(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("packets", "List the RTP packets of the hint tracks");
    add_input(command, "FILE", options->input, "3GP file; - is standard input");
    command->add_option("--track", options->track, "Only the hint track with this track ID")
        ->type_name("ID")
        ->transform(as_decimal);
    CLI::Option* hex =
        command->add_flag("--hex", options->hex, "Show each packet in hex, as the last column");
    CLI::Option* json = command->add_flag("--json", options->json, "Print JSON");
    CLI::Option* pcap =
        add_output(command, "--pcap", options->pcap,
                   "Write a capture that a network analyser opens to a file, not to standard\n"
                   "output, and a session description beside it, with the ending .sdp")
            ->type_name("OUT")
            ->excludes(hex)
            ->excludes(json);
    command->add_option("--limit", options->limit, "With --pcap: longest capture, in bytes")
        ->type_name("BYTES")
        ->transform(as_decimal)
        ->capture_default_str()
        ->needs(pcap);
    command->footer(
        "One line a packet: hint track ID, bytes, marker, payload type, sequence number,\n"
        "timestamp.");
    command->callback([options] {
        if (options->pcap == "-")
            throw Error("--pcap needs the name of a file: a description is written beside it",
                        kWrongUsage);
        if (is_description_name(options->pcap)) {
            throw file_error(options->pcap,
                             "is the name of the description; give the capture another, such as " +
                                 fs::path(options->pcap).replace_extension("pcap").string(),
                             kWrongUsage);
        }
        packets(*options);
    });
}

}  // namespace tool
