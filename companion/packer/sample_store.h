// SPDX-License-Identifier: Apache-2.0
// Samples on their way from a stream to a file, and the packets that carried them.
#ifndef KESTREL_COMPANION_PACKER_SAMPLE_STORE_H
#define KESTREL_COMPANION_PACKER_SAMPLE_STORE_H

#include <cstdint>
#include <optional>
#include <span>

#include "companion/hinter/packet_plan.h"
#include "companion/packer/number_runs.h"
#include "companion/packer/spool.h"

namespace kestrel::packer {

class SampleStore {
  public:
    explicit SampleStore(bool with_packets) : with_packets_(with_packets) {}

    // Adds a sample. `time` wraps at 32 bits.
    void add(std::span<const uint8_t> bytes, uint32_t time, bool is_sync, uint64_t display_key);

    // Adds a hint sample for the `samples` samples that were added last. The packets' ranges count
    // samples from the first of these.
    void add_hint(const HintPackets& packets, uint32_t samples);
    // A hint sample would have too many packets. No more are taken.
    void leave_out_hints() { may_be_hinted_ = false; }

    size_t count() const { return sizes_.size(); }
    uint32_t size_of(size_t sample) const { return static_cast<uint32_t>(sizes_[sample]); }
    bool is_sync(size_t sample) const { return syncs_[sample] != 0; }
    // Decoding times in units of the stream, without their wrap at 32 bits.
    const NumberRuns& times() const { return times_; }
    // Samples are shown in the order of their keys.
    const NumberRuns& display_keys() const { return display_keys_; }
    // Reads bytes of samples, which stand one after the other in their order.
    bool read(uint64_t offset, std::span<uint8_t> to);
    // Whether a temporary file failed.
    bool failed() const { return failed_; }

    bool with_packets() const { return with_packets_ && may_be_hinted_; }
    // How many samples each hint sample stands for.
    const NumberRuns& hints() const { return hints_; }
    // False once there were packets that no hint sample can describe.
    bool may_be_hinted() const { return may_be_hinted_; }
    hinter::PacketPlan& packets() { return packets_; }
    size_t longest_packet() const { return longest_packet_; }  // bytes, RTP header included

  private:
    bool with_packets_;
    NumberRuns sizes_, times_, syncs_, display_keys_;
    Spool spool_;
    bool failed_ = false;
    std::optional<uint32_t> last_time_;
    NumberRuns hints_;
    bool may_be_hinted_ = true;
    hinter::PacketPlan packets_;
    size_t longest_packet_ = 0;
};

}  // namespace kestrel::packer

#endif
