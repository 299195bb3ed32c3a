#include "companion/importer/movie.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "kestrel/hosts.h"
#include "tests/support/files.h"
#include "tests/support/md5.h"

namespace {

using namespace kestrel::importer;

struct Imported {
    Result result;
    Movie movie;
};

Imported import_bytes(const Bytes& file, const Options& options = {}) {
    Imported imported;
    kst_host* host = kst_host_from_memory(file.data(), file.size());
    imported.result = import_movie(*kst_host_callbacks(host), options, imported.movie);
    kst_host_close(host);
    return imported;
}

std::string code(std::uint32_t type) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += static_cast<char>(type >> shift);
    return text;
}

// The samples of a track as the truths beside the wild samples write them: decoding times are moved
// so that no composition offset is negative.
std::vector<std::string> frame_lines(const Bytes& file, const Track& track) {
    std::int32_t least = 0;
    for (const Sample& sample : track.samples)
        least = std::min(least, sample.composition_offset);
    std::vector<std::string> lines;
    std::uint64_t time = 0;
    for (const Sample& sample : track.samples) {
        std::ostringstream line;
        line << track.id << ' ' << code(track.descriptions.at(sample.description).type) << ' '
             << track.timescale << ' ' << time << ' ' << sample.composition_offset - least << ' '
             << sample.size << (sample.is_sync ? " sync " : " - ")
             << md5(std::span(file).subspan(sample.offset, sample.size));
        lines.push_back(line.str());
        time += sample.duration;
    }
    return lines;
}

std::vector<std::string> wild_samples() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KESTREL_SAMPLES "/wild")) {
        if (entry.path().extension() != ".frames") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class WildSample : public testing::TestWithParam<std::string> {};

TEST_P(WildSample, HasTheSamplesOfItsTruth) {
    const Bytes file = read_sample("wild/" + GetParam());
    const std::string stem = std::filesystem::path(GetParam()).stem();
    const Bytes truth = read_sample("wild/" + stem + ".frames");
    std::istringstream lines(std::string(truth.begin(), truth.end()));
    std::map<std::uint32_t, std::vector<std::string>> expected;
    for (std::string line; std::getline(lines, line);)
        expected[static_cast<std::uint32_t>(std::stoul(line))].push_back(line);

    const Imported imported = import_bytes(file);
    ASSERT_TRUE(imported.result.ok) << imported.result.error;
    for (const Track& track : imported.movie.tracks) {
        if (expected.contains(track.id)) {
            EXPECT_EQ(frame_lines(file, track), expected[track.id]);
        }
        expected.erase(track.id);
    }
    EXPECT_THAT(expected, testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Importer, WildSample, testing::ValuesIn(wild_samples()),
                         [](const auto& about) {
                             std::string name = about.param;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

}  // namespace
