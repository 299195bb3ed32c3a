// SPDX-License-Identifier: Apache-2.0
// Any bytes as H.263 pictures: the walk goes forward, stays inside the picture, ends, and a copy of
// its record goes on as the record itself does.
#include <algorithm>

#include "fuzz/support/support.h"
#include "kestrel/codec.h"
#include "native/codec/h263_parse.h"

namespace {

using namespace fuzz;

size_t bits(const BitPosition& position) {
    return position.byte * 8 + position.bit;
}

void check_macroblock(const nch_state& state, size_t size) {
    const nch_macroblock& macroblock = state.macroblock;
    check(macroblock.first_bit < size * 8);
    check(macroblock.quantiser >= 1 && macroblock.quantiser <= 31);
    check(macroblock.address < state.picture.macroblocks());
}

void walk(nch_state& state, View picture) {
    BitPosition position;
    unsigned walked = 0;
    for (;;) {
        const size_t before = bits(position);
        const nch_macroblock last = state.macroblock;
        nch_state copy = state;
        BitPosition copy_position = position;
        const int result = get_start_of_mb(state, picture, position);
        check(position.bit < 8);
        if (walked % 16 == 0) {
            check(get_start_of_mb(copy, picture, copy_position) == result);
            check(copy_position == position);
            check(copy.macroblock.first_bit == state.macroblock.first_bit);
        }
        if (result != kNchWalked) {
            check(bits(position) == before);
            check(state.macroblock.first_bit == last.first_bit);
            if (result == kNchEndOfPicture) check(walked == state.picture.macroblocks());
            return;
        }
        check(bits(position) > before && bits(position) <= picture.size() * 8);
        check_macroblock(state, picture.size());
        check(++walked <= state.picture.macroblocks());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A block of its own for each picture, so that a read past it is seen. The parts that follow
    // a start code are walked one after another with one record.
    nch_state state{};
    size_t begin = 0;
    for (size_t at = 1; at <= size; ++at) {
        const bool starts =
            at + 2 < size && data[at] == 0 && data[at + 1] == 0 && (data[at + 2] & 0xFC) == 0x80;
        if (!starts && at != size) continue;
        const Bytes picture(data + begin, data + at);
        walk(state, picture);
        const int length = static_cast<int>(picture.size());
        H263VCFG cfg{};
        const uint32_t found =
            h263_get_config(picture.data(), static_cast<unsigned>(picture.size()), &cfg);
        check(found == 0xFFFFFFFF || found < picture.size());
        check((h263_get_frame_type(picture.data(), length) == -1) == (found == 0xFFFFFFFF));
        CheckForIFrame(picture.data(), length);
        check(FindStartCode(picture.data(), length, 0xB6) < length);
        begin = at;
    }
    return 0;
}
