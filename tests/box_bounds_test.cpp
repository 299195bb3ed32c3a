// SPDX-License-Identifier: Apache-2.0
// Boxes whose sizes and counts lie, and hosts that fail, lie or deliver little.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <functional>
#include <memory>

#include "boxes/sample_entries.h"
#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/track_boxes.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/box_io.h"
#include "tests/support/faulty_host.h"

namespace Qvox3gp {
namespace {

using testing::AnyOf;
using testing::StartsWith;

// Has `watch` see, and change, what each read asks for.
void watch_reads(FaultyHost& host, std::function<void(uint32_t& count)> watch) {
    static std::function<void(uint32_t&)> watching;
    static decltype(KST_IOSTREAM_CALLBACK_INTERFACE::SeekNRead) plain_read;
    watching = std::move(watch);
    plain_read = host.callbacks()->SeekNRead;
    host.callbacks()->SeekNRead = [](void* context, void* data, uint32_t* count, int32_t offset) {
        watching(*count);
        return plain_read(context, data, count, offset);
    };
}

TEST(StreamIo, FailuresCarryTheStatusAndTheContext) {
    struct Case {
        const char* slot;
        std::function<void(Stream&)> call;
        const char* name = nullptr;  // in the message, where it is another
    };
    uint8_t byte = 0;
    uint32_t word = 0;
    const Case cases[] = {
        {"SeekNRead", [&](Stream& io) { macro_Read(io, &byte, 1); }},
        {"SeekNRead", [&](Stream& io) { var32_read(io, word); }},
        {"SeekNRead", [&](Stream& io) { ReadDescriptorSize(io, word); }},
        {"SeekNWrite", [&](Stream& io) { macro_Write(io, &byte, 1); }},
        {"SeekNWrite", [&](Stream& io) { var16_write(io, 1); }},
        {"Seek", [](Stream& io) { macro_Seek(io, 1); }},
        {"Seek", [](Stream& io) { macro_SeekRel(io, 1); }},
        {"GetOffset", [](Stream& io) { macro_Tell(io); }},
        {"GetOffset", [](Stream& io) { macro_SeekRel(io, 1); }},
        {"GetOffset", [](Stream& io) { GetFileSize(io); }},
        {"Seek", [](Stream& io) { GetFileSize(io); }},
        {"GetStreamSize", [](Stream& io) { GetFileSize(io); }, "Tell"},
    };
    const Bytes file = zeros(8);
    for (const Case& each : cases) {
        for (const uint32_t classified : {1u, 5u, 13u}) {  // not yet is a failure here as well
            static uint32_t answer;
            answer = classified;
            FaultyHost host(file);
            host.callbacks()->CheckStatus = [](void*, uint32_t* result, uint32_t status) {
                *result = status == 0 ? 0 : answer;
                return 0u;
            };
            host.fault = [&](int) { return host.names.back() == each.slot ? 0xFFFFFFFEu : 0u; };
            Stream io = host.callbacks();
            char expected[160];
            std::snprintf(expected, sizeof expected,
                          "IO Callback %s() failed with status: -2.  IO Context: 0x%" PRIXPTR,
                          each.name != nullptr ? each.name : each.slot,
                          reinterpret_cast<uintptr_t>(&host));
            EXPECT_EQ(message_of([&] { each.call(io); }), expected);
        }
    }
}

TEST(StreamIo, ShortAndSilentHostsLeaveNothingUninitialised) {
    const Bytes file = zeros(8);
    FaultyHost host(file);
    host.silent = [](int) { return true; };
    Stream io = host.callbacks();
    uint8_t buffer[2] = {1, 2};
    macro_Read(io, buffer, 2);  // untouched: a short read is not detected
    EXPECT_EQ(buffer[1], 2);
    EXPECT_EQ(macro_Tell(io), 0u);
    uint32_t value = 99;
    var32_read(io, value);
    EXPECT_EQ(value, 0u);
    value = 99;
    ReadDescriptorSize(io, value);
    EXPECT_EQ(value, 0u);
}

TEST(BoxHeader, MayEndWithTheFileButNotAfterIt) {
    for (uint32_t size : {20u, 21u, 0xFFFFFFFFu}) {
        MemoryStream in(zeros(4) + header(size, "mdat") + zeros(12));
        macro_Seek(in.io(), 4);
        Box box;
        const std::string message = message_of([&] { box.Read(in.io(), in.size()); });
        EXPECT_EQ(message, size == 20 ? "" : invalid_size(4, size, 24));
    }
}

// --- whole files ---

// Every place where boxes are read in a loop, with a hole for one more box.
std::vector<std::function<Bytes(const Bytes&)>> loops() {
    std::vector<std::function<Bytes(const Bytes&)>> all;
    all.push_back([](const Bytes& hole) { return hole; });
    for (const char* path :
         {"moov", "moov/trak", "moov/trak/tref", "moov/trak/edts", "moov/trak/mdia",
          "moov/trak/mdia/minf", "moov/trak/mdia/minf/dinf", "moov/trak/mdia/minf/stbl"}) {
        all.push_back([path = std::string(path)](const Bytes& hole) {
            Bytes bytes = hole;
            for (size_t end = path.size() + 1; end >= 5; end -= 5) {
                bytes = box(path.substr(end - 5, 4), bytes);
            }
            return bytes;
        });
    }
    const auto stbl = all.back();
    all.push_back([stbl](const Bytes& hole) { return stbl(full_box("stsd", be32(1) + hole)); });
    const auto dinf = all[7];
    all.push_back([dinf](const Bytes& hole) { return dinf(full_box("dref", be32(1) + hole)); });
    return all;
}

TEST(WholeFile, ABoxThatDoesNotMoveTheStreamEndsTheReading) {
    for (const auto& loop : loops()) {
        for (uint32_t size = 0; size < 8; ++size) {
            const Bytes bytes = loop(header(size, "free") + zeros(4)) + zeros(4);
            EXPECT_THAT(read_file(bytes), StartsWith(kInvalidSize)) << size;
        }
        EXPECT_EQ(read_file(loop(header(8, "free")) + box("free", zeros(1))), "");
    }
}

// Whenever the host begins to report, or to go to, another place than the true one.
TEST(WholeFile, AHostThatDoesNotMoveForwardEndsTheReading) {
    for (const auto& loop : loops()) {
        const Bytes free = box("free", zeros(20));
        const Bytes file = kFtyp + loop(free + free) + zeros(100);
        for (const Fault& fault : kFaults) {
            const bool lies = fault.kind >= FaultKind::kLie && fault.for_good;
            for (int from = 0; lies && from < 40; ++from) {
                FaultyHost host(file);
                host.break_at(from, fault);
                Stream io = host.callbacks();
                Simple3gp read;
                EXPECT_THAT(message_of([&] { read.Read(io, 0); }),
                            AnyOf("", StartsWith(kInvalidSize)));
                EXPECT_LT(host.calls, 1000) << fault.name << ' ' << from;
            }
        }
    }
}

TEST(WholeFile, OnlyTheFileBoundsAChild) {
    const Bytes tail = box("free", zeros(20));
    for (const auto& loop : loops()) {
        const Bytes alone = loop(header(8, "free"));
        const auto reach = static_cast<uint32_t>(8 + tail.size());
        // As far as the end of the file, past the container's own end: the container stops there.
        EXPECT_EQ(read_file(loop(header(reach, "free")) + tail), "");
        EXPECT_THAT(read_file(loop(header(reach + 1, "free")) + tail), StartsWith(kInvalidSize));
    }
}

TEST(WholeFile, ABoxTooShortForItsFieldsTakesNothingOfTheNext) {
    const Bytes moov =
        box("moov", box("mvhd", zeros(6)) + box("trak", box("tkhd") + box("tref", box("hint"))));
    EXPECT_EQ(read_file(moov + box("mdat", zeros(1)),
                        [](Simple3gp& file) {
                            const auto& traks = file.GetMoov()->GetTraks();
                            ASSERT_EQ(traks.size(), 1u);
                            EXPECT_EQ(traks[0]->GetTkhd()->GetTrackId(), 0u);
                            EXPECT_EQ(
                                traks[0]->GetTref()->GetTrackReferenceTypeBox()->GetTrackID(0), 0u);
                        }),
              "");
}

TEST(WholeFile, NoByteIsReadTwice) {
    for (const char* name : {"av_h264_amrwb_hinted", "mpeg4_hinted", "amrnb_plain_mdat_first"}) {
        const Bytes bytes = read_sample(std::string(name) + ".3gp");
        FaultyHost host(bytes);
        Stream io = host.callbacks();
        uint64_t asked = 0;
        watch_reads(host, [&](uint32_t& count) { asked += count; });
        Simple3gp file;
        file.Read(io, 0);
        uint64_t outside_media = bytes.size();
        for (const Box* child : file.children()) {
            if (child->GetType() == code("mdat"))
                outside_media -= child->GetSizeWhole() - kBoxHeaderSize;
        }
        EXPECT_LE(asked, outside_media) << name;
    }
}

// --- counts ---

struct TableCase {
    const char* type;
    Bytes before;  // between the full box header and the count
    uint32_t entry_bytes;
    std::function<std::unique_ptr<Box>()> make;
    std::function<size_t(const Box&)> count;
};

template <class T, class Count>
TableCase table(const char* type, Bytes before, uint32_t entry_bytes, Count count) {
    return {type, std::move(before), entry_bytes, [] { return std::make_unique<T>(); },
            [count](const Box& box) { return (dynamic_cast<const T&>(box).*count)().size(); }};
}

std::vector<TableCase> tables() {
    return {table<ElstBox>("elst", {}, 12, &ElstBox::GetEditEntries),
            table<SttsBox>("stts", {}, 8, &SttsBox::GetSampleEntries),
            table<StscBox>("stsc", {}, 12, &StscBox::GetSampleEntries),
            table<StszBox>("stsz", be32(0), 4, &StszBox::GetChunkSizes),
            table<StcoBox>("stco", {}, 4, &StcoBox::GetChunkOffsets),
            table<StssBox>("stss", {}, 4, &StssBox::GetSyncSampleEntries)};
}

TEST(Tables, HoldWhatTheBoxHoldsAndNoMore) {
    for (const TableCase& each : tables()) {
        for (uint32_t entries : {0u, 1u, 20000u}) {
            const Bytes body = each.before + be32(entries) + zeros(entries * each.entry_bytes);
            const Bytes file = full_box(each.type, body) + zeros(64);
            FaultyHost in(file);
            Stream io = in.callbacks();
            const auto made = each.make();
            made->Read(io, static_cast<uint32_t>(file.size()));
            EXPECT_EQ(each.count(*made), entries) << each.type;
            EXPECT_EQ(made->GetSize(), 12 + body.size());
            EXPECT_EQ(macro_Tell(io), 12 + body.size());
            EXPECT_LT(in.calls, 40) << each.type << ": tables are read in large pieces";
        }
        for (uint32_t entries : {2u, 0x40000000u, 0xFFFFFFFFu}) {
            const Bytes body = each.before + be32(entries) + zeros(each.entry_bytes * 2 - 1);
            MemoryStream in(full_box(each.type, body) + zeros(64));
            const auto made = each.make();
            const AllocationWatch watch;
            EXPECT_EQ(message_of([&] { made->Read(in.io(), in.size()); }),
                      invalid_size(0, static_cast<uint32_t>(12 + body.size()), in.size()));
            EXPECT_LT(watch.largest(), 4096u);
        }
    }
}

TEST(Tables, ALyingStreamSizeAllocatesNothingAhead) {
    for (const TableCase& each : tables()) {
        for (bool silent : {false, true}) {
            const uint32_t count = (0xFFFFFFF0u - 64) / each.entry_bytes;
            const Bytes file = header(0xFFFFFFF0u, each.type) + zeros(4) + each.before +
                               be32(count) + zeros(100000);
            FaultyHost in(file);
            Stream io = in.callbacks();
            io->GetStreamSize = [](void*, uint32_t* size) { return *size = UINT32_MAX, 0u; };
            in.eof = 0;
            in.silent = [=](int) { return silent; };
            const auto made = each.make();
            const AllocationWatch watch;
            const std::string message = message_of([&] { made->Read(io, 0xFFFFFFFF); });
            if (!silent) {
                EXPECT_THAT(message, StartsWith(kInvalidSize));
            }
            EXPECT_LT(watch.largest(), 1u << 20) << each.type;
        }
    }
}

TEST(Tables, BoxesInCountedListsAreBoundedByTheirBox) {
    for (const char* type : {"stsd", "dref"}) {
        const Bytes wrong = full_box(type, be32(3) + box("rtp ") + box("rtp "));
        const Bytes fewer = full_box(type, be32(2) + box("rtp ", zeros(24)));
        const auto in_track = [&](const Bytes& bytes) {
            const bool dref = std::string(type) == "dref";
            return box("moov",
                       box("trak", box("mdia", box("minf", box(dref ? "dinf" : "stbl", bytes))))) +
                   box("free", zeros(1));
        };
        EXPECT_THAT(read_file(in_track(wrong)), StartsWith(kInvalidSize));
        EXPECT_EQ(read_file(in_track(fewer)), "");
    }
}

// A host may deliver less than was asked for; a table is read on until it is there.
TEST(HostileBoxes, TablesFromAHostThatCutsReadsShort) {
    Bytes body = be32(0) + be32(3000);
    for (uint32_t i = 0; i < 3000; ++i)
        body = body + be32(i);
    const Bytes file = box("stco", body);
    FaultyHost host(file);
    watch_reads(host, [](uint32_t& count) { count = std::min(count, 1000u); });
    Stream io = host.callbacks();
    StcoBox table;
    table.Read(io, static_cast<unsigned int>(file.size()));
    ASSERT_EQ(table.GetChunkOffsets().size(), 3000u);
    EXPECT_EQ(table.GetChunkOffsets()[2999], 2999u);
}

// What a box is too short for is zero to its end: a narrower field after it does not take the
// rest.
TEST(HostileBoxes, FieldsAfterTheFirstThatDoesNotFitAreZero) {
    MemoryStream in(box("damr", text("test") + Bytes{1, 0x77}));
    AMRSpecificBox damr;
    damr.Read(in.io(), 14);
    EXPECT_EQ(damr.GetModeSet(), 0);
    EXPECT_EQ(damr.GetFramesPerSample(), 0);
}

}  // namespace
}  // namespace Qvox3gp
