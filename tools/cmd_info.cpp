// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

#include "companion/probe/track_info.h"
#include "interface/src/isoff/record/private.h"
#include "native/stream/plausible.h"
#include "tools/commands.h"
#include "tools/field_reading.h"
#include "tools/judge/verdict_json.h"
#include "tools/report/markup.h"
#include "tools/support.h"

// The contents of a file, and which of its media play.

namespace tool {
namespace {

struct Options {
    std::string input;
    bool json = false;
    TimeLimit time;
};

// Degrees clockwise, of a matrix that turns; nothing for others (ISO/IEC 14496-12, 8.3.2).
std::optional<int> rotation(const iso_track* track) {
    constexpr auto kOne = int32_t{0x10000};
    const auto at = [&](int i) { return static_cast<int32_t>(track->matrix[i]); };
    const auto is = [&](int32_t a, int32_t b, int32_t c, int32_t d) {
        return at(0) == a && at(1) == b && at(3) == c && at(4) == d;
    };
    if (is(kOne, 0, 0, kOne)) return 0;
    if (is(0, kOne, -kOne, 0)) return 90;
    if (is(-kOne, 0, 0, -kOne)) return 180;
    if (is(0, -kOne, kOne, 0)) return 270;
    return std::nullopt;
}

void add_date(Json& out, const char* name, uint32_t seconds) {
    if (seconds != 0) out[name] = date_text(seconds);
}

// The codec of a track: four-character code, name, profile and level.
void add_codec(const kst_probe_track& about, const iso_track* track, Json& out) {
    if (about.codec[0] != '\0') out["codec"] = about.codec;
    out["codec_name"] = about.codec_name;
    if (track->codec == ISO_CODEC_S263 || track->codec == ISO_CODEC_AVC1) {
        out["profile"] = track->profile;
        out["level"] = track->level;
    } else if (track->codec == ISO_CODEC_MP4V) {
        out["profile_and_level"] = track->level;
    }
}

Json describe_track(const FileFacts& facts, iso_track* track) {
    int samples = 0;
    int bytes = 0;
    isoFFtrackInfo(track, nullptr, &samples, nullptr, &bytes);
    const kst_probe_track about = kestrel::probe::describe_track(facts, track);
    Json out{{"track_id", about.track_id}, {"handler", track->handler}};
    add_codec(about, track, out);
    out["timescale"] = about.timescale;
    out["duration"] = about.duration;
    out["duration_seconds"] = Duration{about.duration, about.timescale}.seconds();
    out["sample_count"] = samples;
    out["bytes"] = static_cast<uint32_t>(bytes);
    out["language"] = about.language;
    add_date(out, "created", track->creation_time);
    add_date(out, "modified", track->modification_time);
    if (about.medium == KST_MEDIUM_HINT) {
        out["hints_track"] = about.hints_track;
        out["rtp_timescale"] = track->rtp_timescale;
        out["longest_packet"] = about.longest_packet;
    } else if (std::string(track->handler) == "vide") {
        out["width"] = track->width;
        out["height"] = track->height;
        if (const auto turned = rotation(track); turned) out["rotation"] = *turned;
    } else if (track->codec == ISO_CODEC_SAMR || track->codec == ISO_CODEC_SAWB) {
        out["frames_per_sample"] = track->frames_per_sample;
    }
    if (about.sync_samples > 0) out["sync_sample_count"] = about.sync_samples;
    if (const uint64_t unread = samples_not_read(facts, track); unread > 0)
        out["samples_not_read"] = unread;
    if (const uint64_t empty = empty_samples(facts, track); empty > 0)
        out["empty_sample_count"] = empty;
    return out;
}

Json describe_unread(const ImportedTrack& track) {
    const Duration duration{track.duration, static_cast<uint32_t>(track.timescale)};
    return {{"track_id", track.id},
            {"codec", printable(code_text(track.entry))},
            {"codec_name", codec_name(track.codec)},
            {"timescale", duration.timescale},
            {"duration", duration.units},
            {"duration_seconds", duration.seconds()},
            {"samples_not_read", track.samples}};
}

Json brands_of(const iso_file* file) {
    Json brands = Json::array();
    std::istringstream words(file->compatible_brands ? file->compatible_brands : "");
    for (std::string word; words >> word;)
        brands.push_back(printable(word));
    return brands;
}

Json describe_file(const FileFacts& facts) {
    iso_file* file = facts.file.get();
    Json out{{"major_brand", printable(file->major_brand)},
             {"minor_version", file->minor_version},
             {"compatible_brands", brands_of(file)}};
    // The reader has a timescale also where no header declares one.
    if (file->own->edit_timescale != 0 || facts.imported.timescale != 0) {
        const Duration duration = duration_of(facts);
        out["timescale"] = duration.timescale;
        out["duration"] = duration.units;
        out["duration_seconds"] = duration.seconds();
    }
    add_date(out, "created", file->creation_time);
    add_date(out, "modified", file->modification_time);
    out["tracks"] = Json::array();
    for (iso_track* track = file->first_track; track != nullptr; track = track->next)
        out["tracks"].push_back(describe_track(facts, track));
    for (const ImportedTrack* track : unread_tracks(facts))
        out["tracks"].push_back(describe_unread(*track));
    const uint64_t lost = lost_tracks(facts);
    if (lost > 0) out["lost_tracks"] = lost;
    if (may_lack_tracks(facts)) out["may_lack_tracks"] = true;
    return out;
}

// "Advanced Simple profile, level 1" of a profile and level indication (ISO/IEC 14496-2, table
// G-1).
std::string visual_profile(unsigned indication) {
    struct Profile {
        unsigned first, last;  // levels follow one another
        const char* name;
        unsigned level;  // of the first
    };
    static constexpr Profile kProfiles[] = {
        {0x01, 0x03, "Simple", 1}, {0x05, 0x06, "Simple", 5}, {0x08, 0x08, "Simple", 0},
        {0x21, 0x22, "Core", 1},   {0x32, 0x34, "Main", 2},   {0xF0, 0xF5, "Advanced Simple", 0},
    };
    if (indication == 0x04) return "Simple profile, level 4a";
    for (const Profile& profile : kProfiles) {
        if (indication < profile.first || indication > profile.last) continue;
        return std::string(profile.name) + " profile, level " +
               std::to_string(profile.level + indication - profile.first);
    }
    return format("profile and level %u", indication);
}

// "AMR-NB", "codec 'av01'", "H.264, profile 66, level 3.0".
std::string codec_text(const Json& track) {
    const auto name = track["codec_name"].get<std::string>();
    const std::string code = track.value("codec", "");
    std::string out = name == "unknown" && !code.empty() ? "codec '" + code + "'" : name;
    if (track.contains("profile")) {
        const auto level = track["level"].get<unsigned>();
        out += format(", profile %u, level ", track["profile"].get<unsigned>()) +
               (code == "avc1" ? format("%.1f", level / 10.0) : std::to_string(level));
    }
    if (track.contains("profile_and_level"))
        out += ", " + visual_profile(track["profile_and_level"].get<unsigned>());
    return out;
}

// The samples that the library reads, and those that it does not.
void print_samples(const Json& track) {
    const auto read = track.value("sample_count", uint64_t{0});
    const auto unread = track.value("samples_not_read", uint64_t{0});
    if (read > 0 || unread == 0) {
        std::printf(", %s, %s", counted(read, "sample").c_str(),
                    counted(track.value("bytes", uint64_t{0}), "byte").c_str());
    }
    if (unread > 0) {
        std::printf(", %s%s in a form that neither API reads", counted(unread, "sample").c_str(),
                    read > 0 ? " more" : "");
    }
}

void print_picture(const Json& track) {
    if (!track.contains("width")) return;
    std::printf(", %u x %u", track["width"].get<uint32_t>(), track["height"].get<uint32_t>());
    if (const int turned = track.value("rotation", 0); turned != 0)
        std::printf(", turned by %d degrees", turned);
}

void print_track(const Json& track) {
    std::printf("track %-6u %s", track["track_id"].get<uint32_t>(), codec_text(track).c_str());
    if (track.contains("duration_seconds"))
        std::printf(", %.3f s", track["duration_seconds"].get<double>());
    print_samples(track);
    if (track.contains("sample_count")) {
        std::printf(", timescale %u", track["timescale"].get<uint32_t>());
        print_picture(track);
        if (track.contains("sync_sample_count")) {
            const auto count = track["sync_sample_count"].get<uint32_t>();
            std::printf(", %s", counted(count, "sync sample").c_str());
        }
        if (track.contains("hints_track")) {
            std::printf(", for track %u, packets of at most %s",
                        track["hints_track"].get<uint32_t>(),
                        counted(track["longest_packet"].get<uint32_t>(), "byte").c_str());
        }
        if (const auto language = track["language"].get<std::string>(); language != "und")
            std::printf(", language %s", language.c_str());
    }
    std::printf("\n");
    if (track.contains("empty_sample_count")) {
        const uint64_t all =
            track.value("sample_count", uint64_t{0}) + track.value("samples_not_read", uint64_t{0});
        std::printf(
            "%13s%s\n", "",
            kestrel::stream::empty_text(track["empty_sample_count"].get<uint64_t>(), all, "sample",
                                        track["codec_name"].get<std::string>().starts_with("AMR"))
                .c_str());
    }
}

constexpr int kReasonColumn = 28;

void print_reason_line(const std::string& text) {
    std::printf("%*s%s\n", kReasonColumn, "", printable(text).c_str());
}

// The verdicts of a file, each sentence and each command once.
class VerdictPrinter {
  public:
    VerdictPrinter(const FileFacts& facts, const std::vector<Verdict>& verdicts,
                   const std::string& input)
        : facts_(facts), verdicts_(verdicts), input_(input) {}

    void print() {
        for (const Verdict& verdict : verdicts_) {
            const std::string api = word(verdict.api) + std::string(" API,");
            std::printf("%-15s %s: ", api.c_str(), word(verdict.kind));
            print_outcome(verdict);
            print_fix(verdict);
        }
    }

  private:
    void print_outcome(const Verdict& verdict) {
        const std::string which = which_track(verdict.kind, verdict.track_id);
        if (verdict.reason == Reason::kNoTrack) {
            const bool is_known = facts_.scan.has_movie && !may_lack_tracks(facts_);
            const std::string none = std::string("no ") + word(verdict.kind) + " track";
            std::printf("%s\n", is_known ? none.c_str()
                                         : "not known: the list of tracks is cut or damaged");
        } else if (verdict.plays()) {
            std::printf("plays%s%s\n", which.c_str(),
                        which.empty() ? "" : "; 'kestrel extract --track ID' plays another");
            if (verdict.seeks_elsewhere) {
                print_reason_line("Seeks reach other times: the hint track has another timescale.");
            }
        } else {
            std::printf("%s%s (%s", verdict.outcome(), which.c_str(), word(verdict.reason));
            if (verdict.status != KST_SUCCESS) std::printf("; %s", status_words(verdict).c_str());
            const bool is_new = said_.insert(verdict.why).second;
            std::printf(")%s\n", is_new ? "" : ", for the same reason");
            if (is_new) print_reason_line(verdict.why);
        }
    }

    // After the last verdict with the same command.
    void print_fix(const Verdict& verdict) const {
        const std::string command = command_for(verdict);
        if (command.empty()) return;
        const auto is_same = [&](const Verdict& other) { return command_for(other) == command; };
        const auto count = std::count_if(verdicts_.begin(), verdicts_.end(), is_same);
        const auto last = std::find_if(verdicts_.rbegin(), verdicts_.rend(), is_same);
        if (&*last != &verdict) return;
        if (count == 1) return print_reason_line("fix it: " + command);
        std::string which;
        for (const Verdict& other : verdicts_) {
            if (is_same(other)) which += (which.empty() ? "" : ", ") + name_of(other);
        }
        const bool is_for_all = static_cast<size_t>(count) == verdicts_.size();
        print_reason_line("fix " + (is_for_all ? "all " + std::to_string(count) : which) + ": " +
                          command);
    }

    static std::string name_of(const Verdict& verdict) {
        return word(verdict.kind) + std::string(" with the ") + word(verdict.api) + " API";
    }

    std::string command_for(const Verdict& verdict) const {
        if (!verdict.seeks_elsewhere) return fix_command(verdict, input_);
        Verdict replaced = verdict;
        replaced.fix = "hint --replace";
        return fix_command(replaced, input_);
    }

    // ", track 2" where the file has several of the medium.
    std::string which_track(MediaKind kind, uint32_t id) const {
        size_t count = 0;
        for (const iso_track* track = facts_.file->first_track; track != nullptr;
             track = track->next) {
            count += is_of(track, kind) ? 1 : 0;
        }
        return count > 1 ? ", track " + std::to_string(id) : "";
    }

    const FileFacts& facts_;
    const std::vector<Verdict>& verdicts_;
    const std::string& input_;
    std::set<std::string> said_;
};

void print_text(const std::string& input, const FileFacts& facts, const Json& about,
                const std::vector<Verdict>& verdicts) {
    std::string brands;
    for (const Json& brand : about["compatible_brands"])
        brands += (brands.empty() ? "" : " ") + brand.get<std::string>();
    std::printf("%s\n", printable(input).c_str());
    if (!about["major_brand"].get<std::string>().empty()) {
        std::printf("brand        %s, version %d; compatible: %s\n",
                    about["major_brand"].get<std::string>().c_str(),
                    about["minor_version"].get<int>(), brands.c_str());
    }
    if (about.contains("duration")) {
        std::printf("duration     %.3f s, timescale %u\n", about["duration_seconds"].get<double>(),
                    about["timescale"].get<uint32_t>());
    }
    if (about.contains("created"))
        std::printf("created      %s\n", about["created"].get<std::string>().c_str());
    for (const Json& track : about["tracks"])
        print_track(track);
    if (!facts.scan.has_movie) {
        std::printf("no tracks    %s\n", why_no_tracks(facts).c_str());
    } else if (about.contains("lost_tracks")) {
        std::printf("lost tracks  %u: inside or after a damaged one, or without a header first\n",
                    about["lost_tracks"].get<uint32_t>());
    } else if (about.contains("may_lack_tracks")) {
        std::printf("lost tracks  unknown: the movie box is cut or damaged; get the whole file\n");
    }
    if (about.contains("remark"))
        std::printf("remark       %s\n", about["remark"].get<std::string>().c_str());
    VerdictPrinter(facts, verdicts, input).print();
}

void info(const Options& options) {
    const auto deadline = options.time.deadline();
    const Host host = open_host(options.input);
    const FileFacts facts = gather_facts(host.get(), deadline);
    if (!facts.scan.is_3gp()) throw no_media_file(options.input, facts.scan.file_size);
    const std::vector<Verdict> verdicts = Judge(facts, deadline).judge_all();
    Json about = describe_file(facts);
    if (const std::string remark = import_remark(facts, deadline); !remark.empty())
        about["remark"] = printable(remark);
    if (options.json) {
        about["verdicts"] = Json::array();
        for (const Verdict& verdict : verdicts)
            about["verdicts"].push_back(describe(verdict, options.input));
        std::printf("%s\n", json_text(about).c_str());
    } else {
        print_text(options.input, facts, about, verdicts);
    }
}

}  // namespace

void add_info(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "info", "Show brands, tracks and hint tracks, and whether each medium plays");
    add_input(command, "FILE", options->input, "3GP file; - is standard input");
    command->add_flag("--json", options->json, "Print JSON");
    add_timeout(command, options->time);
    command->callback(
        [options] { or_error_as_json(options->json, [&options] { info(*options); }); });
}

}  // namespace tool
