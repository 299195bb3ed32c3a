// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <iostream>

#include "kestrel/isoff.h"
#include "kestrel/kstutil.h"
#include "tests/support/hint_file.h"
#include "tests/support/native_packets.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"

// The exported functions on whole files: what comes out, however the file arrives and whatever the
// host does.

namespace {

struct SpeechFile {
    const char* file;
    const char* truth;
    bool wide_band;
};

constexpr SpeechFile kSpeechFiles[] = {
    {"amrnb_plain.3gp", "amrnb.amr", false},
    {"amrnb_plain_mdat_first.3gp", "amrnb.amr", false},
    {"amrnb_hinted.3gp", "amrnb.amr", false},
    {"amrnb_hinted_1450.3gp", "amrnb.amr", false},
    {"amrnb_hinted_multi.3gp", "amrnb.amr", false},
    {"amrnb_dtx_hinted.3gp", "amrnb_dtx.amr", false},
    {"amrwb_plain.3gp", "amrwb.amr", true},
    {"amrwb_hinted.3gp", "amrwb.amr", true},
    {"amrwb_dtx_hinted.3gp", "amrwb_dtx.amr", true},
};

TEST(FunctionApi, SpeechComesOutAsItWentIn) {
    for (const SpeechFile& speech : kSpeechFiles) {
        SCOPED_TRACE(speech.file);
        const Played played = play(read_sample(speech.file), "ar");
        EXPECT_EQ(played.status, KST_END_OF_FILE);
        EXPECT_EQ(unpack_speech(played.stream, speech.wide_band),
                  read_sample(std::string("truth/") + speech.truth));
    }
}

TEST(FunctionApi, OfSeveralTracksTheLastIsPlayed) {
    const Played played = play(read_sample("two_amrnb_hinted.3gp"), "ar");
    EXPECT_EQ(unpack_speech(played.stream, false), read_sample("truth/amrnb_dtx.amr"));
}

TEST(FunctionApi, HeaderRecordsThenFramesInTwoCalls) {
    const Bytes file = read_sample("amrnb_dtx_hinted.3gp");
    const MemoryHost host(file);
    mm_Interface* handle = nullptr;
    ASSERT_EQ(kst_Open(&handle, host.table(), "Ra"), KST_SUCCESS);
    Bytes buffer(KST_LARGEST_CHUNK);
    uint8_t last_mode_byte = 0;
    for (const uint32_t expected : {24u, 16u, 12u, 16u}) {
        auto size = static_cast<uint32_t>(buffer.size());
        EXPECT_EQ(kst_ReadChunk(handle, buffer.data(), &size, false), KST_SUCCESS);
        EXPECT_EQ(size, expected);
    }
    int comfort_noise = 0;
    for (int frame = 0; frame < 715; ++frame) {
        auto size = static_cast<uint32_t>(buffer.size());
        ASSERT_EQ(kst_ReadChunk(handle, buffer.data(), &size, false), KST_SUCCESS);
        ASSERT_EQ(size, 24u);
        const uint32_t length = buffer[0];
        EXPECT_EQ(buffer[4], 10);
        EXPECT_EQ(buffer[8] | buffer[9] << 8 | buffer[10] << 16, frame * 160);
        EXPECT_EQ(buffer[16] | buffer[17] << 8, frame);
        size = static_cast<uint32_t>(buffer.size());
        ASSERT_EQ(kst_ReadChunk(handle, buffer.data(), &size, false), KST_SUCCESS);
        EXPECT_EQ(size, length - 24);
        const int type = buffer[1] >> 3 & 15;
        // Comfort noise and empty frames go under the mode of the speech before them.
        if (type < 8) last_mode_byte = static_cast<uint8_t>(type * 16);
        comfort_noise += type == 8;
        EXPECT_EQ(buffer[0], last_mode_byte);
    }
    EXPECT_GT(comfort_noise, 0);
    auto size = static_cast<uint32_t>(buffer.size());
    EXPECT_EQ(kst_ReadChunk(handle, buffer.data(), &size, false), KST_END_OF_FILE);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(kst_Close(&handle), KST_SUCCESS);
    EXPECT_EQ(handle, nullptr);
}

// A host whose buffer is too small in every call is given the size needed, and misses nothing. The
// end needs no room.
TEST(FunctionApi, ChunkWithoutRoomStays) {
    for (const Medium& medium : {Medium{"amrwb_dtx_hinted.3gp", "ar"},
                                 {"h263_plain.3gp", "vr"},
                                 {"mpeg4_hinted.3gp", "vr"}}) {
        SCOPED_TRACE(medium.file);
        const Bytes file = read_sample(medium.file);
        const Bytes whole = play(file, medium.mode).stream;
        const MemoryHost host(file);
        mm_Interface* handle = nullptr;
        ASSERT_EQ(kst_Open(&handle, host.table(), medium.mode), KST_SUCCESS);
        Bytes stream;
        int32_t status = KST_SUCCESS;
        while (status == KST_SUCCESS) {
            Bytes buffer(1, 0xEE);
            uint32_t size = 0;
            status = kst_ReadChunk(handle, buffer.data(), &size, false);
            EXPECT_EQ(status, KST_BAD_ARGUMENT);
            EXPECT_EQ(buffer[0], 0xEE);
            buffer.resize(size);
            status = kst_ReadChunk(handle, buffer.data(), &size, false);
            EXPECT_EQ(size, status == KST_SUCCESS ? buffer.size() : 0u);
            stream.insert(stream.end(), buffer.begin(), buffer.begin() + size);
        }
        uint8_t byte = 0;
        uint32_t size = 0;
        EXPECT_EQ(status, KST_END_OF_FILE);
        EXPECT_EQ(kst_ReadChunk(handle, &byte, &size, false), KST_END_OF_FILE);
        EXPECT_TRUE(stream == whole);
        kst_Close(&handle);
    }
}

// --- hosts that fail ---

TEST(FunctionApi, RepositioningFollowsTheFlag) {
    const Bytes file = read_sample("amrnb_plain.3gp");
    for (const bool flag : {false, true}) {
        FaultyHost host(file);
        mm_Interface* handle = nullptr;
        ASSERT_EQ(kst_Open(&handle, host.callbacks(), "ar"), KST_SUCCESS);
        Bytes buffer(KST_LARGEST_CHUNK);
        uint32_t size = 0;
        for (int i = 0; i < 5; ++i) {
            host.names.clear();
            size = KST_LARGEST_CHUNK;
            ASSERT_EQ(kst_ReadChunk(handle, buffer.data(), &size, flag), KST_SUCCESS);
        }
        using testing::ElementsAre;
        if (flag) {
            EXPECT_THAT(host.names, ElementsAre("IndexRead", "AdvanceRead"));
        } else {
            EXPECT_THAT(host.names, ElementsAre("Seek", "SeekNRead", "Seek"));
            uint32_t offset = 0;
            kstutil_getoffset(*std::make_unique<KST_IOSTREAM_CALLBACK_INTERFACE*>(host.callbacks()),
                              &offset);
            EXPECT_EQ(Bytes(file.begin() + offset, file.begin() + offset + 32), [&] {
                const Bytes truth = read_sample("truth/amrnb.amr");
                return Bytes(truth.begin() + 6 + 32, truth.begin() + 6 + 64);
            }());
        }
        kst_Close(&handle);
    }
}

// The first call delivers the property record, the second all other records and the first frame's,
// the third that frame's packets, and so on; each frame's total is that of its two calls.
TEST(FunctionApi, VideoCallsAlternateBetweenRecordAndPackets) {
    for (const auto& [name, headers] : {std::pair{"h263_hinted.3gp", 92u},
                                        {"h263_plain.3gp", 92u},
                                        {"mpeg4_hinted.3gp", 440u},
                                        {"h264_plain.3gp", 452u}}) {
        SCOPED_TRACE(name);
        const Bytes file = read_sample(name);
        const MemoryHost host(file);
        mm_Interface* handle = nullptr;
        ASSERT_EQ(kst_Open(&handle, host.table(), "vr"), KST_SUCCESS);
        Bytes buffer(KST_LARGEST_CHUNK);
        std::vector<uint32_t> sizes;
        const auto read = [&] {
            // Without room the call reports what it needs and changes nothing.
            uint32_t size = 0;
            const int32_t refused = kst_ReadChunk(handle, buffer.data(), &size, false);
            EXPECT_EQ(refused, KST_BAD_ARGUMENT);
            uint32_t delivered = size;
            const int32_t status = kst_ReadChunk(handle, buffer.data(), &delivered, false);
            EXPECT_EQ(delivered, status == KST_SUCCESS ? size : 0u);
            sizes.push_back(delivered);
            return status;
        };
        ASSERT_EQ(read(), KST_SUCCESS);
        EXPECT_EQ(sizes[0], 24u);
        EXPECT_EQ(buffer[20], 15);  // frames per second
        int frames = 0;
        for (int32_t status = KST_SUCCESS; (status = read()) == KST_SUCCESS; ++frames) {
            EXPECT_EQ(sizes.back(), frames == 0 ? headers - 24 + 12 : 12u);
            const uint8_t* record = &buffer[sizes.back() - 12];
            const uint32_t total = record[0] | static_cast<uint32_t>(record[1]) << 8;
            ASSERT_EQ(read(), KST_SUCCESS);
            EXPECT_EQ(sizes.back() + 12, total);
            EXPECT_EQ(total % 4, 0u);
            EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 8), (Bytes{4, 0, 0, 0, 1, 0, 0, 0}));
        }
        EXPECT_EQ(frames, 30);
        kst_Close(&handle);
    }
}

// --- files that once wrote outside the buffers ---

Bytes video_file(const Bytes& entry, const std::vector<uint32_t>& sizes, const Bytes& media) {
    const auto build = [&](uint32_t at) {
        return join({ftyp(),
                     movie({track({.handler = "vide",
                                   .timescale = 90000,
                                   .entry = entry,
                                   .tables = one_chunk_tables(sizes, 6000, at)})}),
                     box("mdat", {media})});
    };
    return build(static_cast<uint32_t>(build(0).size() - media.size()));
}

// NAL units one byte longer than a packet make two fragments each, and each fragment takes four
// bytes more than it is charged.
TEST(FunctionApi, ManyUnitsJustLongerThanAPacketStayInTheBuffer) {
    const Bytes avcc = box("avcC", {{1, 66, 0, 30, 0xFD, 0xE1}, be16(4), {0x67, 66, 0, 30}, {0}});
    for (const uint32_t last : {1u, 300u, 500u, 612u, 700u, 900u}) {
        Bytes sample;
        for (const uint32_t size : std::vector<uint32_t>(44, 1401)) {
            const Bytes unit = join({be16(size), Bytes(size, 0x41)});
            sample.insert(sample.end(), unit.begin(), unit.end());
        }
        const Bytes unit = join({be16(last), Bytes(last, 0x41)});
        sample.insert(sample.end(), unit.begin(), unit.end());
        const Bytes file =
            video_file(visual_entry("avc1", avcc), {static_cast<uint32_t>(sample.size())}, sample);
        const Played played = play(file, "vr");
        EXPECT_THAT(played.status, testing::AnyOf(KST_END_OF_FILE, KST_FAILURE));
    }
}

// A damaged second configuration must not leave half of the first: its sets would be walked with
// lengths of another width.
TEST(FunctionApi, DamagedSecondConfigurationLeavesNoParameterSets) {
    Bytes set(200, 1);
    set[0] = 0x67;
    const Bytes good = box("avcC", {{1, 66, 0, 30, 0xFF, 0xE1}, be16(200), set, {0}});
    const Bytes cut = box("avcC", {{1, 66, 0, 30, 0xFC, 0xFF}, be16(9)});
    const Bytes file = video_file(visual_entry("avc1", join({good, cut})), {10}, Bytes(10, 0x65));
    const MemoryHost host(file);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = host.table();
    iso_file* iso = isoFFopen(callbacks, "r", nullptr);
    const iso_track* damaged = isoFFselect(iso, "vide", 1);
    ASSERT_NE(damaged, nullptr);
    EXPECT_EQ(damaged->sps_count + damaged->pps_count, 0u);
    EXPECT_EQ(damaged->param_sets_length, 0u);
    isoFFclose(iso);
}

TEST(FunctionApi, ConfigurationsBeginWithTheirStartCode) {
    const Bytes config = {0, 0, 1, 0xB0, 3}, picture = {0, 0, 1, 0xB6, 16};
    const Bytes first = join({{9}, config, picture});
    const Bytes file = video_file(visual_entry("mp4v", {}), {11, 5}, join({first, picture}));
    EXPECT_THAT(NativeContents(play(file, "vr").stream).payloads,
                testing::ElementsAre(first, join({config, picture})));
}

TEST(FunctionApi, AHintTrackWithoutSamplesIsNotPlayed) {
    HintFile made;
    made.media_track = {.handler = "vide", .entry = visual_entry("mp4v", {})};
    EXPECT_THAT(NativeContents(play(made.build(), "vr").stream).payloads,
                testing::ElementsAre(text("abcdefghij"), text("XYZ")));
}

// Configurations that grow from sample to sample take memory for the largest of them only.
TEST(FunctionApi, GrowingConfigurationsTakeLittleMemory) {
    std::vector<uint32_t> sizes;
    Bytes media;
    for (uint32_t length = 20; length < 2000; length += 5) {
        const Bytes config = join({{0, 0, 1, 0xB0, 1}, Bytes(length, 0x33)});
        const Bytes sample = join({config, {0, 0, 1, 0xB6, 0x10, 1, 2, 3}});
        sizes.push_back(static_cast<uint32_t>(sample.size()));
        media.insert(media.end(), sample.begin(), sample.end());
    }
    const Bytes file = video_file(visual_entry("mp4v", {}), sizes, media);
    const MemoryHost host(file);
    mm_Interface* handle = nullptr;
    ASSERT_EQ(kst_Open(&handle, host.table(), "vr"), KST_SUCCESS);
    const int32_t before = malloccount;
    Bytes buffer(KST_LARGEST_CHUNK);
    int32_t status = KST_SUCCESS;
    while (status == KST_SUCCESS) {
        uint32_t size = KST_LARGEST_CHUNK;
        status = kst_ReadChunk(handle, buffer.data(), &size, false);
    }
    EXPECT_EQ(status, KST_END_OF_FILE);
    EXPECT_LT(malloccount - before, 12);  // of 396 samples, each with a larger one
    kst_Close(&handle);
}

// A frame that outgrows the handle's buffers is staged in one of its own, up to 16 MiB with the
// headers of its packets. A host with too little room is asked for more. A longer frame is a
// failure, again and again.
TEST(FunctionApi, LargeFrames) {
    constexpr uint32_t kLimit = 16 << 20;
    const struct {
        const char* type;
        Bytes config;
    } formats[] = {
        {"s263", {}}, {"mp4v", {}}, {"avc1", box("avcC", {{1, 66, 0, 30, 0xFF, 0xE0, 0}})}};
    for (const auto& format : formats) {
        for (const uint32_t size :
             {62900u, 63000u, 63632u, 64000u, 64001u, 300000u, kLimit, kLimit + 1}) {
            SCOPED_TRACE(testing::Message() << format.type << ' ' << size);
            const bool is_h264 = !format.config.empty();
            Bytes sample(size, 0x33);
            for (uint32_t i = 0; i + 4 < size; i += 5)  // no two zero bytes meet
                std::memcpy(&sample[i], &i, 4), sample[i + 1] |= 1, sample[i + 3] |= 1;
            const Bytes begin = is_h264 ? be32(size - 4) : Bytes{0, 0, 1};
            if (*format.type != 's') std::copy(begin.begin(), begin.end(), sample.begin());
            const Bytes file =
                video_file(visual_entry(format.type, format.config), {size, 10},
                           join({sample, Bytes(sample.begin(), sample.begin() + 10)}));
            const Played whole = play(file, "vr");
            EXPECT_TRUE(whole.opened);
            if (size >= kLimit) {
                EXPECT_EQ(whole.status, KST_FAILURE);
                EXPECT_EQ(whole.stream.size(), 24u);
                // What is too long by itself is not waited for.
                const Bytes ten(sample.begin(), sample.begin() + 10);
                const Bytes cut =
                    video_file(visual_entry(format.type, format.config), {10, size}, ten);
                EXPECT_EQ(play(cut, "vr", {.flag = true}).status,
                          size > kLimit ? KST_FAILURE : KST_NOT_YET);
                continue;
            }
            EXPECT_EQ(whole.status, KST_END_OF_FILE);
            const Bytes media = NativeContents(whole.stream).media;
            if (is_h264) sample = join({{0, 0, 0, 1}, Bytes(sample.begin() + 4, sample.end())});
            ASSERT_GT(media.size(), sample.size());
            EXPECT_TRUE(std::equal(sample.begin(), sample.end(), media.begin()));
            const Played arrived = play_arriving(file, "vr", 50000);
            EXPECT_EQ(arrived.status, KST_END_OF_FILE);
            EXPECT_TRUE(arrived.stream == whole.stream);
        }
    }
}

// --- opening ---

struct OpenCase {
    const char* file;
    const char* mode;
    int32_t status;
    const char* message;  // logged; null for none
};

TEST(FunctionApi, OpenAnswersTheDocumentedStatusAndLine) {
    const OpenCase cases[] = {
        {"amrnb_plain.3gp", "", KST_BAD_MODE, "ERR: Mode not specified"},
        {"amrnb_plain.3gp", "r", KST_BAD_MODE, "ERR: Mode not specified"},
        {"amrnb_plain.3gp", "a", KST_BAD_MODE, "ERR: Direction not specified"},
        {"amrnb_plain.3gp", "x", KST_BAD_MODE,
         "ERR: Invalid/unsupported mode switch [x] specified"},
        {"amrnb_plain.3gp", "A R", KST_BAD_MODE,
         "ERR: Invalid/unsupported mode switch [ ] specified"},
        {"amrnb_plain.3gp", "arW", KST_BAD_MODE,
         "ERR: Invalid/unsupported mode switch [w] specified"},
        {"amrnb_plain.3gp", "rrVA", KST_SUCCESS, nullptr},
        {"amrnb_plain.3gp", "avr", KST_FAILURE,
         "ERR: Valid video track (MPEG4, H263, H264) not found."},
        {"aac_plain.3gp", "ar", KST_FAILURE, "ERR: Unsupported track: AAC."},
        {"aac_plain.3gp", "vr", KST_FAILURE,
         "ERR: Valid video track (MPEG4, H263, H264) not found."},
        {"h263_plain.3gp", "ar", KST_FAILURE, "ERR: Valid audio track (AMR-NB, AMR-WB) not found."},
        {"h263_plain.3gp", "VR", KST_SUCCESS, nullptr},
    };
    for (const OpenCase& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + c.mode);
        const Bytes file = read_sample(c.file);
        const MemoryHost host(file);
        auto* const untouched = reinterpret_cast<mm_Interface*>(16);
        mm_Interface* handle = untouched;
        const SyslogCapture log(3);
        EXPECT_EQ(kst_Open(&handle, host.table(), c.mode), c.status);
        if (c.status == KST_SUCCESS) {
            EXPECT_THAT(log.lines(), testing::IsEmpty());
            kst_Close(&handle);
        } else {
            EXPECT_EQ(handle, nullptr);
            EXPECT_THAT(log.messages(), testing::ElementsAre(c.message));
            EXPECT_THAT(log.lines()[0], testing::HasSubstr(".//interface/src/mmfiInterface("));
        }
    }
}

TEST(FunctionApi, OpenChecksItsArgumentsAfterReading) {
    const Bytes file = read_sample("amrnb_plain.3gp");
    FaultyHost host(file);
    mm_Interface* handle = nullptr;
    EXPECT_EQ(kst_Open2(nullptr, host.callbacks(), "ar", 0), KST_BAD_HANDLE);
    EXPECT_GT(host.calls, 0);
    EXPECT_EQ(kst_Open2(&handle, nullptr, "ar", 0), KST_BAD_ARGUMENT);
    EXPECT_EQ(kst_Open2(&handle, host.callbacks(), nullptr, 0), KST_BAD_MODE);
    EXPECT_EQ(kst_Close(nullptr), KST_BAD_HANDLE);
    EXPECT_EQ(kst_Close(&handle), KST_SUCCESS);
}

TEST(FunctionApi, OpenLeavesTheStreamAtItsBeginning) {
    const Bytes file = read_sample("amrnb_plain.3gp");
    FaultyHost host(file);
    mm_Interface* handle = nullptr;
    ASSERT_EQ(kst_Open(&handle, host.callbacks(), "ar"), 0);
    uint32_t offset = 99;
    host.callbacks()->GetOffset(host.callbacks()->Context, &offset);
    EXPECT_EQ(offset, 0u);

    uint32_t value = 77;
    unsigned char byte = 0;
    EXPECT_EQ(kst_ReadChunk(nullptr, &byte, &value, false), KST_BAD_HANDLE);
    host.calls = 0;
    EXPECT_EQ(kst_ReadChunk(handle, nullptr, &value, false), KST_BAD_ARGUMENT);
    EXPECT_EQ(kst_ReadChunk(handle, &byte, nullptr, false), KST_BAD_ARGUMENT);
    EXPECT_EQ(host.calls, 0);
    EXPECT_EQ(kst_SeekTo(nullptr, 0), KST_BAD_HANDLE);
    EXPECT_EQ(kst_SeekTo(handle, 0), KST_BAD_ARGUMENT);
    EXPECT_EQ(kst_SeekTo(handle, 1000), KST_NOT_SUPPORTED);
    EXPECT_EQ(kst_GetIOCallbackStatus(nullptr, &value), KST_BAD_HANDLE);
    EXPECT_EQ(kst_GetIOCallbackStatus(handle, nullptr), KST_BAD_ARGUMENT);
    EXPECT_EQ(kst_GetIOCallbackStatus(handle, &value), KST_SUCCESS);
    EXPECT_EQ(value, 77u);
    kst_Close(&handle);
}

TEST(FunctionApi, StatusTexts) {
    EXPECT_STREQ(kst_StatusString(0), "Success");
    EXPECT_STREQ(kst_StatusString(13), "Invalid or NULL argument supplied");
    EXPECT_STREQ(kst_StatusString(16),
                 "Problem with IO Stream callback interface read - call kst_GetIOCallbackStatus "
                 "for more info");
    EXPECT_STREQ(kst_StatusString(19), "Invalid Seek Flags supplied");
    for (const int32_t code : {-1, 20, 21, 22, 23, 24, 25})
        EXPECT_STREQ(kst_StatusString(code), "Unknown status");
}

// A frame cut at the end of its sample is filled up, so that the stream keeps its form.
TEST(FunctionApi, FramesOfASampleAndACutOne) {
    Bytes frame(32, 0x55);
    frame[0] = 0x3C;
    const Bytes cut = {0x3C, 1, 2, 3};
    const Bytes samples = join({frame, frame, frame, cut, {0x7C}});
    const auto build = [&](uint32_t offset) {
        return join({ftyp(),
                     movie({track({.entry = samr_entry(3),
                                   .tables = one_chunk_tables({96, 0, 4, 1}, 480, offset)})}),
                     box("mdat", {samples})});
    };
    const auto media_at = static_cast<uint32_t>(build(0).size() - samples.size());
    const Played played = play(build(media_at), "ar");
    EXPECT_EQ(played.status, KST_END_OF_FILE);
    Bytes filled(32);
    std::copy(cut.begin(), cut.end(), filled.begin());
    EXPECT_EQ(unpack_speech(played.stream, false),
              join({text("#!AMR\n"), frame, frame, frame, filled, {0x7C}}));
    // 4 samples of 480 units, three frames of 160 in each.
    EXPECT_EQ(played.stream[20], 12);
}

TEST(FunctionApi, DumpShowsTenBytesALine) {
    uint8_t data[40];
    for (size_t i = 0; i < sizeof data; ++i)
        data[i] = static_cast<uint8_t>(i);
    {
        const SyslogCapture log(4);
        kstutil_printData(data, 11);
        kstutil_printData(data, 0);
        kstutil_printData(data, 1);
        EXPECT_THAT(
            log.messages(),
            testing::ElementsAre("DBG: Dump:sz=11", "DBG: Data:00 01 02 03 04 05 06 07 08 09",
                                 "DBG: Data:0a 0b 0c 0d 0e 0f 10 11 12 13", "DBG: Dump:sz=1",
                                 "DBG: Data:00 01 02 03 04 05 06 07 08 09"));
        EXPECT_THAT(log.lines(),
                    testing::Each(testing::StartsWith("DBG: .//interface/src/kestrel(")));
    }
    const SyslogCapture log(3);
    kstutil_printData(data, 25);
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

}  // namespace
