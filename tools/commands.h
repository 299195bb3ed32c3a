// SPDX-License-Identifier: Apache-2.0
// The commands of the tool. Each adds itself to the command line, with its options and its
// function.
#ifndef KESTREL_TOOLS_COMMANDS_H
#define KESTREL_TOOLS_COMMANDS_H

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tool {

void add_check(CLI::App& app);
void add_extract(CLI::App& app);
void add_hint(CLI::App& app);
void add_info(CLI::App& app);
void add_inspect(CLI::App& app);
void add_unpack(CLI::App& app);
void add_pack(CLI::App& app);
void add_packets(CLI::App& app);
void add_send(CLI::App& app);
void add_report(CLI::App& app);
void add_boxes(CLI::App& app);

// Adds an option that takes one of a few words.
template <class Value, class Target>
CLI::Option* add_choice(CLI::App* command, const char* name, Target& value,
                        const std::vector<std::pair<std::string, Value>>& choices,
                        const char* about) {
    std::vector<std::string> words;
    for (const auto& choice : choices)
        words.push_back(choice.first);
    const auto choose = [&value, choices](const std::string& word) {
        for (const auto& choice : choices) {
            if (choice.first == word) value = choice.second;
        }
    };
    const auto refuse = [words](const std::string& word) {
        if (std::find(words.begin(), words.end(), word) != words.end()) return std::string();
        return "'" + word + "' is none of " + CLI::detail::join(words, ", ");
    };
    return command->add_option_function<std::string>(name, choose, about)
        ->check(refuse)
        ->option_text(CLI::detail::join(words, "|"));
}

// Takes the zeros off that a number begins with, which the parser reads as octal otherwise, and
// refuses other notations of whole numbers.
inline std::string as_decimal(const std::string& text) {
    const size_t first = text.find_first_not_of('0');
    if (first == std::string::npos) return text.empty() ? text : "0";
    const bool is_odd = first > 0 || text[0] == '+';
    if (is_odd && text.find_first_not_of("0123456789") != std::string::npos)
        throw CLI::ValidationError("'" + text + "' is not a whole number in decimal digits");
    return text.substr(first);
}

// What is wrong with a name of a file; empty for nothing.
inline std::string refuse_empty_name(const std::string& name) {
    return name.empty() ? "the name of a file is empty" : "";
}

// Adds the argument for the file that a command reads.
inline CLI::Option* add_input(CLI::App* command, const char* name, std::string& path,
                              const char* about) {
    return command->add_option(name, path, about)->required()->check(refuse_empty_name);
}

// Adds an option for a file that is written.
inline CLI::Option* add_output(CLI::App* command, const char* name, std::string& path,
                               const char* about) {
    return command->add_option(name, path, about)->check(refuse_empty_name);
}

// Adds the option that limits the time for a file.
struct TimeLimit {
    uint32_t seconds = 60;

    std::chrono::steady_clock::time_point deadline() const {
        return std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    }
};

inline void add_timeout(CLI::App* command, TimeLimit& limit) {
    command
        ->add_option(
            "--timeout", limit.seconds,
            "Seconds that judging a file may take (60); what is not done by then gets the\n"
            "verdict timeout")
        ->check(CLI::Range(1, 1000000))
        ->transform(as_decimal)
        ->option_text("SECONDS");
}

}  // namespace tool

#endif
