// SPDX-License-Identifier: Apache-2.0
#ifndef KESTREL_COMPANION_PROBE_HINT_CONSTRUCTORS_H
#define KESTREL_COMPANION_PROBE_HINT_CONSTRUCTORS_H

#include <algorithm>
#include <span>

#include "common/byte_reader.h"
#include "native/codec/rtp_hint_sample.h"

namespace kestrel::probe {

// Calls `see` with each packet entry of a hint sample (ISO/IEC 14496-12, 9.1.3) and its
// constructors of kConstructorSize bytes each: fewer than it declares where the sample ends before.
// Returns whether all were there.
template <typename See>
bool for_each_packet_entry(std::span<const uint8_t> hint_sample, See see) {
    ByteReader reader(hint_sample);
    const uint16_t packets = reader.u16();
    reader.skip(2);
    for (uint16_t packet = 0; packet < packets && reader.ok(); ++packet) {
        const auto raw = reader.take(kPacketEntrySize);
        if (!reader.ok()) return false;
        const PacketEntry entry = load_packet_entry(raw.data());
        if (entry.has_extra_information())
            reader.skip(std::max(reader.u32(), kExtraLengthSize) - kExtraLengthSize);
        const size_t there =
            std::min<size_t>(entry.constructors, reader.remaining() / kConstructorSize);
        see(entry, reader.take(there * kConstructorSize));
        if (there < entry.constructors) return false;
    }
    return reader.ok();
}

// Calls `see` with each sample constructor of a packet entry.
template <typename See>
void for_each_sample_constructor_of(std::span<const uint8_t> constructors, See see) {
    for (; !constructors.empty(); constructors = constructors.subspan(kConstructorSize)) {
        if (constructors[0] == kSampleConstructor)
            see(load_sample_constructor(constructors.data()));
    }
}

// Calls `see` with each sample constructor of a hint sample, as far as it can be read.
template <typename See>
void for_each_sample_constructor(std::span<const uint8_t> hint_sample, See see) {
    for_each_packet_entry(hint_sample,
                          [&](const PacketEntry&, std::span<const uint8_t> constructors) {
                              for_each_sample_constructor_of(constructors, see);
                          });
}

}  // namespace kestrel::probe

#endif
