// SPDX-License-Identifier: Apache-2.0
// Samples on their way from a stream to a file, and the packets that carried them.
#ifndef KESTREL_COMPANION_PACKER_SAMPLE_STORE_H
#define KESTREL_COMPANION_PACKER_SAMPLE_STORE_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "companion/hinter/packet_plan.h"
#include "companion/packer/spool.h"

namespace kestrel::packer {

struct Sample {
    uint64_t offset = 0;       // in the spool
    uint64_t time = 0;         // decoding time in units of the stream, without its wrap at 32 bits
    uint64_t display_key = 0;  // samples are shown in the order of their keys
    uint32_t size = 0;
    bool is_sync = true;
};

class SampleStore {
  public:
    explicit SampleStore(bool with_packets) : with_packets_(with_packets) {}

    // Adds a sample. `time` wraps at 32 bits.
    void add(std::span<const uint8_t> bytes, uint32_t time, bool is_sync, uint64_t display_key);

    // Adds a hint sample for the `samples` samples that were added last. The packets' ranges count
    // samples from the first of these.
    void add_hint(const HintPackets& packets, uint32_t samples);

    const std::vector<Sample>& samples() const { return samples_; }
    // Reads bytes of samples, which stand one after the other in their order.
    bool read(uint64_t offset, std::span<uint8_t> to);
    // Whether a temporary file failed.
    bool failed() const { return failed_; }

    bool with_packets() const { return with_packets_; }
    // How many samples each hint sample stands for.
    const std::vector<uint32_t>& hints() const { return hints_; }
    hinter::PacketPlan& packets() { return packets_; }
    size_t longest_packet() const { return longest_packet_; }  // bytes, RTP header included

  private:
    bool with_packets_;
    std::vector<Sample> samples_;
    Spool spool_;
    bool failed_ = false;
    std::optional<uint32_t> last_time_;
    std::vector<uint32_t> hints_;
    hinter::PacketPlan packets_;
    size_t longest_packet_ = 0;
};

}  // namespace kestrel::packer

#endif
