// SPDX-License-Identifier: Apache-2.0
// Makes files of one clip in the forms of the file format, so that all of them can be read back and
// compared.
#ifndef KESTREL_TESTS_MOVIE_FORMS_H
#define KESTREL_TESTS_MOVIE_FORMS_H

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/files.h"

// What can differ between two files of a clip. The first choice of each is the plain one.
enum Dimension {
    kBoxSize,      // 32 bits, 64 bits, the last box to the end of the file
    kMediaPlace,   // after the movie box, before it
    kVersion,      // of the headers: 0, 1
    kChunkOffset,  // stco, co64
    kSampleSize,   // stsz, stsz of one size, stz2 of 4, 8 and 16 bits
    kComposition,  // no offsets, version 0, version 1 with offsets below zero
    kEntries,      // one, two of one configuration, two that differ
    kFlavour,      // ISO, QuickTime with sound of version 1 and of version 2
    kExtraBoxes,   // none, unknown ones in every container
    kGroups,       // none, two groupings
    kFragments,    // none, after the samples of the movie box, all samples
    kSpread,       // all tracks in a fragment, a fragment for each
    kBase,         // default-base-is-moof, given offset, none
    kRuns,         // one in a track fragment, two
    kValues,       // of fragments: in the run, in tfhd, in trex
    kTimes,        // tfdt: none, version 0, version 1
    kIndex,        // of fragments: none, sidx, mfra
    kDimensions
};
inline constexpr std::array<int, kDimensions> kChoices = {3, 2, 2, 2, 5, 3, 3, 3, 2,
                                                          2, 3, 2, 3, 2, 3, 3, 3};

struct MovieForms {
    std::array<int, kDimensions> choices{};

    int operator[](Dimension dimension) const { return choices[dimension]; }
    std::string name() const;  // the choices that are not plain

    // Bends for single tests.
    std::optional<uint32_t> run_flags = {};  // of trun, for all runs
    std::function<uint64_t(size_t track, uint64_t time)> fragment_time = {};  // of tfdt
    std::function<uint32_t(uint32_t number)> fragment_number = {};            // of mfhd
    std::optional<size_t> lost_fragment = {};  // from 0, not written; indexes name it
    bool media_elsewhere = false;              // by dref
    size_t length = 1;                         // of the clip, as a multiple
};

struct ClipSample {
    Bytes data;
    uint32_t duration = 0;
    int32_t composition_offset = 0;
    bool is_sync = true;
    size_t entry = 0;  // 1: the second sample entry
};

struct ClipTrack {
    uint32_t id = 0;
    std::string handler;
    uint32_t timescale = 0;
    std::vector<ClipSample> samples;
    // As reading must find them: the sample entries in their ISO form, those of one configuration
    // once, and vmhd or the like.
    std::vector<Bytes> entries;
    Bytes kind_header;
};

struct MadeMovie {
    Bytes file;
    std::vector<ClipTrack> tracks;  // what reading must find
};

MadeMovie make_movie(const MovieForms& forms);

// All forms of one choice that is not plain (those of fragments with fragments), and the plain one.
std::vector<MovieForms> single_forms();

#endif
