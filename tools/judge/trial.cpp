// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/trial.h"

#include <cstring>
#include <type_traits>
#include <vector>

#include "kestrel/log.h"

namespace tool {
namespace {

static_assert(std::has_unique_object_representations_v<Trial>);

constexpr uint32_t kMaxRoom = 17 << 20;  // bytes of one delivery: a frame of 16 MiB and headers
constexpr uint32_t kMaxEmptyReads = 1 << 16;

const char* mode_of(MediaKind kind) {
    return kind == MediaKind::kAudio ? "ar" : "vr";
}

// Calls `read` until the stream ends or fails.
template <typename Read>
void play(Trial& trial, Read read) {
    std::vector<uint8_t> buffer(KST_LARGEST_CHUNK);
    MediaTally tally;
    uint32_t empty = 0;
    trial.opened = 1;
    trial.status = KST_SUCCESS;
    while (trial.status == KST_SUCCESS) {
        auto size = static_cast<uint32_t>(buffer.size());
        trial.status = read(buffer.data(), &size);
        if (trial.status == KST_BAD_ARGUMENT && size > buffer.size() && size <= kMaxRoom) {
            buffer.resize(size);  // the size that the call needs
            trial.status = KST_SUCCESS;
            continue;
        }
        tally.take({buffer.data(), std::min<size_t>(size, buffer.size())});
        trial.delivered += size;
        empty = size == 0 ? empty + 1 : 0;
        if (trial.status == KST_SUCCESS && empty > kMaxEmptyReads) trial.status = KST_FAILURE;
    }
    trial.counts = tally.counts();
    if (trial.status == KST_END_OF_FILE) trial.status = KST_SUCCESS;
}

Trial play_medium(kst_host* host, Api api, MediaKind kind) {
    Trial trial;
    int32_t status = KST_UNKNOWN_CODER;
    const bool arriving = kst_host_is_arriving(host) != 0;
    kst_host_rewind(host);
    if (api == Api::kFunction) {
        const Handle handle = open_track(host, mode_of(kind), status);
        trial.status = status;
        if (handle == nullptr) return trial;
        play(trial, [&](uint8_t* to, uint32_t* size) {
            return kst_ReadChunk(handle.get(), to, size, arriving);
        });
    } else {
        const ClassObject object = open_object(host, mode_of(kind), status);
        trial.status = status;
        if (object == nullptr) return trial;
        play(trial, [&](uint8_t* to, uint32_t* size) {
            return static_cast<int32_t>(object->ReadChunk(to, size, arriving));
        });
    }
    return trial;
}

}  // namespace

TrialResult try_playing(kst_host* host, Api api, MediaKind kind, const ChildLimits& limits) {
    const ChildResult result = run_apart(limits, [&] {
        sx_Debug = 0;
        const Trial trial = play_medium(host, api, kind);
        return std::string(reinterpret_cast<const char*>(&trial), sizeof trial);
    });
    TrialResult out{result.end, result.signal, {}};
    if (result.end != ChildResult::End::kReported) return out;
    if (result.report.size() == sizeof out.trial) {
        std::memcpy(&out.trial, result.report.data(), sizeof out.trial);
    } else {
        out.end = ChildResult::End::kFault;
    }
    return out;
}

}  // namespace tool
