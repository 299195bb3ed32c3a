// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <thread>

#include "interface/src/isoff/record/record.h"
#include "kestrel/codec.h"
#include "tests/support/playing.h"

// Handles in many threads at once come to what each comes to alone. The preset `tsan` runs this
// under the thread sanitizer.

namespace {

constexpr unsigned kThreads = 8;

struct Job {
    Medium medium;
    Api api;
    Bytes file;
    Played expected;
};

std::vector<Job> all_jobs() {
    std::vector<Job> jobs;
    for (const Medium& medium : sample_media()) {
        const Bytes file = read_sample(medium.file);
        for (const Api api : {Api::kFunction, Api::kClass})
            jobs.push_back({medium, api, file, play(file, medium.mode, {.api = api})});
    }
    return jobs;
}

// Runs `work` in all threads, each with its number.
template <typename Work>
void in_threads(Work work) {
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < kThreads; ++number)
        threads.emplace_back(work, number);
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Threads, HandlesPlayAsTheyDoAlone) {
    const std::vector<Job> jobs = all_jobs();
    std::atomic<int> played = 0;
    in_threads([&](unsigned number) {
        // Each thread begins elsewhere, and some files arrive.
        for (size_t i = 0; i < jobs.size(); ++i) {
            const Job& job = jobs[(i + number * jobs.size() / kThreads) % jobs.size()];
            const Playing how{.api = job.api};
            const bool arrives = (i + number) % 3 == 0;
            const Played got = arrives ? play_arriving(job.file, job.medium.mode, 4001, how)
                                       : play(job.file, job.medium.mode, how);
            EXPECT_EQ(got.status, job.expected.status) << job.medium;
            EXPECT_TRUE(got.stream == job.expected.stream) << job.medium;
            ++played;
        }
    });
    std::cout << played << " handles in " << kThreads << " threads\n";
}

// The same file in all threads, with a player that seeks between its reads.
TEST(Threads, PlayersSeek) {
    const Bytes file = read_sample("amrnb_hinted_1450.3gp");
    const auto wander = [&] {
        const MemoryHost host(file);
        Bytes stream;
        C3gpInterface player;
        EXPECT_EQ(player.Open(host.table(), "ar"), KST_SUCCESS);
        Bytes buffer(500);
        for (const uint32_t ms : {0u, 1000u, 400u, 2000u, 20u}) {
            _TAG_KST_SEEK_PARAMS to{0, ms, 0, 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC};
            EXPECT_EQ(player.SeekTo(&to), KST_SUCCESS);
            uint32_t size = 500;
            EXPECT_EQ(player.ReadChunk(buffer.data(), &size, true), KST_SUCCESS);
            stream.insert(stream.end(), buffer.begin(), buffer.end());
        }
        return stream;
    };
    const Bytes alone = wander();
    in_threads([&](unsigned) {
        for (int i = 0; i < 20; ++i)
            EXPECT_TRUE(wander() == alone);
    });
}

// Files are written in all threads, and what the allocation counters say is lost nowhere.
TEST(Threads, FilesAreWritten) {
    const auto write = [](unsigned samples) {
        const MemoryHost host;
        KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = host.table();
        iso_file* file = isoFFopen(callbacks, "w", nullptr);
        file->creation_time = file->modification_time = 0;
        iso_track* track = amr_isoFFtrack(file, 0, 0x81FF, 1);
        iso_track* hint = rtp_isoFFtrack(file, track, 1400, 96, ISO_H263_RFC4629);
        Bytes sample(32, 0x3C);
        for (unsigned i = 0; i < samples; ++i) {
            EXPECT_EQ(isoFFwrite(track, sample.data(), 32, 160, 0), 32);
            EXPECT_GT(isoFFwriteHint(hint, sample.data(), 32, 160, 0), 0);
        }
        EXPECT_EQ(isoFFclose(file), 0);
        return host.written();
    };
    const int32_t before = malloccount;
    const Bytes alone = write(200);
    const int32_t allocations = malloccount - before;
    in_threads([&](unsigned) { EXPECT_TRUE(write(200) == alone); });
    EXPECT_EQ(malloccount - before, allocations * static_cast<int32_t>(kThreads + 1));
}

}  // namespace
