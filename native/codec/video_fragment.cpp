#include "native/codec/video_fragment.h"

namespace kestrel {

VideoFragment cut_at_start_code(std::span<const uint8_t> sample, size_t begin, size_t budget) {
    constexpr size_t kFirstCut = 8;  // a fragment is not cut in front of its own start code
    VideoFragment fragment;
    fragment.begin = begin;
    if (sample.size() - begin <= budget) {
        fragment.length = sample.size() - begin;
        return fragment;
    }
    fragment.length = budget;
    fragment.cut = CutAt::kAnywhere;
    for (size_t i = begin + budget - 1; i-- > begin + kFirstCut;) {
        if (sample[i] != 0 || sample[i + 1] != 0) continue;
        fragment.length = i - begin;
        fragment.cut = CutAt::kStartCode;
        break;
    }
    return fragment;
}

bool MacroblockCutter::find_boundary(size_t limit) {
    if (!started_) {
        started_ = true;
        if (get_start_of_mb(state_, picture_, next_) != kNchWalked) return false;
        fragment_macroblock_ = state_.macroblock;
    }
    while (next_.byte < limit) {
        candidate_ = next_;
        if (get_start_of_mb(state_, picture_, next_) != kNchWalked) return false;
    }
    return candidate_ != fragment_start_;  // a macroblock that is longer than a packet
}

VideoFragment MacroblockCutter::cut(size_t begin, size_t budget) {
    VideoFragment fragment;
    fragment.begin = begin;
    fragment.start_bit = walking_ ? fragment_start_.bit : 0;
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
    fragment.end_bit = candidate_.bit;
    fragment.length = candidate_.byte - begin + (candidate_.bit != 0 ? 1 : 0);
    fragment.cut = CutAt::kMacroblock;
    fragment_start_ = candidate_;
    fragment_macroblock_ = state_.macroblock;
    return fragment;
}

}  // namespace kestrel
