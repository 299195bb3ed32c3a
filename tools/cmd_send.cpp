// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "companion/probe/reasons.h"
#include "kestrel/hinter.h"
#include "native/codec/payload_types.h"
#include "native/codec/rtp_header.h"
#include "tools/capture.h"
#include "tools/commands.h"
#include "tools/hint_packets.h"
#include "tools/judge/fix.h"
#include "tools/judge/media_check.h"
#include "tools/send/sender.h"
#include "tools/session_description.h"
#include "tools/temporary_file.h"
#include "tools/whole_output.h"

// The packets of a file's hint tracks over UDP, as a streaming server sends them.

namespace tool {
namespace {

using kestrel::kRtpHeaderSize;

constexpr auto kMaxSeconds = std::chrono::seconds(60);  // for what the tables declare
constexpr uint64_t kMostLookedAt = 100000;              // packets of a track

struct Options {
    std::string input;
    std::string to;
    std::string description;
    uint32_t from = 0;  // milliseconds
    double speed = 1;
    bool loop = false;
    std::optional<uint32_t> max_rate;  // packets a second

    double packets_per_second() const {
        constexpr double kUsual = 10000;  // 100 Mbit/s of the packets that a hinter makes
        return max_rate ? *max_rate : kUsual * std::max(speed, 1.0);
    }
};

// A file with hint tracks that can be sent: the input, or a copy that was hinted.
struct Source {
    Descriptor copy;
    Host host;
    FileFacts facts;
};

std::vector<iso_track*> hint_tracks(const FileFacts& facts) {
    std::vector<iso_track*> tracks;
    for (iso_track* track = facts.file->first_track; track != nullptr; track = track->next) {
        if (is_hint(track)) tracks.push_back(track);
    }
    return tracks;
}

// Whether the headers of some packets are damaged. Only packets of RFC 2190 are looked at.
bool has_spoilt_packets(HintPackets& track, Clock::time_point deadline) {
    while (track.spoilt() == 0 && track.made() < kMostLookedAt && Clock::now() < deadline) {
        const auto packet = track.next();
        if (packet.size() <= kRtpHeaderSize ||
            kestrel::load_rtp_header(packet.data()).payload_type != kestrel::kRfc2190PayloadType) {
            return false;
        }
    }
    return track.spoilt() > 0;
}

// Whether packets lack samples, have bytes of others, or come at other times than they.
bool leaves_media_out(HintPackets& track, Clock::time_point deadline) {
    track.compare_with_media(deadline);
    return track.lacks_media() || track.names_no_media() || !track.is_paced_as_media();
}

// Whether hinting anew reports samples that are no media, or refuses them.
bool has_implausible_media(HintPackets& track, Clock::time_point deadline) {
    return track.media() != nullptr && implausible_samples(track.media(), deadline).any();
}

void refuse_many(const std::vector<iso_track*>& hints, const std::string& input) {
    if (hints.size() <= kMaxCapturedTracks) return;
    throw file_error(input, std::to_string(hints.size()) +
                                " hint tracks; the most that are sent is " +
                                std::to_string(kMaxCapturedTracks));
}

// Whether receivers get all that they need: times, and a description.
bool is_complete(const iso_track* hint) {
    return has_clock(hint) && has_described_clock(hint) && is_described(hint);
}

// Looks until a deadline: what comes after it counts as good.
bool can_be_sent(const FileFacts& facts, const std::string& input) {
    const std::vector<iso_track*> hints = hint_tracks(facts);
    if (hints.empty() || !std::all_of(hints.begin(), hints.end(), is_complete)) return false;
    refuse_many(hints, input);
    // Damage may hide other hint tracks: hinting anew reports it.
    if (!import_refusal(facts, Clock::now() + kPatience).empty()) return false;
    const HintTracks tracks = read_hint_tracks(facts, hints);
    const auto deadline = Clock::now() + kMaxLooking;
    const auto none = [&](auto is_fault) {
        return std::none_of(tracks.begin(), tracks.end(), is_fault);
    };
    return none([&](const auto& track) { return leaves_media_out(*track, deadline); }) &&
           none([&](const auto& track) { return has_implausible_media(*track, deadline); }) &&
           none([&](const auto& track) { return has_spoilt_packets(*track, deadline); });
}

// Hints the file into a temporary one, without the tracks that cannot be sent.
Source hint_anew(const Source& from, const std::string& input) {
    Source made;
    made.copy = temporary_file();
    if (!made.copy) throw system_error("temporary file");
    DescriptorStream to(made.copy.get());
    kst_hint_options options{};
    options.struct_size = sizeof options;
    options.flags = KST_HINT_REPLACE | KST_HINT_DROP_OTHERS;
    Progress progress;
    options.progress = Progress::show_hinting;
    options.progress_context = &progress;
    kst_hint_report report{};
    report.struct_size = sizeof report;
    kst_host_rewind(from.host.get());
    const int result = kst_hint(kst_host_callbacks(from.host.get()), to.table(), &options, &report);
    progress.clear();
    if (result == KST_HINT_NO_MEMORY) throw std::bad_alloc();
    if (result == KST_HINT_DESTINATION_FAILED) throw file_error("temporary file", report.error);
    if (result != KST_HINT_DONE)
        throw hint_error(from.host.get(), input, report.error, "'kestrel hint --salvage'",
                         options.flags);
    to.finish();
    if (report.left_out[0] != '\0') say(input_name(input) + ": " + report.left_out);
    made.host = open_temporary(made.copy);
    if (made.host == nullptr) throw system_error("temporary file");
    made.facts = gather_facts(made.host.get(), Clock::now() + kMaxSeconds);
    return made;
}

Source open_source(const std::string& input) {
    Source source;
    source.host = open_host(input);
    source.facts = gather_facts(source.host.get(), Clock::now() + kMaxSeconds);
    if (!source.facts.scan.is_3gp()) throw no_media_file(input, source.facts.scan.file_size);
    return can_be_sent(source.facts, input) ? std::move(source) : hint_anew(source, input);
}

void write_description(const Options& options, const UdpAddress& to, uint16_t first_port,
                       const HintTracks& tracks) {
    if (options.description.empty()) return;
    const SessionAddress address{to.own_description(), to.connection(), first_port,
                                 std::random_device()()};
    const std::string name = std::filesystem::path(input_name(options.input)).filename().string();
    const std::string text = describe_session(name, address, tracks);
    WholeOutput output(options.description, options.input);
    output.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    output.finish();
}

// Empty when all packets were received, as far as the system reports.
std::string refused_text(const Options& options, const Sender& sender) {
    if (sender.refused() == 0) return "";
    if (sender.refused() > sender.packets() / 2) {
        return printable(options.to) + ": nobody listened: " + std::to_string(sender.refused()) +
               " of " + std::to_string(sender.packets()) + " packets were refused";
    }
    return printable(options.to) + ": nobody listened to " + std::to_string(sender.refused()) +
           " of " + std::to_string(sender.packets()) + " packets";
}

// Ends by the signal that stopped the sending, so that a script stops as well.
void end_by(int signal) {
    finish_standard_output();
    expect_exit();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void send(const Options& options) {
    const Receiver receiver = parse_receiver(options.to);
    if (receiver.port % 2 != 0)
        throw Error("--to needs an even port; RTCP goes to the odd one after it", kWrongUsage);
    Source source = open_source(options.input);
    const std::vector<iso_track*> hints = hint_tracks(source.facts);
    refuse_many(hints, options.input);
    HintTracks tracks = read_hint_tracks(source.facts, hints);
    const UdpAddress to(receiver.host);
    constexpr double kMilliseconds = 1000;
    Sender::Options how{options.from / kMilliseconds, options.speed, options.loop,
                        options.packets_per_second()};
    if (options.loop) {
        how.on_refusal = [&] {
            say(options.to + ": nobody listens; sending goes on until Ctrl-C");
        };
    }
    Sender sender(tracks, to, receiver.port, how);
    write_description(options, to, receiver.port, tracks);
    const int signal = sender.run();
    const std::string refused = refused_text(options, sender);
    if (signal != 0 && !options.loop) end_by(signal);
    std::string lacks = lacks_of(tracks);
    if (const std::string missing = missing_media(tracks); lacks.empty() && !missing.empty())
        lacks = missing + "; 'kestrel info' looks for a fix";
    if (!lacks.empty() && refused.empty()) throw file_error(options.input, lacks);
    if (!lacks.empty()) say(input_name(options.input) + ": " + lacks);
    if (!refused.empty()) throw Error(refused);
}

}  // namespace

void add_send(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("send", "Send a 3GP file as RTP over UDP, in real time");
    add_input(command, "FILE", options->input, "3GP file; - is standard input");
    command
        ->add_option("--to", options->to,
                     "Where to send: the first track to PORT, which is even, its RTCP to the\n"
                     "port after it, and so on with two ports a track")
        ->option_text("HOST:PORT")
        ->required();
    add_output(command, "--sdp", options->description, "Write the session description for a player")
        ->type_name("OUT");
    command
        ->add_option("--from", options->from,
                     "Begin at the last sync sample at or before this time, in milliseconds")
        ->type_name("MS")
        ->transform(as_decimal);
    command->add_option("--speed", options->speed, "Send X times as fast: from 0.01 to 1000")
        ->option_text("X")
        ->check(CLI::Range(0.01, 1000.0))
        ->check([](const std::string& text) {  // the range lets it pass
            const bool is_number = !std::isnan(std::strtod(text.c_str(), nullptr));
            return is_number ? "" : "'" + text + "' is not a number from 0.01 to 1000";
        });
    command
        ->add_option("--max-rate", options->max_rate,
                     "Send at most this many packets a second, a tenth of them at once; without\n"
                     "the option 10000, and as many times more as --speed is faster")
        ->type_name("PACKETS")
        ->transform(as_decimal)
        ->check(CLI::Range(uint32_t{1}, uint32_t{1000000}));
    command->add_flag("--loop", options->loop, "Begin again at the end, until Ctrl-C");
    command->footer(
        "Sends the packets of the hint tracks of FILE. If it has none, or one that receivers\n"
        "cannot decode, the packets are made anew.");
    command->callback([options] { send(*options); });
}

}  // namespace tool
