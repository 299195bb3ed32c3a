// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/media_search.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string_view>

#include "common/box_header.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

bool has_media_name(const fs::path& path) {
    static constexpr std::array kEndings = {".3gp", ".3gpp", ".3g2", ".3gpp2", ".mp4"};
    std::string ending = path.extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    });
    return std::find(kEndings.begin(), kEndings.end(), ending) != kEndings.end();
}

// Whether the file begins with a box that can be the first of a media file.
bool begins_with_box(int file) {
    static constexpr std::array<std::string_view, 10> kTypes = {
        "ftyp", "moov", "mdat", "moof", "styp", "sidx", "free", "skip", "wide", "pnot"};
    std::array<uint8_t, kestrel::kBoxHeader> head{};
    if (pread(file, head.data(), head.size(), 0) != static_cast<ssize_t>(head.size())) return false;
    const kestrel::BoxHeader header = kestrel::load_box_header(head.data());
    const bool has_size = header.size >= kestrel::kBoxHeader ||
                          header.size == kestrel::kSizeToEnd ||
                          header.size == kestrel::kSizeIs64Bits;
    return has_size && std::any_of(kTypes.begin(), kTypes.end(), [&](std::string_view type) {
               return kestrel::fourcc(type) == header.type;
           });
}

bool is_media(const fs::path& path) {
    struct stat about {};
    if (stat(path.c_str(), &about) != 0) return errno != ENOENT || has_media_name(path);
    if (!S_ISREG(about.st_mode)) return false;
    if (has_media_name(path)) return true;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return true;
    const bool found = begins_with_box(file);
    close(file);
    return found;
}

}  // namespace

std::vector<FoundFile> search_folder(const std::string& folder) {
    std::vector<FoundFile> found;
    std::vector<fs::path> folders{folder};
    while (!folders.empty()) {
        const fs::path here = std::move(folders.back());
        folders.pop_back();
        std::error_code failure, unknown;
        fs::directory_iterator at(here, failure);
        for (; !failure && at != fs::directory_iterator(); at.increment(failure)) {
            if (!at->is_directory(unknown)) {
                found.push_back({at->path().string(), is_media(at->path())});
            } else if (!at->is_symlink(unknown)) {
                folders.push_back(at->path());
            }
        }
        if (failure) found.push_back({here.string(), true});
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace tool
