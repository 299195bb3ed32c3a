// SPDX-License-Identifier: Apache-2.0
// Files that the ISO writer writes.
#ifndef KESTREL_TESTS_WRITING_H
#define KESTREL_TESTS_WRITING_H

#include <algorithm>
#include <functional>
#include <random>

#include "interface/src/isoff/record/record.h"
#include "kestrel/isoff.h"
#include "tests/support/faulty_host.h"

// A file that is being written.
class Output : public FaultyHost {
  public:
    explicit Output(bool direct = false);
    int close() { return isoFFclose(file); }

    iso_file* file;
};

// Tracks of one configuration for each codec. An avcC record has kAvcc.
extern const Bytes kAvcc;
iso_track* amr_track(iso_file* file);
iso_track* amr_wb_track(iso_file* file);
iso_track* h263_track(iso_file* file);
iso_track* mpeg4_track(iso_file* file);
iso_track* h264_track(iso_file* file);
iso_track* hint_track(iso_track* media);

using Random = std::mt19937;
inline int pick(Random& random, int from, int to) {
    return std::uniform_int_distribution<int>(from, to)(random);
}

// Writes a sample of so many bytes.
int write(iso_track* track, int size = 1, int duration = 160);

template <typename T>
T* copy_to_arena(iso_file* file, const std::vector<T>& values) {
    T* copy = kestrel::arena_array<T>(file, values.size());
    std::copy(values.begin(), values.end(), copy);
    return copy;
}

// Makes a call of the library; a test can put something around it.
using Around = std::function<void(const std::function<void()>& call)>;

// The result.
struct Writing {
    int open_error = 0;
    std::vector<int> failures;  // negative codes of the calls
    int closed = -1;
    int32_t samples = 0;  // that were taken
};

// Opens the stream, writes some samples of a track of each codec and of its hint track, and closes.
// What cannot be made or taken is left out.
Writing write_every_codec(KST_IOSTREAM_CALLBACK_INTERFACE* stream, bool direct,
                          const Around& around);

// The samples of all tracks of a file.
int32_t samples_in(const Bytes& file);

#endif
