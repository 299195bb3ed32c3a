// SPDX-License-Identifier: Apache-2.0
// Finding the command that makes a file play, by trying.
#ifndef KESTREL_TOOLS_JUDGE_FIX_H
#define KESTREL_TOOLS_JUDGE_FIX_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/descriptor.h"
#include "tools/judge/child_process.h"
#include "tools/judge/facts.h"
#include "tools/judge/trial.h"

namespace tool {

// Runs each command at most once for a file, into a temporary file without a name, and plays what
// it made. Files for whose copy there is little room, or with very many samples, are not tried.
class FixFinder {
  public:
    // The facts must outlive the finder.
    FixFinder(const FileFacts& facts, const ChildLimits& limits);

    // Whether the result of playing is a fix. The second argument means that the command kept only
    // the whole samples of a truncated file.
    using IsFixed = std::function<bool(const TrialResult&, bool is_salvage)>;

    // Returns the first command, with its options, for which `is_fixed` holds; empty for none.
    std::string find(Api api, MediaKind kind, const IsFixed& is_fixed);

  private:
    // A command and its result.
    struct Candidate {
        std::string command;
        uint32_t flags = 0;  // of kst_hint
        bool tried = false;
        Descriptor made;  // none when it was not tried, or failed
    };

    bool is_worth_a_try() const;
    void run(Candidate& candidate) const;

    const FileFacts& facts_;
    ChildLimits limits_;
    std::vector<Candidate> candidates_;
};

// Whether a file was cut or lacks fragments, so that what is whole of it may be kept.
bool lacks_something(const FileFacts& facts);

// The error of a file that was not hinted with `flags` of kst_hint, with what it lacks. Names
// `salvage`, the option or the command that keeps the rest, where that can be done.
Error hint_error(kst_host* host, const std::string& input, const std::string& text,
                 const char* salvage, uint32_t flags);

inline constexpr auto kPatience = std::chrono::seconds(10);  // with a file that failed

}  // namespace tool

#endif
