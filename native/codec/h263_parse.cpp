// SPDX-License-Identifier: Apache-2.0
#include "native/codec/h263_parse.h"

#include <algorithm>

#include "native/codec/h263_vlc.h"

using kestrel::BitReader;
using kestrel::MbType;

namespace {

constexpr unsigned kStartCodeBits = 17;  // sixteen zeros and a one: GBSC, SSC and most of PSC
constexpr unsigned kStartCodeZeros = 16;
constexpr unsigned kQuantiserBits = 5;
constexpr unsigned kGfidBits = 2;
constexpr int kLargestQuantiser = 31;

// ---- Picture layer (5.1) ----

constexpr unsigned kPlusFormat = 7;  // PTYPE: PLUSPTYPE has the format

// Which parts of PLUSPTYPE (5.1.4) are present.
struct PlusHeader {
    bool full = false;           // UFEP 001: OPPTYPE and the fields that go with it
    bool custom_format = false;  // CPFMT
};

bool set_standard_size(nch_picture& picture) {
    struct Size {
        uint16_t width;
        uint16_t height;
    };
    constexpr Size kSizes[] = {{128, 96}, {176, 144}, {352, 288}, {704, 576}, {1408, 1152}};
    if (picture.source_format < kNchSubQcif || picture.source_format > kNch16Cif) return false;
    const Size& size = kSizes[picture.source_format - kNchSubQcif];
    picture.width = size.width;
    picture.height = size.height;
    return true;
}

bool parse_quantiser(BitReader& reader, uint8_t& quantiser) {
    quantiser = static_cast<uint8_t>(reader.get(kQuantiserBits));
    return quantiser != 0;
}

// PTYPE from bit 9 on, where the format is a standard one.
bool parse_ptype(BitReader& reader, unsigned format, nch_picture& picture) {
    picture.source_format = static_cast<uint8_t>(format);
    picture.modes = {};
    picture.coding_type = reader.flag() ? kNchInter : kNchIntra;
    picture.modes.unrestricted_vectors = reader.flag();
    const bool arithmetic_coding = reader.flag();
    picture.modes.advanced_prediction = reader.flag();
    const bool pb_frames = reader.flag();
    return set_standard_size(picture) && !arithmetic_coding && !pb_frames;
}

// OPPTYPE (5.1.4.2).
bool parse_opptype(BitReader& reader, nch_picture& picture, PlusHeader& header) {
    constexpr unsigned kTailBits = 4;
    constexpr uint32_t kTail = 0b1000;
    nch_modes modes;
    modes.plus = true;
    picture.source_format = static_cast<uint8_t>(reader.get(3));
    modes.custom_clock = reader.flag();
    modes.unrestricted_vectors = reader.flag();
    const bool arithmetic_coding = reader.flag();
    modes.advanced_prediction = reader.flag();
    modes.advanced_intra = reader.flag();
    modes.deblocking = reader.flag();
    modes.slices = reader.flag();
    const bool reference_selection = reader.flag();
    const bool independent_segments = reader.flag();
    modes.alternative_inter_vlc = reader.flag();
    modes.modified_quantisation = reader.flag();
    picture.modes = modes;
    header.custom_format = picture.source_format == kNchCustom;
    return reader.get(kTailBits) == kTail && !arithmetic_coding && !reference_selection &&
           !independent_segments && (header.custom_format || set_standard_size(picture));
}

// MPPTYPE (5.1.4.3).
bool parse_mpptype(BitReader& reader, nch_picture& picture) {
    constexpr unsigned kTailBits = 3;
    constexpr uint32_t kTail = 0b001;
    const uint32_t type = reader.get(3);
    const bool resampling = reader.flag();
    const bool reduced_resolution = reader.flag();
    reader.skip(1);  // RTYPE
    picture.coding_type = static_cast<uint8_t>(type);
    return reader.get(kTailBits) == kTail && type <= kNchInter && !resampling &&
           !reduced_resolution;
}

// CPFMT and EPAR (5.1.5, 5.1.6).
bool parse_custom_format(BitReader& reader, nch_picture& picture) {
    constexpr uint32_t kExtendedAspect = 15;
    constexpr unsigned kEparBits = 16;
    constexpr uint32_t kTallest = 1152 / 4;
    const uint32_t aspect = reader.get(4);
    const uint32_t width = reader.get(9) + 1;
    const bool marker = reader.flag();
    const uint32_t height = reader.get(9);
    picture.width = static_cast<uint16_t>(width * 4);
    picture.height = static_cast<uint16_t>(height * 4);
    if (aspect == kExtendedAspect) reader.skip(kEparBits);
    return aspect != 0 && marker && height != 0 && height <= kTallest;
}

// UUI (5.1.9): "1" or "01". The range of vectors does not change their coding.
bool parse_uui(BitReader& reader) {
    return reader.flag() || reader.flag();
}

// SSS (5.1.10).
bool parse_sss(BitReader& reader, nch_modes& modes) {
    const bool rectangular = reader.flag();
    modes.arbitrary_slice_order = reader.flag();
    return !rectangular;
}

// PLUSPTYPE and the fields after it, up to PQUANT.
bool parse_plusptype(BitReader& reader, nch_picture& picture) {
    constexpr uint32_t kReducedUfep = 0;
    constexpr uint32_t kFullUfep = 1;
    constexpr unsigned kCpcfcBits = 8;
    constexpr unsigned kEtrBits = 2;
    const uint32_t ufep = reader.get(3);
    PlusHeader header;
    header.full = ufep == kFullUfep;
    if (!header.full && (ufep != kReducedUfep || picture.source_format == 0)) return false;
    if (header.full && !parse_opptype(reader, picture, header)) return false;
    if (!parse_mpptype(reader, picture)) return false;
    picture.modes.plus = true;
    if (reader.flag()) return false;  // CPM: several bitstreams in one
    if (header.custom_format && !parse_custom_format(reader, picture)) return false;
    if (header.full && picture.modes.custom_clock) reader.skip(kCpcfcBits);
    if (picture.modes.custom_clock) reader.skip(kEtrBits);
    if (header.full && picture.modes.unrestricted_vectors && !parse_uui(reader)) return false;
    if (header.full && picture.modes.slices && !parse_sss(reader, picture.modes)) return false;
    return parse_quantiser(reader, picture.quantiser);
}

// PEI and PSUPP (5.1.24, 5.1.25).
bool skip_supplements(BitReader& reader) {
    constexpr unsigned kPsuppBits = 8;
    while (reader.flag())
        reader.skip(kPsuppBits);
    return reader.ok();
}

// ---- GOB and slice layers (5.2, Annex K) ----

// GSTUF or SSTUF, fewer than eight zeros, and the start code after them.
bool skip_start_code(BitReader& reader) {
    constexpr unsigned kMaxStuffing = 7;
    for (unsigned i = 0; i < kMaxStuffing && reader.peek(kStartCodeBits) == 0; ++i)
        reader.skip(1);
    return reader.get(kStartCodeBits) == 1;
}

void start_segment(nch_state& state, unsigned address) {
    state.next.move_to(state.picture, address);
    state.segment_start = address;
}

// Number of bits of MBA (Annex K).
unsigned slice_address_bits(const nch_picture& picture) {
    struct Width {
        unsigned largest;
        unsigned bits;
    };
    constexpr Width kWidths[] = {{47, 6}, {98, 7}, {395, 9}, {1583, 11}, {6335, 13}};
    constexpr unsigned kWidest = 14;
    for (const Width& width : kWidths) {
        if (picture.macroblocks() - 1 <= width.largest) return width.bits;
    }
    return kWidest;
}

bool parse_slice_address(BitReader& reader, const nch_state& state, unsigned& address) {
    address = reader.get(slice_address_bits(state.picture));
    return address < state.picture.macroblocks() &&
           (state.picture.modes.arbitrary_slice_order || address == state.next.address);
}

// SEPB2 keeps a long MBA and SQUANT together from imitating a start code.
bool parse_sepb2(BitReader& reader, const nch_picture& picture) {
    constexpr unsigned kLongestWithout = 11;
    return slice_address_bits(picture) <= kLongestWithout || reader.flag();
}

// ---- Motion vectors (6.1.1, Annexes D and F) ----

// The vectors of the four luminance blocks.
using BlockVectors = std::array<nch_vector, 4>;

// The vectors of a macroblock: zeros where it has none.
struct MbVectors {
    nch_vector predictor;        // of the first, even where there is no vector
    nch_vector third_predictor;  // of the third, where there are four
    BlockVectors blocks{};
};

int16_t median(int a, int b, int c) {
    return static_cast<int16_t>(std::max(std::min(a, b), std::min(std::max(a, b), c)));
}

nch_vector median(nch_vector a, nch_vector b, nch_vector c) {
    return {median(a.x, b.x, c.x), median(a.y, b.y, c.y)};
}

// The predictor of block 1 or 2 (index 0 or 1) from the candidate on its left. When the macroblock
// above is outside, the left one replaces it and is the result.
inline nch_vector predict_upper(const nch_state& state, size_t block, nch_vector left) {
    const nch_place& place = state.next;
    if (place.address < state.segment_start + place.columns) return left;
    const unsigned right = place.column + 1;
    const nch_vector above_right = right < place.columns ? state.above[right][0] : nch_vector{};
    return median(left, state.above[place.column][block], above_right);
}

// The vector on the left of block 1 or 3 (row 0 or 1).
inline nch_vector left_of(const nch_state& state, size_t row) {
    const bool inside = state.next.column != 0 && state.next.address > state.segment_start;
    return inside ? state.left[row] : nch_vector{};
}

// The predictor of the macroblock's first vector.
inline nch_vector predict_first(const nch_state& state) {
    return predict_upper(state, 0, left_of(state, 0));
}

// The predictor of block 2, 3 or 4 (index 1 to 3), given the vectors of those before it (Figure
// F.1).
nch_vector predict_other(const nch_state& state, size_t block, const BlockVectors& own) {
    switch (block) {
        case 1:
            return predict_upper(state, 1, own[0]);
        case 2:
            return median(left_of(state, 1), own[0], own[1]);
        default:
            return median(own[2], own[0], own[1]);
    }
}

// A component from its predictor and its difference of Table 14, which stands for two values 64
// half pixels apart.
int fold_component(int predictor, int difference, bool unrestricted) {
    constexpr int kFold = 64;
    const int sum = predictor + difference;
    if (!unrestricted) return sum < -32 ? sum + kFold : sum > 31 ? sum - kFold : sum;
    if (predictor < -31) return sum < -63 ? sum + kFold : sum;  // D.2
    if (predictor > 32) return sum > 63 ? sum - kFold : sum;
    return sum;
}

bool read_folded_vector(BitReader& reader, bool unrestricted, nch_vector& vector) {
    int x = 0;
    int y = 0;
    if (!kestrel::read_mvd(reader, x) || !kestrel::read_mvd(reader, y)) return false;
    vector.x = static_cast<int16_t>(fold_component(vector.x, x, unrestricted));
    vector.y = static_cast<int16_t>(fold_component(vector.y, y, unrestricted));
    return true;
}

bool read_reversible_vector(BitReader& reader, nch_vector& vector) {
    // Limits a vector to more than the width of the largest picture.
    constexpr int kFarthest = 8191;
    int x = 0;
    int y = 0;
    if (!kestrel::read_reversible_mvd(reader, x)) return false;
    if (!kestrel::read_reversible_mvd(reader, y)) return false;
    // Two differences of +1 are six zeros; a one keeps them from imitating a start code (D.2).
    if (x == 1 && y == 1 && !reader.flag()) return false;
    const int sum_x = vector.x + x;
    const int sum_y = vector.y + y;
    vector = {static_cast<int16_t>(sum_x), static_cast<int16_t>(sum_y)};
    return std::max({sum_x, -sum_x, sum_y, -sum_y}) <= kFarthest;
}

// MVD: turns the predictor in `vector` into the vector.
bool read_vector(BitReader& reader, const nch_modes& modes, nch_vector& vector) {
    if (modes.plus && modes.unrestricted_vectors) return read_reversible_vector(reader, vector);
    return read_folded_vector(reader, modes.unrestricted_vectors, vector);
}

// MVD2 to MVD4; `vectors` has the first.
bool parse_other_vectors(BitReader& reader, const nch_state& state, MbVectors& vectors) {
    constexpr size_t kThird = 2;
    BlockVectors& blocks = vectors.blocks;
    for (size_t block = 1; block < blocks.size(); ++block) {
        blocks[block] = predict_other(state, block, blocks);
        if (block == kThird) vectors.third_predictor = blocks[block];
        if (!read_vector(reader, state.picture.modes, blocks[block])) return false;
    }
    return true;
}

// MVD, and MVD2 to MVD4 if there are four vectors.
bool parse_vectors(BitReader& reader, const nch_state& state, bool four, MbVectors& vectors) {
    nch_vector first = vectors.predictor;
    if (!read_vector(reader, state.picture.modes, first)) return false;
    vectors.blocks.fill(first);
    return !four || parse_other_vectors(reader, state, vectors);
}

// ---- Macroblock layer (5.3, 5.4) ----

struct MbHeader {
    bool coded = false;
    MbType type = MbType::kInter;
    unsigned chroma = 0;        // CBPC
    unsigned coded_blocks = 0;  // six bits, block 1 in the highest
};

// COD and MCBPC, stuffing skipped. Four vectors belong to Annexes F and J, but some encoders use
// them without these modes. The type alone decides.
bool parse_mb_type(BitReader& reader, const nch_picture& picture, MbHeader& header) {
    const bool inter = picture.coding_type == kNchInter;
    kestrel::Mcbpc mcbpc;
    do {
        header.coded = !(inter && reader.flag());
        if (!header.coded) return true;
        const bool read = inter ? kestrel::read_mcbpc_inter(reader, mcbpc)
                                : kestrel::read_mcbpc_intra(reader, mcbpc);
        if (!read) return false;
    } while (mcbpc.type == MbType::kStuffing);
    header.type = mcbpc.type;
    header.chroma = mcbpc.chroma;
    return true;
}

// CBPY. With Annex S it has its intra meaning when both chrominance blocks are coded.
bool parse_coded_blocks(BitReader& reader, const nch_modes& modes, MbHeader& header) {
    constexpr unsigned kLuminance = 0xf;
    constexpr unsigned kBothChroma = 3;
    unsigned cbpy = 0;
    if (!kestrel::read_cbpy_intra(reader, cbpy)) return false;
    const bool as_intra =
        is_intra(header.type) || (modes.alternative_inter_vlc && header.chroma == kBothChroma);
    header.coded_blocks = (as_intra ? cbpy : cbpy ^ kLuminance) << 2 | header.chroma;
    return true;
}

// INTRA_MODE (Annex I): "0", "10" or "11".
void skip_intra_mode(BitReader& reader) {
    if (reader.flag()) reader.skip(1);
}

// The small step of Annex T (Table T.1), up or down.
int modified_step(int quantiser, bool up) {
    if (quantiser == 1) return up ? 1 : 2;
    if (quantiser <= 10) return up ? 1 : -1;
    if (quantiser <= 20) return up ? 2 : -2;
    if (!up || quantiser <= 28) return up ? 3 : -3;
    constexpr int kUpFromTop[] = {2, 1, -5};  // from 29, 30 and 31
    return kUpFromTop[quantiser - 29];
}

// DQUANT of Annex T: a small step, or the new quantiser as it is.
bool parse_modified_dquant(BitReader& reader, uint8_t& quantiser) {
    if (!reader.flag()) return parse_quantiser(reader, quantiser);
    const bool up = reader.flag();
    quantiser = static_cast<uint8_t>(quantiser + modified_step(quantiser, up));
    return true;
}

bool parse_dquant(BitReader& reader, const nch_modes& modes, uint8_t& quantiser) {
    constexpr int kSteps[] = {-1, -2, 1, 2};  // Table 12
    if (modes.modified_quantisation) return parse_modified_dquant(reader, quantiser);
    const int sum = quantiser + kSteps[reader.get(2)];
    quantiser = static_cast<uint8_t>(std::clamp(sum, 1, kLargestQuantiser));
    return true;
}

// The fields after the type of a coded macroblock.
bool parse_coded_mb(BitReader& reader, nch_state& state, MbHeader& header, MbVectors& vectors) {
    const nch_modes& modes = state.picture.modes;
    const bool intra = is_intra(header.type);
    if (intra && modes.advanced_intra) skip_intra_mode(reader);
    if (!parse_coded_blocks(reader, modes, header)) return false;
    if (has_dquant(header.type) && !parse_dquant(reader, modes, state.quantiser)) return false;
    if (!intra && !parse_vectors(reader, state, has_four_vectors(header.type), vectors)) {
        return false;
    }
    return kestrel::skip_blocks(reader, header.coded_blocks, intra && !modes.advanced_intra,
                                modes.modified_quantisation);
}

int16_t biased(int16_t component) {
    return static_cast<int16_t>(component + kNchVectorBias);
}

// Describes the macroblock that began at `first_bit` with `quantiser` in force.
void describe(nch_state& state, size_t first_bit, uint8_t quantiser, const MbVectors& vectors) {
    state.macroblock = {.first_bit = first_bit,
                        .gob_number = static_cast<uint8_t>(state.next.gob),
                        .address = static_cast<uint16_t>(state.next.in_gob),
                        .quantiser = quantiser,
                        .hmv1 = biased(vectors.predictor.x),
                        .vmv1 = biased(vectors.predictor.y),
                        .hmv2 = biased(vectors.third_predictor.x),
                        .vmv2 = biased(vectors.third_predictor.y)};
}

// Moves to the next macroblock, and keeps the vectors that predict later ones.
void advance(nch_state& state, const BlockVectors& vectors) {
    state.left = {vectors[1], vectors[3]};
    state.above[state.next.column] = {vectors[2], vectors[3]};
    state.next.advance();
    --state.macroblocks_left;
}

// ---- The walk ----

bool parse_picture_start(BitReader& reader, nch_state& state) {
    nch_picture picture = state.picture;
    if (!nch_picture_parse(reader, picture)) return false;
    state.picture = picture;
    state.quantiser = picture.quantiser;
    state.macroblocks_left = picture.macroblocks();
    start_segment(state, 0);
    return !picture.modes.slices || nch_first_slice_parse(reader, state);
}

bool parse_segment_start(BitReader& reader, nch_state& state) {
    return state.picture.modes.slices ? nch_slice_parse(reader, state)
                                      : nch_gob_parse(reader, state);
}

}  // namespace

bool nch_picture_parse(BitReader& reader, nch_picture& picture) {
    constexpr unsigned kPscBits = 22;
    constexpr uint32_t kPsc = 0b100000;
    constexpr unsigned kTrBits = 8;
    constexpr uint32_t kPtypeHead = 0b10;  // bits 1 and 2 of PTYPE
    if (reader.get(kPscBits) != kPsc) return false;
    picture.temporal_reference = static_cast<uint8_t>(reader.get(kTrBits));
    if (reader.get(2) != kPtypeHead) return false;
    reader.skip(3);  // split screen, document camera, freeze picture release
    const uint32_t format = reader.get(3);
    if (format == kPlusFormat) {
        if (!parse_plusptype(reader, picture)) return false;
    } else {
        if (!parse_ptype(reader, format, picture)) return false;
        if (!parse_quantiser(reader, picture.quantiser)) return false;
        if (reader.flag()) return false;  // CPM: several bitstreams in one
    }
    return skip_supplements(reader);
}

bool nch_gob_parse(BitReader& reader, nch_state& state) {
    constexpr unsigned kGnBits = 5;
    if (!skip_start_code(reader)) return false;
    const unsigned in_gob = state.picture.macroblocks_per_gob();
    const unsigned gob = reader.get(kGnBits);
    // The picture header also serves as the header of GOB 0.
    if (gob == 0 || gob * in_gob != state.next.address) return false;
    reader.skip(kGfidBits);
    start_segment(state, gob * in_gob);
    return parse_quantiser(reader, state.quantiser) && reader.ok();
}

bool nch_slice_parse(BitReader& reader, nch_state& state) {
    unsigned address = 0;
    if (!skip_start_code(reader)) return false;
    if (!reader.flag()) return false;  // SEPB1
    if (!parse_slice_address(reader, state, address)) return false;
    if (!parse_sepb2(reader, state.picture)) return false;
    if (!parse_quantiser(reader, state.quantiser)) return false;
    if (!reader.flag()) return false;  // SEPB3
    reader.skip(kGfidBits);
    start_segment(state, address);
    return reader.ok();
}

bool nch_first_slice_parse(BitReader& reader, nch_state& state) {
    // MBA between SEPB1 and SEPB3. Without SQUANT there is no SEPB2.
    unsigned address = 0;
    if (!reader.flag()) return false;
    if (!parse_slice_address(reader, state, address)) return false;
    if (!reader.flag()) return false;
    start_segment(state, address);
    return reader.ok();
}

bool nch_mb_parse(BitReader& reader, nch_state& state) {
    if (state.macroblocks_left == 0) return false;
    if (state.next.address >= state.next.macroblocks) return false;
    const size_t first_bit = reader.position();
    const uint8_t quantiser = state.quantiser;
    MbHeader header;
    MbVectors vectors;
    vectors.predictor = predict_first(state);
    if (!parse_mb_type(reader, state.picture, header)) return false;
    if (header.coded && !parse_coded_mb(reader, state, header, vectors)) return false;
    if (!reader.ok()) return false;
    describe(state, first_bit, quantiser, vectors);
    advance(state, vectors.blocks);
    return true;
}

int nch_walk(nch_state& state, BitReader& reader, bool at_start) {
    if (!at_start && state.macroblocks_left == 0) return kNchEndOfPicture;
    bool walked = true;
    if (at_start) {
        walked = parse_picture_start(reader, state);
    } else if (reader.peek(kStartCodeZeros) == 0) {
        walked = parse_segment_start(reader, state);
    }
    if (walked && nch_mb_parse(reader, state)) return kNchWalked;
    state.macroblocks_left = 0;
    return kNchFailed;
}

int get_start_of_mb(nch_state& state, std::span<const uint8_t> picture, BitPosition& position) {
    const bool inside =
        picture.size() <= kNchMaxBytes && position.byte < picture.size() && position.bit < 8;
    // An empty reader fails.
    const BitReader nothing;
    BitReader reader = inside ? BitReader(picture, position.byte * 8 + position.bit) : nothing;
    const int result = nch_walk(state, reader, position == BitPosition{});
    if (result != kNchWalked) return result;
    position = {reader.position() / 8, static_cast<unsigned>(reader.position() % 8)};
    return result;
}
