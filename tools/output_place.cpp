// SPDX-License-Identifier: Apache-2.0
#include "tools/output_place.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <cerrno>
#include <climits>
#include <filesystem>

#include "tools/support.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& path, int reason) {
    errno = reason;
    throw system_error(path);
}

// The same as the kernel's may_follow_link().
bool may_follow(const struct stat& link, const struct stat& folder) {
    constexpr mode_t kShared = S_ISVTX | S_IWOTH;
    return link.st_uid == geteuid() || (folder.st_mode & kShared) != kShared ||
           folder.st_uid == link.st_uid;
}

bool is_in_proc(int descriptor) {
    struct statfs system {};
    return fstatfs(descriptor, &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

struct stat about(int descriptor, const std::string& path) {
    struct stat found {};
    if (fstat(descriptor, &found) != 0) throw system_error(path);
    return found;
}

std::string target_of(int link, const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link, "", target, sizeof target);
    if (length < 0) throw system_error(path);
    return {target, static_cast<size_t>(length)};
}

// The folder of `at`, which is relative to `from`. A link to a folder is followed as the kernel
// follows links before the last name.
Descriptor open_folder(int from, const fs::path& at, const std::string& path) {
    const fs::path parent = at.parent_path() / ".";
    Descriptor folder(openat(from, parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) throw system_error(path);
    return folder;
}

}  // namespace

OutputPlace find_output_place(const std::string& path) {
    constexpr int kMaxLinks = 40;
    OutputPlace place;
    fs::path at = path;
    for (int left = kMaxLinks; left > 0; --left) {
        const int from = place.folder ? place.folder.get() : AT_FDCWD;
        place.folder = open_folder(from, at, path);
        place.name = at.filename();
        if (place.name.empty() || place.name == "." || place.name == "..") fail(path, EISDIR);
        const Descriptor found(
            openat(place.folder.get(), place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!found && errno == ENOENT) return place;
        if (!found) throw system_error(path);
        const struct stat now = about(found.get(), path);
        if (S_ISDIR(now.st_mode)) fail(path, EISDIR);
        if (!S_ISLNK(now.st_mode)) {
            place.there = now;
            return place;
        }
        if (is_in_proc(found.get())) {
            place.in_proc = true;
            return place;
        }
        if (!may_follow(now, about(place.folder.get(), path))) fail(path, EACCES);
        at = target_of(found.get(), path);
    }
    fail(path, ELOOP);
}

Descriptor open_output(const OutputPlace& place, const std::string& path) {
    constexpr mode_t kAll = 0666;
    const int follow = place.in_proc ? 0 : O_NOFOLLOW;
    Descriptor opened(openat(place.folder.get(), place.name.c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | follow, kAll));
    if (!opened) throw system_error(path);
    return opened;
}

bool is_same_place(const OutputPlace& one, const OutputPlace& other) {
    struct stat a {
    }, b{};
    return one.name == other.name && fstat(one.folder.get(), &a) == 0 &&
           fstat(other.folder.get(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace tool
