// SPDX-License-Identifier: Apache-2.0
// Building files from boxes: written, patched after the media, and read back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "boxes/hint_sample.h"
#include "boxes/mdat_box.h"
#include "boxes/sample_entries.h"
#include "boxes/sample_tables.h"
#include "boxes/track_boxes.h"
#include "tests/support/box_io.h"
#include "tests/support/playing.h"

namespace Qvox3gp {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

enum class Medium { kAudio, kVideo, kAudioHint };

// The boxes of one track that are patched when its media is there.
struct Track {
    Medium medium;
    uint32_t timescale;
    uint32_t sample_count;
    TrakBox* trak = nullptr;
    TkhdBox* tkhd = nullptr;
    MdhdBox* mdhd = nullptr;
    StblBox* stbl = nullptr;
};

template <class T>
T* made() {
    return std::make_unique<T>().release();
}

SampleEntry* make_entry(Medium medium) {
    if (medium == Medium::kAudioHint) {
        auto entry = std::make_unique<RTPHintSampleEntry>();
        entry->GetTimeScaleEntry()->SetTimescale(8000);
        return entry.release();
    }
    if (medium == Medium::kAudio) {
        auto entry = std::make_unique<AMRSampleEntry>();
        entry->SetAMRSpecific(std::make_unique<AMRSpecificBox>());
        return entry.release();
    }
    auto entry = std::make_unique<H263SampleEntry>();
    entry->SetH263Specific(std::make_unique<H263SpecificBox>());
    return entry.release();
}

const char* handler_of(Medium medium) {
    return medium == Medium::kAudio ? "soun" : medium == Medium::kVideo ? "vide" : "hint";
}

// Tables of the final size, with nothing in them yet.
void add_tables(Track& track) {
    auto* stsd = made<StsdBox>();
    stsd->AddSampleEntry(make_entry(track.medium), true);
    track.stbl->SetStsd(stsd, true);
    track.stbl->SetStts(made<SttsBox>(), true);
    track.stbl->GetStts()->AddSampleEntry({track.sample_count, 1});
    track.stbl->SetStsc(made<StscBox>(), true);
    track.stbl->GetStsc()->AddSampleEntry({1, 1, 1});
    track.stbl->SetStsz(made<StszBox>(), true);
    track.stbl->GetStsz()->SetSampleSizes(std::vector<uint32_t>(track.sample_count));
    track.stbl->SetStco(made<StcoBox>(), true);
    track.stbl->GetStco()->SetChunkOffsets(std::vector<uint32_t>(track.sample_count));
}

void add_media_header(MinfBox& minf, Medium medium) {
    if (medium == Medium::kAudio) minf.SetSmhd(made<SmhdBox>(), true);
    if (medium == Medium::kVideo) minf.SetVmhd(made<VmhdBox>(), true);
    if (medium == Medium::kAudioHint) {
        auto* hmhd = made<HmhdBox>();
        hmhd->SetSizes(100, 50, 16000, 12200);
        minf.SetHmhd(hmhd, true);
    }
}

void add_track(MoovBox& moov, Track& track, uint32_t id, uint32_t hinted_id) {
    track.trak = made<TrakBox>();
    moov.AddTrak(track.trak, true);
    track.tkhd = made<TkhdBox>();
    track.tkhd->SetTrackId(id);
    track.trak->SetTkhd(track.tkhd, true);
    if (hinted_id != 0) {
        auto* tref = made<TrefBox>();
        auto* hint = made<TrackReferenceTypeBox>();
        hint->SetTrackID(hinted_id);
        tref->SetTrackReferenceTypeBox(hint, true);
        track.trak->SetTref(tref, true);
    }
    auto* mdia = made<MdiaBox>();
    track.trak->SetMdia(mdia, true);
    track.mdhd = made<MdhdBox>();
    mdia->SetMdhd(track.mdhd, true);
    mdia->SetHdlr(made<HdlrBox>(), true);
    mdia->GetHdlr()->SetHandlerType(code(handler_of(track.medium)));
    auto* minf = made<MinfBox>();
    mdia->SetMinf(minf, true);
    add_media_header(*minf, track.medium);
    auto* dinf = made<DinfBox>();
    minf->SetDinf(dinf, true);
    dinf->SetDref(made<DrefBox>(), true);
    dinf->GetDref()->AddDataEntryBox(made<DataEntryBox>(), true);
    track.stbl = made<StblBox>();
    minf->SetStbl(track.stbl, true);
    add_tables(track);
}

// A file with interleaved speech, video and speech hint samples, whose headers stand before or
// after the media.
class FileBuilder {
  public:
    static constexpr uint32_t kSpeechSamples = 50;
    static constexpr uint32_t kPictures = 10;
    static constexpr uint32_t kMovieTimescale = 1000;
    static constexpr uint32_t kMilliseconds = 1000;

    FileBuilder() {
        file_.SetFtyp(made<FtypBox>(), true);
        moov_ = made<MoovBox>();
        moov_->SetMvhd(made<MvhdBox>(), true);
        add_track(*moov_, speech_, 1, 0);
        add_track(*moov_, video_, 2, 0);
        add_track(*moov_, hints_, 3, 1);
        moov_->GetMvhd()->SetNextTrackId(4);
    }

    Bytes build(bool headers_first) {
        Stream& io = out_.io();
        file_.GetFtyp()->Dump(io);
        if (headers_first) {
            file_.SetMoov(moov_, true);
            moov_->Dump(io);
        }
        mdat_ = made<MdatBox>();
        file_.AddMdat(mdat_, true);
        mdat_->Dump(io);
        write_media(io);
        mdat_->Close(io);
        if (!headers_first) {
            file_.SetMoov(moov_, true);
            moov_->Dump(io);
        }
        patch(io);
        return out_.written();
    }

    static Bytes speech_sample(uint32_t i) {
        // AMR 12.2 kbit/s: a header octet with the mode and the quality bit, and 31 octets.
        return be(0x3C, 1) + Bytes(31, static_cast<uint8_t>(i));
    }
    static Bytes picture(uint32_t i) {
        return be(0x00008002, 4) + Bytes(20 + i, static_cast<uint8_t>(i));
    }
    static CHintSample hint_sample(uint32_t i) {
        HintPacket packet;
        packet.rtp_header = 0x0060 | (i == 0 ? 0x0080 : 0);
        packet.sequence_seed = static_cast<uint16_t>(i);
        const Bytes toc = be(0xF03C, 2);
        packet.constructors = {HintConstructor::immediate(toc),
                               HintConstructor::sample(0, 31, i + 1, 1)};
        CHintSample sample;
        sample.packets = {packet};
        return sample;
    }

  private:
    void write_media(Stream& io) {
        for (uint32_t i = 0; i < kSpeechSamples; ++i) {
            const Bytes sample = speech_sample(i);
            mdat_->AddChunk(io, mdat_->AudioChunks(), sample.data(), 32);
            const CHintSample hint = hint_sample(i);
            mdat_->AddHintChunk(io, mdat_->AudioHintChunks(), &hint);
            if (i % 5 != 0) continue;
            const Bytes bytes = picture(i / 5);
            mdat_->AddChunk(io, mdat_->VideoChunks(), bytes.data(),
                            static_cast<unsigned int>(bytes.size()));
        }
    }

    template <class Patched>
    static void rewrite(Stream& io, Patched* box) {
        box->GoToStart(io);
        box->Dump(io);
    }

    void patch(Stream& io) {
        const uint32_t end = out_.size();
        speech_.stbl->GetStco()->FixupAudio(mdat_);
        speech_.stbl->GetStsz()->FixupAudio(mdat_);
        video_.stbl->GetStco()->FixupVideo(mdat_);
        video_.stbl->GetStsz()->FixupVideo(mdat_);
        hints_.stbl->GetStco()->FixupAudioHint(mdat_);
        hints_.stbl->GetStsz()->FixupAudioHint(mdat_);
        for (Track* track : {&speech_, &video_, &hints_})
            patch_times(io, *track);
        video_.tkhd->SetDimensions(176, 144);
        auto* entry =
            dynamic_cast<H263SampleEntry*>(video_.stbl->GetStsd()->GetSampleEntries().front());
        entry->SetDimensions(176, 144);
        rewrite(io, video_.tkhd);
        rewrite(io, entry);
        FixupableTime& movie = *moov_->GetMvhd();
        movie.SetTimescale(kMovieTimescale, 0);
        movie.SetDuration(kMilliseconds);
        rewrite(io, moov_->GetMvhd());
        EXPECT_EQ(out_.size(), end) << "patching changed the file's size";
    }

    static void patch_times(Stream& io, Track& track) {
        for (FixupableTime* box :
             std::initializer_list<FixupableTime*>{track.tkhd, track.mdhd, track.stbl->GetStts()}) {
            box->SetTimescale(kMovieTimescale, track.timescale);
        }
        track.tkhd->SetDuration(kMilliseconds);
        track.mdhd->SetDuration(track.timescale);
        track.stbl->GetStts()->SetDuration(track.timescale);
        rewrite(io, track.tkhd);
        rewrite(io, track.mdhd);
        rewrite(io, track.stbl->GetStts());
        rewrite(io, track.stbl->GetStco());
        rewrite(io, track.stbl->GetStsz());
        rewrite(io, track.stbl->GetStsd());
    }

    MemoryStream out_;
    Simple3gp file_;
    MoovBox* moov_ = nullptr;
    MdatBox* mdat_ = nullptr;
    Track speech_{Medium::kAudio, 8000, kSpeechSamples};
    Track video_{Medium::kVideo, 90000, kPictures};
    Track hints_{Medium::kAudioHint, 8000, kSpeechSamples};
};

// The function API reads the media by their tables, the class API by the hint samples.
TEST(BuiltFile, PlaysByBothApis) {
    for (const bool headers_first : {false, true}) {
        const Bytes bytes = FileBuilder().build(headers_first);
        Bytes frames = text("#!AMR\n");
        for (uint32_t i = 0; i < FileBuilder::kSpeechSamples; ++i)
            frames = frames + FileBuilder::speech_sample(i);
        for (const Api api : {Api::kFunction, Api::kClass}) {
            const Played speech = play(bytes, "ar", {.api = api});
            EXPECT_EQ(speech.status, KST_END_OF_FILE);
            EXPECT_EQ(unpack_speech(speech.stream, false), frames);
        }
        const Played video = play(bytes, "vr");
        EXPECT_EQ(video.status, KST_END_OF_FILE);
        size_t expected =
            92;  // header records; then each picture with its start code shortened by two
        for (uint32_t i = 0; i < FileBuilder::kPictures; ++i) {
            const size_t frame = 20 + 20 + 2 + FileBuilder::picture(i).size() - 2;
            expected += (frame + 3) / 4 * 4;
        }
        EXPECT_EQ(video.stream.size(), expected);
        MemoryStream in(bytes);
        Simple3gp file;
        file.Read(in.io(), 0);
        const auto fields = [&](const MvhdBox& mvhd, const TkhdBox& tkhd) {
            return std::vector{mvhd.GetTimescale(), mvhd.GetDuration(), mvhd.GetNextTrackId(),
                               tkhd.GetWidth() >> 16, tkhd.GetHeight() >> 16};
        };
        EXPECT_THAT(
            fields(*file.GetMoov()->GetMvhd(), *file.GetMoov()->GetTraks().at(1)->GetTkhd()),
            ElementsAre(FileBuilder::kMovieTimescale, FileBuilder::kMilliseconds, 4, 176, 144));
    }
}

TEST(NewBoxes, HaveSensibleDefaults) {
    const uint32_t now = GetCurrentTimestamp();
    EXPECT_GT(now, 3786825600u);  // 2024-01-01 in seconds since 1904
    const MvhdBox mvhd;
    EXPECT_LE(mvhd.GetCreationTime() - now, 2u);
    const Bytes bytes = dump(mvhd);
    ASSERT_EQ(bytes.size(), 108u);
    const Bytes unit_matrix =
        be32(0x10000) + zeros(12) + be32(0x10000) + zeros(12) + be32(0x40000000);
    EXPECT_EQ(Bytes(bytes.begin() + 28, bytes.begin() + 32), be32(0x10000))
        << "rate 1.0, volume 1.0";
    EXPECT_EQ(Bytes(bytes.begin() + 32, bytes.begin() + 34), be16(0x100));
    EXPECT_EQ(Bytes(bytes.begin() + 44, bytes.begin() + 80), unit_matrix);
    const Bytes tkhd = dump(TkhdBox());
    ASSERT_EQ(tkhd.size(), 92u);
    EXPECT_EQ(Bytes(tkhd.begin() + 48, tkhd.begin() + 84), unit_matrix);
    EXPECT_EQ(dump(FtypBox()), box("ftyp", text("3gp6") + be32(256) + text("3gp53gp4")));
}

TEST(NewBoxes, CodecConfigurationsReadBackAsMade) {
    ESDBox esds;
    esds.SetDecoderSpecific(text("config"));
    esds.SetBitRates(64000, 48000);
    MemoryStream out;
    out.io() << esds;
    MemoryStream in(out.written() + zeros(1));
    ESDBox read;
    read.Read(in.io(), in.size());
    EXPECT_EQ(read.GetESDInfo().decoder_specific, text("config"));
    EXPECT_EQ(read.GetESDInfo().es_size.value + 12 + 1 + 4, esds.GetSize());
    EXPECT_EQ(dump(read), out.written());

    AVCCBox avcc;
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(avcc.AddSequenceSet(text("sps")), i < 31);
    for (int i = 0; i < 256; ++i)
        EXPECT_EQ(avcc.AddPictureSet(text("pps")), i < 255);
    EXPECT_FALSE(avcc.AddPictureSet(zeros(65536)));
    MemoryStream avcc_in(dump(avcc));
    AVCCBox avcc_read;
    avcc_read.Read(avcc_in.io(), avcc_in.size());
    EXPECT_EQ(avcc_read.GetParameterSets(), avcc.GetParameterSets());
    EXPECT_EQ(avcc_read.GetParameterSets().size(), (31u + 255) * 7);
}

TEST(NewBoxes, TimeToSampleDurations) {
    SttsBox stts;
    stts.SetDuration(100);  // nothing to stretch
    EXPECT_EQ(stts.GetDuration(), 0u);
    stts.AddSampleEntry({10, 160});
    stts.AddSampleEntry({4, 1});
    stts.SetDuration(2003);
    EXPECT_EQ(stts.GetSampleEntries().back().sample_delta, 100u);
    EXPECT_EQ(stts.GetDuration(), 2000u);
    stts.SetDuration(1000);  // less than what stands before
    EXPECT_EQ(stts.GetDuration(), 1600u);
    stts.AddSampleEntry({0xFFFFFFFF, 0xFFFFFFFF});
    EXPECT_EQ(stts.GetDuration(), 0xFFFFFFFFu);
}

TEST(MediaData, ChunksGoWhereTheBoxEndsWhereverTheStreamStands) {
    MemoryStream out;
    macro_Write(out.io(), "xxxx", 4);
    MdatBox mdat;
    EXPECT_EQ(message_of([&] { mdat.AddChunk(out.io(), mdat.VideoChunks(), "a", 1); }),
              "Box has no place in the stream yet");
    mdat.Dump(out.io());
    mdat.AddChunk(out.io(), mdat.VideoChunks(), "abc", 3);
    macro_Seek(out.io(), 0);
    mdat.AddChunk(out.io(), mdat.VideoHintChunks(), "de", 2);
    mdat.AddChunk(out.io(), mdat.VideoChunks(), nullptr, 0);
    mdat.Close(out.io());
    EXPECT_EQ(out.position(), 17u);
    EXPECT_EQ(out.written(), text("xxxx") + box("mdat", text("abcde")));
    StcoBox video;
    video.FixupVideo(&mdat);
    EXPECT_THAT(video.GetChunkOffsets(), ElementsAre(12, 17));
    StszBox hint;
    hint.FixupVideoHint(&mdat);
    EXPECT_THAT(hint.GetChunkSizes(), ElementsAre(2));
    EXPECT_EQ(hint.GetSampleCount(), 1u);
}

TEST(MediaData, RefusesToReachFourGigabytes) {
    MemoryStream out;
    MdatBox mdat;
    mdat.Dump(out.io());
    const auto add = [&] { mdat.AddChunk(out.io(), mdat.VideoChunks(), nullptr, 0xFFFFFFF8); };
    EXPECT_THAT(message_of(add), StartsWith(kInvalidSize));
    EXPECT_TRUE(mdat.VideoChunks().empty());
    EXPECT_EQ(out.size(), 8u);
}

TEST(MediaData, HintSamplesHaveTheirStandardLayout) {
    CHintSample sample;
    HintPacket packet;
    packet.relative_time = 1;
    packet.rtp_header = 0x00E0;
    packet.sequence_seed = 3;
    packet.flags = 1;
    packet.constructors = {HintConstructor::immediate(text("0123456789abcdefgh")),
                           HintConstructor::sample(-1, 5, 6, 7)};
    sample.packets = {packet};
    EXPECT_EQ(sample.bytes(), be16(1) + be16(0) + be32(1) + be16(0xE0) + be16(3) + be16(1) +
                                  be16(2) + be(1, 1) + be(14, 1) + text("0123456789abcd") +
                                  be(2, 1) + be(0xFF, 1) + be16(5) + be32(6) + be32(7) + be16(1) +
                                  be16(1));
}

}  // namespace
}  // namespace Qvox3gp
