// SPDX-License-Identifier: Apache-2.0
// Writing a file with all that the ISO writer can do.
#ifndef KESTREL_TESTS_WRITING_H
#define KESTREL_TESTS_WRITING_H

#include <functional>

#include "kestrel/stream.h"
#include "tests/support/files.h"

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
