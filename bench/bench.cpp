// SPDX-License-Identifier: Apache-2.0
// What the library's work costs on long recordings, beside a plain copy of the same bytes in the
// same pieces. bench/run turns the figures into ratios.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "bench/long_files.h"
#include "kestrel/c3gpinterface.h"
#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"
#include "kestrel/kestrel.h"
#include "kestrel/native.h"

namespace {

using bench::long_file;
using bench::Recording;
using Bytes = std::vector<uint8_t>;
using State = benchmark::State;

constexpr int kMaxPacketBytes = 1400;

[[noreturn]] void give_up(const char* what) {
    std::fprintf(stderr, "bench: %s\n", what);
    std::exit(1);
}

// Recordings that are gone through one after the other: a long one, or as many short ones as are
// together as long, so that both meet the same caches.
using Files = std::vector<std::span<const uint8_t>>;

struct CloseHost {
    void operator()(kst_host* host) const { kst_host_close(host); }
};
using Host = std::unique_ptr<kst_host, CloseHost>;

Host memory_host(std::span<const uint8_t> file) {
    Host host(kst_host_from_memory(file.data(), file.size()));
    if (host == nullptr) give_up("no memory");
    return host;
}

// A file open in the ISO reader, with the packet cursor of its first hint track.
struct Opened {
    explicit Opened(std::span<const uint8_t> bytes)
        : host(memory_host(bytes)), callbacks(kst_host_callbacks(host.get())) {
        file = isoFFopen(callbacks, "r", nullptr);
        if (file == nullptr) give_up("no memory");
        media = file->first_track;
        hint = isoFFrtpHinter(media, kMaxPacketBytes);
        if (hint == nullptr) give_up("no hint track");
        file->indexed_read = 1;
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() { isoFFclose(file); }

    Host host;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks;
    iso_file* file;
    iso_track* media;
    iso_track* hint;
};

// Bytes in pieces, and a copy of them piece by piece: what the machine can do at best.
struct Pieces {
    Bytes bytes;
    std::vector<uint32_t> lengths;

    void add(const void* piece, size_t length) {
        const auto* from = static_cast<const uint8_t*>(piece);
        bytes.insert(bytes.end(), from, from + length);
        lengths.push_back(static_cast<uint32_t>(length));
    }
};

void copy_pieces(State& state, const Pieces& pieces, size_t room) {
    Bytes to(room);
    for (auto _ : state) {
        const uint8_t* from = pieces.bytes.data();
        for (const uint32_t length : pieces.lengths) {
            std::memcpy(to.data(), from, length);
            benchmark::DoNotOptimize(to.data());
            benchmark::ClobberMemory();
            from += length;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(pieces.bytes.size()));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(pieces.lengths.size()));
}

// --- RTP packets ---

void packets(State& state, const Files& files) {
    std::vector<std::unique_ptr<Opened>> all;
    for (const auto& bytes : files)
        all.push_back(std::make_unique<Opened>(bytes));
    uint8_t packet[kMaxPacketBytes];
    int64_t count = 0;
    for (auto _ : state) {
        for (const auto& opened : all) {
            isoFFsetPosition(opened->hint, 0);
            for (int length; (length = isoFFrtpPacket(opened->hint, packet)) != 0; ++count) {
                if (length < 0) give_up("a packet that cannot be read");
                benchmark::DoNotOptimize(packet);
                benchmark::ClobberMemory();
            }
        }
    }
    state.SetItemsProcessed(count);
}

void packets_copy(State& state, const Files& files) {
    Pieces pieces;
    uint8_t packet[kMaxPacketBytes];
    for (const auto& bytes : files) {
        Opened opened(bytes);
        for (int length; (length = isoFFrtpPacket(opened.hint, packet)) > 0;)
            pieces.add(packet, static_cast<size_t>(length));
    }
    copy_pieces(state, pieces, kMaxPacketBytes);
}

// --- opening ---

void open_function(State& state, const Files& files, const char* mode) {
    for (auto _ : state) {
        for (const auto& bytes : files) {
            const Host host = memory_host(bytes);
            mm_Interface* handle = nullptr;
            if (kst_Open(&handle, kst_host_callbacks(host.get()), mode) != KST_SUCCESS)
                give_up("a file that does not open");
            kst_Close(&handle);
        }
    }
}

void open_class(State& state, const Files& files, const char* mode) {
    C3gpInterface player;
    for (auto _ : state) {
        for (const auto& bytes : files) {
            const Host host = memory_host(bytes);
            if (player.Open(kst_host_callbacks(host.get()), mode) != KST_SUCCESS)
                give_up("a file that does not open");
            player.Close();
        }
    }
}

// --- whole conversions, the opening left out ---

constexpr unsigned kClassChunk = 4096;

// Calls `take` with each chunk that the API delivers.
template <typename Take>
void convert_function(const Host& host, const char* mode, State* state, Take take) {
    if (state != nullptr) state->PauseTiming();
    kst_host_rewind(host.get());
    mm_Interface* handle = nullptr;
    if (kst_Open(&handle, kst_host_callbacks(host.get()), mode) != KST_SUCCESS)
        give_up("a file that does not open");
    static Bytes buffer(KST_LARGEST_CHUNK);
    if (state != nullptr) state->ResumeTiming();
    int32_t status = KST_SUCCESS;
    while (status == KST_SUCCESS) {
        auto size = static_cast<uint32_t>(buffer.size());
        status = kst_ReadChunk(handle, buffer.data(), &size, false);
        take(buffer.data(), size);
    }
    if (status != KST_END_OF_FILE) give_up("a stream that ends early");
    kst_Close(&handle);
}

template <typename Take>
void convert_class(const Host& host, const char* mode, State* state, Take take) {
    if (state != nullptr) state->PauseTiming();
    kst_host_rewind(host.get());
    C3gpInterface player;
    if (player.Open(kst_host_callbacks(host.get()), mode) != KST_SUCCESS)
        give_up("a file that does not open");
    static Bytes buffer(kClassChunk);
    if (state != nullptr) state->ResumeTiming();
    unsigned int status = KST_SUCCESS;
    while (status == KST_SUCCESS) {
        unsigned int size = kClassChunk;
        status = player.ReadChunk(buffer.data(), &size, false);
        take(buffer.data(), size);
    }
    if (status != KST_END_OF_FILE) give_up("a stream that ends early");
}

template <typename Convert>
void conversion(State& state, const Files& files, Convert convert) {
    for (auto _ : state) {
        for (const auto& bytes : files) {
            convert(memory_host(bytes), &state, [](const uint8_t* chunk, size_t) {
                benchmark::DoNotOptimize(chunk);
                benchmark::ClobberMemory();
            });
        }
    }
}

template <typename Convert>
void conversion_copy(State& state, const Files& files, Convert convert) {
    Pieces pieces;
    for (const auto& bytes : files) {
        convert(memory_host(bytes), static_cast<State*>(nullptr),
                [&](const uint8_t* chunk, size_t size) { pieces.add(chunk, size); });
    }
    copy_pieces(state, pieces, KST_LARGEST_CHUNK);
}

// --- jumps ---

void random_access(State& state, const Files& files) {
    std::vector<std::unique_ptr<Opened>> all;
    for (const auto& bytes : files)
        all.push_back(std::make_unique<Opened>(bytes));
    std::minstd_rand random(1);
    uint8_t byte[1];
    for (auto _ : state) {
        iso_track* track = all[random() % all.size()]->media;
        const auto sample = static_cast<int>(random() % static_cast<unsigned>(track->sample_count));
        if (isoFFreadAt(track, sample, 0, byte, 1, nullptr, nullptr) != 1)
            give_up("a sample that cannot be read");
    }
}

void seeks(State& state, const Files& files, const char* mode, unsigned minutes) {
    std::vector<Host> hosts;
    std::vector<std::unique_ptr<C3gpInterface>> players;
    for (const auto& bytes : files) {
        hosts.push_back(memory_host(bytes));
        players.push_back(std::make_unique<C3gpInterface>());
        if (players.back()->Open(kst_host_callbacks(hosts.back().get()), mode) != KST_SUCCESS)
            give_up("a file that does not open");
    }
    std::minstd_rand random(1);
    for (auto _ : state) {
        _TAG_KST_SEEK_PARAMS params{};
        params.nTime = static_cast<uint32_t>(random()) % (minutes * 60000);
        params.fFlags = KST_SEEK_ABSOLUTE | KST_SEEK_PREVIOUS_SYNC;
        if (players[random() % players.size()]->SeekTo(&params) != KST_SUCCESS)
            give_up("a seek that fails");
    }
}

// --- packetisers and the H.263 walker alone ---

using Samples = std::vector<Bytes>;

void packetiser(State& state, const Samples& samples, int codec, int mode) {
    iso_track track{};
    track.codec = codec;
    track.timescale = 90000;
    track.nal_length_size = 4;
    Bytes out(1 << 20);
    int64_t bytes = 0;
    for (auto _ : state) {
        tel_native packetised{};
        tel_native_init(&packetised, 96, kMaxPacketBytes, mode, &track, 0);
        for (const Bytes& sample : samples) {
            const int written = tel_native_packet(
                out.data(), static_cast<int>(out.size()), const_cast<uint8_t*>(sample.data()),
                static_cast<int>(sample.size()), 0.04, &packetised);
            if (written < 0) give_up("a sample that cannot be cut");
            benchmark::ClobberMemory();
            bytes += static_cast<int64_t>(sample.size());
        }
    }
    state.SetBytesProcessed(bytes);
}

void samples_copy(State& state, const Samples& samples) {
    Pieces pieces;
    for (const Bytes& sample : samples)
        pieces.add(sample.data(), sample.size());
    copy_pieces(state, pieces, 1 << 20);
}

// --- the list ---

template <typename Function>
void add(const std::string& name, Function function) {
    benchmark::RegisterBenchmark(name.c_str(), function)->Unit(benchmark::kNanosecond);
}

struct Long {
    const char* name;
    Recording recording;
    const char* mode;
    unsigned minutes;  // and, that often, a tenth of them
};

constexpr unsigned kShorter = 10;

constexpr Long kLong[] = {{"speech", Recording::kSpeech, "ar", 60},
                          {"qcif", Recording::kQcif, "vr", 20},
                          {"cif", Recording::kCif, "vr", 20}};

void add_long(const Long& about, unsigned minutes, unsigned copies) {
    const auto bytes = [=] { return long_file(about.recording, minutes); };
    const auto files = [=] {
        static std::map<std::string, std::vector<Bytes>> kept;
        std::vector<Bytes>& of = kept[about.name + std::to_string(minutes)];
        while (of.size() + 1 < copies)
            of.emplace_back(bytes().begin(), bytes().end());
        Files all(of.begin(), of.end());
        all.push_back(bytes());
        return all;
    };
    const char* mode = about.mode;
    const std::string suffix = std::string("/") + about.name + "/" + std::to_string(minutes);
    add("open_function" + suffix, [=](State& s) { open_function(s, files(), mode); });
    add("open_class" + suffix, [=](State& s) { open_class(s, files(), mode); });
    add("packets" + suffix, [=](State& s) { packets(s, files()); });
    add("packets_copy" + suffix, [=](State& s) { packets_copy(s, files()); });
    const auto function_api = [=](const Host& host, State* state, auto take) {
        convert_function(host, mode, state, take);
    };
    const auto class_api = [=](const Host& host, State* state, auto take) {
        convert_class(host, mode, state, take);
    };
    add("convert_function" + suffix, [=](State& s) { conversion(s, files(), function_api); });
    add("convert_function_copy" + suffix,
        [=](State& s) { conversion_copy(s, files(), function_api); });
    add("convert_class" + suffix, [=](State& s) { conversion(s, files(), class_api); });
    add("convert_class_copy" + suffix, [=](State& s) { conversion_copy(s, files(), class_api); });
    add("random_access" + suffix, [=](State& s) { random_access(s, files()); });
    add("seek" + suffix, [=](State& s) { seeks(s, files(), mode, minutes); });
}

void add_packetiser(const char* name, const char* file, int codec, int mode) {
    const auto samples = std::make_shared<Samples>(bench::samples_of(file));
    add(std::string("packetise/") + name, [=](State& s) { packetiser(s, *samples, codec, mode); });
    add(std::string("packetise_copy/") + name, [=](State& s) { samples_copy(s, *samples); });
}

}  // namespace

int main(int argc, char** argv) {
    // bench --write|--write-media-first RECORDING MINUTES FILE writes a recording out.
    const std::string option = argc == 5 ? argv[1] : "";
    if (option == "--write" || option == "--write-media-first") {
        const auto place = option == "--write" ? bench::MovieBox::kFirst : bench::MovieBox::kLast;
        for (const Long& about : kLong) {
            if (std::string(argv[2]) != about.name) continue;
            const auto bytes =
                bench::make_file(about.recording, static_cast<unsigned>(atoi(argv[3])), place);
            std::FILE* out = std::fopen(argv[4], "wb");
            if (out == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size() ||
                std::fclose(out) != 0) {
                give_up("the file cannot be written");
            }
            return 0;
        }
        give_up("there is no such recording");
    }
    for (const Long& about : kLong) {
        add_long(about, about.minutes / kShorter, kShorter);
        add_long(about, about.minutes, 1);
    }
    add_packetiser("amr", "amrnb_plain.3gp", ISO_CODEC_SAMR, NATIVE_MODE_PLAIN);
    add_packetiser("h263_rfc4629", "h263_cif_hinted.3gp", ISO_CODEC_S263, NATIVE_MODE_RFC2429);
    add_packetiser("h263_rfc2190", "h263_cif_hinted.3gp", ISO_CODEC_S263, NATIVE_MODE_RFC2190);
    // The macroblock mode is the H.263 walker at work.
    add_packetiser("h263_macroblocks", "h263_cif_hinted.3gp", ISO_CODEC_S263,
                   NATIVE_MODE_RFC2190_MB);
    add_packetiser("mpeg4", "mpeg4_plain.3gp", ISO_CODEC_MP4V, NATIVE_MODE_PLAIN);
    add_packetiser("h264", "h264_plain.3gp", ISO_CODEC_AVC1, NATIVE_MODE_PLAIN);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
