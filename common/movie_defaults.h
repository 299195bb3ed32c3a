// SPDX-License-Identifier: Apache-2.0
// Values that the fields of a new movie have (ISO/IEC 14496-12).
#ifndef KESTREL_COMMON_MOVIE_DEFAULTS_H
#define KESTREL_COMMON_MOVIE_DEFAULTS_H

#include <array>
#include <cstdint>

namespace kestrel {

inline constexpr uint32_t kUnity = 0x00010000;  // 16.16
// The last column is 2.30.
inline constexpr std::array<uint32_t, 9> kUnityMatrix = {kUnity, 0, 0, 0,         kUnity,
                                                         0,      0, 0, 0x40000000};
inline constexpr uint16_t kFullVolume = 0x0100;            // 8.8
inline constexpr uint32_t kMovieTimescale = 600;           // ticks a second
inline constexpr uint16_t kUndeterminedLanguage = 0x55C4;  // "und" (ISO 639-2/T)
inline constexpr uint32_t kScreenResolution = 0x00480000;  // 72 dots per inch, 16.16
inline constexpr uint32_t kColourDepth = 24;               // bits of a pixel

}  // namespace kestrel

#endif
