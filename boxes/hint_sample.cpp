// SPDX-License-Identifier: Apache-2.0
#include "boxes/hint_sample.h"

#include <algorithm>

#include "boxes/fields.h"
#include "common/bytes.h"

namespace Qvox3gp {
namespace {

enum ConstructorKind : uint8_t { kImmediate = 1, kSample = 2 };

template <class F, class List>
void counted16(F& f, const List& list) {
    const auto count = static_cast<uint16_t>(list.size());
    f.u16("count", count);
}

}  // namespace

HintConstructor HintConstructor::immediate(std::span<const uint8_t> data) {
    HintConstructor made;
    const size_t size = std::min(data.size(), kMaxImmediate);
    made.raw[0] = kImmediate;
    made.raw[1] = static_cast<uint8_t>(size);
    std::copy_n(data.begin(), size, made.raw.begin() + 2);
    return made;
}

HintConstructor HintConstructor::sample(int8_t track, uint16_t length, uint32_t number,
                                        uint32_t offset) {
    HintConstructor made;
    made.raw[0] = kSample;
    made.raw[1] = static_cast<uint8_t>(track);
    kestrel::store_be16(&made.raw[2], length);
    kestrel::store_be32(&made.raw[4], number);
    kestrel::store_be32(&made.raw[8], offset);
    kestrel::store_be16(&made.raw[12], 1);  // bytes per compression block
    kestrel::store_be16(&made.raw[14], 1);  // samples per compression block
    return made;
}

template <class F, class Self>
void HintConstructor::fields(F& f, Self& self) {
    f.bytes("constructor", self.raw);
}

template <class F, class Self>
void HintPacket::fields(F& f, Self& self) {
    f.u32("relative_time", self.relative_time);
    f.u16("rtp_header", self.rtp_header);
    f.u16("sequence_seed", self.sequence_seed);
    f.u16("flags", self.flags);
    counted16(f, self.constructors);
    f.table("constructors", self.constructors, 0);
}

template <class F, class Self>
void CHintSample::fields(F& f, Self& self) {
    const uint16_t reserved = 0;
    counted16(f, self.packets);
    f.u16("reserved", reserved);
    f.table("packets", self.packets, 0);
}

std::vector<uint8_t> CHintSample::bytes() const {
    Stream none = nullptr;  // gathered only, never flushed
    FieldWriter writer(none);
    fields(writer, *this);
    return writer.pending();
}

}  // namespace Qvox3gp
