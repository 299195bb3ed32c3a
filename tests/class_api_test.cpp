// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <sstream>

#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/track_boxes.h"
#include "common/bytes.h"
#include "companion/stream/native_walk.h"
#include "kestrel/native_records.h"
#include "tests/support/playing.h"

// C3gpInterface on whole files: what comes out, however the file arrives, wherever playing begins
// and whatever the host does.

namespace {

using Qvox3gp::code;
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
    const bool speech_behind_video = std::string(file.file).starts_with("av_");
    const bool second = speech_behind_video && file.mode[0] == 'a';
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

// A hint track's samples as a plain list, and what of the media track a seek looks at.
struct Listing {
    struct Sample {
        uint64_t start;  // ticks
        uint32_t offset;
        uint32_t size;
        uint32_t first_media = 0;
    };
    std::vector<Sample> hints;
    std::vector<Sample> media;
    std::optional<std::vector<uint32_t>> syncs;
    uint32_t timescale = 0;  // of the media track, which both tracks are counted in
    uint32_t duration = 0;   // ticks
    uint64_t ticks = 0;      // of all hint samples
    // Where the boxes are, for files that are doctored.
    size_t media_mdhd = 0;
    size_t hint_stss = 0;
    uint32_t hint_timescale = 0;

    uint32_t per_ms() const { return timescale / 1000; }
    uint32_t duration_ms() const {
        return static_cast<uint32_t>(uint64_t{duration} * 1000 / timescale);
    }
};

size_t place_of(const Qvox3gp::Box& box) {
    return static_cast<size_t>(static_cast<std::streamoff>(box.GetStart()));
}

std::vector<Listing::Sample> list_samples(const Qvox3gp::StblBox& stbl) {
    std::vector<Listing::Sample> samples;
    for (const auto& entry : stbl.GetStts()->GetSampleEntries()) {
        for (uint32_t i = 0; i < entry.sample_count; ++i) {
            const uint64_t start = samples.empty() ? 0 : samples.back().start + samples.back().size;
            samples.push_back({start, 0, entry.sample_delta});  // the size is the delta until below
        }
    }
    const Qvox3gp::StszBox& stsz = *stbl.GetStsz();
    EXPECT_EQ(samples.size(), stsz.GetSampleCount());
    const auto& runs = stbl.GetStsc()->GetSampleEntries();
    const auto& chunks = stbl.GetStco()->GetChunkOffsets();
    size_t number = 0;
    for (size_t chunk = 1; chunk <= chunks.size(); ++chunk) {
        const auto after = std::find_if(runs.begin(), runs.end(),
                                        [&](const auto& run) { return run.first_chunk > chunk; });
        uint32_t offset = chunks[chunk - 1];
        for (uint32_t i = 0; i < std::prev(after)->samples_per_chunk; ++i, ++number) {
            const auto& sizes = stsz.GetChunkSizes();
            samples.at(number).size = sizes.empty() ? stsz.GetSampleSize() : sizes.at(number);
            samples.at(number).offset = offset;
            offset += samples.at(number).size;
        }
    }
    EXPECT_EQ(number, samples.size());
    return samples;
}

// The lowest media sample that a hint sample's constructors name (ISO/IEC 14496-12, 9.1.3).
uint32_t first_media_sample(const uint8_t* hint) {
    uint32_t lowest = UINT32_MAX;
    uint32_t packets = kestrel::load_be16(hint);
    for (hint += 4; packets > 0; --packets) {
        const bool extra = (hint[9] & 4) != 0;
        uint32_t constructors = kestrel::load_be16(hint + 10);
        hint += 12 + (extra ? kestrel::load_be32(hint + 12) : 0);
        for (; constructors > 0; --constructors, hint += 16) {
            if (hint[0] == 2) lowest = std::min(lowest, kestrel::load_be32(hint + 4));
        }
    }
    return lowest;
}

Listing list_file(const Bytes& file, const char* mode) {
    kst_host* host = kst_host_from_memory(file.data(), file.size());
    KST_IOSTREAM_CALLBACK_INTERFACE* io = kst_host_callbacks(host);
    Qvox3gp::Simple3gp boxes;
    boxes.Read(io, 0);
    Listing list;
    const uint32_t handler = mode[0] == 'a' ? code("soun") : code("vide");
    const auto& tracks = boxes.GetMoov()->GetTraks();
    const auto* media = *std::find_if(tracks.begin(), tracks.end(), [&](const auto* track) {
        return track->GetMdia()->GetHdlr()->GetHandlerType() == handler;
    });
    const auto* hint = *std::find_if(tracks.begin(), tracks.end(), [&](const auto* track) {
        return track->GetTref() != nullptr &&
               track->GetTref()->GetTrackReferenceTypeBox()->GetTrackID(0) ==
                   media->GetTkhd()->GetTrackId();
    });
    const Qvox3gp::MdhdBox& mdhd = *media->GetMdia()->GetMdhd();
    list.timescale = mdhd.GetTimescale();
    list.duration = mdhd.GetDuration();
    list.media_mdhd = place_of(mdhd);
    list.hint_timescale = hint->GetMdia()->GetMdhd()->GetTimescale();
    list.media = list_samples(*media->GetMdia()->GetMinf()->GetStbl());
    const Qvox3gp::StblBox& stbl = *hint->GetMdia()->GetMinf()->GetStbl();
    list.hints = list_samples(stbl);
    for (Listing::Sample& sample : list.hints)
        sample.first_media = first_media_sample(&file[sample.offset]);
    for (const auto& entry : stbl.GetStts()->GetSampleEntries())
        list.ticks += uint64_t{entry.sample_count} * entry.sample_delta;
    if (stbl.GetStss() != nullptr) {
        list.hint_stss = place_of(*stbl.GetStss());
        list.syncs = stbl.GetStss()->GetSyncSampleEntries();
    }
    kst_host_close(host);
    return list;
}

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

// The sync sample that a rule picks for a sample; 0 for none.
uint32_t pick_sync(const std::vector<uint32_t>& syncs, uint32_t sample, uint32_t rule) {
    const auto at = std::lower_bound(syncs.begin(), syncs.end(), sample);
    const uint32_t before = at != syncs.begin() ? *std::prev(at) : 0;
    if (at == syncs.end()) return before;
    if (*at == sample) return sample;
    const bool farther_is_before = sample - before >= *at - sample;
    if (rule == KST_SEEK_NEXT_SYNC) return *at;
    return rule == KST_SEEK_PREVIOUS_SYNC || farther_is_before ? before : *at;
}

Landing expected_landing(const Listing& list, uint32_t ms, uint32_t rule) {
    if (ms > list.duration_ms()) return {.status = KST_BAD_TIMESTAMP, .ms = ms};
    const uint64_t ticks = uint64_t{ms} * list.per_ms();
    const auto after =
        std::find_if(list.hints.begin(), list.hints.end(),
                     [&](const Listing::Sample& sample) { return sample.start > ticks; });
    auto sample = static_cast<uint32_t>(after - list.hints.begin());
    if (list.syncs) sample = pick_sync(*list.syncs, sample, rule);
    if (sample == 0) return {.status = KST_NO_HINT_OFFSET, .ms = ms};
    const Listing::Sample& found = list.hints[sample - 1];
    const auto ms_found = static_cast<uint32_t>(found.start / list.per_ms());
    // The last media sample has no offset, and no offset is the smaller one.
    if (found.first_media >= list.media.size()) return {KST_SUCCESS, ms_found, sample, UINT32_MAX};
    return {KST_SUCCESS, ms_found, sample,
            std::min(found.offset, list.media[found.first_media - 1].offset)};
}

Landing seek(C3gpInterface& player, uint32_t time, uint32_t flags) {
    _TAG_KST_SEEK_PARAMS params{};
    params.nTime = time;
    params.fFlags = flags;
    const unsigned int status = player.SeekTo(&params);
    return {status, params.nTime, params.uFrameNum, params.uFileOffset};
}

void put_be32(Bytes& file, size_t at, uint32_t value) {
    const Bytes bytes = be32(value);
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<long>(at));
}

// As it is; counted in the hint track's timescale, so that a time leads to every hint sample; and
// that without sync samples, or with the first of them later.
enum class Doctored { kNot, kTimescale, kNoSync, kLateSync };

Bytes doctor(Bytes file, const char* mode, Doctored how) {
    constexpr size_t kTimescale = 20;  // in `mdhd`, from the start of the box
    constexpr size_t kFirstSync = 16;  // in `stss`
    const Listing list = list_file(file, mode);
    if (how == Doctored::kNot) return file;
    put_be32(file, list.media_mdhd + kTimescale, list.hint_timescale);
    put_be32(file, list.media_mdhd + kTimescale + 4, static_cast<uint32_t>(list.ticks));
    if (!list.syncs) return file;
    if (how == Doctored::kNoSync) file[list.hint_stss + 4] = 'x';
    if (how == Doctored::kLateSync) put_be32(file, list.hint_stss + kFirstSync, 4);
    return file;
}

// Seeks in one file, open in one player.
class Seeking {
  public:
    Seeking(const Bytes& file, const char* mode)
        : file_(file),
          list_(list_file(file_, mode)),
          whole_(whole_stream(file_, mode)),
          host_(file_) {
        EXPECT_EQ(player_.Open(host_.callbacks(), mode), KST_SUCCESS);
        split();
    }

    const Listing& list() const { return list_; }
    uint32_t frames() const { return static_cast<uint32_t>(frames_.size()); }
    C3gpInterface& player() { return player_; }
    FaultyHost& host() { return host_; }

    // The header records, or the stream from a frame on.
    Bytes headers() const { return Bytes(whole_.begin(), at(frames_[0])); }
    Bytes tail(uint32_t frame) const {
        return Bytes(frame <= frames() ? at(frames_[frame - 1]) : whole_.end(), whole_.end());
    }
    Bytes read_on() { return read_through_failures(read_call(player_, false), 1000).stream; }

    void expect_landings_for(uint32_t ms, uint32_t& tried);

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
        EXPECT_EQ(frames_.size(), list_.hints.size());
    }

    Bytes file_;
    Listing list_;
    Bytes whole_;
    std::vector<size_t> frames_;  // where they begin in the stream
    FaultyHost host_;
    C3gpInterface player_;
};

constexpr uint32_t kRules[] = {KST_SEEK_NEXT_SYNC, KST_SEEK_PREVIOUS_SYNC, KST_SEEK_NEAREST_SYNC};

// With every rule, by the absolute time and then by a relative one.
void Seeking::expect_landings_for(uint32_t ms, uint32_t& tried) {
    for (const uint32_t rule : kRules) {
        const Landing expected = expected_landing(list_, ms, rule);
        ASSERT_EQ(seek(player_, ms, KST_SEEK_ABSOLUTE | rule), expected) << ms << " " << rule;
        ++tried;
        const Landing now = seek(player_, 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
        Landing relative = seek(player_, ms - now.ms, KST_SEEK_RELATIVE | rule);
        if (relative.status != KST_SUCCESS) relative.ms = ms;
        ASSERT_EQ(relative, expected) << ms << " " << rule << " from " << now.ms;
    }
}

TEST_P(ClassApi, SeeksLandWhereTheTablesSay) {
    const ClassFile& about = GetParam();
    uint32_t tried = 0;
    for (const Doctored how :
         {Doctored::kNot, Doctored::kTimescale, Doctored::kNoSync, Doctored::kLateSync}) {
        Seeking seeking(doctor(load(about), about.mode, how), about.mode);
        const Listing& list = seeking.list();
        for (const Listing::Sample& sample : list.hints) {
            const auto ms = static_cast<uint32_t>(sample.start / list.per_ms());
            for (const uint32_t near : {ms, ms + 1, ms == 0 ? ms : ms - 1})
                seeking.expect_landings_for(near, tried);
            ASSERT_FALSE(HasFailure()) << "doctored " << static_cast<int>(how);
        }
        seeking.expect_landings_for(list.duration_ms(), tried);
        seeking.expect_landings_for(list.duration_ms() + 1, tried);
        if (how == Doctored::kNot && about.mode[0] == 'v') continue;
        EXPECT_EQ(expected_landing(list, list.duration_ms(), KST_SEEK_PREVIOUS_SYNC).status,
                  KST_SUCCESS);
    }
    std::cout << tried << " seeks\n";
}

// Whether a speech frame starts depends on what was played before it, so that this one field of the
// first frame is left out.
void forget_flag(Bytes& tail, const char* mode) {
    constexpr size_t kFlag = offsetof(kestrel::AUD_AudFrame_Native, flag);
    if (mode[0] == 'a' && tail.size() > kFlag) tail[kFlag] = 0;
}

// A host that is read by Seek and SeekNRead has all of its data: what it says of an announcement
// does not count.
TEST_P(ClassApi, NotYetOfAnAnnouncementIsNoWaitInPlainMode) {
    const Bytes file = load(GetParam());
    const Bytes whole = play(file, GetParam().mode, {.api = Api::kClass}).stream;
    FaultyHost host(file);
    C3gpInterface player;
    ASSERT_EQ(player.Open(host.callbacks(), GetParam().mode), KST_SUCCESS);
    host.fault = [&](int) -> uint32_t {
        return host.names.back() == "AdvanceRead" ? KST_HOST_NOT_YET : KST_HOST_OK;
    };
    const ReadThrough read = read_through_failures(read_call(player, false), 500);
    EXPECT_EQ(read.status, KST_END_OF_FILE);
    EXPECT_EQ(read.failures.size(), 0u);
    EXPECT_TRUE(read.stream == whole);
}

TEST_P(ClassApi, ReadingOnAfterASeekGivesTheRest) {
    const ClassFile& about = GetParam();
    Seeking seeking(doctor(load(about), about.mode, Doctored::kNoSync), about.mode);
    const Listing& list = seeking.list();
    // What a call has taken that could not deliver is not lost by a seek: the header records.
    Bytes begun(1000);
    uint32_t size = 1000;
    seeking.host().fault = [](int) -> uint32_t { return KST_HOST_NOT_YET; };
    ASSERT_EQ(seeking.player().ReadChunk(begun.data(), &size, true), KST_NOT_YET);
    seeking.host().fault = nullptr;
    Bytes expected = seeking.headers();
    uint32_t reached = 0;
    for (uint32_t frame = seeking.frames(); frame >= 1; --frame) {
        const auto ms = static_cast<uint32_t>((list.hints[frame - 1].start + list.per_ms() - 1) /
                                              list.per_ms());
        const Landing landing = seek(seeking.player(), ms, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
        if (landing.status == KST_BAD_TIMESTAMP) continue;
        ASSERT_EQ(landing.frame, frame);
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
    EXPECT_GE(reached + 2, seeking.frames());
    // In the middle of a frame, the rest of it comes first.
    begun.resize(10);
    size = 10;
    seek(seeking.player(), 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
    ASSERT_EQ(seeking.player().ReadChunk(begun.data(), &size, false), KST_SUCCESS);
    seek(seeking.player(), list.duration_ms(), KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC);
    const Bytes tail = seeking.tail(1);
    const size_t first = tail.size() - seeking.tail(2).size();
    const Landing last = expected_landing(list, list.duration_ms(), KST_SEEK_NEXT_SYNC);
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
    EXPECT_EQ(seek(player, 0, 0xFFFCFFF8 | KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC).status, 0u);
    EXPECT_EQ(seek(player, UINT32_MAX, KST_SEEK_RELATIVE | KST_SEEK_NEXT_SYNC).status,
              KST_BAD_TIMESTAMP);
    EXPECT_EQ(player.SeekTo(nullptr), KST_BAD_ARGUMENT);
    EXPECT_EQ(seeking.read_on(), join({seeking.headers(), seeking.tail(1)}));
    player.Close();
    EXPECT_EQ(seek(player, 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC).status, KST_NOT_OPEN);
    EXPECT_EQ(player.SeekTo(nullptr), KST_NOT_OPEN);
}

}  // namespace
