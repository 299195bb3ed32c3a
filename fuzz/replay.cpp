// SPDX-License-Identifier: Apache-2.0
// Runs a target over files, and over all files of directories, without libFuzzer: what was found
// stays fixed.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/support/support.h"

namespace {

int replay(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    fuzz::Bytes bytes{std::istreambuf_iterator<char>(in), {}};
    // A block of its own size: a read past the end is seen by the sanitizers.
    const fuzz::Bytes exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            count += replay(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            count += replay(entry.path());
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
