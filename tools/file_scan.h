// The boxes of a file by their headers alone, and what is wrong with them: what can be told of a
// file that no reader takes.
#ifndef KESTREL_TOOLS_FILE_SCAN_H
#define KESTREL_TOOLS_FILE_SCAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "kestrel/stream.h"

namespace tool {

struct TopBox {
    std::string type;  // as `printable` shows it
    uint64_t offset = 0;
    uint64_t size = 0;    // as the header tells
    bool cut = false;     // reaches behind the end of the file
    bool broken = false;  // no header that makes sense: what is left of the file
};

struct FileScan {
    uint32_t file_size = 0;
    std::vector<TopBox> boxes;        // of the top level
    std::vector<std::string> damage;  // a sentence each, at most kMostDamage
    uint32_t more_damage = 0;         // how many more there are
    bool has_movie = false;
    bool movie_is_cut = false;

    bool is_3gp() const;
};

// Walks the box headers. The stream table must have all of the file. Costs a read for each box, and
// at most kMostBoxes of them.
FileScan scan_file(KST_IOSTREAM_CALLBACK_INTERFACE* stream);

inline constexpr size_t kMostDamage = 20;
inline constexpr uint32_t kMostBoxes = 20000;
inline constexpr size_t kMostTopBoxes = 200;

}  // namespace tool

#endif
