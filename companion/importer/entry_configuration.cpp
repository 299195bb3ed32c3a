// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/sample_entry.h"

namespace kestrel::importer {

namespace {

// Children of an entry that change neither decoding nor display.
constexpr std::uint32_t kInformative[] = {fourcc("btrt"), fourcc("free"), fourcc("skip")};

// The length of a descriptor (ISO/IEC 14496-1, 8.3.3).
std::uint32_t descriptor_length(BoxReader& reader) {
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i) {
        const std::uint8_t byte = reader.u8();
        length = length << 7 | (byte & 0x7F);
        if ((byte & 0x80) == 0) break;
    }
    return length;
}

// Reads the object type and the decoder's own bytes of an esds. The identifiers, buffer sizes and
// bit rates of an elementary stream descriptor (ISO/IEC 14496-1, 7.2.6.5) do not affect decoding.
Bytes esds_configuration(Source& source, const Box& esds) {
    constexpr std::uint8_t kStreamTag = 3;
    constexpr std::uint8_t kDecoderTag = 4;
    constexpr unsigned kDependsOn = 0x80, kHasLocation = 0x40, kHasClock = 0x20;
    BoxReader reader(source, esds);
    reader.skip(4);  // version and flags
    const bool stream = reader.u8() == kStreamTag;
    descriptor_length(reader);
    reader.skip(2);  // identifier
    const std::uint8_t flags = reader.u8();
    if ((flags & kDependsOn) != 0) reader.skip(2);
    if ((flags & kHasLocation) != 0) reader.skip(reader.u8());
    if ((flags & kHasClock) != 0) reader.skip(2);
    const bool decoder = reader.u8() == kDecoderTag;
    descriptor_length(reader);
    Bytes bytes = reader.bytes(2);  // object type, stream type
    reader.skip(11);                // buffer size, bit rates
    append(bytes, reader.bytes(reader.left()));
    return stream && decoder && !reader.failed() ? bytes : whole_box(source, esds);
}

}  // namespace

Bytes configuration(Source& source, const SampleEntry& entry) {
    Bytes key;
    append_be(key, entry.box.type, 4);
    for (const std::uint32_t value : {std::uint32_t{entry.width}, std::uint32_t{entry.height},
                                      entry.channels, entry.sample_bits, entry.sample_rate}) {
        append_be(key, value, 4);
    }
    const auto add = [&](const Box& child) {
        if (child.type == fourcc("esds")) {
            append(key, esds_configuration(source, child));
        } else if (!contains(kInformative, child.type)) {
            append(key, whole_box(source, child));
        }
    };
    const bool boxes = each_child(source, entry.children, entry.box.end, [&](const Box& child) {
        const bool wave = entry.quicktime_sound && child.type == fourcc("wave");
        if (!wave || !each_child(source, child.body, child.end, add)) add(child);
    });
    if (!boxes || entry.children == entry.box.end) append(key, whole_box(source, entry.box));
    return key;
}

}  // namespace kestrel::importer
