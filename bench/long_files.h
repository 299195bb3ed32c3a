// SPDX-License-Identifier: Apache-2.0
// Long recordings for the benchmarks, made of a sample file's frames over and over, with hint
// tracks.
#ifndef KESTREL_BENCH_LONG_FILES_H
#define KESTREL_BENCH_LONG_FILES_H

#include <cstdint>
#include <span>
#include <vector>

namespace bench {

enum class Recording { kSpeech, kQcif, kCif };

// A recording of so many minutes: speech of one frame of 12.2 kbit/s in each sample and packet,
// video in packets of at most 1,012 bytes. Media first, one second of each track at a time. Made at
// the first call and kept.
std::span<const uint8_t> long_file(Recording recording, unsigned minutes);

// The same anew, with the movie box in front of the media or, as a camera writes it, after them.
enum class MovieBox { kFirst, kLast };
std::vector<uint8_t> make_file(Recording recording, unsigned minutes, MovieBox place);

// The media samples of a file that lies in samples/.
std::vector<std::vector<uint8_t>> samples_of(const char* name);

}  // namespace bench

#endif
