// SPDX-License-Identifier: Apache-2.0
// Printing JSON value by value, without holding all of it in memory.
#ifndef KESTREL_TOOLS_JSON_PRINTER_H
#define KESTREL_TOOLS_JSON_PRINTER_H

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tools/json.h"
#include "tools/support.h"

namespace tool {

// Prints values in the form of json_text. A tree can be many times as large as the tables.
class JsonPrinter {
  public:
    void text(std::string_view name, const std::string& value) {
        begin_value(name);
        std::fputs(json_line(value).c_str(), stdout);
    }
    void number(std::string_view name, int64_t value) {
        begin_value(name);
        std::printf("%lld", static_cast<long long>(value));
    }
    void open(std::string_view name, char bracket) {
        begin_value(name);
        std::putchar(bracket);
        levels_.push_back({bracket, true});
    }
    void boolean(std::string_view name, bool value) {
        begin_value(name);
        std::fputs(value ? "true" : "false", stdout);
    }
    void close() {
        const Level level = levels_.back();
        levels_.pop_back();
        if (!level.empty) begin_line();
        std::putchar(level.bracket == '[' ? ']' : '}');
    }

  private:
    struct Level {
        char bracket;
        bool empty;
    };

    void begin_line() const { std::printf("\n%*s", static_cast<int>(2 * levels_.size()), ""); }

    void begin_value(std::string_view name) {
        progress_.show_count(++values_, "values");
        if (levels_.empty()) return;
        if (!levels_.back().empty) std::putchar(',');
        levels_.back().empty = false;
        begin_line();
        if (levels_.back().bracket == '{')
            std::printf("\"%.*s\": ", static_cast<int>(name.size()), name.data());
    }

    std::vector<Level> levels_;
    Progress progress_{Progress::Beside::kLines};
    uint64_t values_ = 0;
};

}  // namespace tool

#endif
