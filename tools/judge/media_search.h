// SPDX-License-Identifier: Apache-2.0
// Finding the media files below a folder.
#ifndef KESTREL_TOOLS_JUDGE_MEDIA_SEARCH_H
#define KESTREL_TOOLS_JUDGE_MEDIA_SEARCH_H

#include <string>
#include <vector>

namespace tool {

struct FoundFile {
    std::string path;
    bool is_media = false;  // by its content or its name; also what cannot be read

    auto operator<=>(const FoundFile&) const = default;
};

// Returns all files below a folder, sorted by path. Does not follow links to folders. Includes
// folders that cannot be read. Keeps one folder open at a time.
std::vector<FoundFile> search_folder(const std::string& folder);

}  // namespace tool

#endif
