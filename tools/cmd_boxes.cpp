// SPDX-License-Identifier: Apache-2.0
#include <cstring>

#include "boxes/field_visitor.h"
#include "boxes/foreign_codec.h"
#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/support.h"

// The box tree of a file as the object model sees it.

// The library ends the process here; a tree is shown whatever the codec.
void Qvox3gp::meet_foreign_codec() {}

namespace tool {
namespace {

using Qvox3gp::Box;
using Qvox3gp::ChildPlace;

constexpr size_t kMaxShownBytes = 32;  // of a run of bytes, in the printed tree

struct Options {
    std::string input;
    bool json = false;
};

// The type's bytes in memory spell the code.
std::string type_of(const Box& box) {
    const unsigned type = box.GetType();
    char code[4];
    std::memcpy(code, &type, sizeof code);
    return printable({code, sizeof code});
}

// --- a line for each box ---

// Prints the fields of a box after its type: a list by its length.
class FieldLine final : public Qvox3gp::FieldVisitor {
  public:
    void number(std::string_view name, int64_t value) override {
        if (take(name)) std::printf("%lld", static_cast<long long>(value));
    }
    void code(std::string_view name, std::string_view four) override {
        if (take(name)) std::printf("%s", printable(four).c_str());
    }
    void bytes(std::string_view name, std::span<const uint8_t> data) override {
        if (!take(name)) return;
        const bool all = data.size() <= kMaxShownBytes;
        std::printf("%s%s", hex(all ? data : data.first(kMaxShownBytes)).c_str(), all ? "" : "...");
    }
    void begin_list(std::string_view name) override {
        if (take(name)) entries_ = 0;
        ++depth_;
    }
    void end_list() override {
        if (--depth_ == 0) std::printf("%zu entries", entries_);
    }
    void begin_record() override {
        take("");
        ++depth_;
    }
    void end_record() override { --depth_; }

  private:
    // Prints the name of a field of the box itself; counts the entries of a list of it.
    bool take(std::string_view name) {
        entries_ += depth_ == 1 ? 1 : 0;
        if (depth_ > 0) return false;
        std::printf(" %.*s=", static_cast<int>(name.size()), name.data());
        return true;
    }

    int depth_ = 0;
    size_t entries_ = 0;
};

void print_line(const ChildPlace& place, int depth) {
    std::printf("%10lld %10u  %*s%s", static_cast<long long>(place.offset), place.size, 2 * depth,
                "", type_of(*place.box).c_str());
    FieldLine fields;
    visit_fields(*place.box, fields);
    std::printf("\n");
    visit_children(*place.box, [&](const ChildPlace& child) { print_line(child, depth + 1); });
}

// --- JSON ---

// Prints values as they come, in the form of json_text: a tree may be many times the tables.
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
        if (levels_.empty()) return;
        if (!levels_.back().empty) std::putchar(',');
        levels_.back().empty = false;
        begin_line();
        if (levels_.back().bracket == '{')
            std::printf("\"%.*s\": ", static_cast<int>(name.size()), name.data());
    }

    std::vector<Level> levels_;
};

// Prints the fields of a box as an object, if it has any; lists become arrays.
class FieldObject final : public Qvox3gp::FieldVisitor {
  public:
    explicit FieldObject(JsonPrinter& out) : out_(out) {}
    ~FieldObject() override {
        if (any_) out_.close();
    }

    void number(std::string_view name, int64_t value) override {
        begin();
        out_.number(name, value);
    }
    void code(std::string_view name, std::string_view four) override {
        begin();
        out_.text(name, printable(four));
    }
    void bytes(std::string_view name, std::span<const uint8_t> data) override {
        begin();
        out_.text(name, hex(data));
    }
    void begin_list(std::string_view name) override { open(name, '['); }
    void end_list() override { out_.close(); }
    void begin_record() override { open("", '{'); }
    void end_record() override { out_.close(); }

  private:
    void begin() {
        if (!any_) out_.open("fields", '{');
        any_ = true;
    }
    void open(std::string_view name, char bracket) {
        begin();
        out_.open(name, bracket);
    }

    JsonPrinter& out_;
    bool any_ = false;
};

void print_json(JsonPrinter& out, const ChildPlace& place) {
    out.open("", '{');
    out.text("type", type_of(*place.box));
    out.number("offset", place.offset);
    out.number("size", place.size);
    {
        FieldObject fields(out);
        visit_fields(*place.box, fields);
    }
    bool any = false;
    visit_children(*place.box, [&](const ChildPlace& child) {
        if (!any) out.open("children", '[');
        any = true;
        print_json(out, child);
    });
    if (any) out.close();
    out.close();
}

void boxes(const Options& options) {
    Host host = open_host(options.input);
    int waited = KST_HOST_MORE;
    while (waited == KST_HOST_MORE)
        waited = kst_host_wait(host.get());
    if (waited == KST_HOST_FAULT) throw input_error(options.input);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = kst_host_callbacks(host.get());
    Qvox3gp::Simple3gp file;
    std::string failure;
    unsigned int remarks = 0;
    const kestrel::RemarkScope scope(remarks);
    try {
        file.Read(callbacks, 0);
    } catch (const SimpleException& caught) {
        failure = caught.message();  // what was read before is shown all the same
    }
    if (options.json) {
        JsonPrinter out;
        out.open("", '[');
        visit_children(file, [&](const ChildPlace& place) { print_json(out, place); });
        out.close();
        std::printf("\n");
    } else {
        std::printf("%10s %10s  box\n", "offset", "size");
        visit_children(file, [](const ChildPlace& place) { print_line(place, 0); });
    }
    if (failure.empty()) return;
    finish_standard_output();
    throw Error(options.input + ": " + failure);
}

}  // namespace

void add_boxes(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "boxes", "Show the box tree: offset and size of each box, and the fields of known boxes");
    command->add_option("FILE", options->input, "3GP file; - is standard input")->required();
    command->add_flag("--json", options->json, "Print JSON, with all list entries");
    command->callback([options] { boxes(*options); });
}

}  // namespace tool
