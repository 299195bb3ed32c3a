// Looking for the command that makes a file play, by trying it.
#ifndef KESTREL_TOOLS_JUDGE_FIX_H
#define KESTREL_TOOLS_JUDGE_FIX_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/judge/child_process.h"
#include "tools/judge/file_facts.h"
#include "tools/judge/trial.h"

namespace tool {

// Runs each command once for a file, into a temporary file without a name, and plays what it made.
// Files that are large, or have very many samples, are not tried.
class FixFinder {
  public:
    // The facts must outlive the finder.
    FixFinder(const FileFacts& facts, const ChildLimits& limits);

    // The first command after which `is_fixed` holds for what playing came to; empty for none.
    std::string find(Api api, MediaKind kind,
                     const std::function<bool(const TrialResult&)>& is_fixed);

  private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    using TemporaryFile = std::unique_ptr<std::FILE, Closer>;

    // A command, and what it made of the file.
    struct Candidate {
        std::string command;
        bool replace = false;
        bool tried = false;
        TemporaryFile made;  // null when it was not tried, or failed
    };

    bool is_worth_a_try() const;
    void run(Candidate& candidate) const;

    const FileFacts& facts_;
    ChildLimits limits_;
    std::vector<Candidate> candidates_;
};

}  // namespace tool

#endif
