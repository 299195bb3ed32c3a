// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <set>

#include "kestrel/log.h"
#include "kestrel/native_records.h"
#include "native/codec/amr_format.h"
#include "propfile/src/propfile_audio.h"
#include "tests/support/hint_file.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"

// What C3gpInterface makes of files that were made for it: its frames, its statuses, and the lines
// it writes to the system log.

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const Playing kOnClass{.api = Api::kClass, .steps = {}};

// --- frames of made hint samples ---

Bytes speech_frame(uint32_t time, uint32_t sequence, uint32_t flag, const Bytes& payload) {
    return join({le32(static_cast<uint32_t>(24 + payload.size())), le32(10), le32(time), le32(time),
                 le16(sequence), le16(flag), le32(0), payload});
}

const Bytes kNoData = {0xF0, 0x7C};
const Bytes kSpeech = {0xF0, 0x3C, 0x55};

constexpr long kHeaders = 68;

// The frames, after the header records.
Bytes frames_of(const HintFile& made) {
    const Played played = play(made.build(), "ar", kOnClass);
    EXPECT_EQ(played.status, KST_END_OF_FILE);
    EXPECT_GE(played.stream.size(), size_t{kHeaders});
    return Bytes(played.stream.begin() + kHeaders, played.stream.end());
}

TEST(ClassFrames, AreBuiltFromTheirConstructors) {
    HintFile made;
    made.add_hint(hint_sample(1, {packet_entry(96, 9, 4), Bytes(16), immediate("<>", 2),
                                  from_sample(2, 0, 4, 1, 3), from_sample(2, 0, 3, 2, 0)}));
    made.add_hint(hint_sample(0, {}));
    made.add_hint(hint_sample(
        1, {packet_entry(96, 10, 2, 4), be32(12), zeros(8), immediate("", 0), immediate(kNoData)}));
    // Dropped: outside its sample, of no sample, longer than its field. Skipped: a sample
    // description, and what has no meaning.
    made.add_hint(hint_sample(
        1, {packet_entry(96, 11, 8), from_sample(2, 0, 11, 1, 0), from_sample(2, 0, 1, 1, 11),
            from_sample(2, 0, 1, 3, 0), from_sample(2, 0, 1, 0, 0), immediate("12345678901234", 15),
            from_sample(3, 0, 2, 1, 0), Bytes(16, 9), immediate(kSpeech)}));
    made.add_hint(hint_sample(2, {packet_entry(96, 12, 1), immediate(kNoData),
                                  packet_entry(96, 13, 1), immediate(kSpeech)}));
    made.add_hint(hint_sample(1, {packet_entry(96, 14, 1), immediate(kNoData)}));
    // Left out: a second packet that is not there, a length too small for itself, and a sample of
    // which every constructor was dropped.
    made.add_hint(hint_sample(2, {packet_entry(96, 15, 1), immediate(kSpeech)}));
    made.add_hint(hint_sample(1, {packet_entry(96, 15, 0, 4), be32(3)}));
    made.add_hint(hint_sample(2, {packet_entry(96, 15, 1), from_sample(2, 0, 1, 3, 0),
                                  packet_entry(96, 16, 1), immediate("12345678901234", 15)}));
    made.add_hint(hint_sample(1, {packet_entry(96, 16, 1), immediate(kSpeech)}));
    const Bytes two_packets = join({kNoData, kSpeech});
    EXPECT_EQ(frames_of(made),
              join({speech_frame(0, 9, 0, text("<>defgXYZ")), join({le32(24), le32(10), zeros(16)}),
                    speech_frame(320, 10, 0, kNoData), speech_frame(480, 11, 1, kSpeech),
                    speech_frame(640, 13, 1, two_packets), speech_frame(800, 14, 0, kNoData),
                    speech_frame(1440, 16, 1, kSpeech)}));
}

TEST(ClassFrames, TakeWhatFitsTheirBuffer) {
    HintFile made;
    made.delta = 4;
    made.media = Bytes(1600, 0xF0);
    made.media_sizes = {1600, 4000};  // the second ends after the file
    made.add_hint(hint_sample(1, {packet_entry(96, 1, 3), from_sample(2, 0, 1500, 1, 0),
                                  from_sample(2, 0, 45, 2, 0), from_sample(2, 0, 44, 1, 0)}));
    made.add_hint(hint_sample(1, {packet_entry(96, 2, 1), immediate(kSpeech)}));
    // Half a millisecond is a whole one.
    const Bytes frames =
        join({speech_frame(0, 1, 0, Bytes(1544, 0xF0)), speech_frame(8, 2, 0, kSpeech)});
    EXPECT_EQ(frames_of(made), frames);
    // After a wait for the first sample, what does not fit is not waited for.
    const Bytes file = made.build();
    FaultyHost host(file);
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    host.break_at(host.calls + 1, {"", FaultKind::kStatus, KST_HOST_NOT_YET, false});
    Bytes got = read_through_failures(read_call(player, true)).stream;
    got.erase(got.begin(), got.begin() + std::min<long>(kHeaders, std::ssize(got)));
    EXPECT_EQ(got, frames);
}

TEST(ClassFrames, WriterGivesOutWhatItHas) {
    PropFileAudio writer(nullptr);
    const _TAG_AUDIO_OPEN_PARAMS params{1000, 50, 10, 8000, 12200};
    EXPECT_TRUE(writer.Open(&params));
    unsigned int available = 0;
    EXPECT_NE(writer.GetBuffer(&available), nullptr);
    EXPECT_EQ(available, 68u);
    writer.OffsetBytes(60);
    try {
        writer.OffsetBytes(9);
        ADD_FAILURE() << "took more than there is";
    } catch (const SimpleException& caught) {
        EXPECT_EQ(caught.message(), "Invalid offset - 9 bytes requested, 8 available");
    }
    writer.OffsetBytes(8);
    EXPECT_EQ(writer.ByteCount(), 0u);
    writer.Close();
    EXPECT_EQ(writer.GetBuffer(&available), nullptr);
    EXPECT_EQ(PropFile::GetPadding(4), 0u);
    EXPECT_EQ(PropFile::GetPadding(5), 3u);
    EXPECT_EQ(PropFile::To1616(29.97), 29u << 16 | 97);
    EXPECT_EQ(PropFile::To1616(15.0), 15u << 16);
}

TEST(ClassFrames, BitRateOfAModeSet) {
    uint32_t mode_set = 1;
    for (const uint32_t rate : {4750u, 5150u, 5900u, 6700u, 7400u, 7950u, 10200u, 12200u}) {
        EXPECT_EQ(kestrel::amr_bit_rate(mode_set), rate);
        mode_set *= 2;
    }
    EXPECT_EQ(kestrel::amr_bit_rate(0), 12200u);
    EXPECT_EQ(kestrel::amr_bit_rate(3), 12200u);
}

// --- header records ---

Bytes edit_list(const Bytes& edits) {
    return box("edts",
               {box("elst", {be32(0), be32(static_cast<uint32_t>(edits.size() / 12)), edits})});
}

// H.263 with a packet of its own, beside an audio track.
HintFile video_file(const Bytes& video_edits, const Bytes& audio_extra) {
    HintFile made;
    made.media_track = {.id = 1,
                        .handler = "vide",
                        .timescale = 90000,
                        .duration = 90000,
                        .entry = visual_entry("s263", box("d263", {text("test"), {1, 10, 0}})),
                        .extra = video_edits};
    made.add_hint(hint_sample(1, {packet_entry(0x80 | 34, 1, 1), immediate("abc", 3)}));
    made.more_tracks = track({.id = 3,
                              .entry = samr_entry(),
                              .tables = one_chunk_tables({}, 160, 0),
                              .extra = audio_extra});
    return made;
}

TEST(ClassHeaders, StartOffsetsComeFromEmptyEdits) {
    const Bytes normal = words({500, 0, 0x10000});
    const Bytes late100 = words({100, 0xFFFFFFFF, 0x10000});
    const Bytes late50 = words({50, 0xFFFFFFFF, 0x10000});
    const struct {
        Bytes video, audio;
        uint32_t video_start, audio_start;
    } cases[] = {
        {{}, {}, 0, 0},
        {edit_list(normal), edit_list(normal), 0, 0},
        {edit_list(join({late100, late50})), {}, 9000, 0},
        {edit_list(join({normal, late50})), edit_list(normal), 4500, 0},
        {{}, edit_list(late100), 0, 800},
        {edit_list(late100), edit_list(late50), 9000 - 400, 0},
        {edit_list(words({1, 0xFFFFFFFF, 0})), edit_list(late50), 0, 400 - 90},
    };
    for (const auto& c : cases) {
        const Bytes file = video_file(c.video, c.audio).build();
        const SyslogCapture log(3);
        const Bytes stream = play(file, "vr", kOnClass).stream;
        EXPECT_THAT(log.lines(), IsEmpty());
        const auto start = record_at<kestrel::VID_Header_NTSInfo>(stream, 24);
        EXPECT_EQ(start.video_start, c.video_start);
        EXPECT_EQ(start.audio_start, c.audio_start);
    }
    // A movie without a timescale.
    const Bytes file =
        with(video_file(edit_list(late100), edit_list(late50)).build(), "mvhd", 12, be32(0));
    const auto start =
        record_at<kestrel::VID_Header_NTSInfo>(play(file, "vr", kOnClass).stream, 24);
    EXPECT_EQ(start.video_start | start.audio_start, 0u);
}

// --- statuses ---

Bytes without(Bytes file, std::string_view type, int before = 0) {
    return with(std::move(file), type, -4, text("xxxx"), before);
}

Bytes with_word(Bytes file, std::string_view type, int before, int offset, uint32_t value) {
    return with(std::move(file), type, offset, be32(value), before);
}

constexpr int kMdhdTimescale = 12;
constexpr int kTableCount = 4;

struct OpenCase {
    std::string what;
    Bytes file;
    const char* mode;
    unsigned int status;
    std::string message;
};

std::vector<OpenCase> open_cases() {
    const Bytes speech = read_sample("amrnb_hinted.3gp");
    const Bytes both =
        video_file(edit_list(words({1, 0xFFFFFFFF, 0})), edit_list(words({1, 0xFFFFFFFF, 0})))
            .build();
    std::vector<OpenCase> cases = {
        {"", speech, "", 7, "Mode not specified"},
        {"", speech, "r", 7, "Mode not specified"},
        {"", speech, "A", 7, "Direction not specified"},
        {"", speech, "rx", 7, "Invalid/unsupported mode switch [x] specified"},
        {"", speech, "a r", 7, "Invalid/unsupported mode switch [ ] specified"},
        {"", speech, "W", 7, "Invalid/unsupported mode switch [w] specified"},
        {"", speech, "vr", 14, "File does not contain video track"},
        {"", read_sample("h263_hinted.3gp"), "ra", 14, "File does not contain audio track"},
        {"", read_sample("two_amrnb_hinted.3gp"), "ar", 11, "Too many audio tracks found"},
        {"", read_sample("amrnb_plain.3gp"), "ar", 12,
         "audio track ID 1 does not have a hint track."},
        {"", read_sample("h263_plain.3gp"), "vr", 12,
         "video track ID 1 does not have a hint track."},
        {"", read_sample("amrwb_hinted.3gp"), "ar", 2, "Unsupported audio coder type found"},
        {"", read_sample("aac_hinted.3gp"), "ar", 2, "Unsupported audio coder type found"},
        {"", read_sample("h264_hinted.3gp"), "vr", 15, "Unknown / unsuppoorted video codec found"},
        {"hint of a missing track", with_word(speech, "tref", 0, 8, 9), "ar", 12,
         "audio track ID 1 does not have a hint track."},
        {"no timescale", with_word(speech, "mdhd", 0, kMdhdTimescale, 0), "ar", 4,
         "Error: Undefined sound timescale in source file"},
        {"no timescale", with_word(both, "mdhd", 0, kMdhdTimescale, 0), "vr", 4,
         "Undefined video timescale in source file"},
        {"no entries", without(speech, "stsd"), "ar", 2, "Audio codec information not found"},
        {"audio without mdhd", without(both, "mdhd", 2), "vr", 4, "Could not find mdhd box"},
        {"audio without elst", without(both, "elst", 1), "vr", 4, "Could not find elst box"},
        {"nothing", {}, "ar", 4, "Could not find ftyp box"},
    };
    cases.push_back(
        {"foreign entry", without(speech, "samr"), "ar", 2, "Unsupported audio coder type found"});
    // The first reference is that of "tref", then come handlers.
    for (const char* type : {"ftyp", "moov", "mdia", "hdlr", "tkhd", "tref", "hint", "minf", "mdhd",
                             "stbl", "stts", "stsz", "stsc", "stco"}) {
        for (const int nth : {0, 1}) {
            const std::string name = type;
            if (nth == 1 &&
                (name == "ftyp" || name == "moov" || name == "tref" || name == "hint")) {
                continue;
            }
            cases.push_back({"without " + name + " " + std::to_string(nth),
                             without(speech, name, nth), "ar", 4,
                             "Could not find " + name + " box"});
        }
    }
    return cases;
}

TEST(ClassOpen, AnswersTheDocumentedStatusAndLine) {
    int tried = 0;
    for (const OpenCase& c : open_cases()) {
        SCOPED_TRACE(c.what + " " + c.mode + ": " + c.message);
        const MemoryHost host(c.file);
        C3gpInterface player;
        const SyslogCapture log(3);
        EXPECT_EQ(player.Open(host.table(), c.mode), c.status);
        ASSERT_FALSE(log.lines().empty());
        EXPECT_EQ(log.messages().back(), "ERR: " + c.message);
        for (const std::string& line : log.lines()) {
            EXPECT_THAT(line, AnyOf(StartsWith("ERR: .//interface/src/c3gpinterface("),
                                    StartsWith("ERR: .//boxes/sample_entries(")));
        }
        uint32_t size = 1;
        unsigned char byte = 0;
        EXPECT_EQ(player.ReadChunk(&byte, &size, false), KST_NOT_OPEN);
        EXPECT_EQ(size, 0u);
        ++tried;
    }
    EXPECT_GT(tried, 40);
}

TEST(ClassOpen, LetsTheLastMediumCountAndStaysOpen) {
    const Bytes file = read_sample("av_h263_amrnb_hinted.3gp");
    FaultyHost host(file);
    C3gpInterface player(7);
    const SyslogCapture log(3);
    ASSERT_EQ(player.Open(host.callbacks(), "RvAvrA"), KST_SUCCESS);
    uint32_t offset = 99;
    host.callbacks()->GetOffset(host.callbacks()->Context, &offset);
    EXPECT_EQ(offset, 0u);
    EXPECT_EQ(player.Open(nullptr, nullptr), KST_ALREADY_OPEN);
    Bytes medium(8);
    uint32_t size = 8;
    EXPECT_EQ(player.ReadChunk(medium.data(), &size, false), KST_SUCCESS);
    EXPECT_EQ(medium, text("AUDIO   "));
    size = 8;
    EXPECT_EQ(player.ReadChunk(nullptr, &size, false), KST_BAD_ARGUMENT);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(player.ReadChunk(medium.data(), nullptr, false), KST_BAD_ARGUMENT);
    EXPECT_EQ(player.ReadChunk(nullptr, &size, false), KST_SUCCESS);
    EXPECT_EQ(player.Close(), KST_SUCCESS);
    EXPECT_EQ(player.Close(), KST_SUCCESS);
    EXPECT_THAT(log.lines(), IsEmpty());
}

// Tables that end too early, or count nothing.
struct SeekCase {
    Bytes file;
    uint32_t flags;
    unsigned int status;
    const char* message;
};

constexpr uint32_t kNext = KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC;
constexpr uint32_t kPrevious = KST_SEEK_ABSOLUTE | KST_SEEK_PREVIOUS_SYNC;
constexpr uint32_t kRelative = KST_SEEK_RELATIVE | KST_SEEK_NEXT_SYNC;

// Three frames of speech; sync samples as given.
HintFile three_frames(std::initializer_list<uint32_t> syncs = {}) {
    HintFile made;
    for (uint16_t i = 0; i < 3; ++i) {
        made.add_hint(hint_sample(
            1, {packet_entry(96, i, 2), immediate(kSpeech), from_sample(2, 0, 2, 1, i)}));
    }
    if (syncs.size() > 0) {
        made.more_hint_tables =
            box("stss", {be32(0), be32(static_cast<uint32_t>(syncs.size())), words(syncs)});
    }
    return made;
}

std::vector<SeekCase> seek_cases() {
    const Bytes file = three_frames().build();
    HintFile still = three_frames();
    still.delta = 0;
    const Bytes slow = with_word(file, "mdhd", 0, kMdhdTimescale, 999);
    return {
        {file, KST_SEEK_ABSOLUTE, 19, "Illegal Seek Flags"},
        {still.build(), kNext, 20,
         "C3gpInterface::ConvertMdhdTimeToSample - Attempt to divide by zero."},
        {slow, kNext, 20, "C3gpInterface::GetTimestampInMs - Attempt to divide by zero"},
        {slow, kRelative, 2, "Attempting to Divide by Zero"},
        {with_word(file, "stsc", 1, kTableCount, 0), kNext, 4,
         "C3gpInterface::CalcHintOffset - No Sample-to-Chunk Table in Hint Track"},
        {with_word(file, "stco", 1, kTableCount, 0), kNext, 22,
         "C3gpInterface::SeekTo - Could not calculate Hint Track Offset"},
        {three_frames({2}).build(), kPrevious, 22,
         "C3gpInterface::SeekTo - Could not calculate Hint Track Offset"},
        {three_frames({9}).build(), kNext, 4, "STSS Corruption (sync_sample=9, max_samples=3)."},
        {with_word(three_frames({3}).build(), "stts", 1, 8, 2), kNext, 21,
         "AUDIO: Iterated off the end of the time to sample table!"},
    };
}

TEST(ClassSeek, AnswersTheDocumentedStatusAndLine) {
    for (const SeekCase& c : seek_cases()) {
        SCOPED_TRACE(c.message);
        FaultyHost host(c.file);
        C3gpInterface player;
        ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
        _TAG_KST_SEEK_PARAMS params{1, 0, 2, 3, c.flags};
        const SyslogCapture log(3);
        EXPECT_EQ(player.SeekTo(&params), c.status);
        EXPECT_THAT(log.messages(), ElementsAre(std::string("ERR: ") + c.message));
        EXPECT_EQ(params.uReserved, 1u);
        EXPECT_EQ(params.uFrameNum, 2u);
        EXPECT_EQ(params.uFileOffset, 3u);
    }
}

// Tables that end too early stop playing; what was delivered stays.
TEST(ClassRead, ReportsTablesThatEndTooEarly) {
    const Bytes file = three_frames().build();
    const Bytes whole = play(file, "ar", kOnClass).stream;
    const struct {
        Bytes file;
        int status;
        const char* message;
    } cases[] = {
        {with_word(file, "stts", 1, 8, 1), 2,
         "AUDIO: Iterated off the end of the time to sample table!"},
        {with_word(file, "stsc", 1, 12, 1), 2,
         "AUDIO: Iterated off the end of the chunk offset table!"},
        {with_word(file, "stco", 1, kTableCount, 0), 2,
         "AUDIO: Iterated off the end of the chunk offset table!"},
    };
    for (const auto& c : cases) {
        Playing how = kOnClass;
        how.request = 1;
        const SyslogCapture log(3);
        const Played played = play(c.file, "ar", how);
        EXPECT_EQ(played.status, c.status) << c.message;
        EXPECT_THAT(log.messages(), ElementsAre(std::string("ERR: ") + c.message));
        EXPECT_GE(played.stream.size(), 68u);
        EXPECT_TRUE(std::equal(played.stream.begin(), played.stream.end(), whole.begin()));
    }
}

// --- tables ---

// Where a seek to a time arrives, and the next bytes that are read there.
std::tuple<unsigned int, uint32_t, Bytes> arrive(const Bytes& file, uint32_t ms) {
    FaultyHost host(file);
    C3gpInterface player;
    EXPECT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    _TAG_KST_SEEK_PARAMS params{0, ms, 0, 0, kNext};
    const unsigned int status = player.SeekTo(&params);
    Bytes bytes(200);
    auto size = static_cast<uint32_t>(bytes.size());
    player.ReadChunk(bytes.data(), &size, false);
    bytes.resize(size);
    return {status, params.uFrameNum, bytes};
}

// 298 samples, 25 in each of 12 chunks: the file declares the shorter last one, or it does not.
TEST(ClassTables, ALastChunkThatIsNotFullShiftsNoSample) {
    const Bytes declared = read_sample("amrnb_hinted.3gp");
    const Bytes undeclared = with_word(declared, "stsc", 1, kTableCount, 1);
    ASSERT_EQ(play(declared, "ar", kOnClass).stream, play(undeclared, "ar", kOnClass).stream);
    for (uint32_t ms = 0; ms < 5960; ms += 20)
        EXPECT_EQ(arrive(undeclared, ms), arrive(declared, ms)) << ms;
}

// A host that cuts a read short must not make an MPEG-4 track look foreign, which ends the process.
TEST(ClassOpen, LivesOnWhenTheObjectTypeWasNotRead) {
    const Bytes file = read_sample("mpeg4_hinted.3gp");
    FaultyHost counted(file);
    C3gpInterface first;
    ASSERT_EQ(first.Open(counted.callbacks(), "vr"), KST_SUCCESS);
    for (int k = 0; k < counted.calls; ++k) {
        FaultyHost host(file);
        host.cut = [&](int call) { return call == k; };
        C3gpInterface player;
        player.Open(host.callbacks(), "vr");
    }
}

// The last media sample has no offset, so there is nowhere to send the stream.
TEST(ClassSeek, ReachesTheEndOverHostsThatCheckOffsets) {
    const Bytes file = read_sample("amrnb_hinted.3gp");
    FaultyHost host(file);
    static uint32_t (*plain_seek)(void*, uint32_t);
    plain_seek = host.callbacks()->Seek;
    host.callbacks()->Seek = [](void* context, uint32_t offset) {
        return offset == UINT32_MAX ? uint32_t{KST_HOST_FAILED} : plain_seek(context, offset);
    };
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    _TAG_KST_SEEK_PARAMS params{0, 5943, 0, 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC};
    EXPECT_EQ(player.SeekTo(&params), KST_SUCCESS);
    EXPECT_EQ(params.uFrameNum, 298u);
    EXPECT_EQ(params.uFileOffset, UINT32_MAX);
}

// --- log lines ---

// A line without its line number and addresses.
std::string placeless(const std::string& line) {
    static const std::regex kPlace(R"((\.//[a-z0-9_/]+)\(\d+\): )");
    static const std::regex kAddress("(=|Context: |DataPtr: )0x[0-9a-fA-F]+");
    return std::regex_replace(std::regex_replace(line, kPlace, "$1: "), kAddress, "$1#");
}

// The same with # for each number. The bare lines of the hint sample's trace have neither prefix
// nor place.
std::string normalised(const std::string& line) {
    static const std::regex kNumber(R"(([=: ])(-?\d+(\.\d+)?|0x[0-9a-fA-F]+)( *(?=:))?(?![\w.]))");
    static const std::regex kDataByte("^[0-9A-F]{2} $");
    static const std::regex kNewline("\n");
    const std::string text = std::regex_replace(line, kDataByte, "## ");
    return std::regex_replace(std::regex_replace(text, kNumber, "$1#"), kNewline, "\\n") + "|";
}

// Plays, seeks and fails in every way that has a line.
void drive(const Bytes& file, const char* mode) {
    const auto read_all = [](C3gpInterface& player, bool flag) {
        return read_through_failures(read_call(player, flag), 500);
    };
    FaultyHost host(file);
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.callbacks(), mode), KST_SUCCESS);
    for (const uint32_t ms : {0u, 250u, 1000u, 5900u, UINT32_MAX}) {
        for (const uint32_t rule : {KST_SEEK_NEXT_SYNC, KST_SEEK_PREVIOUS_SYNC}) {
            _TAG_KST_SEEK_PARAMS params{0, ms, 0, 0, KST_SEEK_ABSOLUTE | rule};
            player.SeekTo(&params);
        }
    }
    // Not yet and failing by turns, at every slot.
    size_t reads = 0;
    size_t advances = 0;
    host.fault = [&](int) -> uint32_t {
        size_t& turn = host.names.back() == "AdvanceRead" ? advances : reads;
        constexpr uint32_t kN = KST_HOST_NOT_YET, kF = KST_HOST_FAILED, kO = KST_HOST_OK;
        constexpr uint32_t kTurns[] = {kN, kO, kF, kO, kO, kO, kN};
        return kTurns[turn++ % std::size(kTurns)];
    };
    for (int i = 0; i < 10; ++i)
        read_all(player, true);
    host.fault = nullptr;
    EXPECT_EQ(read_all(player, true).status, KST_END_OF_FILE);
}

// A file whose hint samples have every constructor, and some that are malformed.
Bytes odd_file() {
    HintFile made = three_frames({1, 3});
    made.add_hint(hint_sample(2, {packet_entry(96, 1, 1)}));
    made.add_hint(hint_sample(
        1, {packet_entry(96, 10, 5, 4), be32(12), zeros(8), immediate("", 0), Bytes(16),
            from_sample(3, 0, 2, 1, 0), from_sample(2, 0, 11, 1, 0), immediate(kSpeech)}));
    return made.build();
}

Bytes even_file() {
    HintFile made = three_frames();
    Bytes file = made.build();
    const uint32_t size = made.hint_sizes[0];
    return with_word(file, "stsz", 1, 4, size);  // one size for all three
}

void drive_speech() {
    for (const char* name : {"amrnb_hinted_1450.3gp", "amrnb_hinted_multi.3gp"})
        drive(read_sample(name), "ar");
    drive(odd_file(), "ar");
    drive(even_file(), "ar");
}

void drive_video() {
    for (const char* name : {"h263_rfc2190_hinted_1450.3gp", "h263_hinted.3gp", "mpeg4_hinted.3gp"})
        drive(read_sample(name), "vr");
    const Bytes late = edit_list(words({1, 0xFFFFFFFF, 0}));
    drive(video_file(late, late).build(), "vr");
}

// Lines of the API, sorted, and at verbose level a digest of all of them with their numbers.
std::set<std::string> lines_of_class_api(int32_t level) {
    std::set<std::string> lines;
    const std::pair<const char*, void (*)()> drives[] = {{"speech ", drive_speech},
                                                         {"video ", drive_video}};
    for (const auto& [name, driving] : drives) {
        const SyslogCapture log(level);
        driving();
        uint64_t all = digest(nullptr, 0);
        for (const std::string& written : log.lines()) {
            if (written.find(".//boxes/") != std::string::npos) continue;
            const std::string line = placeless(written);
            all = digest(line.data(), line.size(), all);
            lines.insert(name + normalised(line));
        }
        if (level == 5) lines.insert(name + std::to_string(all));
    }
    return lines;
}

// The level from which a line is written: that of its prefix.
int32_t level_of(const std::string& line) {
    const std::string rest = line.substr(line.find(' ') + 1);
    for (const auto& [prefix, level] : {std::pair{"ERR: ", 2}, {"WARN:", 3}, {"DBG: ", 4}}) {
        if (rest.starts_with(prefix)) return level;
    }
    return 5;
}

class Environment {
  public:
    Environment(const char* debug, const char* verbose) : level_before_(sx_Debug) {
        setenv(kDebugName, debug, 1);
        setenv(kVerboseName, verbose, 1);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() {
        unsetenv(kDebugName);
        unsetenv(kVerboseName);
        sx_Debug = level_before_;
    }

  private:
    static constexpr const char* kDebugName = "KST_LOG_DEBUG";
    static constexpr const char* kVerboseName = "KST_LOG_DEBUG_VERBOSE";
    int32_t level_before_;
};

TEST(ClassLog, EveryLineIsWrittenAtItsLevel) {
    const std::set<std::string> all = lines_of_class_api(5);
    const std::vector<std::string> golden =
        golden_lines("class_api_log.txt", {all.begin(), all.end()});
    ASSERT_FALSE(golden.empty());
    for (int32_t level = 0; level <= 5; ++level) {
        std::set<std::string> expected;
        for (const std::string& line : golden) {
            if (level_of(line) <= level) expected.insert(line);
        }
        EXPECT_EQ(lines_of_class_api(level), expected) << level;
    }
}

// Data that has not arrived is nothing to remark on, and only what is missing is asked for again.
TEST(ClassLog, MissingDataIsNoRemark) {
    const Bytes file = three_frames().build();
    FaultyHost host(file);
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    const SyslogCapture log(3);
    Bytes buffer(1000);
    const auto read = [&] {
        uint32_t size = 1000;
        return player.ReadChunk(buffer.data(), &size, true);
    };
    for (const int there : {0, 1}) {  // the hint sample, and then only the media sample, is missing
        const int from = host.calls;
        host.fault = [=](int call) -> uint32_t {
            return call < from + there ? KST_HOST_OK : KST_HOST_NOT_YET;
        };
        EXPECT_EQ(read(), KST_NOT_YET);
        const int before = host.calls;
        for (int again = 0; again < 5; ++again)
            EXPECT_EQ(read(), KST_NOT_YET);
        EXPECT_EQ(host.calls - before, 5);
    }
    host.fault = nullptr;
    EXPECT_EQ(read(), KST_END_OF_FILE);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ClassLog, TheEnvironmentSetsTheLevelAtOpening) {
    const std::string debug = "Kestrel: Set log level to DEBUG";
    const std::string verbose = "Kestrel: Set log level to DEBUG_VERBOSE";
    const struct {
        const char* debug;
        const char* verbose;
        int32_t level;
        std::vector<std::string> messages;
    } cases[] = {{"1", "", 4, {debug}},
                 {"", "1", 5, {verbose}},
                 {"1", "1", 5, {debug, verbose}},
                 {"1 ", "10", 0, {}},
                 {"yes", "", 0, {}}};
    for (const auto& c : cases) {
        const SyslogCapture log(0);
        const Environment set(c.debug, c.verbose);
        C3gpInterface player;
        EXPECT_EQ(player.Open(nullptr, "?"), KST_BAD_MODE);
        EXPECT_EQ(sx_Debug, c.level);
        std::vector<std::string> messages = log.messages();
        ASSERT_GE(messages.size(), c.messages.size());
        messages.resize(c.messages.size());
        EXPECT_EQ(messages, c.messages);
    }
}

// The function API writes little: what failed, and traces of the files it reads.
TEST(FunctionLog, EveryLineIsWrittenAtItsLevel) {
    const Bytes file = read_sample("amrnb_hinted.3gp");
    for (int32_t level = 0; level <= 5; ++level) {
        const SyslogCapture log(level);
        EXPECT_EQ(play(file, "a", {}).status, KST_BAD_MODE);
        EXPECT_EQ(play(file, "vr", {}).status, KST_FAILURE);
        FaultyHost host(file);
        mm_Interface* handle = nullptr;
        ASSERT_EQ(kst_Open(&handle, host.callbacks(), "ar"), KST_SUCCESS);
        host.fault = [&](int) -> uint32_t { return host.names.back() == "AdvanceRead" ? 7 : 0; };
        EXPECT_EQ(read_through_failures(read_call(handle, true)).status, KST_FAILURE);
        kst_Close(&handle);
        std::set<std::string> messages;
        for (const std::string& message : log.messages())
            messages.insert(message.substr(0, message.find(" offset ")));
        std::set<std::string> expected;
        if (level >= 2) {
            expected = {"ERR: Direction not specified",
                        "ERR: Valid video track (MPEG4, H263, H264) not found."};
        }
        if (level >= 4) {
            expected.insert("DBG: Direction not specified");
            expected.insert("DBG: IO Callback Interface failed with status 7");
        }
        EXPECT_EQ(messages, expected) << level;
    }
}

}  // namespace
