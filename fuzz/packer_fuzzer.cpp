// SPDX-License-Identifier: Apache-2.0
// Any bytes as native streams that become a file: what is written can be read, with as many samples
// as are reported, is no longer than the streams account for, and does not depend on the pieces
// that they come in.
#include "kestrel/packer.h"

#include <algorithm>
#include <string>

#include "companion/importer/movie.h"
#include "fuzz/support/support.h"
#include "kestrel/hosts.h"

namespace {

using namespace fuzz;

struct Packed {
    int status;
    kst_pack_report report;
    Bytes file;
};

// Feeds the stream as one track or as two.
Packed pack(View stream, uint32_t tracks, uint32_t flags, uint32_t most) {
    const kst_pack_options options = {sizeof options, flags};
    kst_packer* packer = kst_packer_open(&options);
    check(packer != nullptr);
    Numbers numbers(most);
    for (View rest = stream; !rest.empty();) {
        const size_t piece = std::min<size_t>(rest.size(), 1 + numbers.below(most));
        for (uint32_t track = 0; track < tracks; ++track) {
            const int fed = kst_packer_feed(packer, track, rest.data(), piece);
            check(fed == KST_PACK_DONE || fed == KST_PACK_CUT);
        }
        rest = rest.subspan(piece);
    }
    kst_host* host = kst_host_for_writing_memory();
    Packed packed{};
    packed.report.struct_size = sizeof packed.report;
    packed.status = kst_packer_write(packer, kst_host_callbacks(host), &packed.report);
    kst_packer_close(packer);
    size_t size = 0;
    const auto* written = static_cast<const uint8_t*>(kst_host_written(host, &size));
    packed.file.assign(written, written + size);
    kst_host_close(host);
    return packed;
}

void check_file(const Packed& packed, uint32_t tracks, size_t stream_size) {
    constexpr size_t kHeaders = 4096;    // of a file and a track
    constexpr size_t kTimesStream = 40;  // a packet of a few bytes makes a hint sample of some 60
    check(packed.report.tracks == tracks && packed.report.bytes == packed.file.size());
    check(packed.file.size() <= tracks * (kHeaders + kTimesStream * stream_size));
    kestrel::importer::Movie movie;
    kst_host* host = kst_host_from_memory(packed.file.data(), packed.file.size());
    check(import_movie(*kst_host_callbacks(host), {}, movie).ok);
    kst_host_close(host);
    check(movie.tracks.size() == packed.report.tracks + packed.report.hint_tracks);
    uint64_t samples = 0;
    for (const auto& track : movie.tracks) {
        if (track.handler != kestrel::fourcc("hint")) samples += track.samples.size();
    }
    check(samples == packed.report.samples && samples > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const View stream(data, size);
    const uint32_t tracks = 1 + (size & 1);
    const uint32_t flags = (size & 2) != 0 ? KST_PACK_HINT : 0;
    const Packed whole = pack(stream, tracks, flags, static_cast<uint32_t>(size) + 1);
    check(without_dates(pack(stream, tracks, flags, 50).file) == without_dates(whole.file));
    if (whole.status == KST_PACK_DONE || whole.status == KST_PACK_CUT) {
        check_file(whole, tracks, size);
    } else {
        check(whole.status == KST_PACK_REFUSED || whole.status == KST_PACK_TOO_LARGE);
        check(whole.file.empty() && whole.report.error[0] != '\0');
    }
    return 0;
}
