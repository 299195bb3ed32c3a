// SPDX-License-Identifier: Apache-2.0
// Writes small files of every form of the file format into a folder: the starting corpus of the
// importer's target. Usage: make_forms FOLDER
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/support/movie_forms.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: make_forms FOLDER\n", stderr);
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::filesystem::create_directories(folder);
    for (const MovieForms& forms : single_forms()) {
        const Bytes file = make_movie(forms).file;
        std::ofstream out(folder / forms.name(), std::ios::binary);
        out.write(reinterpret_cast<const char*>(file.data()),
                  static_cast<std::streamsize>(file.size()));
        if (!out.flush()) return 1;
    }
    return 0;
}
