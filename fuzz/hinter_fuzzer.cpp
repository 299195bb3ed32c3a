// SPDX-License-Identifier: Apache-2.0
// Any bytes as a file, hinted: what is written has every sample of the source at its time, the
// library reads it to its end, and a source that is refused leaves nothing.
#include <algorithm>
#include <memory>
#include <string>

#include "companion/importer/movie.h"
#include "fuzz/support/support.h"
#include "interface/src/isoff/record/private.h"
#include "kestrel/hinter.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"

namespace {

using namespace fuzz;
using namespace kestrel::importer;

constexpr uint32_t kHint = kestrel::fourcc("hint");

struct CloseHost {
    void operator()(kst_host* host) const { kst_host_close(host); }
};
using MemoryHost = std::unique_ptr<kst_host, CloseHost>;

kst_hint_options options_of(Choices choices) {
    kst_hint_options options = {};
    options.struct_size = sizeof options;
    options.flags = choices.u8() & 15;
    const uint32_t packet = choices.u16();
    // Mostly short ones, which make many packets.
    options.max_packet = packet < 64 ? 0 : (choices.u8() & 3) != 0 ? 64 + packet % 512 : packet;
    return options;
}

Movie import(View file, const Options& how) {
    Host host(file);
    Movie movie;
    check(import_movie(*host.callbacks(), how, movie).ok);
    return movie;
}

const Track* find(const Movie& movie, uint32_t id) {
    const auto at = std::find_if(movie.tracks.begin(), movie.tracks.end(),
                                 [&](const Track& track) { return track.id == id; });
    return at == movie.tracks.end() ? nullptr : &*at;
}

void check_track(View source, const Track& was, View written, const Track& now) {
    check(now.samples.size() == was.samples.size());
    const auto is_same_time = [&](int64_t before, int64_t after) {
        return before * now.timescale == after * was.timescale;
    };
    for (size_t i = 0; i < was.samples.size(); ++i) {
        const Sample& before = was.samples[i];
        const Sample& after = now.samples[i];
        check(after.size == before.size && is_same_time(before.duration, after.duration));
        check(is_same_time(before.composition_offset, after.composition_offset));
        check(after.is_sync == before.is_sync);
        const View bytes = source.subspan(static_cast<size_t>(before.offset), before.size);
        const View copy = written.subspan(static_cast<size_t>(after.offset), after.size);
        check(std::equal(bytes.begin(), bytes.end(), copy.begin()));
    }
}

void check_samples(View source, View written, const kst_hint_options& options,
                   const kst_hint_report& report) {
    const bool salvage = (options.flags & KST_HINT_SALVAGE) != 0;
    const Movie before = import(source, {.salvage = salvage, .skip_hint_tracks = true});
    const Movie after = import(written, {});
    uint32_t tracks = 0;
    for (const Track& was : before.tracks) {
        const Track* now = was.handler == kHint ? nullptr : find(after, was.id);
        // A new hint track may have the ID of one that was left out for its sample entry.
        if (now == nullptr || now->handler == kHint) continue;
        check_track(source, was, written, *now);
        ++tracks;
    }
    check(tracks == report.tracks && after.tracks.size() == tracks + report.hint_tracks);
}

// The library has no complaint, and all packets come out.
void check_packets(View written, const kst_hint_options& options, const kst_hint_report& report) {
    const MemoryHost host(kst_host_from_memory(written.data(), written.size()));
    auto* callbacks = kst_host_callbacks(host.get());
    iso_file* file = isoFFopen(callbacks, "r", nullptr);
    check(file != nullptr && file->own->lost_tracks == 0);
    const uint32_t limit =
        options.max_packet == 0 ? uint32_t{KST_HINT_DEFAULT_PACKET} : options.max_packet;
    Bytes packet(limit);
    uint64_t packets = 0;
    uint64_t bytes = 0;
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        iso_track* hint = isoFFrtpHinter(track, static_cast<int>(limit));
        if (hint == nullptr) continue;
        int length = 0;
        while ((length = isoFFrtpPacket(hint, packet.data())) > 0) {
            ++packets;
            bytes += static_cast<uint32_t>(length);
        }
        check(length == 0);
    }
    isoFFclose(file);
    check(packets == report.packets && bytes == report.packet_bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Input input({data, size});
    const kst_hint_options options = options_of(input.choices);
    Host source(input.file);
    const MemoryHost destination(kst_host_for_writing_memory());
    kst_hint_report report = {};
    report.struct_size = sizeof report;
    const int result =
        kst_hint(source.callbacks(), kst_host_callbacks(destination.get()), &options, &report);
    check((result == KST_HINT_DONE) == (report.error[0] == '\0'));
    size_t length = 0;
    const auto* bytes = static_cast<const uint8_t*>(kst_host_written(destination.get(), &length));
    check(length == report.bytes);
    check((result == KST_HINT_DONE) == (length > 0));
    if (result != KST_HINT_DONE) return 0;
    check_samples(input.file, {bytes, length}, options, report);
    check_packets({bytes, length}, options, report);
    return 0;
}
