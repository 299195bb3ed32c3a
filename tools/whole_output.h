// SPDX-License-Identifier: Apache-2.0
// An output that is written completely or not at all.
#ifndef KESTREL_TOOLS_WHOLE_OUTPUT_H
#define KESTREL_TOOLS_WHOLE_OUTPUT_H

#include <optional>
#include <span>
#include <string>

#include "tools/output_place.h"
#include "tools/support.h"

namespace tool {

// Writes a file under a temporary name in its folder and renames it at the end; an existing file
// stays until then. An output that is not a regular file (a pipe, a device, standard output) is
// written directly. The new file gets the permissions of the file that it replaces if that belongs
// to the caller, else those of a new file (tools/permissions.h).
class WholeOutput {
  public:
    // Refuses to overwrite `input`. Symbolic links: see find_output_place.
    WholeOutput(const std::string& path, const std::string& input);
    WholeOutput(const WholeOutput&) = delete;
    WholeOutput& operator=(const WholeOutput&) = delete;
    // Removes an output without finish(); so does a signal that ends the process.
    ~WholeOutput();

    void write(std::span<const uint8_t> bytes) { output_->write(bytes); }
    // The output, for other functions; complete it with finish().
    Output& output() { return *output_; }
    // For an output other than "-".
    const OutputPlace& place() const { return place_; }
    uint64_t written() const { return output_ ? output_->written() : 0; }
    void finish();

  private:
    WholeOutput() = default;
    void make_temporary();

    std::string path_;  // as it was given
    OutputPlace place_;
    std::string temporary_;  // a name in the same folder; empty when the output is written as it is
    std::optional<Output> output_;
};

// Removes the temporary files of all outputs that are not finished, for a process that ends without
// destructors. Allocates nothing; a signal handler may call it.
void remove_unfinished();

}  // namespace tool

#endif
