// SPDX-License-Identifier: Apache-2.0
// An output that is there as a whole or not at all.
#ifndef KESTREL_TOOLS_WHOLE_OUTPUT_H
#define KESTREL_TOOLS_WHOLE_OUTPUT_H

#include <optional>
#include <span>
#include <string>

#include "tools/output_place.h"
#include "tools/support.h"

namespace tool {

// Writes a file under a temporary name in its folder and gives it its own at the end, so that one
// that was there before stays until then. What is no regular file (a pipe, a device, standard
// output) is written as it is. The new file has the permissions of the one that it replaces, if
// that belongs to the caller, else those of any new file; never set-user-ID and the like.
class WholeOutput {
  public:
    // Refuses to overwrite `input`. Symbolic links: see find_output_place.
    WholeOutput(const std::string& path, const std::string& input);
    WholeOutput(const WholeOutput&) = delete;
    WholeOutput& operator=(const WholeOutput&) = delete;
    // Removes what did not come to finish(). So does a signal that ends the process.
    ~WholeOutput();

    void write(std::span<const uint8_t> bytes) { output_->write(bytes); }
    // The output itself, to be handed on; finish() below ends it.
    Output& output() { return *output_; }
    // Of an output that is not "-".
    const OutputPlace& place() const { return place_; }
    uint64_t written() const { return output_ ? output_->written() : 0; }
    void finish();

  private:
    void make_temporary();

    std::string path_;  // as it was given
    OutputPlace place_;
    std::string temporary_;  // a name in the same folder; empty when the output is written as it is
    std::optional<Output> output_;
};

}  // namespace tool

#endif
