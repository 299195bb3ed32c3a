#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "tools/commands.h"
#include "tools/file_scan.h"
#include "tools/report/markup.h"
#include "tools/support.h"
#include "tools/verdict.h"

// What plays of many files, for scripts.

namespace tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::vector<std::string> paths;
    std::optional<Api> api;
};

// The endings of the names that are looked at in folders.
bool is_3gp_name(const fs::path& path) {
    static constexpr std::array kEndings = {".3gp", ".3gpp", ".3g2", ".3gpp2", ".mp4"};
    std::string ending = path.extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    });
    return std::find(kEndings.begin(), kEndings.end(), ending) != kEndings.end();
}

class Checker {
  public:
    explicit Checker(const Options& options) : options_(options) {}

    void run() {
        for (const std::string& path : options_.paths)
            collect(path);
        for (const std::string& file : files_) {
            progress_.show_count(done_++, files_.size(), "files");
            check(file);
        }
        progress_.clear();
        finish_standard_output();
        std::string failure;
        if (failed_ > 0) {
            failure = std::to_string(failed_) + " of " + std::to_string(files_.size()) +
                      (files_.size() == 1 ? " file does" : " files do") + " not play";
        }
        for (const std::string& folder : empty_)
            failure += (failure.empty() ? "" : "; ") + folder + ": no name in .3gp or the like";
        if (!failure.empty()) throw Error(failure);
    }

  private:
    void collect(const std::string& path) {
        std::error_code no_folder;
        if (path == "-" || !fs::is_directory(path, no_folder)) {
            files_.push_back(path);
            return;
        }
        std::vector<std::string> found;
        search(path, found);
        if (found.empty()) empty_.push_back(path);
        std::sort(found.begin(), found.end());
        files_.insert(files_.end(), found.begin(), found.end());
    }

    // Links to folders are not followed. What cannot be read is found, as opening it will tell why.
    static void search(const fs::path& folder, std::vector<std::string>& found) {
        std::error_code failure, no_folder;
        fs::directory_iterator at(folder, failure);
        for (; !failure && at != fs::directory_iterator(); at.increment(failure)) {
            if (!at->is_directory(no_folder)) {
                if (is_3gp_name(at->path())) found.push_back(at->path().string());
            } else if (!at->is_symlink(no_folder)) {
                search(at->path(), found);
            }
        }
        if (failure) found.push_back(folder.string());
    }

    void print(const char* medium, const char* function, const char* by_class, const char* mend,
               const std::string& file) {
        if (lines_are_seen_) progress_.clear();
        std::printf("%s\t%s\t%s\t%s\t%s\n", medium, function, by_class, mend,
                    printable_word(file).c_str());
    }

    // The line of a file in which no medium was found.
    void print_whole(const char* reason, const std::string& file) {
        const bool function = !options_.api || options_.api == Api::kFunction;
        const bool by_class = !options_.api || options_.api == Api::kClass;
        print("-", function ? reason : "-", by_class ? reason : "-", "-", file);
    }

    void check(const std::string& file) {
        const Host host = open_or_tell(file);
        const bool plays = host != nullptr && check_open(host.get(), file);
        failed_ += plays ? 0 : 1;
    }

    Host open_or_tell(const std::string& file) {
        try {
            return open_host(file);
        } catch (const Error& error) {
            print_whole("unreadable", file);
            progress_.clear();
            say(error.what());
            return nullptr;
        }
    }

    // True when all of its media play.
    bool check_open(kst_host* host, const std::string& file) {
        KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
        const IsoFile boxes = open_quietly(host, callbacks);
        const FileScan scan = scan_file(callbacks);
        bool all = true, any = false;
        for (const Medium medium : kMedia) {
            if (!has_medium(boxes.get(), medium)) continue;
            any = true;
            all = check_medium(host, boxes.get(), medium, file) && all;
        }
        if (any && !scan.movie_is_cut) return all;
        // Tracks may have been lost with the end of the movie box.
        print_whole(!scan.is_3gp()        ? "not-3gp"
                    : scan.damage.empty() ? "no-track"
                                          : "damaged",
                    file);
        return false;
    }

    static IsoFile open_quietly(kst_host* host, KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks) {
        const ErrorCapture remarks;
        return open_iso(host, callbacks);
    }

    bool check_medium(kst_host* host, const iso_file* boxes, Medium medium,
                      const std::string& file) {
        const char* words[kApis.size()] = {"-", "-"};
        std::string mend = "-";
        bool plays = false;
        for (const Api api : kApis) {
            if (options_.api && options_.api != api) continue;
            const Verdict verdict = judge(host, boxes, api, medium);
            words[api == Api::kClass] = word(verdict.reason);
            plays = plays || verdict.plays();
            if (!verdict.mend.empty()) mend = verdict.mend;
        }
        print(word(medium), words[0], words[1], mend.c_str(), file);
        return plays;
    }

    const Options& options_;
    std::vector<std::string> files_;
    std::vector<std::string> empty_;  // folders in which nothing was found
    size_t done_ = 0;
    size_t failed_ = 0;
    Progress progress_;
    const bool lines_are_seen_ = isatty(STDOUT_FILENO) != 0;
};

}  // namespace

void add_check(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("check", "Tell for scripts which files play, and what mends the rest");
    command
        ->add_option("FILE", options->paths,
                     "3GP files, - for standard input, and folders, which are searched with all\n"
                     "below them for names in .3gp .3gpp .3g2 .3gpp2 .mp4")
        ->required();
    add_choice<Api>(command, "--api", options->api,
                    {{"function", Api::kFunction}, {"class", Api::kClass}},
                    "Judge one API alone; otherwise a medium plays where either API plays it")
        ->option_text("function|class");
    command->footer(
        "A line for each medium that a file has, with tabs between its columns:\n"
        "  1  audio or video; - for a file in which neither was found, or whose movie box is cut\n"
        "  2  what comes of it with the function API (kst_Open), played to its end\n"
        "  3  the same with the class API (C3gpInterface)\n"
        "  4  what mends it, as was tried: hint or hint --replace; - for nothing, and for what\n"
        "     is not tried, a file of more than 128 MiB\n"
        "  5  the file, with control characters and backslashes as \\xNN\n"
        "Columns 2 and 3 are -, where the API is not judged, or one of\n"
        "  plays           delivered to its end\n"
        "  no-hint-track   this API needs an RTP hint track\n"
        "  codec           this API does not play the codec\n"
        "  several-tracks  this API plays a file with one track of the medium\n"
        "  incomplete      the file ends too early, or less than 9 tenths of a track come out\n"
        "  damaged         a box, a table or a sample makes no sense, or no frame comes out\n"
        "  ends-process    opening ends the process (kestrel/c3gpinterface.h)\n"
        "  no-track        no audio and no video\n"
        "  not-3gp         no file type box and no movie box; an empty file too\n"
        "  unreadable      the system does not give the file or folder out\n"
        "Exit status: 0 all media of all files play, 1 some do not or a folder has no such name,\n"
        "2 wrong usage.");
    command->callback([options] { Checker(*options).run(); });
}

}  // namespace tool
