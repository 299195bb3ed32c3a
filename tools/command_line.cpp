// SPDX-License-Identifier: Apache-2.0
#include "tools/command_line.h"

#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <regex>
#include <sstream>

#include "tools/support.h"

namespace tool {
namespace {

using Words = std::vector<std::string>;

[[noreturn]] void wrong_usage(const std::string& text) {
    throw Error(text, kWrongUsage);
}

bool is_file(const std::string& word) {
    return access(word.c_str(), F_OK) == 0;
}

// --- suggestions ---

// Insertions, removals, replacements and swaps of neighbours that turn one word into the other.
size_t distance(const std::string& from, const std::string& to) {
    std::vector<std::vector<size_t>> least(from.size() + 1, std::vector<size_t>(to.size() + 1));
    std::iota(least[0].begin(), least[0].end(), size_t{0});
    for (size_t i = 1; i <= from.size(); ++i) {
        least[i][0] = i;
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t other = from[i - 1] != to[j - 1] ? 1 : 0;
            least[i][j] =
                std::min({least[i - 1][j] + 1, least[i][j - 1] + 1, least[i - 1][j - 1] + other});
            const bool swapped =
                i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (swapped) least[i][j] = std::min(least[i][j], least[i - 2][j - 2] + 1);
        }
    }
    return least[from.size()][to.size()];
}

// " (did you mean 'info'?)", or nothing where no word is near.
std::string suggestion(const std::string& word, const Words& known) {
    constexpr size_t kShortest = 3, kLongest = 20;  // of a word that may be mistyped
    if (word.size() < kShortest || word.size() > kLongest) return "";
    const auto farness = [&](const std::string& candidate) {
        return candidate.starts_with(word) ? size_t{1} : distance(word, candidate);
    };
    const auto nearest =
        std::min_element(known.begin(), known.end(),
                         [&](const auto& a, const auto& b) { return farness(a) < farness(b); });
    const size_t dashes = std::min(word.find_first_not_of('-'), word.size());
    const bool is_near = nearest != known.end() && farness(*nearest) <= 2 &&
                         farness(*nearest) < word.size() - dashes;
    return is_near ? "; did you mean '" + *nearest + "'?" : "";
}

// --- commands and options ---

Words command_names(const CLI::App& app) {
    Words names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return names;
}

CLI::App* find_command(CLI::App& app, const std::string& name) {
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        if (command->get_name() == name) return command;
    }
    return nullptr;
}

CLI::App& command_or_fail(CLI::App& app, const std::string& name) {
    if (CLI::App* found = find_command(app, name)) return *found;
    Words known = command_names(app);
    known.insert(known.end(), {"help", "version"});
    std::string text = "unknown command '" + name + "'" + suggestion(name, known);
    if (is_file(name)) text += "; a command comes before the file, such as 'info'";
    wrong_usage(text + "; 'kestrel help' lists the commands");
}

// The long names of options, with their dashes.
Words option_names(const CLI::App& command) {
    Words names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    }
    return names;
}

std::string help_hint(const CLI::App& command) {
    const bool is_top = command.get_parent() == nullptr;
    return "; 'kestrel help" + (is_top ? "" : " " + command.get_name()) + "' lists the options";
}

// The option that a word with a dash names, "-oOUT" and "--output=OUT" included.
const CLI::Option* option_of(const CLI::App& command, const std::string& word) {
    const std::string name =
        word.starts_with("--") ? word.substr(0, word.find('=')) : word.substr(0, 2);
    return command.get_option_no_throw(name);
}

bool holds_value(const std::string& word) {
    return word.starts_with("--") ? word.find('=') != std::string::npos : word.size() > 2;
}

std::string dash_hint(const std::string& word) {
    return "; a name that begins with a dash is given as ./" + word;
}

[[noreturn]] void unknown_option(const CLI::App& command, const std::string& word) {
    const std::string text = "unknown option '" + word + "'";
    if (is_file(word)) wrong_usage(text + dash_hint(word));
    wrong_usage(text + suggestion(word, option_names(command)) + help_hint(command));
}

// What an option takes, as help shows it.
std::string argument_of(const CLI::Option& option) {
    if (!option.get_option_text().empty()) return option.get_option_text();
    if (option.get_items_expected_max() == 0) return "";
    const std::string type = option.get_type_name();  // "UINT:UINT in [64 - 65535]"
    const std::string name = type.substr(0, type.find(':'));
    return name == "TEXT" ? "OUT" : name == "UINT" ? "N" : name;
}

// Looks at the options before the parser does, which would report what is missing first.
void check_options(const CLI::App& command, const Words& words) {
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--") return;
        if (word.size() < 2 || word[0] != '-') continue;
        const CLI::Option* option = option_of(command, word);
        if (option == nullptr) unknown_option(command, word);
        if (option->get_items_expected_max() == 0 || holds_value(word)) continue;
        const bool has_next = ++i < words.size();
        if (has_next && (words[i] == "-" || words[i][0] != '-')) continue;
        const std::string needs = word + " needs " + argument_of(*option);
        const bool is_number = has_next && words[i].size() > 1 && std::isdigit(words[i][1]) != 0;
        if (!has_next) wrong_usage(needs + " after it");
        wrong_usage(needs + " after it, not '" + words[i] + "'" +
                    (is_number ? "" : dash_hint(words[i])));
    }
}

// --- the parser's errors in plain words ---

std::string usage_of(const CLI::App& app) {
    const auto used = app.get_subcommands();
    const CLI::App& command = used.empty() ? app : *used.front();
    std::string usage = "kestrel " + command.get_name();
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_positional()) usage += " " + option->get_name();
    }
    for (const CLI::Option* option : command.get_options()) {
        if (!option->get_positional() && option->get_required())
            usage += " " + option->get_name() + " " + argument_of(*option);
    }
    return usage;
}

// In the order in which they were given; the parser's error has them from the last to the first.
std::string unexpected_words(const CLI::App& app) {
    std::string all;
    for (const std::string& word : app.remaining(true)) {
        if (word != "--") all += (all.empty() ? "" : " ") + word;
    }
    return all;
}

std::string in_plain_words(const CLI::App& app, const CLI::ParseError& wrong) {
    static const std::pair<std::regex, const char*> kForms[] = {
        {std::regex("(.*) is required"), "$1 is missing; usage: "},
        {std::regex("Could not convert: (\\S+) = (\\d+)"),
         "$1: '$2' is not a whole number from 0 to 4294967295"},
        {std::regex("Could not convert: (\\S+) = (.*)"), "$1: '$2' is not a whole number"},
        {std::regex("(\\S+): Value (.*) not in range (\\d+) to (\\d+)"),
         "$1: '$2' is not a whole number from $3 to $4"},
        {std::regex("(\\S+): Value (.*) not in range (\\d+\\.\\d*?)\\.?0* to (\\d+)\\.0*"),
         "$1: '$2' is not a number from $3 to $4"},
        {std::regex("(\\S+): At Most 1 required but received (\\d+)"),
         "$1 is given $2 times; give it once"},
        {std::regex("(\\S+): \\d+ required (.*) missing"), "$1 needs $2 after it"},
        {std::regex("(.*) requires (.*)"), "$1 needs $2"},
        {std::regex("(.*) excludes (.*)"), "$1 and $2 exclude each other"},
    };
    if (dynamic_cast<const CLI::ExtrasError*>(&wrong) != nullptr)
        return "not expected: '" + unexpected_words(app) + "'; usage: " + usage_of(app);
    // std::regex takes stack in proportion to the text.
    constexpr size_t kMaxText = 1000;
    std::string text = wrong.what();
    if (text.size() > kMaxText) text = text.substr(0, kMaxText) + "...";
    for (const auto& [form, words] : kForms) {
        if (!std::regex_match(text, form)) continue;
        const std::string plain = std::regex_replace(text, form, words);
        return plain.ends_with("usage: ") ? plain + usage_of(app) : plain;
    }
    return text;
}

void print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    finish_standard_output();
}

// --- help ---

class HelpFormatter final : public CLI::Formatter {
  public:
    HelpFormatter() {
        label("Positionals", "Arguments");
        label("SUBCOMMAND", "COMMAND");
    }

    std::string make_option(const CLI::Option* option, bool is_positional) const override {
        std::string left = "  " + option->get_name(is_positional, true);
        if (is_positional) {
            left += option->get_items_expected_max() > 1 ? "..." : "";
        } else if (const std::string argument = argument_of(*option); !argument.empty()) {
            left += " " + argument;
        }
        return two_columns(left, option->get_description() + notes(*option, is_positional));
    }

    std::string make_subcommand(const CLI::App* command) const override {
        return two_columns("  " + command->get_name(), command->get_description());
    }

  private:
    static constexpr size_t kColumn = 24;
    static constexpr size_t kWidth = 80;

    static std::string notes(const CLI::Option& option, bool is_positional) {
        std::string out;
        std::smatch range;
        const std::string type = option.get_type_name();
        if (std::regex_search(type, range, std::regex("in \\[(\\d+) - (\\d+)\\]"))) {
            out += ". From " + range[1].str() + " to " + range[2].str();
        }
        if (!option.get_default_str().empty()) {
            out += ". Without the option: " + option.get_default_str();
        }
        for (const CLI::Option* other : option.get_needs())
            out += ". Needs " + other->get_name();
        for (const CLI::Option* other : option.get_excludes())
            out += ". Not with " + other->get_name();
        return out + (option.get_required() && !is_positional ? " (required)" : "");
    }

    static std::string two_columns(const std::string& left, const std::string& text) {
        std::string out = left.size() + 2 > kColumn ? left + "\n" : "";
        std::string line = out.empty() ? left : "";
        line.resize(kColumn, ' ');
        std::istringstream words(text);
        bool is_first = true;
        for (std::string word; words >> word; is_first = false) {
            if (!is_first && line.size() + 1 + word.size() > kWidth) {
                out += line + "\n";
                line.assign(kColumn, ' ');
                is_first = true;
            }
            line += (is_first ? "" : " ") + word;
        }
        return out + line + "\n";
    }
};

}  // namespace

int run_command_line(CLI::App& app, int argc, char** argv) {
    const Words words(argv + 1, argv + argc);
    if (words.empty()) wrong_usage("a command is missing; 'kestrel help' lists the commands");
    const std::string& first = words.front();
    const size_t most = first == "version" ? 1 : first == "help" ? 2 : words.size();
    if (words.size() > most) {
        wrong_usage("not expected: '" + words[most] + "'; usage: kestrel " + first +
                    (first == "help" ? " [COMMAND]" : ""));
    }
    if (first == "version") {
        print(app.version() + "\n");
        return kDone;
    }
    if (first == "help") {
        const bool is_general = words.size() == 1 || words[1] == "help" || words[1] == "version";
        const CLI::App& about = is_general ? app : command_or_fail(app, words[1]);
        print(about.help(&about == &app ? "" : "kestrel"));
        return kDone;
    }
    if (first.starts_with('-')) {
        check_options(app, words);
    } else {
        check_options(command_or_fail(app, first), {words.begin() + 1, words.end()});
    }
    try {
        app.parse(argc, argv);
        finish_standard_output();
        return kDone;
    } catch (const CLI::Success& asked_for) {
        std::ostringstream text;  // of --help and --version
        const int code = app.exit(asked_for, text, text);
        print(text.str());
        return code;
    } catch (const CLI::ParseError& wrong) {
        wrong_usage(in_plain_words(app, wrong));
    }
}

void format_help(CLI::App& app) {
    const auto formatter = std::make_shared<HelpFormatter>();
    app.formatter(formatter);
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        command->group("Commands");
        command->formatter(formatter);
    }
}

}  // namespace tool
