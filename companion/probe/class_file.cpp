// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/class_file.h"

#include <algorithm>
#include <new>

#include "boxes/foreign_codec_hook.h"
#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/track_boxes.h"
#include "common/frame_limit.h"
#include "common/simple_exception.h"
#include "kestrel/c3gpinterface.h"

namespace {

thread_local bool is_met = false;

}  // namespace

// The library ends the process here; programs with this definition continue.
void Qvox3gp::meet_foreign_codec() {
    is_met = true;
}

namespace kestrel::probe {
namespace {

// Samples of one size, of which opening holds each place.
constexpr uint32_t kMaxOpened = 1 << 22;

uint32_t handler_of(MediaKind kind) {
    return Qvox3gp::code(kind == MediaKind::kAudio ? "soun" : "vide");
}

bool is_of(const Qvox3gp::TrakBox& trak, uint32_t handler) {
    const auto* mdia = trak.GetMdia();
    return mdia != nullptr && mdia->GetHdlr() != nullptr &&
           mdia->GetHdlr()->GetHandlerType() == handler;
}

bool hints(const Qvox3gp::TrakBox& trak, const Qvox3gp::TrakBox& media) {
    const auto* reference =
        trak.GetTref() != nullptr ? trak.GetTref()->GetTrackReferenceTypeBox() : nullptr;
    return is_of(trak, Qvox3gp::code("hint")) && reference != nullptr &&
           media.GetTkhd() != nullptr && reference->GetTrackID(0) == media.GetTkhd()->GetTrackId();
}

const Qvox3gp::StblBox* tables_of(const Qvox3gp::TrakBox& trak) {
    const auto* minf = trak.GetMdia() != nullptr ? trak.GetMdia()->GetMinf() : nullptr;
    return minf != nullptr ? minf->GetStbl() : nullptr;
}

bool has_all_tables(const Qvox3gp::TrakBox& trak) {
    const auto* tables = tables_of(trak);
    return tables != nullptr && trak.GetMdia()->GetMdhd() != nullptr && tables->GetStts() &&
           tables->GetStsz() && tables->GetStsc() && tables->GetStco();
}

// Of several that fit, the last one.
const Qvox3gp::TrakBox* find_track(const Qvox3gp::MoovBox* moov, auto fits) {
    if (moov == nullptr) return nullptr;
    const auto& traks = moov->GetTraks();
    const auto found = std::find_if(traks.rbegin(), traks.rend(), fits);
    return found == traks.rend() ? nullptr : *found;
}

const Qvox3gp::TrakBox* media_track(const Qvox3gp::MoovBox* moov, MediaKind kind) {
    return find_track(moov, [&](auto* trak) { return is_of(*trak, handler_of(kind)); });
}

// Returns the number of samples that are no more than a number in a box. Opening takes memory for
// each, and refuses those that exceed the file.
uint32_t countless_samples(const Qvox3gp::TrakBox* trak, uint64_t file_size) {
    const auto* tables = trak != nullptr ? tables_of(*trak) : nullptr;
    const auto* stsz = tables != nullptr ? tables->GetStsz() : nullptr;
    if (stsz == nullptr || stsz->GetSampleSize() == 0) return 0;
    const uint32_t count = stsz->GetSampleCount();
    return uint64_t{stsz->GetSampleSize()} * count <= file_size ? count : 0;
}

}  // namespace

ClassFile::ClassFile(KST_IOSTREAM_CALLBACK_INTERFACE* stream)
    : stream_(stream), boxes_(std::make_unique<Qvox3gp::Simple3gp>()) {
    is_met = false;
    stream->Seek(stream->Context, 0);
    unsigned int remarks = 0;
    const RemarkScope scope(remarks);
    try {
        boxes_->Read(stream_, 0);
    } catch (const SimpleException&) {
        // The class API refuses the file at the same place.
    }
    stream->Seek(stream->Context, 0);
    ends_process_ = is_met;
}

ClassFile::ClassFile(ClassFile&&) noexcept = default;
ClassFile& ClassFile::operator=(ClassFile&&) noexcept = default;
ClassFile::~ClassFile() = default;

int32_t ClassFile::open(MediaKind kind) const {
    const uint32_t samples =
        countless_samples(media_track(boxes_->GetMoov(), kind), boxes_->GetFileSizeRead());
    if (samples > kMaxTrackSamples) return KST_CORRUPT;
    if (samples > kMaxOpened) return track(kind) ? KST_SUCCESS : KST_NO_HINT_TRACK;
    C3gpInterface player;
    stream_->Seek(stream_->Context, 0);
    const auto status =
        static_cast<int32_t>(player.Open(stream_, kind == MediaKind::kAudio ? "ar" : "vr"));
    if (status == KST_NO_MEMORY) throw std::bad_alloc();
    return status;
}

std::optional<ClassFile::Track> ClassFile::track(MediaKind kind) const {
    const auto* media = media_track(boxes_->GetMoov(), kind);
    if (media == nullptr || !has_all_tables(*media)) return std::nullopt;
    const auto* hint =
        find_track(boxes_->GetMoov(), [&](auto* trak) { return hints(*trak, *media); });
    if (hint == nullptr || !has_all_tables(*hint)) return std::nullopt;
    return Track{places_of(*tables_of(*media)), places_of(*tables_of(*hint)),
                 media->GetMdia()->GetMdhd()->GetTimescale(),
                 hint->GetMdia()->GetMdhd()->GetTimescale()};
}

}  // namespace kestrel::probe
