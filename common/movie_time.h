// SPDX-License-Identifier: Apache-2.0
// Times of ISO media files (ISO/IEC 14496-12, 8.2.2).
#ifndef KESTREL_COMMON_MOVIE_TIME_H
#define KESTREL_COMMON_MOVIE_TIME_H

#include <cstdint>
#include <ctime>

namespace kestrel {

// From the beginning of 1904 to that of 1970, both in UTC.
inline constexpr uint32_t kSecondsFrom1904To1970 = 2082844800;

// Returns the seconds since the beginning of 1904.
inline uint32_t movie_time_now() {
    return static_cast<uint32_t>(std::time(nullptr)) + kSecondsFrom1904To1970;
}

}  // namespace kestrel

#endif
