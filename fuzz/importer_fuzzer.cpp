// SPDX-License-Identifier: Apache-2.0
// Any bytes as a file, read by the tolerant importer: it ends with a movie or an error, what it
// finds is in the file, and salvage keeps first samples of a cut file and changes nothing of
// others.
#include <algorithm>

#include "companion/importer/movie.h"
#include "fuzz/support/support.h"

namespace {

using namespace fuzz;
using namespace kestrel::importer;

struct Imported {
    Result result;
    Movie movie;
};

Imported import(View file, bool salvage) {
    Host host(file);
    Imported imported;
    imported.result = import_movie(*host.callbacks(), {.salvage = salvage}, imported.movie);
    host.check_calls();
    check(imported.result.ok == imported.result.error.empty());
    return imported;
}

void check_samples(View file, const Movie& movie) {
    size_t samples = 0;
    for (const Track& track : movie.tracks) {
        uint64_t duration = 0;
        for (const Sample& sample : track.samples) {
            check(sample.size == 0 ||
                  (sample.offset <= file.size() && sample.size <= file.size() - sample.offset));
            check(sample.description < track.descriptions.size());
            duration += sample.duration;
        }
        check(track.id != 0 && track.timescale != 0 && duration == track.duration);
        check(track.samples_in_movie_box <= track.samples.size());
        samples += track.samples.size();
    }
    check(!movie.tracks.empty() && movie.timescale != 0 && samples <= file.size());
}

bool same(const Sample& one, const Sample& other) {
    return one.offset == other.offset && one.size == other.size &&
           one.composition_offset == other.composition_offset && one.is_sync == other.is_sync;
}

void check_same_samples(const Movie& one, const Movie& other) {
    check(one.tracks.size() == other.tracks.size());
    for (size_t i = 0; i < one.tracks.size(); ++i) {
        const auto& samples = one.tracks[i].samples;
        const auto& others = other.tracks[i].samples;
        check(std::equal(samples.begin(), samples.end(), others.begin(), others.end(), same));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const View file{data, size};
    const Imported strict = import(file, false);
    const Imported kept = import(file, true);
    if (kept.result.ok) check_samples(file, kept.movie);
    check(strict.result.ok == (kept.result.ok && kept.result.salvaged.empty()));
    if (strict.result.ok) check_same_samples(strict.movie, kept.movie);
    return 0;
}
