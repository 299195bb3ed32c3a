// SPDX-License-Identifier: Apache-2.0
#include "native/codec/video_fragment.h"

#include <cstring>

namespace kestrel {
namespace {

// Returns the last zero byte from `begin` on and before `end`; `end` for none.
size_t last_zero_byte(std::span<const uint8_t> bytes, size_t begin, size_t end) {
    const void* found = memrchr(bytes.data() + begin, 0, end - begin);
    if (found == nullptr) return end;
    return static_cast<size_t>(static_cast<const uint8_t*>(found) - bytes.data());
}

}  // namespace

VideoFragment cut_at_start_code(std::span<const uint8_t> sample, size_t begin, size_t budget) {
    constexpr size_t kFirstCut = 8;  // not before the fragment's own start code
    VideoFragment fragment;
    fragment.begin = begin;
    if (sample.size() - begin <= budget) {
        fragment.length = sample.size() - begin;
        return fragment;
    }
    fragment.length = budget;
    fragment.cut = CutAt::kAnywhere;
    const size_t first = begin + kFirstCut;
    for (size_t end = begin + budget; end > first + 1;) {
        const size_t zero = last_zero_byte(sample, first + 1, end);
        if (zero == end) break;
        if (sample[zero - 1] == 0) {
            fragment.length = zero - 1 - begin;
            fragment.cut = CutAt::kStartCode;
            break;
        }
        end = zero;
    }
    return fragment;
}

bool MacroblockCutter::find_boundary(size_t limit) {
    if (!started_) {
        started_ = true;
        if (picture_.size() > kNchMaxBytes) return false;
        if (nch_walk(state_, reader_, true) != kNchWalked) return false;
        fragment_macroblock_ = state_.macroblock;
    }
    for (size_t end = reader_.position(); end / 8 < limit; end = reader_.position()) {
        candidate_ = end;
        if (nch_walk(state_, reader_, false) != kNchWalked) return false;
    }
    return candidate_ != fragment_start_;  // false for a macroblock longer than a packet
}

VideoFragment MacroblockCutter::cut(size_t begin, size_t budget) {
    VideoFragment fragment;
    fragment.begin = begin;
    fragment.start_bit = walking_ ? fragment_start_ % 8 : 0;
    fragment.macroblock = fragment_macroblock_;
    if (picture_.size() - begin <= budget) {
        fragment.length = picture_.size() - begin;
        return fragment;
    }
    walking_ = walking_ && find_boundary(begin + budget);
    fragment.macroblock = fragment_macroblock_;
    if (!walking_) {
        fragment.length = budget;
        fragment.cut = CutAt::kAnywhere;
        return fragment;
    }
    fragment.end_bit = candidate_ % 8;
    fragment.length = (candidate_ + 7) / 8 - begin;
    fragment.cut = CutAt::kMacroblock;
    fragment_start_ = candidate_;
    fragment_macroblock_ = state_.macroblock;
    return fragment;
}

}  // namespace kestrel
