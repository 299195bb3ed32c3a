// SPDX-License-Identifier: Apache-2.0
// Reading native streams from files.
#ifndef KESTREL_TOOLS_NATIVE_FILE_H
#define KESTREL_TOOLS_NATIVE_FILE_H

#include <optional>
#include <string>

#include "companion/stream/native_walk.h"
#include "tools/support.h"

namespace tool {

struct WalkedFile {
    uint64_t bytes = 0;  // of the file
    std::optional<kestrel::stream::Damage> damage;
};

// Walks a native stream, from standard input for "-", to its end or to the first damaged place.
WalkedFile walk_file(const std::string& path, kestrel::stream::RecordSink& sink);

// "FILE: damaged from byte N on: REASON" and more.
Error damage_error(const std::string& file, const kestrel::stream::Damage& damage,
                   const std::string& more = "");

}  // namespace tool

#endif
