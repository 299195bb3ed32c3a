// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "kestrel/native_records.h"
#include "native/stream/native_walk.h"
#include "tests/support/playing.h"

// C3gpInterface on whole files: what comes out, however the file arrives, wherever playing begins
// and whatever the host does.

namespace {

using testing::IsEmpty;

struct ClassFile {
    const char* file;  // without its ending
    const char* mode;
    const char* speech = nullptr;  // what it carries, below truth/
};

constexpr ClassFile kFiles[] = {
    {"amrnb_hinted", "ar", "amrnb"},
    {"amrnb_hinted_1450", "ar", "amrnb"},
    {"amrnb_hinted_multi", "ar", "amrnb"},
    {"amrnb_dtx_hinted", "ar", "amrnb_dtx"},
    {"av_h263_amrnb_hinted", "ar"},
    {"av_h263_amrnb_hinted", "vr"},
    {"h263_cif_hinted", "vr"},
    {"h263_hinted", "vr"},
    {"h263_hinted_1450", "vr"},
    {"h263_hinted_mtu500", "vr"},
    {"h263_rfc2190_hinted_1450", "vr"},
    {"h263plus_hinted", "vr"},
    {"mpeg4_b_hinted", "vr"},
    {"mpeg4_hinted", "vr"},
    {"mpeg4_hinted_1450", "vr"},
};

void PrintTo(const ClassFile& file, std::ostream* out) {
    *out << file.file << " " << file.mode;
}

std::string name_of(const testing::TestParamInfo<ClassFile>& info) {
    return std::string(info.param.file) + (info.param.mode[0] == 'a' ? "_audio" : "_video");
}

Bytes load(const ClassFile& file) {
    return read_sample(std::string(file.file) + ".3gp");
}

// With the class API. `flag` unset: as the host is.
Playing on_class(uint32_t request = KST_LARGEST_CHUNK, std::optional<bool> flag = {},
                 std::function<uint32_t()> steps = {}) {
    return {Api::kClass, request, flag, std::move(steps)};
}

Bytes whole_stream(const Bytes& file, const char* mode) {
    const Played played = play(file, mode, on_class());
    EXPECT_EQ(played.status, KST_END_OF_FILE);
    return played.stream;
}

class ClassApi : public testing::TestWithParam<ClassFile> {};

INSTANTIATE_TEST_SUITE_P(Files, ClassApi, testing::ValuesIn(kFiles), name_of);

// --- what comes out ---

struct Packet {
    uint32_t size;
    uint32_t marker;
    uint32_t payload_type;
    uint32_t sequence;

    bool operator==(const Packet&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Packet& p) {
    return out << p.size << " " << p.marker << " " << p.payload_type << " " << p.sequence;
}

// The packets of a stream; for speech, whose frames have no marker and type, one a frame.
class PacketList final : public kestrel::stream::RecordSink {
  public:
    std::vector<Packet> packets;
    Bytes speech = text("#!AMR\n");

    void speech_frame(std::span<const uint8_t> frame) override {
        speech.insert(speech.end(), frame.begin(), frame.end());
    }
    void record(const kestrel::stream::StreamRecord& record) override {
        const auto size = static_cast<uint32_t>(record.payload.size());
        const auto number = [&](const char* name) {
            for (const kestrel::stream::Field& field : record.fields) {
                if (field.name == name) return std::get<uint32_t>(field.value);
            }
            return 0u;
        };
        if (record.name != "TEL_Packet_Header" && record.name != "AUD_AudFrame_Native") return;
        packets.push_back({size, number("marker"), number("payload_type"), number("sequence")});
    }
};

// The rows of the first track in the medium, with sequence numbers that count from `sequence`.
std::vector<Packet> true_packets(const ClassFile& file, uint32_t sequence) {
    const Bytes rows = read_sample("truth/" + std::string(file.file) + ".packets");
    std::istringstream in(std::string(rows.begin(), rows.end()));
    const bool speech_after_video = std::string(file.file).starts_with("av_");
    const bool second = speech_after_video && file.mode[0] == 'a';
    std::vector<Packet> packets;
    std::string line;
    uint32_t first_track = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        uint32_t track = 0;
        Packet packet{};
        fields >> track >> packet.size >> packet.marker >> packet.payload_type >> packet.sequence;
        if (first_track == 0) first_track = track;
        if ((track != first_track) != second) continue;
        constexpr uint32_t kRtpHeader = 12;
        packet.size -= kRtpHeader;
        packet.sequence = (packet.sequence + sequence) & 0xFFFF;
        if (file.mode[0] == 'a') packet.marker = packet.payload_type = 0;
        packets.push_back(packet);
    }
    return packets;
}

TEST_P(ClassApi, PacketsAreThoseOfTheHintTrack) {
    const ClassFile& about = GetParam();
    const Bytes stream = whole_stream(load(about), about.mode);
    PacketList list;
    kestrel::stream::walk_native(stream, list);
    ASSERT_FALSE(list.packets.empty());
    const std::vector<Packet> expected = true_packets(about, list.packets[0].sequence);
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(list.packets, expected);
    if (about.speech == nullptr) return;
    Bytes speech = read_sample("truth/" + std::string(about.speech) + ".amr");
    // That hint track ends 18 frames early.
    if (std::string(about.file) == "amrnb_hinted_1450") speech.resize(speech.size() - 18 * 32);
    EXPECT_EQ(list.speech, speech);
}

TEST_P(ClassApi, AnyRequestGivesTheSameBytes) {
    const ClassFile& about = GetParam();
    const Bytes file = load(about);
    const Bytes whole = whole_stream(file, about.mode);
    for (const bool flag : {false, true}) {
        for (const uint32_t request : {1u, 7u, 24u, 1000u, 100000u}) {
            const Played played = play(file, about.mode, on_class(request, flag));
            ASSERT_EQ(played.status, KST_END_OF_FILE) << request;
            ASSERT_TRUE(played.stream == whole) << request;
        }
    }
}

TEST_P(ClassApi, TheFlagMayChangeFromReadToRead) {
    const ClassFile& about = GetParam();
    const Bytes file = load(about);
    FaultyHost host(file);
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.callbacks(), about.mode), KST_SUCCESS);
    bool flag = false;
    const ReadThrough got = read_through_failures(
        [&](uint8_t* buffer, uint32_t* size) {
            flag = !flag;
            return read_call(player, flag)(buffer, size);
        },
        33);
    EXPECT_THAT(got.failures, IsEmpty());
    EXPECT_TRUE(got.stream == whole_stream(file, about.mode));
}

// --- seeking ---

struct Landing {
    uint32_t status = KST_SUCCESS;
    uint32_t ms = 0;
    uint32_t frame = 0;
    uint32_t offset = 0;

    bool operator==(const Landing&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Landing& l) {
    return out << l.status << ": " << l.ms << " ms, frame " << l.frame << ", offset " << l.offset;
}

Landing seek(C3gpInterface& player, uint32_t time, uint32_t flags) {
    _TAG_KST_SEEK_PARAMS params{};
    params.nTime = time;
    params.fFlags = flags;
    const unsigned int status = player.SeekTo(&params);
    return {status, params.nTime, params.uFrameNum, params.uFileOffset};
}

// As it is; counted in the hint track's timescale, so that a time leads to every hint sample; and
// that without sync samples, or with the first of them later.
enum class Doctored { kNot, kTimescale, kNoSync, kLateSync };

Bytes doctor(Bytes file, Doctored how) {
    constexpr size_t kTimescale = 16;  // in `mdhd`, from its type; the duration is next
    constexpr size_t kFirstSync = 12;  // in `stss`
    if (how == Doctored::kNot) return file;
    std::copy_n(file.begin() + static_cast<long>(find_box(file, "mdhd", 1) + kTimescale), 8,
                file.begin() + static_cast<long>(find_box(file, "mdhd", 0) + kTimescale));
    const size_t sync = find_box(file, "stss", 1);
    if (sync == file.size()) return file;
    if (how == Doctored::kNoSync) file[sync] = 'x';
    if (how == Doctored::kLateSync) file[sync + kFirstSync + 3] = 4;
    return file;
}

// Seeks in one file, open in one player.
class Seeking {
  public:
    Seeking(const Bytes& file, const char* mode)
        : file_(file), whole_(whole_stream(file_, mode)), host_(file_) {
        EXPECT_EQ(player_.Open(host_.callbacks(), mode), KST_SUCCESS);
        split();
    }

    uint32_t frames() const { return static_cast<uint32_t>(frames_.size()); }
    C3gpInterface& player() { return player_; }
    FaultyHost& host() { return host_; }

    // The header records, or the stream from a frame on.
    Bytes headers() const { return Bytes(whole_.begin(), at(frames_[0])); }
    Bytes tail(uint32_t frame) const {
        return Bytes(frame <= frames() ? at(frames_[frame - 1]) : whole_.end(), whole_.end());
    }
    Bytes read_on() { return read_through_failures(read_call(player_, false), 1000).stream; }

    // The last time that can be sought.
    uint32_t end();

  private:
    Bytes::const_iterator at(size_t offset) const {
        return whole_.begin() + static_cast<long>(offset);
    }
    uint32_t word(size_t offset) const {
        uint32_t value = 0;
        std::memcpy(&value, &whole_[offset], sizeof value);
        return value;
    }
    void split() {
        size_t offset = word(offsetof(kestrel::PROP_Header_Info, header_length));
        for (; offset < whole_.size(); offset += word(offset))
            frames_.push_back(offset);
        EXPECT_EQ(offset, whole_.size());
    }

    Bytes file_;
    Bytes whole_;
    std::vector<size_t> frames_;  // where they begin in the stream
    FaultyHost host_;
    C3gpInterface player_;
};

constexpr uint32_t kRules[] = {KST_SEEK_NEXT_SYNC, KST_SEEK_PREVIOUS_SYNC, KST_SEEK_NEAREST_SYNC};

uint32_t Seeking::end() {
    uint32_t ms = 0;
    while (seek(player_, ms + 1, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC).status !=
           KST_BAD_TIMESTAMP) {
        ++ms;
    }
    return ms;
}

// Where seeks arrive with every rule, from a time and on to the last: a run for each landing. An
// absolute seek and a relative one arrive alike.
std::string landings_of(Seeking& seeking) {
    std::ostringstream runs;
    const uint32_t end = seeking.end();
    for (const uint32_t rule : kRules) {
        Landing last{.status = KST_FAILURE};
        for (uint32_t ms = 0; ms <= end + 1; ++ms) {
            const Landing landing = seek(seeking.player(), ms, KST_SEEK_ABSOLUTE | rule);
            if (landing.status == KST_SUCCESS && landing == last) continue;
            last = landing;
            runs << rule << ' ' << ms << " -> " << landing << '\n';
            const Landing now = seek(seeking.player(), 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
            Landing relative = seek(seeking.player(), ms - now.ms, KST_SEEK_RELATIVE | rule);
            if (relative.status != KST_SUCCESS) relative.ms = ms;
            EXPECT_EQ(relative, landing) << ms << " " << rule << " from " << now.ms;
        }
    }
    return runs.str();
}

TEST(ClassApiSeek, LandsWhereItDidBefore) {
    std::vector<std::string> lines;
    for (const ClassFile& about : kFiles) {
        for (const Doctored how :
             {Doctored::kNot, Doctored::kTimescale, Doctored::kNoSync, Doctored::kLateSync}) {
            if (std::string(about.file).starts_with("av_") && how != Doctored::kNot) continue;
            Seeking seeking(doctor(load(about), how), about.mode);
            const std::string landings = landings_of(seeking);
            std::ostringstream line;
            line << about.file << ' ' << about.mode << " form " << static_cast<int>(how) << ": "
                 << std::count(landings.begin(), landings.end(), '\n') << " landings, " << std::hex
                 << digest(landings.data(), landings.size());
            lines.push_back(line.str());
        }
    }
    EXPECT_EQ(lines, golden_lines("landings.txt", lines));
}

// Whether a speech frame starts depends on what was played before it, so that this one field of the
// first frame is left out.
void forget_flag(Bytes& tail, const char* mode) {
    constexpr size_t kFlag = offsetof(kestrel::AUD_AudFrame_Native, flag);
    if (mode[0] == 'a' && tail.size() > kFlag) tail[kFlag] = 0;
}

TEST_P(ClassApi, ReadingOnAfterASeekGivesTheRest) {
    const ClassFile& about = GetParam();
    const bool alone = !std::string(about.file).starts_with("av_");
    Seeking seeking(doctor(load(about), alone ? Doctored::kNoSync : Doctored::kNot), about.mode);
    const uint32_t end = seeking.end();
    // What a call has taken that could not deliver is not lost by a seek: the header records.
    Bytes begun(1000);
    uint32_t size = 1000;
    seeking.host().fault = [](int) -> uint32_t { return KST_HOST_NOT_YET; };
    ASSERT_EQ(seeking.player().ReadChunk(begun.data(), &size, true), KST_NOT_YET);
    seeking.host().fault = nullptr;
    Bytes expected = seeking.headers();
    uint32_t reached = 0;
    uint32_t before = 0;
    for (uint32_t ms = end + 1; ms-- > 0;) {
        const Landing landing = seek(seeking.player(), ms, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
        const uint32_t frame = landing.frame;
        if (frame == before) continue;
        before = frame;
        Bytes got = seeking.read_on();
        Bytes tail = seeking.tail(frame);
        if (reached++ > 0) {
            forget_flag(got, about.mode);
            forget_flag(tail, about.mode);
        }
        expected.insert(expected.end(), tail.begin(), tail.end());
        ASSERT_TRUE(got == expected) << "frame " << frame;
        expected.clear();
    }
    EXPECT_GE(reached + 2, alone ? seeking.frames() : 2);
    // In the middle of a frame, the rest of it comes first.
    begun.resize(10);
    size = 10;
    seek(seeking.player(), 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
    ASSERT_EQ(seeking.player().ReadChunk(begun.data(), &size, false), KST_SUCCESS);
    const Landing last = seek(seeking.player(), end, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
    const Bytes tail = seeking.tail(1);
    const size_t first = tail.size() - seeking.tail(2).size();
    Bytes got = join({begun, seeking.read_on()});
    forget_flag(got, about.mode);
    Bytes rest = join(
        {Bytes(tail.begin(), tail.begin() + static_cast<long>(first)), seeking.tail(last.frame)});
    forget_flag(rest, about.mode);
    EXPECT_TRUE(got == rest);
}

// Each host call of a seek in turn fails, is not yet or short; playing goes on where it was.
TEST_P(ClassApi, ASeekThatFailsLeavesPlayingWhereItWas) {
    const ClassFile& about = GetParam();
    for (const Fault& fault : kFaults) {
        if (!fault.honest()) continue;
        for (int failing = 0; failing < 3; ++failing) {
            Seeking seeking(load(about), about.mode);
            FaultyHost& host = seeking.host();
            Bytes begun(500);
            uint32_t size = 500;
            ASSERT_EQ(seeking.player().ReadChunk(begun.data(), &size, false), KST_SUCCESS);
            const int from = host.calls;
            host.break_at(from + failing, fault);
            const Landing landing =
                seek(seeking.player(), 100, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
            ASSERT_GT(host.calls, from + failing);
            const std::string_view last = host.names.back();
            host.repair();
            const bool fails = can_fault(last, fault.kind);
            EXPECT_EQ(landing.status, fails ? KST_FAILURE : KST_SUCCESS) << last;
            if (!fails) continue;
            EXPECT_EQ(landing, (Landing{KST_FAILURE, 100, 0, 0}));
            EXPECT_TRUE(join({begun, seeking.read_on()}) ==
                        join({seeking.headers(), seeking.tail(1)}));
        }
    }
}

TEST(ClassApiSeek, RefusesWhatItCannotDo) {
    Seeking seeking(read_sample("h263_hinted.3gp"), "vr");
    C3gpInterface& player = seeking.player();
    for (const uint32_t flags : {0u, 1u, 0x10000u, 0x20000u, 0x20003u, 0x20005u, 0x20006u, 0x20007u,
                                 0x30001u, 0x30000u, 0x40001u}) {
        EXPECT_EQ(seek(player, 0, flags).status, KST_BAD_SEEK_FLAGS) << flags;
    }
    EXPECT_EQ(seek(player, 0, 0xFFFCFFF8 | KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC).status,
              KST_SUCCESS);
    EXPECT_EQ(seek(player, UINT32_MAX, KST_SEEK_RELATIVE | KST_SEEK_NEXT_SYNC).status,
              KST_BAD_TIMESTAMP);
    EXPECT_EQ(player.SeekTo(nullptr), KST_BAD_ARGUMENT);
    EXPECT_EQ(seeking.read_on(), join({seeking.headers(), seeking.tail(1)}));
    player.Close();
    EXPECT_EQ(seek(player, 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC).status, KST_NOT_OPEN);
    EXPECT_EQ(player.SeekTo(nullptr), KST_NOT_OPEN);
}

}  // namespace
