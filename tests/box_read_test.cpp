// SPDX-License-Identifier: Apache-2.0
// Reading boxes: numbers, headers, whole files, and each layout's edges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "boxes/sample_entries.h"
#include "boxes/sample_tables.h"
#include "boxes/track_boxes.h"
#include "tests/support/box_io.h"
#include "tests/support/faulty_host.h"
#include "tests/support/syslog_capture.h"

namespace Qvox3gp {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(StreamIo, FileSizeKeepsThePositionAndIsLoggedWhenDebugging) {
    const Bytes file = zeros(40);
    for (int32_t level : {3, 4}) {
        SyslogCapture log(level);
        FaultyHost host(file);
        // The query moves the position.
        host.callbacks()->GetStreamSize = [](void* context, uint32_t* size) {
            *size = 40;
            return static_cast<FaultyHost*>(context)->callbacks()->Seek(context, *size);
        };
        Stream io = host.callbacks();
        macro_Seek(io, 12);
        EXPECT_EQ(GetFileSize(io), 40u);
        EXPECT_EQ(macro_Tell(io), 12u);
        if (level == 3) {
            EXPECT_THAT(log.lines(), IsEmpty());
        } else {
            EXPECT_THAT(log.texts(), ElementsAre("File size is: 40 bytes"));
            EXPECT_THAT(log.lines()[0], StartsWith("DBG: .//boxes/"));
        }
    }
}

TEST(StreamIo, DescriptorSizesHaveFourBytesAtMost) {
    const std::map<Bytes, uint32_t> sizes = {
        {{0x7F}, 127}, {{0x81, 0}, 128}, {{0xFF, 0xFF, 0xFF, 0xFF, 1}, 0x0FFFFFFF}};
    for (const auto& [bytes, expected] : sizes) {
        MemoryStream in(bytes);
        uint32_t size = 0;
        const unsigned taken = ReadDescriptorSize(in.io(), size);
        EXPECT_EQ(std::pair(taken, size), std::pair(in.position(), expected));
    }
}

// --- box headers -------------------------------------------------------------------------------

TEST(BoxHeader, IsTakenLiterally) {
    for (uint32_t size : {0u, 1u, 7u, 8u, 12u}) {
        MemoryStream in(header(size, "free") + zeros(8));
        Box box;
        EXPECT_EQ(type_text(box.GetType()), "????");
        box.Read(in.io(), in.size());
        EXPECT_EQ(box.GetSizeWhole(), size);
        EXPECT_EQ(type_text(box.GetType()), "free");
        EXPECT_EQ(static_cast<std::streamoff>(box.GetStart()), 0);
        box.Skip(in.io());
        EXPECT_EQ(in.position(), size);
        box.Reset();
        EXPECT_EQ(box.GetSizeWhole(), 0u);
        EXPECT_EQ(type_text(box.GetType()), "????");
    }
}

TEST(BoxHeader, IsResetAtTheEndOfTheFile) {
    struct Case {
        uint32_t position;
        const char* logged;
        const char* peek_logged;
    };
    const Case cases[] = {
        {16, "Box::Read() resetting box...",
         "peek_box() returning unknown box due to EOF or stream position past file size"},
        {99, "Box::Read() resetting box...",
         "peek_box() returning unknown box due to EOF or stream position past file size"},
        {8, "Box::Read() resetting box due to EOF", "Box::Read() resetting box due to EOF"}};
    for (const Case& each : cases) {
        SyslogCapture log(4);
        MemoryStream in(box("skip") + box("free"));
        macro_Seek(in.io(), each.position);
        Box read(code("moov"));
        read.Read(in.io(), in.size());
        EXPECT_TRUE(read.is_reset());
        EXPECT_THAT(log.texts(), ElementsAre(each.logged));
        log.clear();
        macro_Seek(in.io(), each.position);
        EXPECT_EQ(type_text(peek_box(in.io(), in.size())), "????");
        EXPECT_EQ(in.position(), each.position);
        EXPECT_THAT(log.texts(), ElementsAre(each.peek_logged));
    }
}

TEST(BoxHeader, PeekingLeavesTheStreamWhereItWas) {
    MemoryStream in(zeros(3) + box("moov", zeros(5)));
    macro_Seek(in.io(), 3);
    EXPECT_EQ(peek_box(in.io(), in.size()), code("moov"));
    EXPECT_EQ(in.position(), 3u);
    UnknownBox unknown;
    unknown.Read(in.io(), in.size());
    EXPECT_EQ(in.position(), in.size());
    EXPECT_EQ(unknown.GetSize(), 8u);
    EXPECT_EQ(unknown.GetSizeWhole(), 13u);
    FullBox full;
    EXPECT_EQ(full.GetSize(), 12u);
}

// --- whole files -------------------------------------------------------------------------------

TEST(WholeFile, LogsWhatItCreates) {
    SyslogCapture log(4);
    EXPECT_EQ(read_file(kFtyp + box("moov", box("udta", zeros(4))) + box("mdat", zeros(4)) +
                        box("wide", zeros(1))),
              "");
    std::vector<std::string> created;
    for (const auto& line : log.texts()) {
        if (line.starts_with("Simple3gp::Read()")) created.push_back(line);
    }
    EXPECT_THAT(
        created,
        ElementsAre("Simple3gp::Read() Creating FtypBox", "Simple3gp::Read() Creating MoovBox",
                    "Simple3gp::Read() Creating MdatBox", "Simple3gp::Read() Creating UnknownBox"));
    EXPECT_EQ(log.texts()[0],
              "File size is: " + std::to_string(kFtyp.size() + 20 + 12 + 9) + " bytes");
}

TEST(WholeFile, TheLastFtypAndMoovCount) {
    const Bytes second = box("ftyp", text("mp42") + be32(0));
    read_file(kFtyp + box("moov", box("trak", box("free", zeros(1)))) + second +
                  box("moov", box("free", zeros(1))) + box("free", zeros(1)),
              [](Simple3gp& file) {
                  EXPECT_EQ(file.GetFtyp()->GetMajorBrand(), code("mp42"));
                  EXPECT_THAT(file.GetFtyp()->GetCompatibleBrands(), IsEmpty());
                  EXPECT_THAT(file.GetMoov()->GetTraks(), IsEmpty());
                  EXPECT_EQ(file.children().size(), 5u);  // the earlier ones live on
              });
}

TEST(WholeFile, EmptyAndHeaderOnlyFilesEndCleanly) {
    for (const Bytes& bytes :
         {Bytes{}, box("free"), box("ftyp"), kFtyp + box("free"), kFtyp + box("moov"),
          kFtyp + box("moov", box("free")), kFtyp + box("moov", box("trak", box("mdia")))}) {
        EXPECT_EQ(read_file(bytes), "");
    }
}

TEST(WholeFile, WhatFollowsABoxsFieldsIsPassedOver) {
    // A version 1 header is read as version 0, which is not noticed: the timescale is the low half
    // of the creation time and the rest of the file stands.
    const Bytes mvhd = box(
        "mvhd", be(0x01000000, 4) + be(111, 8) + be(222, 8) + be32(90000) + be(333, 8) + zeros(80));
    read_file(kFtyp +
                  box("moov",
                      mvhd + box("trak", box("tref", zeros(0) + box("hint", be32(5) + be32(6))))) +
                  box("mdat", zeros(1)),
              [](Simple3gp& file) {
                  ASSERT_NE(file.GetMoov()->GetMvhd(), nullptr);
                  EXPECT_EQ(file.GetMoov()->GetMvhd()->GetTimescale(), 0u);
                  EXPECT_EQ(file.GetMoov()->GetMvhd()->GetDuration(), 222u);
                  const auto* hint =
                      file.GetMoov()->GetTraks().at(0)->GetTref()->GetTrackReferenceTypeBox();
                  EXPECT_EQ(hint->GetTrackID(0), 5u);
                  EXPECT_EQ(hint->GetTrackID(1), 0u);
                  EXPECT_EQ(file.children().size(), 3u);
              });
}

// --- layouts -----------------------------------------------------------------------------------

template <class T>
std::unique_ptr<T> read_box(const Bytes& bytes) {
    MemoryStream in(bytes + zeros(1));
    auto made = std::make_unique<T>();
    made->Read(in.io(), in.size());
    return made;
}

TEST(Layout, FtypBrands) {
    EXPECT_THAT(read_box<FtypBox>(box("ftyp", text("3gp4") + be32(1)))->GetCompatibleBrands(),
                IsEmpty());
    EXPECT_THAT(read_box<FtypBox>(box("ftyp", text("3gp4") + be32(1) + text("3gp53gp6") + zeros(3)))
                    ->GetCompatibleBrands(),
                ElementsAre(code("3gp5"), code("3gp6")));
    EXPECT_THAT(read_box<FtypBox>(box("ftyp", zeros(2)))->GetCompatibleBrands(), IsEmpty());
}

TEST(Layout, HandlerNamesOfAnyLengthAreDropped) {
    for (size_t name : {0u, 1u, 2u, 14u, 200000u}) {
        const auto hdlr =
            read_box<HdlrBox>(full_box("hdlr", zeros(4) + text("hint") + zeros(12) + zeros(name)));
        EXPECT_EQ(hdlr->GetHandlerType(), code("hint"));
        EXPECT_EQ(hdlr->GetSize(), 33u);
    }
}

TEST(Layout, ReferencesThatAreNotHintsAreUnknown) {
    const auto tref = read_box<TrefBox>(box("tref", box("cdsc", be32(1))));
    EXPECT_EQ(tref->GetTrackReferenceTypeBox(), nullptr);
    ASSERT_EQ(tref->children().size(), 1u);
    EXPECT_NE(dynamic_cast<const UnknownBox*>(tref->children()[0]), nullptr);
}

const Bytes kEntryFields = zeros(6) + be16(1);
const Bytes kAmrFields =
    kEntryFields + zeros(8) + be16(2) + be16(16) + zeros(4) + be16(8000) + be16(0);
const Bytes kVisualFields = kEntryFields + zeros(16) + be16(176) + be16(144) + be32(0x480000) +
                            be32(0x480000) + zeros(4) + be16(1) + zeros(32) + be16(24) +
                            be16(0xFFFF);

std::unique_ptr<StsdBox> read_stsd(const Bytes& entry) {
    return read_box<StsdBox>(full_box("stsd", be32(1) + entry));
}

TEST(SampleEntries, HintEntriesAreKeptRaw) {
    const Bytes body = kEntryFields + be16(1) + be16(1) + be32(1450) + box("tims", be32(90000));
    const auto stsd = read_stsd(box("rtp ", body));
    const auto* entry = dynamic_cast<const NullSampleEntry*>(stsd->GetSampleEntries().at(0));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->GetType(), code("rtp "));
    EXPECT_EQ(entry->GetData(), body);
    // The class that a writer uses has the same layout.
    EXPECT_EQ(dump(RTPHintSampleEntry()), box("rtp ", body));
    const auto again = read_box<RTPHintSampleEntry>(box("rtp ", body));
    EXPECT_EQ(again->GetTimeScaleEntry()->GetTimescale(), 90000u);
    EXPECT_EQ(read_box<HintSampleEntry>(box("rtp ", body))->GetData().size(), body.size() - 8);
}

TEST(SampleEntries, AmrWithoutItsBoxIsLoggedAndKept) {
    for (int32_t level : {1, 2}) {
        SyslogCapture log(level);
        const auto without = read_stsd(box("samr", kAmrFields));
        const auto* entry = dynamic_cast<const AMRSampleEntry*>(without->GetSampleEntries().at(0));
        EXPECT_EQ(entry->GetAMRSpecific(), nullptr);
        if (level == 1) {
            EXPECT_THAT(log.lines(), IsEmpty());
        } else {
            EXPECT_THAT(
                log.texts(),
                ElementsAre("No AMRSpecificBox(damr) in AMRSampleEntry box. Try to keep going..."));
            EXPECT_THAT(log.lines()[0], StartsWith("ERR: "));
        }
    }
}

TEST(SampleEntries, AMissingConfigurationIsReadFromWhatFollows) {
    // Not detected: the next box is taken for it, whatever its type.
    MemoryStream in(box("s263", kVisualFields) +
                    box("stts", be32(0) + be(0, 1) + be(20, 1) + be(1, 1)) + zeros(4));
    H263SampleEntry entry;
    entry.Read(in.io(), in.size());
    ASSERT_NE(entry.GetH263Specific(), nullptr);
    EXPECT_EQ(entry.GetH263Specific()->GetType(), code("stts"));
    EXPECT_EQ(entry.GetH263Specific()->GetLevel(), 20);
}

Bytes esds(uint8_t object_type, const Bytes& info, const Bytes& info_size) {
    return full_box("esds", be(3, 1) + be(0x20, 1) + be16(1) + be(0, 1) + be(4, 1) + be(0x15, 1) +
                                be(object_type, 1) + be32(0x11000000) + be32(64000) + be32(48000) +
                                be(5, 1) + info_size + info + be(6, 1) + be(1, 1) + be(2, 1));
}

TEST(SampleEntries, Mpeg4) {
    const Bytes info = text("config");
    const Bytes bytes = box("mp4v", kVisualFields + esds(0x20, info, be(0x80808006, 4)));
    EXPECT_EQ(dump(*read_stsd(bytes)->GetSampleEntries().at(0)), bytes);
    for (const Bytes& size : {be(0x8148, 2), be(0xFFFFFF7F, 4), be(0x10, 1)}) {
        EXPECT_THAT(
            message_of([&] { read_stsd(box("mp4v", kVisualFields + esds(0x20, info, size))); }),
            StartsWith(kInvalidSize));
    }
}

TEST(SampleEntries, Mpeg4WithoutItsBoxIsInvalid) {
    for (const Bytes& next : {Bytes{}, box("pasp", zeros(40)), full_box("esdx", zeros(40))}) {
        EXPECT_THAT(message_of([&] { read_stsd(box("mp4v", kVisualFields + next) + zeros(40)); }),
                    StartsWith(kInvalidSize));
    }
}

TEST(SampleEntriesDeathTest, AForeignCodecEndsTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const Bytes bytes = box("mp4v", kVisualFields + esds(0x40, text("config"), be(6, 1)));
    EXPECT_EXIT(read_stsd(bytes), testing::ExitedWithCode(1),
                "^Bad 3GP file, only MP4 Video codec accepted in mp4v box\n$");
    // The codec is checked before the lengths after it.
    const Bytes lying = box("mp4v", kVisualFields + esds(0x40, text("config"), be(0x7F, 1)));
    EXPECT_EXIT(read_stsd(lying), testing::ExitedWithCode(1), "^Bad 3GP file");
}

Bytes avcc(const Bytes& sequence_sets, const Bytes& picture_sets) {
    return box("avcC", Bytes{1, 66, 0xC0, 10, 0xFF} + sequence_sets + picture_sets);
}

TEST(SampleEntries, H264ManyAndLargeSets) {
    const auto two = read_box<AVCCBox>(
        avcc(be(0xE1, 1) + be16(2) + Bytes{0x67, 9}, be(1, 1) + be16(1) + Bytes{0x68}));
    EXPECT_EQ(two->GetParameterSets(), (Bytes{0, 0, 0, 1, 0x67, 9, 0, 0, 0, 1, 0x68}));
    EXPECT_EQ(two->GetNalLengthSize(), 4u);
    EXPECT_EQ(static_cast<std::streamoff>(two->GetStart()), -1);
    const Bytes large(65535, 7);
    Bytes sets = be(0xFF, 1);
    for (int i = 0; i < 31; ++i)
        sets = sets + be16(65535) + large;
    Bytes pictures = be(0, 1);
    const auto avc = read_box<AVCCBox>(avcc(sets, pictures));
    EXPECT_EQ(avc->GetParameterSets().size(), 31u * (65535 + 4));
    // A set that the file does not hold; the box's own size is not trusted either way.
    MemoryStream in(header(0, "avcC") + Bytes{1, 66, 0, 10, 0xFF, 0xE1} + be16(20) + zeros(19));
    AVCCBox cut;
    EXPECT_THAT(message_of([&] { cut.Read(in.io(), in.size()); }), StartsWith(kInvalidSize));
    // Sets after the end of the entry are skipped; those after the end of the box only are kept.
    const Bytes fields = header(15, "avcC") + Bytes{1, 66, 0, 10, 0xFF, 0xE2};
    const Bytes set = be16(3) + Bytes{0x67, 9, 9};
    const auto inside = static_cast<uint32_t>((kVisualFields + fields + set).size());
    MemoryStream long_entry(header(8 + inside, "avc1") + kVisualFields + fields + set + set +
                            be(1, 1) + set + zeros(1));
    H264SampleEntry entry;
    entry.Read(long_entry.io(), long_entry.size());
    EXPECT_EQ(entry.GetAVCCBox()->GetParameterSets(), (Bytes{0, 0, 0, 1, 0x67, 9, 9}));
    EXPECT_EQ(macro_Tell(long_entry.io()), long_entry.size() - 1);
    EXPECT_EQ(dump(*entry.GetAVCCBox()),
              box("avcC", Bytes{1, 66, 0, 10, 0xFF, 0xE1} + set + be(0, 1)));
}

TEST(CodecBoxes, LongerConfigurationThanTheLengthsThatWereRead) {
    const Bytes one_byte_lengths =
        be32(0) + Bytes{3, 21, 0, 1, 0, 4, 15, 0x20} + zeros(12) + Bytes{5, 0, 6, 1, 2};
    MemoryStream in(box("esds", one_byte_lengths));
    ESDBox esds;
    esds.Read(in.io(), static_cast<unsigned int>(8 + one_byte_lengths.size()));
    esds.SetDecoderSpecific(Bytes(200, 9));
    MemoryStream out;
    esds.Dump(out.io());
    macro_Seek(out.io(), 0);
    ESDBox back;
    back.Read(out.io(), out.size());
    EXPECT_EQ(back.GetESDInfo().decoder_specific, Bytes(200, 9));
}

}  // namespace
}  // namespace Qvox3gp
