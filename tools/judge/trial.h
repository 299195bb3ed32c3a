// SPDX-License-Identifier: Apache-2.0
// Playing a medium with one of the APIs, in a separate process.
#ifndef KESTREL_TOOLS_JUDGE_TRIAL_H
#define KESTREL_TOOLS_JUDGE_TRIAL_H

#include <cstdint>

#include "companion/probe/media_tracks.h"
#include "tools/judge/child_process.h"
#include "tools/judge/media_tally.h"
#include "tools/support.h"

namespace tool {

// The result of playing. Plain numbers, which the process passes as bytes.
struct Trial {
    uint64_t opened = 0;                 // 1 when it was
    int64_t status = KST_UNKNOWN_CODER;  // of the call that ended it; KST_SUCCESS for the end
    uint64_t delivered = 0;              // bytes of stream
    MediaCounts counts;
};

struct TrialResult {
    ChildResult::End end = ChildResult::End::kFault;
    int signal = 0;
    Trial trial;

    // Whether it opened, and delivered at least one frame up to the end of the stream.
    bool reached_end() const {
        return end == ChildResult::End::kReported && trial.opened != 0 &&
               trial.status == KST_SUCCESS && trial.counts.frames > 0;
    }
};

// Opens one medium with one API and plays it to its end. The host must be complete. Opening with
// the class API may end the process.
TrialResult try_playing(kst_host* host, Api api, MediaKind kind, const ChildLimits& limits);

}  // namespace tool

#endif
