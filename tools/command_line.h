// SPDX-License-Identifier: Apache-2.0
// Parses the command line, and explains errors in it.
#ifndef KESTREL_TOOLS_COMMAND_LINE_H
#define KESTREL_TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>

namespace tool {

// Parses the command line, runs the command that it names, and returns the exit code. Also
// understands "help [COMMAND]" and "version". Throws Error for wrong usage.
int run_command_line(CLI::App& app, int argc, char** argv);

// Sets the form of the help of all commands: plain words, at most 80 columns.
void format_help(CLI::App& app);

}  // namespace tool

#endif
