// SPDX-License-Identifier: Apache-2.0
#include "native/codec/h263_vlc.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <iterator>
#include <span>

namespace kestrel {

namespace {

// A code word: its bits, right-aligned, and their number.
struct VlcCode {
    uint16_t bits;
    uint8_t length;
    uint8_t value;
};

// The code at the beginning of a window of bits; length 0 for none.
struct VlcHit {
    uint8_t length = 0;
    uint8_t value = 0;
};

// A table with an entry for each window of kWidth bits, made at compile time. Two code words of
// which one is a prefix of the other do not compile.
template <unsigned kWidth>
class VlcTable {
  public:
    explicit consteval VlcTable(std::span<const VlcCode> codes) {
        for (const VlcCode& code : codes) {
            const size_t repeats = size_t{1} << (kWidth - code.length);
            for (size_t i = 0; i < repeats; ++i) {
                VlcHit& hit = hits_[code.bits * repeats + i];
                if (hit.length != 0) throw "one code word begins another";
                hit = {code.length, code.value};
            }
        }
        for (size_t window = 0; window < short_hits_.size(); ++window) {
            const VlcHit hit = hits_[window << (kWidth - kShort)];
            if (hit.length <= kShort) short_hits_[window] = hit;
        }
    }

    // The number of windows without a code word: a wrong length in a table changes it.
    constexpr size_t unused() const {
        size_t count = 0;
        for (const VlcHit& hit : hits_)
            count += hit.length == 0 ? 1U : 0U;
        return count;
    }

    static constexpr unsigned width() { return kWidth; }
    constexpr VlcHit at(size_t window) const { return hits_[window]; }

    // Reads a code word. Returns false for none. Short codes, which are most, are in a table of
    // their own that needs little cache.
    bool read(BitReader& reader, unsigned& value) const {
        reader.fill(kWidth);
        VlcHit hit = short_hits_[reader.front(kShort)];
        if (hit.length == 0) hit = hits_[reader.front(kWidth)];
        reader.drop(hit.length);
        value = hit.value;
        return hit.length != 0;
    }

  private:
    static constexpr unsigned kShort = std::min(kWidth, 7U);

    std::array<VlcHit, size_t{1} << kWidth> hits_{};
    std::array<VlcHit, size_t{1} << kShort> short_hits_{};  // codes of at most kShort bits
};

constexpr uint8_t mcbpc(MbType type, unsigned chroma) {
    return static_cast<uint8_t>(static_cast<unsigned>(type) << 2 | chroma);
}

// Table 7: MCBPC in I pictures.
constexpr VlcCode kMcbpcIntraCodes[] = {
    {0b1, 1, mcbpc(MbType::kIntra, 0)},
    {0b001, 3, mcbpc(MbType::kIntra, 1)},
    {0b010, 3, mcbpc(MbType::kIntra, 2)},
    {0b011, 3, mcbpc(MbType::kIntra, 3)},
    {0b0001, 4, mcbpc(MbType::kIntraQ, 0)},
    {0b000001, 6, mcbpc(MbType::kIntraQ, 1)},
    {0b000010, 6, mcbpc(MbType::kIntraQ, 2)},
    {0b000011, 6, mcbpc(MbType::kIntraQ, 3)},
    {0b000000001, 9, mcbpc(MbType::kStuffing, 0)},
};

// Table 8: MCBPC in P pictures.
constexpr VlcCode kMcbpcInterCodes[] = {
    {0b1, 1, mcbpc(MbType::kInter, 0)},
    {0b0011, 4, mcbpc(MbType::kInter, 1)},
    {0b0010, 4, mcbpc(MbType::kInter, 2)},
    {0b000101, 6, mcbpc(MbType::kInter, 3)},
    {0b011, 3, mcbpc(MbType::kInterQ, 0)},
    {0b0000111, 7, mcbpc(MbType::kInterQ, 1)},
    {0b0000110, 7, mcbpc(MbType::kInterQ, 2)},
    {0b000000101, 9, mcbpc(MbType::kInterQ, 3)},
    {0b010, 3, mcbpc(MbType::kInter4V, 0)},
    {0b0000101, 7, mcbpc(MbType::kInter4V, 1)},
    {0b0000100, 7, mcbpc(MbType::kInter4V, 2)},
    {0b00000101, 8, mcbpc(MbType::kInter4V, 3)},
    {0b00011, 5, mcbpc(MbType::kIntra, 0)},
    {0b00000100, 8, mcbpc(MbType::kIntra, 1)},
    {0b00000011, 8, mcbpc(MbType::kIntra, 2)},
    {0b0000011, 7, mcbpc(MbType::kIntra, 3)},
    {0b000100, 6, mcbpc(MbType::kIntraQ, 0)},
    {0b000000100, 9, mcbpc(MbType::kIntraQ, 1)},
    {0b000000011, 9, mcbpc(MbType::kIntraQ, 2)},
    {0b000000010, 9, mcbpc(MbType::kIntraQ, 3)},
    {0b000000001, 9, mcbpc(MbType::kStuffing, 0)},
    {0b00000000010, 11, mcbpc(MbType::kInter4VQ, 0)},
    {0b0000000001100, 13, mcbpc(MbType::kInter4VQ, 1)},
    {0b0000000001110, 13, mcbpc(MbType::kInter4VQ, 2)},
    {0b0000000001111, 13, mcbpc(MbType::kInter4VQ, 3)},
};

// Table 13: CBPY, in the intra reading.
constexpr VlcCode kCbpyCodes[] = {
    {0b0011, 4, 0},  {0b00101, 5, 1},  {0b00100, 5, 2},  {0b1001, 4, 3},
    {0b00011, 5, 4}, {0b0111, 4, 5},   {0b000010, 6, 6}, {0b1011, 4, 7},
    {0b00010, 5, 8}, {0b000011, 6, 9}, {0b0101, 4, 10},  {0b1010, 4, 11},
    {0b0100, 4, 12}, {0b1000, 4, 13},  {0b0110, 4, 14},  {0b11, 2, 15},
};

// Table 14 without its last bit, the sign: the size of the difference in half pixels.
// clang-format off
constexpr VlcCode kMvdCodes[] = {
    {0b1, 1, 0}, {0b01, 2, 1}, {0b001, 3, 2}, {0b0001, 4, 3}, {0b000011, 6, 4},
    {0b0000101, 7, 5}, {0b0000100, 7, 6}, {0b0000011, 7, 7},
    {0b000001011, 9, 8}, {0b000001010, 9, 9}, {0b000001001, 9, 10},
    {0b0000010001, 10, 11}, {0b0000010000, 10, 12}, {0b0000001111, 10, 13}, {0b0000001110, 10, 14},
    {0b0000001101, 10, 15}, {0b0000001100, 10, 16}, {0b0000001011, 10, 17}, {0b0000001010, 10, 18},
    {0b0000001001, 10, 19}, {0b0000001000, 10, 20}, {0b0000000111, 10, 21}, {0b0000000110, 10, 22},
    {0b0000000101, 10, 23}, {0b0000000100, 10, 24},
    {0b00000000111, 11, 25}, {0b00000000110, 11, 26}, {0b00000000101, 11, 27},
    {0b00000000100, 11, 28}, {0b00000000011, 11, 29}, {0b00000000010, 11, 30},
    {0b000000000011, 12, 31}, {0b000000000010, 12, 32},
};
// clang-format on

// The same with their signs, and kMvdBias added to the values.
constexpr int kMvdBias = 32;
constexpr auto kSignedMvdCodes = [] {
    std::array<VlcCode, 2 * std::size(kMvdCodes) - 1> codes{};
    size_t count = 0;
    for (const VlcCode& code : kMvdCodes) {
        const auto bits = static_cast<uint16_t>(code.bits << 1);
        const auto length = static_cast<uint8_t>(code.length + 1);
        if (code.value == 0) {
            codes[count++] = {code.bits, code.length, kMvdBias};
            continue;
        }
        codes[count++] = {bits, length, static_cast<uint8_t>(kMvdBias + code.value)};
        codes[count++] = {static_cast<uint16_t>(bits | 1), length,
                          static_cast<uint8_t>(kMvdBias - code.value)};
    }
    return codes;
}();

// The part of a TCOEF code word that walking needs: whether the block continues, not run and level.
enum TcoefKind : uint8_t { kMore, kLast, kEscape };

// Table 16 without the sign bit. The levels 1, 2, ... of one run are together.
constexpr VlcCode kTcoefCodes[] = {
    // LAST 0, run 0
    {0x02, 2, kMore},
    {0x0f, 4, kMore},
    {0x15, 6, kMore},
    {0x17, 7, kMore},
    {0x1f, 8, kMore},
    {0x25, 9, kMore},
    {0x24, 9, kMore},
    {0x21, 10, kMore},
    {0x20, 10, kMore},
    {0x07, 11, kMore},
    {0x06, 11, kMore},
    {0x20, 11, kMore},
    // run 1
    {0x06, 3, kMore},
    {0x14, 6, kMore},
    {0x1e, 8, kMore},
    {0x0f, 10, kMore},
    {0x21, 11, kMore},
    {0x50, 12, kMore},
    // runs 2 to 10, a line each
    {0x0e, 4, kMore},
    {0x1d, 8, kMore},
    {0x0e, 10, kMore},
    {0x51, 12, kMore},
    {0x0d, 5, kMore},
    {0x23, 9, kMore},
    {0x0d, 10, kMore},
    {0x0c, 5, kMore},
    {0x22, 9, kMore},
    {0x52, 12, kMore},
    {0x0b, 5, kMore},
    {0x0c, 10, kMore},
    {0x53, 12, kMore},
    {0x13, 6, kMore},
    {0x0b, 10, kMore},
    {0x54, 12, kMore},
    {0x12, 6, kMore},
    {0x0a, 10, kMore},
    {0x11, 6, kMore},
    {0x09, 10, kMore},
    {0x10, 6, kMore},
    {0x08, 10, kMore},
    {0x16, 7, kMore},
    {0x55, 12, kMore},
    // runs 11 to 26, level 1
    {0x15, 7, kMore},
    {0x14, 7, kMore},
    {0x1c, 8, kMore},
    {0x1b, 8, kMore},
    {0x21, 9, kMore},
    {0x20, 9, kMore},
    {0x1f, 9, kMore},
    {0x1e, 9, kMore},
    {0x1d, 9, kMore},
    {0x1c, 9, kMore},
    {0x1b, 9, kMore},
    {0x1a, 9, kMore},
    {0x22, 11, kMore},
    {0x23, 11, kMore},
    {0x56, 12, kMore},
    {0x57, 12, kMore},
    // LAST 1, runs 0 and 1, a line each
    {0x07, 4, kLast},
    {0x19, 9, kLast},
    {0x05, 11, kLast},
    {0x0f, 6, kLast},
    {0x04, 11, kLast},
    // runs 2 to 40, level 1
    {0x0e, 6, kLast},
    {0x0d, 6, kLast},
    {0x0c, 6, kLast},
    {0x13, 7, kLast},
    {0x12, 7, kLast},
    {0x11, 7, kLast},
    {0x10, 7, kLast},
    {0x1a, 8, kLast},
    {0x19, 8, kLast},
    {0x18, 8, kLast},
    {0x17, 8, kLast},
    {0x16, 8, kLast},
    {0x15, 8, kLast},
    {0x14, 8, kLast},
    {0x13, 8, kLast},
    {0x18, 9, kLast},
    {0x17, 9, kLast},
    {0x16, 9, kLast},
    {0x15, 9, kLast},
    {0x14, 9, kLast},
    {0x13, 9, kLast},
    {0x12, 9, kLast},
    {0x11, 9, kLast},
    {0x07, 10, kLast},
    {0x06, 10, kLast},
    {0x05, 10, kLast},
    {0x04, 10, kLast},
    {0x24, 11, kLast},
    {0x25, 11, kLast},
    {0x26, 11, kLast},
    {0x27, 11, kLast},
    {0x58, 12, kLast},
    {0x59, 12, kLast},
    {0x5a, 12, kLast},
    {0x5b, 12, kLast},
    {0x5c, 12, kLast},
    {0x5d, 12, kLast},
    {0x5e, 12, kLast},
    {0x5f, 12, kLast},
    {0x03, 7, kEscape},
};
// clang-format on

constexpr VlcTable<9> kMcbpcIntra(kMcbpcIntraCodes);
constexpr VlcTable<13> kMcbpcInter(kMcbpcInterCodes);
constexpr VlcTable<6> kCbpy(kCbpyCodes);
constexpr VlcTable<13> kMvd(kSignedMvdCodes);
constexpr VlcTable<12> kTcoef(kTcoefCodes);

// An escape code (5.4.2): the code word, LAST, RUN and LEVEL.
constexpr unsigned kEscapeBits = 7;
constexpr unsigned kRunBits = 6;
constexpr unsigned kLevelBits = 8;
constexpr unsigned kWholeEscapeBits = kEscapeBits + 1 + kRunBits + kLevelBits;

constexpr unsigned kMaxEvents = 64;  // of a block

// The beginning of a window of bits: an escape code, or a run of other events up to the first that
// ends its block or exceeds the window.
struct TcoefRun {
    uint8_t length = 0;                   // bits; the last one may be after the window
    uint8_t events : 7 = kMaxEvents + 1;  // too many where no code word fits
    uint8_t ends : 1 = 0;                 // 1 when the last event ends its block
};

constexpr unsigned kTcoefWindow = 13;

constexpr TcoefRun tcoef_run(size_t window) {
    constexpr size_t kMask = (size_t{1} << kTcoefWindow) - 1;
    constexpr unsigned kAfterLast = kTcoefWindow - kEscapeBits - 1;
    TcoefRun run;
    while (run.length < kTcoefWindow && run.ends == 0) {
        const size_t rest = window << run.length & kMask;
        const VlcHit hit = kTcoef.at(rest >> (kTcoefWindow - kTcoef.width()));
        const bool whole = hit.length != 0 && run.length + hit.length <= kTcoefWindow;
        if (!whole || (hit.value == kEscape && run.length != 0)) break;
        if (hit.value == kEscape) return {kWholeEscapeBits, 1, (window >> kAfterLast & 1) != 0};
        run.events = run.length == 0 ? 1 : run.events + 1;
        run.ends = hit.value == kLast;
        run.length = static_cast<uint8_t>(run.length + hit.length + 1);  // with its sign
    }
    return run;
}

constexpr auto kTcoefRuns = [] {
    std::array<TcoefRun, size_t{1} << kTcoefWindow> runs;
    for (size_t window = 0; window < runs.size(); ++window)
        runs[window] = tcoef_run(window);
    return runs;
}();

// The code space is full except for codes that could imitate a start code.
static_assert(kMcbpcIntra.unused() == 7);      // 000000xxx, less the stuffing
static_assert(kMcbpcInter.unused() == 8 + 1);  // 0000000000xxx and 0000000001101
static_assert(kCbpy.unused() == 2);            // 00000x
static_assert(kMvd.unused() == 4);             // 00000000000xx
static_assert(kTcoef.unused() == 8);           // 000000000xxx

template <unsigned kWidth>
bool read_mcbpc(const VlcTable<kWidth>& table, BitReader& reader, Mcbpc& mcbpc) {
    unsigned value = 0;
    if (!table.read(reader, value)) return false;
    mcbpc = {static_cast<MbType>(value >> 2), value & 3};
    return true;
}

// INTRADC (5.4.1): two values are invalid.
bool skip_intra_dc(BitReader& reader) {
    constexpr unsigned kIntraDcBits = 8;
    const uint32_t value = reader.get(kIntraDcBits);
    return value != 0 && value != 0x80;
}

// After a LEVEL of 0 or 128, which are no levels: 128 announces a longer one (Annex T).
bool skip_extended_level(BitReader& reader, uint32_t level, bool allowed) {
    constexpr uint32_t kExtends = 0x80;
    constexpr unsigned kExtendedLevelBits = 11;
    if (level != kExtends || !allowed) return false;
    reader.skip(kExtendedLevelBits);
    reader.top_up();
    return true;
}

// The position of a walk over the TCOEF events of a macroblock.
struct EventWalk {
    unsigned blocks = 0;  // not yet ended
    unsigned events = 0;  // of the block so far
    bool failed = false;

    void fail() {
        failed = true;
        blocks = 0;
    }
};

// Code words are unpredictable, so ends of blocks are counted by arithmetic: every branch here
// nearly always takes the same direction.
inline void skip_run(BitReader& reader, bool extended_level, EventWalk& walk) {
    const TcoefRun run = kTcoefRuns[reader.front(kTcoefWindow)];
    const uint32_t level = reader.front(kWholeEscapeBits) & 0xff;  // if it is an escape code
    reader.drop(run.length);
    walk.events += run.events;
    if (walk.events > kMaxEvents) return walk.fail();
    if ((level & 0x7f) == 0 && run.length == kWholeEscapeBits &&
        !skip_extended_level(reader, level, extended_level)) {
        return walk.fail();
    }
    const unsigned ends = run.ends;
    walk.events &= ends - 1;  // 0 at the end of a block
    walk.blocks -= ends;
}

// The TCOEF events of `blocks` blocks that follow one another.
inline bool skip_events(BitReader& reader, unsigned blocks, bool extended_level) {
    constexpr bool kTwoRunsPerFill = BitReader::kFilled >= 2 * kWholeEscapeBits;
    EventWalk walk{.blocks = blocks};
    while (walk.blocks != 0) {
        reader.top_up();
        skip_run(reader, extended_level, walk);
        if (kTwoRunsPerFill && walk.blocks != 0) skip_run(reader, extended_level, walk);
    }
    return !walk.failed;
}

}  // namespace

bool read_mcbpc_intra(BitReader& reader, Mcbpc& mcbpc) {
    return read_mcbpc(kMcbpcIntra, reader, mcbpc);
}

bool read_mcbpc_inter(BitReader& reader, Mcbpc& mcbpc) {
    return read_mcbpc(kMcbpcInter, reader, mcbpc);
}

bool read_cbpy_intra(BitReader& reader, unsigned& cbpy) {
    return kCbpy.read(reader, cbpy);
}

bool read_mvd(BitReader& reader, int& difference) {
    unsigned value = 0;
    const bool read = kMvd.read(reader, value);
    difference = static_cast<int>(value) - kMvdBias;
    return read;
}

bool read_reversible_mvd(BitReader& reader, int& difference) {
    constexpr int kLargest = 4095;
    difference = 0;
    if (reader.flag()) return true;
    // Pairs of a data bit and a 1 follow; a pair that ends in 0 holds the sign.
    int magnitude = 1;
    while (magnitude <= kLargest) {
        const bool bit = reader.flag();
        if (!reader.flag()) {
            difference = bit ? -magnitude : magnitude;
            return true;
        }
        magnitude = magnitude * 2 + (bit ? 1 : 0);
    }
    return false;
}

bool skip_blocks(BitReader& reader, unsigned coded_blocks, bool has_dc, bool extended_level) {
    constexpr unsigned kBlocks = 6;
    const auto all = static_cast<unsigned>(std::popcount(coded_blocks));
    BitReader local = reader.fork();
    // Without INTRADC between them, the events of all blocks follow one another.
    unsigned steps = has_dc ? kBlocks : 1;
    bool skipped = true;
    while (skipped && steps-- > 0) {
        const unsigned blocks = has_dc ? coded_blocks >> steps & 1 : all;
        skipped = (!has_dc || skip_intra_dc(local)) && skip_events(local, blocks, extended_level);
    }
    reader.join(local);
    return skipped;
}

}  // namespace kestrel
