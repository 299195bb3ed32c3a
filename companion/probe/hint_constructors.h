// SPDX-License-Identifier: Apache-2.0
#ifndef KESTREL_COMPANION_PROBE_HINT_CONSTRUCTORS_H
#define KESTREL_COMPANION_PROBE_HINT_CONSTRUCTORS_H

#include <algorithm>
#include <span>

#include "common/byte_reader.h"
#include "native/codec/rtp_hint_sample.h"

namespace kestrel::probe {

// Calls `see` with each sample constructor of a hint sample (ISO/IEC 14496-12, 9.1.3), as far as it
// can be read.
template <typename See>
void for_each_sample_constructor(std::span<const uint8_t> hint_sample, See see) {
    ByteReader reader(hint_sample);
    const uint16_t packets = reader.u16();
    reader.skip(2);
    for (uint16_t packet = 0; packet < packets && reader.ok(); ++packet) {
        const auto raw = reader.take(kPacketEntrySize);
        if (!reader.ok()) return;
        const PacketEntry entry = load_packet_entry(raw.data());
        if (entry.has_extra_information())
            reader.skip(std::max(reader.u32(), kExtraLengthSize) - kExtraLengthSize);
        for (uint16_t i = 0; i < entry.constructors && reader.ok(); ++i) {
            const auto constructor = reader.take(kConstructorSize);
            if (reader.ok() && constructor[0] == kSampleConstructor)
                see(load_sample_constructor(constructor.data()));
        }
    }
}

}  // namespace kestrel::probe

#endif
