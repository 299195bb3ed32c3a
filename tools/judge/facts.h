// SPDX-License-Identifier: Apache-2.0
// Gathering the facts of a file for the tool: in bounded time and memory, without the lines of the
// library on standard error.
#ifndef KESTREL_TOOLS_JUDGE_FACTS_H
#define KESTREL_TOOLS_JUDGE_FACTS_H

#include <string>

#include "companion/probe/file_facts.h"
#include "tools/judge/child_process.h"
#include "tools/support.h"

namespace tool {

// Reads them until `deadline`; the host must outlive the facts. What the library writes to standard
// error meanwhile is in the remarks.
FileFacts gather_facts(kst_host* host, Clock::time_point deadline);

// The error for a file that is none of this kind.
Error no_media_file(const std::string& input);

// The memory that reading and playing may take: a handle holds a multiple of the boxes that it
// reads.
uint64_t memory_limit(const FileScan& scan);

}  // namespace tool

#endif
