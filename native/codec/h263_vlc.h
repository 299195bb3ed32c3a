// SPDX-License-Identifier: Apache-2.0
// The variable-length codes of the H.263 macroblock layer (ITU-T H.263, 5.3 and 5.4, Annex D).
#ifndef KESTREL_NATIVE_H263_VLC_H
#define KESTREL_NATIVE_H263_VLC_H

#include <cstdint>

#include "common/bit_reader.h"

namespace kestrel {

// MB type of Tables 7 and 8 (the standard's own numbers).
enum class MbType : uint8_t {
    kInter = 0,
    kInterQ = 1,
    kInter4V = 2,
    kIntra = 3,
    kIntraQ = 4,
    kInter4VQ = 5,
    kStuffing = 6,  // no macroblock: padding bits of the encoder
};

constexpr bool is_intra(MbType type) {
    return type == MbType::kIntra || type == MbType::kIntraQ;
}
constexpr bool has_four_vectors(MbType type) {
    return type == MbType::kInter4V || type == MbType::kInter4VQ;
}
constexpr bool has_dquant(MbType type) {
    return type == MbType::kInterQ || type == MbType::kIntraQ || type == MbType::kInter4VQ;
}

// MCBPC: the type, and which chrominance blocks have coefficients (bit 1 is CB, bit 0 is CR).
struct Mcbpc {
    MbType type = MbType::kStuffing;
    unsigned chroma = 0;
};

// Each reader moves after its code. Returns false when no code of its table matches. A read past
// the end shows in the BitReader only.
bool read_mcbpc_intra(BitReader& reader, Mcbpc& mcbpc);
bool read_mcbpc_inter(BitReader& reader, Mcbpc& mcbpc);

// CBPY in its meaning for intra macroblocks, four bits, block 1 in the highest. For inter
// macroblocks the same code means the complement.
bool read_cbpy_intra(BitReader& reader, unsigned& cbpy);

// A motion vector difference of Table 14, in half pixels, -32..32.
bool read_mvd(BitReader& reader, int& difference);

// A motion vector difference of the reversible code of Table D.3, in half pixels, -4095..4095.
bool read_reversible_mvd(BitReader& reader, int& difference);

// Skips the six blocks of a macroblock (5.4): INTRADC of each if `has_dc`, and the TCOEF events of
// those in `coded_blocks` (block 1 in the highest of six bits), each up to the event with LAST set.
// Returns false for an invalid INTRADC, for bits that are no code word and for a block of more than
// 64 events. `extended_level` allows the long escape of Annex T. In the tables of Annexes I and S
// the code words have other runs and levels but the same LAST.
bool skip_blocks(BitReader& reader, unsigned coded_blocks, bool has_dc, bool extended_level);

}  // namespace kestrel

#endif
