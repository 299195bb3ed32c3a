// SPDX-License-Identifier: Apache-2.0
// Collecting the facts of a file for the tool: in bounded time and memory, without the library's
// lines on standard error.
#ifndef KESTREL_TOOLS_JUDGE_FACTS_H
#define KESTREL_TOOLS_JUDGE_FACTS_H

#include <string>

#include "companion/probe/file_facts.h"
#include "tools/judge/child_process.h"
#include "tools/support.h"

namespace tool {

// Reads the facts until `deadline`. The host must outlive them. Lines of the library are stored as
// remarks. Throws the system's error where the file cannot be read.
FileFacts gather_facts(kst_host* host, Clock::time_point deadline);

// The error for a file of another kind.
Error no_media_file(const std::string& input, uint64_t size);

// The memory limit of reading and playing: a handle holds a multiple of the boxes that it reads.
uint64_t memory_limit(const FileScan& scan);

// The samples of a video or speech track that are empty, and a remark on them without a full stop;
// empty for none.
uint64_t empty_samples(const FileFacts& facts, const iso_track* track);
std::string empty_samples_text(const FileFacts& facts, const iso_track* track);

// What kst_hint remarks on in boxes and tables that may show a loss, without a full stop; empty for
// nothing. Reads the tables of a plain file for it.
std::string import_remark(const FileFacts& facts, Clock::time_point deadline);

// The place of damage for which kst_hint refuses the file, with salvage as well; empty for none.
std::string import_refusal(const FileFacts& facts, Clock::time_point deadline);

}  // namespace tool

#endif
