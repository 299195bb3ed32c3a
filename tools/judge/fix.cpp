// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/fix.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <span>
#include <thread>

#include "companion/probe/reasons.h"
#include "kestrel/hinter.h"
#include "native/stream/plausible.h"
#include "tools/output_stream.h"
#include "tools/temporary_file.h"

namespace tool {
namespace {

constexpr uint64_t kMaxSamples = 1 << 22;  // of all tracks of a file

// A copy takes at most this part of the free space for temporary files, those of as many processes
// as there are processors together.
constexpr uint64_t kShareOfSpace = 4;

// Lets the writes of this process fail after `bytes` of a file.
void limit_files(uint64_t bytes) {
    struct rlimit limit {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

bool lacks_something(const FileFacts& facts) {
    if (facts.scan.movie_is_cut || !facts.scan.has_movie) return false;  // nothing whole is found
    if (facts.scan.cut_box.has_value() || !facts.imported.missing.empty()) return true;
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next) {
        if (outside_file(track, facts.scan.file_size).bytes > 0) return true;
    }
    return false;
}

// Whether bytes of a sample are in the file.
bool has_media(const FileFacts& facts) {
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next) {
        if (outside_file(track, facts.scan.file_size).bytes < declared(track).bytes) return true;
    }
    const auto& imported = facts.imported.tracks;
    return std::any_of(imported.begin(), imported.end(),
                       [](const ImportedTrack& track) { return track.bytes > 0; });
}

namespace {

// Whether kst_hint with salvage gets as far as writing.
bool can_be_salvaged(kst_host* host, uint32_t flags) {
    OutputStream nowhere("", "");
    nowhere.refuse();
    kst_hint_options options{};
    options.struct_size = sizeof options;
    options.flags = flags | KST_HINT_SALVAGE;
    kst_host_rewind(host);
    return kst_hint(kst_host_callbacks(host), nowhere.table(), &options, nullptr) ==
           KST_HINT_DESTINATION_FAILED;
}

}  // namespace

Error hint_error(kst_host* host, const std::string& input, const std::string& text,
                 const char* salvage, uint32_t flags) {
    const FileFacts facts = gather_facts(host, Clock::now() + kPatience);
    if (!facts.scan.is_3gp()) return no_media_file(input, facts.scan.file_size);
    if (!lacks_something(facts) || !has_media(facts)) return file_error(input, text);
    const std::string missing = kestrel::probe::missing_bytes(facts.scan);
    const std::string why = text + (missing.empty() ? "" : "; the file is cut: " + missing);
    if (can_be_salvaged(host, flags))
        return file_error(input, why + "; " + salvage + " keeps what is whole of it");
    const bool is_said = text.ends_with(kestrel::stream::kGetAgainText);
    return file_error(input, why + (is_said ? "" : kestrel::stream::kGetAgainText));
}

FixFinder::FixFinder(const FileFacts& facts, const ChildLimits& limits)
    : facts_(facts), limits_(limits) {
    // A file with hints, even unusable ones, is hinted again only with an option.
    const bool replace = has_hints(facts.file.get());
    const std::string command = replace ? "hint --replace" : "hint";
    const uint32_t flags = replace ? KST_HINT_REPLACE : 0;
    const auto add = [&](const char* option, uint32_t flag) {
        candidates_.push_back({command + option, flags | flag, false, Descriptor()});
    };
    add("", 0);
    add(" --drop-others", KST_HINT_DROP_OTHERS);
    if (lacks_something(facts)) add(" --salvage", KST_HINT_SALVAGE);
}

bool FixFinder::is_worth_a_try() const {
    uint64_t samples = 0, imported = 0;
    for (const iso_track* track = facts_.file->first_track; track != nullptr; track = track->next)
        samples += static_cast<uint32_t>(std::max(track->sample_count, 0));
    for (const ImportedTrack& track : facts_.imported.tracks)
        imported += track.samples;
    samples = std::max(samples, imported);
    return samples > 0 && samples <= kMaxSamples &&
           facts_.scan.file_size <= temporary_space() / kShareOfSpace;
}

std::string FixFinder::find(Api api, MediaKind kind, const IsFixed& is_fixed) {
    if (!is_worth_a_try()) return "";
    for (Candidate& candidate : candidates_) {
        if (!candidate.tried) run(candidate);
        if (!candidate.made) continue;
        const Host made = open_temporary(candidate.made);
        if (made == nullptr) continue;
        const bool is_salvage = (candidate.flags & KST_HINT_SALVAGE) != 0;
        if (is_fixed(try_playing(made.get(), api, kind, limits_), is_salvage))
            return candidate.command;
    }
    return "";
}

void FixFinder::run(Candidate& candidate) const {
    candidate.tried = true;
    candidate.made = temporary_file();
    if (!candidate.made) return;
    const uint64_t processors = std::max(std::thread::hardware_concurrency(), 1U);
    const ChildResult result = run_apart(limits_, [&] {
        limit_files(temporary_space() / kShareOfSpace / processors);
        DescriptorStream to(candidate.made.get());
        kst_hint_options options{};
        options.struct_size = sizeof options;
        options.flags = candidate.flags;
        const int done = kst_hint(kst_host_callbacks(facts_.host), to.table(), &options, nullptr);
        if (done != KST_HINT_DONE) return std::string();
        to.finish();
        return std::string("made");
    });
    if (result.report != "made") candidate.made = Descriptor();
}

}  // namespace tool
