// SPDX-License-Identifier: Apache-2.0
// Text for a page: `escape` is applied to all text from a file.
#ifndef KESTREL_TOOLS_MARKUP_H
#define KESTREL_TOOLS_MARKUP_H

#include <cstdint>
#include <string>
#include <string_view>

#include "companion/probe/reasons.h"

namespace tool {

// Escapes for HTML and XML, between tags and in quoted attributes. Invalid UTF-8, characters that
// XML forbids, and characters that change the direction of writing become U+FFFD.
std::string escape(std::string_view text);

std::string format(const char* form, ...) __attribute__((format(printf, 1, 2)));

// "61.2 kB", "4.0 GB"; "1 byte".
std::string show_bytes(uint64_t bytes);
using kestrel::probe::show_count;
// "2.00 s", "14:03", "1:00:00".
std::string show_seconds(double seconds);
// "12.3 kbit/s".
std::string show_rate(double bits_per_second);

}  // namespace tool

#endif
