#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iostream>

#include "kestrel/log.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/hint_file.h"
#include "tests/support/playing.h"

// What hostile files cost: memory at once, bytes read and calls of the host, in proportion to what
// the file has and what it delivers.

namespace {

// Serves a file and counts; needs no memory.
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

  private:
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
        *count = self.copy(data, self.at_, *count);
        self.at_ += *count;
        return 0;
    }
    static uint32_t write(void* c, const void*, uint32_t, int32_t) {
        of(c);
        return 1;
    }
    static uint32_t size(void* c, uint32_t* to) {
        *to = static_cast<uint32_t>(of(c).file_.size());
        return 0;
    }
    static uint32_t eof(void* c) { return of(c).at_ >= of(c).file_.size() ? 1 : 0; }
    static uint32_t index(void* c, void* data, uint32_t from, uint32_t count, uint32_t* got) {
        *got = of(c).copy(data, from, count);
        return 0;
    }
    static uint32_t advance(void* c, uint32_t) {
        of(c);
        return 0;
    }
    static uint32_t check(void*, uint32_t* result, uint32_t status) {
        *result = status;
        return 0;
    }

    const Bytes& file_;
    uint32_t at_ = 0;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

struct Cost {
    size_t memory = 0;
    uint64_t bytes = 0;
    uint64_t calls = 0;
    uint64_t delivered = 0;
};

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

Cost play_counted(const Bytes& file, const char* mode, Road road, bool flag) {
    Bytes buffer(KST_LARGEST_CHUNK);
    CountingHost host(file);
    Cost cost;
    const AllocationWatch watch;
    if (road == Road::kFunction) {
        mm_Interface* handle = nullptr;
        kst_Open(&handle, host.callbacks(), mode);
        if (handle != nullptr) {
            cost.delivered =
                deliver([&](auto* to, auto* size) { return kst_ReadChunk(handle, to, size, flag); },
                        buffer);
        }
        kst_Close(&handle);
    } else {
        C3gpInterface player;
        if (player.Open(host.callbacks(), mode) == KST_SUCCESS) {
            cost.delivered = deliver(
                [&](auto* to, auto* size) { return player.ReadChunk(to, size, flag); }, buffer);
        }
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

Bytes nested(const char* type, uint32_t depth) {
    Bytes out;
    for (uint32_t left = depth; left > 0; --left) {
        const Bytes head = join({be32(8 * left), text(type)});
        out.insert(out.end(), head.begin(), head.end());
    }
    return out;
}

Bytes in_movie(const Bytes& boxes) {
    return join({ftyp(), box("moov", {boxes})});
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
     [](Kind kind) {
         return hinted(kind, kEmptyHint, 10,
                       [](uint32_t at) { return repeated_tables(100000, 4, at); });
     }},
    {"damaged hint samples by the chunk",
     [](Kind kind) {
         const Bytes hint = to_and_fro(200, 50000, 4);
         const size_t cut = hint.size() - 2;
         return hinted(kind, hint, 60000,
                       [=](uint32_t at) { return repeated_tables(500, cut, at); });
     },
     500 * 201 * 16},
    {"hint samples that make too long a frame",
     [](Kind kind) {
         const Bytes hint = to_and_fro(2000, 50000, 4);
         return hinted(kind, hint, 60000,
                       [&](uint32_t at) { return repeated_tables(3, hint.size(), at); });
     },
     3 * 2001 * 16},
    {"constructors to and fro over large samples",
     [](Kind kind) { return hinted(kind, to_and_fro(20000, 1, 4), 100000).build(); }},
    {"a packet that repeats one sample",
     [](Kind kind) {
         const Bytes hint = to_and_fro(100, 10, 1);
         return hinted(kind, hint, 60,
                       [&](uint32_t at) { return repeated_tables(1000, hint.size(), at); });
     },
     1000 * 101 * 16},
    {"nested boxes",
     [](Kind) {
         return join({ftyp(), nested("moov", 50000)});
     }},
    {"nested track boxes", [](Kind) { return in_movie(nested("trak", 50000)); }},
    {"many boxes",
     [](Kind) {
         return join({ftyp(), many(box("free", {}), 50000)});
     }},
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
         about.entry = many(about.entry, 2000);
         return join({ftyp(), movie({track(about)})});
     }},
};

void PrintTo(const Hostile& hostile, std::ostream* out) {
    *out << hostile.name;
}

// --- what is promised (SECURITY.md) ---

uint64_t most_memory(Road road, uint64_t size) {
    return road == Road::kFunction ? (3u << 20) + 64 * size : (32u << 20) + 32 * size;
}

uint64_t most_bytes(uint64_t size, uint64_t delivered, uint64_t listed) {
    return (128u << 10) + 20 * (size + delivered + listed);
}

uint64_t most_calls(uint64_t size, uint64_t delivered, uint64_t listed) {
    return 1000 + 4 * (size + delivered + listed);
}

class Bounds : public testing::TestWithParam<Hostile> {
  protected:
    Bounds() { sx_Debug = 0; }
    ~Bounds() override { sx_Debug = 3; }
};

TEST_P(Bounds, HoldForHostileFiles) {
    const Hostile& hostile = GetParam();
    for (const Kind kind : {Kind::kAudio, Kind::kVideo}) {
        const Bytes file = hostile.file(kind);
        for (const Road road : {Road::kFunction, Road::kClass}) {
            for (const bool flag : {false, true}) {
                testing::internal::CaptureStderr();
                const Cost cost =
                    play_counted(file, kind == Kind::kAudio ? "ar" : "vr", road, flag);
                testing::internal::GetCapturedStderr();
                std::cout << file.size() << " bytes, " << (kind == Kind::kAudio ? "audio" : "video")
                          << (road == Road::kFunction ? ", function road" : ", class road")
                          << (flag ? ", flag: " : ": ") << cost.memory << " bytes held, "
                          << cost.bytes << " read in " << cost.calls << " calls, " << cost.delivered
                          << " delivered\n";
                EXPECT_LE(cost.memory, most_memory(road, file.size()));
                EXPECT_LE(cost.bytes, most_bytes(file.size(), cost.delivered, hostile.listed));
                EXPECT_LE(cost.calls, most_calls(file.size(), cost.delivered, hostile.listed));
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

}  // namespace
