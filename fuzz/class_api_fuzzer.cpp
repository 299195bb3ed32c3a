// SPDX-License-Identifier: Apache-2.0
// Any bytes as a file, played and sought in through the class: a stream read by position, one read
// by index, and one that arrives are the same.
#include <algorithm>

#include "fuzz/support/support.h"
#include "kestrel/c3gpinterface.h"
#include "kestrel/log.h"

namespace {

using namespace fuzz;

constexpr size_t kMaxOutput = 1 << 18;
constexpr int kMaxReads = 200;

bool open(C3gpInterface& player, Host& host, const char* mode, unsigned& status) {
    for (;;) {
        host.rewind();
        status = player.Open(host.callbacks(), mode);
        host.check_calls();
        if (status == KST_SUCCESS) return true;
        if (host.complete()) return false;
        host.wait();
    }
}

// Reads up to `size` bytes after what is in `stream`.
unsigned read(C3gpInterface& player, Host& host, unsigned size, bool arriving, Bytes& stream) {
    Bytes buffer(size);
    unsigned got = size;
    const unsigned status = player.ReadChunk(buffer.data(), &got, arriving);
    host.check_calls();
    check(got <= size);
    if (status == KST_SUCCESS) check(got == size);
    if (status != KST_SUCCESS && status != KST_END_OF_FILE) check(got == 0);
    stream.insert(stream.end(), buffer.begin(), buffer.begin() + got);
    return status;
}

struct Played {
    unsigned status = KST_SUCCESS;
    Bytes stream;
};

// What a read of bytes that are not there returns depends on the flag.
unsigned without_flag(unsigned status) {
    return status == KST_NOT_YET ? unsigned{KST_FAILURE} : status;
}

// From the beginning to the end.
Played play(Host& host, const char* mode, unsigned size, bool arriving) {
    Played played;
    C3gpInterface player;
    if (!open(player, host, mode, played.status)) return played;
    for (int reads = 0; reads < kMaxReads && played.stream.size() < kMaxOutput;) {
        played.status = read(player, host, size, arriving, played.stream);
        if (played.status == KST_NOT_YET && !host.complete()) {
            host.wait();
            continue;
        }
        if (played.status != KST_SUCCESS) break;
        ++reads;
    }
    return played;
}

// Reads and seeks as the choices have it, and records each result.
Bytes wander(View file, Choices choices, const char* mode, bool arriving) {
    Host host(file);
    C3gpInterface player;
    Bytes results;
    unsigned status = KST_SUCCESS;
    if (!open(player, host, mode, status)) return {static_cast<uint8_t>(status)};
    while (!choices.at_end() && results.size() < kMaxOutput) {
        const uint8_t step = choices.u8();
        if (step & 1) {
            status = read(player, host, 1 + step * 16u, arriving, results);
        } else {
            _TAG_KST_SEEK_PARAMS params{};
            const uint8_t time = choices.u8();
            params.nTime = step & 2 ? static_cast<uint32_t>(static_cast<int8_t>(time)) * 40 : time;
            params.fFlags = (step & 4 ? uint32_t{KST_SEEK_RELATIVE} : uint32_t{KST_SEEK_ABSOLUTE}) |
                            (step >> 3 & 7u);
            status = player.SeekTo(&params);
            host.check_calls();
            if (status == KST_SUCCESS) results.push_back(static_cast<uint8_t>(params.uFrameNum));
        }
        // A callback that fails has a status of its own only where it reads by index.
        if (status != KST_IO_FAILURE) results.push_back(static_cast<uint8_t>(without_flag(status)));
    }
    return results;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sx_Debug = 0;
    Input input({data, size});
    const uint8_t how = input.choices.u8();
    const char* mode = how & 1 ? "rv" : "ra";
    const unsigned room = 1 + unsigned{input.choices.u16()};
    const uint32_t salt = input.choices.u16();

    if (how & 2) {
        check(wander(input.file, input.choices, mode, false) ==
              wander(input.file, input.choices, mode, true));
        return 0;
    }
    Host whole_host(input.file);
    const Played whole = play(whole_host, mode, room, how & 4);
    Host arriving_host(input.file, salt);
    const Played arriving = play(arriving_host, mode, room, true);
    check(without_flag(arriving.status) == without_flag(whole.status));
    check(arriving.stream == whole.stream);
    return 0;
}
