// SPDX-License-Identifier: Apache-2.0
// Playing a stream with either API.
#ifndef KESTREL_TESTS_PLAYING_H
#define KESTREL_TESTS_PLAYING_H

#include <functional>
#include <optional>
#include <ostream>

#include "kestrel/c3gpinterface.h"
#include "kestrel/kestrel.h"
#include "tests/support/faulty_host.h"
#include "tests/support/files.h"
#include "tests/support/memory_host.h"

// The library's two ways in: kst_Open and C3gpInterface.
enum class Api { kFunction, kClass };

// Whether the environment has KESTREL_THOROUGH=1, for tests that otherwise take a part of the
// cases.
bool thorough();

// Under the sanitizers, which see a fault at any place of a path, tests take fewer of like cases.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// How a test plays.
struct Playing {
    Api api = Api::kFunction;
    uint32_t request = KST_LARGEST_CHUNK;  // bytes asked for at once
    std::optional<bool> flag = {};         // of each read; unset: whether the host's file arrives
    // How many steps of the host a wait takes; unset: one.
    std::function<uint32_t()> steps = {};
};

// A sample file and a mode that is at home in it.
struct Medium {
    std::string file;
    const char* mode;
};
std::ostream& operator<<(std::ostream& out, const Medium& medium);

// Of all sample files; of one with sound and pictures, both.
std::vector<Medium> sample_media();

// What a test of a medium on a API is called.
std::string name_of(const Medium& medium, Api api);

// The result of playing a track.
struct Played {
    int32_t status = KST_SUCCESS;  // that ended it
    bool opened = false;
    Bytes stream;
    int waits = 0;  // for more of the file, once it was open
};

// Opens and reads to the end, waiting for a host whose file arrives.
Played play(kst_host* host, const char* mode, const Playing& how = {});
Played play(const Bytes& file, const char* mode, const Playing& how = {});
Played play_arriving(const Bytes& file, const char* mode, uint32_t step, const Playing& how = {});

// One call of ReadChunk on what is open.
using ReadCall = std::function<int32_t(uint8_t* buffer, uint32_t* size)>;
ReadCall read_call(mm_Interface* handle, bool flag);
ReadCall read_call(C3gpInterface& player, bool flag);

// The result of reading through failures.
struct ReadThrough {
    Bytes stream;
    std::vector<int32_t> failures;
    int32_t status = KST_SUCCESS;  // that ended it
};

// Reads to the end of the stream, or to the third failure.
ReadThrough read_through_failures(const ReadCall& read, uint32_t request = KST_LARGEST_CHUNK);

// The speech file (RFC 4867, 5) that an audio stream was made from.
Bytes unpack_speech(const Bytes& stream, bool wide_band);

#endif
