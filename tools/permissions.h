// SPDX-License-Identifier: Apache-2.0
// Permissions of outputs, with POSIX access control lists.
#ifndef KESTREL_TOOLS_PERMISSIONS_H
#define KESTREL_TOOLS_PERMISSIONS_H

#include <sys/stat.h>

#include <string>

namespace tool {

// Gives a file those of a new file in the folder: the folder's default list, or else the umask.
void set_new_permissions(int file, int folder);

// Gives a file those of a file of the caller's that it replaces, `name` in the folder, without
// set-user-ID, set-group-ID and sticky bits. Where it cannot have the same group and the same list,
// its group may do no more than everybody.
void copy_permissions(int file, int folder, const std::string& name, const struct stat& replaced);

}  // namespace tool

#endif
