// SPDX-License-Identifier: Apache-2.0
// A verdict as JSON, the same in every command.
#ifndef KESTREL_TOOLS_JUDGE_VERDICT_JSON_H
#define KESTREL_TOOLS_JUDGE_VERDICT_JSON_H

#include <string>

#include "tools/json.h"
#include "tools/judge/verdict.h"

namespace tool {

// `input` is the file, for the command that fixes it.
Json describe(const Verdict& verdict, const std::string& input);

}  // namespace tool

#endif
