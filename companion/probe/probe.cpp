// SPDX-License-Identifier: Apache-2.0
#include "kestrel/probe.h"

#include <array>
#include <exception>
#include <memory>
#include <new>

#include "common/host_table.h"
#include "companion/probe/reasons.h"
#include "companion/probe/track_info.h"
#include "companion/probe/watched_stream.h"
#include "interface/src/isoff/quiet.h"
#include "kestrel/hinter.h"
#include "kestrel/status.h"

// The exported functions.

using namespace kestrel::probe;

namespace {

struct Judgement {
    Reason reason = Reason::kNoTrack;
    uint32_t track_id = 0;
    std::string why;
    std::string fix;
    uint32_t hint_flags = 0;
    bool can_be_hinted = false;
    bool seeks_elsewhere = false;
};

}  // namespace

struct kst_probe {
    std::vector<kst_probe_track> tracks;
    std::array<std::array<Judgement, kMedia.size()>, kApis.size()> judgements;
};

namespace {

// The flags with which kst_hint may fix it.
void add_fix(const Subject& subject, Judgement& judgement) {
    const FileFacts& facts = subject.facts;
    if (!may_have_fix(subject, judgement.reason)) return;
    judgement.can_be_hinted = true;
    judgement.fix = "kestrel hint FILE";
    const auto add = [&](uint32_t flag, const char* option) {
        judgement.hint_flags |= flag;
        judgement.fix += option;
    };
    if (has_hints(facts.file.get())) add(KST_HINT_REPLACE, " --replace");
    const bool is_cut = lacks_media(subject) &&
                        (judgement.reason == Reason::kIncomplete || subject.track != nullptr);
    if (is_cut || !facts.imported.missing.empty()) add(KST_HINT_SALVAGE, " --salvage");
    judgement.fix += " -o OUT";
}

Judgement judge(const FileFacts& facts, const ClassFile& opened, Api api, MediaKind kind) {
    const Subject subject = subject_of(facts, api, kind);
    Judgement judgement;
    judgement.reason = reason_by_tables(subject, opened);
    if (judgement.reason == Reason::kNoTrack && facts.scan.is_3gp())
        judgement.reason = reason_for_no_media(facts);
    judgement.track_id = subject.track_id();
    if (api == Api::kClass && name_of(judgement.reason).code == KST_PROBE_NO_REASON)
        judgement.seeks_elsewhere = seeks_elsewhere(opened, kind);
    judgement.why = why_by_tables(subject, judgement.reason);
    if (subject.has_track()) add_fix(subject, judgement);
    return judgement;
}

int32_t probe_file(kst_probe** out, KST_IOSTREAM_CALLBACK_INTERFACE* host) {
    WatchedStream watched(host);
    KST_IOSTREAM_CALLBACK_INTERFACE* stream = watched.table();
    uint32_t length = 0;
    stream->GetStreamSize(stream->Context, &length);
    if (watched.status() != KST_SUCCESS) return watched.status();
    stream->Seek(stream->Context, 0);
    IsoFile file(kestrel::open_quietly(stream));
    if (file == nullptr) return KST_NO_MEMORY;
    const FileFacts facts = gather_facts(stream, std::move(file),
                                         [](auto& of, const auto&) { return import_tracks(of); });
    const ClassFile opened(stream);
    auto probe = std::make_unique<kst_probe>();
    probe->tracks = describe_tracks(facts);
    for (const Api api : kApis) {
        for (const MediaKind kind : kMedia) {
            probe->judgements[static_cast<size_t>(api)][static_cast<size_t>(kind)] =
                judge(facts, opened, api, kind);
        }
    }
    stream->Seek(stream->Context, 0);
    if (watched.status() == KST_SUCCESS) *out = probe.release();
    return watched.status();
}

}  // namespace

int32_t kst_probe_open(kst_probe** out, KST_IOSTREAM_CALLBACK_INTERFACE* stream) {
    if (out == nullptr) return KST_BAD_ARGUMENT;
    *out = nullptr;
    if (!kestrel::is_complete(stream)) return KST_BAD_ARGUMENT;
    try {
        return probe_file(out, stream);
    } catch (const std::exception&) {
        return KST_NO_MEMORY;
    }
}

void kst_probe_close(kst_probe* probe) {
    delete probe;
}

uint32_t kst_probe_tracks(const kst_probe* probe) {
    return probe == nullptr ? 0 : static_cast<uint32_t>(probe->tracks.size());
}

int32_t kst_probe_describe(const kst_probe* probe, uint32_t index, kst_probe_track* track) {
    if (probe == nullptr || track == nullptr || track->struct_size < sizeof *track)
        return KST_BAD_ARGUMENT;
    if (index >= probe->tracks.size()) return KST_NO_SUCH_TRACK;
    const uint32_t size = track->struct_size;
    *track = probe->tracks[index];
    track->struct_size = size;
    return KST_SUCCESS;
}

int32_t kst_probe_judge(const kst_probe* probe, int32_t api, int32_t medium,
                        kst_probe_verdict* verdict) {
    const bool exists = (api == KST_API_FUNCTION || api == KST_API_CLASS) &&
                        (medium == KST_MEDIUM_AUDIO || medium == KST_MEDIUM_VIDEO);
    if (probe == nullptr || !exists || verdict == nullptr ||
        verdict->struct_size < sizeof *verdict) {
        return KST_BAD_ARGUMENT;
    }
    const Judgement& found =
        probe->judgements[static_cast<size_t>(api)][static_cast<size_t>(medium)];
    verdict->reason = name_of(found.reason).code;
    verdict->track_id = found.track_id;
    verdict->word = verdict->reason == KST_PROBE_NO_REASON ? "no-reason" : word(found.reason);
    verdict->seeks_elsewhere = found.seeks_elsewhere ? 1 : 0;
    verdict->why = found.why.c_str();
    verdict->fix = found.fix.c_str();
    verdict->hint_flags = found.hint_flags;
    verdict->can_be_hinted = found.can_be_hinted ? 1 : 0;
    return KST_SUCCESS;
}
