// The commands of the tool. Each adds itself to the command line with its options and what runs it.
#ifndef KESTREL_TOOLS_COMMANDS_H
#define KESTREL_TOOLS_COMMANDS_H

#include <CLI/CLI.hpp>

namespace tool {

void add_extract(CLI::App& app);
void add_hint(CLI::App& app);
void add_info(CLI::App& app);
void add_inspect(CLI::App& app);
void add_unpack(CLI::App& app);
void add_packets(CLI::App& app);
void add_boxes(CLI::App& app);

}  // namespace tool

#endif
