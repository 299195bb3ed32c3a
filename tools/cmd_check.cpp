// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>

#include "tools/commands.h"
#include "tools/judge/media_search.h"
#include "tools/judge/verdict_json.h"
#include "tools/support.h"

// Which of many files play, for scripts. Each file is judged in a separate process, several at a
// time, and the lines are in the order of the files.

namespace tool {
namespace {

struct Options {
    std::vector<std::string> paths;
    std::optional<Api> api;
    TimeLimit time;
    uint32_t processes = 1;
    bool json = false;
    bool quick = false;
    bool skipped = false;  // lists what was skipped
};

// --- judging one file ---

// The result of a file, in the form that its process passes:
class FileCheck {
  public:
    FileCheck(const Options& options, const std::string& path, Clock::time_point deadline)
        : options_(options), path_(path), deadline_(deadline) {}

    Json run() {
        Json found{{"verdicts", Json::array()}};
        try {
            check(open_host(path_).get(), found);
        } catch (const NoProcess& error) {
            found["fatal"] = printable(error.what());
        } catch (const Error& error) {
            found["reason"] = "unreadable";
            found["message"] = printable(error.what());
        }
        return found;
    }

  private:
    void check(kst_host* host, Json& found) const {
        const FileFacts facts = gather_facts(host, deadline_);
        Judge judge(facts, deadline_);
        for (const MediaKind kind : kMedia) {
            if (!has_medium(facts, kind)) continue;
            for (const Api api : kApis) {
                if (options_.api && options_.api != api) continue;
                add(options_.quick ? judge.look(api, kind) : judge.judge(api, kind), found);
            }
        }
        add_remarks(facts, found);
        if (!found["verdicts"].empty() && !may_lack_tracks(facts)) return;
        found["reason"] = facts.scan.is_3gp() ? word(reason_for_no_media(facts)) : "not-3gp";
    }

    void add_remarks(const FileFacts& facts, Json& found) const {
        constexpr size_t kMostTracks = 10;
        std::string all = options_.quick ? "" : import_remark(facts, deadline_);
        size_t tracks = 0;
        for (const iso_track* track = facts.file->first_track; track; track = track->next) {
            const std::string text = empty_samples_text(facts, track);
            if (text.empty() || ++tracks > kMostTracks) continue;
            all += (all.empty() ? "" : "; ") + ("track " + std::to_string(track->track_id)) + ": " +
                   text;
        }
        if (tracks > kMostTracks) all += "; and " + counted(tracks - kMostTracks, "more track");
        if (!all.empty()) found["message"] = printable(input_name(path_) + ": " + all);
    }

    void add(const Verdict& verdict, Json& found) const {
        Json one = describe(verdict, path_);
        if (!verdict.fix.empty()) one["command"] = verdict.fix;
        found["verdicts"].push_back(std::move(one));
    }

    const Options& options_;
    const std::string& path_;
    Clock::time_point deadline_;
};

// --- all of them ---

bool is_good(const std::string& reason) {
    return reason == word(Reason::kPlays) || reason == word(Reason::kNotPlayed);
}

// As many as the limit of open files allows: each has a pipe, which those started later inherit
// beside the files that they open themselves.
uint64_t most_processes() {
    constexpr rlim_t kOpenedByEach = 24;
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) return UINT64_MAX;
    return files.rlim_cur > kOpenedByEach ? files.rlim_cur - kOpenedByEach : 1;
}

class Checker {
  public:
    explicit Checker(const Options& options)
        : options_(options),
          most_at_work_(
              static_cast<size_t>(std::min<uint64_t>(options.processes, most_processes()))) {}

    void run() {
        for (const std::string& path : options_.paths)
            collect(path);
        size_t next = 0;
        while (next < files_.size() || !running_.empty()) {
            while (next < files_.size() && may_start() && try_start(next))
                ++next;
            wait();
            // In their order, however they end.
            while (!running_.empty() && running_.front().found) {
                print(running_.front());
                running_.pop_front();
            }
        }
        progress_.clear();
        if (options_.json) print_json();
        finish_standard_output();
        if (!failure().empty()) throw Error(failure());
    }

  private:
    struct Running {
        size_t file;  // its index
        std::unique_ptr<ChildProcess> child;
        std::optional<Json> found;
    };

    void add_file(FoundFile file) {
        if (!file.is_media) {
            ++skipped_;
            if (!options_.skipped && !options_.json) return;
        }
        files_.push_back(std::move(file));
    }

    void collect(const std::string& path) {
        std::error_code no_folder;
        if (path == "-" || !std::filesystem::is_directory(path, no_folder)) {
            add_file({path, true});
            return;
        }
        std::vector<FoundFile> found = search_folder(path);
        if (std::none_of(found.begin(), found.end(), [](auto& file) { return file.is_media; }))
            empty_.push_back(path);
        for (FoundFile& file : found)
            add_file(std::move(file));
    }

    // Returns false where the system gives no more processes or descriptors than are at work now.
    bool try_start(size_t number) {
        try {
            start(number);
            return true;
        } catch (const NoProcess&) {
            most_at_work_ = at_work();
            if (most_at_work_ == 0) throw;
            return false;
        }
    }

    void start(size_t number) {
        // Longer than the file's own limit, which ends with a verdict for each medium.
        constexpr auto kGrace = std::chrono::seconds(2);
        if (!files_[number].is_media) {
            running_.push_back(
                {number, nullptr, Json{{"verdicts", Json::array()}, {"reason", "skipped"}}});
            return;
        }
        const auto deadline = options_.time.deadline();
        const std::string& path = files_[number].path;
        running_.push_back(
            {number,
             std::make_unique<ChildProcess>(
                 ChildLimits{deadline + kGrace, 0},
                 [&, deadline] { return json_line(FileCheck(options_, path, deadline).run()); }),
             std::nullopt});
    }

    // A slow file delays the lines of the files after it, which wait in memory.
    bool may_start() const {
        constexpr size_t kMaxWaiting = 1000;
        return at_work() < most_at_work_ && running_.size() < kMaxWaiting;
    }

    size_t at_work() const {
        return static_cast<size_t>(
            std::count_if(running_.begin(), running_.end(), [](auto& one) { return !one.found; }));
    }

    // Reads the reports until a process ends or a short time has passed.
    void wait() {
        std::vector<pollfd> ready;
        std::vector<Running*> at_work;
        auto deadline = Clock::now() + std::chrono::milliseconds(200);
        for (Running& one : running_) {
            if (one.found) continue;
            at_work.push_back(&one);
            ready.push_back({one.child->descriptor(), POLLIN, 0});
            deadline = std::min(deadline, one.child->deadline());
        }
        if (ready.empty()) return;
        if (poll(ready.data(), ready.size(), poll_timeout(deadline)) < 0 && errno != EINTR)
            throw system_error("poll");
        for (size_t i = 0; i < ready.size(); ++i) {
            ChildProcess& child = *at_work[i]->child;
            const bool has_ended = ready[i].revents != 0 && !child.take();
            if (!has_ended && Clock::now() < child.deadline()) continue;
            at_work[i]->found = result_of(child.finish());
            at_work[i]->child.reset();  // with its descriptor
        }
        progress_.show_count(done_, files_.size(), "files");
    }

    static Json result_of(const ChildResult& result) {
        if (result.end == ChildResult::End::kReported)
            return Json::parse(result.report, nullptr, false);
        const bool late = result.end == ChildResult::End::kTimeout;
        const bool memory = result.end == ChildResult::End::kNoMemory;
        return Json{{"verdicts", Json::array()},
                    {"reason", word(late     ? Reason::kTimeout
                                    : memory ? Reason::kMemory
                                             : Reason::kDamaged)}};
    }

    // The file's lines; with --json, its object for later.
    void print(const Running& one) {
        const FoundFile& file = files_[one.file];
        const Json& found = *one.found;
        if (found.contains("fatal")) throw Error(found["fatal"].get<std::string>());
        ++done_;
        bool plays = true;
        std::string why;  // of the first that does not play
        for (const MediaKind kind : kMedia)
            plays = print_medium(kind, found["verdicts"], file.path, why) && plays;
        if (found.contains("reason")) {
            const auto reason = found["reason"].get<std::string>();
            const bool function = options_.api != Api::kClass;
            const bool by_class = options_.api != Api::kFunction;
            print_line("-", function ? reason : "-", by_class ? reason : "-", "-", file.path);
            plays = plays && !file.is_media;
            if (why.empty()) why = reason;
        }
        if (!plays) ++reasons_[why];
        judged_ += file.is_media ? 1 : 0;
        failed_ += plays ? 0 : 1;
        if (found.contains("message")) {
            progress_.clear();
            std::fflush(stdout);
            say(found["message"].get<std::string>());
        }
        if (options_.json) keep_json(found, file.path, plays);
    }

    // True when no API was asked to play it, or one does.
    bool print_medium(MediaKind kind, const Json& verdicts, const std::string& file,
                      std::string& why) {
        std::map<std::string, std::string> reasons{{"function", "-"}, {"class", "-"}};
        std::string fix = "-", first;
        bool plays = false;
        for (const Json& verdict : verdicts) {
            if (verdict["medium"] != word(kind)) continue;
            const auto reason = verdict["reason"].get<std::string>();
            reasons[verdict["api"].get<std::string>()] = reason;
            plays = plays || is_good(reason);
            if (first.empty()) first = reason;
            if (verdict.contains("command")) fix = verdict["command"].get<std::string>();
        }
        if (first.empty()) return true;
        if (!plays && why.empty()) why = first;
        print_line(word(kind), reasons["function"], reasons["class"], fix, file);
        return plays;
    }

    void print_line(const char* medium, const std::string& function, const std::string& by_class,
                    const std::string& fix, const std::string& file) {
        if (options_.json) return;
        if (lines_are_seen_) progress_.clear();
        std::printf("%s\t%s\t%s\t%s\t%s\n", medium, function.c_str(), by_class.c_str(), fix.c_str(),
                    printable_word(file).c_str());
    }

    void keep_json(Json found, const std::string& file, bool plays) {
        Json out{{"file", is_utf8(file) ? file : printable_word(file)}, {"plays", plays}};
        if (found.contains("reason")) out["reason"] = found["reason"];
        if (found.contains("message")) out["message"] = found["message"];
        for (Json& verdict : found["verdicts"])
            verdict.erase("command");
        out["verdicts"] = std::move(found["verdicts"]);
        objects_.push_back(std::move(out));
    }

    void print_json() const {
        const Json summary{{"files", judged_},
                           {"do_not_play", failed_},
                           {"skipped", skipped_},
                           {"reasons", reasons_}};
        std::printf("%s\n", json_text(Json{{"files", objects_}, {"summary", summary}}).c_str());
    }

    std::string failure() const {
        std::string out;
        if (failed_ > 0) {
            out = std::to_string(failed_) + " of " + std::to_string(judged_) +
                  (judged_ == 1 ? " file does" : " files do") + " not play";
            std::string separator = ": ";
            for (const auto& [reason, count] : reasons_) {
                out += separator + std::to_string(count) + " " + reason;
                separator = ", ";
            }
        }
        for (const std::string& folder : empty_)
            out += (out.empty() ? "" : "; ") + folder + ": no media file";
        return out;
    }

    const Options& options_;
    size_t most_at_work_;  // processes
    std::vector<FoundFile> files_;
    std::vector<std::string> empty_;         // folders in which nothing was found
    std::deque<Running> running_;            // in the order of the files
    std::map<std::string, size_t> reasons_;  // of files that do not play: the first reason of each
    Json objects_ = Json::array();
    size_t done_ = 0, judged_ = 0, failed_ = 0, skipped_ = 0;
    Progress progress_;
    const bool lines_are_seen_ = isatty(STDOUT_FILENO) != 0;
};

constexpr char kColumns[] =
    "One line for each medium of each file, with tabs between the columns:\n"
    "  1  audio or video; - for a file in which neither was found, whose movie box is\n"
    "     truncated, or with tracks that cannot be read\n"
    "  2  the verdict for the function API (kst_Open), after playing to the end\n"
    "  3  the same for the class API (C3gpInterface)\n"
    "  4  the command that fixes it: hint, with --replace, --drop-others or --salvage if\n"
    "     needed. It was tried. - if there is none, or none was tried: the file has more\n"
    "     than 4,194,304 samples, or more bytes than a quarter of the room for temporary "
    "files\n"
    "  5  the file, with control characters and backslashes as \\xNN\n"
    "Columns 2 and 3 are - if the API is not judged, else one of\n"
    "  plays           all samples of the file are delivered\n"
    "  no-hint-track   this API needs an RTP hint track\n"
    "  self-hinted     the packets are in the hint track itself, which this API does not read\n"
    "  codec           this API does not play the codec\n"
    "  encrypted       the track is encrypted\n"
    "  several-tracks  this API plays a medium of one track only\n"
    "  fragmented      samples are in movie fragments, which this API does not read\n"
    "  large-box       a box declares its size in a form that this API does not read\n"
    "  unknown-table   a table has a form that this API does not read\n"
    "  large-frame     a sample is larger than this API can hold\n"
    "  incomplete      the file ends early or lacks fragments, or not all is delivered\n"
    "  implausible     the delivered bytes cannot be of the codec, or lack what decoders need "
    "first:\n"
    "                  wrong tables, or overwritten media or configuration\n"
    "  damaged         a box, a table or a sample is malformed, or too little or too much is "
    "delivered\n"
    "  ends-process    opening ends the process (kestrel/c3gpinterface.h)\n"
    "  memory          playing takes more memory than the tables account for\n"
    "  timeout         judging was not done in time\n"
    "  not-played      with --quick: the tables show no reason against it\n"
    "  no-track        no audio and no video\n"
    "  not-3gp         no file type box and no movie box; an empty file too\n"
    "  unreadable      the system cannot open or read the file or folder\n"
    "  skipped         with --skipped: a file in a folder that is not judged\n"
    "Exit status: 0 all media of all files play, 1 some do not or a folder has no such file,\n"
    "2 wrong usage.";

}  // namespace

void add_check(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("check", "Report which files play, and which command fixes the others");
    command
        ->add_option("FILE", options->paths,
                     "3GP files, - for standard input, and folders, which are searched at all\n"
                     "depths: files that begin with a box of such a file, or whose name ends in\n"
                     ".3gp .3gpp .3g2 .3gpp2 .mp4, are judged, others are skipped")
        ->required()
        ->check(refuse_empty_name);
    add_choice<Api>(command, "--api", options->api,
                    {{"function", Api::kFunction}, {"class", Api::kClass}},
                    "Judge this API only; otherwise a medium plays if either API plays it")
        ->option_text("function|class");
    command->add_option("-j,--jobs", options->processes, "Judge N files at a time (1)")
        ->check(CLI::Range(1, 1024))
        ->transform(as_decimal)
        ->option_text("N");
    add_timeout(command, options->time);
    command->add_flag("--quick", options->quick,
                      "Read boxes and tables only; play nothing and try no fix");
    command->add_flag("--skipped", options->skipped, "Print a line for each file that was skipped");
    command->add_flag("--json", options->json, "Print JSON, with a sentence for each reason");
    command->footer(kColumns);
    command->callback([options] {
        if (std::count(options->paths.begin(), options->paths.end(), "-") > 1)
            throw Error("standard input, -, can be judged once only", kWrongUsage);
        Checker(*options).run();
    });
}

}  // namespace tool
