// SPDX-License-Identifier: Apache-2.0
// Where an output goes: the folder and the name that a path leads to.
#ifndef KESTREL_TOOLS_OUTPUT_PLACE_H
#define KESTREL_TOOLS_OUTPUT_PLACE_H

#include <sys/stat.h>

#include <optional>
#include <string>

#include "tools/descriptor.h"

namespace tool {

struct OutputPlace {
    Descriptor folder;
    std::string name;                  // in the folder
    std::optional<struct stat> there;  // what has the name now
    bool in_proc = false;              // a name of an open file, such as /dev/stdout

    bool is_regular_or_new() const { return !in_proc && (!there || S_ISREG(there->st_mode)); }
};

// Follows symbolic links at the end of `path` by the rule of Linux for shared folders, whether or
// not the system has it switched on (proc(5), protected_symlinks): in a folder that everybody may
// write to and that is sticky, a link counts only if the caller or the owner of the folder made it.
// Throws Error for a link that may not be followed, for a folder, and for any other fault than that
// nothing is there.
OutputPlace find_output_place(const std::string& path);

// Opens what is there for writing, emptied, or makes a new file. Throws Error.
Descriptor open_output(const OutputPlace& place, const std::string& path);

// True for one name in one folder.
bool is_same_place(const OutputPlace& one, const OutputPlace& other);

}  // namespace tool

#endif
