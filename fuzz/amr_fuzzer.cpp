// SPDX-License-Identifier: Apache-2.0
// Any bytes as AMR frames, from one format to the other and back: what could be converted comes
// back but for the bits that a frame has no use for, and conversions stay within their room.
#include <memory>

#include "fuzz/support/support.h"
#include "kestrel/native.h"

namespace {

using namespace fuzz;

using Convert = int(const void*, void*, int);

// Converts out of and into blocks of just the size that is promised.
Bytes convert(Convert* run, View from, size_t room) {
    const std::unique_ptr<uint8_t[]> in(new uint8_t[from.size()]);
    std::copy(from.begin(), from.end(), in.get());
    const std::unique_ptr<uint8_t[]> out(new uint8_t[room]);
    const int written = run(in.get(), out.get(), static_cast<int>(from.size()));
    check(written >= 0 && static_cast<size_t>(written) <= room);
    return {out.get(), out.get() + written};
}

// A frame in storage format is at most one byte longer than in interface format, which is at least
// one byte long.
Bytes to_interface(View storage) {
    return convert(amr1_to_amr2, storage, storage.size());
}

Bytes to_storage(View interface) {
    return convert(amr2_to_amr1, interface, 2 * interface.size());
}

// The lengths of the frames of a run add up to it, and each is recognised.
void check_frames(const Bytes& run, int format) {
    for (size_t at = 0; at < run.size();) {
        const int size = amr_get_size(&run[at], format);
        check(size > 0 && static_cast<size_t>(size) <= run.size() - at);
        int type = -1;
        const int reported = amr_get_format(&run[at], size, &type);
        // If the first byte is valid in both formats, the storage format is reported.
        check(reported == format || reported == 1);
        check(type >= 0 && (type < 9 || type == 15));
        at += static_cast<size_t>(size);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const View in(data, size);
    if (in.empty()) return 0;
    for (int format = 0; format <= 4; ++format) {
        const int length = amr_get_size(data, format);
        check(length == -1 ? format < 1 || format > 3 : length > 0 && length <= 61);
    }
    amr_get_format(data, static_cast<int>(size), nullptr);

    // From the second pass on, the header's and the last bytes' spare bits are settled.
    const Bytes interface = to_interface(in);
    check_frames(interface, 2);
    const Bytes storage = to_storage(interface);
    check_frames(storage, 1);
    check(to_interface(storage) == interface);

    const Bytes storage_again = to_storage(in);
    check_frames(storage_again, 1);
    check(to_storage(to_interface(storage_again)) == storage_again);
    return 0;
}
