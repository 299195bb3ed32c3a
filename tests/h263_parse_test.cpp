// SPDX-License-Identifier: Apache-2.0
// The H.263 walker against what independent encoders and a decoder report of their streams, and
// against hand-made pictures where those use too little of the standard.
#include "native/codec/h263_parse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/support/support.h"
#include "tests/support/files.h"

namespace {

std::ifstream open_sample(const std::string& name) {
    return std::ifstream(std::string(KESTREL_SAMPLES) + "/" + name);
}

size_t in_bits(const BitPosition& position) {
    return position.byte * 8 + position.bit;
}

constexpr auto kNoVisit = [](const nch_state&) {};

// Walks on from `position`; `visit` sees the state after every macroblock.
template <typename Visit>
int walk_from(BitPosition& position, nch_state& state, const Bytes& picture, Visit visit) {
    int result = kNchWalked;
    while ((result = get_start_of_mb(state, picture, position)) == kNchWalked)
        visit(state);
    return result;
}

// Walks a whole picture.
template <typename Visit = decltype(kNoVisit)>
int walk(nch_state& state, const Bytes& picture, Visit visit = kNoVisit) {
    BitPosition position;
    return walk_from(position, state, picture, visit);
}

// ---- What an encoder reports of its own macroblocks ----

// Quantiser, GOB, address and predictors: the words of a line of the truth.
std::vector<int> described(const nch_macroblock& mb) {
    return {mb.quantiser,
            mb.gob_number,
            mb.address,
            mb.hmv1 - kNchVectorBias,
            mb.vmv1 - kNchVectorBias,
            mb.hmv2 - kNchVectorBias,
            mb.vmv2 - kNchVectorBias};
}

// Reads a truth file: `picture` is called for each line "picture NUMBER ...", `macroblock` with the
// numbers of each other line.
template <typename Picture, typename Macroblock>
void read_truth(const std::string& name, Picture picture, Macroblock macroblock) {
    std::ifstream truth = open_sample(name);
    for (std::string line; std::getline(truth, line);) {
        std::istringstream words(line);
        std::string word;
        size_t number = 0;
        if (line.starts_with("picture") && words >> word >> number) {
            picture(number);
            continue;
        }
        std::vector<int> numbers;
        for (int value = 0; words >> value;)
            numbers.push_back(value);
        macroblock(numbers);
    }
}

class EncoderTruth : public testing::TestWithParam<const char*> {};

TEST_P(EncoderTruth, MatchesEveryMacroblock) {
    const std::string name = std::string("truth/") + GetParam();
    const std::vector<Bytes> pictures = h263_pictures(read_sample(name + ".h263"));
    nch_state state;
    std::map<int, std::vector<int>> found;  // by first bit
    size_t compared = 0;
    read_truth(
        name + ".txt",
        [&](size_t number) {
            found.clear();
            walk(state, pictures.at(number), [&](const nch_state& s) {
                found[static_cast<int>(s.macroblock.first_bit)] = described(s.macroblock);
            });
        },
        [&](std::vector<int>& numbers) {
            const int first_bit = numbers.at(0);
            numbers.erase(numbers.begin());
            ASSERT_EQ(numbers, found[first_bit]) << "at bit " << first_bit;
            ++compared;
        });
    EXPECT_GT(compared, 2000U);
}

INSTANTIATE_TEST_SUITE_P(Streams, EncoderTruth,
                         testing::Values("mb_qcif", "mb_qcif_gob", "mb_qcif_lowrate"));

// ---- What a decoder reports of the vectors, which a wrong predictor would bend ----

class DecoderTruth : public testing::TestWithParam<const char*> {};

TEST_P(DecoderTruth, MatchesEveryVector) {
    const std::string name = std::string("h263/") + GetParam();
    const std::vector<Bytes> pictures = h263_pictures(read_sample(name + ".h263"));
    nch_state state;
    std::map<std::pair<int, int>, std::vector<int>> found;  // by column and row
    size_t moving = 0;
    const auto keep = [&](const nch_state& s) {
        const unsigned columns = s.picture.columns();
        const unsigned column = (s.next.address - 1) % columns;
        const nch_vector second = s.left[0];
        const nch_vector third = s.above[column][0];
        found[{column, (s.next.address - 1) / columns}] = {second.x, second.y, third.x, third.y};
    };
    read_truth(
        name + ".txt",
        [&](size_t number) {
            // What an earlier, larger picture may have left must not matter.
            for (auto& column : state.above)
                column.fill({77, -77});
            state.left.fill({55, -55});
            walk(state, pictures.at(number), keep);
        },
        [&](std::vector<int>& numbers) {
            const std::pair place(numbers.at(0), numbers.at(1));
            numbers.erase(numbers.begin(), numbers.begin() + 2);
            ASSERT_EQ(numbers, found[place]) << "at " << place.first << " " << place.second;
            moving += numbers[0] != 0 || numbers[1] != 0 ? 1U : 0U;
        });
    EXPECT_GT(moving, 50U);
}

INSTANTIATE_TEST_SUITE_P(Streams, DecoderTruth,
                         testing::Values("annex_f", "annex_d_gobs", "annexes_dfijkst",
                                         "custom_two_row_gobs"));

// ---- Whole streams: one wrong code length anywhere loses the place ----

struct Stream {
    const char* name;
    size_t pictures;
    unsigned columns, rows, rows_per_gob;
    const char* annexes;  // in force in the last picture
};

std::ostream& operator<<(std::ostream& out, const Stream& stream) {
    return out << stream.name;
}

std::string annexes(const nch_modes& modes) {
    std::string letters;
    if (modes.unrestricted_vectors) letters += 'D';
    if (modes.advanced_prediction) letters += 'F';
    if (modes.advanced_intra) letters += 'I';
    if (modes.deblocking) letters += 'J';
    if (modes.slices) letters += 'K';
    if (modes.alternative_inter_vlc) letters += 'S';
    if (modes.modified_quantisation) letters += 'T';
    return letters;
}

constexpr Stream kStreams[] = {
    {"truth/h263", 30, 11, 9, 1, ""},
    {"truth/h263_cif", 30, 22, 18, 1, ""},
    {"truth/h263plus", 30, 11, 9, 1, "DKS"},
    {"truth/mb_qcif", 30, 11, 9, 1, ""},
    {"truth/mb_qcif_gob", 30, 11, 9, 1, ""},
    {"truth/mb_qcif_lowrate", 30, 11, 9, 1, ""},
    {"h263/annex_f", 5, 11, 9, 1, "F"},
    {"h263/four_vectors_undeclared", 5, 8, 6, 1, ""},
    {"h263/annex_d_gobs", 5, 11, 9, 1, "D"},
    {"h263/annex_i_t", 5, 11, 9, 1, "IT"},
    {"h263/annex_j", 5, 11, 9, 1, "J"},
    {"h263/annexes_dfijkst", 6, 11, 9, 1, "DFIJKST"},
    {"h263/custom_two_row_gobs", 2, 27, 26, 2, "D"},
    {"h263/custom_four_row_gobs", 2, 52, 51, 4, ""},
    {"h263/custom_slices", 2, 63, 57, 4, "DK"},
    {"h263/format_4cif", 2, 44, 36, 2, ""},
    {"h263/format_16cif", 1, 88, 72, 4, ""},
};

class WholeStreams : public testing::TestWithParam<Stream> {};

TEST_P(WholeStreams, AreWalkedToTheEndOfEveryPicture) {
    const Stream& stream = GetParam();
    const std::vector<Bytes> pictures =
        h263_pictures(read_sample(std::string(stream.name) + ".h263"));
    ASSERT_EQ(stream.pictures, pictures.size());
    nch_state state;
    for (const Bytes& picture : pictures) {
        unsigned walked = 0;
        BitPosition position;
        const int result = walk_from(position, state, picture, [&](const nch_state& s) {
            const unsigned in_gob = stream.columns * stream.rows_per_gob;
            ASSERT_EQ(walked / in_gob, s.macroblock.gob_number);
            ASSERT_EQ(walked % in_gob, s.macroblock.address);
            ++walked;
        });
        EXPECT_EQ(kNchEndOfPicture, result);
        EXPECT_EQ(stream.columns * stream.rows, walked);
        // All that is left is the stuffing of the last byte.
        EXPECT_EQ(picture.size(), (in_bits(position) + 7) / 8);
        EXPECT_TRUE(position.bit == 0 || (picture.back() & (0xff >> position.bit)) == 0);
    }
    EXPECT_EQ(stream.annexes, annexes(state.picture.modes));
}

// A cut picture has the macroblocks that are whole.
TEST_P(WholeStreams, FailWhereTheyAreCut) {
    nch_state state;
    const Bytes whole = h263_pictures(read_sample(std::string(GetParam().name) + ".h263"))[0];
    std::vector<size_t> ends;  // in bits
    BitPosition position;
    walk_from(position, state, whole, [&](const nch_state&) { ends.push_back(in_bits(position)); });
    for (size_t size = 0; size < whole.size(); size += 1 + size / 8) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        std::ptrdiff_t walked = 0;
        EXPECT_EQ(kNchFailed, walk(state, cut, [&](const nch_state&) { ++walked; })) << size;
        EXPECT_EQ(walked, std::upper_bound(ends.begin(), ends.end(), 8 * size) - ends.begin());
    }
}

// The fuzz target aborts where a walk leaves the picture or a copied state does not go on alike.
TEST_P(WholeStreams, AreWalkedSafelyWhenDamaged) {
    const std::vector<Bytes> pictures =
        h263_pictures(read_sample(std::string(GetParam().name) + ".h263"));
    fuzz::Numbers random(263);
    for (int n = 0; n < 200; ++n) {
        Bytes both = pictures.front();
        const size_t before = n % 2 == 0 ? 0 : both.size();
        both.insert(both.end(), pictures.back().begin(), pictures.back().end());
        // Half of the damage goes to the headers, some of it is noise to the end.
        const size_t reach = n % 4 < 2 ? size_t{16} : both.size() - before;
        for (int flips = n % 4; flips > 0; --flips)
            both[before + random.next() % reach] ^= static_cast<uint8_t>(1U << random.below(8));
        for (size_t at = before + 11; n % 8 == 0 && at < both.size(); ++at)
            both[at] = static_cast<uint8_t>(random.next());
        LLVMFuzzerTestOneInput(both.data(), both.size());
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, WholeStreams, testing::ValuesIn(kStreams),
                         [](const testing::TestParamInfo<Stream>& stream) {
                             std::string name = stream.param.name;
                             std::replace(name.begin(), name.end(), '/', '_');
                             return name;
                         });

// ---- Hand-made pictures ----

// The bytes of a text of bits; anything but 0 and 1 only makes it legible.
Bytes bits(const std::string& text) {
    Bytes bytes;
    unsigned count = 0;
    for (const char c : text) {
        if (c != '0' && c != '1') continue;
        if (count % 8 == 0) bytes.push_back(0);
        if (c == '1') bytes.back() |= static_cast<uint8_t>(0x80 >> count % 8);
        ++count;
    }
    return bytes;
}

size_t count_bits(const std::string& text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return c == '0' || c == '1'; }));
}

std::string repeat(const std::string& text, int times) {
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

// To the end of the byte, for the start code after it.
std::string aligned(std::string text) {
    while (count_bits(text) % 8 != 0)
        text += '0';
    return text;
}

// PSC, TR and PTYPE to its source format.
const std::string kHead = "0000000000000000 100000 00000111 10 000 ";
const std::string kPlus = kHead + "111 ";

// Sub-QCIF with quantiser 10: 8 by 6 macroblocks.
const std::string kIntraPicture = kHead + "001 0 0000 01010 0 0 ";
const std::string kInterPicture = kHead + "001 1 0000 01010 0 0 ";
const std::string kInterPictureD = kHead + "001 1 1000 01010 0 0 ";
const std::string kInterPlusD = kPlus + "001 001 0100000000 0 1000 001 000 001 0 1 01010 0 ";
const std::string kIntraPlusT = kPlus + "001 001 0000000000 1 1000 000 000 001 0 01010 0 ";
const std::string kInterPlusT = kPlus + "001 001 0000000000 1 1000 001 000 001 0 01010 0 ";
const std::string kIntraPlusI = kPlus + "001 001 0000100000 0 1000 000 000 001 0 01010 0 ";

const std::string kSixDc = repeat("00000001", 6);

TEST(Vectors, AreFoldedAsTheModeSays) {
    struct Case {
        const char* what;
        const std::string& picture;
        std::vector<std::string> differences;  // horizontal and vertical, of the first macroblocks
        std::vector<std::pair<int, int>> predictors;  // of the macroblock after each
    };
    const std::string up31 = "0000000000110 ", down32 = "0000000000101 ", up2 = "0010 ",
                      down2 = "0011 ", none = "1 ";
    const Case cases[] = {
        {"-16 to 15.5 pixels",
         kInterPicture,
         {up31 + none, up2 + up2, down2 + none, down32 + down32, none + down2, none + none},
         {{31, 0}, {-31, 2}, {31, 2}, {-1, -30}, {-1, -32}, {-1, -32}}},
        {"beyond, on the predictor's side",
         kInterPictureD,
         {up31 + none, up31 + none, up2 + none, down32 + none, down32 + up31},
         {{31, 0}, {62, 0}, {0, 0}, {-32, 0}, {0, 31}}},
        {"reversible code",
         kInterPlusD,
         {"000 000 1", "0011100 1", "0 01 01 11 01 11 11 01 01 10 000", "010 010", "1 1"},
         {{1, 1}, {6, 1}, {-294, 2}, {-295, 1}, {-295, 1}}},
    };
    for (const Case& c : cases) {
        std::string text = c.picture;
        for (const std::string& difference : c.differences)
            text += "0 1 11 " + difference;
        const Bytes picture = bits(text + repeat("1", 48));
        nch_state state;
        BitPosition position;
        ASSERT_EQ(kNchWalked, get_start_of_mb(state, picture, position)) << c.what;
        for (const auto& [x, y] : c.predictors) {
            ASSERT_EQ(kNchWalked, get_start_of_mb(state, picture, position)) << c.what;
            EXPECT_EQ(x, state.macroblock.hmv1 - kNchVectorBias) << c.what;
            EXPECT_EQ(y, state.macroblock.vmv1 - kNchVectorBias) << c.what;
        }
        EXPECT_EQ(kNchEndOfPicture, walk_from(position, state, picture, kNoVisit));
    }
}

TEST(Vectors, OfFourHaveAPredictorOfTheThird) {
    const std::string four = "0 010 11 ";
    const std::string picture = kInterPicture + four +
                                "0010 0011  00010 010  1 0010  011 1 " +  // from (0, 0)
                                four + "1 1  0011 010  1 1  1 1 " + repeat("1", 46);
    const int expected[][4] = {{0, 0, 2, -1}, {5, -1, 3, -1}, {3, 0, 0, 0}};
    nch_state state;
    BitPosition position;
    for (const auto& [h1, v1, h2, v2] : expected) {
        ASSERT_EQ(kNchWalked, get_start_of_mb(state, bits(picture), position));
        const int address = static_cast<int>(state.next.address) - 1;
        EXPECT_EQ(std::vector<int>({10, 0, address, h1, v1, h2, v2}), described(state.macroblock));
    }
}

TEST(Vectors, ThatGrowBeyondEveryPictureAreRefused) {
    const std::string farthest = "0 1 11 0" + repeat("11", 11) + "00 1 ";
    nch_state state;
    int walked = 0;
    EXPECT_EQ(kNchFailed, walk(state, bits(kInterPlusD + repeat(farthest, 9)),
                               [&](const nch_state&) { ++walked; }));
    EXPECT_EQ(2, walked);
}

TEST(Quantiser, FollowsDquant) {
    struct Case {
        const char* what;
        const std::string& picture;
        std::vector<std::pair<std::string, int>> steps;  // DQUANT, and the quantiser after it
    };
    const Case cases[] = {
        {"Table 12",
         kIntraPicture,
         {{"00", 9}, {"01", 7}, {"01", 5}, {"01", 3}, {"01", 1}, {"00", 1}, {"10", 2}, {"11", 4}}},
        {"Annex T",
         kIntraPlusT,
         {{"10", 9},      {"11", 10}, {"11", 11},      {"11", 13}, {"10", 11},     {"0 10100", 20},
          {"11", 22},     {"10", 19}, {"0 11100", 28}, {"11", 31}, {"11", 26},     {"0 11101", 29},
          {"11", 31},     {"10", 28}, {"0 11110", 30}, {"11", 31}, {"0 00001", 1}, {"10", 3},
          {"0 00001", 1}, {"11", 2},  {"10", 1}}},
    };
    for (const Case& c : cases) {
        std::string text = c.picture;
        for (const auto& [dquant, after] : c.steps)
            text += "0001 0011 " + dquant + kSixDc;
        const Bytes picture = bits(text + repeat("1 0011" + kSixDc, 48));
        nch_state state;
        BitPosition position;
        ASSERT_EQ(kNchWalked, get_start_of_mb(state, picture, position)) << c.what;
        EXPECT_EQ(10, state.macroblock.quantiser) << "its own DQUANT comes later";
        for (const auto& [dquant, after] : c.steps) {
            ASSERT_EQ(kNchWalked, get_start_of_mb(state, picture, position)) << c.what;
            EXPECT_EQ(after, state.macroblock.quantiser) << c.what << " " << dquant;
        }
    }
}

// Kinds of macroblock that the streams have none of, or that must be refused.
TEST(Macroblocks, OfEveryKindTakeTheirBitsOrAreRefused) {
    struct Case {
        const char* what;
        const std::string& picture;
        std::string macroblock;
        bool walked;
    };
    const std::string escape = "0000011 1 000000 ";
    const std::string coded4 = "0 1 00011 1 1 ";  // inter, vector 0, CBPY of blocks 1, 3 and 4
    const Case cases[] = {
        {"stuffing in I", kIntraPicture, repeat("000000001", 3) + "1 0011" + kSixDc, true},
        {"stuffing in P", kInterPicture, repeat("0 000000001", 3) + "1", true},
        {"INTER4V+Q", kInterPicture, "0 00000000010 11 01" + repeat("1 010", 4), true},
        {"INTER4V+Q, both chrominance blocks", kInterPicture,
         "0 0000000001111 11 01" + repeat("1 1", 4) + "01110 01111", true},
        {"INTRA in P", kInterPicture, "0 00011 0011" + kSixDc, true},
        {"three blocks", kInterPicture, coded4 + "01110 100 1100 01110 11110 01110", true},
        {"intra modes", kIntraPlusI, "1 0 0011", true},
        {"intra mode, two bits", kIntraPlusI, "1 11 0011", true},
        {"extended escape", kInterPlusT, "0 0010 11 1 1 " + escape + "10000000 11111111111", true},
        {"plain escape", kInterPicture, "0 0010 11 1 1 " + escape + "10000001", true},
        {"extended escape without Annex T", kInterPicture, "0 0010 11 1 1 " + escape + "10000000",
         false},
        {"escape to level 0", kInterPicture, "0 0010 11 1 1 " + escape + "00000000", false},
        {"INTRADC 0", kIntraPicture, "1 0011 00000000" + kSixDc, false},
        {"INTRADC 128", kIntraPicture, "1 0011 10000000" + kSixDc, false},
        {"no such MCBPC", kInterPicture, "0 0000000001101 11", false},
        {"65 coefficients", kInterPicture, "0 0010 11 1 1" + repeat("100", 65), false},
        {"vector difference beyond all", kInterPlusD, "0 1 11 0" + repeat("11", 12) + "00 1",
         false},
    };
    for (const Case& c : cases) {
        const std::string text = c.picture + c.macroblock;
        const Bytes picture = bits(text + repeat("1", 64));
        nch_state state;
        BitPosition position;
        const int result = get_start_of_mb(state, picture, position);
        EXPECT_EQ(c.walked ? kNchWalked : kNchFailed, result) << c.what;
        EXPECT_EQ(c.walked ? count_bits(text) : 0, in_bits(position)) << c.what;
        EXPECT_EQ(c.walked ? 10 : 0, state.macroblock.quantiser) << c.what;
    }
}

struct HeaderCase {
    const char* what;
    std::string header;
    unsigned width = 0, height = 0;  // 0 when it is to be refused
};

TEST(PictureHeader, ReturnsItsSizeOrIsRefused) {
    const std::string tail = "0 00101 0";  // CPM, PQUANT, PEI
    const std::string inter = "001 000 001 ";
    const HeaderCase cases[] = {
        {"QCIF", kHead + "010 1 0000 00101 0 0", 176, 144},
        {"supplements", kHead + "011 1 0000 00101 0 1 11111111 1 00000000 0", 352, 288},
        {"plus, 16CIF", kPlus + "001 101 00000000000 1000 " + inter + tail, 1408, 1152},
        {"custom",
         kPlus + "001 110 00000000000 1000 " + inter + "0 0010 000110001 1 000011110 " + "00101 0",
         200, 120},
        {"custom, own aspect ratio and clock",
         kPlus + "001 110 10000000000 1000 " + inter +
             "0 1111 111111111 1 100100000 00000011 00000100 10000001 11 00101 0",
         2048, 1152},
        {"ordered slices, unlimited vectors",
         kPlus + "001 010 01000010000 1000 " + inter + "0 01 00 00101 0 1 0000000 1", 176, 144},
        {"no picture start code", "0000000000000001 100000 00000111 10 000 010 1 0000 00101 0 0"},
        {"PTYPE head", "0000000000000000 100000 00000111 11 000 010 1 0000 00101 0 0"},
        {"format 0", kHead + "000 1 0000 00101 0 0"},
        {"format 6 in PTYPE", kHead + "110 1 0000 00101 0 0"},
        {"arithmetic coding", kHead + "010 1 0100 00101 0 0"},
        {"PB-frames", kHead + "010 1 0001 00101 0 0"},
        {"quantiser 0", kHead + "010 1 0000 00000 0 0"},
        {"several bitstreams", kHead + "010 1 0000 00101 1 00 0"},
        {"UFEP 2", kPlus + "010 010 00000000000 1000 " + inter + tail},
        {"nothing to refer back to", kPlus + "000 " + inter + tail},
        {"plus, format 7", kPlus + "001 111 00000000000 1000 " + inter + tail},
        {"plus, arithmetic coding", kPlus + "001 010 00100000000 1000 " + inter + tail},
        {"reference selection", kPlus + "001 010 00000001000 1000 " + inter + tail},
        {"independent segments", kPlus + "001 010 00000000100 1000 " + inter + tail},
        {"OPPTYPE tail", kPlus + "001 010 00000000000 0000 " + inter + tail},
        {"improved PB", kPlus + "001 010 00000000000 1000 010 000 001 " + tail},
        {"B", kPlus + "001 010 00000000000 1000 011 000 001 " + tail},
        {"EP", kPlus + "001 010 00000000000 1000 101 000 001 " + tail},
        {"resampling", kPlus + "001 010 00000000000 1000 001 100 001 " + tail},
        {"reduced resolution", kPlus + "001 010 00000000000 1000 001 010 001 " + tail},
        {"MPPTYPE tail", kPlus + "001 010 00000000000 1000 001 000 000 " + tail},
        {"plus, several bitstreams", kPlus + "001 010 00000000000 1000 " + inter + "1 00 00101 0"},
        {"custom, height 0",
         kPlus + "001 110 00000000000 1000 " + inter + "0 0010 000110001 1 000000000 00101 0"},
        {"custom, too tall",
         kPlus + "001 110 00000000000 1000 " + inter + "0 0010 000110001 1 100100001 00101 0"},
        {"custom, no marker",
         kPlus + "001 110 00000000000 1000 " + inter + "0 0010 000110001 0 000011110 00101 0"},
        {"vectors without UUI", kPlus + "001 010 01000000000 1000 " + inter + "0 00 00101 0"},
        {"rectangular slices",
         kPlus + "001 010 00000010000 1000 " + inter + "0 10 00101 0 1 0000000 1"},
    };
    for (const HeaderCase& c : cases) {
        nch_state state;
        BitPosition position;
        const Bytes picture = bits(c.header + repeat("1", 16));
        const int result = get_start_of_mb(state, picture, position);
        EXPECT_EQ(c.width == 0 ? kNchFailed : kNchWalked, result) << c.what;
        EXPECT_EQ(c.width, state.picture.width) << c.what;
        EXPECT_EQ(c.height, state.picture.height) << c.what;
        if (c.width == 0) continue;
        EXPECT_EQ(count_bits(c.header) + 1, in_bits(position)) << c.what;
        EXPECT_EQ(5, state.macroblock.quantiser) << c.what;
        EXPECT_EQ(7, state.picture.temporal_reference) << c.what;
        EXPECT_EQ(kNchInter, state.picture.coding_type) << c.what;
    }
}

// UFEP 000 goes by the last header that could be read, a refused one between them or not.
TEST(PictureHeader, TakesFormatAndModesFromThePictureBefore) {
    const std::string full = kPlus +
                             "001 110 11000000000 1000 001 000 001 0 0010 000110001 1 000011110 "
                             "10000001 11 1 00101 0 ";
    const std::string reduced = kPlus + "000 001 000 001 0 11 00110 0 ";
    const std::string refused = kPlus + "001 010 00100000000 1000 001 000 001 0 00101 0 ";
    const std::string vector = "0 1 11 0011100 1";  // the reversible code of Annex D
    nch_state state;
    EXPECT_EQ(kNchEndOfPicture, walk(state, bits(full + repeat("1", 13 * 8))));
    EXPECT_EQ(kNchFailed, walk(state, bits(refused + repeat("1", 99))));
    EXPECT_EQ(kNchEndOfPicture, walk(state, bits(reduced + vector + repeat("1", 13 * 8 - 1))));
    EXPECT_EQ(200, state.picture.width);
    EXPECT_EQ(kNchCustom, state.picture.source_format);
    EXPECT_EQ(6, state.picture.quantiser);
}

TEST(Segments, BeginWhereTheyAreDue) {
    const std::string row = repeat("1", 8);
    const std::string start = "0000000000000000 1 ";
    const std::string gob1 = start + "00001 00 00111 ";
    const std::string plus = kPlus + "001 001 00000010000 1000 001 000 001 0 ";
    const std::string ordered = plus + "00 01010 0 ";
    const std::string arbitrary = plus + "01 01010 0 ";
    const std::string half = repeat("1", 24);
    const std::string slice0 = "1 000000 ";
    const std::string slice24 = "1 011000 ";
    const std::string rest = "01001 1 00 ";  // SQUANT, SEPB3, GFID
    struct Case {
        const char* what;
        std::string picture;
        int result;
        int quantiser;  // of the last macroblock that was walked
    };
    const Case cases[] = {
        {"GOB 1", aligned(kInterPicture + row) + gob1 + repeat(row, 5), kNchEndOfPicture, 7},
        {"GOB 1, not aligned", kInterPicture + row + gob1 + repeat(row, 5), kNchEndOfPicture, 7},
        {"GOB 1 in place of 2", aligned(kInterPicture + row + row) + gob1 + repeat(row, 4),
         kNchFailed, 10},
        {"GOB within a row", aligned(kInterPicture + "111") + gob1 + repeat(row, 5), kNchFailed,
         10},
        {"GOB with quantiser 0",
         aligned(kInterPicture + row) + start + "00001 00 00000 " + repeat(row, 5), kNchFailed, 10},
        {"a picture within", aligned(kInterPicture + row) + kInterPicture + repeat(row, 6),
         kNchFailed, 10},
        {"long stuffing", aligned(kInterPicture + row) + "00000000" + gob1 + repeat(row, 5),
         kNchFailed, 10},
        {"first slice elsewhere", ordered + slice24 + half + half, kNchFailed, 0},
        {"first slice without a marker", ordered + slice0 + "0" + half + half, kNchFailed, 0},
        {"slices in order", aligned(ordered + slice0 + "1" + half) + start + slice24 + rest + half,
         kNchEndOfPicture, 9},
        {"slices out of order",
         aligned(ordered + slice0 + "1" + repeat("1", 16)) + start + slice24 + rest + half,
         kNchFailed, 10},
        {"arbitrary order",
         aligned(arbitrary + slice24 + "1" + half) + start + slice0 + rest + half, kNchEndOfPicture,
         9},
        {"arbitrary order, past the end",
         aligned(arbitrary + slice24 + "1" + half) + start + slice24 + rest + half + half,
         kNchEndOfPicture, 9},
        {"arbitrary order, one slice running out of the picture",
         arbitrary + slice24 + "1" + half + half, kNchFailed, 10},
        {"slice outside the picture",
         aligned(arbitrary + slice24 + "1" + half) + start + "1 110000 " + rest + half, kNchFailed,
         10},
        {"slice without its marker",
         aligned(ordered + slice0 + "1" + half) + start + "0 011000 " + rest + half, kNchFailed,
         10},
    };
    for (const Case& c : cases) {
        nch_state state;
        unsigned walked = 0;
        EXPECT_EQ(c.result,
                  walk(state, bits(c.picture + "1111"), [&](const nch_state&) { ++walked; }))
            << c.what;
        EXPECT_EQ(c.result == kNchEndOfPicture, walked == 48) << c.what;
        EXPECT_EQ(c.quantiser, state.macroblock.quantiser) << c.what;
    }
}

TEST(Positions, OutsideThePictureFail) {
    const Bytes picture = bits(kInterPicture + repeat("1", 48));
    constexpr size_t kWrapsInBits = SIZE_MAX / 8 + 1;
    for (const BitPosition start : {BitPosition{picture.size(), 0}, BitPosition{SIZE_MAX, 0},
                                    BitPosition{kWrapsInBits + 8, 0}, BitPosition{7, 8}}) {
        nch_state state;
        BitPosition position;
        ASSERT_EQ(kNchWalked, get_start_of_mb(state, picture, position));
        BitPosition outside = start;
        EXPECT_EQ(kNchFailed, get_start_of_mb(state, picture, outside));
        EXPECT_EQ(start, outside);
        EXPECT_EQ(kNchEndOfPicture, get_start_of_mb(state, picture, position))
            << "a failure ends the picture";
    }
    nch_state untouched;
    BitPosition inside{7, 2};
    EXPECT_EQ(kNchEndOfPicture, get_start_of_mb(untouched, picture, inside));
    BitPosition first;
    EXPECT_EQ(kNchFailed, get_start_of_mb(untouched, {}, first));
}

}  // namespace
