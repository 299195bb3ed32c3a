// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "interface/src/isoff/record/private.h"
#include "tools/commands.h"
#include "tools/judge/verdict_json.h"
#include "tools/support.h"

// What a file holds, and what of it can be played.

namespace tool {
namespace {

struct Options {
    std::string input;
    bool json = false;
    TimeLimit time;
};

Json describe_track(iso_track* track) {
    int samples = 0;
    int bytes = 0;
    double duration = 0.0;
    isoFFtrackInfo(track, nullptr, &samples, &duration, &bytes);
    Json out{{"id", track->track_id},
             {"handler", track->handler},
             {"codec", codec_name(track->codec)},
             {"timescale", track->timescale},
             {"duration_seconds", duration},
             {"samples", samples},
             {"bytes", static_cast<uint32_t>(bytes)}};
    if (is_hint(track)) {
        out["hints_track"] = track->hint_track_ref;
        out["rtp_timescale"] = track->rtp_timescale;
        out["longest_packet"] = track->rtp_max_packet;
    } else if (std::string(track->handler) == "vide") {
        out["width"] = track->width;
        out["height"] = track->height;
    } else if (track->codec == ISO_CODEC_SAMR || track->codec == ISO_CODEC_SAWB) {
        out["frames_per_sample"] = track->frames_per_sample;
    }
    if (track->sync_count > 0) out["sync_samples"] = track->sync_count;
    return out;
}

// What the library's reader does not have of a file in an odd form.
void add_imported(const FileFacts& facts, Json& tracks) {
    for (const ImportedTrack& track : facts.imported) {
        const auto known = std::find_if(tracks.begin(), tracks.end(),
                                        [&](const Json& one) { return one["id"] == track.id; });
        if (known == tracks.end()) {
            tracks.push_back({{"id", track.id},
                              {"codec", codec_name(track.codec)},
                              {"samples_not_read", track.samples}});
        } else if (const auto read = (*known)["samples"].get<uint64_t>(); read < track.samples) {
            (*known)["samples_not_read"] = track.samples - read;
        }
    }
}

Json describe_file(const FileFacts& facts) {
    iso_file* file = facts.file.get();
    double duration = 0.0;
    isoFFfileInfo(file, nullptr, &duration, nullptr);
    Json out{{"major_brand", file->major_brand},
             {"minor_version", file->minor_version},
             {"compatible_brands", file->compatible_brands ? file->compatible_brands : ""},
             {"timescale", file->timescale},
             {"duration_seconds", duration},
             {"tracks", Json::array()}};
    for (iso_track* track = file->first_track; track != nullptr; track = track->next)
        out["tracks"].push_back(describe_track(track));
    add_imported(facts, out["tracks"]);
    const uint32_t lost = file->own->lost_tracks;
    if (lost > 0) out["lost_tracks"] = lost;
    if (may_lack_tracks(facts)) out["may_lack_tracks"] = true;
    return out;
}

void print_unread(const Json& track) {
    if (!track.contains("samples_not_read")) return;
    std::printf(", %llu samples that the library does not read",
                track["samples_not_read"].get<unsigned long long>());
}

void print_track(const Json& track) {
    if (!track.contains("samples")) {
        std::printf("track %-6u %s", track["id"].get<uint32_t>(),
                    track["codec"].get<std::string>().c_str());
        print_unread(track);
        std::printf("\n");
        return;
    }
    std::printf("track %-6u %s, %.3f s, %u samples, %u bytes", track["id"].get<uint32_t>(),
                track["codec"].get<std::string>().c_str(), track["duration_seconds"].get<double>(),
                track["samples"].get<uint32_t>(), track["bytes"].get<uint32_t>());
    std::printf(", timescale %u", track["timescale"].get<uint32_t>());
    if (track.contains("width")) {
        std::printf(", %u x %u", track["width"].get<uint32_t>(), track["height"].get<uint32_t>());
    }
    if (track.contains("sync_samples")) {
        std::printf(", %u sync samples", track["sync_samples"].get<uint32_t>());
    }
    if (track.contains("hints_track")) {
        std::printf(", for track %u, packets of at most %u bytes",
                    track["hints_track"].get<uint32_t>(), track["longest_packet"].get<uint32_t>());
    }
    print_unread(track);
    std::printf("\n");
}

void print_verdict(const Verdict& verdict, const std::string& input) {
    const std::string api = word(verdict.api) + std::string(" API,");
    std::printf("%-15s %s: ", api.c_str(), word(verdict.kind));
    if (verdict.reason == Reason::kNoTrack) {
        std::printf("no %s track\n", word(verdict.kind));
        return;
    }
    if (verdict.plays()) {
        std::printf("plays\n");
        return;
    }
    std::printf("%s (%s", verdict.outcome(), word(verdict.reason));
    if (verdict.status != KST_SUCCESS) std::printf("; %s", status_words(verdict.status).c_str());
    std::printf(")\n%28s%s\n", "", printable(verdict.why).c_str());
    if (!verdict.fix.empty())
        std::printf("%28sfix it: %s\n", "", printable(fix_command(verdict, input)).c_str());
}

void print_text(const std::string& input, const Json& about, const std::vector<Verdict>& verdicts) {
    std::printf("%s\n", printable(input).c_str());
    std::printf("brand        %s, version %d; compatible: %s\n",
                printable(about["major_brand"].get<std::string>()).c_str(),
                about["minor_version"].get<int>(),
                printable(about["compatible_brands"].get<std::string>()).c_str());
    std::printf("duration     %.3f s, timescale %u\n", about["duration_seconds"].get<double>(),
                about["timescale"].get<uint32_t>());
    for (const Json& track : about["tracks"])
        print_track(track);
    if (about.contains("lost_tracks")) {
        std::printf("lost tracks  %u: inside or after a damaged one, or without a header first\n",
                    about["lost_tracks"].get<uint32_t>());
    } else if (about.contains("may_lack_tracks")) {
        std::printf("lost tracks  any number: the movie box is cut or damaged\n");
    }
    for (const Verdict& verdict : verdicts)
        print_verdict(verdict, input);
}

void info(const Options& options) {
    const auto deadline = options.time.deadline();
    const Host host = open_host(options.input);
    const FileFacts facts = gather_facts(host.get(), deadline);
    if (!facts.scan.is_3gp()) throw no_media_file(options.input);
    const std::vector<Verdict> verdicts = Judge(facts, deadline).judge_all();
    Json about = describe_file(facts);
    if (options.json) {
        about["verdicts"] = Json::array();
        for (const Verdict& verdict : verdicts)
            about["verdicts"].push_back(describe(verdict, options.input));
        std::printf("%s\n", json_text(about).c_str());
    } else {
        print_text(options.input, about, verdicts);
    }
}

}  // namespace

void add_info(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "info", "Show brands, tracks and hint tracks, and whether each medium plays");
    command->add_option("FILE", options->input, "3GP file; - is standard input")->required();
    command->add_flag("--json", options->json, "Print JSON");
    add_timeout(command, options->time);
    command->callback([options] { info(*options); });
}

}  // namespace tool
