// An output that is there as a whole or not at all.
#ifndef KESTREL_TOOLS_WHOLE_OUTPUT_H
#define KESTREL_TOOLS_WHOLE_OUTPUT_H

#include <optional>
#include <span>
#include <string>

#include "tools/support.h"

namespace tool {

// Writes a file under a temporary name in its folder and gives it its own at the end, so that one
// that was there before stays until then. What is no regular file (a pipe, a device, standard
// output) is written as it is.
class WholeOutput {
  public:
    // Refuses to overwrite `input`. A symbolic link is followed: what it leads to is replaced.
    WholeOutput(const std::string& path, const std::string& input);
    WholeOutput(const WholeOutput&) = delete;
    WholeOutput& operator=(const WholeOutput&) = delete;
    // Removes what did not come to finish(). So does a signal that ends the process.
    ~WholeOutput();

    void write(std::span<const uint8_t> bytes);
    uint64_t written() const { return output_ ? output_->written() : 0; }
    void finish();

  private:
    void make_temporary();

    std::string path_;       // as it was given
    std::string target_;     // behind symbolic links
    std::string temporary_;  // empty when the output is written as it is
    std::optional<Output> output_;
};

}  // namespace tool

#endif
