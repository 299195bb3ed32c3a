// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/au_headers.h"

#include <cstdlib>

#include "common/bit_reader.h"
#include "common/byte_reader.h"

namespace kestrel::packer {

void AuHeaders::add(std::span<const uint8_t> section) {
    constexpr unsigned kLongest = 1 + BitReader::kMaxBits;  // DTS-flag, DTS-delta
    any_ = any_ || !section.empty();
    if (!alike_) return;
    alike_ = false;
    if (section.size() <= 2) return;
    const unsigned header = load_be16(section.data());
    if (header < 2 || header > kLongest) return;
    BitReader reader(section.subspan(2));
    const bool has_delta = reader.flag();
    const uint32_t delta = reader.get(header - 1);
    alike_ = has_delta && reader.ok() && (bits_ == 0 || bits_ == header - 1) &&
             delta_.value_or(delta) == delta;
    bits_ = header - 1;
    delta_ = delta;
}

void AuHeaders::end_picture() {
    deltas_.push_back(delta_.value_or(0));
    alike_ = alike_ && (delta_ || !any_);
    delta_.reset();
}

unsigned AuHeaders::dts_delta_bits(const Timeline& timeline) const {
    constexpr int64_t kMillisecond = 1000;
    if (!any_ || !alike_ || deltas_.size() != timeline.times.size()) return 0;
    for (size_t i = 0; i < deltas_.size(); ++i) {
        const int64_t apart = static_cast<int64_t>(deltas_[i]) - timeline.composition_of(i);
        if (std::abs(apart) * kMillisecond > timeline.timescale) return 0;
    }
    return bits_;
}

}  // namespace kestrel::packer
