// SPDX-License-Identifier: Apache-2.0
#include "tools/permissions.h"

#include <linux/limits.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tool {
namespace {

constexpr char kAccessList[] = "system.posix_acl_access";
constexpr char kDefaultList[] = "system.posix_acl_default";

using List = std::vector<uint8_t>;

// Empty when there is none, nothing when that is not known.
std::optional<List> list_of(int descriptor, const char* kind) {
    // By its path in /proc a descriptor may be one of O_PATH.
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    List list(XATTR_SIZE_MAX);
    const ssize_t size = getxattr(path.c_str(), kind, list.data(), list.size());
    if (size < 0 && errno != ENODATA && errno != ENOTSUP) return std::nullopt;
    list.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return list;
}

// The mode that a list gives a file: owner, mask or else group, others.
mode_t mode_of(std::span<const uint8_t> list) {
    constexpr size_t kHeader = 4, kEntry = 8;
    constexpr uint8_t kOwner = 0x01, kGroup = 0x04, kMask = 0x10, kOthers = 0x20;
    mode_t owner = 0, group = 0, others = 0;
    std::optional<mode_t> mask;
    for (size_t at = kHeader; at + kEntry <= list.size(); at += kEntry) {
        const mode_t allowed = list[at + 2] & 7U;  // after the tag; both are little-endian
        switch (list[at]) {
            case kOwner:
                owner = allowed;
                break;
            case kGroup:
                group = allowed;
                break;
            case kMask:
                mask = allowed;
                break;
            case kOthers:
                others = allowed;
                break;
            default:
                break;
        }
    }
    return owner << 6 | mask.value_or(group) << 3 | others;
}

mode_t without_umask(mode_t mode) {
    const mode_t mask = umask(0);
    umask(mask);
    return mode & ~mask;
}

bool give_group(int file, const struct stat& replaced) {
    struct stat now {};
    return (fstat(file, &now) == 0 && now.st_gid == replaced.st_gid) ||
           fchown(file, static_cast<uid_t>(-1), replaced.st_gid) == 0;
}

bool give_list(int file, const std::optional<List>& list) {
    fremovexattr(file, kAccessList);  // that of the folder
    return list &&
           (list->empty() || fsetxattr(file, kAccessList, list->data(), list->size(), 0) == 0);
}

}  // namespace

void set_new_permissions(int file, int folder) {
    constexpr mode_t kNew = 0666;
    const std::optional<List> list = list_of(folder, kDefaultList);
    fchmod(file, list && !list->empty() ? kNew & mode_of(*list) : without_umask(kNew));
}

bool copy_permissions(int file, int replaced) {
    struct stat about {};
    const bool is_own =
        fstat(replaced, &about) == 0 && S_ISREG(about.st_mode) && about.st_uid == geteuid();
    if (!is_own) return false;
    mode_t mode = about.st_mode & 0777;
    const bool same_group = give_group(file, about);
    // The group bits of a file with a list are its mask.
    if (!same_group || !give_list(file, list_of(replaced, kAccessList)))
        mode &= ~mode_t{070} | (mode & 07) << 3;
    fchmod(file, mode);
    return true;
}

}  // namespace tool
