#include "tools/judge/fix.h"

#include <algorithm>
#include <new>

#include "kestrel/hinter.h"
#include "tools/support.h"

namespace tool {
namespace {

constexpr uint32_t kMostBytes = 128 << 20;  // of a file
constexpr uint64_t kMostSamples = 1 << 20;  // of all its tracks

// Copies the file with hint tracks to `to`; false when that cannot be done.
bool hint_to(kst_host* host, bool replace, std::FILE* to) {
    wait_for_all(host);
    kst_host_rewind(host);
    const Host memory(kst_host_for_writing_memory());
    if (memory == nullptr) throw std::bad_alloc();
    kst_hint_options options = {};
    options.struct_size = sizeof options;
    options.flags = replace ? KST_HINT_REPLACE : 0;
    const int result =
        kst_hint(kst_host_callbacks(host), kst_host_callbacks(memory.get()), &options, nullptr);
    if (result != KST_HINT_DONE) return false;
    size_t size = 0;
    const void* bytes = kst_host_written(memory.get(), &size);
    return std::fwrite(bytes, 1, size, to) == size && std::fflush(to) == 0;
}

}  // namespace

FixFinder::FixFinder(const FileFacts& facts, const ChildLimits& limits)
    : facts_(facts), limits_(limits) {
    // A file that has hints, even of no use, is hinted anew only when asked to.
    const bool replace = has_hints(facts.file.get());
    candidates_.push_back({replace ? "hint --replace" : "hint", replace, false, nullptr});
}

bool FixFinder::is_worth_a_try() const {
    uint64_t samples = 0;
    for (const iso_track* track = facts_.file->first_track; track != nullptr; track = track->next)
        samples += static_cast<uint32_t>(std::max(track->sample_count, 0));
    for (const ImportedTrack& track : facts_.imported)
        samples += track.samples;
    return facts_.scan.file_size <= kMostBytes && samples > 0 && samples <= kMostSamples;
}

std::string FixFinder::find(Api api, MediaKind kind,
                            const std::function<bool(const TrialResult&)>& is_fixed) {
    if (!is_worth_a_try()) return "";
    for (Candidate& candidate : candidates_) {
        if (!candidate.tried) run(candidate);
        if (candidate.made == nullptr) continue;
        const std::string path = "/proc/self/fd/" + std::to_string(fileno(candidate.made.get()));
        const Host hinted(kst_host_from_file(path.c_str()));
        if (hinted == nullptr) continue;
        if (is_fixed(try_playing(hinted.get(), api, kind, limits_))) return candidate.command;
    }
    return "";
}

void FixFinder::run(Candidate& candidate) const {
    candidate.tried = true;
    candidate.made.reset(std::tmpfile());
    if (candidate.made == nullptr) return;
    ChildLimits limits = limits_;
    limits.memory += 3 * uint64_t{facts_.scan.file_size};  // the copy, as it is written
    const ChildResult result = run_apart(limits, [&] {
        const bool done = hint_to(facts_.host, candidate.replace, candidate.made.get());
        return std::string(done ? "1" : "");
    });
    if (result.report != "1") candidate.made.reset();
}

}  // namespace tool
