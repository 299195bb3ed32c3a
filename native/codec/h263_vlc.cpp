// SPDX-License-Identifier: Apache-2.0
#include "native/codec/h263_vlc.h"

#include <array>
#include <cstddef>
#include <span>

namespace kestrel {

namespace {

// One code word: its bits, right-aligned, and how many they are.
struct VlcCode {
    uint16_t bits;
    uint8_t length;
    uint8_t value;
};

// What a window of bits begins with; length 0 where no code word fits.
struct VlcHit {
    uint8_t length = 0;
    uint8_t value = 0;
};

// A table with one entry for every window of kWidth bits. It is made while compiling, and two code
// words of which one begins the other do not compile.
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
    }

    // The windows that no code word covers: a wrong length in a table shows here.
    constexpr size_t unused() const {
        size_t count = 0;
        for (const VlcHit& hit : hits_)
            count += hit.length == 0 ? 1U : 0U;
        return count;
    }

    constexpr VlcHit at(size_t window) const { return hits_[window]; }

    std::optional<unsigned> read(BitReader& reader) const {
        const VlcHit hit = hits_[reader.peek(kWidth)];
        if (hit.length == 0) return std::nullopt;
        reader.drop(hit.length);
        return hit.value;
    }

  private:
    std::array<VlcHit, size_t{1} << kWidth> hits_{};
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

// What walking needs of a TCOEF code word: not its run and level, only whether the block goes on.
enum TcoefKind : uint8_t { kMore, kLast, kEscape, kNone };

// Table 16 without the sign bit. The levels 1, 2, ... of one run stand together.
// clang-format off
constexpr VlcCode kTcoefCodes[] = {
    // LAST 0, run 0
    {0x02, 2, kMore}, {0x0f, 4, kMore}, {0x15, 6, kMore}, {0x17, 7, kMore},
    {0x1f, 8, kMore}, {0x25, 9, kMore}, {0x24, 9, kMore}, {0x21, 10, kMore},
    {0x20, 10, kMore}, {0x07, 11, kMore}, {0x06, 11, kMore}, {0x20, 11, kMore},
    // run 1
    {0x06, 3, kMore}, {0x14, 6, kMore}, {0x1e, 8, kMore}, {0x0f, 10, kMore},
    {0x21, 11, kMore}, {0x50, 12, kMore},
    // runs 2 to 10, a line each
    {0x0e, 4, kMore}, {0x1d, 8, kMore}, {0x0e, 10, kMore}, {0x51, 12, kMore},
    {0x0d, 5, kMore}, {0x23, 9, kMore}, {0x0d, 10, kMore},
    {0x0c, 5, kMore}, {0x22, 9, kMore}, {0x52, 12, kMore},
    {0x0b, 5, kMore}, {0x0c, 10, kMore}, {0x53, 12, kMore},
    {0x13, 6, kMore}, {0x0b, 10, kMore}, {0x54, 12, kMore},
    {0x12, 6, kMore}, {0x0a, 10, kMore},
    {0x11, 6, kMore}, {0x09, 10, kMore},
    {0x10, 6, kMore}, {0x08, 10, kMore},
    {0x16, 7, kMore}, {0x55, 12, kMore},
    // runs 11 to 26, level 1
    {0x15, 7, kMore}, {0x14, 7, kMore}, {0x1c, 8, kMore}, {0x1b, 8, kMore},
    {0x21, 9, kMore}, {0x20, 9, kMore}, {0x1f, 9, kMore}, {0x1e, 9, kMore},
    {0x1d, 9, kMore}, {0x1c, 9, kMore}, {0x1b, 9, kMore}, {0x1a, 9, kMore},
    {0x22, 11, kMore}, {0x23, 11, kMore}, {0x56, 12, kMore}, {0x57, 12, kMore},
    // LAST 1, runs 0 and 1, a line each
    {0x07, 4, kLast}, {0x19, 9, kLast}, {0x05, 11, kLast},
    {0x0f, 6, kLast}, {0x04, 11, kLast},
    // runs 2 to 40, level 1
    {0x0e, 6, kLast}, {0x0d, 6, kLast}, {0x0c, 6, kLast},
    {0x13, 7, kLast}, {0x12, 7, kLast}, {0x11, 7, kLast}, {0x10, 7, kLast},
    {0x1a, 8, kLast}, {0x19, 8, kLast}, {0x18, 8, kLast}, {0x17, 8, kLast},
    {0x16, 8, kLast}, {0x15, 8, kLast}, {0x14, 8, kLast}, {0x13, 8, kLast},
    {0x18, 9, kLast}, {0x17, 9, kLast}, {0x16, 9, kLast}, {0x15, 9, kLast},
    {0x14, 9, kLast}, {0x13, 9, kLast}, {0x12, 9, kLast}, {0x11, 9, kLast},
    {0x07, 10, kLast}, {0x06, 10, kLast}, {0x05, 10, kLast}, {0x04, 10, kLast},
    {0x24, 11, kLast}, {0x25, 11, kLast}, {0x26, 11, kLast}, {0x27, 11, kLast},
    {0x58, 12, kLast}, {0x59, 12, kLast}, {0x5a, 12, kLast}, {0x5b, 12, kLast},
    {0x5c, 12, kLast}, {0x5d, 12, kLast}, {0x5e, 12, kLast}, {0x5f, 12, kLast},
    {0x03, 7, kEscape},
};
// clang-format on

constexpr VlcTable<9> kMcbpcIntra(kMcbpcIntraCodes);
constexpr VlcTable<13> kMcbpcInter(kMcbpcInterCodes);
constexpr VlcTable<6> kCbpy(kCbpyCodes);
constexpr VlcTable<12> kMvd(kMvdCodes);
constexpr VlcTable<12> kTcoef(kTcoefCodes);

// A run of events that a window of bits begins with: up to the first that ends the block, is an
// escape code (its fields are not part of the run) or is not in the window as a whole.
struct TcoefRun {
    uint8_t length = 0;  // bits, with the signs, of which the last may stand after the window
    uint8_t events : 4 = 0;
    TcoefKind kind : 4 = kNone;  // of the last event; kNone where no code word fits
};

constexpr unsigned kTcoefWindow = 12;
constexpr unsigned kLongestTcoefRun = kTcoefWindow + 1;

constexpr TcoefRun tcoef_run(size_t window) {
    constexpr size_t kMask = (size_t{1} << kTcoefWindow) - 1;
    TcoefRun run;
    while (run.length < kTcoefWindow) {
        const VlcHit hit = kTcoef.at(window << run.length & kMask);
        if (hit.length == 0 || run.length + hit.length > kTcoefWindow) break;
        run.kind = static_cast<TcoefKind>(hit.value);
        run.length = static_cast<uint8_t>(run.length + hit.length + (run.kind == kEscape ? 0 : 1));
        ++run.events;
        if (run.kind != kMore) break;
    }
    return run;
}

constexpr auto kTcoefRuns = [] {
    std::array<TcoefRun, size_t{1} << kTcoefWindow> runs;
    for (size_t window = 0; window < runs.size(); ++window)
        runs[window] = tcoef_run(window);
    return runs;
}();

// All of the code space is used up but for what could imitate a start code.
static_assert(kMcbpcIntra.unused() == 7);      // 000000xxx, less the stuffing
static_assert(kMcbpcInter.unused() == 8 + 1);  // 0000000000xxx and 0000000001101
static_assert(kCbpy.unused() == 2);            // 00000x
static_assert(kMvd.unused() == 2);             // 00000000000x
static_assert(kTcoef.unused() == 8);           // 000000000xxx

std::optional<Mcbpc> as_mcbpc(std::optional<unsigned> value) {
    if (!value) return std::nullopt;
    return Mcbpc{static_cast<MbType>(*value >> 2), *value & 3};
}

// LAST, RUN and LEVEL after the escape code (5.4.2, Annex T); yields LAST.
std::optional<bool> skip_escape(BitReader& reader, bool extended_level) {
    constexpr unsigned kRunBits = 6;
    constexpr unsigned kLevelBits = 8;
    constexpr unsigned kExtendedLevelBits = 11;
    constexpr uint32_t kForbidden = 0;
    constexpr uint32_t kExtends = 0x80;
    const uint32_t fields = reader.get(1 + kRunBits + kLevelBits);
    const uint32_t level = fields & ((1U << kLevelBits) - 1);
    if (level == kForbidden) return std::nullopt;
    if (level == kExtends) {
        if (!extended_level) return std::nullopt;
        reader.skip(kExtendedLevelBits);
    }
    return fields >> (kRunBits + kLevelBits) != 0;
}

// INTRADC (5.4.1): two of its values do not exist.
bool skip_intra_dc(BitReader& reader) {
    constexpr unsigned kIntraDcBits = 8;
    const uint32_t value = reader.get(kIntraDcBits);
    return value != 0 && value != 0x80;
}

// The TCOEF events of one block.
inline bool skip_coefficients(BitReader& reader, bool extended_level) {
    constexpr unsigned kMostEvents = 64;
    unsigned events = 0;
    while (events < kMostEvents) {
        reader.fill(kLongestTcoefRun);
        const TcoefRun run = kTcoefRuns[reader.front(kTcoefWindow)];
        reader.drop(run.length);
        events += run.events;
        if (run.kind == kMore) continue;
        if (run.kind == kLast) return events <= kMostEvents;
        if (run.kind == kNone) return false;
        const std::optional<bool> last = skip_escape(reader, extended_level);
        if (!last) return false;
        if (*last) return events <= kMostEvents;
    }
    return false;
}

}  // namespace

std::optional<Mcbpc> read_mcbpc_intra(BitReader& reader) {
    return as_mcbpc(kMcbpcIntra.read(reader));
}

std::optional<Mcbpc> read_mcbpc_inter(BitReader& reader) {
    return as_mcbpc(kMcbpcInter.read(reader));
}

std::optional<unsigned> read_cbpy_intra(BitReader& reader) {
    return kCbpy.read(reader);
}

std::optional<int> read_mvd(BitReader& reader) {
    const std::optional<unsigned> size = kMvd.read(reader);
    if (!size) return std::nullopt;
    if (*size == 0) return 0;
    const int magnitude = static_cast<int>(*size);
    return reader.flag() ? -magnitude : magnitude;
}

std::optional<int> read_reversible_mvd(BitReader& reader) {
    constexpr int kLargest = 4095;
    if (reader.flag()) return 0;
    // Pairs of a data bit and a 1 follow; a pair that ends in 0 holds the sign.
    int magnitude = 1;
    while (magnitude <= kLargest) {
        const bool bit = reader.flag();
        if (!reader.flag()) return bit ? -magnitude : magnitude;
        magnitude = magnitude * 2 + (bit ? 1 : 0);
    }
    return std::nullopt;
}

bool skip_blocks(BitReader& reader, unsigned coded_blocks, bool has_dc, bool extended_level) {
    constexpr unsigned kFirstBlock = 1U << 5;
    BitReader local = reader;  // in registers
    for (unsigned block = kFirstBlock; block != 0; block >>= 1) {
        if (has_dc && !skip_intra_dc(local)) return false;
        if ((coded_blocks & block) != 0 && !skip_coefficients(local, extended_level)) return false;
    }
    reader = local;
    return true;
}

}  // namespace kestrel
