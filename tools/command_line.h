// SPDX-License-Identifier: Apache-2.0
// The command line around the commands: what a user typed is understood or explained.
#ifndef KESTREL_TOOLS_COMMAND_LINE_H
#define KESTREL_TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>

namespace tool {

// Parses the command line, runs the command that it names, and returns the exit code. Also
// understands "help [COMMAND]" and "version". Throws Error for wrong usage.
int run_command_line(CLI::App& app, int argc, char** argv);

// Gives the help of all commands its form: plain words, at most 80 columns.
void format_help(CLI::App& app);

}  // namespace tool

#endif
