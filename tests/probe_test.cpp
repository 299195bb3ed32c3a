// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "common/bytes.h"
#include "kestrel/hinter.h"
#include "kestrel/probe.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"

// What kst_probe_open finds is what the APIs do.

using kestrel::load_be32;
using kestrel::store_be32;

namespace {

struct ProbeCloser {
    void operator()(kst_probe* probe) const { kst_probe_close(probe); }
};
using Probe = std::unique_ptr<kst_probe, ProbeCloser>;

Probe probe_of(const Bytes& file) {
    const MemoryHost host(file);
    kst_probe* probe = nullptr;
    EXPECT_EQ(kst_probe_open(&probe, host.table()), KST_SUCCESS);
    return Probe(probe);
}

kst_probe_verdict judge(const Probe& probe, Api api, int32_t medium) {
    kst_probe_verdict verdict{};
    verdict.struct_size = sizeof verdict;
    const int32_t which = api == Api::kFunction ? KST_API_FUNCTION : KST_API_CLASS;
    EXPECT_EQ(kst_probe_judge(probe.get(), which, medium, &verdict), KST_SUCCESS);
    return verdict;
}

// Reasons of media that come to an end, with a part of the samples or at other times.
bool is_reason_of_a_part(int32_t reason) {
    return reason == KST_PROBE_FRAGMENTED || reason == KST_PROBE_SELF_HINTED ||
           reason == KST_PROBE_UNKNOWN_TABLE || reason == KST_PROBE_INCOMPLETE;
}

TEST(Probe, FileWithoutAReasonAgainstItOpensAndAnyOtherDoesNotPlayWhole) {
    for (const std::string& name : all_names()) {
        const Bytes file = read_sample(name);
        const Probe probe = probe_of(file);
        for (const Api api : {Api::kFunction, Api::kClass}) {
            for (const int32_t medium : {KST_MEDIUM_AUDIO, KST_MEDIUM_VIDEO}) {
                const kst_probe_verdict verdict = judge(probe, api, medium);
                SCOPED_TRACE(name + " " + verdict.word + " " + verdict.why);
                const Played played =
                    play(file, medium == KST_MEDIUM_AUDIO ? "ar" : "vr", {.api = api});
                EXPECT_EQ(verdict.reason == KST_PROBE_NO_REASON, *verdict.why == '\0');
                if (verdict.reason == KST_PROBE_NO_REASON) {
                    EXPECT_EQ(played.status, KST_END_OF_FILE);
                } else if (!is_reason_of_a_part(verdict.reason)) {
                    EXPECT_NE(played.status, KST_END_OF_FILE);
                }
            }
        }
    }
}

// Copies of a file whose table number `which` of a type is damaged, in each of a few ways.
std::vector<Bytes> damaged_copies(const Bytes& file, std::string_view type, int which) {
    auto at = file.begin();
    for (int i = 0; i <= which; ++i, ++at) {
        at = std::search(at, file.end(), type.begin(), type.end());
        if (at == file.end()) return {};
    }
    const auto body = static_cast<size_t>(at - file.begin()) + type.size() - 1;
    const size_t end = body - 8 + load_be32(&file[body - 8]);
    std::vector<Bytes> copies;
    for (const size_t from : {body, body + 4, body + 8, (body + end) / 2}) {
        for (const uint8_t value : {uint8_t{0}, uint8_t{0xFF}}) {
            copies.push_back(file);
            std::fill(copies.back().begin() + static_cast<std::ptrdiff_t>(std::min(from, end)),
                      copies.back().begin() + static_cast<std::ptrdiff_t>(end), value);
        }
    }
    // Sizes of 0 are those of samples without media.
    if (type == "stsz") copies.erase(copies.end() - 2);
    copies.push_back(file);
    store_be32(&copies.back()[body - 8], 8);  // the rest is a box of a wrong size
    copies.push_back(file);
    store_be32(&copies.back()[body - 4], 0);  // another type
    return copies;
}

// What comes out of a file whose tables are damaged is whole where the probe has no reason against
// it, and only there.
TEST(Probe, SeesDamagedTables) {
    const char* const tables[] = {"stsc", "stts", "stsz", "stco", "ctts", "stss", "rtp ", "avcC"};
    int refused = 0, played_on = 0;
    for (const Medium& medium : {Medium{"amrnb_hinted.3gp", "ar"},
                                 {"h263_hinted.3gp", "vr"},
                                 {"mpeg4_plain.3gp", "vr"},
                                 {"h264_hinted.3gp", "vr"},
                                 {"mpeg4_hinted.3gp", "vr"}}) {
        const Bytes file = read_sample(medium.file);
        const int32_t kind = *medium.mode == 'a' ? KST_MEDIUM_AUDIO : KST_MEDIUM_VIDEO;
        Played whole[2];
        for (const Api api : {Api::kFunction, Api::kClass})
            whole[api == Api::kClass] = play(file, medium.mode, {.api = api});
        for (int which = 0; which < 2 * 8; ++which) {
            const auto copies = damaged_copies(file, tables[which / 2], which % 2);
            for (size_t damage = 0; damage < copies.size(); ++damage) {
                const Probe probe = probe_of(copies[damage]);
                for (const Api api : {Api::kFunction, Api::kClass}) {
                    const Played& good = whole[api == Api::kClass];
                    if (good.status != KST_END_OF_FILE) continue;
                    const kst_probe_verdict verdict = judge(probe, api, kind);
                    SCOPED_TRACE(testing::Message()
                                 << name_of(medium, api) << ", " << tables[which / 2] << " "
                                 << which % 2 << ", damage " << damage << ": " << verdict.word);
                    const Played played = play(copies[damage], medium.mode, {.api = api});
                    if (verdict.reason == KST_PROBE_NO_REASON) {
                        ++played_on;
                        EXPECT_EQ(played.status, KST_END_OF_FILE);
                        EXPECT_GT(played.stream.size(), good.stream.size() * 9 / 10);
                    } else {
                        ++refused;
                        EXPECT_FALSE(played.stream == good.stream);
                    }
                }
            }
        }
    }
    EXPECT_GT(refused, 200);
    EXPECT_GT(played_on, 100);
}

TEST(Probe, ReasonsAndFixes) {
    struct Case {
        const char* file;
        Api api;
        int32_t medium;
        const char* word;
        const char* fix;
        const char* lost = "none";  // type of the boxes that are not there
        size_t left = SIZE_MAX;     // bytes before the cut
    };
    const Case cases[] = {
        {"amrnb_plain.3gp", Api::kFunction, KST_MEDIUM_AUDIO, "no-reason", ""},
        {"amrnb_plain.3gp", Api::kFunction, KST_MEDIUM_VIDEO, "no-track", ""},
        {"amrnb_plain.3gp", Api::kClass, KST_MEDIUM_AUDIO, "no-hint-track",
         "kestrel hint FILE -o OUT"},
        {"aac_plain.3gp", Api::kFunction, KST_MEDIUM_AUDIO, "codec", ""},
        {"amrwb_hinted.3gp", Api::kClass, KST_MEDIUM_AUDIO, "codec", ""},
        {"two_amrnb_hinted.3gp", Api::kClass, KST_MEDIUM_AUDIO, "several-tracks", ""},
        {"h263_hinted_selfref.3gp", Api::kClass, KST_MEDIUM_VIDEO, "self-hinted",
         "kestrel hint FILE --replace -o OUT"},
        {"wild/fragmented.3gp", Api::kFunction, KST_MEDIUM_VIDEO, "fragmented",
         "kestrel hint FILE -o OUT"},
        {"wild/co64.3gp", Api::kFunction, KST_MEDIUM_VIDEO, "unknown-table",
         "kestrel hint FILE -o OUT"},
        {"wild/fragmented_after_moov.3gp", Api::kFunction, KST_MEDIUM_VIDEO, "incomplete",
         "kestrel hint FILE --salvage -o OUT", "moof"},
        {"h263_hinted.3gp", Api::kClass, KST_MEDIUM_VIDEO, "damaged",
         "kestrel hint FILE --replace --salvage -o OUT", "none", 40000},
        {"h263_hinted.3gp", Api::kFunction, KST_MEDIUM_AUDIO, "no-track", "", "none", 40000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        Bytes file = read_sample(c.file);
        for (size_t at; (at = find_box(file, c.lost)) < file.size();)
            file = with(file, c.lost, -4, text("free"));
        file.resize(std::min(file.size(), c.left));
        const Probe probe = probe_of(file);
        const kst_probe_verdict verdict = judge(probe, c.api, c.medium);
        EXPECT_STREQ(verdict.word, c.word);
        EXPECT_STREQ(verdict.fix, c.fix);
        EXPECT_EQ(verdict.can_be_hinted != 0, *c.fix != '\0');
    }
}

TEST(Probe, FindsWhatWouldEndTheProcess) {
    Bytes file = read_sample("mpeg4_hinted.3gp");
    constexpr uint8_t kVisual[] = {0x20, 0x11};  // object type and stream type of MPEG-4 Visual
    const std::string_view name = "esds";
    const auto box = std::search(file.begin(), file.end(), name.begin(), name.end());
    const auto type = std::search(box, file.end(), std::begin(kVisual), std::end(kVisual));
    ASSERT_NE(type, file.end());
    EXPECT_STREQ(judge(probe_of(file), Api::kClass, KST_MEDIUM_VIDEO).word, "no-reason");
    *type = 0x6C;
    const Probe probe = probe_of(file);
    for (const int32_t medium : {KST_MEDIUM_AUDIO, KST_MEDIUM_VIDEO})
        EXPECT_EQ(judge(probe, Api::kClass, medium).reason, KST_PROBE_ENDS_PROCESS);
    EXPECT_NE(judge(probe, Api::kFunction, KST_MEDIUM_VIDEO).reason, KST_PROBE_ENDS_PROCESS);
}

TEST(Probe, ClassApiRefusesMoreSoundOfOneSizeThanItHoldsButNoPictures) {
    for (const uint32_t more : {0U, 1U}) {
        Bytes file = with(read_sample("av_h263_amrnb_hinted.3gp"), "stsz", 4, be32(1), 1);
        file = with(file, "stsz", 8, be32((1U << 24) + more), 1);
        file = join({file, box("free", {Bytes(16 << 20)})});
        EXPECT_EQ(play(file, "ar", {.api = Api::kClass}).status == KST_NO_MEMORY, more == 1);
        EXPECT_EQ(judge(probe_of(file), Api::kClass, KST_MEDIUM_VIDEO).reason, KST_PROBE_NO_REASON);
    }
}

// The last sample counts, however short it is.
TEST(Probe, TakesHintsOfAPictureOfOneByte) {
    for (const char* name : {"h263_plain.3gp", "mpeg4_plain.3gp"}) {
        const Bytes file = with(read_sample(name), "stsz", 12 + 4 * 29, be32(1));
        const MemoryHost from(file);
        const MemoryHost to;
        ASSERT_EQ(kst_hint(from.table(), to.table(), nullptr, nullptr), KST_HINT_DONE);
        for (const Api api : {Api::kFunction, Api::kClass}) {
            EXPECT_STREQ(judge(probe_of(to.written()), api, KST_MEDIUM_VIDEO).word, "no-reason");
            EXPECT_EQ(play(to.written(), "vr", {.api = api}).status, KST_END_OF_FILE);
        }
    }
}

TEST(Probe, SeesTimescalesThatDiffer) {
    for (const auto& [name, differ] : {std::pair{"h263_hinted.3gp", 1}, {"h263_plain.3gp", 0}}) {
        const Probe probe = probe_of(read_sample(name));
        EXPECT_EQ(judge(probe, Api::kClass, KST_MEDIUM_VIDEO).seeks_elsewhere, differ);
        EXPECT_EQ(judge(probe, Api::kFunction, KST_MEDIUM_VIDEO).seeks_elsewhere, 0);
    }
}

TEST(Probe, DescribesTracks) {
    const Probe probe = probe_of(read_sample("av_h263_amrnb_hinted.3gp"));
    ASSERT_EQ(kst_probe_tracks(probe.get()), 4u);
    std::vector<kst_probe_track> tracks(4);
    for (uint32_t i = 0; i < 4; ++i) {
        tracks[i].struct_size = sizeof tracks[i];
        ASSERT_EQ(kst_probe_describe(probe.get(), i, &tracks[i]), KST_SUCCESS);
    }
    EXPECT_STREQ(tracks[0].codec, "s263");
    EXPECT_STREQ(tracks[0].codec_name, "H.263");
    EXPECT_STREQ(tracks[0].language, "und");
    EXPECT_EQ(tracks[0].medium, KST_MEDIUM_VIDEO);
    EXPECT_EQ(tracks[0].width, 176u);
    EXPECT_EQ(tracks[0].samples, 30u);
    EXPECT_EQ(tracks[0].sync_samples, 3u);
    EXPECT_EQ(tracks[1].medium, KST_MEDIUM_AUDIO);
    EXPECT_EQ(tracks[1].bytes, 101u * 32);
    EXPECT_EQ(tracks[2].medium, KST_MEDIUM_HINT);
    EXPECT_EQ(tracks[2].hints_track, tracks[0].track_id);
    EXPECT_EQ(tracks[2].longest_packet, 1400u);
    EXPECT_EQ(kst_probe_describe(probe.get(), 4, tracks.data()), KST_NO_SUCH_TRACK);
    const Probe fragmented = probe_of(read_sample("wild/fragmented.3gp"));
    kst_probe_track track{};
    track.struct_size = sizeof track;
    ASSERT_EQ(kst_probe_describe(fragmented.get(), 0, &track), KST_SUCCESS);
    EXPECT_EQ(track.samples, track.fragmented);
    EXPECT_GT(track.samples, 0u);
    // Boxes that the APIs do not read.
    const Probe large = probe_of(read_sample("wild/large_size_mdat.3gp"));
    ASSERT_EQ(kst_probe_describe(large.get(), 0, &track), KST_SUCCESS);
    EXPECT_EQ(std::tuple(track.width, track.height, track.sync_samples),
              std::tuple(176u, 144u, 3u));
}

TEST(Probe, PrintsAndLogsNothingWhateverTheFile) {
    const SyslogCapture log(3);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    Bytes file = read_sample("h263_hinted.3gp");
    for (size_t at = 0; at + 4 < file.size() && at < 4000; at += 7) {
        Bytes damaged = file;
        damaged[at] ^= 0xFF;
        damaged[at + 3] ^= 0x55;
        probe_of(damaged);
    }
    for (const size_t cut : {size_t{0}, size_t{7}, size_t{100}, size_t{1500}})
        probe_of(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(cut)));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST(Probe, RefusesWhatItCannotUse) {
    EXPECT_STREQ(judge(probe_of(text("no boxes at all")), Api::kFunction, KST_MEDIUM_VIDEO).why,
                 "This is no 3GP file: it has neither a file type nor a movie box.");
    kst_probe* probe = nullptr;
    EXPECT_EQ(kst_probe_open(&probe, nullptr), KST_BAD_ARGUMENT);
    const Bytes file = read_sample("amrnb_plain.3gp");
    FaultyHost host(file);
    EXPECT_EQ(kst_probe_open(nullptr, host.callbacks()), KST_BAD_ARGUMENT);
    host.fault = [](int) -> uint32_t { return KST_HOST_NOT_YET; };
    EXPECT_EQ(kst_probe_open(&probe, host.callbacks()), KST_NOT_YET);
    EXPECT_EQ(probe, nullptr);
    // A failure of any call is the host's, and no property of the file.
    int32_t status = KST_IO_FAILURE;
    int failing = 0;
    for (; status == KST_IO_FAILURE; ++failing) {
        host.calls = 0;
        host.fault = [&](int call) -> uint32_t {
            return call == failing ? KST_HOST_FAILED : KST_HOST_OK;
        };
        status = kst_probe_open(&probe, host.callbacks());
    }
    EXPECT_EQ(status, KST_SUCCESS);
    EXPECT_GT(failing, 50);
    kst_probe_close(probe);
    kst_probe_verdict small{};
    EXPECT_EQ(kst_probe_judge(probe_of(file).get(), KST_API_CLASS, KST_MEDIUM_AUDIO, &small),
              KST_BAD_ARGUMENT);
}

}  // namespace
