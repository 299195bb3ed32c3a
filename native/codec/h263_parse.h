// SPDX-License-Identifier: Apache-2.0
// Walks a coded H.263 picture macroblock by macroblock (ITU-T H.263, clause 5) without decoding it,
// so that a packetiser can cut it between two macroblocks and describe the first macroblock of a
// packet as RFC 2190 mode B requires.
//
// It walks I and P pictures of all source formats and custom sizes, with the optional modes of
// Annexes D, F, I, J, K (without rectangular slices), S and T. It refuses Annexes C, E, G, M, N, O,
// P, Q and R: the picture header does not parse.
#ifndef KESTREL_NATIVE_H263_PARSE_H
#define KESTREL_NATIVE_H263_PARSE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "common/bit_reader.h"

// A position in a picture: `bit` counts from the most significant bit of the byte, 0 to 7.
struct BitPosition {
    size_t byte = 0;
    unsigned bit = 0;

    friend bool operator==(const BitPosition&, const BitPosition&) = default;
};

// A motion vector or a difference of two, in half pixels.
struct nch_vector {
    int16_t x = 0;
    int16_t y = 0;
};

// The values of the picture's source format (PTYPE bits 6 to 8, or OPPTYPE bits 1 to 3).
enum : uint8_t {
    kNchSubQcif = 1,
    kNchQcif = 2,
    kNchCif = 3,
    kNch4Cif = 4,
    kNch16Cif = 5,
    kNchCustom = 6,
};

// The values of the picture coding type.
enum : uint8_t { kNchIntra = 0, kNchInter = 1 };

// The optional modes in force.
struct nch_modes {
    bool plus = false;                   // the picture header has PLUSPTYPE
    bool unrestricted_vectors = false;   // Annex D
    bool advanced_prediction = false;    // Annex F
    bool advanced_intra = false;         // Annex I
    bool deblocking = false;             // Annex J
    bool slices = false;                 // Annex K
    bool arbitrary_slice_order = false;  // Annex K
    bool alternative_inter_vlc = false;  // Annex S
    bool modified_quantisation = false;  // Annex T
    bool custom_clock = false;           // the picture header has ETR
};

// The picture layer. A picture with UFEP 000 takes its format and modes from the previous picture,
// so this is kept between pictures.
struct nch_picture {
    uint8_t source_format = 0;       // 0 before the first picture
    uint8_t coding_type = 0;         // kNchIntra or kNchInter
    uint8_t temporal_reference = 0;  // TR
    uint8_t quantiser = 0;           // PQUANT, 1 to 31
    uint16_t width = 0;              // pixels
    uint16_t height = 0;             // pixels
    nch_modes modes;

    // The size in macroblocks; a partly covered one counts.
    unsigned columns() const { return (width + 15U) / 16U; }
    unsigned rows() const { return (height + 15U) / 16U; }
    unsigned macroblocks() const { return columns() * rows(); }

    // Macroblock rows in a GOB.
    unsigned rows_per_gob() const { return height <= 400 ? 1U : height <= 800 ? 2U : 4U; }
    unsigned macroblocks_per_gob() const { return columns() * rows_per_gob(); }
};

// The place of a macroblock in its picture, advanced without divisions.
struct nch_place {
    unsigned address = 0;  // in scan order from the first macroblock of the picture
    unsigned column = 0;
    unsigned gob = 0;     // 0 is the first; in slices too it is the one of that place
    unsigned in_gob = 0;  // in scan order from the first macroblock of its GOB
    // Of the picture.
    unsigned columns = 0;
    unsigned per_gob = 0;
    unsigned macroblocks = 0;

    void move_to(const nch_picture& picture, unsigned to) {
        columns = picture.columns();
        per_gob = picture.macroblocks_per_gob();
        macroblocks = picture.macroblocks();
        address = to;
        column = to % columns;
        gob = to / per_gob;
        in_gob = to % per_gob;
    }

    void advance() {
        ++address;
        if (++column == columns) column = 0;
        if (++in_gob == per_gob) {
            in_gob = 0;
            ++gob;
        }
    }
};

// Limit of a picture in bytes, because positions are in bits.
inline constexpr size_t kNchMaxBytes = std::numeric_limits<size_t>::max() / 8;

// The largest custom picture is 2048 pixels wide (5.1.5).
inline constexpr unsigned kNchMaxColumns = 2048 / 16;

// Added to the motion vector predictors that are stored.
inline constexpr int kNchVectorBias = 32;

// One macroblock, with the state at its beginning: after the header of a GOB or slice that begins
// with it, before its own DQUANT and vectors.
struct nch_macroblock {
    size_t first_bit = 0;    // in the picture; where its own bits begin, after such a header
    uint8_t gob_number = 0;  // 0 is the first; in slices too it is the one of that place
    uint16_t address = 0;    // in scan order from the first macroblock of its GOB
    uint8_t quantiser = 0;   // 1 to 31
    // Predictors in half pixels, kNchVectorBias added: of the vector (or the first of four), and of
    // the third of four, which is 0 (stored as the bias) without four vectors.
    int16_t hmv1 = kNchVectorBias;
    int16_t vmv1 = kNchVectorBias;
    int16_t hmv2 = kNchVectorBias;
    int16_t vmv2 = kNchVectorBias;
};

// The state of the walker. A zero-initialised one is ready for a first picture. It has no pointers:
// a plain copy, kept with its position, can continue at any time.
struct nch_state {
    nch_picture picture;
    nch_macroblock macroblock;  // the last one walked

    // The position of the walk.
    nch_place next;                 // of the next macroblock
    unsigned macroblocks_left = 0;  // not yet walked; 0 outside a picture
    unsigned segment_start = 0;     // first macroblock after the last picture, GOB or slice header
    uint8_t quantiser = 0;          // in force

    // Vectors for later predictors: blocks 2 and 4 of the previous macroblock, and blocks 3 and 4
    // of the latest macroblock in each column.
    std::array<nch_vector, 2> left{};
    std::array<std::array<nch_vector, 2>, kNchMaxColumns> above{};
};

// The results of get_start_of_mb.
enum : int { kNchWalked = 0, kNchEndOfPicture = 1, kNchFailed = -1 };

// Walks the macroblock at `position` of `picture`, a coded picture that begins with its start code.
// At (0, 0) it parses the picture header first, and the GOB or slice header if the next 16 bits are
// zero. Returns:
// - kNchWalked: `position` is after the macroblock, where the next one begins, or the stuffing
// before its header. state.macroblock describes the one that was walked.
// - kNchEndOfPicture: all macroblocks have been walked.
// - kNchFailed: the bits cannot be parsed. `position` and state.macroblock are unchanged. The rest
// of the picture cannot be walked, but the next picture can.
int get_start_of_mb(nch_state& state, std::span<const uint8_t> picture, BitPosition& position);

// The same for a caller that continues with one reader, which is where the previous macroblock
// ended, or at the first bit of the picture for `at_start`. Do not use the reader after a result
// other than kNchWalked.
int nch_walk(nch_state& state, kestrel::BitReader& reader, bool at_start);

// The layers, in the order of their nesting. Each moves the reader after what it parsed. Returns
// false when the bits cannot be parsed; the records are then undefined.

// Parses the picture header to the end of PSUPP.
bool nch_picture_parse(kestrel::BitReader& reader, nch_picture& picture);

// Parses a GOB header with the stuffing before it. It must be the header of the next GOB.
bool nch_gob_parse(kestrel::BitReader& reader, nch_state& state);

// Parses a slice header with the stuffing before it. Slices in order must begin with the next
// macroblock.
bool nch_slice_parse(kestrel::BitReader& reader, nch_state& state);

// Parses the short slice header after the picture header (Annex K).
bool nch_first_slice_parse(kestrel::BitReader& reader, nch_state& state);

// Parses a macroblock with the stuffing before it, and describes it in state.macroblock, which is
// unchanged on failure.
bool nch_mb_parse(kestrel::BitReader& reader, nch_state& state);

#endif
