// SPDX-License-Identifier: Apache-2.0
#include "tools/temporary_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace tool {

Descriptor temporary_file() {
    std::error_code failure;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(failure);
    if (failure) {
        errno = failure.value();
        return Descriptor();
    }
    Descriptor nameless(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (nameless) return nameless;
    std::string name = (folder / "kestrel-XXXXXX").string();
    Descriptor named(mkostemp(name.data(), O_CLOEXEC));
    if (named) unlink(name.c_str());
    return named;
}

uint64_t temporary_space() {
    std::error_code failure;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(failure);
    if (failure) return 0;
    const std::filesystem::space_info space = std::filesystem::space(folder, failure);
    return failure ? 0 : space.available;
}

Host open_temporary(const Descriptor& file) {
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    return Host(kst_host_from_file(path.c_str()));
}

}  // namespace tool
