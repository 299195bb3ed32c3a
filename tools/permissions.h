// SPDX-License-Identifier: Apache-2.0
// Permissions of outputs, with POSIX access control lists.
#ifndef KESTREL_TOOLS_PERMISSIONS_H
#define KESTREL_TOOLS_PERMISSIONS_H

namespace tool {

// Gives a file those of a new file in the folder: the folder's default list, or else the umask.
void set_new_permissions(int file, int folder);

// Gives a file those of the open file that it replaces, without set-user-ID, set-group-ID and
// sticky bits. Where it cannot have the same group and the same list, its group may do no more than
// everybody. `replaced` may be of O_PATH. Returns false, and changes nothing, unless that is a
// regular file of the caller's.
bool copy_permissions(int file, int replaced);

}  // namespace tool

#endif
