// SPDX-License-Identifier: Apache-2.0
// Writes what starting corpora are made of: small files of every form of the file format, and the
// native streams of all samples by both APIs. Usage: make_starts FORMS STREAMS, both folders.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/support/movie_forms.h"
#include "tests/support/playing.h"

namespace {

namespace fs = std::filesystem;

bool write(const fs::path& path, const Bytes& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out.flush());
}

bool write_forms(const fs::path& folder) {
    for (const MovieForms& forms : single_forms()) {
        if (!write(folder / forms.name(), make_movie(forms).file)) return false;
    }
    return true;
}

bool write_streams(const fs::path& folder) {
    for (const Medium& medium : sample_media()) {
        for (const Api api : {Api::kFunction, Api::kClass}) {
            const Played played = play(read_sample(medium.file), medium.mode, {.api = api});
            if (played.status == KST_END_OF_FILE &&
                !write(folder / name_of(medium, api), played.stream))
                return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: make_starts FORMS STREAMS\n", stderr);
        return 2;
    }
    return write_forms(argv[1]) && write_streams(argv[2]) ? 0 : 1;
}
