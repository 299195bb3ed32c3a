// SPDX-License-Identifier: Apache-2.0
#include "companion/hinter/outcome.h"

namespace kestrel::hinter {

bool Outcome::fail(int result, const std::string& error) {
    if (has_failed()) return false;
    result_ = result;
    error_ = error;
    return false;
}

bool Outcome::advance(uint64_t bytes) {
    done_ += bytes;
    const bool is_due = done_ - reported_ >= kReportEvery || (bytes != 0 && done_ == all_);
    if (progress_ == nullptr || !is_due) return true;
    reported_ = done_;
    return progress_(context_, done_, all_) == 0 || fail(KST_HINT_CANCELLED, "cancelled");
}

}  // namespace kestrel::hinter
