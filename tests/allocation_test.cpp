// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <utility>

#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "kestrel/codec.h"
#include "kestrel/hinter.h"
#include "kestrel/isoff.h"
#include "kestrel/log.h"
#include "kestrel/packer.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/opened.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/writing.h"

// Every allocation in turn fails, alone and with all after it: the documented status comes,
// nothing is lost that was delivered or is still to come, and there is no leak (with the address
// sanitizer).

namespace {

using testing::AnyOf;
using testing::Each;

class NoMemory : public testing::Test {
  protected:
    NoMemory() { sx_Debug = 0; }
    ~NoMemory() override {
        sx_Debug = 3;
        std::cout << tried_ << " failing allocations\n";
    }
    template <typename Work>
    void fail_each(Work work) {
        tried_ += with_each_allocation_failing(work);
    }

  private:
    int tried_ = 0;
};

// What reads through a fault, and on when there is memory again, gets the rest of the stream.
void expect_rest(const ReadCall& read, AllocationFault& fault, const Bytes& begun,
                 const Bytes& whole) {
    constexpr uint32_t kRequest = KST_LARGEST_CHUNK;
    const ReadThrough faulty = read_through_failures(
        [&](uint8_t* buffer, uint32_t* size) {
            return fault.during([&] { return read(buffer, size); });
        },
        kRequest);
    EXPECT_THAT(faulty.failures, Each(AnyOf(KST_FAILURE, KST_NO_MEMORY)));
    fault.repair();
    const ReadThrough rest = read_through_failures(read, kRequest);
    EXPECT_TRUE(rest.failures.empty());
    EXPECT_TRUE(join({begun, faulty.stream, rest.stream}) == whole);
}

TEST_F(NoMemory, FunctionApi) {
    for (const Medium& medium : sample_media()) {
        SCOPED_TRACE(medium.file);
        const Bytes file = read_sample(medium.file);
        const Played whole = play(file, medium.mode);
        fail_each([&](AllocationFault& fault) {
            const MemoryHost host(file);
            mm_Interface* handle = nullptr;
            const int32_t status =
                fault.during([&] { return kst_Open(&handle, host.table(), medium.mode); });
            if (status == KST_SUCCESS) {
                expect_rest(read_call(handle, false), fault, {}, whole.stream);
                kst_Close(&handle);
                return;
            }
            EXPECT_THAT(status, AnyOf(KST_FAILURE, KST_NO_MEMORY));
            EXPECT_EQ(handle, nullptr);
            fault.repair();
            kst_host_rewind(host.get());
            EXPECT_TRUE(play(host.get(), medium.mode).stream == whole.stream);
        });
    }
}

// The sample with a session description of so many bytes in its movie box, which is the last one.
Bytes with_description(Bytes file, size_t bytes) {
    const Bytes extra = box("udta", {box("hnti", {box("rtp ", {zeros(4 + bytes)})})});
    constexpr char kMoov[] = {'m', 'o', 'o', 'v'};
    const auto movie =
        std::find_end(file.begin(), file.end(), std::begin(kMoov), std::end(kMoov)) - 4;
    const Bytes size =
        be32(static_cast<uint32_t>(file.end() - movie) + static_cast<uint32_t>(extra.size()));
    std::copy(size.begin(), size.end(), movie);
    return join({file, extra});
}

// The last piece that opening takes lies in a block of its own: without it, the hint track would
// not be played but its media.
TEST_F(NoMemory, FunctionApiAtTheEndOfABlock) {
    const Bytes sample = read_sample("h263_hinted_1450.3gp");
    const auto blocks = [&](size_t bytes) {
        const Bytes file = with_description(sample, bytes);
        const MemoryHost host(file);
        mm_Interface* handle = nullptr;
        const int32_t before = malloccount;
        EXPECT_EQ(kst_Open(&handle, host.table(), "vr"), KST_SUCCESS);
        const int32_t taken = malloccount - before;
        kst_Close(&handle);
        return taken;
    };
    size_t fits = 900'000, exceeds = 1'100'000;
    const int32_t least = blocks(fits);
    ASSERT_LT(least, blocks(exceeds));
    while (exceeds - fits > 1) {
        const size_t middle = fits + (exceeds - fits) / 2;
        (blocks(middle) == least ? fits : exceeds) = middle;
    }
    const Bytes file = with_description(sample, exceeds);
    const Bytes whole = play(file, "vr").stream;
    fail_each([&](AllocationFault& fault) {
        const MemoryHost host(file);
        mm_Interface* handle = nullptr;
        const int32_t status = fault.during([&] { return kst_Open(&handle, host.table(), "vr"); });
        if (status == KST_SUCCESS) {
            expect_rest(read_call(handle, false), fault, {}, whole);
            kst_Close(&handle);
        } else {
            EXPECT_EQ(status, KST_NO_MEMORY);
            EXPECT_EQ(handle, nullptr);
        }
    });
}

TEST_F(NoMemory, ClassApi) {
    for (const Medium& medium : sample_media()) {
        SCOPED_TRACE(medium.file);
        const Bytes file = read_sample(medium.file);
        const Played whole = play(file, medium.mode, {.api = Api::kClass});
        fail_each([&](AllocationFault& fault) {
            const MemoryHost host(file);
            C3gpInterface player;
            const unsigned int status =
                fault.during([&] { return player.Open(host.table(), medium.mode); });
            if (status == KST_SUCCESS) {
                expect_rest(read_call(player, false), fault, {}, whole.stream);
                return;
            }
            if (whole.opened) {
                EXPECT_THAT(status, AnyOf(KST_FAILURE, KST_NO_MEMORY, KST_CORRUPT));
            }
            fault.repair();
            kst_host_rewind(host.get());
            EXPECT_EQ(player.Open(host.table(), medium.mode) == KST_SUCCESS, whole.opened);
        });
    }
}

// Its buffers are there already; what fails is the memory for log lines.
TEST_F(NoMemory, Seeking) {
    const SyslogCapture log(5);
    const Bytes file = read_sample("amrnb_hinted_1450.3gp");
    const auto wander = [&](AllocationFault* fault) {
        const MemoryHost host(file);
        C3gpInterface player;
        EXPECT_EQ(player.Open(host.table(), "ar"), KST_SUCCESS);
        Bytes begun(100);
        uint32_t size = 100;
        EXPECT_EQ(player.ReadChunk(begun.data(), &size, false), KST_SUCCESS);
        _TAG_KST_SEEK_PARAMS to{};
        to.nTime = 1000;
        to.fFlags = KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC;
        const auto seek = [&] { return player.SeekTo(&to); };
        unsigned int status = KST_NOT_OPEN;
        if (fault != nullptr) {
            status = fault->during(seek);
            fault->repair();
            EXPECT_THAT(status, AnyOf(KST_SUCCESS, KST_FAILURE));
            if (status != KST_SUCCESS) status = seek();
        } else {
            status = seek();
        }
        EXPECT_EQ(status, KST_SUCCESS);
        return read_through_failures(read_call(player, false)).stream;
    };
    const Bytes whole = wander(nullptr);
    fail_each([&](AllocationFault& fault) { EXPECT_TRUE(wander(&fault) == whole); });
}

TEST_F(NoMemory, BoxModel) {
    for (const char* name : {"amrnb_hinted_1450.3gp", "av_h264_amrwb_hinted.3gp",
                             "mpeg4_hinted.3gp", "h263_plain.3gp", "aac_plain.3gp"}) {
        SCOPED_TRACE(name);
        const Bytes file = read_sample(name);
        const auto copy = [&](AllocationFault& fault) {
            const MemoryHost in(file);
            const MemoryHost out;
            KST_IOSTREAM_CALLBACK_INTERFACE* from = in.table();
            KST_IOSTREAM_CALLBACK_INTERFACE* to = out.table();
            const bool copied = fault.during([&] {
                try {
                    Qvox3gp::Simple3gp boxes;
                    boxes.Read(from, 0);
                    boxes.Dump(to);
                    return true;
                } catch (const std::bad_alloc&) {
                } catch (const SimpleException&) {  // of the host that ran out of memory
                }
                return false;
            });
            return copied ? out.written() : Bytes();
        };
        AllocationFault none(0, false);
        none.repair();
        const Bytes whole = copy(none);
        EXPECT_FALSE(whole.empty());
        fail_each([&](AllocationFault& fault) {
            const Bytes copied = copy(fault);
            EXPECT_TRUE(copied.empty() || copied == whole);
        });
    }
}

// --- the ISO reader's and writer's functions ---

TEST_F(NoMemory, Writer) {
    for (const bool direct : {false, true}) {
        SCOPED_TRACE(direct);
        fail_each([&](AllocationFault& fault) {
            const MemoryHost host;
            const Around around = [&](const std::function<void()>& call) { fault.during(call); };
            const Writing writing = write_every_codec(host.table(), direct, around);
            EXPECT_THAT(writing.open_error, AnyOf(0, -2));
            // The host too may have had no memory.
            EXPECT_THAT(writing.failures, Each(AnyOf(-2, -5)));
            if (writing.open_error != 0 || writing.closed != 0) return;
            EXPECT_EQ(samples_in(host.written()), writing.samples);
        });
    }
}

TEST_F(NoMemory, ReaderFunctions) {
    const Bytes file = read_sample("h264_hinted.3gp");
    const uint8_t sets[] = {0, 0, 0, 1, 0x67, 66, 0, 30, 0, 0, 0, 1, 0x68, 9};
    fail_each([&](AllocationFault& fault) {
        const MemoryHost host(file);
        auto* callbacks = host.table();
        iso_file* iso = isoFFopen(callbacks, "r", nullptr);
        iso_track* media = isoFFselect(iso, "vide", 1);
        ASSERT_NE(media, nullptr);
        double interleave = 0.0;
        int length = 0;
        int converted = 0;
        int kept = 0;
        unsigned char* start_coded = nullptr;
        unsigned char* record = nullptr;
        fault.during([&] {
            interleave = isoFFgetInterleave(iso);
            static_cast<void>(isoFFfindHintTrack(media, 65535));
            static_cast<void>(isoFFrtpHinter(media, 65535));
            length = isoFFGetDSIin3GPP(media, 0, &start_coded);
            int record_length = 0;
            converted = convertDCI_3gpp_to_ISO(sets, sizeof sets, &record, &record_length);
            kept = isoFFsetDecoderSpecificInfo(media, kAvcc.data(), static_cast<int>(kAvcc.size()));
        });
        EXPECT_TRUE(interleave >= 0.0 || interleave == -1.0);
        EXPECT_EQ(length == -1, start_coded == nullptr);
        EXPECT_EQ(converted, record != nullptr ? 1 : 0);
        EXPECT_THAT(kept, AnyOf(0, -1));
        systemfree(start_coded);
        systemfree(record);
        isoFFclose(iso);
    });
}

TEST_F(NoMemory, Hinter) {
    const Bytes source = read_sample("wild/fragmented.3gp");
    const auto hint = [&](AllocationFault& fault, FaultyHost& to) {
        FaultyHost from(source);
        // The destination keeps its records before: a slot must not throw through the library.
        to.names.reserve(1 << 16);
        to.used = {"GetOffset", "Seek",      "SeekNRead",   "SeekNWrite", "GetStreamSize",
                   "IsEOF",     "IndexRead", "AdvanceRead", "CheckStatus"};
        return fault.during(
            [&] { return kst_hint(from.callbacks(), to.callbacks(), nullptr, nullptr); });
    };
    AllocationFault none(0, false);
    none.repair();
    FaultyHost good;
    ASSERT_EQ(hint(none, good), KST_HINT_DONE);
    fail_each([&](AllocationFault& fault) {
        FaultyHost to;
        const int result = hint(fault, to);
        // That of the destination can run out as well.
        EXPECT_THAT(result, AnyOf(KST_HINT_DONE, KST_HINT_NO_MEMORY, KST_HINT_DESTINATION_FAILED));
        if (result == KST_HINT_DONE) {
            EXPECT_EQ(to.written(), good.written());
        }
    });
}

TEST_F(NoMemory, Packer) {
    Bytes stream = play(read_sample("amrnb_hinted_multi.3gp"), "ar", {.api = Api::kClass}).stream;
    stream.resize(68 + 2 * 185);  // fewer frames than it declares
    fail_each([&](AllocationFault& fault) {
        const kst_pack_options options = {sizeof options, KST_PACK_HINT};
        const MemoryHost host;
        const int status = fault.during([&] {
            kst_packer* packer = kst_packer_open(&options);
            if (packer == nullptr) return int{KST_PACK_NO_MEMORY};
            int fed = KST_PACK_DONE;
            for (const uint8_t& byte : stream) {
                const int before = std::exchange(fed, kst_packer_feed(packer, 0, &byte, 1));
                EXPECT_TRUE(before == KST_PACK_DONE || before == fed);
            }
            const int written = kst_packer_write(packer, host.table(), nullptr);
            EXPECT_TRUE(fed == KST_PACK_DONE || fed == written);
            kst_packer_close(packer);
            return written;
        });
        EXPECT_EQ(status == KST_PACK_CUT, !fault.reached());
        EXPECT_THAT(status, AnyOf(KST_PACK_CUT, KST_PACK_NO_MEMORY, KST_PACK_DESTINATION_FAILED));
    });
}

TEST_F(NoMemory, ReadyMadeHosts) {
    const Bytes file(1000);
    const std::string path = std::string(KESTREL_SAMPLES) + "/amrnb_plain.3gp";
    fail_each([&](AllocationFault& fault) {
        std::vector<kst_host*> hosts(5);
        fault.during([&] {
            hosts[0] = kst_host_from_memory(file.data(), file.size());
            hosts[1] = kst_host_from_growing_memory(file.data(), file.size(), 10);
            hosts[2] = kst_host_for_writing_memory();
            hosts[3] = kst_host_from_file(path.c_str());
            hosts[4] = kst_host_from_growing_file(path.c_str(), 10);
            for (kst_host* host : hosts) {
                if (host == nullptr) continue;
                KST_IOSTREAM_CALLBACK_INTERFACE* table = kst_host_callbacks(host);
                uint8_t bytes[100] = {};
                uint32_t count = sizeof bytes;
                static_cast<void>(table->SeekNWrite(table->Context, bytes, count, 0));
                static_cast<void>(table->SeekNRead(table->Context, bytes, &count, 0));
            }
        });
        for (kst_host* host : hosts)
            kst_host_close(host);
    });
}

// --- an arena that ends ---

// From here on the file's arena has `room` bytes, fewer than it really has, and gets no more.
class LittleMemory {
  public:
    LittleMemory(iso_file* file, size_t room) { file->chunk_free = room; }

  private:
    static constexpr size_t kArenaBlock = 1000000;  // at least

    AllocationFault fault_{0, true, kArenaBlock};
    AllocationFault::Armed armed_{fault_};
};

// Wherever the memory ends, no track is left half made.
TEST(Arena, TrackThatCannotBeMadeIsTakenBack) {
    const std::pair<const char*, iso_track* (*)(iso_file*)> makers[] = {
        {"AMR", amr_track},
        {"H.264", h264_track},
        {"MPEG-4", mpeg4_track},
        {"hint", [](iso_file* file) { return hint_track(file->first_track); }}};
    for (const auto& [name, make] : makers) {
        int refused = 0;
        for (bool made = false; !made; ++refused) {
            SCOPED_TRACE(testing::Message() << name << ", " << 8 * refused << " bytes");
            Output out;
            iso_track* first = amr_track(out.file);
            first->own->edits = copy_to_arena<iso_elst_entry>(out.file, {{100, 0, 0x10000}});
            first->own->edit_count = 1;
            const uint32_t header = out.file->header_size;
            {
                const LittleMemory memory(out.file, static_cast<size_t>(8 * refused));
                made = make(out.file) != nullptr;
            }
            EXPECT_EQ(first->next != nullptr, made);
            EXPECT_EQ(out.file->own->last_track == first, !made);
            EXPECT_EQ(out.file->next_track_id, made ? 3U : 2U);
            EXPECT_EQ(out.file->header_size == header && !out.file->own->has_visual, !made);
            EXPECT_EQ(out.close(), 0);
            Opened reread(out.written());
            EXPECT_EQ(isoFFselect(reread.file, nullptr, 2) != nullptr, made);
        }
        EXPECT_GT(refused, 10);
    }
}

// What was taken before stays good, and the file goes on when there is memory again.
TEST(Arena, EndThatWritingMeetsIsReported) {
    for (const bool direct : {false, true}) {
        Output out(direct);
        iso_track* track = amr_track(out.file);
        EXPECT_EQ(write(track), 1);
        for (size_t room = 0, written = 0; written == 0; room += 8) {
            const LittleMemory memory(out.file, room);
            if (room == 0) {
                EXPECT_EQ(isoFFsetBrand(out.file, "3gp6", 0), -1);
            }
            const int result = write(track);
            EXPECT_EQ(result, room == 0 || result < 0 ? -2 : 1);
            written = result == 1;
        }
        out.file->chunk_free = 0;
        EXPECT_EQ(write(track), 1);
        EXPECT_EQ(out.close(), 0);
        Opened reread(out.written());
        EXPECT_EQ(reread.file->first_track->sample_count, 3);
    }
    Output out;
    write(amr_track(out.file));
    const LittleMemory memory(out.file, 0);
    EXPECT_EQ(out.close(), -2);
    EXPECT_TRUE(out.written().empty());
    int error = 0;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = out.callbacks();
    EXPECT_EQ(isoFFopen(callbacks, "w", &error), nullptr);
    EXPECT_EQ(error, -2);
}

// A configuration that is refused leaves the one before, wherever its memory ends.
TEST(Arena, RefusedConfigurationChangesNothing) {
    const Bytes other(300, 0);  // a record without sets, longer than what there is room for
    const Bytes cut = {1, 100, 1, 51, 0xFE, 0xE1, 0, 9, 0x67};
    const Bytes wide_set = join({{1, 100, 1, 51, 0xFC, 0xE1, 1, 0}, Bytes(256, 0x67), {0}});
    Output out;
    iso_track* track = h264_track(out.file);
    const auto expect_unchanged = [&](const iso_track* of) {
        EXPECT_EQ(Bytes(of->dsi, of->dsi + of->dsi_length), kAvcc);
        EXPECT_EQ(std::pair(int{of->profile}, int{of->level}), std::pair(66, 30));
        EXPECT_EQ(std::pair(of->profile_compat, of->nal_length_size), std::pair(0xC0U, 4));
        EXPECT_EQ(std::pair(of->sps_count, of->pps_count), std::pair(1U, 1U));
        EXPECT_EQ(Bytes(of->param_sets, of->param_sets + of->param_sets_length),
                  (Bytes{0, 0, 0, 4, 0x67, 66, 0xC0, 30, 0, 0, 0, 2, 0x68, 9}));
    };
    for (const Bytes& bad : {cut, wide_set}) {
        EXPECT_EQ(isoFFsetDecoderSpecificInfo(track, bad.data(), static_cast<int>(bad.size())), -1);
        expect_unchanged(track);
    }
    for (const size_t room : {0U, 8U, 16U, 200U}) {
        const LittleMemory memory(out.file, room);
        EXPECT_EQ(isoFFsetDecoderSpecificInfo(track, other.data(), 300), -1);
        expect_unchanged(track);
    }
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    ASSERT_NE(reread.file->first_track, nullptr);
    expect_unchanged(reread.file->first_track);
}

}  // namespace
