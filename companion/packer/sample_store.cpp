// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/sample_store.h"

#include <algorithm>

namespace kestrel::packer {

void SampleStore::add(std::span<const uint8_t> bytes, uint32_t time, bool is_sync,
                      uint64_t display_key) {
    Sample sample;
    sample.offset = spool_.size();
    sample.size = static_cast<uint32_t>(bytes.size());
    sample.is_sync = is_sync;
    sample.display_key = display_key;
    // Half the range or more ahead is a step back, which decoding times never take.
    const uint32_t step = time - last_time_.value_or(time);
    const bool goes_back = step > INT32_MAX;
    sample.time = samples_.empty() ? time : samples_.back().time + (goes_back ? 0 : step);
    if (!goes_back) last_time_ = time;
    if (!spool_.append(bytes)) {
        failed_ = true;
        return;
    }
    samples_.push_back(sample);
}

bool SampleStore::read(uint64_t offset, std::span<uint8_t> to) {
    if (!spool_.read(offset, to)) failed_ = true;
    return !failed_;
}

void SampleStore::add_hint(const HintPackets& packets, uint32_t samples) {
    if (failed_) return;
    for (size_t i = 0; i < packets.size(); ++i)
        longest_packet_ = std::max(longest_packet_, packets[i].size());
    packets_.add(packets);
    hints_.push_back(samples);
}

}  // namespace kestrel::packer
