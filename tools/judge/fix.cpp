// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/fix.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <span>

#include "kestrel/hinter.h"

namespace tool {
namespace {

constexpr uint32_t kMaxBytes = 128 << 20;  // of a file
constexpr uint64_t kMaxSamples = 1 << 20;  // of all its tracks

// A file without a name in the folder for temporary files; none when there can be none.
Descriptor temporary_file() {
    std::error_code failure;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(failure);
    if (failure) return Descriptor();
    Descriptor nameless(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (nameless) return nameless;
    std::string name = (folder / "kestrel-XXXXXX").string();
    Descriptor named(mkostemp(name.data(), O_CLOEXEC));
    if (named) unlink(name.c_str());
    return named;
}

// A stream table that writes to a descriptor, in order.
class DescriptorStream {
  public:
    explicit DescriptorStream(int descriptor)
        : output_(dup(descriptor), "temporary file"), table_{this,        get_offset, seek,
                                                             read,        write,      length,
                                                             is_eof,      index_read, advance,
                                                             check_status} {}

    KST_IOSTREAM_CALLBACK_INTERFACE* table() { return &table_; }
    void finish() { output_.finish(); }

  private:
    static DescriptorStream& self(void* context) {
        return *static_cast<DescriptorStream*>(context);
    }
    static uint32_t get_offset(void* context, uint32_t* offset) {
        *offset = static_cast<uint32_t>(self(context).output_.written());
        return KST_HOST_OK;
    }
    static uint32_t seek(void* context, uint32_t offset) {
        return offset == self(context).output_.written() ? KST_HOST_OK : KST_HOST_FAILED;
    }
    static uint32_t read(void*, void*, uint32_t* count, int32_t) {
        *count = 0;
        return KST_HOST_OK;
    }
    static uint32_t write(void* context, const void* data, uint32_t count, int32_t) {
        try {
            self(context).output_.write({static_cast<const uint8_t*>(data), count});
            return KST_HOST_OK;
        } catch (const Error&) {
            return KST_HOST_FAILED;
        }
    }
    static uint32_t length(void* context, uint32_t* size) { return get_offset(context, size); }
    static uint32_t is_eof(void*) { return 1; }
    static uint32_t index_read(void*, void*, uint32_t, uint32_t, uint32_t* bytes_read) {
        *bytes_read = 0;
        return KST_HOST_OK;
    }
    static uint32_t advance(void*, uint32_t) { return KST_HOST_OK; }
    static uint32_t check_status(void*, uint32_t* result, uint32_t status) {
        *result = status;
        return KST_HOST_OK;
    }

    Output output_;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

bool is_cut(const FileFacts& facts) {
    if (facts.scan.movie_is_cut) return false;  // nothing whole is found then
    const auto& boxes = facts.scan.boxes;
    return std::any_of(boxes.begin(), boxes.end(), [](const TopBox& box) { return box.cut; });
}

}  // namespace

FixFinder::FixFinder(const FileFacts& facts, const ChildLimits& limits)
    : facts_(facts), limits_(limits) {
    // A file that has hints, even of no use, is hinted anew only when asked to.
    const bool replace = has_hints(facts.file.get());
    const std::string command = replace ? "hint --replace" : "hint";
    const uint32_t flags = replace ? KST_HINT_REPLACE : 0;
    const auto add = [&](const char* option, uint32_t flag) {
        candidates_.push_back({command + option, flags | flag, false, Descriptor()});
    };
    add("", 0);
    add(" --drop-others", KST_HINT_DROP_OTHERS);
    if (is_cut(facts)) add(" --salvage", KST_HINT_SALVAGE);
}

bool FixFinder::is_worth_a_try() const {
    uint64_t samples = 0;
    for (const iso_track* track = facts_.file->first_track; track != nullptr; track = track->next)
        samples += static_cast<uint32_t>(std::max(track->sample_count, 0));
    for (const ImportedTrack& track : facts_.imported)
        samples += track.samples;
    return facts_.scan.file_size <= kMaxBytes && samples > 0 && samples <= kMaxSamples;
}

std::string FixFinder::find(Api api, MediaKind kind, const IsFixed& is_fixed) {
    if (!is_worth_a_try()) return "";
    for (Candidate& candidate : candidates_) {
        if (!candidate.tried) run(candidate);
        if (!candidate.made) continue;
        const std::string path = "/proc/self/fd/" + std::to_string(candidate.made.get());
        const Host made(kst_host_from_file(path.c_str()));
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
    const ChildResult result = run_apart(limits_, [&] {
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
