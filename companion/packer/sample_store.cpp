// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/sample_store.h"

#include <algorithm>

namespace kestrel::packer {

void SampleStore::add(std::span<const uint8_t> bytes, uint32_t time, bool is_sync,
                      uint64_t display_key) {
    if (failed_) return;
    if (!spool_.append(bytes)) {
        failed_ = true;
        return;
    }
    // Half the range or more ahead is a step back, which decoding times never take.
    const uint32_t step = time - last_time_.value_or(time);
    const bool goes_back = step > INT32_MAX;
    times_.push_back(times_.empty() ? time : times_.back() + (goes_back ? 0 : step));
    if (!goes_back) last_time_ = time;
    sizes_.push_back(bytes.size());
    syncs_.push_back(is_sync ? 1 : 0);
    display_keys_.push_back(display_key);
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
