// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <iostream>
#include <random>

#include "common/bytes.h"
#include "tests/support/playing.h"

// Every sample file with both APIs while it arrives: whatever the steps in which it comes, it plays
// to the bytes and the status of the whole file. With KESTREL_THOROUGH=1 in the environment, large
// files arrive byte by byte as well.

namespace {

struct BoxPlace {
    size_t at;
    size_t end;
    std::string type;
};

// The boxes at the top and in the movie box, in the order of their ends.
std::vector<BoxPlace> find_boxes(const Bytes& file) {
    std::vector<BoxPlace> boxes;
    const auto walk = [&](const auto& self, size_t at, size_t end) -> void {
        while (at + 8 <= end) {
            const size_t next = at + kestrel::load_be32(&file[at]);
            const std::string type(file.begin() + static_cast<long>(at + 4),
                                   file.begin() + static_cast<long>(at + 8));
            if (type == "moov") self(self, at + 8, next);
            boxes.push_back({at, next, type});
            at = next;
        }
    };
    walk(walk, 0, file.size());
    return boxes;
}

// The class needs the header of every box to open, so what is after the media would make it wait
// for all.
Bytes without_tail(Bytes file) {
    const BoxPlace last = find_boxes(file).back();
    if (last.type == "free") file.resize(last.at);
    return file;
}

class Arrival {
  public:
    Arrival(const Medium& medium, Api api)
        : medium_(medium), api_(api), file_(without_tail(read_sample(medium.file))) {
        whole_ = play(file_, medium.mode, {.api = api});
    }
    const Bytes& file() const { return file_; }
    const Played& whole() const { return whole_; }
    int played() const { return played_; }
    int waits() const { return waits_; }

    // Each wait brings what `steps` answers. Such a schedule is made anew for each time of playing.
    void expect_whole(const std::function<std::function<uint32_t()>()>& schedule,
                      const std::string& what) {
        for (const bool flag : {true, false}) {
            const Playing how{.api = api_, .request = 1000, .flag = flag, .steps = schedule()};
            const Played played = play_arriving(file_, medium_.mode, 1, sized(how));
            ASSERT_EQ(played.status, whole_.status) << what;
            ASSERT_TRUE(played.stream == whole_.stream)
                << what << (flag ? " with" : " without") << " flag";
            ++played_;
            waits_ += played.waits;
        }
    }
    void expect_whole(uint32_t piece) {
        expect_whole([=] { return [=] { return piece; }; }, "pieces of " + std::to_string(piece));
    }

  private:
    // Chunks of the function API are asked for with room for any.
    Playing sized(Playing how) const {
        if (api_ == Api::kFunction) how.request = KST_LARGEST_CHUNK;
        return how;
    }

    Medium medium_;
    Api api_;
    Bytes file_;
    Played whole_;
    int played_ = 0;
    int waits_ = 0;
};

class EverySample : public testing::TestWithParam<std::tuple<Medium, Api>> {};

TEST_P(EverySample, PlaysAlikeHoweverItArrives) {
    const auto& [medium, api] = GetParam();
    Arrival arrival(medium, api);
    for (const uint32_t piece : {1u, 61u, 299u, 1400u, 4001u, 65536u}) {
        // Each step of a file that is not open yet is another open.
        const size_t steps = arrival.file().size() / piece;
        if (steps <= (arrival.whole().opened ? (kSanitized ? 2000u : 20000u) : 100u) || thorough())
            arrival.expect_whole(piece);
    }
    const std::vector<BoxPlace> boxes = find_boxes(arrival.file());
    arrival.expect_whole(
        [&] {
            return [&boxes, revealed = size_t{0}, next = size_t{0}]() mutable {
                const size_t end = next < boxes.size() ? boxes[next++].end : revealed + 1;
                const size_t step = end - revealed;
                revealed = end;
                return static_cast<uint32_t>(step);
            };
        },
        "box by box");
    const uint32_t salt = std::random_device()();
    std::mt19937 random(salt);
    for (int round = 0; round < 8; ++round) {
        const uint32_t most = 64u << round;
        arrival.expect_whole(
            [&] { return [&random, most] { return 1 + static_cast<uint32_t>(random()) % most; }; },
            "random, salt " + std::to_string(salt));
    }
    std::cout << arrival.played() << " schedules, " << arrival.waits()
              << " waits while playing, salt " << salt << "\n";
    if (arrival.whole().opened && boxes.back().type == "mdat") {
        EXPECT_GT(arrival.waits(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, EverySample,
                         testing::Combine(testing::ValuesIn(sample_media()),
                                          testing::Values(Api::kFunction, Api::kClass)),
                         [](const auto& row) { return std::apply(name_of, row.param); });

// What opening a file that arrives took.
struct Opening {
    int tries = 0;
    uint32_t arrived = 0;
};
// As kestrel/hosts.h shows it.
Opening open_arriving(const Bytes& file, const char* mode, Api api, uint32_t step) {
    kst_host* host = kst_host_from_growing_memory(file.data(), file.size(), step);
    Opening opening;
    const auto try_to_open = [&](const auto& open) {
        for (;;) {
            ++opening.tries;
            if (open() == KST_SUCCESS) break;
            if (kst_host_is_complete(host) || kst_host_wait_to_open(host) < 0) break;
        }
        opening.arrived = kst_host_bytes_available(host);
    };
    mm_Interface* handle = nullptr;
    C3gpInterface player;
    if (api == Api::kFunction) {
        try_to_open([&] { return kst_Open(&handle, kst_host_callbacks(host), mode); });
    } else {
        try_to_open(
            [&] { return static_cast<int32_t>(player.Open(kst_host_callbacks(host), mode)); });
    }
    kst_Close(&handle);
    kst_host_close(host);
    return opening;
}

// `count` bytes that no reader looks at, as a box.
Bytes skipped_box(uint32_t count) {
    Bytes box(count);
    kestrel::store_be32(box.data(), count);
    std::copy_n("skip", 4, &box[4]);
    return box;
}

TEST(Opening, TakesFewTriesWhereverTheMovieBoxIs) {
    constexpr uint32_t kSkipped = 2'000'000;
    for (const Api api : {Api::kFunction, Api::kClass}) {
        const Bytes movie = without_tail(read_sample("h263_hinted.3gp"));
        const BoxPlace box = find_boxes(movie).at(0);
        ASSERT_EQ(box.type, "ftyp");
        const size_t end = find_boxes(movie).end()[-2].end;
        for (const bool skipped_first : {false, true}) {
            // Chunk offsets are wrong then, which opening does not look at.
            Bytes file = movie;
            const Bytes skipped = skipped_box(kSkipped);
            file.insert(skipped_first ? file.begin() : file.end(), skipped.begin(), skipped.end());
            const size_t needed = end + (skipped_first ? kSkipped : 0);
            for (const uint32_t step : {1u, 100u, 65536u}) {
                SCOPED_TRACE(testing::Message() << step << (skipped_first ? ", last" : ", first"));
                const Opening opening = open_arriving(file, "vr", api, step);
                EXPECT_LE(opening.tries, 45);
                if (api == Api::kFunction) {
                    EXPECT_LE(opening.arrived, needed + 8 + step);
                }
            }
        }
    }
}

}  // namespace
