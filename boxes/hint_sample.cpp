// SPDX-License-Identifier: Apache-2.0
#include "boxes/hint_sample.h"

#include <algorithm>

#include "boxes/fields.h"
#include "native/codec/rtp_hint_sample.h"

namespace Qvox3gp {
namespace {

template <class F, class List>
void counted16(F& f, const List& list) {
    const auto count = static_cast<uint16_t>(list.size());
    f.u16("count", count);
}

}  // namespace

HintConstructor HintConstructor::immediate(std::span<const uint8_t> data) {
    HintConstructor made;
    kestrel::store_immediate_constructor(
        made.raw.data(), data.first(std::min<size_t>(data.size(), kestrel::kMaxImmediate)));
    return made;
}

HintConstructor HintConstructor::sample(int8_t track, uint16_t length, uint32_t number,
                                        uint32_t offset) {
    HintConstructor made;
    kestrel::store_sample_constructor(made.raw.data(),
                                      {static_cast<uint8_t>(track), length, number, offset});
    return made;
}

void HintConstructor::fields(auto& f, auto& self) {
    f.bytes("constructor", self.raw);
}

void HintPacket::fields(auto& f, auto& self) {
    f.u32("relative_time", self.relative_time);
    f.u16("rtp_header", self.rtp_header);
    f.u16("sequence_seed", self.sequence_seed);
    f.u16("flags", self.flags);
    counted16(f, self.constructors);
    f.table("constructors", self.constructors, 0);
}

void CHintSample::fields(auto& f, auto& self) {
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
