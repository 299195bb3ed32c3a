// SPDX-License-Identifier: Apache-2.0
// Whether the samples of a track can be of its codec, by the rules and in the words of kst_hint.
#ifndef KESTREL_TOOLS_JUDGE_MEDIA_CHECK_H
#define KESTREL_TOOLS_JUDGE_MEDIA_CHECK_H

#include <string>

#include "native/stream/plausible.h"
#include "tools/judge/child_process.h"
#include "tools/judge/facts.h"

namespace tool {

// Looks at the samples until the deadline; later ones, and those that are not in the file as a
// whole, count as good. Moves the track's cursor.
kestrel::stream::ImplausibleSamples implausible_samples(iso_track* media,
                                                        Clock::time_point deadline);

// "track 1: 1 of 30 samples cannot be of the codec 's263', the first is number 16".
std::string implausible_text(const FileFacts& facts, const iso_track* media,
                             const kestrel::stream::ImplausibleSamples& samples);

}  // namespace tool

#endif
