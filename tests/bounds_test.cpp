// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iostream>

#include "common/bytes.h"
#include "companion/importer/movie.h"
#include "interface/src/isoff/record/private.h"
#include "interface/src/mmfi/mm_interface.h"
#include "kestrel/hinter.h"
#include "kestrel/log.h"
#include "kestrel/native_records.h"
#include "kestrel/packer.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/hint_file.h"
#include "tests/support/movie_forms.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"

// What hostile files cost: memory at once, bytes read and calls of the host, in proportion to what
// the file has and what it delivers; steps of a call, which are packets and constructors that it
// goes through; and lines that are printed and logged.

namespace {

// Serves a file and counts; takes what is written and keeps nothing; needs no memory.
class CountingHost {
  public:
    explicit CountingHost(const Bytes& file) : file_(file) {
        table_ = {this, offset, seek, read, write, size, eof, index, advance, check};
    }
    CountingHost(const CountingHost&) = delete;
    CountingHost& operator=(const CountingHost&) = delete;

    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks() { return &table_; }
    uint64_t calls = 0;
    uint64_t bytes = 0;

    // Of a file that arrives: how much has, and how much more with each read that came too early.
    uint32_t arrived = UINT32_MAX;
    uint32_t step = 0;
    uint32_t hole = UINT32_MAX;  // a byte that does not come
    // Reads by IndexRead, and those of them that asked for less at the place of the one before.
    uint64_t reads = 0;
    uint64_t repeated = 0;
    // Number of the read that claims success and writes nothing.
    uint64_t unwritten_read = UINT64_MAX;

  private:
    static constexpr uint32_t kNotYet = 5;
    static constexpr uint32_t kLow16Zero = 0x10000;  // a status that counts as success

    bool is_unwritten() { return reads++ == unwritten_read; }
    uint32_t wait_for(uint64_t from, uint64_t end) {
        if (end <= arrived && (hole < from || hole >= end)) return 0;
        arrived += std::min(step, UINT32_MAX - arrived);
        return kNotYet;
    }
    static CountingHost& of(void* context) {
        CountingHost& self = *static_cast<CountingHost*>(context);
        ++self.calls;
        return self;
    }
    uint32_t copy(void* data, uint32_t from, uint32_t count) {
        const auto there = static_cast<uint32_t>(file_.size());
        const uint32_t got = std::min(count, there - std::min(from, there));
        if (got > 0) std::memcpy(data, file_.data() + from, got);
        bytes += got;
        return got;
    }
    static uint32_t offset(void* c, uint32_t* to) {
        *to = of(c).at_;
        return 0;
    }
    static uint32_t seek(void* c, uint32_t to) {
        of(c).at_ = to;
        return 0;
    }
    static uint32_t read(void* c, void* data, uint32_t* count, int32_t) {
        CountingHost& self = of(c);
        if (self.is_unwritten()) return kLow16Zero;
        *count = self.copy(data, self.at_, *count);
        self.at_ += *count;
        return 0;
    }
    static uint32_t write(void* c, const void*, uint32_t count, int32_t) {
        of(c).at_ += count;
        return 0;
    }
    static uint32_t size(void* c, uint32_t* to) {
        *to = static_cast<uint32_t>(of(c).file_.size());
        return 0;
    }
    static uint32_t eof(void* c) { return of(c).at_ >= of(c).file_.size() ? 1 : 0; }
    static uint32_t index(void* c, void* data, uint32_t from, uint32_t count, uint32_t* got) {
        CountingHost& self = of(c);
        if (self.is_unwritten()) return kLow16Zero;
        self.repeated += from == self.last_from_ && count < self.last_count_ ? 1 : 0;
        self.last_from_ = from;
        self.last_count_ = count;
        const uint32_t status = self.wait_for(from, uint64_t{from} + count);
        *got = status == 0 ? self.copy(data, from, count) : 0;
        return status;
    }
    static uint32_t advance(void* c, uint32_t) {
        of(c);
        return 0;
    }
    static uint32_t check(void* c, uint32_t* result, uint32_t status) {
        of(c);
        *result = status;
        return 0;
    }

    const Bytes& file_;
    uint32_t at_ = 0;
    uint32_t last_from_ = 0, last_count_ = 0;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

struct Cost {
    size_t memory = 0;
    uint64_t bytes = 0;
    uint64_t calls = 0;
    uint64_t delivered = 0;
    uint64_t steps = 0;      // of one call at most, besides one for each byte that it delivers
    uint64_t all_steps = 0;  // of all calls
    uint64_t made = 0;       // bytes of frames, of the function API those that were delivered
    int64_t lines = 0;
};

// Packets, constructors and empty hint samples that were interpreted until now.
uint64_t steps_of(const mm_Interface* handle) {
    uint64_t steps = 0;
    for (const iso_track* track = handle->file->first_track; track != nullptr; track = track->next)
        steps += track->own->hint_steps;
    return steps;
}

// Plays until the end, a failure, or much more than the file has.
template <typename Read>
uint64_t deliver(Read read, Bytes& buffer) {
    constexpr uint64_t kEnough = 8 << 20;
    uint64_t delivered = 0;
    for (int reads = 0; reads < 20000 && delivered < kEnough; ++reads) {
        auto size = static_cast<uint32_t>(buffer.size());
        const int32_t status = static_cast<int32_t>(read(buffer.data(), &size));
        delivered += size;
        if (status != KST_SUCCESS) break;
    }
    return delivered;
}

// Goes on after failures, as long as they are few.
void play_class(CountingHost& host, const char* mode, bool flag, Bytes& buffer, Cost& cost) {
    C3gpInterface player;
    if (player.Open(host.callbacks(), mode) != KST_SUCCESS) return;
    for (int failures = 0; failures < 40; ++failures) {
        cost.delivered += deliver(
            [&](auto* to, auto* size) {
                const unsigned int status = player.ReadChunk(to, size, flag);
                const uint64_t steps = player.GetWork().done - cost.all_steps;
                const uint64_t made = player.GetWork().made - cost.made;
                cost.all_steps += steps;
                cost.made += made;
                cost.steps = std::max(cost.steps, steps - std::min(steps, made));
                return status;
            },
            buffer);
    }
}

Cost play_counted(const Bytes& file, const char* mode, Api api, bool flag) {
    Bytes buffer(KST_LARGEST_CHUNK);
    CountingHost host(file);
    Cost cost;
    const AllocationWatch watch;
    if (api == Api::kFunction) {
        mm_Interface* handle = nullptr;
        kst_Open(&handle, host.callbacks(), mode);
        if (handle != nullptr) {
            const auto read = [&](auto* to, auto* size) {
                const int32_t status = kst_ReadChunk(handle, to, size, flag);
                const uint64_t steps = steps_of(handle) - cost.all_steps;
                cost.all_steps += steps;
                cost.steps = std::max(cost.steps, steps - std::min<uint64_t>(steps, *size));
                return status;
            };
            for (int failures = 0; failures < 10; ++failures)
                cost.delivered = cost.made += deliver(read, buffer);
        }
        kst_Close(&handle);
    } else {
        play_class(host, mode, flag, buffer, cost);
    }
    cost.memory = watch.peak();
    cost.bytes = host.bytes;
    cost.calls = host.calls;
    return cost;
}

// --- files ---

enum class Kind { kAudio, kVideo };

struct Hostile {
    const char* name;
    std::function<Bytes(Kind)> file;
    uint64_t listed = 0;  // bytes of hint samples that tables list more than once
};

TrackSpec media_track(Kind kind, const Bytes& tables) {
    if (kind == Kind::kAudio) return {.id = 1, .entry = samr_entry(), .tables = tables};
    const Bytes d263 = box("d263", {text("test"), {1, 10, 0}});
    return {.id = 1, .handler = "vide", .entry = visual_entry("s263", d263), .tables = tables};
}

Bytes plain(Kind kind, const Bytes& tables) {
    return join(
        {ftyp(), movie({track(media_track(kind, tables))}), box("mdat", {Bytes(1000, 0x3C)})});
}

Bytes media_first(Kind kind, uint32_t body) {
    const Bytes tables = one_chunk_tables({100}, 160, 600);
    return join(
        {ftyp(), box("mdat", {Bytes(body, 0x3C)}), movie({track(media_track(kind, tables))})});
}

// A file with that hint sample, over media samples that are small or large.
HintFile hinted(Kind kind, const Bytes& hint, uint32_t media_size) {
    HintFile file;
    file.media_track = media_track(kind, {});
    file.media = Bytes(4 * media_size, 0x3C);
    file.media_sizes.assign(4, media_size);
    file.add_hint(hint);
    return file;
}

// The same, with other tables for the hint track.
Bytes hinted(Kind kind, const Bytes& hint, uint32_t media_size,
             std::function<Bytes(uint32_t at)> tables) {
    HintFile file = hinted(kind, hint, media_size);
    file.hint_tables = std::move(tables);
    return file.build();
}

// `count` samples of one size, the same ticks, all in one chunk.
Bytes uniform_tables(uint32_t count, uint32_t size, uint32_t offset) {
    return join({box("stts", {words({0, 1, count, 160})}),
                 box("stsc", {words({0, 1, 1, count, 1})}), box("stsz", {words({0, size, count})}),
                 box("stco", {words({0, 1, offset})})});
}

Bytes many(const Bytes& part, uint32_t count) {
    Bytes all;
    for (uint32_t i = 0; i < count; ++i)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// `count` samples of one size, each in a chunk of its own and all chunks at one place.
Bytes repeated_tables(uint32_t count, size_t size, uint32_t offset) {
    return join({box("stts", {words({0, 1, count, 160})}), box("stsc", {words({0, 1, 1, 1, 1})}),
                 box("stsz", {words({0, static_cast<uint32_t>(size), count})}),
                 box("stco", {words({0, count}), many(be32(offset), count)})});
}

// A hint sample of one packet with so many constructors, each of which takes `length` bytes of the
// samples in turn.
Bytes to_and_fro(uint16_t constructors, uint16_t length, uint32_t samples) {
    Bytes sample = hint_sample(1, {packet_entry(0x80 | 34, 1, constructors)});
    for (uint32_t i = 0; i < constructors; ++i) {
        const Bytes one = from_sample(2, 0, length, 1 + i % samples, i % 50);
        sample.insert(sample.end(), one.begin(), one.end());
    }
    return sample;
}

// A hint sample of one packet whose constructors take single bytes of one sample of a track, far
// from each other in turn.
Bytes jumping(uint16_t constructors, uint8_t reference, uint32_t distance) {
    Bytes sample = hint_sample(1, {packet_entry(0x80 | 34, 1, constructors)});
    for (uint32_t i = 0; i < constructors; ++i) {
        const Bytes one = from_sample(2, reference, 1, 1, i % 2 * distance);
        sample.insert(sample.end(), one.begin(), one.end());
    }
    return sample;
}

// A file that lists a hint sample so many times.
Bytes listed(Kind kind, const Bytes& hint, uint32_t media_size, uint32_t times) {
    return hinted(kind, hint, media_size,
                  [&](uint32_t at) { return repeated_tables(times, hint.size(), at); });
}

// A file that lists such a hint sample 50 times.
Bytes jumping_file(Kind kind, uint8_t reference, uint32_t distance) {
    return listed(kind, jumping(1300, reference, distance), 60000, 50);
}

// A hint sample of one packet with as many constructors as it can have, of which one, if any, adds
// a byte and the others name no sample.
Bytes of_no_sample(bool one_byte) {
    constexpr uint16_t kAll = 65535;
    const Bytes first = one_byte ? immediate("x", 1) : from_sample(2, 0, 10, 99, 0);
    return join({hint_sample(1, {packet_entry(0x80 | 34, 1, kAll), first}),
                 many(from_sample(2, 0, 10, 99, 0), kAll - 1)});
}

Bytes nested(const char* type, uint32_t depth) {
    Bytes out;
    for (uint32_t left = depth; left > 0; --left) {
        const Bytes head = join({be32(8 * left), text(type)});
        out.insert(out.end(), head.begin(), head.end());
    }
    return out;
}

Bytes after_ftyp(const Bytes& boxes) {
    return join({ftyp(), boxes});
}

Bytes in_movie(const Bytes& boxes) {
    return after_ftyp(box("moov", {boxes}));
}

const Bytes kEmptyHint = Bytes(4);

const Hostile kHostile[] = {
    {"2^32 samples of one size",
     [](Kind kind) { return plain(kind, uniform_tables(UINT32_MAX, 1, 600)); }},
    {"2^32 samples of no size",
     [](Kind kind) { return plain(kind, uniform_tables(UINT32_MAX, 0, 600)); }},
    {"tables of 2^32 entries",
     [](Kind kind) {
         return plain(kind, join({box("stts", {words({0, UINT32_MAX, 1, 160})}),
                                  box("stsc", {words({0, UINT32_MAX, 1, 1, 1})}),
                                  box("stsz", {words({0, 0, UINT32_MAX, 32})}),
                                  box("stco", {words({0, UINT32_MAX, 600})}),
                                  box("ctts", {words({0, UINT32_MAX, 1, 1})}),
                                  box("stss", {words({0, UINT32_MAX, 1})})}));
     }},
    {"2^32 empty hint samples",
     [](Kind kind) {
         return hinted(kind, kEmptyHint, 10,
                       [](uint32_t at) { return uniform_tables(UINT32_MAX, 4, at); });
     }},
    {"empty hint samples by the chunk",
     [](Kind kind) { return listed(kind, kEmptyHint, 10, 100000); }},
    {"damaged hint samples by the chunk",
     [](Kind kind) {
         const Bytes hint = to_and_fro(200, 50000, 4);
         const size_t cut = hint.size() - 2;
         return hinted(kind, hint, 60000,
                       [=](uint32_t at) { return repeated_tables(500, cut, at); });
     },
     500 * 201 * 16},
    {"hint samples that make too long a frame",
     [](Kind kind) { return listed(kind, to_and_fro(2000, 50000, 4), 60000, 3); }, 3 * 2001 * 16},
    {"constructors to and fro over large samples",
     [](Kind kind) { return hinted(kind, to_and_fro(20000, 1, 4), 100000).build(); }},
    {"a packet that repeats one sample",
     [](Kind kind) { return listed(kind, to_and_fro(100, 10, 1), 60, 1000); }, 1000 * 101 * 16},
    {"bytes taken far from each other", [](Kind kind) { return jumping_file(kind, 0, 30000); },
     50 * 1301 * 16},
    {"bytes of the hint sample far from each other",
     [](Kind kind) { return jumping_file(kind, 255, 10000); }, 50 * 1301 * 16},
    {"packets of constructors that do nothing",
     [](Kind kind) {
         return listed(kind, join({hint_sample(1, {packet_entry(34, 1, 4000)}), zeros(4000 * 16)}),
                       1 << 20, 2000);
     },
     2000 * 4001 * 16},
    {"frames of constructors that add nothing",
     [](Kind kind) {
         constexpr uint16_t kAll = 65535;
         return listed(kind,
                       join({hint_sample(1, {packet_entry(0x80 | 34, 1, kAll)}),
                             many(immediate("", 0), kAll)}),
                       10, 200);
     },
     200 * 65536 * 16},
    {"full tables and many empty ones after them",
     [](Kind kind) {
         TrackSpec about =
             media_track(kind, one_chunk_tables(std::vector<uint32_t>(25000, 1), 160, 0));
         about.extra = box("mdia", {box("minf", {many(box("stbl", {}), 20000)})});
         return after_ftyp(movie({track(about)}));
     }},
    {"many short movie headers", [](Kind) { return in_movie(many(box("mvhd", {}), 20000)); }},
    {"constructors of no sample",
     [](Kind kind) { return listed(kind, of_no_sample(false), 10, 200); }, 200 * 65536 * 16},
    {"a byte of thousands of constructors",
     [](Kind kind) { return listed(kind, of_no_sample(true), 10, 200); }, 200 * 65536 * 16},
    {"media of the largest buffer before the movie",
     [](Kind kind) { return media_first(kind, iso_mdat_buffer_max); }},
    {"longer media before the movie",
     [](Kind kind) { return media_first(kind, iso_mdat_buffer_max + 1); }},
    {"media of 40 MiB before the movie", [](Kind kind) { return media_first(kind, 40u << 20); }},
    {"many brands",
     [](Kind) {
         return join({box("ftyp", {zeros(1 << 20)}), movie({})});
     }},
    {"nested boxes", [](Kind) { return after_ftyp(nested("moov", 50000)); }},
    {"nested track boxes", [](Kind) { return in_movie(nested("trak", 50000)); }},
    {"many boxes", [](Kind) { return after_ftyp(many(box("free", {}), 50000)); }},
    {"many boxes in the movie", [](Kind) { return in_movie(many(box("udta", {}), 50000)); }},
    {"many empty tracks", [](Kind) { return in_movie(many(box("trak", {}), 50000)); }},
    {"many tracks of a header",
     [](Kind) {
         return in_movie(many(box("trak", {box("tkhd", {words({0, 0, 0, 1})})}), 20000));
     }},
    {"many tracks", [](Kind kind) { return in_movie(many(track(media_track(kind, {})), 5000)); }},
    {"many sample entries",
     [](Kind kind) {
         TrackSpec about = media_track(kind, {});
         about.entries = 2000;
         about.entry = many(box(kind == Kind::kAudio ? "samr" : "s263", {zeros(28)}), 2000);
         return after_ftyp(movie({track(about)}));
     }},
};

void PrintTo(const Hostile& hostile, std::ostream* out) {
    *out << hostile.name;
}

// --- what is promised (SECURITY.md) ---

// The boxes that an open file is held in proportion to: `ftyp` and `moov`, as far as they are
// there.
uint64_t header_bytes(const Bytes& file) {
    uint64_t total = 0;
    size_t at = 0;
    while (file.size() - at >= 8) {
        const auto size = std::min<size_t>(kestrel::load_be32(&file[at]), file.size() - at);
        const std::string type(file.begin() + static_cast<std::ptrdiff_t>(at) + 4,
                               file.begin() + static_cast<std::ptrdiff_t>(at) + 8);
        if (type == "ftyp" || type == "moov") total += size;
        at += std::max<size_t>(size, 8);
    }
    return total;
}

uint64_t most_memory(Api api, uint64_t headers) {
    return api == Api::kFunction ? (10u << 20) + 64 * headers : (32u << 20) + 32 * headers;
}

uint64_t most_bytes(uint64_t size, uint64_t delivered, uint64_t listed) {
    return (128u << 10) + 20 * (size + delivered + listed);
}

uint64_t most_calls(uint64_t size, uint64_t delivered, uint64_t listed) {
    return 1000 + 8 * (size + delivered + listed);
}

// Of a call. The class API goes through the whole of a hint sample, of which a step takes 12 bytes.
uint64_t most_steps(Api api, uint64_t size) {
    return api == Api::kFunction ? 1200000 : (1 << 20) + size / 12;
}

// Of all calls: what the call that fails takes comes on top in the function API.
uint64_t most_steps_of_all(Api api, uint64_t size, uint64_t made) {
    const uint64_t free = api == Api::kFunction ? 1 << 20 : 0;
    return free + most_steps(api, size) + size + made;
}

// Remarks of an API about one file, the line that further ones are left out, and what is
// logged of an open that fails.
constexpr int64_t kMaxLines = 100 + 1 + 1;

class Bounds : public testing::TestWithParam<Hostile> {};

TEST_P(Bounds, HoldForHostileFiles) {
    const Hostile& hostile = GetParam();
    for (const Kind kind : {Kind::kAudio, Kind::kVideo}) {
        const Bytes file = hostile.file(kind);
        for (const Api api : {Api::kFunction, Api::kClass}) {
            for (const bool flag : {false, true}) {
                const SyslogCapture log(3);
                testing::internal::CaptureStderr();
                Cost cost = play_counted(file, kind == Kind::kAudio ? "ar" : "vr", api, flag);
                const std::string printed = testing::internal::GetCapturedStderr();
                cost.lines = std::count(printed.begin(), printed.end(), '\n') +
                             static_cast<int64_t>(log.lines().size());
                std::cout << file.size() << " bytes, " << (kind == Kind::kAudio ? "audio" : "video")
                          << (api == Api::kFunction ? ", function API" : ", class API")
                          << (flag ? ", flag: " : ": ") << cost.memory << " bytes held, "
                          << cost.bytes << " read in " << cost.calls << " calls, " << cost.delivered
                          << " delivered, " << cost.steps << " steps, " << cost.lines << " lines\n";
                EXPECT_LE(cost.memory, most_memory(api, header_bytes(file)));
                EXPECT_LE(cost.bytes, most_bytes(file.size(), cost.delivered, hostile.listed));
                EXPECT_LE(cost.calls, most_calls(file.size(), cost.delivered, hostile.listed));
                EXPECT_LE(cost.steps, most_steps(api, file.size()));
                EXPECT_LE(cost.all_steps, most_steps_of_all(api, file.size(), cost.made));
                EXPECT_LE(cost.lines, kMaxLines);
            }
        }
    }
}

std::string name_of(const testing::TestParamInfo<Hostile>& info) {
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == ' ' || c == '^'; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Files, Bounds, testing::ValuesIn(kHostile), name_of);

// Of a file whose end comes in small steps, each of which is waited for.
Cost play_arriving_counted(const Bytes& file, Api api, size_t missing, uint32_t step) {
    CountingHost host(file);
    Cost cost;
    Bytes buffer(KST_LARGEST_CHUNK);
    const SyslogCapture log(5);
    mm_Interface* handle = nullptr;
    C3gpInterface player;
    if (api == Api::kFunction) {
        EXPECT_EQ(kst_Open(&handle, host.callbacks(), "vr"), KST_SUCCESS);
    } else {
        EXPECT_EQ(player.Open(host.callbacks(), "vr"), KST_SUCCESS);
    }
    const auto first_line = static_cast<std::ptrdiff_t>(log.lines().size());
    for (size_t arrived = file.size() - missing, status = KST_SUCCESS;
         status != KST_END_OF_FILE && arrived < file.size() + step;) {
        host.arrived = static_cast<uint32_t>(arrived);
        auto size = static_cast<uint32_t>(buffer.size());
        status = api == Api::kFunction
                     ? static_cast<size_t>(kst_ReadChunk(handle, buffer.data(), &size, true))
                     : player.ReadChunk(buffer.data(), &size, true);
        if (status != KST_SUCCESS) arrived += step;
        cost.delivered += size;
    }
    kst_Close(&handle);
    cost.bytes = host.bytes;
    cost.calls = host.calls;
    const std::vector<std::string>& lines = log.lines();
    cost.lines = std::count_if(
        lines.begin() + first_line, lines.end(),
        [](const std::string& line) { return line.find("---Packet 1---") != std::string::npos; });
    return cost;
}

// A hint sample, and after it in the file the media samples of one size that it names.
Bytes hint_before_media(const Bytes& hint, uint32_t samples, uint32_t size) {
    HintFile file = hinted(Kind::kVideo, {}, 0);
    const auto hint_size = static_cast<uint32_t>(hint.size());
    file.media = join({hint, Bytes(samples * size, 0x3C)});
    file.media_sizes.assign(1 + samples, size);
    file.media_sizes[0] = hint_size;
    file.hint_tables = [=, all = static_cast<uint32_t>(file.media.size())](uint32_t at) {
        return uniform_tables(1, hint_size, at - all);
    };
    return file.build();
}

// A frame that waits for its hint sample or its media costs no more for the waits. The class API
// builds it at most twice.
TEST(ArrivingBounds, HoldWhileAFrameArrives) {
    constexpr uint16_t kSamples = 1300;
    Bytes of_many = hint_sample(1, {packet_entry(0x80 | 34, 1, kSamples)});
    for (uint16_t i = 0; i < kSamples; ++i)
        of_many = join({of_many, from_sample(2, 0, 1, 2u + i, 0)});
    const Bytes of_one = hint_sample(
        1, {packet_entry(0x80 | 34, 1, 1), from_sample(2, 0, 1000, 2, 0), zeros(200000)});
    const struct {
        Bytes file;
        size_t missing;
        uint32_t step;
    } cases[] = {{hint_before_media(of_one, 1, 1000), 900, 10},
                 {hint_before_media(of_one, 1, 1000), 100000, 100},
                 {hint_before_media(of_many, kSamples, 20), kSamples * 20, 20}};
    for (const auto& c : cases) {
        for (const Api api : {Api::kFunction, Api::kClass}) {
            const Cost whole = play_counted(c.file, "vr", api, true);
            const Cost cost = play_arriving_counted(c.file, api, c.missing, c.step);
            std::cout << c.file.size() << " bytes: " << cost.bytes << " read in " << cost.calls
                      << " calls, " << cost.delivered << " delivered\n";
            EXPECT_GT(cost.delivered, 1000u);
            EXPECT_EQ(cost.delivered, whole.delivered);
            EXPECT_LE(cost.bytes, most_bytes(c.file.size(), cost.delivered, 0));
            EXPECT_LE(cost.calls, most_calls(c.file.size(), cost.delivered, 0));
            EXPECT_LE(cost.lines, 2);
        }
    }
}

// Reads to the end, or until so many calls have delivered nothing.
Bytes play_open(mm_Interface* handle, bool flag, int waits, uint8_t filler = 0) {
    Bytes buffer(KST_LARGEST_CHUNK, filler);
    Bytes stream;
    for (int32_t status = KST_SUCCESS; status != KST_END_OF_FILE && waits > 0;) {
        auto size = static_cast<uint32_t>(buffer.size());
        status = kst_ReadChunk(handle, buffer.data(), &size, flag);
        if (status != KST_SUCCESS) --waits;
        stream.insert(stream.end(), buffer.begin(), buffer.begin() + size);
    }
    return stream;
}

// What lies ahead of a file that arrives is not there, and is not asked for each time.
TEST(ReadingAhead, OfAFileThatArrivesCostsFewCalls) {
    for (const char* name : {"h263_hinted_mtu500", "amrnb_hinted", "mpeg4_hinted"}) {
        const Bytes file = read_sample(std::string(name) + ".3gp");
        const auto movie_end =
            std::search(file.begin(), file.end(), std::begin("mdat"), std::begin("mdat") + 4) -
            file.begin();
        for (const uint32_t step : {1u, 50u, 1000u}) {
            CountingHost host(file);
            mm_Interface* handle = nullptr;
            ASSERT_EQ(kst_Open(&handle, host.callbacks(), *name == 'a' ? "ar" : "vr"), 0);
            host.arrived = static_cast<uint32_t>(movie_end);
            host.step = step;
            play_open(handle, true, 1000000);
            kst_Close(&handle);
            const uint64_t exact = host.reads - host.repeated;
            EXPECT_LE(host.reads, exact + exact / 10 + 2) << name << ' ' << step;
        }
    }
}

// Where reading ahead failed, what it asked for comes in exact reads before it is tried again.
TEST(ReadingAhead, IsNotTriedAgainBeforeTheSameBytesHaveCome) {
    constexpr uint32_t kSize = 20, kSamples = 180;
    const auto made = [&](uint32_t at) {
        const Bytes tables = one_chunk_tables(std::vector<uint32_t>(kSamples, kSize), 160, at);
        return join({ftyp(), movie({track({.entry = samr_entry(), .tables = tables})})});
    };
    const auto movie_end = static_cast<uint32_t>(made(0).size());
    const Bytes file = join({made(movie_end), zeros(kSamples * kSize)});
    CountingHost host(file);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = host.callbacks();
    iso_file* opened = isoFFopen(callbacks, "r", nullptr);
    opened->indexed_read = 1;
    host.arrived = movie_end;
    const uint64_t before = host.reads;
    uint8_t buffer[kSize];
    for (uint32_t i = 0; i < kSamples; ++i) {
        host.arrived += kSize;
        EXPECT_EQ(isoFFread(opened->first_track, buffer, kSize, nullptr, nullptr), int{kSize});
    }
    EXPECT_EQ(host.reads - before, kSamples + 1);
    isoFFclose(opened);
}

// What a frame lacks is asked for by itself until it has come: waiting does not read the frame
// again and again.
TEST(ReadingAhead, WaitingForTheEndOfAFrameReadsLittle) {
    constexpr uint16_t kNoops = 3000;
    Bytes in_packets = be32(50u << 16);
    for (uint16_t i = 0; i < 50; ++i) {
        const auto marker = static_cast<uint8_t>(i == 49 ? 0x80 : 0);
        in_packets = join(
            {in_packets, packet_entry(marker | 34, i, 1), from_sample(2, 0, 1000, 1, i * 1000u)});
    }
    const Bytes after_noops = hint_sample(1, {packet_entry(0x80 | 34, 1, kNoops + 1),
                                              zeros(kNoops * 16), from_sample(2, 0, 1000, 1, 0)});
    for (const Bytes& hint : {in_packets, after_noops}) {
        HintFile made = hinted(Kind::kVideo, hint, 0);
        made.media = Bytes(50000, 0x5A);
        made.media_sizes = {50000};
        Bytes file = made.build();
        const auto media_end = static_cast<uint32_t>(file.size() - hint.size());
        // The second frame needs a piece that crosses 4 GiB, which never comes.
        if (hint == after_noops) file = with(file, "stco", 8, be32(UINT32_MAX - 500));
        CountingHost host(file);
        mm_Interface* handle = nullptr;
        ASSERT_EQ(kst_Open(&handle, host.callbacks(), "vr"), 0);
        host.bytes = 0;
        host.hole = media_end - 1;
        EXPECT_EQ(play_open(handle, true, 1000).size(), sizeof(kestrel::PROP_Header_Info));
        EXPECT_LT(host.bytes, 2 * file.size());
        kst_Close(&handle);
    }
}

// A file that was cut ends alike, whole and in steps.
TEST(DamagedFiles, CutFilesEndAlikeWhenTheyArrive) {
    const Bytes file = read_sample("h263_hinted_mtu500.3gp");
    for (size_t length = file.size() / 3; length < file.size(); length += 997) {
        const Bytes cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
        Played ends[2];
        for (const bool arriving : {false, true}) {
            CountingHost host(cut);
            mm_Interface* handle = nullptr;
            ASSERT_EQ(kst_Open(&handle, host.callbacks(), "vr"), 0);
            if (arriving) host.arrived = static_cast<uint32_t>(length / 2);
            host.step = 100;
            ends[arriving].stream = play_open(handle, arriving, 1000);
            uint32_t size = KST_LARGEST_CHUNK;
            Bytes buffer(size);
            ends[arriving].status = kst_ReadChunk(handle, buffer.data(), &size, arriving);
            kst_Close(&handle);
        }
        ASSERT_EQ(ends[false].stream, ends[true].stream);
        ASSERT_EQ(ends[true].status, KST_FAILURE) << length;
        ASSERT_EQ(ends[false].status, KST_FAILURE) << length;
    }
}

// A file may have any number of tracks: reading a chunk does not look through them.
TEST(HintTracks, AreLookedUpWhenTheFileIsOpened) {
    const Bytes file = read_sample("h263_hinted_mtu500.3gp");
    Bytes streams[2];
    for (const bool hidden : {false, true}) {
        CountingHost host(file);
        mm_Interface* handle = nullptr;
        ASSERT_EQ(kst_Open(&handle, host.callbacks(), "vr"), 0);
        iso_track* const tracks = handle->file->first_track;
        if (hidden) handle->file->first_track = nullptr;
        streams[hidden] = play_open(handle, false, 3);
        handle->file->first_track = tracks;
        kst_Close(&handle);
    }
    EXPECT_EQ(streams[true], streams[false]);
}

// Bytes that no host wrote are not delivered: what comes out does not depend on what lay in memory.
TEST(Unwritten, BytesAreNotDelivered) {
    for (const char* name : {"h263_hinted_mtu500", "amrnb_hinted", "h264_plain"}) {
        const Bytes file = read_sample(std::string(name) + ".3gp");
        for (const bool flag : {false, true}) {
            for (uint64_t read = 0; read < 60; ++read) {
                Bytes streams[2];
                for (const int filler : {0, 1}) {
                    const uint8_t byte = filler == 0 ? 0x11 : 0xEE;
                    mallopt(M_PERTURB, byte);
                    const SyslogCapture quiet(0);
                    CountingHost host(file);
                    host.unwritten_read = read;
                    testing::internal::CaptureStderr();
                    mm_Interface* handle = nullptr;
                    kst_Open(&handle, host.callbacks(), *name == 'a' ? "ar" : "vr");
                    if (handle != nullptr) streams[filler] = play_open(handle, flag, 3, byte);
                    kst_Close(&handle);
                    testing::internal::GetCapturedStderr();
                }
                mallopt(M_PERTURB, 0);
                ASSERT_EQ(streams[0], streams[1]) << name << ' ' << flag << ' ' << read;
            }
        }
    }
}

// --- hint samples, tables and remarks of the class API ---

TEST(ClassBounds, ThousandsOfMalformedHintSamplesEndTheCall) {
    HintFile made;
    for (int i = 0; i < 6000; ++i)
        made.add_hint({0});
    made.add_hint(hint_sample(1, {packet_entry(96, 1, 1), immediate({0xF0, 0x3C, 0x55})}));
    const Bytes file = made.build();
    CountingHost host(file);
    C3gpInterface player;
    const SyslogCapture log(2);
    ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    const uint64_t opened = host.calls;
    Bytes buffer(1000);
    auto size = static_cast<uint32_t>(buffer.size());
    EXPECT_EQ(player.ReadChunk(buffer.data(), &size, false), KST_FAILURE);
    EXPECT_EQ(size, 0u);
    EXPECT_LT(host.calls - opened, 6000u * 5);
    EXPECT_THAT(log.messages(),
                testing::ElementsAre("ERR: AUDIO: No valid hint sample among the next 4096"));
    // It goes on from there: the frame after all of them comes with the next call.
    size = static_cast<uint32_t>(buffer.size());
    EXPECT_EQ(player.ReadChunk(buffer.data(), &size, false), KST_END_OF_FILE);
    EXPECT_GT(size, 68u);
}

TEST(ClassBounds, RunsOfBillionsAreSearchedWithoutOverflow) {
    const Bytes speech = read_sample("amrnb_hinted.3gp");
    for (const uint32_t first : {0u, 1u, 2u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        Bytes file = speech;
        for (const auto& [offset, value] :
             {std::pair<int, uint32_t>{12, 0xFFFFFFFF}, {20, first}, {24, 0xFFFFFFFF}}) {
            file = with(file, "stsc", offset, be32(value), 1);
        }
        CountingHost host(file);
        C3gpInterface player;
        ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
        _TAG_KST_SEEK_PARAMS params{0, 3000, 0, 0, KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC};
        player.SeekTo(&params);
        uint32_t size = 68;
        Bytes headers(size);
        EXPECT_EQ(player.ReadChunk(headers.data(), &size, false), KST_SUCCESS);
    }
}

// An entry without its box is an error that is logged; a hostile file has thousands.
TEST(ClassBounds, HoldForRemarks) {
    TrackSpec about{.id = 1, .entries = 1000};
    for (uint32_t i = 0; i < about.entries; ++i)
        about.entry = join({about.entry, box("samr", {zeros(28)})});
    const Bytes file = join({ftyp(), movie({track(about)})});
    CountingHost host(file);
    C3gpInterface player;
    for (int opening = 0; opening < 2; ++opening) {
        const SyslogCapture log(3);
        host.callbacks()->Seek(host.callbacks()->Context, 0);
        player.Open(host.callbacks(), "ar");
        ASSERT_EQ(log.lines().size(), 101u);
        EXPECT_EQ(log.messages().back(), "ERR: further remarks left out");
    }
}

// --- damaged files ---

TEST(DamagedFiles, CutFilesKeepWhatIsThere) {
    for (const char* name : {"amrnb_plain.3gp", "amrnb_plain_mdat_first.3gp", "amrwb_hinted.3gp"}) {
        const Bytes file = read_sample(name);
        const Bytes whole = play(file, "ar").stream;
        for (size_t length = 0; length < file.size(); length += length < 2000 ? 1 : 101) {
            const Played played =
                play(Bytes(file.begin(), file.begin() + static_cast<long>(length)), "ar");
            ASSERT_THAT(played.status, testing::AnyOf(KST_FAILURE, KST_NOT_YET, KST_END_OF_FILE));
            if (!played.opened) {
                ASSERT_EQ(played.status, KST_FAILURE);
            }
            ASSERT_LE(played.stream.size(), whole.size());
            ASSERT_TRUE(std::equal(played.stream.begin(), played.stream.end(), whole.begin()))
                << name << " cut at " << length;
        }
    }
}

// --- the packer ---

using namespace kestrel;

template <typename Record>
Bytes bytes_of(const Record& record) {
    const auto* raw = reinterpret_cast<const uint8_t*>(&record);
    return {raw, raw + sizeof record};
}

// A stream that goes on with `frames` frames, whose times are irregular, after its header records.
Bytes with_frames(Bytes stream, size_t header, size_t frames,
                  const std::function<Bytes(uint32_t time)>& frame) {
    stream.resize(header);
    for (uint32_t i = 0; i < frames; ++i) {
        const Bytes one = frame(3000 * i + i % 3);
        stream.insert(stream.end(), one.begin(), one.end());
    }
    return stream;
}

Bytes speech_stream(size_t frames, const Bytes& payloads) {
    constexpr uint32_t kZero = 4;
    return with_frames(play(read_sample("amrnb_hinted.3gp"), "ar", {.api = ::Api::kClass}).stream,
                       68, frames, [&](uint32_t time) {
                           const auto length = static_cast<uint32_t>(sizeof(AUD_AudFrame_Native) +
                                                                     kZero + payloads.size());
                           return join({bytes_of(AUD_AudFrame_Native{length, 10, time, time, 0, 0}),
                                        Bytes(kZero), payloads});
                       });
}

Bytes video_stream(size_t frames, uint32_t packets, const Bytes& payload, bool marker,
                   const char* like = "h263_hinted.3gp", size_t headers = 92) {
    return with_frames(play(read_sample(like), "vr").stream, headers, frames, [&](uint32_t time) {
        const auto size = static_cast<uint32_t>(sizeof(TEL_Packet_Header) + payload.size());
        const uint32_t head = sizeof(VID_Frame_Record) + sizeof(VID_Frame_Words);
        Bytes frame = join(
            {bytes_of(VID_Frame_Record{head + packets * size, packets, 0}), bytes_of(kFrameWords)});
        for (uint32_t i = 0; i < packets; ++i) {
            const uint32_t word = 2u << 30 | (marker ? 1u << 23 : 0) | (i & 0xFFFF);
            const Bytes header = bytes_of(TEL_Packet_Header{size, time, word, time, 0});
            frame.insert(frame.end(), header.begin(), header.end());
            frame.insert(frame.end(), payload.begin(), payload.end());
        }
        return frame;
    });
}

// A picture of H.264 whose configuration is in the packet.
Bytes h264_stream(const Bytes& payload) {
    using Config = VID_Header_H264CodecConfig;
    constexpr size_t kHeaders = 452, kConfig = kHeaders - sizeof(VID_FileInfo) - sizeof(Config);
    Bytes stream = video_stream(1, 1, payload, true, "h264_hinted.3gp", kHeaders);
    stream[kConfig + offsetof(Config, length)] = 0;
    return stream;
}

// Records are held in proportion to the bytes of a stream, however short its frames and packets.
TEST(PackerMemory, IsBoundedByTheStream) {
    constexpr size_t kMany = 1 << 18;
    Bytes empty_frames = Bytes(kMany, 0xFC), alternating(kMany / 8, 0xC4);
    empty_frames.front() = 0xF0;
    empty_frames.back() = 0x7C;
    for (size_t i = 0; i < alternating.size(); i += 2)
        alternating[i] = 0xFC;
    alternating.back() = 0x44;
    alternating = join({{0xF0}, alternating, Bytes(kMany / 16 * 5)});
    constexpr std::array<int, 2> refused = {KST_PACK_DONE, KST_PACK_REFUSED};
    // Without and with hints: where they are refused, no hint sample can describe the packets.
    const struct {
        const char* name;
        Bytes stream;
        std::array<int, 2> statuses = {KST_PACK_DONE, KST_PACK_DONE};
    } cases[] = {
        {"empty speech frames of a packet", speech_stream(2, empty_frames), refused},
        {"packets of an empty speech frame", speech_stream(1, many({0xF0, 0x7C}, kMany)), refused},
        {"speech frames of two sizes", speech_stream(4, alternating), refused},
        {"speech frames by themselves", speech_stream(50000, {0xF0, 0x7C})},
        {"pictures of a byte",
         video_stream(30000, 1, {0, 0, 0, 0, 1}, true),
         {KST_PACK_CUT, KST_PACK_CUT}},
        {"packets of a byte",
         video_stream(1, 100000, {0, 0, 0, 0, 1}, false),
         {KST_PACK_CUT, KST_PACK_REFUSED}},
        {"parameter sets of a byte",
         h264_stream(join({{0x78}, many({0, 1, 0x67}, 400000)})),
         {KST_PACK_REFUSED, KST_PACK_REFUSED}},
        {"malformed packets", video_stream(10, 10000, {1}, false), {KST_PACK_CUT, KST_PACK_CUT}},
    };
    for (const auto& about : cases) {
        for (const uint32_t flags : {0u, uint32_t{KST_PACK_HINT}}) {
            const Bytes nothing;
            CountingHost host(nothing);
            const AllocationWatch watch;
            const kst_pack_options options = {sizeof options, flags};
            kst_packer* packer = kst_packer_open(&options);
            for (std::span<const uint8_t> rest(about.stream); !rest.empty();) {
                const auto piece = rest.first(std::min<size_t>(rest.size(), 65536));
                kst_packer_feed(packer, 0, piece.data(), piece.size());
                rest = rest.subspan(piece.size());
            }
            const int status = kst_packer_write(packer, host.callbacks(), nullptr);
            kst_packer_close(packer);
            std::cout << about.name << ", flags " << flags << ": " << about.stream.size()
                      << " bytes fed, " << watch.peak() << " held, status " << status << '\n';
            EXPECT_LE(watch.peak(), (4 << 20) + 8 * about.stream.size());
            EXPECT_EQ(status, about.statuses[flags]);
        }
    }
}

// --- the importer ---

// The media is not read, and the tables once.
TEST(ImporterBounds, HoldForWhatIsRead) {
    for (const std::string& name : wild_names()) {
        const Bytes file = read_sample(name);
        CountingHost host(file);
        kestrel::importer::Movie movie;
        ASSERT_TRUE(import_movie(*host.callbacks(), {}, movie).ok);
        uint64_t in_samples = 0;
        for (const kestrel::importer::Track& track : movie.tracks) {
            for (const kestrel::importer::Sample& sample : track.samples)
                in_samples += sample.size;
        }
        EXPECT_LE(host.bytes, 4 * (file.size() - in_samples)) << name;
    }
}

// 24 bytes a sample, in every form.
TEST(ImporterBounds, HoldForMemory) {
    for (MovieForms forms : single_forms()) {
        forms.length = 500;
        const MadeMovie made = make_movie(forms);
        size_t samples = 0;
        for (const ClipTrack& track : made.tracks)
            samples += track.samples.size();
        CountingHost host(made.file);
        kestrel::importer::Movie movie;
        const AllocationWatch watch;
        ASSERT_TRUE(import_movie(*host.callbacks(), {}, movie).ok) << forms.name();
        EXPECT_LE(watch.peak(), 2 * 24 * samples + 65536) << forms.name();
    }
}

// --- the hinter ---

// Speech of one frame, with more brands, sample tables, boxes of the track, and tracks.
Bytes speech_file(const Bytes& brands, const Bytes& tables, const Bytes& extra,
                  const Bytes& tracks) {
    const Bytes head = join({box("ftyp", {text("3gp6"), words({0}), brands}),
                             box("mdat", {{0x3C}, Bytes(30), {0x7C}})});
    const auto media = static_cast<uint32_t>(head.size() - 32);
    return join({head, movie({track({.id = 1,
                                     .entry = samr_entry(),
                                     .tables = join({one_chunk_tables({32}, 160, media), tables}),
                                     .extra = extra}),
                              tracks})});
}

Bytes numbered(uint32_t count, const std::function<Bytes(uint32_t number)>& make) {
    Bytes all;
    for (uint32_t i = 0; i < count; ++i) {
        const Bytes one = make(i);
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

Bytes brand(uint32_t number) {
    Bytes characters(4);
    for (uint8_t& character : characters) {
        character = static_cast<uint8_t>('!' + number % 94);
        number /= 94;
    }
    return characters;
}

Bytes reference(uint32_t number) {
    return box("cdsc", {be32(number % 2 == 0 ? 1 : number)});
}

Bytes group(uint32_t number) {
    return box("sbgp", {words({0, number, 0})});
}

Bytes text_track_of_entries(uint32_t count) {
    return track({.id = 2,
                  .handler = "text",
                  .entry = numbered(count,
                                    [](uint32_t i) {
                                        return box("mett", {zeros(6), be16(1), be32(i)});
                                    }),
                  .entries = count,
                  .tables = one_chunk_tables({}, 1, 0)});
}

// Its sample is the last byte of the media: a frame without speech.
Bytes speech_track(uint32_t number) {
    return track({.id = number + 2,
                  .entry = samr_entry(),
                  .tables = one_chunk_tables({1}, 160, 16 + 8 + 31)});
}

// 32 times the boxes but for media. None of the lists takes time with the square of its length:
// that would show as minutes here.
TEST(HinterBounds, HoldForMemory) {
    const struct {
        const char* name;
        Bytes file;
        uint32_t media = 0;  // bytes
    } cases[] = {
        {"brands", speech_file(numbered(1 << 19, brand), {}, {}, {})},
        {"references", speech_file({}, {}, box("tref", {numbered(1 << 17, reference)}), {})},
        {"groups", speech_file({}, numbered(1 << 15, group), {}, {})},
        {"edits", speech_file({}, {},
                              box("edts", {box("elst", {words({0, 1 << 17}),
                                                        many(words({1, 0, 1 << 16}), 1 << 17)})}),
                              {})},
        {"sample entries", speech_file({}, {}, {}, text_track_of_entries(1 << 16))},
        {"hinted tracks", speech_file({}, {}, {}, numbered(4000, speech_track))},
        {"fragments", join({speech_file({}, {}, {}, {}), many(box("moof", {}), 1 << 17)})},
        {"media",
         join({speech_file({}, {}, {}, {}), box("moof", {}), many(box("mdat", {}), 1 << 19)}),
         8 << 19},
    };
    for (const auto& about : cases) {
        CountingHost from(about.file);
        const Bytes nothing;
        CountingHost to(nothing);
        kst_hint_options options = {};
        options.struct_size = sizeof options;
        options.flags = KST_HINT_SALVAGE;  // fragments lack samples
        const AllocationWatch watch;
        const int result = kst_hint(from.callbacks(), to.callbacks(), &options, nullptr);
        std::cout << about.name << ": " << about.file.size() << " bytes, " << watch.peak()
                  << " held, result " << result << '\n';
        EXPECT_LE(watch.peak(), (4u << 20) + 32 * (about.file.size() - about.media)) << about.name;
        EXPECT_EQ(result, KST_HINT_DONE) << about.name;
    }
}

}  // namespace
